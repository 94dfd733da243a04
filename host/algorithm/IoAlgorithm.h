#pragma once

// IoAlgorithm: an Algorithm that loads data from or saves data to a location (a file or
// folder path, or a URL-like text that the subclass understands).
//
// - IoMode: Load = 1, Save = 2, LoadSave = 3 (a bit set: test with `ioMode() & Load`).
// - The int of the constructor is `saveCount`: how many data items one save writes
//   (1 for single-object formats, -1 for any number, 0 for loaders that never save).
// - supportedLocations() lists glob patterns of file names ("*.nii", "*.nii.gz"); the default
//   canLoad() is true for a loader whose pattern matches the file name of `path` (case-
//   insensitive). Formats that must look inside the file override canLoad().
// - fail(status): the one-line way out of a failing load/save:
//       if (!file) return fail(&status);
//   sets the algorithm's status to Error (or the given code), copies it to *status when that is
//   not null, and returns false.

#include "host/algorithm/Algorithm.h"

#include <string>
#include <vector>

namespace Velmoria {

class IoAlgorithm : public Algorithm
{
public:
    enum IoMode : int
    {
        Load = 1,
        Save = 2,
        LoadSave = 3,
    };

    IoAlgorithm(IoMode mode, int saveCount);
    ~IoAlgorithm() override;

    std::string const& location() const { return m_location; }
    virtual void setLocation(std::string const& path) { m_location = path; }
    virtual std::vector<std::string> supportedLocations() const { return {}; }
    virtual bool canLoad(std::string const& path) const;
    IoMode ioMode() const { return m_mode; }
    int saveCount() const { return m_saveCount; }

    // A file name for a save dialog: "data" plus the extension of the first pattern ("*.nii.gz"
    // gives "data.nii.gz"); empty when there is no pattern.
    virtual std::string suggestedSaveFileName() const;
    // Reads defaults from the process-wide Settings; nothing by default.
    virtual void configureFromGlobalSettings() {}

    bool fail(int* status, int code = Error);

    // True when the file name of `path` matches one of the glob patterns (case-insensitive).
    static bool matchesPatterns(std::string const& path, std::vector<std::string> const& patterns);

private:
    IoMode m_mode;
    int m_saveCount;
    std::string m_location;
};

} // namespace Velmoria

#pragma once

// IO::FileLoader: loads any file (or DICOM folder) the host knows into an OwningDataList.
//
//   OwningDataList data = IO::FileLoader::load("scan.nii.gz");
//   if (data.empty()) ...  // the error is logged in "Host.FileLoader"
//
// load() registers the host's IO algorithms when that was not done (IoAlgorithms.h), asks
// FactoryRegistry::compatibleIoDescriptors(path) which IO algorithms can load the path, and
// runs the first (plug-ins that put their factory first win). When several fit it logs a
// warning listing them all. It never throws: a missing path, no compatible algorithm, or a
// failing load give an empty list and one error line in "Host.FileLoader" naming the path and
// the reason (the algorithm's own error line, naming the detail, comes before it).

#include "host/core/Flags.h"
#include "host/data/DataList.h"

#include <string>

namespace Velmoria::IO {

class FileLoader
{
public:
    enum class LoadFlag : unsigned
    {
        None = 0,
        // No warning when several IO algorithms can load the path (for callers that load many
        // files of a kind and have seen the choice once).
        QuietChoice = 1,
    };
    using LoadFlags = Flags<LoadFlag>;

    static OwningDataList load(std::string const& path, LoadFlags flags = LoadFlag::None);
};

} // namespace Velmoria::IO

#pragma once

// Algorithm: a computation that the host can configure (it is a Configurable), run and show.
//
// Life of an algorithm:
//   1. A factory asks the subclass's static
//        static bool createCompatible(DataList const& data, Algorithm** algorithm);
//      whether it can run on `data`. With `algorithm` null it only answers; otherwise, when it
//      answers true, it also stores a new instance made for that data in *algorithm (the
//      caller owns it; AlgorithmFactory wraps it in a unique_ptr at once). Answering false it
//      must leave *algorithm untouched and null.
//   2. The host configures it (configure()), gives it a Progress and calls compute(), usually
//      through AlgorithmUtils::execute, which turns exceptions into an Error status.
//   3. compute() sets status(); the results are handed over once by takeOutput().
//
// Status codes (status()): Unknown (-1) before the first run, Success (0), then the reasons of
// failure Error 1, InvalidInput 2, IncompleteInput 3, OutOfMemory 4, Canceled 5,
// NotImplemented 6, Unsupported 7. Subclasses may use their own codes from CustomStatus (1000)
// on; any code but Success means failure.

#include "host/core/Configurable.h"
#include "host/data/DataList.h"

#include <string>

namespace Velmoria {

class Algorithm;
class Progress;

namespace AlgorithmUtils {
bool execute(Algorithm& algorithm, Progress* progress);
}

class Algorithm : public Configurable
{
public:
    enum Status : int
    {
        Unknown = -1,
        Success = 0,
        Error = 1,
        InvalidInput = 2,
        IncompleteInput = 3,
        OutOfMemory = 4,
        Canceled = 5,
        NotImplemented = 6,
        Unsupported = 7,
        CustomStatus = 1000,
    };

    Algorithm() = default;
    ~Algorithm() override;

    virtual void compute() = 0;
    int status() const { return m_status; }
    // "Success", "InvalidInput", ...; "Custom status 1001" or "Status 42" for other codes.
    static std::string statusString(int status);

    // Hands the results of the last compute() over; later calls return what was produced since.
    virtual OwningDataList takeOutput() { return {}; }

    // Not owned; may be null (no progress reporting, no cancellation).
    void setProgress(Progress* progress) { m_progress = progress; }
    Progress* progress() const { return m_progress; }

    // True when the algorithm can go on after `data` (one of its inputs) was deleted; the host
    // deletes algorithms that answer false together with their inputs.
    virtual bool survivesDataDeletion(Data const* /*data*/) const { return false; }

protected:
    void setStatus(int status) { m_status = status; }

private:
    friend bool AlgorithmUtils::execute(Algorithm& algorithm, Progress* progress);

    int m_status = Unknown;
    Progress* m_progress = nullptr;
};

} // namespace Velmoria

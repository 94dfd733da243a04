#pragma once

// OperationsSequence: the ordered list of operations applied to one DataItem, each with the
// phases in which it runs. Model pre- and post-processing, the pre-processing loader and the
// sequence algorithm all run their operations through it.
//
// It reports failure as a value, never as an exception out of process(): a failing run clears
// the item (no half-processed data is left behind) and returns an error whose message names
// every operation with its index, and the index and reason of the failure:
//
//   In OperationsSequence: [(0: Pad), (1: Resample), (2: Crop), ] Error at operation 1: <reason>
//
// Error codes: 0 none, 1 an operation could not be added, 2 an operation failed while processing.
//
// Seeds: setOperationSeeds gives every operation the same seed (warning about any that had
// another); resetOperationSeeds restarts each seeded operation's random stream from its own
// seed, which repeats a sequence of augmentations exactly.
//
// process() is const but changes the operations' state (hooks, random generators, warnings);
// one sequence runs on one thread at a time.

#include "ml/operations/Operation.h"
#include "ml/operations/Phase.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Velmoria::ML {

struct OperationsSequenceError
{
    enum Code : std::uint32_t
    {
        None = 0,
        CannotAdd = 1,
        ProcessingFailed = 2,
    };
    std::uint32_t code = None;
    std::string message;
};

class OperationsSequence
{
public:
    explicit OperationsSequence(bool verbose = false);
    // Adds the operations in order; stops at the first that cannot be created, logs it and keeps
    // it in error(). What was added before stays.
    OperationsSequence(std::vector<Operation::Specs> const& specs, bool verbose = false);

    std::optional<OperationsSequenceError> addOperation(std::shared_ptr<Operation> operation, Phase phase);
    std::optional<OperationsSequenceError> addOperation(Operation::Specs const& specs);

    // Runs every operation whose phases include `phase`, in order. On failure the item is
    // cleared and the error (code 2) returned.
    std::optional<OperationsSequenceError> process(DataItem& item, Phase phase) const;
    // The sets under the fields "image" and (when given) "label"; {null, null} on failure.
    std::pair<std::shared_ptr<SharedImageSet>, std::shared_ptr<SharedImageSet>>
    process(std::shared_ptr<SharedImageSet> image, std::shared_ptr<SharedImageSet> label, Phase phase) const;
    std::shared_ptr<SharedImageSet> process(std::shared_ptr<SharedImageSet> image, Phase phase) const;

    void setOperationSeeds(unsigned int seed);
    void resetOperationSeeds();
    void setOperationsComputingDevice(ComputingDevice device);
    void setErrorOnUnexpectedBehaviour(bool error);

    bool doesNotModifyInput() const;
    std::vector<std::string> getOperationNames() const;
    std::vector<std::shared_ptr<Operation>> operations() const;
    std::vector<Phase> phases() const;

    // The first failure of construction, empty when the sequence may be used.
    std::optional<OperationsSequenceError> const& error() const { return m_error; }
    bool isVerbose() const { return m_verbose; }
    void setVerbose(bool verbose) { m_verbose = verbose; }
    std::size_t size() const { return m_entries.size(); }
    bool empty() const { return m_entries.empty(); }

private:
    struct Entry
    {
        std::shared_ptr<Operation> operation;
        Phase phase;
    };

    std::vector<Entry> m_entries;
    std::optional<OperationsSequenceError> m_error;
    bool m_verbose = false;
};

} // namespace Velmoria::ML

#pragma once

// MachineLearningModel: the prediction driver. It turns a model YAML file into a running
// pipeline (ModelConfiguration, the engine, the operation sequences around the network) and
// runs it on a DataItem. Log category "ML.MachineLearningModel".
//
// Lifecycle. init() (or the throwing constructor, create(), createWithStatus()) loads the
// configuration and cuts its processing lists at the patch entries:
//   PreProcessing:  [preprocessing ...] SplitIntoPatches [postSplitSequence ...]
//   PostProcessing: [preRecombineSequence ...] RecombinePatches [postprocessing ...]
// An entry's place in the list decides on which level it runs: the outer sequences on the whole
// item, the inner ones on every patch. Without a split entry everything is "outer". The engine
// is built at once, or, in lazy mode, at the first runEngine() (then a failure to build it shows
// up at prediction time; init only checks that the engine name is registered).
//
// predict(item): pre-processing on a deep clone, the choice of the execution path, the engine,
// post-processing. Batch mode (the whole batch, cut only at "MaxBatchSize") is chosen unless an
// image element holds frames of different dimensions, the configuration splits images
// ("Sampling" MaxSizeSubdivision), or "MaxBatchSize" is at most 1 and some element is 3D. The
// other path runs frame by frame and, with a SplitIntoPatches entry, patch by patch inside a
// frame: post-split operations, engine, crop of a padded patch back to its region, pre-recombine
// operations, recombination (only when a frame needs more than one patch; otherwise, and
// without a RecombinePatches entry, the patch predictions are stacked as samples).
//
// Configurations that behave as schema 7 or below would need the legacy execution paths
// (implicit splitting through the host's image-splitting algorithm). Those paths are not part
// of this library; such a model loads, but predict() refuses it with an error that names the
// missing path and tells the user to set "UpgradeToMLModelV2: true".
// For the same reason the host's image-splitting algorithm (used by those paths only) is not
// built by init(), and the "Sampling" block is not validated against it here.
//
// Outputs. The output item has one field per engine output field that is not ignored, typed by
// "PredictionOutput"; prediction fields without such a container are dropped, which is how
// ignored outputs disappear. Image outputs are frameless clones of the input's reference image
// (so they keep its name, properties and components) and carry a ReferenceImageDataComponent
// pointing back at it, as does the item. Unless "CloneInputContainer" is set, image sets of a
// class derived from SharedImageSet are replaced by plain sets sharing the same frames.
//
// References are held as shared pointers (not raw pointers) because ReferenceImageDataComponent
// keeps the reference alive beyond the prediction; both are rewritten by every predict().
//
// Failures: predict() returns an empty item after one error line; engine exceptions stop in
// runEngine(). Progress: predict() reports a task of six steps ("Pre-processing input...",
// "Running prediction...", "Post-processing prediction...") with sub-tasks for batches, frames
// and patches, and checks the cancel flag at each of them and once more after the
// post-processing, so that a late cancel still discards the result.
//
// Not reentrant: one thread per model (predict writes the references and drives the engine).

#include "ml/data/DataItem.h"
#include "ml/model/Engine.h"
#include "ml/model/ModelConfiguration.h"
#include "ml/model/ModelEnums.h"
#include "ml/model/PredictionTimings.h"
#include "ml/operations/Operation.h"
#include "ml/operations/OperationsSequence.h"

#include "host/core/Progress.h"
#include "host/image/SharedImageSet.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace Velmoria::ML {

class SplitIntoPatchesOperation;
class RecombinePatchesOperation;

// Thrown by the loading constructor only.
class MLModelException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class MachineLearningModel
{
public:
    // Status 0 on success, 1 with an optional message on failure.
    struct InitResult
    {
        int status = 1;
        std::optional<std::string> message;
    };
    struct CreateResult
    {
        std::unique_ptr<MachineLearningModel> model; // null on failure
        int status = 1;
        std::optional<std::string> message;
    };

    MachineLearningModel();
    // init(); a failure throws MLModelException with init's message (or "Could not instantiate
    // ML model").
    MachineLearningModel(std::string const& configPath, PredictionOutput defaultOutput,
                         bool lazyEngine = false);
    virtual ~MachineLearningModel();
    MachineLearningModel(MachineLearningModel const&) = delete;
    MachineLearningModel& operator=(MachineLearningModel const&) = delete;

    // Null (and the message logged at error level) on failure.
    static std::unique_ptr<MachineLearningModel> create(std::string const& configPath,
                                                        PredictionOutput defaultOutput);
    // As create(), without a log line.
    static CreateResult createWithStatus(std::string const& configPath, PredictionOutput defaultOutput);

    // Loads the configuration and builds the sequences and (unless lazy) the engine. Never throws.
    InitResult init(std::string const& configPath, PredictionOutput defaultOutput, bool lazyEngine = false);
    // Builds (or rebuilds) the engine from the configuration; false, logged, on failure.
    bool createEngine();

    // The prediction; empty on any failure (one error line says why).
    DataItem predict(DataItem const& input);
    // The input under the field "Input"; the first output field's image set (cloned), or null.
    std::unique_ptr<SharedImageSet> predict(SharedImageSet const& input);

    // Deep clone of `input` run through the pre-processing; empty (logged) on failure.
    DataItem applyPreProcessing(DataItem const& input) const;
    // The empty containers that collect the predictions (see the file comment).
    DataItem setupOutputItemContainers() const;
    // The engine's prediction; empty (logged) when there is no engine or it throws.
    DataItem runEngine(DataItem const& input);

    // The item's ReferenceImageDataComponent, else its only image element's set, else (several
    // image elements) the first one's set when all are spatially compatible frame by frame.
    // When there is none, `whyNone` (if given) says why, naming the fields and their grids.
    static std::shared_ptr<SharedImageSet> maybeGetReferenceImage(DataItem const& item,
                                                                  std::string* whyNone = nullptr);
    // Frame `frame` of every element of `item` in a fresh container; empty item for a frame
    // outside the batch. Elements of unknown kind are left out with a warning.
    static DataItem getSingleFrameInCustomContainer(DataItem const& item, std::size_t frame);
    // A frameless plain set with `set`'s properties and its reference, patch and inversion
    // components (only those: other components describe the whole set, not one frame of it).
    static std::unique_ptr<SharedImageSet> customContainerClone(SharedImageSet const& set);

    void setProgress(Progress* progress) { m_progress = progress; }
    // Where the time of the last predict() went (zeros before the first one).
    PredictionTimings const& lastTimings() const { return m_timings; }

    ModelConfiguration* config() { return m_config.get(); }
    ModelConfiguration const* config() const { return m_config.get(); }
    Engine* engine() { return m_engine.get(); }
    Engine const* engine() const { return m_engine.get(); }
    OperationsSequence* preprocessingSequence() { return m_preprocessing.get(); }
    OperationsSequence const* preprocessingSequence() const { return m_preprocessing.get(); }
    OperationsSequence* postprocessingSequence() { return m_postprocessing.get(); }
    OperationsSequence const* postprocessingSequence() const { return m_postprocessing.get(); }
    OperationsSequence const* postSplitSequence() const { return m_postSplitSequence.get(); }
    OperationsSequence const* preRecombineSequence() const { return m_preRecombineSequence.get(); }

protected:
    bool executeBatchV2(DataItem const& input, DataItem& output, Progress::Task& task);
    bool executeFrameByFrameV2(DataItem const& input, DataItem& output, Progress::Task& task);

private:
    // The batch mode choice of predict() for the pre-processed item.
    bool chooseBatchMode(DataItem const& preprocessed) const;
    // One frame cut into patches: engine per patch, crop, recombination. Empty on failure.
    std::optional<DataItem> predictPatches(DataItem const& frameItem, std::size_t frame);
    // The "Verbose" summary of m_timings.
    void logTimings() const;
    // Step 14 of predict: derived image-set classes replaced by plain sets sharing the frames.
    static void replaceDerivedContainers(DataItem& output);

    std::unique_ptr<ModelConfiguration> m_config;
    PredictionTimings m_timings;
    std::unique_ptr<OperationsSequence> m_preprocessing;
    std::unique_ptr<OperationsSequence> m_postprocessing;
    std::unique_ptr<Engine> m_engine;
    std::unique_ptr<OperationsSequence> m_postSplitSequence;
    std::unique_ptr<OperationsSequence> m_preRecombineSequence;
    std::unique_ptr<SplitIntoPatchesOperation> m_splitOperation;
    std::unique_ptr<RecombinePatchesOperation> m_recombineOperation;
    std::shared_ptr<SharedImageSet> m_referenceInput;
    std::shared_ptr<SharedImageSet> m_referencePreprocessed;
    // Why the pre-processed item has no reference image (the fields on different grids).
    std::string m_noReferenceReason;
    Progress* m_progress = nullptr;
};

} // namespace Velmoria::ML

#include "ml/model/MachineLearningModel.h"

#include "ml/data/BoundingBoxElement.h"
#include "ml/data/BoundingBoxSet.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointSet.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/SISBasedElement.h"
#include "ml/data/TensorSet.h"
#include "ml/data/TensorSetElement.h"
#include "ml/data/VectorElement.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"
#include "ml/data/components/ReferenceImageDataComponent.h"
#include "ml/operations/OperationFactory.h"
#include "ml/operations/catalogue/PadOperations.h"
#include "ml/operations/catalogue/RecombinePatchesOperation.h"
#include "ml/operations/catalogue/SplitIntoPatchesOperation.h"
#include "ml/sampling/SplitROISampler.h"

#include "host/core/Log.h"
#include "host/core/Timer.h"
#include "host/image/LabelDataComponent.h"
#include "host/image/SharedImage.h"

#include <algorithm>
#include <exception>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Velmoria::ML {

namespace {

// Adds the time from its construction to its destruction to a PredictionTimings field.
class StageClock
{
public:
    explicit StageClock(double& into)
        : m_into(into)
    {}
    ~StageClock() { m_into += m_timer.getPassedMs(); }
    StageClock(StageClock const&) = delete;
    StageClock& operator=(StageClock const&) = delete;

private:
    double& m_into;
    Timer m_timer;
};

constexpr char const* kCategory = "ML.MachineLearningModel";
constexpr char const* kSplitName = "SplitIntoPatches";
constexpr char const* kRecombineName = "RecombinePatches";
constexpr char const* kDefaultFailure = "Could not instantiate ML model";
// predict() reports six steps: pre-processing, two for the execution path (its own increments
// plus the reset to 4 afterwards), post-processing and the final cancel check.
constexpr int kPredictSteps = 6;
// Long image sets report at most this many frame steps.
constexpr std::size_t kMaxFrameSteps = 20;

std::unique_ptr<OperationsSequence> makeSequence(std::vector<Operation::Specs>::const_iterator begin,
                                                 std::vector<Operation::Specs>::const_iterator end)
{
    return std::make_unique<OperationsSequence>(std::vector<Operation::Specs>(begin, end));
}

template <class T>
void cloneComponentInto(SharedImageSet const& from, SharedImageSet& to)
{
    if (T const* component = from.components().get<T>())
        to.components().add(std::make_unique<T>(*component));
}

} // namespace

MachineLearningModel::MachineLearningModel() = default;

MachineLearningModel::MachineLearningModel(std::string const& configPath, PredictionOutput defaultOutput,
                                           bool lazyEngine)
{
    InitResult const result = init(configPath, defaultOutput, lazyEngine);
    if (result.status != 0)
        throw MLModelException(result.message.value_or(kDefaultFailure));
}

MachineLearningModel::~MachineLearningModel() = default;

std::unique_ptr<MachineLearningModel> MachineLearningModel::create(std::string const& configPath,
                                                                   PredictionOutput defaultOutput)
{
    CreateResult result = createWithStatus(configPath, defaultOutput);
    if (!result.model)
        VELMORIA_LOG_ERROR(kCategory, "{}", result.message.value_or(kDefaultFailure));
    return std::move(result.model);
}

MachineLearningModel::CreateResult MachineLearningModel::createWithStatus(std::string const& configPath,
                                                                          PredictionOutput defaultOutput)
{
    CreateResult result;
    auto model = std::make_unique<MachineLearningModel>();
    InitResult const init = model->init(configPath, defaultOutput, false);
    result.status = init.status;
    result.message = init.message;
    if (init.status == 0)
        result.model = std::move(model);
    return result;
}

MachineLearningModel::InitResult MachineLearningModel::init(std::string const& configPath,
                                                            PredictionOutput defaultOutput, bool lazyEngine)
{
    auto fail = [](std::string message) { return InitResult{1, std::move(message)}; };
    try {
        m_config = std::make_unique<ModelConfiguration>(configPath, defaultOutput);
    } catch (std::exception const& e) {
        // Only an impossible (negative) schema version leaves the configuration's constructor.
        return fail("Could not configure the model: " + std::string(e.what()));
    }
    if (m_config->status() != 0)
        return fail("Could not configure the model: " + m_config->errorMessage().value_or(""));

    m_postSplitSequence.reset();
    m_preRecombineSequence.reset();
    m_splitOperation.reset();
    m_recombineOperation.reset();
    m_engine.reset();

    auto const& pre = m_config->getPreProcessingOptions();
    auto split = std::find_if(pre.begin(), pre.end(), [](auto const& s) { return s.name == kSplitName; });
    m_preprocessing = makeSequence(pre.begin(), split);
    if (split != pre.end()) {
        m_splitOperation = makeUniqueOperation<SplitIntoPatchesOperation>(split->properties);
        if (!m_splitOperation)
            return fail("Could not create the pre-processing sequence: invalid '" + std::string(kSplitName) +
                        "' entry in " + configPath);
        if (split + 1 != pre.end())
            m_postSplitSequence = makeSequence(split + 1, pre.end());
    }

    auto const& post = m_config->getPostProcessingOptions();
    auto recombine =
        std::find_if(post.begin(), post.end(), [](auto const& s) { return s.name == kRecombineName; });
    if (recombine == post.end()) {
        m_postprocessing = makeSequence(post.begin(), post.end());
    } else {
        m_postprocessing = makeSequence(recombine + 1, post.end());
        m_recombineOperation = makeUniqueOperation<RecombinePatchesOperation>(recombine->properties);
        if (!m_recombineOperation)
            return fail("Could not create the post-processing sequence: invalid '" +
                        std::string(kRecombineName) + "' entry in " + configPath);
        if (recombine != post.begin())
            m_preRecombineSequence = makeSequence(post.begin(), recombine);
    }

    if (m_preprocessing->error())
        return fail("Could not create the pre-processing sequence: " + m_preprocessing->error()->message);
    if (m_postprocessing->error())
        return fail("Could not create the post-processing sequence: " + m_postprocessing->error()->message);
    if (m_recombineOperation && !m_splitOperation)
        return fail("Recombination was specified in the post-processing, but no splitting was defined in the "
                    "pre-processing.");

    bool const verbose = m_config->verbose();
    for (auto* sequence : {m_preprocessing.get(), m_postprocessing.get(), m_postSplitSequence.get(),
                           m_preRecombineSequence.get()})
        if (sequence)
            sequence->setVerbose(verbose);

    std::string const& engineName = m_config->engine();
    if (lazyEngine) {
        if (!Engine::isRegistered(engineName, false))
            return fail(
                "Engine '" + engineName +
                "' is not a registered type.\nPlease check that your C++ plugins are properly loaded or "
                "Python packages are installed in your current environment.");
    } else if (!createEngine()) {
        return fail("Could not create engine '" + engineName + "'.");
    }
    return InitResult{0, std::nullopt};
}

bool MachineLearningModel::createEngine()
{
    if (!m_config)
        return false;
    // The engine learns what each output field is meant to be, so that it can shape its
    // result accordingly (a tensor output, say, rather than an image of a tensor's shape).
    Properties properties = m_config->getEngineProperties();
    std::vector<std::string> outputKinds;
    for (PredictionOutput const kind : m_config->predictionOutputTypes())
        outputKinds.push_back(predictionOutputToString(kind));
    if (!properties.contains("PredictionOutput"))
        properties.setParam("PredictionOutput", outputKinds);
    m_engine = Engine::create(m_config->engine(), properties);
    if (!m_engine) {
        VELMORIA_LOG_ERROR(kCategory, "Could not create engine '{}'.", m_config->engine());
        return false;
    }
    return true;
}

std::shared_ptr<SharedImageSet> MachineLearningModel::maybeGetReferenceImage(DataItem const& item,
                                                                             std::string* whyNone)
{
    if (auto const* component = item.components().get<ReferenceImageDataComponent>())
        return component->reference;

    std::vector<std::pair<std::string, std::shared_ptr<SharedImageSet>>> sets;
    for (auto const& [name, element] : item.elements())
        if (auto const* image = dynamic_cast<ImageElement const*>(element.get()))
            sets.emplace_back(name, image->sis());
    if (sets.empty()) {
        if (whyNone)
            *whyNone = "the item holds no image";
        return nullptr;
    }
    auto const& [firstName, first] = sets.front();
    auto const grid = [](SharedImage const& frame) {
        Eigen::Vector3i const size = frame.dimensions();
        Eigen::Vector3d const spacing = frame.spacing();
        Eigen::Vector3d const origin = frame.matrixToWorld().block<3, 1>(0, 3);
        return fmt::format("{}x{}x{} pixels of {:g}x{:g}x{:g} mm at ({:g}, {:g}, {:g})", size.x(), size.y(),
                           size.z(), spacing.x(), spacing.y(), spacing.z(), origin.x(), origin.y(),
                           origin.z());
    };
    for (std::size_t s = 1; s < sets.size(); ++s) {
        auto const& [name, set] = sets[s];
        if (set->size() != first->size()) {
            if (whyNone)
                *whyNone = fmt::format("field '{}' has {} frames and field '{}' has {}", firstName,
                                       first->size(), name, set->size());
            return nullptr;
        }
        for (int f = 0; f < first->size(); ++f) {
            if (!first->get(f)->descriptorWorld().isSpatiallyCompatible(set->get(f)->descriptorWorld())) {
                if (whyNone)
                    *whyNone = fmt::format("the fields are on different grids: '{}' has {}, '{}' has {}",
                                           firstName, grid(*first->get(f)), name, grid(*set->get(f)));
                return nullptr;
            }
        }
    }
    return first;
}

std::unique_ptr<SharedImageSet> MachineLearningModel::customContainerClone(SharedImageSet const& set)
{
    auto clone = std::make_unique<SharedImageSet>();
    clone->properties() = set.properties();
    cloneComponentInto<ReferenceImageDataComponent>(set, *clone);
    cloneComponentInto<PatchesFromImageDataComponent>(set, *clone);
    cloneComponentInto<InversionComponent>(set, *clone);
    return clone;
}

DataItem MachineLearningModel::getSingleFrameInCustomContainer(DataItem const& item, std::size_t frame)
{
    std::optional<std::size_t> const batch = item.batchSize();
    if (!batch || frame >= *batch)
        return DataItem();
    DataItem result = item.clone(DataElement::CloneOptions::Shell);
    for (auto const& [name, element] : item.elements()) {
        if (auto const* sisElement = dynamic_cast<SISBasedElement const*>(element.get())) {
            std::shared_ptr<SharedImageSet> set = customContainerClone(*sisElement->sis());
            set->add(std::shared_ptr<SharedImage>(sisElement->sis()->get(static_cast<int>(frame))->clone()));
            if (dynamic_cast<VectorElement const*>(element.get()))
                result.set(name, std::make_shared<VectorElement>(std::move(set)));
            else
                result.set(name, std::make_shared<ImageElement>(std::move(set)));
        } else if (auto const* keypoints = dynamic_cast<KeypointsElement const*>(element.get())) {
            auto set = std::make_shared<KeypointSet>();
            set->appendFrame(*keypoints->keypoints(), frame);
            result.set(name, std::move(set));
        } else if (auto const* boxes = dynamic_cast<BoundingBoxElement const*>(element.get())) {
            auto set = std::make_shared<BoundingBoxSet>();
            set->appendFrame(*boxes->boxes(), frame);
            result.set(name, std::move(set));
        } else if (auto const* tensors = dynamic_cast<TensorSetElement const*>(element.get())) {
            auto set = std::make_shared<TensorSet>();
            set->add(tensors->tensorSet()->getShared(frame));
            result.set(name, std::move(set));
        } else {
            VELMORIA_LOG_WARNING(kCategory, "Skipping Unimplemented DataElement");
        }
    }
    return result;
}

DataItem MachineLearningModel::applyPreProcessing(DataItem const& input) const
{
    Timer timer;
    DataItem clone = input.clone(DataElement::CloneOptions::Deep);
    if (auto error = m_preprocessing->process(clone, Phase::Always)) {
        VELMORIA_LOG_ERROR(kCategory, "Error during pre-processing of the input: {}", error->message);
        return DataItem();
    }
    if (m_config->verbose())
        VELMORIA_LOG_INFO(kCategory, "Time spent in applyPreProcessing: {}", timer.formatPassed());
    return clone;
}

DataItem MachineLearningModel::setupOutputItemContainers() const
{
    DataItem output;
    auto const& fields = m_config->engineOutputFields();
    auto const& ignored = m_config->engineOutputFieldsToIgnore();
    auto const& types = m_config->predictionOutputTypes();
    for (std::size_t i = 0; i < fields.size() && i < types.size(); ++i) {
        if (std::find(ignored.begin(), ignored.end(), fields[i]) != ignored.end())
            continue;
        switch (types[i]) {
        case PredictionOutput::Vector:
            output.set(fields[i], std::make_shared<VectorElement>(std::make_shared<SharedImageSet>()));
            break;
        case PredictionOutput::Image: {
            std::shared_ptr<SharedImageSet> set =
                m_referenceInput ? std::shared_ptr<SharedImageSet>(
                                       m_referenceInput->clone(SharedImageSet::CloneOption::NoFrames))
                                 : std::make_shared<SharedImageSet>();
            if (m_referencePreprocessed)
                set->components().add(m_referencePreprocessed->components());
            output.set(fields[i], std::make_shared<ImageElement>(std::move(set)));
            break;
        }
        case PredictionOutput::Keypoints:
            output.set(fields[i], std::make_shared<KeypointsElement>(std::make_shared<KeypointSet>()));
            break;
        case PredictionOutput::BoundingBoxes:
            output.set(fields[i], std::make_shared<BoundingBoxElement>(std::make_shared<BoundingBoxSet>()));
            break;
        case PredictionOutput::Tensor:
            output.set(fields[i], std::make_shared<TensorSetElement>(std::make_shared<TensorSet>()));
            break;
        default:
            break;
        }
    }
    return output;
}

DataItem MachineLearningModel::runEngine(DataItem const& input)
{
    if (!m_engine)
        createEngine();
    if (!m_engine) {
        VELMORIA_LOG_ERROR(kCategory, "Model cannot be run due to engine not being initialized");
        return DataItem();
    }
    StageClock clock(m_timings.engineMs);
    ++m_timings.engineRuns;
    try {
        DataItem result = m_engine->predict(input);
        // Each output sample belongs to one input sample; a network that returns another number
        // (a batch axis it made up or dropped) cannot be mapped back, and would be written as if
        // it could.
        std::size_t const given = input.batchSize().value_or(0);
        for (auto const& [name, element] : result.elements()) {
            if (given > 0 && element && element->batchSize() != given) {
                VELMORIA_LOG_ERROR(
                    kCategory,
                    "Prediction failed: the network returned {} samples in output field '{}' for a "
                    "batch of {}",
                    element->batchSize(), name, given);
                return DataItem();
            }
        }
        return result;
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR(kCategory, "Prediction failed: {}", e.what());
    } catch (...) {
        VELMORIA_LOG_ERROR(kCategory, "Prediction failed");
    }
    return DataItem();
}

bool MachineLearningModel::chooseBatchMode(DataItem const& preprocessed) const
{
    for (auto const& [name, element] : preprocessed.elements()) {
        auto const* image = dynamic_cast<ImageElement const*>(element.get());
        if (!image)
            continue;
        SharedImageSet const& set = *image->sis();
        for (int f = 1; f < set.size(); ++f)
            if (!set.get(0)->mem()->compatible(*set.get(f)->mem()))
                return false;
    }
    if (m_config->mustSplitImage())
        return false;
    if (m_config->maxBatchSize() <= 1)
        for (auto const& [name, element] : preprocessed.elements())
            if (element->dimension() > 2)
                return false;
    return true;
}

DataItem MachineLearningModel::predict(DataItem const& input)
{
    if (!m_config || !m_preprocessing || !m_postprocessing) {
        VELMORIA_LOG_ERROR(kCategory, "Model cannot be run: it was not initialized from a model file");
        return DataItem();
    }
    if (input.empty()) {
        VELMORIA_LOG_ERROR(kCategory, "Empty input.");
        return DataItem();
    }
    m_timings = PredictionTimings();
    Timer total;
    Progress::Task task(m_progress, kPredictSteps, "Pre-processing input...");
    task.incrementStep();

    m_referenceInput = maybeGetReferenceImage(input);
    DataItem preprocessed;
    {
        StageClock clock(m_timings.preprocessingMs);
        preprocessed = applyPreProcessing(input);
    }
    if (preprocessed.empty()) {
        VELMORIA_LOG_ERROR(kCategory, "Empty preprocessed input.");
        return DataItem();
    }
    m_noReferenceReason.clear();
    m_referencePreprocessed = maybeGetReferenceImage(preprocessed, &m_noReferenceReason);
    if (m_config->skipUnpadding() && m_config->verbose())
        VELMORIA_LOG_INFO(kCategory, "Unpadding will be skipped");

    bool const batchMode = chooseBatchMode(preprocessed);
    VELMORIA_LOG_DEBUG(kCategory, "Batch mode: {}", batchMode ? "true" : "false");
    // The batch path sends whole frames to the engine; say so rather than leave the user to
    // wonder why a large volume went through the network in one piece.
    if (batchMode && m_splitOperation)
        VELMORIA_LOG_WARNING(
            kCategory,
            "MaxBatchSize {} runs whole frames in batches: SplitIntoPatches and RecombinePatches "
            "are not applied. Set \"MaxBatchSize: 1\" to predict patch by patch.",
            m_config->maxBatchSize());

    if (m_config->upgradedVersion() <= 7) {
        VELMORIA_LOG_ERROR(
            kCategory,
            "The model configuration '{}' behaves as schema version {}, which needs the legacy "
            "execution path '{}'; that path is not available. Set \"UpgradeToMLModelV2: true\" in "
            "the model file to run it with the current execution paths.",
            m_config->configPath(), m_config->upgradedVersion(),
            batchMode ? "executeBatch" : "executeFrameByFrame");
        return DataItem();
    }

    DataItem output = setupOutputItemContainers();
    bool const ok = batchMode ? executeBatchV2(preprocessed, output, task)
                              : executeFrameByFrameV2(preprocessed, output, task);
    task.setSteps(4, kPredictSteps);
    if (!ok) {
        VELMORIA_LOG_ERROR(kCategory, "No prediction was returned.");
        return DataItem();
    }

    if (m_referenceInput) {
        output.components().add(std::make_unique<ReferenceImageDataComponent>(m_referenceInput));
        for (auto const& [name, element] : output.elements()) {
            auto* image = dynamic_cast<ImageElement*>(element.get());
            if (!image)
                continue;
            SharedImageSet& set = *image->sis();
            if (set.size() == m_referenceInput->size())
                set.setSelection(m_referenceInput->selection());
            set.components().add(std::make_unique<ReferenceImageDataComponent>(m_referenceInput));
        }
    }

    task.incrementStep();
    task.setDescription("Post-processing prediction...");
    {
        StageClock clock(m_timings.postprocessingMs);
        if (auto error = m_postprocessing->process(output, Phase::Always)) {
            VELMORIA_LOG_ERROR(kCategory, "Error during post-processing of the output: {}", error->message);
            return DataItem();
        }
    }
    if (!m_config->mustCloneInputContainer())
        replaceDerivedContainers(output);

    task.incrementStep();
    if (task.wasCanceled()) {
        VELMORIA_LOG_ERROR(kCategory, "Prediction was cancelled.");
        return DataItem();
    }
    m_timings.totalMs = total.getPassedMs();
    if (m_config->verbose())
        logTimings();
    return output;
}

void MachineLearningModel::logTimings() const
{
    PredictionTimings const& t = m_timings;
    VELMORIA_LOG_INFO(kCategory,
                      "Time spent in the engine: {} ({} runs); outside the engine: {} (pre-processing {}, "
                      "splitting {}, recombination {}, post-processing {}); total {}",
                      Timer::formatDuration(t.engineMs), t.engineRuns,
                      Timer::formatDuration(t.outsideEngineMs()), Timer::formatDuration(t.preprocessingMs),
                      Timer::formatDuration(t.splittingMs), Timer::formatDuration(t.recombinationMs),
                      Timer::formatDuration(t.postprocessingMs), Timer::formatDuration(t.totalMs));
}

std::unique_ptr<SharedImageSet> MachineLearningModel::predict(SharedImageSet const& input)
{
    DataItem item;
    item.set(EngineConfiguration::p_defaultInputName, std::shared_ptr<SharedImageSet>(input.clone()));
    DataItem const prediction = predict(item);
    if (prediction.empty())
        return nullptr;
    if (prediction.elements().size() > 1)
        VELMORIA_LOG_WARNING(
            kCategory, "The model has multiple output but the ::predict overload that uses SharedImageSet "
                       "only supports one output - will only return one of the output images.");
    auto const* first = dynamic_cast<SISBasedElement const*>(prediction.elements().begin()->second.get());
    if (!first || !first->sis())
        return nullptr;
    return first->sis()->clone();
}

void MachineLearningModel::replaceDerivedContainers(DataItem& output)
{
    for (auto const& [name, element] : output.elements()) {
        auto* image = dynamic_cast<ImageElement*>(element.get());
        if (!image || typeid(*image->sis()) == typeid(SharedImageSet))
            continue;
        SharedImageSet const& old = *image->sis();
        auto plain = std::make_shared<SharedImageSet>();
        plain->add(old.images());
        cloneComponentInto<LabelDataComponent>(old, *plain);
        image->setSis(std::move(plain));
    }
}

bool MachineLearningModel::executeBatchV2(DataItem const& input, DataItem& output, Progress::Task& task)
{
    task.incrementStep();
    task.setDescription("Running prediction...");
    Timer timer;
    int const maxBatch = m_config->maxBatchSize();
    std::optional<std::size_t> const batch = input.batchSize();

    DataItem prediction;
    if (maxBatch < 0 || !batch || static_cast<std::size_t>(maxBatch) > *batch) {
        prediction = runEngine(input);
    } else if (maxBatch == 0) {
        VELMORIA_LOG_ERROR(kCategory, "Max batch size must be positive or -1 (no maximum batch size).");
        return false;
    } else {
        std::size_t const b = *batch;
        std::size_t const m = static_cast<std::size_t>(maxBatch);
        Progress::Task sub(b / m > 1 ? m_progress : nullptr, static_cast<int>(b), "Processing batches ...");
        std::vector<DataItem> samples;
        samples.reserve(b);
        try {
            for (std::size_t start = 0; start < b; start += m) {
                std::size_t const end = std::min(b, start + m);
                sub.incrementStep(static_cast<int>(m));
                if (sub.wasCanceled())
                    return false;
                if (m_config->verbose())
                    VELMORIA_LOG_INFO(kCategory, "Processing batch with frames {} to {}", start, end - 1);
                std::vector<DataItem> frames;
                for (std::size_t f = start; f < end; ++f)
                    frames.push_back(getSingleFrameInCustomContainer(input, f));
                DataItem result = runEngine(DataItem::stack(std::move(frames)));
                if (result.empty())
                    return false;
                for (DataItem& sample : DataItem::split(std::move(result)))
                    samples.push_back(std::move(sample));
            }
            if (!samples.empty())
                prediction = DataItem::stack(std::move(samples));
        } catch (std::exception const& e) {
            VELMORIA_LOG_ERROR(kCategory, "Could not assemble the batches: {}", e.what());
            return false;
        }
    }
    if (prediction.empty())
        return false;

    for (auto const& [name, element] : prediction.elements())
        if (DataElement* target = output.get(name))
            target->setContent(element->content());
    if (m_config->verbose())
        VELMORIA_LOG_INFO(kCategory, "Time spent in executeBatchV2: {}", timer.formatPassed());
    return true;
}

std::optional<DataItem> MachineLearningModel::predictPatches(DataItem const& frameItem, std::size_t frame)
{
    if (!m_referencePreprocessed) {
        VELMORIA_LOG_ERROR(kCategory, "No reference image found for splitting image elements.");
        if (!m_noReferenceReason.empty())
            VELMORIA_LOG_ERROR(kCategory,
                               "The pre-processed inputs cannot be split alike: {}. Resample them onto "
                               "one grid first (ResampleToInput, or Resample with the same target)",
                               m_noReferenceReason);
        return std::nullopt;
    }
    auto reference = m_referencePreprocessed->clone(SharedImageSet::CloneOption::NoFrames);
    SharedImage const* referenceFrame = m_referencePreprocessed->get(static_cast<int>(frame));
    if (!referenceFrame) {
        VELMORIA_LOG_ERROR(kCategory, "The reference image has no frame {} to split.", frame);
        return std::nullopt;
    }
    reference->add(std::shared_ptr<SharedImage>(referenceFrame->clone()));
    Eigen::Vector3i const imageDims = referenceFrame->dimensions();

    std::vector<RegionOfInterest> const rois = m_splitOperation->computeROIs(reference.get());
    bool const recombine = m_recombineOperation && rois.size() > 1;
    Progress::Task sub(rois.size() > 1 ? m_progress : nullptr, static_cast<int>(rois.size()),
                       "Predicting image parts...");
    std::vector<DataItem> predictions;
    predictions.reserve(rois.size());
    try {
        for (std::size_t k = 0; k < rois.size(); ++k) {
            Timer splitting;
            DataItem patch = m_splitOperation->sampleFromROI(frameItem, rois[k]);
            sub.incrementStep();
            if (sub.wasCanceled())
                return std::nullopt;
            // Errors of the per-patch sequences are not fatal: a patch the sequence cleared
            // reaches the engine empty, and the empty prediction aborts below.
            if (m_postSplitSequence)
                m_postSplitSequence->process(patch, Phase::Always);
            m_timings.splittingMs += splitting.getPassedMs();
            DataItem prediction = runEngine(patch);
            if (prediction.empty())
                return std::nullopt;
            StageClock clock(m_timings.recombinationMs);
            if (!recombine && (rois[k].extent.array() > imageDims.array()).any()) {
                // The patch was padded to reach the patch size: cut the prediction back to the
                // part that lies in the image. Recombination needs no cut: it takes the whole
                // patch at its (partly outside) region and keeps what lies inside.
                RegionOfInterest clipped = rois[k];
                clipped.extent = clipped.extent.cwiseMin(imageDims);
                PadDimsOperation crop(clipped.extent);
                crop.p_paddingMode.setValue(ImageProcessing::PaddingMode::Mirror);
                crop.p_allowDimensionChange.setValue(true);
                crop.process(prediction);
            }
            if (m_preRecombineSequence)
                m_preRecombineSequence->process(prediction, Phase::Always);
            if (recombine) {
                if (k == 0)
                    m_recombineOperation->setupRecombinationOutput(prediction, reference.get());
                m_recombineOperation->recombineSinglePatch(
                    prediction, SplitROISampler::regionInImage(rois[k], imageDims));
            } else {
                predictions.push_back(std::move(prediction));
            }
        }
        StageClock clock(m_timings.recombinationMs);
        if (recombine)
            return m_recombineOperation->finalizeRecombinationOutput();
        return DataItem::stack(std::move(predictions));
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR(kCategory, "Patch-wise prediction of frame {} failed: {}", frame, e.what());
        return std::nullopt;
    }
}

bool MachineLearningModel::executeFrameByFrameV2(DataItem const& input, DataItem& output,
                                                 Progress::Task& task)
{
    task.incrementStep(2);
    task.setDescription("Running prediction...");
    std::optional<std::size_t> const batch = input.batchSize();
    if (!batch) {
        VELMORIA_LOG_ERROR(
            kCategory,
            "Input batch size is inconsistent: elements in Input data item have different batch sizes.");
        return false;
    }
    Timer timer;
    std::size_t const b = *batch;
    std::size_t const steps = std::min(b, kMaxFrameSteps);
    std::size_t const stepSize = steps > 0 ? std::max<std::size_t>(1, b / steps) : 1;
    Progress::Task sub(b > 1 ? m_progress : nullptr, static_cast<int>(steps), "Processing input frames...");

    for (std::size_t f = 0; f < b; ++f) {
        if (f % stepSize == 0) {
            sub.incrementStep();
            if (sub.wasCanceled())
                return false;
        }
        DataItem frameItem = getSingleFrameInCustomContainer(input, f);
        std::optional<DataItem> result;
        if (!m_splitOperation) {
            result = runEngine(frameItem);
            if (result->empty())
                return false;
        } else {
            result = predictPatches(frameItem, f);
            if (!result)
                return false;
        }
        // Every sample of the result is appended (not only the first): a split model without
        // recombination gives one sample per patch. Fields the output has no container for
        // (ignored outputs) are skipped by appendFrame.
        std::optional<std::size_t> const samples = result->batchSize();
        for (std::size_t s = 0; s < samples.value_or(0); ++s)
            if (!output.appendFrame(*result, s))
                return false;
    }
    if (m_config->verbose())
        VELMORIA_LOG_INFO(kCategory, "Time spent in executeFrameByFrameV2: {}", timer.formatPassed());
    return true;
}

} // namespace Velmoria::ML

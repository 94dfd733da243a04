#include "ml/operations/Operation.h"

#include "ml/data/BoundingBoxElement.h"
#include "ml/data/BoundingBoxSet.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointSet.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/SISBasedElement.h"
#include "ml/data/TensorSet.h"
#include "ml/data/TensorSetElement.h"
#include "ml/data/VectorElement.h"
#include "ml/imagemath/ConversionLoss.h"
#include "ml/operations/OperationException.h"
#include "ml/operations/ParamException.h"

#include "host/core/Log.h"
#include "host/core/Parameter.h"
#include "host/core/String.h"
#include "host/gl/ContextManager.h"
#include "host/image/SharedImageSet.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace Velmoria::ML {

namespace {

constexpr char const* kBaseCategory = "ML.Operation";

// The keys that Operation::configure reads itself (or leaves to sequences: "apply_to_label",
// "phase"); they never count as unknown.
constexpr char const* kBaseKeys[] = {"device",
                                     "seed",
                                     "apply_to",
                                     "apply_to_label",
                                     "processing_policy",
                                     "process_label",
                                     "error_on_unexpected_behaviour",
                                     "phase",
                                     "record_identifier"};

std::vector<std::string> sorted(Operation::FieldSet const& fields)
{
    std::vector<std::string> names(fields.begin(), fields.end());
    std::sort(names.begin(), names.end());
    return names;
}

// The value of a key as the user wrote it, for error messages.
std::string valueText(Properties const& properties, std::string const& key)
{
    ParamValue const* value = properties.paramValue(key);
    if (!value)
        return {};
    return value->isList() ? "[" + String::join(*value->list, ", ") + "]" : value->text;
}

// 3 when there are slices, 2 when there are rows, else 1. ImageDescriptor::dimension() calls a
// single row 2D; the GPU code needs to tell a row of pixels (a 1D texture it cannot sample) apart.
int frameDimension(SharedImage const& frame)
{
    if (frame.slices() > 1)
        return 3;
    if (frame.height() > 1)
        return 2;
    return 1;
}

} // namespace

std::atomic<Operation::RecordHookFunction> Operation::s_processingRecordHook{nullptr};
std::atomic<bool> Operation::s_strict{false};

void Operation::setStrict(bool strict)
{
    s_strict.store(strict);
}

bool Operation::strict()
{
    return s_strict.load();
}

Operation::Operation(std::string name, ProcessingPolicy policy)
    : m_name(std::move(name))
    , m_processingPolicy(policy)
    , m_logCategory("ML." + m_name)
{
    addProcessingRecordHook();
}

Operation::~Operation() = default;

void Operation::addProcessingRecordHook()
{
    // The processing-record component (which arrives with the data components of processing)
    // installs its recorder through setProcessingRecordHook; from then on every element an
    // operation processed carries a record of it, whatever the subclass does.
    if (RecordHookFunction hook = s_processingRecordHook.load())
        m_postProcessHooks.emplace_back(hook);
}

void Operation::setProcessingRecordHook(RecordHookFunction hook)
{
    s_processingRecordHook.store(hook);
}

Operation::RecordHookFunction Operation::processingRecordHook()
{
    return s_processingRecordHook.load();
}

// ---- Processing ---------------------------------------------------------------------------------

void Operation::process(DataItem& item)
{
    if (!checkRequiredItemsTypes(item))
        throw OperationException("Input data item does not have the required types");

    std::optional<FieldSet> const selected = selectedFields(item);
    if (selected) {
        if (selected->empty())
            warnOperationUnexpectedBehaviour(
                "Operation will not be applied to any field. Probably the operation expects a field to be "
                "tagged as Label but it's not. If that's the case, please use MarkAsLabelOperation on the "
                "field of interest.");

        std::vector<std::string> missing;
        for (std::string const& name : sorted(*selected))
            if (!item.contains(name))
                missing.push_back(name);
        if (!missing.empty()) {
            // Sorted missing names and the item's fields in insertion order, so that the same
            // situation always gives the same text (and is therefore warned about once).
            warnOperationUnexpectedBehaviour(fmt::format(
                "Cannot execute operation on fields '{}' because they do not exist in input data item. Input "
                "fields are [{}].",
                String::join(missing, ","), String::join(item.elements().keys(), ",")));
        }

        if (Log::g_globalLevel <= Log::Debug) {
            std::string text = "Selected fields: [";
            for (std::string const& name : sorted(*selected))
                text += name + ", ";
            text += "]";
            VELMORIA_LOG_DEBUG(m_logCategory, "{}", text);
        }
    }

    // A snapshot of the elements: hooks and typed virtuals may change the item's map, which must
    // not invalidate the walk.
    std::vector<std::pair<std::string, std::shared_ptr<DataElement>>> elements(item.elements().begin(),
                                                                               item.elements().end());
    for (auto const& [name, element] : elements) {
        if (selected && !selected->contains(name))
            continue;
        if (!element)
            continue;
        applyPreProcessHooks(element.get());
        ImageMath::ConversionLoss::Scope conversion;
        processElement(*element);
        if (conversion.lost() > 0)
            warnLossyConversion(name, *element, conversion.lost());
        applyPostProcessHooks(element.get());
    }

    m_oneShotPreProcessHooks.clear();
    m_oneShotPostProcessHooks.clear();
}

void Operation::processElement(DataElement& element)
{
    if (auto* image = dynamic_cast<ImageElement*>(&element)) {
        image->setContent(processImages(image->sis()));
    } else if (auto* vector = dynamic_cast<VectorElement*>(&element)) {
        vector->setContent(processVectors(vector->sis()));
    } else if (auto* boxes = dynamic_cast<BoundingBoxElement*>(&element)) {
        boxes->setContent(processBoxes(boxes->boxes()));
    } else if (auto* points = dynamic_cast<KeypointsElement*>(&element)) {
        points->setContent(processPoints(points->keypoints()));
    } else if (auto* tensors = dynamic_cast<TensorSetElement*>(&element)) {
        tensors->setContent(processTensors(tensors->tensorSet()));
    } else {
        throw OperationException("Element Type not supported");
    }
}

namespace {

// Restores an operation's apply_to when the one-element conveniences are done, also when the
// operation throws: a leftover temporary selection would silently skip every field of the next
// item.
class ApplyToOverride
{
public:
    ApplyToOverride(Operation& operation, std::string const& field)
        : m_operation(operation)
        , m_saved(operation.applyTo())
    {
        m_operation.setApplyTo(Operation::FieldSet{field});
    }
    ~ApplyToOverride() { m_operation.setApplyTo(std::move(m_saved)); }
    ApplyToOverride(ApplyToOverride const&) = delete;
    ApplyToOverride& operator=(ApplyToOverride const&) = delete;

private:
    Operation& m_operation;
    std::optional<Operation::FieldSet> m_saved;
};

} // namespace

std::shared_ptr<SharedImageSet> Operation::process(std::shared_ptr<SharedImageSet> sis)
{
    if (!sis || sis->empty()) {
        VELMORIA_LOG_ERROR(kBaseCategory, "Invalid or empty input");
        return nullptr;
    }
    DataItem item;
    item.set("sis", std::move(sis));
    {
        ApplyToOverride override(*this, "sis");
        process(item);
    }
    if (item.empty())
        return nullptr;
    if (auto* element = item.get<SISBasedElement>("sis"))
        return element->sis();
    VELMORIA_LOG_ERROR(kBaseCategory, "Operation '{}' did not return an image set in field 'sis'", m_name);
    return nullptr;
}

std::shared_ptr<KeypointSet> Operation::process(std::shared_ptr<KeypointSet> keypoints)
{
    if (!keypoints) {
        VELMORIA_LOG_ERROR(kBaseCategory, "Invalid input");
        return nullptr;
    }
    DataItem item;
    item.set("kpts", std::move(keypoints));
    {
        ApplyToOverride override(*this, "kpts");
        process(item);
    }
    if (item.empty())
        return nullptr;
    if (auto* element = item.get<KeypointsElement>("kpts"))
        return element->keypoints();
    VELMORIA_LOG_ERROR(kBaseCategory, "Operation '{}' did not return keypoints in field 'kpts'", m_name);
    return nullptr;
}

std::shared_ptr<BoundingBoxSet> Operation::process(std::shared_ptr<BoundingBoxSet> boxes)
{
    if (!boxes) {
        VELMORIA_LOG_ERROR(kBaseCategory, "Invalid input");
        return nullptr;
    }
    DataItem item;
    item.set("boxes", std::move(boxes));
    {
        ApplyToOverride override(*this, "boxes");
        process(item);
    }
    if (item.empty())
        return nullptr;
    if (auto* element = item.get<BoundingBoxElement>("boxes"))
        return element->boxes();
    VELMORIA_LOG_ERROR(kBaseCategory, "Operation '{}' did not return boxes in field 'boxes'", m_name);
    return nullptr;
}

std::unique_ptr<SharedImageSet> Operation::process(std::unique_ptr<SharedImageSet> sis)
{
    if (!sis)
        return nullptr;
    std::shared_ptr<SharedImageSet> result = process(std::shared_ptr<SharedImageSet>(std::move(sis)));
    if (!result)
        return nullptr;
    // The result may still be shared (with the input's frames, or kept by the operation), so the
    // caller gets its own set that shares the frames rather than the set itself.
    return result->clone(SharedImageSet::CloneOption::ShareFrames);
}

bool Operation::checkRequiredItemsTypes(DataItem const& item) const
{
    for (auto const& [name, wanted] : m_requiredItemsTypes) {
        DataElement const* element = item.get(name);
        if (!element) {
            VELMORIA_LOG_ERROR(m_logCategory, "Required field '{}' missing.", name);
            return false;
        }
        if (element->type() != wanted) {
            VELMORIA_LOG_ERROR(m_logCategory,
                               "Required field '{}' must be of type '{}', but found '{}' instead.", name,
                               static_cast<int>(wanted), static_cast<int>(element->type()));
            return false;
        }
    }
    return true;
}

void Operation::applyPreProcessHooks(DataElement* element)
{
    for (Hook const& hook : m_preProcessHooks)
        hook(*this, element);
    for (Hook const& hook : m_oneShotPreProcessHooks)
        hook(*this, element);
}

void Operation::applyPostProcessHooks(DataElement* element)
{
    for (Hook const& hook : m_postProcessHooks)
        hook(*this, element);
    for (Hook const& hook : m_oneShotPostProcessHooks)
        hook(*this, element);
}

std::optional<Operation::FieldSet> Operation::selectedFields(DataItem const& item) const
{
    if (m_applyTo)
        return m_applyTo;
    if (m_processingPolicy == ProcessingPolicy::Everything)
        return std::nullopt;

    FieldSet fields;
    for (auto const& [name, element] : item.elements()) {
        bool const isTarget = element && element->isTarget();
        if (m_processingPolicy == ProcessingPolicy::EverythingButLabels && isTarget)
            continue;
        if (m_processingPolicy == ProcessingPolicy::OnlyLabels && !isTarget)
            continue;
        fields.insert(name);
    }
    return fields;
}

// ---- Typed work: the base versions refuse ------------------------------------------------------

std::shared_ptr<SharedImageSet> Operation::processImages(std::shared_ptr<SharedImageSet> /*sis*/) const
{
    throwOperationError("Not implemented for image data elements");
}

std::shared_ptr<BoundingBoxSet> Operation::processBoxes(std::shared_ptr<BoundingBoxSet> /*boxes*/) const
{
    throwOperationError("Not implemented for boxes data elements");
}

std::shared_ptr<KeypointSet> Operation::processPoints(std::shared_ptr<KeypointSet> /*keypoints*/) const
{
    throwOperationError("Not implemented for points data elements");
}

std::shared_ptr<SharedImageSet> Operation::processVectors(std::shared_ptr<SharedImageSet> /*vectors*/) const
{
    throwOperationError("Not implemented for vector data elements");
}

std::shared_ptr<TensorSet> Operation::processTensors(std::shared_ptr<TensorSet> /*tensors*/) const
{
    throwOperationError("Not implemented for tensor data elements");
}

// ---- Configuration ------------------------------------------------------------------------------

bool Operation::configure(Properties const& properties)
{
    std::string deviceText;
    if (properties.param("device", deviceText)) {
        try {
            setComputingDevice(stringToDevice(deviceText));
        } catch (std::exception const& e) {
            VELMORIA_LOG_ERROR(kBaseCategory, "{}", e.what());
            return false;
        }
    }

    // A base key that is present but unreadable is a configuration error, reported with its
    // value; the other keys are still read so that one pass reports every fault.
    bool ok = true;
    auto wrongValue = [&](std::string const& key, char const* expected) {
        VELMORIA_LOG_ERROR(m_logCategory, "Wrong value for parameter '{}': '{}' is not {}.", key,
                           valueText(properties, key), expected);
        ok = false;
    };

    try {
        if (properties.contains("seed")) {
            std::int64_t seed = 0;
            if (properties.param("seed", seed) && seed >= 0 && seed <= std::int64_t{UINT32_MAX})
                seedRandomEngine(static_cast<unsigned int>(seed));
            else
                wrongValue("seed", "an unsigned 32-bit integer");
        }

        std::vector<std::string> applyTo;
        if (properties.param("apply_to", applyTo))
            m_applyTo = FieldSet(applyTo.begin(), applyTo.end());

        auto readPolicy = [&](std::string const& key) {
            int number = 0;
            if (properties.param(key, number)) {
                if (number < 0 || number > static_cast<int>(ProcessingPolicy::OnlyLabels))
                    wrongValue(key, "a processing policy (0, 1 or 2)");
                else
                    setProcessingPolicy(static_cast<ProcessingPolicy>(number));
                return;
            }
            // Names are accepted too ("EVERYTHING").
            try {
                setProcessingPolicy(stringToProcessingPolicy(properties.paramValueText(key)));
            } catch (std::runtime_error const& e) {
                VELMORIA_LOG_ERROR(m_logCategory, "{}", e.what());
                ok = false;
            }
        };
        if (properties.contains("processing_policy")) {
            readPolicy("processing_policy");
        } else if (properties.contains("process_label")) {
            warnOperationUnexpectedBehaviour("'process_label' is deprecated. Please use 'processing_policy'");
            readPolicy("process_label");
        }

        if (properties.contains("error_on_unexpected_behaviour")) {
            bool error = false;
            if (properties.param("error_on_unexpected_behaviour", error))
                setErrorOnUnexpectedBehaviour(error);
            else
                wrongValue("error_on_unexpected_behaviour", "a bool");
        }

        std::string identifier;
        if (properties.param("record_identifier", identifier))
            setRecordIdentifier(identifier);

        std::unordered_set<std::string> used(std::begin(kBaseKeys), std::end(kBaseKeys));
        Properties scratch;
        for (ParameterBase const* parameter : m_parameters) {
            used.insert(parameter->name());
            // Deprecated names as the parameter itself writes them (this also covers parameter
            // classes that keep them elsewhere), and as the host's ParameterBase knows them.
            parameter->configuration(&scratch);
            for (auto const& [attribute, value] : scratch.paramAttributes(parameter->name()))
                if (attribute == "deprecatedName")
                    used.insert(value);
            for (std::string const& old : parameter->deprecatedNames())
                used.insert(old);
        }
        for (ParameterBase const* parameter : m_manuallyConfiguredParameters)
            used.insert(parameter->name());

        for (Properties::Param const& param : properties.params()) {
            if (used.contains(param.key))
                continue;
            // A second line after the warning: the key the user most likely meant.
            std::string hint;
            std::string const closest =
                String::closestMatch(param.key, std::vector<std::string>(used.begin(), used.end()));
            if (!closest.empty())
                hint = fmt::format("{}: did you mean '{}' instead of '{}'?", m_name, closest, param.key);
            warnOperationUnexpectedBehaviour("Parameter '" + param.key +
                                                 "' was specified but not used during the configuration of "
                                                 "the operation.",
                                             hint);
        }

        return configureOnly(properties, m_parameters) && ok;
    } catch (OperationException const& e) {
        VELMORIA_LOG_ERROR(kBaseCategory, "Could not configure operation: {}", e.what());
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR(kBaseCategory, "Unexpected error: {}", e.what());
    }
    return false;
}

bool Operation::configureOnly(Properties const& properties, std::vector<ParameterBase*> const& list)
{
    bool ok = true;
    for (ParameterBase* parameter : list) {
        if (std::find(m_manuallyConfiguredParameters.begin(), m_manuallyConfiguredParameters.end(),
                      parameter) != m_manuallyConfiguredParameters.end())
            continue;
        try {
            parameter->configure(&properties);
        } catch (ParamException const&) {
            // The parameter logged its own message (AdvancedParameter does, naming the key).
            ok = false;
        } catch (std::exception const& e) {
            VELMORIA_LOG_ERROR(m_logCategory, "Could not read parameter '{}': {}", parameter->name(),
                               e.what());
            ok = false;
        }
    }
    return ok;
}

Properties Operation::configuration() const
{
    Properties properties;
    properties.setParam("device", deviceToString(m_device));
    properties.setParamType("device", ParamType::Enumeration);
    properties.setParamAttributes("device", "values: 'ForceCPU, GPUIfGlImage, GPUIfOpenGl, ForceGPU'");

    properties.setParam("processing_policy", static_cast<int>(m_processingPolicy));
    properties.setParamType("processing_policy", ParamType::Enumeration);
    properties.setParamAttributes("processing_policy",
                                  "values: 'EverythingButLabels, Everything, OnlyLabels'");

    if (m_seed)
        properties.setParam("seed", *m_seed);
    if (m_applyTo)
        properties.setParam("apply_to", sorted(*m_applyTo));
    properties.setParam("error_on_unexpected_behaviour", m_errorOnUnexpectedBehaviour);
    properties.setParam("record_identifier", m_recordIdentifier);
    properties.setParamAttributes("record_identifier",
                                  m_recordIdentifier.empty() ? "hidden: 1" : "hidden: 0");

    for (ParameterBase const* parameter : m_parameters)
        parameter->configuration(&properties);
    return properties;
}

void Operation::setProcessingPolicy(ProcessingPolicy policy)
{
    m_processingPolicy = policy;
}

void Operation::seedRandomEngine(unsigned int seed)
{
    m_seed = seed;
    m_randomGenerator.reseed(seed);
}

void Operation::setComputingDevice(ComputingDevice device)
{
    m_device = device;
}

void Operation::setErrorOnUnexpectedBehaviour(bool error)
{
    m_errorOnUnexpectedBehaviour = error;
}

bool Operation::doesNotModifyInput() const
{
    return false;
}

bool Operation::supportsInversion() const
{
    return false;
}

void Operation::setRecordIdentifier(std::string const& identifier)
{
    m_recordIdentifier = identifier;
}

void Operation::registerParameter(ParameterBase* parameter)
{
    if (parameter && std::find(m_parameters.begin(), m_parameters.end(), parameter) == m_parameters.end())
        m_parameters.push_back(parameter);
}

void Operation::unregisterParameter(ParameterBase const* parameter)
{
    std::erase(m_parameters, parameter);
    std::erase(m_manuallyConfiguredParameters, parameter);
}

void Operation::setManuallyConfiguredParameters(std::vector<ParameterBase*> const& parameters)
{
    m_manuallyConfiguredParameters = parameters;
}

void Operation::setRequiredItemsTypes(std::unordered_map<std::string, ElementType> types)
{
    m_requiredItemsTypes = std::move(types);
}

// ---- Names of the policy ------------------------------------------------------------------------

std::string Operation::processingPolicyToString(ProcessingPolicy policy)
{
    switch (policy) {
    case ProcessingPolicy::EverythingButLabels:
        return "EVERYTHING_BUT_LABELS";
    case ProcessingPolicy::Everything:
        return "EVERYTHING";
    case ProcessingPolicy::OnlyLabels:
        return "ONLY_LABELS";
    }
    return {};
}

Operation::ProcessingPolicy Operation::stringToProcessingPolicy(std::string const& text)
{
    std::string const lower = String::toLowerCopy(text);
    if (lower == "everything" || lower == "1")
        return ProcessingPolicy::Everything;
    if (lower == "everythingbutlabels" || lower == "everything_but_labels" || lower == "0")
        return ProcessingPolicy::EverythingButLabels;
    if (lower == "onlylabels" || lower == "only_labels" || lower == "2")
        return ProcessingPolicy::OnlyLabels;
    throw std::runtime_error("Unknown processing_policy '" + text +
                             "', supported are ['EVERYTHING', 'EVERYTHING_BUT_LABELS', 'ONLY_LABELS']");
}

// ---- Messages -----------------------------------------------------------------------------------

bool Operation::inputIsEmptyOrNull(SharedImageSet const* sis) const
{
    if (!sis) {
        warnOperationUnexpectedBehaviour("Input SharedImageSet is nullptr.");
        return true;
    }
    if (sis->empty()) {
        warnOperationUnexpectedBehaviour("Input SharedImageSet is empty.");
        return true;
    }
    return false;
}

void Operation::warnLossyConversion(std::string const& field, DataElement const& element,
                                    std::int64_t values) const
{
    auto const* images = dynamic_cast<SISBasedElement const*>(&element);
    auto const pixelType = images && images->sis() ? images->sis()->pixelType() : std::nullopt;
    std::string const type = pixelType ? std::string(pixelTypeName(*pixelType)) : "integer";
    // Once per field and pixel type: the same list over a thousand items says it once.
    if (!m_warnedMessages.insert("lossy conversion of " + field + " to " + type).second)
        return;
    VELMORIA_LOG_WARNING(m_logCategory,
                         "{} values of field '{}' did not fit its pixel type {} and were changed (fractions "
                         "cut off, values out of range saturated). Convert the field to float first: put "
                         "MakeFloat before {}",
                         values, field, type, m_name);
}

void Operation::warnOperationUnexpectedBehaviour(std::string const& message, std::string const& hint) const
{
    if (m_warnedMessages.insert(message).second) {
        VELMORIA_LOG_WARNING(m_logCategory, "{}", message);
        if (!hint.empty())
            VELMORIA_LOG_WARNING(m_logCategory, "{}", hint);
    }
    if (m_errorOnUnexpectedBehaviour || strict())
        throwOperationError(hint.empty() ? message : message + " " + hint);
}

void Operation::throwOperationError(std::string const& message) const
{
    throw OperationException("[" + m_logCategory + "] " + message);
}

void Operation::configFailed(std::string const& parameterName) const
{
    VELMORIA_LOG_ERROR(
        m_logCategory,
        "Wrong value for parameter '{}' - either it was missing while required, or it was present "
        "but wrongly formatted.",
        parameterName);
}

void Operation::logDeprecatedParam(std::string const& old, std::string const& replacement) const
{
    VELMORIA_LOG_WARNING(m_logCategory, "Using deprecated parameter '{}'. Please use: '{}' instead.", old,
                         replacement);
}

// ---- Device -------------------------------------------------------------------------------------

bool Operation::useGPU(SharedImageSet const* sis) const
{
    return shouldRunOnGPU(m_device, sis, allowChannelBatchOnGPU(),
                          [this](std::string&& text) { warnOperationUnexpectedBehaviour(text); });
}

bool Operation::allowChannelBatchOnGPU() const
{
    return false;
}

void Operation::prepareInputForDevice(SharedImageSet& sis) const
{
    if (useGPU(&sis)) {
        sis.uploadGl();
        return;
    }
    for (std::shared_ptr<SharedImage> const& frame : sis.images()) {
        if (!frame)
            continue;
        frame->prepare(true);
        // In this host "dirty X" names the stale representation: the operation is about to write
        // the CPU pixels, so any GPU copy becomes stale beforehand.
        frame->setDirtyGl();
    }
}

bool shouldRunOnGPU(ComputingDevice device, SharedImageSet const* sis, bool allowChannelBatch,
                    std::function<void(std::string&&)> const& notify)
{
    if (!sis || sis->empty())
        return false;

    switch (device) {
    case ComputingDevice::ForceCPU:
        return false;
    case ComputingDevice::GPUIfGlImage:
        if (!GL::ContextManager::hasCurrent() ||
            !std::all_of(sis->images().begin(), sis->images().end(),
                         [](std::shared_ptr<SharedImage> const& frame) { return frame && frame->hasGl(); }))
            return false;
        break;
    case ComputingDevice::GPUIfOpenGl:
        if (!GL::ContextManager::hasCurrent())
            return false;
        break;
    case ComputingDevice::ForceGPU:
        break;
    default:
        return false;
    }

    for (std::shared_ptr<SharedImage> const& frame : sis->images()) {
        if (!frame)
            continue;
        char const* reason = nullptr;
        if (!allowChannelBatch && frame->channels() > 4)
            reason = "with more than 4 channels.";
        else if (frameDimension(*frame) == 1)
            reason = "with only 1 dimension.";
        else if (frame->pixelType() == PixelType::Int)
            reason = "of type 'Int'.";
        else if (frame->pixelType() == PixelType::UInt)
            reason = "of type 'UInt'.";
        else if (frame->pixelType() == PixelType::Double)
            reason = "of type 'Double'.";
        if (reason) {
            if (notify)
                notify(std::string("has to use fallback to CPU, encountered ") + reason);
            return false;
        }
    }
    return true;
}

} // namespace Velmoria::ML

#pragma once

// Operation: the abstract unit of processing. One configurable step that is given a DataItem and
// changes some of its elements; every concrete operation, sampler and sequence stands on it.
//
// What the base class decides, so that subclasses only write the pixel (or point, box, tensor)
// work:
//   - Which fields it touches. "apply_to" (a set of field names) wins whenever it is set; else
//     the ProcessingPolicy: Everything, EverythingButLabels (the default of most operations:
//     ground truth stays as it is) or OnlyLabels. An element is a label exactly when it is a
//     target (DataElement::isTarget).
//   - How each element is handed over. process(DataItem&) dispatches by the element's class to
//     processImages / processVectors / processBoxes / processPoints / processTensors, which get
//     the element's content as a shared pointer and return what is to become its content. No
//     content is copied by the dispatch. A subclass implements only the virtuals it supports:
//     the base versions throw OperationException "[ML.<name>] Not implemented for <kind> data
//     elements", because an element reaching an operation that has no code for it is an error,
//     not something to pass through; keep such elements out with "apply_to" or the policy.
//   - Hooks around each element: preProcessHooks, then oneShotPreProcessHooks, before; post
//     hooks likewise after. The one-shot lists are emptied when process(DataItem&) completes
//     (they stay when an exception leaves it, so a retry still sees them).
//   - Configuration from Properties with strict checks: configure() never throws, reports false
//     and logs what was wrong; unknown keys are warnings (see warnOperationUnexpectedBehaviour).
//   - Whether work may run on the GPU (useGPU / shouldRunOnGPU).
//
// Two kinds of failure are kept apart. Breaches of what the item must contain (required field
// types, an unsupported element class, a missing typed virtual) always throw OperationException.
// Surprises that can be harmless (nothing selected, a named field missing, empty input, an unused
// key, a fall-back to the CPU) go through warnOperationUnexpectedBehaviour: each distinct text is
// logged once per operation object, at warning level in "ML.<name>", and with
// "error_on_unexpected_behaviour" set it throws OperationException every time.
//
// Configuration keys of the base class: "device" (ComputingDevice name or number), "seed"
// (unsigned 32-bit; reseeds the operation's own generator), "apply_to" (list of field names),
// "processing_policy" (0/1/2 or a name, see stringToProcessingPolicy; "process_label" is its
// deprecated spelling), "error_on_unexpected_behaviour" (bool), "record_identifier" (string). The
// keys "apply_to_label" and "phase" are accepted without being read here (sequences read them).
//
// Processing record. Every element an operation processed is to carry a record of it. The
// processing-record component installs that recorder once with setProcessingRecordHook()
// (ProcessingRecordComponent::installProcessingRecordHook, called while the plug-in registers its
// data components); each operation constructed afterwards starts with it as the first entry of
// postProcessHooks. Until then postProcessHooks start empty.
//
// Threads: an operation has no lock. The set of warned texts is changed from const functions and
// the random generator belongs to the object, so one operation object is used from one thread at
// a time; parallel pipelines build their own operation objects.
//
// Copies: parameters register with their owner by address, so operations are not copyable; make
// another from its Specs (createFromFactories) instead.

#include "ml/data/DataElement.h"
#include "ml/operations/OperationEnums.h"
#include "ml/operations/Phase.h"

#include "host/core/Properties.h"
#include "host/core/Random.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Velmoria {
class ParameterBase;
class SharedImageSet;
} // namespace Velmoria

namespace Velmoria::ML {

class DataItem;
class KeypointSet;
class BoundingBoxSet;
class TensorSet;

class Operation
{
public:
    // Values are part of the configuration format ("processing_policy: 1").
    enum class ProcessingPolicy : int
    {
        EverythingButLabels = 0,
        Everything = 1,
        OnlyLabels = 2,
    };

    // An operation to be created: its registered type name, its configuration and the phases in
    // which it runs.
    struct Specs
    {
        std::string name;
        Properties properties;
        Phase phase = Phase::Always;

        bool operator==(Specs const& other) const
        {
            return name == other.name && phase == other.phase && properties == other.properties;
        }
    };

    using FieldSet = std::unordered_set<std::string>;
    using Hook = std::function<void(Operation&, DataElement*)>;
    using RecordHookFunction = void (*)(Operation&, DataElement*);

    Operation(std::string name, ProcessingPolicy policy);
    Operation(Operation const&) = delete;
    Operation& operator=(Operation const&) = delete;
    virtual ~Operation();

    // ---- Processing ---------------------------------------------------------------------------

    // The entry point. Throws OperationException "Input data item does not have the required
    // types" when checkRequiredItemsTypes fails, and "Element Type not supported" for an element
    // class none of the typed virtuals handles. No roll-back: elements processed before a throw
    // stay changed.
    virtual void process(DataItem& item);
    // Conveniences for one element, through process(DataItem&) with a temporary item whose one
    // field ("sis", "kpts", "boxes") is selected whatever the policy. Null (with an error in
    // "ML.Operation") for a null input, an image set without frames, or a result that is not of
    // the input's kind. `apply_to` is the same afterwards as before, also after a throw.
    virtual std::shared_ptr<SharedImageSet> process(std::shared_ptr<SharedImageSet> sis);
    virtual std::shared_ptr<KeypointSet> process(std::shared_ptr<KeypointSet> keypoints);
    virtual std::shared_ptr<BoundingBoxSet> process(std::shared_ptr<BoundingBoxSet> boxes);
    // The result is a copy that shares the frames of the processed set (CloneOption 4).
    virtual std::unique_ptr<SharedImageSet> process(std::unique_ptr<SharedImageSet> sis);

    // Every field of requiredItemsTypes present with its type; logs the first breach at error
    // level ("Required field 'x' missing.", "Required field 'x' must be of type '0', but found
    // '3' instead.", types as their integer values) and returns false.
    virtual bool checkRequiredItemsTypes(DataItem const& item) const;

    // ---- Configuration ------------------------------------------------------------------------

    // See the file comment for the keys; then every registered parameter. Never throws: errors
    // are logged ("Could not configure operation: ...", "Unexpected error: ..." in
    // "ML.Operation", and the parameters' own messages) and give false. A second call changes
    // only what its tree names.
    virtual bool configure(Properties const& properties);
    // A new tree: "device" (name, enumeration kind), "processing_policy" (integer, enumeration
    // kind), "seed" (when set), "apply_to" (when set, sorted), "error_on_unexpected_behaviour",
    // "record_identifier" (hidden while empty), then every parameter in registration order.
    virtual Properties configuration() const;

    virtual void setProcessingPolicy(ProcessingPolicy policy);
    virtual void seedRandomEngine(unsigned int seed);
    virtual void setComputingDevice(ComputingDevice device);
    virtual void setErrorOnUnexpectedBehaviour(bool error);
    // True for operations that leave their input untouched (they may then be given shared data).
    virtual bool doesNotModifyInput() const;
    // True exactly for InvertibleOperation (ml/operations/InvertibleOperation.h), which records
    // how to undo itself when run with "record_identifier"; false for all others.
    virtual bool supportsInversion() const;
    virtual void setRecordIdentifier(std::string const& identifier);

    // ---- Typed work (each returns the element's new content) ---------------------------------

    virtual std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const;
    virtual std::shared_ptr<BoundingBoxSet> processBoxes(std::shared_ptr<BoundingBoxSet> boxes) const;
    virtual std::shared_ptr<KeypointSet> processPoints(std::shared_ptr<KeypointSet> keypoints) const;
    virtual std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const;
    virtual std::shared_ptr<TensorSet> processTensors(std::shared_ptr<TensorSet> tensors) const;

    // ---- State --------------------------------------------------------------------------------

    std::string const& name() const { return m_name; }
    // "ML." + name: the category of the operation's own messages.
    std::string const& logCategory() const { return m_logCategory; }
    ProcessingPolicy processingPolicy() const { return m_processingPolicy; }
    std::optional<FieldSet> const& applyTo() const { return m_applyTo; }
    // Nullopt lets the policy decide again.
    void setApplyTo(std::optional<FieldSet> fields) { m_applyTo = std::move(fields); }
    bool errorOnUnexpectedBehaviour() const { return m_errorOnUnexpectedBehaviour; }
    std::optional<unsigned int> seed() const { return m_seed; }
    ComputingDevice computingDevice() const { return m_device; }
    std::string const& recordIdentifier() const { return m_recordIdentifier; }
    std::vector<ParameterBase*> const& parameters() const { return m_parameters; }
    std::vector<ParameterBase*> const& manuallyConfiguredParameters() const
    {
        return m_manuallyConfiguredParameters;
    }
    std::unordered_map<std::string, ElementType> const& requiredItemsTypes() const
    {
        return m_requiredItemsTypes;
    }

    // Hooks are called with (*this, element). Others (sequences, samplers, the record component)
    // add to these lists, hence the mutable access.
    std::vector<Hook>& preProcessHooks() { return m_preProcessHooks; }
    std::vector<Hook>& postProcessHooks() { return m_postProcessHooks; }
    std::vector<Hook>& oneShotPreProcessHooks() { return m_oneShotPreProcessHooks; }
    std::vector<Hook>& oneShotPostProcessHooks() { return m_oneShotPostProcessHooks; }
    std::vector<Hook> const& preProcessHooks() const { return m_preProcessHooks; }
    std::vector<Hook> const& postProcessHooks() const { return m_postProcessHooks; }
    std::vector<Hook> const& oneShotPreProcessHooks() const { return m_oneShotPreProcessHooks; }
    std::vector<Hook> const& oneShotPostProcessHooks() const { return m_oneShotPostProcessHooks; }

    // The pre hooks, then the one-shot pre hooks, in order.
    void applyPreProcessHooks(DataElement* element);
    void applyPostProcessHooks(DataElement* element);

    // Adds the parameter (once, in registration order); AdvancedParameter calls it.
    void registerParameter(ParameterBase* parameter);
    // Removes it; called by a parameter that dies before its owner.
    void unregisterParameter(ParameterBase const* parameter);

    // ---- Selection and messages (public so that helpers working for an operation report
    // through it) -------------------------------------------------------------------------------

    // The fields to process: apply_to when set; nullopt (all fields) for the policy Everything;
    // else the fields that the policy keeps (possibly none).
    std::optional<FieldSet> selectedFields(DataItem const& item) const;

    // False for a set with at least one frame; otherwise warns ("Input SharedImageSet is
    // nullptr." / "Input SharedImageSet is empty.") and returns true. processImages
    // implementations begin with it and return their input unchanged on true.
    bool inputIsEmptyOrNull(SharedImageSet const* sis) const;

    // See the file comment. `hint`, when given, follows the warning as a line of its own (a
    // "did you mean" for a misspelt key) and is appended to the error with
    // error_on_unexpected_behaviour.
    void warnOperationUnexpectedBehaviour(std::string const& message, std::string const& hint = {}) const;
    // Throws OperationException "[ML.<name>] <message>".
    [[noreturn]] void throwOperationError(std::string const& message) const;
    // "Wrong value for parameter '<name>' - either it was missing while required, or it was
    // present but wrongly formatted." at error level.
    void configFailed(std::string const& parameterName) const;
    // "Using deprecated parameter '<old>'. Please use: '<replacement>' instead." as a warning.
    void logDeprecatedParam(std::string const& old, std::string const& replacement) const;

    // ---- Names of the policy ------------------------------------------------------------------

    // "EVERYTHING_BUT_LABELS", "EVERYTHING", "ONLY_LABELS"; empty for an unknown value.
    static std::string processingPolicyToString(ProcessingPolicy policy);
    // Case-insensitive: "everything"/"1", "everythingbutlabels"/"everything_but_labels"/"0",
    // "onlylabels"/"only_labels"/"2". Throws std::runtime_error "Unknown processing_policy
    // '<text>', supported are ['EVERYTHING', 'EVERYTHING_BUT_LABELS', 'ONLY_LABELS']".
    static ProcessingPolicy stringToProcessingPolicy(std::string const& text);

    // Asks every registered operation factory in turn; null (with an error) when none knows
    // the name or the configuration fails. Defined in OperationFactory.cpp.
    static std::unique_ptr<Operation> createFromFactories(Specs const& specs);
    // Whether a factory knows the operation `name`.
    static bool isRegistered(std::string const& name);

    // Strict mode, for pipelines that must not run with a typo (velmoria --strict): every
    // operation treats unexpected behaviour (an unknown key, a missing field) as an error, as
    // "error_on_unexpected_behaviour" does, and a model file's ignored blocks fail its loading.
    static void setStrict(bool strict);
    static bool strict();

    // The recorder that every operation constructed from now on puts first in postProcessHooks
    // (null: none). Installed once, by the processing-record component, while the plug-in loads.
    static void setProcessingRecordHook(RecordHookFunction hook);
    static RecordHookFunction processingRecordHook();

protected:
    // ---- For subclasses -----------------------------------------------------------------------

    // Whether to take the GPU path for this set: shouldRunOnGPU with the operation's device,
    // allowChannelBatchOnGPU(), and fall-back notes through warnOperationUnexpectedBehaviour.
    virtual bool useGPU(SharedImageSet const* sis) const;
    // True for operations whose GPU code handles more than 4 channels in batches.
    virtual bool allowChannelBatchOnGPU() const;

    // Makes the representation that useGPU chose current on every frame. For the CPU it also
    // marks the GPU copies stale, since the operation is about to write the CPU pixels.
    void prepareInputForDevice(SharedImageSet& sis) const;

    // Each parameter of `list` that is not manually configured reads itself from `properties`. A
    // failure (ParamException or another exception) makes the result false and the loop goes on,
    // so that every bad parameter is reported in one pass. An empty list gives true.
    bool configureOnly(Properties const& properties, std::vector<ParameterBase*> const& list);
    // Parameters that the subclass reads itself: configure() accepts their keys but leaves them.
    void setManuallyConfiguredParameters(std::vector<ParameterBase*> const& parameters);
    void setRequiredItemsTypes(std::unordered_map<std::string, ElementType> types);

    // The operation's own generator; mutable because const typed virtuals draw from it.
    Random::Generator& randomGenerator() const { return m_randomGenerator; }

private:
    // The seam of the processing record: adds the installed recorder, if any, to postProcessHooks.
    void addProcessingRecordHook();
    // Dispatches one element to its typed virtual and stores the result.
    // Says once per field that an integer image could not hold what the operation computed.
    void warnLossyConversion(std::string const& field, DataElement const& element, std::int64_t values) const;
    void processElement(DataElement& element);

    std::string m_name;
    ProcessingPolicy m_processingPolicy;
    std::optional<FieldSet> m_applyTo;
    mutable std::unordered_set<std::string> m_warnedMessages;
    bool m_errorOnUnexpectedBehaviour = false;
    std::optional<unsigned int> m_seed;
    mutable Random::Generator m_randomGenerator;
    ComputingDevice m_device = ComputingDevice::GPUIfOpenGl;
    std::vector<ParameterBase*> m_parameters;
    std::vector<ParameterBase*> m_manuallyConfiguredParameters;
    std::unordered_map<std::string, ElementType> m_requiredItemsTypes;
    std::string m_recordIdentifier;
    std::vector<Hook> m_preProcessHooks;
    std::vector<Hook> m_postProcessHooks;
    std::vector<Hook> m_oneShotPreProcessHooks;
    std::vector<Hook> m_oneShotPostProcessHooks;
    std::string m_logCategory;

    static std::atomic<RecordHookFunction> s_processingRecordHook;
    static std::atomic<bool> s_strict;
};

// Whether work on `sis` may run on the GPU with `device`. False for a null or frameless set,
// for ForceCPU, for GPUIfGlImage without a current context or without GPU copies of all frames,
// for GPUIfOpenGl without a current context, and for any value outside the four devices.
// ForceGPU needs no context (the GPU code then fails itself). Then, for all devices, the first
// frame that the GPU code cannot take makes it false, after `notify` got "has to use fallback to
// CPU, encountered " and one of: "with more than 4 channels." (unless allowChannelBatch), "with
// only 1 dimension.", "of type 'Int'.", "of type 'UInt'.", "of type 'Double'.".
bool shouldRunOnGPU(ComputingDevice device, SharedImageSet const* sis, bool allowChannelBatch,
                    std::function<void(std::string&&)> const& notify);

} // namespace Velmoria::ML

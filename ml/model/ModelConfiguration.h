#pragma once

// ModelConfiguration: one trained model as its YAML file describes it — the engine block and
// how to run it, the pre- and post-processing lists, what each engine output is, label names and
// the sampling block. Log category "ML.ModelConfiguration".
//
// Loading never throws for a bad file (one exception: a negative "Version", which names an
// upgrade that cannot exist, leaves the constructor as std::runtime_error "Upgrade function
// from Version <v> to Version <v+1> not implemented."). Instead status() is 1 and errorMessage()
// says why: the file's extension (only ".yaml"), unparsable YAML, a missing "Version" or
// "Engine" block, an unreadable key, an upgrade that refuses the file, a "PredictionOutput"
// that is missing/Unknown or whose length differs from the engine's output fields, a
// "PredictionType" of the wrong length, or a "LabelNames" key that is no engine output field.
//
// Schema versions. A file names the schema it was written for. Files below 8 are upgraded step
// by step (Elevator.h) to 7 only, with one long notice at info level, because schema 8 changes
// splitting and recombination and so may change predictions; "UpgradeToMLModelV2: true" opts in
// to 8. Files of 8 and above behave as 8. upgradedVersion() tells which schema the
// configuration behaves as. A file that behaves as 7 or below and relies on implicit splitting
// (mustSplitImage(), batches) is accepted here; running it needs the legacy execution paths,
// which do not exist yet: the prediction driver refuses it with a clear error that suggests
// "UpgradeToMLModelV2: true".
//
// Keys (top level, registered parameters, written back by configuration() in this order):
//   Version (int, required), Name, Description (text), Type (RandomForest|NeuralNetwork,
//   default NeuralNetwork), Verbose (false; copied into the engine block), MaxBatchSize (1; -1
//   is no maximum), CloneInputContainer (false), RingBufferSize (optional int),
//   CommercialUseAllowed (true), UpgradeToMLModelV2 (false), PreprocessingInputFields (["Input"]).
// Read by hand: PredictionType and PredictionOutput (lists, one per engine output field),
// LabelNames (a flat list, stored for the field "Prediction", or a block of lists per output
// field), PreProcessing / PostProcessing (processing lists), Engine (EngineConfiguration, must
// be present), Sampling (SamplingConfiguration), Acknowledgments (free metadata, kept).
// For every label-name entry, configure() appends a "SetLabelModality" operation (phase Always)
// to the post-processing, behind what the file lists.
//
// configuration() writes "LabelNames" flat when the map has one entry, whatever its key: a
// file saved from a single non-"Prediction" entry loads again only if its output field is
// called "Prediction".
//
// save(path) writes the file as people write it (yaml-cpp's emitter: blocks as maps, the
// processing lists as "- Operation:" items, vectors as [x, y, z]); PropertiesYAML reads it back
// to the same tree. A configuration that behaves as a schema below 8 is upgraded on the way
// (its own tree, with its "Sampling" block as the file gave it, is saved with
// "UpgradeToMLModelV2: true" to a temporary file, loaded, and written from that), so a saved
// file always loads as schema 8 and compares equal to the file loaded with the flag. The
// written "Version" is the schema the content has (a file of 9 keeps 9); the automatic
// "SetLabelModality" operations are left out because loading adds them again; the engine
// block's "YamlConfigPath" is never written. A configuration that did not load is not saved.

#include "ml/model/Elevator.h"
#include "ml/model/EngineConfiguration.h"
#include "ml/model/ModelEnums.h"
#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"
#include "ml/sampling/SamplingConfiguration.h"

#include "host/core/Configurable.h"
#include "host/core/Properties.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velmoria::ML {

class ModelConfiguration : public Configurable
{
public:
    // Owner of the top-level parameters: registers them with the configuration and gives their
    // log category. A separate object because ModelConfiguration::name() is the model's name.
    class ParameterOwner
    {
    public:
        explicit ParameterOwner(ModelConfiguration* configuration)
            : m_configuration(configuration)
        {}
        void registerParameter(ParameterBase* parameter) { m_configuration->registerParameter(parameter); }
        std::string name() const { return m_configuration->className(); }

    private:
        ModelConfiguration* m_configuration;
    };

    template <class T>
    using Param = AdvancedParameter<T, ParameterOwner>;

    // Loads the file; see the file comment. `defaultOutput` is the output kind while the file
    // names none; Unknown makes "PredictionOutput" mandatory.
    explicit ModelConfiguration(std::string const& configPath,
                                PredictionOutput defaultOutput = PredictionOutput::Unknown);
    // The same from a tree as the file would give it (schema handling included). `configPath`
    // anchors a relative "ModelFile" as the file's path would; it may be empty.
    ModelConfiguration(Properties properties, std::string const& configPath,
                       PredictionOutput defaultOutput = PredictionOutput::Unknown);
    ModelConfiguration(ModelConfiguration const&) = delete;
    ModelConfiguration& operator=(ModelConfiguration const&) = delete;
    ~ModelConfiguration() override;

    // The file as a tree, not yet upgraded. Status 1 with the reason when it cannot be read.
    ConfigResult parseConfigFile(Properties& out) const;

    // Reads an upgraded tree; sets status and message. Never throws.
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    // False (logged) when this configuration did not load, the file cannot be written or the
    // upgrade on the way fails.
    bool save(std::string const& path) const;

    // Equal configuration() trees ("UpgradeToMLModelV2" never counts, "Version" only without
    // ignoreVersion), compared by Properties::compareWith with mode 0.
    bool compareWith(ModelConfiguration const& other, bool ignoreVersion) const;
    bool operator==(ModelConfiguration const& other) const { return compareWith(other, false); }
    bool operator!=(ModelConfiguration const& other) const { return !compareWith(other, false); }

    int status() const { return m_status; }
    std::optional<std::string> const& errorMessage() const { return m_errorMessage; }
    int upgradedVersion() const { return m_upgradedVersion; }
    std::string const& configPath() const { return m_configPath; }
    std::string const& className() const { return m_className; }

    // True when an Image output is split into patches of a positive "MaxSizeSubdivision" (all
    // three components above 0).
    bool mustSplitImage() const;
    Properties getSamplingParameters() const;
    Properties getEngineProperties() const;

    int version() const { return p_version.value(); }
    std::string const& name() const { return p_name.value(); }
    std::string const& description() const { return p_description.value(); }
    ModelType modelType() const { return p_modelType.value(); }
    bool verbose() const { return p_verbose.value(); }
    int maxBatchSize() const { return p_maxBatchSize.value(); }
    std::optional<int> ringBufferSize() const { return p_ringBufferSize.value(); }
    bool mustCloneInputContainer() const { return p_cloneInputContainer.value(); }
    bool commercialUseAllowed() const { return p_commercialUseAllowed.value(); }
    std::vector<std::string> const& preprocessingInputFields() const
    {
        return p_preprocessingInputFields.value();
    }

    std::string const& modelPath() const { return m_engineConfig.p_modelFile.value(); }
    std::string const& engine() const { return m_engineConfig.p_name.value(); }
    std::vector<std::string> const& engineInputFields() const { return m_engineConfig.p_inputFields.value(); }
    std::vector<std::string> const& engineOutputFields() const
    {
        return m_engineConfig.p_outputFields.value();
    }
    std::vector<std::string> const& engineOutputFieldsToIgnore() const
    {
        return m_engineConfig.p_outputFieldsToIgnore.value();
    }
    bool forceCPU() const { return m_engineConfig.p_forceCPU.value(); }
    // Emits the engine parameter's signal when the value changes.
    void setForceCPU(bool force) { m_engineConfig.p_forceCPU.setValue(force); }
    bool skipUnpadding() const { return m_sampling->p_skipUnpadding.value(); }

    std::vector<PredictionType> const& predictionTypes() const { return m_predictionTypes; }
    std::vector<PredictionOutput> const& predictionOutputTypes() const { return m_predictionOutputTypes; }
    std::map<std::string, std::vector<std::string>> const& labelNames() const { return m_labelNames; }
    std::vector<Operation::Specs> const& getPreProcessingOptions() const { return m_preProcessing; }
    std::vector<Operation::Specs> const& getPostProcessingOptions() const { return m_postProcessing; }
    EngineConfiguration const& engineConfiguration() const { return m_engineConfig; }
    // For connections to the engine parameters' signals (the UI follows "ForceCPU").
    EngineConfiguration& engineConfiguration() { return m_engineConfig; }
    SamplingConfiguration const& samplingConfiguration() const { return *m_sampling; }
    Properties const& acknowledgments() const { return m_acknowledgments; }

private:
    // Steps 4 to 7 of loading: version, flag, upgrades, configure.
    void load(Properties properties);
    void fail(std::string message);
    void configureOrThrow(Properties const& properties);
    // The tree save() writes: configuration() with "Version" raised to the schema of the
    // content and without the automatic label operations.
    Properties saveTree() const;

    std::string m_className = "ModelConfiguration";
    ParameterOwner m_owner{this};

public:
    Param<int> p_version = {"Version", 1, &m_owner, ParamRequired::Yes};
    Param<std::string> p_name = {"Name", "", &m_owner};
    Param<std::string> p_description = {"Description", "", &m_owner};
    Param<ModelType> p_modelType = {"Type",
                                    ModelType::NeuralNetwork,
                                    &m_owner,
                                    ParamRequired::No,
                                    modelTypeToString,
                                    stringToModelType,
                                    {"RandomForest", "NeuralNetwork"}};
    Param<bool> p_verbose = {"Verbose", false, &m_owner};
    Param<int> p_maxBatchSize = {"MaxBatchSize", 1, &m_owner};
    Param<bool> p_cloneInputContainer = {"CloneInputContainer", false, &m_owner};
    Param<std::optional<int>> p_ringBufferSize = {"RingBufferSize", std::nullopt, &m_owner};
    Param<bool> p_commercialUseAllowed = {"CommercialUseAllowed", true, &m_owner};
    Param<bool> p_upgradeToMLModelV2 = {"UpgradeToMLModelV2", false, &m_owner};
    Param<std::vector<std::string>> p_preprocessingInputFields = {
        "PreprocessingInputFields", {EngineConfiguration::p_defaultInputName}, &m_owner};

private:
    std::vector<PredictionType> m_predictionTypes;
    std::vector<PredictionOutput> m_predictionOutputTypes;
    std::map<std::string, std::vector<std::string>> m_labelNames;
    std::vector<Operation::Specs> m_preProcessing;
    std::vector<Operation::Specs> m_postProcessing;
    EngineConfiguration m_engineConfig;
    std::unique_ptr<SamplingConfiguration> m_sampling;
    // The "Sampling" block as the file gave it. Saving a configuration that still has to be
    // upgraded writes this rather than the configured values: the upgrade to 8 reads keys of
    // the block itself ("SkipUnpadding"), and a default written out would read as a choice.
    Properties m_samplingSource;
    Properties m_acknowledgments;
    std::string m_configPath;
    int m_status = -1;
    std::optional<std::string> m_errorMessage;
    int m_upgradedVersion = -1;
};

} // namespace Velmoria::ML

#pragma once

// EngineConfiguration: the "Engine" block of a model file, the parameters every engine back end
// shares. Back-end specific keys travel along untouched in engineSpecificParams.
//
// Keys, in registration order (old names are still read, with a deprecation warning):
//
//   key                   old name                     type          default         required
//   Name                                               string        ""              no
//   ModelFile                                          string        ""              yes
//   ForceCPU                                           bool          false           no
//   InputFields           EngineInputFields            string list   ["Input"]       no
//   OutputFields          EngineOutputFields           string list   ["Prediction"]  no
//   OutputFieldsToIgnore  EngineOutputFieldsToIgnore   string list   []              no
//   Version               EngineVersion                string        ""              no
//   Verbose                                            bool          false           no
//   YamlConfigPath                                     string        ""              no
//
// "Name" is the engine's key in the engine factories (see Engine.h). "YamlConfigPath" is the
// model file that named this block: a relative "ModelFile" is found next to it.
//
// configure(p):
//   - reads every key above; a bad or missing required value is logged in "ML.Engine" and makes
//     configureChecked() return false, the other keys are still read (every fault is reported
//     in one pass). configure() itself never throws; a null tree logs "Invalid Engine
//     properties" and changes nothing;
//   - engineSpecificParams becomes a copy of p without the keys above under their current names
//     (a value given under an old name therefore stays among the specific keys too);
//   - rawModelFile keeps "ModelFile" as written, and "ModelFile" becomes
//     modelPathToAbsoluteIfNotResource(ModelFile, YamlConfigPath) (see ModelResources.h): an
//     absolute path or a resource name afterwards. An empty "ModelFile" stays empty.
// configuration(out) writes the keys, then "ModelFile" as it was written in the file (so a saved
// model file keeps its relative path), then the engine-specific keys. When "ModelFile" was
// changed by code after configure, the new value is written instead: the raw text then no longer
// describes the engine.
//
// Copies take values, engineSpecificParams and rawModelFile; signal connections stay behind.

#include "ml/operations/AdvancedParameter.h"

#include "host/core/Configurable.h"
#include "host/core/Properties.h"

#include <string>
#include <vector>

namespace Velmoria::ML {

class EngineConfiguration : public Configurable
{
public:
    // The field names a network reads and writes when a model file names none.
    static inline std::string const p_defaultInputName = "Input";
    static inline std::string const p_defaultOutputName = "Prediction";

    EngineConfiguration();
    EngineConfiguration(EngineConfiguration const& other);
    // Copies values (firing the change signals of the values that differ) and the extra fields.
    EngineConfiguration& operator=(EngineConfiguration const& other);
    ~EngineConfiguration() override;

    // The owner name of the parameters: messages go to "ML.Engine".
    std::string name() const { return "Engine"; }
    std::string className() const { return "EngineConfiguration"; }

    // configureChecked without its result. Never throws.
    void configure(Properties const* properties) override;
    // See the file comment. False (logged) for a null tree or a bad value.
    bool configureChecked(Properties const* properties);
    // See the file comment; a null pointer does nothing.
    void configuration(Properties* properties) const override;
    // Every key back to its default; the engine-specific keys and rawModelFile are cleared.
    void configureDefaults() override;
    // A new tree filled by configuration().
    Properties toProperties() const;

    AdvancedParameter<std::string, EngineConfiguration> p_name = {"Name", "", this};
    AdvancedParameter<std::string, EngineConfiguration> p_modelFile = {"ModelFile", "", this,
                                                                       ParamRequired::Yes};
    AdvancedParameter<bool, EngineConfiguration> p_forceCPU = {"ForceCPU", false, this};
    AdvancedParameter<std::vector<std::string>, EngineConfiguration> p_inputFields = {
        "InputFields", {p_defaultInputName}, this, ParamRequired::No, "EngineInputFields"};
    AdvancedParameter<std::vector<std::string>, EngineConfiguration> p_outputFields = {
        "OutputFields", {p_defaultOutputName}, this, ParamRequired::No, "EngineOutputFields"};
    AdvancedParameter<std::vector<std::string>, EngineConfiguration> p_outputFieldsToIgnore = {
        "OutputFieldsToIgnore", {}, this, ParamRequired::No, "EngineOutputFieldsToIgnore"};
    AdvancedParameter<std::string, EngineConfiguration> p_version = {"Version", "", this, ParamRequired::No,
                                                                     "EngineVersion"};
    AdvancedParameter<bool, EngineConfiguration> p_verbose = {"Verbose", false, this};
    AdvancedParameter<std::string, EngineConfiguration> p_yamlConfigPath = {"YamlConfigPath", "", this};

    // Every key of the configured tree that is not one of the keys above (sub-trees included).
    Properties engineSpecificParams;
    // "ModelFile" as the configured tree wrote it, before it was resolved.
    std::string rawModelFile;

private:
    // "ModelFile" as configure() resolved it; configuration() writes rawModelFile only while
    // the parameter still holds this value.
    std::string m_resolvedModelFile;
};

} // namespace Velmoria::ML

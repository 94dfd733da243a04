#include "ml/model/EngineConfiguration.h"

#include "ml/model/ModelResources.h"

#include "host/core/Log.h"

#include <exception>

namespace Velmoria::ML {

namespace {
constexpr char const* kCategory = "ML.Engine";
} // namespace

EngineConfiguration::EngineConfiguration() = default;

// The base is default-constructed on purpose: the parameters are rebuilt from the other's and
// register with this object themselves.
EngineConfiguration::EngineConfiguration(EngineConfiguration const& other)
    : Configurable()
    , p_name(other.p_name, this)
    , p_modelFile(other.p_modelFile, this)
    , p_forceCPU(other.p_forceCPU, this)
    , p_inputFields(other.p_inputFields, this)
    , p_outputFields(other.p_outputFields, this)
    , p_outputFieldsToIgnore(other.p_outputFieldsToIgnore, this)
    , p_version(other.p_version, this)
    , p_verbose(other.p_verbose, this)
    , p_yamlConfigPath(other.p_yamlConfigPath, this)
    , engineSpecificParams(other.engineSpecificParams)
    , rawModelFile(other.rawModelFile)
    , m_resolvedModelFile(other.m_resolvedModelFile)
{}

EngineConfiguration& EngineConfiguration::operator=(EngineConfiguration const& other)
{
    if (this == &other)
        return *this;
    p_name.setValue(other.p_name.value());
    p_modelFile.setValue(other.p_modelFile.value());
    p_forceCPU.setValue(other.p_forceCPU.value());
    p_inputFields.setValue(other.p_inputFields.value());
    p_outputFields.setValue(other.p_outputFields.value());
    p_outputFieldsToIgnore.setValue(other.p_outputFieldsToIgnore.value());
    p_version.setValue(other.p_version.value());
    p_verbose.setValue(other.p_verbose.value());
    p_yamlConfigPath.setValue(other.p_yamlConfigPath.value());
    engineSpecificParams = other.engineSpecificParams;
    rawModelFile = other.rawModelFile;
    m_resolvedModelFile = other.m_resolvedModelFile;
    return *this;
}

EngineConfiguration::~EngineConfiguration() = default;

void EngineConfiguration::configure(Properties const* properties)
{
    configureChecked(properties);
}

bool EngineConfiguration::configureChecked(Properties const* properties)
{
    if (!properties) {
        VELMORIA_LOG_ERROR(kCategory, "Invalid Engine properties");
        return false;
    }

    bool ok = true;
    bool modelFileRead = false;
    for (ParameterBase* parameter : parameters()) {
        try {
            bool const read = parameter->configure(properties);
            if (parameter == &p_modelFile)
                modelFileRead = read;
        } catch (std::exception const& e) {
            // The parameter has logged its own message; go on so that every bad key is reported.
            VELMORIA_LOG_DEBUG(kCategory, "{}", e.what());
            ok = false;
        }
    }

    engineSpecificParams = *properties;
    for (ParameterBase const* parameter : parameters())
        engineSpecificParams.removeParam(parameter->name());

    if (modelFileRead) {
        rawModelFile = p_modelFile.value();
        m_resolvedModelFile = rawModelFile.empty()
                                  ? std::string()
                                  : modelPathToAbsoluteIfNotResource(rawModelFile, p_yamlConfigPath);
        p_modelFile.setValue(m_resolvedModelFile);
    }
    return ok;
}

void EngineConfiguration::configuration(Properties* properties) const
{
    if (!properties)
        return;
    Configurable::configuration(properties);
    if (!rawModelFile.empty() && p_modelFile.value() == m_resolvedModelFile)
        properties->setParam(p_modelFile.name(), rawModelFile);
    properties->copyFrom(engineSpecificParams);
}

void EngineConfiguration::configureDefaults()
{
    Configurable::configureDefaults();
    engineSpecificParams.clear();
    rawModelFile.clear();
    m_resolvedModelFile.clear();
}

Properties EngineConfiguration::toProperties() const
{
    Properties properties;
    configuration(&properties);
    return properties;
}

} // namespace Velmoria::ML

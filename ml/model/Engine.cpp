#include "ml/model/Engine.h"

#include "ml/model/ModelResources.h"
#include "ml/operations/Singleton.h"

#include "host/core/Filesystem.h"
#include "host/core/Resource.h"
#include "host/core/String.h"

#include <algorithm>
#include <utility>

namespace Velmoria::ML {

template class Registry<EngineFactory>;

namespace {

constexpr char const* kCategory = "ML.Engine";

// The factory that knows `name`: the first of the registry's order.
EngineFactory* factoryOf(std::string const& name)
{
    for (auto const& [factoryName, factory] : engineFactoryRegistry().getAllItems())
        if (factory->hasType(name))
            return factory;
    return nullptr;
}

// Sets `target` to `value` without letting its change signal run.
template <class T>
void setBlocked(Parameter<T>& target, T const& value)
{
    SignalBlocker const block(target.signalValueChanged);
    target.setValue(value);
}

} // namespace

EngineFactoryRegistry& engineFactoryRegistry()
{
    return Singleton<EngineFactoryRegistry>::instance();
}

EngineFactory& getSubEngineFactory(std::string const& name)
{
    auto& registry = engineFactoryRegistry();
    if (!registry.hasItem(name))
        registry.registerItem(name, std::make_unique<EngineFactory>());
    return registry.getItem(name);
}

EngineFactory& getCppEngineFactory()
{
    return getSubEngineFactory(CppEngineFactoryName);
}

std::vector<std::string> registeredEngineNames()
{
    std::vector<std::string> names;
    for (auto const& [factoryName, factory] : engineFactoryRegistry().getAllItems())
        for (std::string& type : factory->availableTypes())
            names.push_back(std::move(type));
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

Engine::Engine(std::string name)
    : m_name(std::move(name))
{}

Engine::~Engine() = default;

bool Engine::isRegistered(std::string const& name, bool quiet)
{
    if (factoryOf(name))
        return true;
    if (!quiet) {
        // Every factory's types in registry order, as the user would have to spell them.
        std::vector<std::string> types;
        for (auto const& [factoryName, factory] : engineFactoryRegistry().getAllItems())
            for (std::string& type : factory->availableTypes())
                types.push_back(std::move(type));
        VELMORIA_LOG_ERROR(
            kCategory,
            "{} is not a registered engine - registered engines are: [{}]. If you are "
            "targeting a C++ engine, make sure the corresponding plugin has been loaded. If "
            "you are targeting a Python engine, make sure that your Python environment has the "
            "relevant framework (pytorch, onnxruntime, openvino, etc.) installed.",
            name, String::join(types, ", "));
    }
    return false;
}

std::unique_ptr<Engine> Engine::create(std::string const& name, Properties const& properties)
{
    std::string usedName = name;
    if (!isRegistered(name, true)) {
        std::string const lowered = String::toLowerCopy(name);
        if (lowered == name || !isRegistered(lowered, true)) {
            isRegistered(name, false);
            return nullptr;
        }
        VELMORIA_LOG_WARNING(kCategory, "Engine name should be lowercase. Please use '{}' instead of '{}'",
                             lowered, name);
        usedName = lowered;
    }

    EngineFactory* factory = factoryOf(usedName);
    if (!factory)
        return nullptr;
    std::unique_ptr<Engine> engine = factory->create(usedName, properties);
    if (engine && engine->config.p_name.value() != usedName)
        engine->config.p_name.setValue(usedName);
    return engine;
}

void Engine::configure(Properties const* properties)
{
    configureChecked(properties);
}

bool Engine::configureChecked(Properties const* properties)
{
    if (!properties)
        return false;
    bool const ok = config.configureChecked(properties);
    // The own parameters read the same tree, but with the model file as config resolved it:
    // the raw (possibly relative) text would otherwise reach config again through the handlers.
    Properties own = *properties;
    if (own.contains(p_modelFile.name()))
        own.setParam(p_modelFile.name(), config.p_modelFile.value());
    Configurable::configure(&own);
    return ok;
}

void Engine::configuration(Properties* properties) const
{
    config.configuration(properties);
}

bool Engine::isIdentical(Engine const* other) const
{
    if (!other)
        return false;
    Properties mine;
    Properties theirs;
    configuration(&mine);
    other->configuration(&theirs);
    return mine.compareWith(theirs, Properties::CompareAll);
}

void Engine::checkInputFields(DataItem const& item) const
{
    for (std::string const& field : config.p_inputFields.value())
        if (!item.contains(field))
            throw EngineException("Input item does not contain required input field '" + field + "'");
}

void Engine::checkOutputFields(DataItem const& prediction) const
{
    std::vector<std::string> const& ignored = config.p_outputFieldsToIgnore.value();
    for (std::string const& field : config.p_outputFields.value()) {
        if (prediction.contains(field) || std::find(ignored.begin(), ignored.end(), field) != ignored.end())
            continue;
        throw EngineException("Prediction item does not contain required output field '" + field + "'");
    }
}

bool Engine::init(Properties const& properties)
{
    bool const ok = configureChecked(&properties);
    connectSignals();
    setBlocked(p_modelFile, config.p_modelFile.value());
    setBlocked(p_forceCPU, config.p_forceCPU.value());
    setBlocked(p_engineInputFields, config.p_inputFields.value());
    setBlocked(p_engineOutputFields, config.p_outputFields.value());
    setBlocked(p_engineOutputFieldsToIgnore, config.p_outputFieldsToIgnore.value());
    setBlocked(p_version, config.p_version.value());
    return ok;
}

void Engine::connectSignals()
{
    if (m_signalsConnected)
        return;
    m_signalsConnected = true;

    // config -> own: the hook first, then the mirror, whose signal is blocked so that the change
    // does not come back through the handlers below.
    config.p_modelFile.signalValueChanged.connect(this, [this](std::string const& value) {
        if (value != config.p_modelFile.defaultValue())
            onModelFileChanged();
        setBlocked(p_modelFile, value);
    });
    config.p_forceCPU.signalValueChanged.connect(this, [this](bool const& value) {
        if (value != config.p_forceCPU.defaultValue())
            onForceCPUChanged();
        setBlocked(p_forceCPU, value);
    });
    config.p_inputFields.signalValueChanged.connect(
        this, [this](std::vector<std::string> const& value) { setBlocked(p_engineInputFields, value); });
    config.p_outputFields.signalValueChanged.connect(
        this, [this](std::vector<std::string> const& value) { setBlocked(p_engineOutputFields, value); });
    config.p_outputFieldsToIgnore.signalValueChanged.connect(
        this,
        [this](std::vector<std::string> const& value) { setBlocked(p_engineOutputFieldsToIgnore, value); });
    config.p_version.signalValueChanged.connect(
        this, [this](std::string const& value) { setBlocked(p_version, value); });

    // own -> config: setValue fires config's signal only on a real change, and config's handler
    // above runs the hook.
    p_modelFile.signalValueChanged.connect(
        this, [this](std::string const& value) { config.p_modelFile.setValue(value); });
    p_forceCPU.signalValueChanged.connect(this,
                                          [this](bool const& value) { config.p_forceCPU.setValue(value); });
    p_engineInputFields.signalValueChanged.connect(
        this, [this](std::vector<std::string> const& value) { config.p_inputFields.setValue(value); });
    p_engineOutputFields.signalValueChanged.connect(
        this, [this](std::vector<std::string> const& value) { config.p_outputFields.setValue(value); });
    p_engineOutputFieldsToIgnore.signalValueChanged.connect(
        this,
        [this](std::vector<std::string> const& value) { config.p_outputFieldsToIgnore.setValue(value); });
    p_version.signalValueChanged.connect(
        this, [this](std::string const& value) { config.p_version.setValue(value); });
}

std::string Engine::modelFileNotFoundMessage() const
{
    std::string const& written =
        config.rawModelFile.empty() ? config.p_modelFile.value() : config.rawModelFile;
    return fmt::format("Model file '{}' of engine '{}' was not found; looked at: {}", written, m_name,
                       String::join(modelPathPlaces(written, config.p_yamlConfigPath.value()), "; "));
}

std::optional<ByteBuffer> Engine::loadModelArtifact() const
{
    std::string const& path = config.p_modelFile.value();
    if (path.empty())
        return std::nullopt;
    Filesystem::File const file{Filesystem::Path(path)};
    if (file.exists()) {
        std::optional<ByteBuffer> bytes = file.readBinary();
        if (!bytes)
            VELMORIA_LOG_ERROR(kCategory, "Could not read model file '{}' of engine '{}'", path, m_name);
        return bytes;
    }
    if (!Resource::locate(path))
        return std::nullopt;
    VELMORIA_LOG_DEBUG(kCategory, "Loading model from resource: {}", path);
    std::optional<ByteBuffer> bytes = Resource::query(path);
    if (!bytes)
        VELMORIA_LOG_ERROR(kCategory, "Could not read model resource '{}' of engine '{}'", path, m_name);
    return bytes;
}

} // namespace Velmoria::ML

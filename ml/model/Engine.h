#pragma once

// Engine: the boundary between this library and the software that evaluates a network.
//
// The library holds no back end of its own. Torch, ONNX or scripted engines live in other
// plug-ins, register a builder in an engine factory under their engine name (in lower case) and
// are driven only through this interface:
//
//   getCppEngineFactory().registerType<TorchEngine>("torch", makeInitializedEngine<TorchEngine>);
//   std::unique_ptr<Engine> engine = Engine::create("torch", properties);
//   DataItem prediction = engine->predict(batch);
//
// Factories. engineFactoryRegistry() holds one factory per back-end family: the native one,
// "CppEngineFactory" (getCppEngineFactory()), and any that a scripting layer adds under its own
// name (getSubEngineFactory(name)). Engine::create asks them all.
//
// Two parameter sets. `config` (EngineConfiguration) is the block of the model file; the
// engine's own parameters (ModelFile, ForceCPU, EngineInputFields, EngineOutputFields,
// EngineOutputFieldsToIgnore, Version) are what a user interface or a back end sets on the
// engine. init() connects twelve handlers that keep both in step:
//   - a change of config's ModelFile, ForceCPU, InputFields, OutputFields, OutputFieldsToIgnore
//     or Version sets the matching own parameter with that parameter's signal blocked (so the
//     change never bounces back); ModelFile and ForceCPU first call onModelFileChanged() /
//     onForceCPUChanged() unless the new value is the parameter's default;
//   - a change of an own parameter sets the matching config parameter, whose handler then runs
//     the hook. A change on either side thus reaches the hook exactly once, and setting a value
//     that is already there calls nothing.
// The hooks are the back end's place to reload its artefact or move the network to a device.
//
// What a back end provides: a class derived from Engine constructed with its engine name;
// predict(), which should call checkInputFields() on its input and checkOutputFields() on its
// result and may throw (the caller catches); a builder registered as above that constructs the
// engine and calls init() (makeInitializedEngine does both); optionally the two hooks and
// reading config.engineSpecificParams. loadModelArtifact() gives it the artefact's bytes
// wherever they lie (file or resource repository).
//
// Failures. create() reports through the log ("ML.Engine") and a null result. init() and
// configure() never throw; init() returns false when the configuration was refused (the
// parameters have logged why). check...Fields throw EngineException.
//
// An engine is used from one thread at a time; nothing here is locked.

#include "ml/data/DataItem.h"
#include "ml/model/EngineConfiguration.h"
#include "ml/operations/Factory.h"
#include "ml/operations/Registry.h"

#include "host/core/ByteBuffer.h"
#include "host/core/Configurable.h"
#include "host/core/Log.h"
#include "host/core/Parameter.h"
#include "host/core/Properties.h"
#include "host/core/Signal.h"

#include <concepts>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Velmoria::ML {

// A DataItem that lacks a field the engine needs or promises.
class EngineException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class Engine : public Configurable, public SignalReceiver
{
public:
    // Stores the name and creates the parameters; reads nothing and connects nothing.
    explicit Engine(std::string name);
    Engine(Engine const&) = delete;
    Engine& operator=(Engine const&) = delete;
    ~Engine() override;

    // True when a factory of the registry has `name`. Otherwise, unless `quiet`, an error line
    // "<name> is not a registered engine - registered engines are: [a, b]. If you are targeting
    // ..." that lists every registered engine and says where engines come from.
    static bool isRegistered(std::string const& name, bool quiet = false);
    // A new engine of that name built from `properties`, or null (logged). A name registered
    // only in lower case is accepted with the warning "Engine name should be lowercase. Please
    // use '<lower>' instead of '<name>'". The engine's config "Name" is the name used.
    static std::unique_ptr<Engine> create(std::string const& name, Properties const& properties);

    // The engine name given to the constructor.
    std::string const& name() const { return m_name; }

    // config reads the tree, then the own parameters read it (with "ModelFile" as config
    // resolved it, so both sides hold the same path). Never throws; a null tree does nothing.
    void configure(Properties const* properties) override;
    // config's tree (see EngineConfiguration): the own parameters mirror it after init(), and
    // writing them too would only repeat the values under their old key names.
    void configuration(Properties* properties) const override;

    // The prediction of a batch: one element per output field that is not ignored.
    virtual DataItem predict(DataItem const& input) = 0;

    // Same configuration, engine-specific keys and key metadata included.
    virtual bool isIdentical(Engine const* other) const;
    // Throws EngineException "Input item does not contain required input field '<f>'" for the
    // first configured input field the item lacks.
    virtual void checkInputFields(DataItem const& item) const;
    // Throws EngineException "Prediction item does not contain required output field '<f>'" for
    // the first configured output field that is missing and not listed as ignored.
    virtual void checkOutputFields(DataItem const& prediction) const;

    // configure(properties), connectSignals(), then the six shared values copied from config to
    // the own parameters without firing their signals. False when config refused the tree.
    virtual bool init(Properties const& properties);

    // Hooks; the defaults do nothing.
    virtual void onModelFileChanged() {}
    virtual void onForceCPUChanged() {}

    // The twelve handlers of the file comment; connected once, later calls do nothing.
    virtual void connectSignals();

    // The bytes of the model artefact: the whole file when "ModelFile" names an existing file
    // (nullopt, with an error naming the file, when it cannot be read), else what the first
    // resource repository that holds the name serves (debug line "Loading model from resource:
    // <name>"), else nullopt without a message.
    std::optional<ByteBuffer> loadModelArtifact() const;
    // For an engine whose loadModelArtifact() found nothing: "Model file '<as written>' of engine
    // '<name>' was not found; looked at: <each place, with what it is>".
    std::string modelFileNotFoundMessage() const;

    Parameter<std::string> p_modelFile{"ModelFile", "", this};
    Parameter<bool> p_forceCPU{"ForceCPU", false, this};
    Parameter<std::vector<std::string>> p_engineInputFields{
        "EngineInputFields", {EngineConfiguration::p_defaultInputName}, this};
    Parameter<std::vector<std::string>> p_engineOutputFields{
        "EngineOutputFields", {EngineConfiguration::p_defaultOutputName}, this};
    Parameter<std::vector<std::string>> p_engineOutputFieldsToIgnore{"EngineOutputFieldsToIgnore", {}, this};
    Parameter<std::string> p_version{"Version", "", this};

    EngineConfiguration config;

private:
    // configure() with its result: false when config refused the tree.
    bool configureChecked(Properties const* properties);

    std::string m_name;
    bool m_signalsConnected = false;
};

// The factories of engines; a builder receives the "Engine" block of the model file.
using EngineFactory = Factory<Engine, Properties const&>;
using EngineFactoryRegistry = Registry<EngineFactory>;

// Instantiated once, in libVelmoriaML, so that engine plug-ins share the one registry.
extern template class Registry<EngineFactory>;

inline constexpr char const* CppEngineFactoryName = "CppEngineFactory";

// The process-wide registry of engine factories.
EngineFactoryRegistry& engineFactoryRegistry();
// The factory registered under `name`; created empty and registered on first use.
EngineFactory& getSubEngineFactory(std::string const& name);
// getSubEngineFactory(CppEngineFactoryName).
EngineFactory& getCppEngineFactory();
// Every engine name of every factory, sorted, without repeats.
std::vector<std::string> registeredEngineNames();

// The usual builder: default-constructs T and calls init(properties). A refused configuration
// gives null and the error "Failed to initialize engine '<name>'" in "ML.Engine" (the
// parameters have said what was wrong).
template <class T>
requires std::derived_from<T, Engine> && std::default_initializable<T> std::unique_ptr<T>
makeInitializedEngine(Properties const& properties)
{
    auto engine = std::make_unique<T>();
    if (!engine->init(properties)) {
        VELMORIA_LOG_ERROR("ML.Engine", "Failed to initialize engine '{}'", engine->name());
        return nullptr;
    }
    return engine;
}

} // namespace Velmoria::ML

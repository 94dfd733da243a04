// One source, many plug-ins: the plug-in manager's tests need libraries that differ in one
// property each (id, dependencies, init result, magic string). tests/CMakeLists.txt builds this
// file once per variant with the TEST_PLUGIN_* definitions below.
//
//   TEST_PLUGIN_ID                  the id (required)
//   TEST_PLUGIN_DEPENDENCIES        ids separated by ',' ("" for none)
//   TEST_PLUGIN_INIT_RESULT         what init() returns (default 0)
//   TEST_PLUGIN_INIT_THROWS         init() throws std::runtime_error
//   TEST_PLUGIN_NO_MAGIC            no magic string: the host must never load this file
//   TEST_PLUGIN_HOST_VERSION        the hostversion field of the magic string (default: the host's)
//   TEST_PLUGIN_ALGORITHM           init() registers an algorithm of this id through
//                                   registerFactories
//   TEST_PLUGIN_REQUIRES_ALGORITHM  init() returns 7 unless this algorithm is registered already,
//                                   which proves that its provider was initialised first
//   TEST_PLUGIN_NO_CREATE           velmoriaCreatePlugin is not exported

#include "host/algorithm/AlgorithmFactory.h"
#include "host/algorithm/FactoryRegistry.h"
#include "host/core/String.h"
#include "host/plugin/PluginAutoRegistrationGuard.h"
#include "host/plugin/PluginMagic.h"
#include "host/plugin/VelmoriaLibPlugin.h"

#include <cstdlib>
#include <stdexcept>

#ifndef TEST_PLUGIN_ID
#error "TEST_PLUGIN_ID is required"
#endif
#ifndef TEST_PLUGIN_DEPENDENCIES
#define TEST_PLUGIN_DEPENDENCIES ""
#endif
#ifndef TEST_PLUGIN_INIT_RESULT
#define TEST_PLUGIN_INIT_RESULT 0
#endif

#ifndef TEST_PLUGIN_NO_MAGIC
#ifdef TEST_PLUGIN_HOST_VERSION
__attribute__((used)) static char const velmoriaPluginMagic[] =
    VELMORIA_PLUGIN_MAGIC_MARKER "|hostversion=" TEST_PLUGIN_HOST_VERSION "|buildflags=|pluginversion=1.0";
#else
VELMORIA_DEFINE_PLUGIN_MAGIC("TEST", "1.0")
#endif
#endif

namespace {

class TestAlgorithm : public Velmoria::Algorithm
{
public:
    static bool createCompatible(Velmoria::DataList const& data, Velmoria::Algorithm** algorithm)
    {
        if (!data.empty())
            return false;
        if (algorithm)
            *algorithm = new TestAlgorithm;
        return true;
    }
    void compute() override {}
};

class TestPlugin : public Velmoria::VelmoriaLibPlugin
{
public:
    static std::string id() { return TEST_PLUGIN_ID; }

    std::string author() const override { return "Velmoria tests"; }
    std::string description() const override { return "Test plug-in " TEST_PLUGIN_ID; }
    std::vector<std::string> dependencies() const override
    {
        return Velmoria::String::split(TEST_PLUGIN_DEPENDENCIES, ',', true);
    }

    int init() override
    {
#ifdef TEST_PLUGIN_INIT_THROWS
        throw std::runtime_error("the test plug-in refuses to start");
#endif
#ifdef TEST_PLUGIN_REQUIRES_ALGORITHM
        bool found = false;
        for (auto* factory : Velmoria::FactoryRegistry::get().factories())
            found = found || factory->hasAlgorithm(TEST_PLUGIN_REQUIRES_ALGORITHM, false);
        if (!found)
            return 7;
#endif
#ifdef TEST_PLUGIN_ALGORITHM
        auto* factory = new Velmoria::AlgorithmFactory(TEST_PLUGIN_ID, false);
        factory->registerAlgorithm<TestAlgorithm>(TEST_PLUGIN_ALGORITHM, "Tests;" TEST_PLUGIN_ALGORITHM);
        registerFactories(factory, nullptr, nullptr);
#endif
        return TEST_PLUGIN_INIT_RESULT;
    }
};

Velmoria::PluginAutoRegistrationGuard const s_guard(&TestPlugin::id);

// A trace of the load that outlives the library (the guard goes with it), so that a test can
// tell "never loaded" from "loaded and unloaded again".
[[maybe_unused]] int const s_loadTrace = setenv("VELMORIA_TEST_PLUGIN_LOADED_" TEST_PLUGIN_ID, "1", 1);

} // namespace

VELMORIA_PLUGIN_EXPORT char const* velmoriaPluginId()
{
    return TEST_PLUGIN_ID;
}

#ifndef TEST_PLUGIN_NO_CREATE
VELMORIA_PLUGIN_EXPORT Velmoria::PluginBase* velmoriaCreatePlugin()
{
    return new TestPlugin;
}
#endif

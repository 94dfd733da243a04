// The Velmoria.Torch plug-in: its only task is to make the LibTorch engine available under the
// engine name "torch". It depends on Velmoria.ML, whose library holds the engine registry.
//
// The factory has no way to remove a type, so "torch" stays registered after the plug-in object
// is gone; the host unloads plug-ins only at its end, after every engine has been destroyed.

#include "engines/torch/TorchEngine.h"

#include "host/plugin/PluginAutoRegistrationGuard.h"
#include "host/plugin/PluginBase.h"
#include "host/plugin/PluginMagic.h"

#include <string>
#include <vector>

VELMORIA_DEFINE_PLUGIN_MAGIC("GLIBCXX_DEBUG:_GLIBCXX_DEBUG", "")

namespace Velmoria {

namespace {

char const* torchPluginId()
{
    return "Velmoria.Torch";
}

std::string torchPluginIdString()
{
    return torchPluginId();
}

PluginAutoRegistrationGuard const g_autoRegistration(&torchPluginIdString);

class TorchPlugin : public PluginBase
{
public:
    std::string author() const override { return "Velmoria ML developers"; }
    std::string description() const override { return "Engine for TorchScript models (LibTorch)"; }
    std::vector<std::string> dependencies() const override { return {"Velmoria.ML"}; }

    // Registers the engine once; a second plug-in object (or a reload) finds it there.
    int init() override
    {
        ML::EngineFactory& factory = ML::getCppEngineFactory();
        if (!factory.hasType("torch"))
            factory.registerType<ML::TorchEngine>("torch", ML::makeInitializedEngine<ML::TorchEngine>);
        return 0;
    }
};

} // namespace

} // namespace Velmoria

VELMORIA_PLUGIN_EXPORT Velmoria::PluginBase* velmoriaCreatePlugin()
{
    return new Velmoria::TorchPlugin();
}

VELMORIA_PLUGIN_EXPORT char const* velmoriaPluginId()
{
    return Velmoria::torchPluginId();
}

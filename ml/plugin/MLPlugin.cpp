#include "ml/plugin/MLPlugin.h"

#include "ml/model/ModelResources.h"
#include "ml/plugin/MLFactories.h"
#include "ml/plugin/Registrations.h"

#include "host/plugin/PluginAutoRegistrationGuard.h"
#include "host/plugin/PluginBase.h"
#include "host/plugin/PluginMagic.h"

// The magic string the host's loader finds in the file without loading it: the host version this
// plug-in was built against, its build flags, and the plug-in's own version (none).
VELMORIA_DEFINE_PLUGIN_MAGIC("GLIBCXX_DEBUG:_GLIBCXX_DEBUG", "")

namespace Velmoria {

namespace {
// Announces the plug-in to the host for as long as the library is loaded.
PluginAutoRegistrationGuard const g_autoRegistration(&MLPlugin::id);
} // namespace

MLPlugin::MLPlugin() = default;
MLPlugin::~MLPlugin() = default;

std::string MLPlugin::author() const
{
    return "Velmoria ML developers";
}

std::string MLPlugin::description() const
{
    return "Plugin for executing machine learning models on medical images";
}

std::vector<std::string> MLPlugin::dependencies() const
{
    return {"Velmoria.Stream", "Velmoria.Graph"};
}

int MLPlugin::init()
{
    // 1. The factories through which the host sees algorithms, controllers and data classes.
    registerFactories(new MLAlgorithmFactory(), new MLAlgorithmControllerFactory(),
                      new MLAnnotationFactory());
    // 2. The operations. (3. samplers, 4. readers, 5. loaders, 6. filter functions, 7. metrics
    // join their registries here as they are built.)
    ML::registerOperations();
    // 8. The data components, so that files can bring them back, and with them the recorder that
    // gives every processed element its processing record.
    ML::registerDataComponents();
    // 9. The resource repositories that serve models and their YAML files by name.
    ML::registerModelRepositories();
    // (10. display handlers and 11. file plug-ins follow with the viewer and the container file.)
    return 0;
}

} // namespace Velmoria

VELMORIA_PLUGIN_EXPORT Velmoria::PluginBase* velmoriaCreatePlugin()
{
    return new Velmoria::MLPlugin();
}

VELMORIA_PLUGIN_EXPORT char const* velmoriaPluginId()
{
    return "Velmoria.ML";
}

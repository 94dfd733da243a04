#include "apps/velmoria/InfoKinds.h"

#include "ml/model/Engine.h"
#include "ml/operations/OperationFactory.h"

#include "host/algorithm/FactoryRegistry.h"
#include "host/core/String.h"
#include "host/plugin/PluginBase.h"

#include <algorithm>
#include <set>

namespace Velmoria::Cli {

namespace {

std::vector<std::string> sorted(std::vector<std::string> names)
{
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

// "<id> - <description>", the description left out when empty.
std::vector<std::string> plugins(PluginManager const& manager)
{
    std::vector<std::string> lines;
    for (auto const& info : manager.plugins()) {
        auto const description = info.plugin ? info.plugin->description() : std::string();
        lines.push_back(description.empty() ? info.id : info.id + " - " + description);
    }
    return sorted(std::move(lines));
}

// A sampler is an operation (it can stand in a processing list), so samplers are registered in
// the operation factory too. They are told apart by name until the sampler base class exists to
// test against: every sampler's registered name ends in "Sampler".
bool isSampler(std::string const& name)
{
    return String::endsWith(name, "Sampler");
}

std::vector<std::string> operations(PluginManager const&)
{
    auto names = ML::getCppOperationFactory().availableTypes();
    names.erase(std::remove_if(names.begin(), names.end(), isSampler), names.end());
    return sorted(std::move(names));
}

std::vector<std::string> samplers(PluginManager const&)
{
    auto names = ML::getCppOperationFactory().availableTypes();
    names.erase(std::remove_if(names.begin(), names.end(), [](auto const& n) { return !isSampler(n); }),
                names.end());
    return sorted(std::move(names));
}

// The registries of data loaders and metrics are not part of the library yet; these kinds list
// nothing until they are wired here.
std::vector<std::string> loaders(PluginManager const&)
{
    return {};
}

// Every engine of every engine factory: engine plug-ins register theirs while they load.
std::vector<std::string> engines(PluginManager const&)
{
    return ML::registeredEngineNames();
}

std::vector<std::string> metrics(PluginManager const&)
{
    return {};
}

// Every algorithm of every factory, IO algorithms included: they are what a user can name.
std::vector<std::string> algorithms(PluginManager const&)
{
    std::vector<std::string> ids;
    for (auto const* factory : FactoryRegistry::get().factories()) {
        for (auto const* descriptor : factory->algorithmDescriptors())
            ids.push_back(descriptor->id);
        for (auto const* descriptor : factory->ioAlgorithmDescriptors())
            ids.push_back(descriptor->id);
    }
    return sorted(std::move(ids));
}

} // namespace

std::vector<InfoKind> const& infoKinds()
{
    static std::vector<InfoKind> const kinds{
        {"plugins", "Plug-ins", plugins},         {"operations", "Operations", operations},
        {"samplers", "Samplers", samplers},       {"loaders", "Loaders", loaders},
        {"engines", "Engines", engines},          {"metrics", "Metrics", metrics},
        {"algorithms", "Algorithms", algorithms},
    };
    return kinds;
}

} // namespace Velmoria::Cli

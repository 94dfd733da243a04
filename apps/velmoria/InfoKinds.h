#pragma once

// InfoKinds: what `velmoria info` can list. One table, so that a new kind (a registry a plug-in
// fills) is one row in InfoKinds.cpp and appears in the command, its help and its validation.

#include "host/plugin/PluginManager.h"

#include <functional>
#include <string>
#include <vector>

namespace Velmoria::Cli {

struct InfoKind
{
    // As typed on the command line: "operations".
    std::string name;
    // Above the list: "Operations".
    std::string heading;
    // One line per entry, sorted.
    std::function<std::vector<std::string>(PluginManager const&)> list;
};

// In the order `velmoria info` prints them.
std::vector<InfoKind> const& infoKinds();

} // namespace Velmoria::Cli

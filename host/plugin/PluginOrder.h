#pragma once

// PluginOrder: the order in which plug-ins are initialised, from their dependencies() alone.
//
// Every plug-in comes after the plug-ins it depends on; among plug-ins free to go, the one found
// first goes first, so the order is the folder order wherever dependencies allow (stable, and
// easy to predict from the file listing). A plug-in cannot be ordered when
//   - it depends on an id that is neither another candidate nor present already (MissingDependency),
//   - it lies on a dependency cycle (Cycle; a plug-in that depends on itself is a cycle of one),
//   - it depends on a plug-in that cannot be ordered for one of these reasons (FailedDependency).
// Each such plug-in gets exactly one problem, naming the other plug-in involved; the others are
// still ordered. `present` holds the ids that count as loaded: plug-ins loaded earlier and the
// services built into the host.
//
// Pure computation: no logging, no loading; the PluginManager turns problems into messages that
// name the files.

#include <cstddef>
#include <set>
#include <string>
#include <vector>

namespace Velmoria {

struct PluginNode
{
    std::string id;
    std::vector<std::string> dependencies;
};

struct PluginOrderProblem
{
    enum class Kind
    {
        MissingDependency,
        FailedDependency,
        Cycle,
    };
    std::size_t index = 0; // of the plug-in in the input
    Kind kind = Kind::MissingDependency;
    // The other plug-in: the missing or failed dependency, or the next plug-in on the cycle.
    std::string dependency;
    // For cycles: the ids along the cycle, starting and ending with this plug-in's id.
    std::vector<std::string> cycle;
};

struct PluginOrderResult
{
    // Indices into the input, in initialisation order.
    std::vector<std::size_t> order;
    // At most one per plug-in, by input index.
    std::vector<PluginOrderProblem> problems;
};

// Candidate ids are expected to be unique (the manager drops second copies beforehand).
PluginOrderResult orderPlugins(std::vector<PluginNode> const& nodes, std::set<std::string> const& present);

} // namespace Velmoria

#include "host/plugin/PluginOrder.h"

#include <algorithm>
#include <deque>
#include <map>
#include <optional>

namespace Velmoria {

namespace {

// n is the number of plug-ins of a folder list (a handful): quadratic loops keep this readable
// and are far cheaper than the dlopen calls around them.
class Orderer
{
public:
    Orderer(std::vector<PluginNode> const& nodes, std::set<std::string> const& present)
        : m_nodes(nodes)
        , m_present(present)
        , m_placed(nodes.size(), false)
        , m_failed(nodes.size(), false)
    {
        for (std::size_t i = 0; i < nodes.size(); ++i)
            m_index.emplace(nodes[i].id, i); // the first of duplicate ids wins
    }

    PluginOrderResult run()
    {
        findMissing();
        propagateFailures();
        place();
        reportBlocked();
        std::sort(m_result.problems.begin(), m_result.problems.end(),
                  [](auto const& a, auto const& b) { return a.index < b.index; });
        return std::move(m_result);
    }

private:
    // The candidate a dependency names, unless it is satisfied already by a present id.
    std::optional<std::size_t> candidate(std::string const& id) const
    {
        if (m_present.count(id))
            return std::nullopt;
        auto it = m_index.find(id);
        return it == m_index.end() ? std::nullopt : std::optional(it->second);
    }

    void fail(std::size_t i, PluginOrderProblem::Kind kind, std::string dependency,
              std::vector<std::string> cycle = {})
    {
        m_failed[i] = true;
        m_result.problems.push_back({i, kind, std::move(dependency), std::move(cycle)});
    }

    void findMissing()
    {
        for (std::size_t i = 0; i < m_nodes.size(); ++i) {
            for (auto const& dependency : m_nodes[i].dependencies) {
                if (!m_present.count(dependency) && !m_index.count(dependency)) {
                    fail(i, PluginOrderProblem::Kind::MissingDependency, dependency);
                    break;
                }
            }
        }
    }

    void propagateFailures()
    {
        for (bool changed = true; changed;) {
            changed = false;
            for (std::size_t i = 0; i < m_nodes.size(); ++i) {
                if (m_failed[i])
                    continue;
                for (auto const& dependency : m_nodes[i].dependencies) {
                    auto const d = candidate(dependency);
                    if (d && m_failed[*d]) {
                        fail(i, PluginOrderProblem::Kind::FailedDependency, dependency);
                        changed = true;
                        break;
                    }
                }
            }
        }
    }

    bool ready(std::size_t i) const
    {
        return std::all_of(m_nodes[i].dependencies.begin(), m_nodes[i].dependencies.end(),
                           [&](std::string const& dependency) {
                               auto const d = candidate(dependency);
                               return !d || m_placed[*d];
                           });
    }

    // Restarting from the front after each placement gives the earliest-found ready plug-in.
    void place()
    {
        for (std::size_t i = 0; i < m_nodes.size();) {
            if (!m_placed[i] && !m_failed[i] && ready(i)) {
                m_placed[i] = true;
                m_result.order.push_back(i);
                i = 0;
            } else {
                ++i;
            }
        }
    }

    bool blocked(std::size_t i) const { return !m_placed[i] && !m_failed[i]; }

    // The shortest path of blocked plug-ins from `start` back to itself, or empty.
    std::vector<std::string> cycleThrough(std::size_t start) const
    {
        std::map<std::size_t, std::size_t> previous; // node -> the node it was reached from
        std::deque<std::size_t> queue{start};
        while (!queue.empty()) {
            auto const current = queue.front();
            queue.pop_front();
            for (auto const& dependency : m_nodes[current].dependencies) {
                auto const d = candidate(dependency);
                if (!d || !blocked(*d))
                    continue;
                if (*d == start) {
                    std::vector<std::string> path{m_nodes[start].id};
                    for (auto n = current; n != start; n = previous.at(n))
                        path.insert(path.begin() + 1, m_nodes[n].id);
                    path.push_back(m_nodes[start].id);
                    return path;
                }
                if (previous.emplace(*d, current).second)
                    queue.push_back(*d);
            }
        }
        return {};
    }

    // What is neither placed nor failed now waits for a cycle: it is on one, or behind one.
    void reportBlocked()
    {
        std::vector<std::pair<std::size_t, std::vector<std::string>>> cycles;
        std::vector<std::pair<std::size_t, std::string>> behind;
        for (std::size_t i = 0; i < m_nodes.size(); ++i) {
            if (!blocked(i))
                continue;
            if (auto cycle = cycleThrough(i); !cycle.empty()) {
                cycles.emplace_back(i, std::move(cycle));
                continue;
            }
            for (auto const& dependency : m_nodes[i].dependencies) {
                auto const d = candidate(dependency);
                if (d && blocked(*d)) {
                    behind.emplace_back(i, dependency);
                    break;
                }
            }
        }
        // Marked only now, so that every plug-in was judged against the same blocked set.
        for (auto& [i, cycle] : cycles) {
            std::string next = cycle[1];
            fail(i, PluginOrderProblem::Kind::Cycle, std::move(next), std::move(cycle));
        }
        for (auto& [i, dependency] : behind)
            fail(i, PluginOrderProblem::Kind::FailedDependency, std::move(dependency));
    }

    std::vector<PluginNode> const& m_nodes;
    std::set<std::string> const& m_present;
    std::map<std::string, std::size_t> m_index;
    std::vector<bool> m_placed;
    std::vector<bool> m_failed;
    PluginOrderResult m_result;
};

} // namespace

PluginOrderResult orderPlugins(std::vector<PluginNode> const& nodes, std::set<std::string> const& present)
{
    return Orderer(nodes, present).run();
}

} // namespace Velmoria

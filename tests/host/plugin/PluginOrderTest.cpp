#include "host/plugin/PluginOrder.h"

#include "host/core/String.h"

#include <gtest/gtest.h>

#include <ostream>

using namespace Velmoria;
using Kind = PluginOrderProblem::Kind;

namespace {

struct OrderCase
{
    std::string name;
    // "id:dep1,dep2" per plug-in, in the order they were found.
    std::vector<std::string> nodes;
    std::set<std::string> present;
    std::vector<std::string> order;
    // "id kind other" per problem, in input order; kind is missing / failed / cycle.
    std::vector<std::string> problems;
    // For the first cycle problem: the cycle joined by " -> ".
    std::string cycle = {};

    // Failures name the case instead of dumping its bytes.
    friend void PrintTo(OrderCase const& c, std::ostream* os) { *os << c.name; }
};

std::vector<PluginNode> parseNodes(std::vector<std::string> const& specs)
{
    std::vector<PluginNode> nodes;
    for (auto const& spec : specs) {
        auto const parts = String::split(spec, ':');
        nodes.push_back(
            {parts[0], parts.size() > 1 ? String::split(parts[1], ',', true) : std::vector<std::string>{}});
    }
    return nodes;
}

std::string kindName(Kind kind)
{
    switch (kind) {
    case Kind::MissingDependency:
        return "missing";
    case Kind::FailedDependency:
        return "failed";
    case Kind::Cycle:
        return "cycle";
    }
    return "?";
}

class PluginOrderTest : public testing::TestWithParam<OrderCase>
{};

TEST_P(PluginOrderTest, OrdersByDependenciesAndNamesTheOtherPlugin)
{
    auto const& c = GetParam();
    auto const nodes = parseNodes(c.nodes);
    auto const result = orderPlugins(nodes, c.present);

    std::vector<std::string> order;
    for (auto const index : result.order)
        order.push_back(nodes.at(index).id);
    EXPECT_EQ(order, c.order);

    std::vector<std::string> problems;
    std::string cycle;
    for (auto const& problem : result.problems) {
        problems.push_back(nodes.at(problem.index).id + " " + kindName(problem.kind) + " " +
                           problem.dependency);
        if (problem.kind != Kind::Cycle) {
            EXPECT_TRUE(problem.cycle.empty());
        } else if (cycle.empty()) {
            cycle = String::join(problem.cycle, " -> ");
        }
    }
    EXPECT_EQ(problems, c.problems);
    EXPECT_EQ(cycle, c.cycle);
    // Every plug-in is either ordered or has a problem, never both.
    EXPECT_EQ(result.order.size() + result.problems.size(), nodes.size());
}

std::set<std::string> const kHost{"Velmoria.Stream", "Velmoria.Graph"};

INSTANTIATE_TEST_SUITE_P(
    Graphs, PluginOrderTest,
    testing::Values(
        OrderCase{"Empty", {}, kHost, {}, {}},
        OrderCase{"IndependentKeepFolderOrder", {"C", "A", "B"}, kHost, {"C", "A", "B"}, {}},
        OrderCase{"DependencyFoundLaterGoesFirst",
                  {"Consumer:Provider", "Provider"},
                  kHost,
                  {"Provider", "Consumer"},
                  {}},
        OrderCase{"Chain", {"C:B", "B:A", "A"}, kHost, {"A", "B", "C"}, {}},
        // B becomes ready after A; C was free all along but comes after B because B was found first.
        OrderCase{"EarliestReadyFirst", {"B:A", "C", "A"}, kHost, {"C", "A", "B"}, {}},
        OrderCase{"Diamond", {"D:B,C", "C:A", "B:A", "A"}, kHost, {"A", "C", "B", "D"}, {}},
        OrderCase{"EarlierLoadedArePresent", {"B:A"}, {"A"}, {"B"}, {}},
        OrderCase{"FirstMissingDependencyNamed", {"A:Velmoria.Stream,X,Y"}, kHost, {}, {"A missing X"}},
        OrderCase{"MissingCascades",
                  {"C:B", "B:A", "A:Absent", "D"},
                  kHost,
                  {"D"},
                  {"C failed B", "B failed A", "A missing Absent"}},
        OrderCase{"ThreeCycle",
                  {"A:B", "B:C", "C:A", "D"},
                  kHost,
                  {"D"},
                  {"A cycle B", "B cycle C", "C cycle A"},
                  "A -> B -> C -> A"},
        OrderCase{"SelfDependency", {"A:A", "B"}, kHost, {"B"}, {"A cycle A"}, "A -> A"},
        OrderCase{"BehindACycle",
                  {"D:A", "A:B", "B:A"},
                  kHost,
                  {},
                  {"D failed A", "A cycle B", "B cycle A"},
                  "A -> B -> A"},
        // The missing dependency is the root cause: B is reported as behind it, not as a cycle.
        OrderCase{"CycleThroughAMissingDependency",
                  {"A:B", "B:A,Absent"},
                  kHost,
                  {},
                  {"A failed B", "B missing Absent"}},
        OrderCase{"CycleBesideAChain",
                  {"X:Y", "Y", "P:Q", "Q:P"},
                  kHost,
                  {"Y", "X"},
                  {"P cycle Q", "Q cycle P"},
                  "P -> Q -> P"}),
    [](auto const& info) { return info.param.name; });

} // namespace

// The inversion stack: lookups and pops by identifier from the end, the empty identifier, specs,
// and the written form of configs and contexts.

#include "ml/data/components/InversionComponent.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <utility>

namespace Velmoria::ML {
namespace {

using Info = InversionComponent::InversionInfo;

Operation::Specs specs(std::string name, double value)
{
    return {std::move(name), Properties{{"value", value}}, Phase::Training};
}

// Two infos of "a" around one of "b": the usual shape of a stack with a repeated step.
InversionComponent stackOfThree()
{
    InversionComponent component;
    component.recordInversion("a", specs("First", 1));
    component.recordInversion("b", specs("Other", 2));
    component.recordInversion("a", specs("Second", 3), Properties{{"run", 2}});
    return component;
}

TEST(InversionComponent, LookupsFindTheLatestOfTheIdentifier)
{
    InversionComponent component = stackOfThree();
    EXPECT_TRUE(component.hasInversion("a"));
    EXPECT_FALSE(component.hasInversion("c"));
    ASSERT_NE(component.getInversionInfo("a"), nullptr);
    EXPECT_EQ(component.getInversionInfo("a")->operationName, "Second");
    EXPECT_EQ(component.getInversionInfo("c"), nullptr);

    auto const all = std::as_const(component).getAllInversionInfos("a");
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0]->operationName, "First");
    EXPECT_EQ(all[1]->operationName, "Second");

    // The non-const lookup lets an operation add the context of its run.
    component.getInversionInfo("b")->context = Properties{{"x", 1}};
    EXPECT_TRUE(component.infos()[1].context.has_value());
}

TEST(InversionComponent, PopTakesTheLaterInfoFirstAndKeepsTheOthersInOrder)
{
    InversionComponent component = stackOfThree();
    auto const later = component.popInversionInfo("a");
    ASSERT_TRUE(later.has_value());
    EXPECT_EQ(later->operationName, "Second");
    ASSERT_TRUE(later->context.has_value());
    EXPECT_EQ(later->context->paramOr("run", 0), 2);

    auto const earlier = component.popInversionInfo("a");
    ASSERT_TRUE(earlier.has_value());
    EXPECT_EQ(earlier->operationName, "First");

    EXPECT_FALSE(component.popInversionInfo("a").has_value());
    ASSERT_EQ(component.infos().size(), 1U);
    EXPECT_EQ(component.infos()[0].identifier, "b");
}

TEST(InversionComponent, PopFromTheMiddleKeepsOrder)
{
    InversionComponent component = stackOfThree();
    component.recordInversion("c", specs("Last", 4));
    ASSERT_TRUE(component.popInversionInfo("b").has_value());
    ASSERT_EQ(component.infos().size(), 3U);
    EXPECT_EQ(component.infos()[0].operationName, "First");
    EXPECT_EQ(component.infos()[1].operationName, "Second");
    EXPECT_EQ(component.infos()[2].operationName, "Last");
}

TEST(InversionComponent, EmptyIdentifierIsNotRecorded)
{
    InversionComponent component;
    component.recordInversion("", specs("X", 1));
    component.recordInversion("", specs("X", 1), Properties{{"a", 1}});
    component.recordInversion(Info{"X", "", Properties(), std::nullopt});
    EXPECT_TRUE(component.infos().empty());
}

TEST(InversionComponent, SpecsCarryNameAndConfigForAllPhases)
{
    InversionComponent const component = stackOfThree();
    auto const inverse = component.inverseSpecs("b");
    ASSERT_TRUE(inverse.has_value());
    EXPECT_EQ(inverse->name, "Other");
    EXPECT_EQ(inverse->properties.paramOr("value", 0.0), 2.0);
    // Recorded for training only, undone in every phase.
    EXPECT_EQ(inverse->phase, Phase::Always);
    EXPECT_FALSE(component.inverseSpecs("c").has_value());

    Info const info = Info::fromSpecs("id", specs("Op", 5));
    EXPECT_EQ(info.identifier, "id");
    EXPECT_FALSE(info.context.has_value());
}

// Infos differ in any of their four parts; a context absent and one present (even empty) differ.
class InfoEquality : public ::testing::TestWithParam<Info>
{};

TEST_P(InfoEquality, DiffersFromTheBase)
{
    Info const base{"Op", "id", Properties{{"v", 1}}, std::nullopt};
    EXPECT_TRUE(base == (Info{"Op", "id", Properties{{"v", 1}}, std::nullopt}));
    EXPECT_FALSE(base == GetParam());
}

INSTANTIATE_TEST_SUITE_P(Parts, InfoEquality,
                         ::testing::Values(Info{"Other", "id", Properties{{"v", 1}}, std::nullopt},
                                           Info{"Op", "other", Properties{{"v", 1}}, std::nullopt},
                                           Info{"Op", "id", Properties{{"v", 2}}, std::nullopt},
                                           Info{"Op", "id", Properties{{"v", 1}}, Properties()}));

TEST(InversionComponent, StacksCompareInOrderAndConcatenate)
{
    InversionComponent a;
    a.recordInversion("x", specs("X", 1));
    InversionComponent b;
    b.recordInversion("y", specs("Y", 1));
    EXPECT_NE(a + b, b + a);
    InversionComponent const sum = a + b;
    ASSERT_EQ(sum.infos().size(), 2U);
    EXPECT_EQ(sum.infos()[1].identifier, "y");
    a += a;
    EXPECT_EQ(a.getAllInversionInfos("x").size(), 2U);
}

TEST(InversionComponent, EmptyConfigAndContextAreLeftOutOfTheTree)
{
    InversionComponent component;
    component.recordInversion(Info{"Undo", "id", Properties(), Properties()});
    Properties written;
    component.configuration(&written);
    Properties const* infoTree = written.findSubProperties("id");
    ASSERT_NE(infoTree, nullptr);
    EXPECT_EQ(infoTree->paramOr("operation_name", ""), "Undo");
    EXPECT_EQ(infoTree->findSubProperties("config"), nullptr);
    EXPECT_EQ(infoTree->findSubProperties("context"), nullptr);

    InversionComponent read;
    read.configure(&written);
    ASSERT_EQ(read.infos().size(), 1U);
    EXPECT_TRUE(read.infos()[0].config.isEmpty());
    // An empty context is not written, so it reads back as none.
    EXPECT_FALSE(read.infos()[0].context.has_value());
}

TEST(InversionComponent, InfoWithoutOperationNameIsSkippedWithError)
{
    Properties tree;
    tree.addSubProperties("broken")->addSubProperties("config")->setParam("v", 1);
    tree.addSubProperties("good")->setParam("operation_name", "Op");
    Log::Capture capture;
    InversionComponent component;
    component.configure(&tree);
    ASSERT_EQ(component.infos().size(), 1U);
    EXPECT_EQ(component.infos()[0].identifier, "good");
    EXPECT_TRUE(capture.contains("No operation_name found for inversion info 'broken'. Skipping.",
                                 "ML.InversionComponent"));
}

} // namespace
} // namespace Velmoria::ML

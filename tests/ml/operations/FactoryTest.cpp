// Factory<Base, Args...> and the operation factories: registration rules, lookups of unknown
// names, the builder of plain operations and Operation::createFromFactories.

#include "ml/operations/Factory.h"

#include "ml/operations/OperationFactory.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace Velmoria::ML {

// Named (not anonymous) so that the log category of makeUniqueOperation is predictable.
namespace factorytest {

// Plain (not abstract) so that one class serves as base and registered type.
struct Shape
{
    Shape(std::string kind, int size)
        : kind(std::move(kind))
        , size(size)
    {}
    virtual ~Shape() = default;

    std::string kind;
    int size;
};

// Records how it was configured; a key "fail" makes configure() fail.
class ProbeOperation : public Operation
{
public:
    ProbeOperation()
        : Operation("ProbeOperation", ProcessingPolicy::Everything)
    {}

    bool configure(Properties const& properties) override
    {
        ++configureCalls;
        lastConfiguration = properties;
        return !properties.contains("fail");
    }

    int configureCalls = 0;
    Properties lastConfiguration;
};

class OtherProbeOperation : public ProbeOperation
{};

} // namespace factorytest

namespace {

using namespace factorytest;

using ShapeFactory = Factory<Shape, int>;

std::unique_ptr<Shape> makeSquare(int size)
{
    return std::make_unique<Shape>("Square", size);
}

std::unique_ptr<Shape> makeCircle(int size)
{
    return std::make_unique<Shape>("Circle", size);
}

// ---------------------------------------------------------------------------------------------
// Factory

TEST(Factory, CreatesRegisteredTypesWithArguments)
{
    ShapeFactory factory;
    factory.registerType<Shape>("Square", makeSquare);
    factory.registerType<Shape>("Circle", makeCircle);

    auto square = factory.create("Square", 3);
    ASSERT_NE(square, nullptr);
    EXPECT_EQ(square->kind, "Square");
    EXPECT_EQ(square->size, 3);
    EXPECT_EQ(factory.create("Circle", 5)->kind, "Circle");

    EXPECT_TRUE(factory.hasType("Circle"));
    EXPECT_FALSE(factory.hasType("circle"));
    EXPECT_EQ(factory.availableTypes(), (std::vector<std::string>{"Circle", "Square"}));
}

TEST(Factory, ReferenceArgumentsReachTheBuilder)
{
    Factory<Shape, Properties const&> factory;
    factory.registerType<Shape>("Square", [](Properties const& p) {
        return std::make_unique<Shape>("Square", p.paramOr("size", 0));
    });
    Properties properties{{"size", 7}};
    EXPECT_EQ(factory.create("Square", properties)->size, 7);
}

TEST(Factory, UnknownNameLogsAndGivesNull)
{
    ShapeFactory factory;
    factory.registerType<Shape>("Square", makeSquare);
    Log::Capture capture;
    EXPECT_EQ(factory.create("Triangle", 1), nullptr);
    EXPECT_TRUE(capture.contains("Triangle is not a registered type.", "ML.Factory"));
    EXPECT_EQ(capture.records().at(0).level, Log::Error);
}

TEST(Factory, BuilderResultIsPassedOnAsIs)
{
    ShapeFactory factory;
    factory.registerType<Shape>("Null", [](int) { return std::unique_ptr<Shape>(); });
    factory.registerType<Shape>("Empty", {});
    factory.registerType<Shape>("Throws",
                                [](int) -> std::unique_ptr<Shape> { throw std::invalid_argument("no"); });

    Log::Capture capture;
    EXPECT_EQ(factory.create("Null", 1), nullptr);
    EXPECT_TRUE(capture.messages().empty());
    EXPECT_THROW(factory.create("Empty", 1), std::bad_function_call);
    EXPECT_THROW(factory.create("Throws", 1), std::invalid_argument);
}

TEST(Factory, VerboseLogsRegistrations)
{
    ShapeFactory factory;
    Log::Capture capture;
    factory.registerType<Shape>("Quiet", makeSquare);
    EXPECT_TRUE(capture.messages().empty());

    factory.setVerbose(true);
    EXPECT_TRUE(factory.verbose());
    factory.registerType<Shape>("Loud", makeSquare);
    EXPECT_TRUE(capture.contains("Registering type: Loud", "ML.Factory"));
}

struct ReplacementCase
{
    bool allowReplacement;
    std::string expectedKind;
    std::string expectedWarning;
};

class FactoryReplacement : public ::testing::TestWithParam<ReplacementCase>
{};

TEST_P(FactoryReplacement, SecondRegistrationUnderOneName)
{
    ShapeFactory factory;
    EXPECT_FALSE(factory.allowReplacement());
    factory.setAllowReplacement(GetParam().allowReplacement);
    factory.registerType<Shape>("Shape", makeSquare);

    Log::Capture capture;
    factory.registerType<Shape>("Shape", makeCircle);
    EXPECT_EQ(factory.create("Shape", 1)->kind, GetParam().expectedKind);
    EXPECT_TRUE(capture.contains(GetParam().expectedWarning, "ML.Factory"));
    EXPECT_EQ(capture.records().at(0).level, Log::Warning);
    EXPECT_EQ(factory.availableTypes().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, FactoryReplacement,
    ::testing::Values(ReplacementCase{false, "Square",
                                      "Skipping type registration: 'Shape' is already registered"},
                      ReplacementCase{true, "Circle", "Re-registration: 'Shape' is already registered"}),
    [](auto const& info) { return info.param.allowReplacement ? "Allowed" : "Refused"; });

// ---------------------------------------------------------------------------------------------
// Operation factories

// Leaves the process-wide registry as it found it.
class OperationFactories : public ::testing::Test
{
protected:
    void TearDown() override
    {
        for (auto const& name : m_added)
            if (operationFactoryRegistry().hasItem(name))
                operationFactoryRegistry().unregisterItem(name);
    }

    OperationFactory& subFactory(std::string const& name)
    {
        if (!operationFactoryRegistry().hasItem(name))
            m_added.push_back(name);
        return getSubOperationFactory(name);
    }

    std::vector<std::string> m_added;
};

TEST_F(OperationFactories, SubFactoryIsCreatedOnceAndShared)
{
    auto const before = operationFactoryRegistry().availableItems().size();
    OperationFactory& first = subFactory("FactoryTest.X");
    EXPECT_EQ(operationFactoryRegistry().availableItems().size(), before + 1);
    OperationFactory& second = subFactory("FactoryTest.X");
    EXPECT_EQ(&first, &second);
    EXPECT_EQ(operationFactoryRegistry().availableItems().size(), before + 1);
    EXPECT_EQ(&operationFactoryRegistry().getItem("FactoryTest.X"), &first);
}

TEST_F(OperationFactories, CppFactoryIsTheOneNamedSo)
{
    OperationFactory& cpp = getCppOperationFactory();
    EXPECT_EQ(&cpp, &getSubOperationFactory("CppOperationFactory"));
    EXPECT_TRUE(operationFactoryRegistry().hasItem(CppOperationFactoryName));
}

TEST_F(OperationFactories, MakeUniqueOperationConfiguresOnlyWithProperties)
{
    auto plain = makeUniqueOperation<ProbeOperation>(std::nullopt);
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(plain->configureCalls, 0);

    Properties properties{{"size", 3}};
    auto configured = makeUniqueOperation<ProbeOperation>(properties);
    ASSERT_NE(configured, nullptr);
    EXPECT_EQ(configured->configureCalls, 1);
    EXPECT_EQ(configured->lastConfiguration.paramOr("size", 0), 3);
}

TEST_F(OperationFactories, FailedConfigurationGivesNullAndNamesTheType)
{
    Log::Capture capture;
    EXPECT_EQ(makeUniqueOperation<ProbeOperation>(Properties{{"fail", true}}), nullptr);
    EXPECT_TRUE(capture.contains("Failed to configure operation with the given properties.",
                                 "Velmoria::ML::factorytest::ProbeOperation"));
}

TEST(RuntimeTypeName, IsDemangledWithoutMarker)
{
    struct Local
    {};
    EXPECT_EQ(detail::runtimeTypeName(typeid(ProbeOperation)), "Velmoria::ML::factorytest::ProbeOperation");
    // Types of internal linkage carry a '*' in GCC's raw name; it must not show.
    EXPECT_EQ(detail::runtimeTypeName(typeid(ShapeFactory)).find('*'), std::string::npos);
    EXPECT_NE(detail::runtimeTypeName(typeid(Local)).find("Local"), std::string::npos);
    EXPECT_NE(detail::runtimeTypeName(typeid(Local)).front(), '*');
}

TEST_F(OperationFactories, CreateFromFactoriesFindsTheFactoryThatHasTheName)
{
    subFactory("FactoryTest.First")
        .registerType<ProbeOperation>("FactoryTestProbe", makeUniqueOperation<ProbeOperation>);
    subFactory("FactoryTest.Second")
        .registerType<OtherProbeOperation>("FactoryTestOther", makeUniqueOperation<OtherProbeOperation>);

    Properties properties{{"size", 4}};
    auto operation = Operation::createFromFactories({"FactoryTestProbe", properties, Phase::Always});
    ASSERT_NE(operation, nullptr);
    auto* probe = dynamic_cast<ProbeOperation*>(operation.get());
    ASSERT_NE(probe, nullptr);
    EXPECT_EQ(probe->configureCalls, 1);
    EXPECT_EQ(probe->lastConfiguration.paramOr("size", 0), 4);

    auto other = Operation::createFromFactories({"FactoryTestOther", Properties(), Phase::Training});
    EXPECT_NE(dynamic_cast<OtherProbeOperation*>(other.get()), nullptr);
}

TEST_F(OperationFactories, FirstRegisteredFactoryWinsForSharedName)
{
    subFactory("FactoryTest.Early")
        .registerType<ProbeOperation>("FactoryTestShared", makeUniqueOperation<ProbeOperation>);
    subFactory("FactoryTest.Late")
        .registerType<OtherProbeOperation>("FactoryTestShared", makeUniqueOperation<OtherProbeOperation>);

    auto operation = Operation::createFromFactories({"FactoryTestShared", Properties(), Phase::Always});
    ASSERT_NE(operation, nullptr);
    EXPECT_EQ(dynamic_cast<OtherProbeOperation*>(operation.get()), nullptr);
}

TEST_F(OperationFactories, CreateFromFactoriesReportsUnknownAndFailedOperations)
{
    subFactory("FactoryTest.First")
        .registerType<ProbeOperation>("FactoryTestProbe", makeUniqueOperation<ProbeOperation>);

    Log::Capture capture;
    EXPECT_EQ(Operation::createFromFactories({"FactoryTestNoSuch", Properties(), Phase::Always}), nullptr);
    EXPECT_TRUE(capture.contains("FactoryTestNoSuch is not a registered operation", "ML.Operation"));
    // Asking with hasType first keeps the factories' own "not a registered type" line away.
    EXPECT_FALSE(capture.containsFragment("is not a registered type"));

    EXPECT_EQ(Operation::createFromFactories({"FactoryTestProbe", Properties{{"fail", 1}}, Phase::Always}),
              nullptr);
    EXPECT_TRUE(capture.contains("Failed to configure operation with the given properties."));
}

} // namespace
} // namespace Velmoria::ML

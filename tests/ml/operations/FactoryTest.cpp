// Factory<Base, Args...> and the operation factories (registration rules, lookups of unknown
// names, the builder of plain operations and Operation::createFromFactories), and Registry<T>
// (named, owned items with logged failures) with the process-wide registries of item functions
// and predicates.

#include "ml/operations/Factory.h"

#include "ml/data/DataItem.h"
#include "ml/operations/OperationFactory.h"
#include "ml/operations/Registry.h"
#include "ml/operations/Singleton.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
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

TEST(Factory, CreatesRegisteredTypesWithArgumentsAndLogsUnknownNames)
{
    ShapeFactory factory;
    Log::Capture capture;
    factory.registerType<Shape>("Square", makeSquare);
    EXPECT_TRUE(capture.messages().empty()) << "registrations are quiet unless verbose";
    factory.setVerbose(true);
    EXPECT_TRUE(factory.verbose());
    factory.registerType<Shape>("Circle", makeCircle);
    EXPECT_TRUE(capture.contains("Registering type: Circle", "ML.Factory"));

    auto square = factory.create("Square", 3);
    ASSERT_NE(square, nullptr);
    EXPECT_EQ(square->kind, "Square");
    EXPECT_EQ(square->size, 3);
    EXPECT_EQ(factory.create("Circle", 5)->kind, "Circle");
    EXPECT_FALSE(factory.hasType("circle"));
    EXPECT_EQ(factory.availableTypes(), (std::vector<std::string>{"Circle", "Square"}));

    EXPECT_EQ(factory.create("Triangle", 1), nullptr);
    EXPECT_TRUE(capture.contains("Triangle is not a registered type.", "ML.Factory"));
    EXPECT_EQ(capture.records().back().level, Log::Error);
}

TEST(Factory, SecondRegistrationUnderOneNameIsSkippedUnlessReplacementIsAllowed)
{
    for (bool const allow : {false, true}) {
        ShapeFactory factory;
        EXPECT_FALSE(factory.allowReplacement());
        factory.setAllowReplacement(allow);
        factory.registerType<Shape>("Shape", makeSquare);
        Log::Capture capture;
        factory.registerType<Shape>("Shape", makeCircle);
        EXPECT_EQ(factory.create("Shape", 1)->kind, allow ? "Circle" : "Square");
        EXPECT_TRUE(capture.contains(allow ? "Re-registration: 'Shape' is already registered"
                                           : "Skipping type registration: 'Shape' is already registered",
                                     "ML.Factory"));
        EXPECT_EQ(capture.records().at(0).level, Log::Warning);
        EXPECT_EQ(factory.availableTypes().size(), 1u);
    }
}

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

TEST_F(OperationFactories, MakeUniqueOperationConfiguresOnlyWithPropertiesAndNamesTheTypeOnFailure)
{
    EXPECT_EQ(makeUniqueOperation<ProbeOperation>(std::nullopt)->configureCalls, 0);
    auto configured = makeUniqueOperation<ProbeOperation>(Properties{{"size", 3}});
    ASSERT_NE(configured, nullptr);
    EXPECT_EQ(configured->configureCalls, 1);
    EXPECT_EQ(configured->lastConfiguration.paramOr("size", 0), 3);

    Log::Capture capture;
    EXPECT_EQ(makeUniqueOperation<ProbeOperation>(Properties{{"fail", true}}), nullptr);
    EXPECT_TRUE(capture.contains("Failed to configure operation with the given properties.",
                                 "Velmoria::ML::factorytest::ProbeOperation"));
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

    // A sub-factory is made once; for a name in two of them the first registered wins.
    EXPECT_EQ(&subFactory("FactoryTest.First"), &operationFactoryRegistry().getItem("FactoryTest.First"));
    subFactory("FactoryTest.Second")
        .registerType<OtherProbeOperation>("FactoryTestProbe", makeUniqueOperation<OtherProbeOperation>);
    auto shared = Operation::createFromFactories({"FactoryTestProbe", Properties(), Phase::Always});
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(dynamic_cast<OtherProbeOperation*>(shared.get()), nullptr);
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

// ---------------------------------------------------------------------------------------------
// Registry

struct Counter
{
    explicit Counter(int start)
        : value(start)
    {}
    int value;
};

class RegistryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_registry.registerItem("one", std::make_unique<Counter>(1)));
        ASSERT_TRUE(m_registry.registerItem("two", std::make_unique<Counter>(2)));
    }

    Registry<Counter> m_registry;
    Registry<Counter> const& m_constRegistry = m_registry;
    Log::Capture m_capture;
};

TEST_F(RegistryTest, FindsAndListsItemsInRegistrationOrderWithStablePointers)
{
    EXPECT_TRUE(m_registry.hasItem("one"));
    EXPECT_FALSE(m_registry.hasItem("three"));
    m_registry.getItem("one").value = 10;
    EXPECT_EQ(m_constRegistry.getItem("one").value, 10);

    Counter* two = &m_registry.getItem("two");
    ASSERT_TRUE(m_registry.unregisterItem("one"));
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(m_registry.registerItem("extra" + std::to_string(i), std::make_unique<Counter>(i)));
    EXPECT_EQ(two, &m_registry.getItem("two"));
    auto const items = m_registry.getAllItems();
    ASSERT_EQ(items.size(), 21U);
    EXPECT_EQ(items[0].first, "two");
    EXPECT_EQ(items[0].second, two);
    EXPECT_EQ(items[20].second->value, 19);
    EXPECT_EQ(m_registry.availableItems()[1], "extra0");
    EXPECT_TRUE(m_capture.messages().empty());

    m_registry.unregisterAllItems();
    EXPECT_TRUE(m_registry.getAllItems().empty());
    EXPECT_TRUE(m_registry.registerItem("two", std::make_unique<Counter>(22)));
}

TEST_F(RegistryTest, RefusesDuplicatesNullItemsAndUnknownNamesWithAnError)
{
    EXPECT_FALSE(m_registry.registerItem("one", std::make_unique<Counter>(100)));
    EXPECT_TRUE(m_capture.contains("Item 'one' already registered", "ML.Registry"));
    EXPECT_EQ(m_registry.getItem("one").value, 1);
    EXPECT_FALSE(m_registry.registerItem("null", nullptr));
    EXPECT_FALSE(m_registry.hasItem("null"));
    EXPECT_TRUE(m_capture.contains("Item 'null' is null and was not registered", "ML.Registry"));
    EXPECT_FALSE(m_registry.unregisterItem("three"));
    EXPECT_TRUE(m_capture.contains("Item 'three' not registered", "ML.Registry"));

    EXPECT_THROW(m_registry.getItem("missing"), std::out_of_range);
    EXPECT_THROW(m_constRegistry.getItem("missing"), std::out_of_range);
    EXPECT_EQ(m_capture.count("missing is not a registered item.", "ML.Registry"), 2);
}

TEST(ItemFunctionRegistries, AreProcessWideAndCallable)
{
    EXPECT_EQ(&itemFunctionRegistry(), &Singleton<ItemFunctionRegistry>::instance());
    int calls = 0;
    ASSERT_TRUE(itemFunctionRegistry().registerItem(
        "RegistryTest.count", std::make_unique<ItemFunction>([&calls](DataItem&) { ++calls; })));
    ASSERT_TRUE(itemPredicateRegistry().registerItem(
        "RegistryTest.empty",
        std::make_unique<ItemPredicate>([](DataItem const& item) { return item.empty(); })));
    DataItem item;
    itemFunctionRegistry().getItem("RegistryTest.count")(item);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(itemPredicateRegistry().getItem("RegistryTest.empty")(item));
    EXPECT_TRUE(itemFunctionRegistry().unregisterItem("RegistryTest.count"));
    EXPECT_TRUE(itemPredicateRegistry().unregisterItem("RegistryTest.empty"));
}

} // namespace
} // namespace Velmoria::ML

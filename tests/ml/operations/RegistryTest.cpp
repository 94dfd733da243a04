// Registry<T>: named, owned items with logged failures, and the process-wide registries of item
// functions and predicates.

#include "ml/operations/Registry.h"

#include "ml/data/DataItem.h"
#include "ml/operations/Singleton.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace Velmoria::ML {
namespace {

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
    Log::Capture m_capture;
};

TEST_F(RegistryTest, ItemsAreFoundByName)
{
    EXPECT_TRUE(m_registry.hasItem("one"));
    EXPECT_FALSE(m_registry.hasItem("three"));
    EXPECT_EQ(m_registry.getItem("two").value, 2);
    Registry<Counter> const& constRegistry = m_registry;
    EXPECT_EQ(constRegistry.getItem("one").value, 1);

    m_registry.getItem("one").value = 10;
    EXPECT_EQ(constRegistry.getItem("one").value, 10);
}

TEST_F(RegistryTest, ListsInRegistrationOrder)
{
    ASSERT_TRUE(m_registry.registerItem("alpha", std::make_unique<Counter>(0)));
    EXPECT_EQ(m_registry.availableItems(), (std::vector<std::string>{"one", "two", "alpha"}));

    auto items = m_registry.getAllItems();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].first, "one");
    EXPECT_EQ(items[0].second, &m_registry.getItem("one"));
    EXPECT_EQ(items[2].first, "alpha");
    EXPECT_EQ(items[2].second->value, 0);
}

TEST_F(RegistryTest, PointersStayValidWhileOthersChange)
{
    Counter* two = m_registry.getAllItems()[1].second;
    ASSERT_TRUE(m_registry.unregisterItem("one"));
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(m_registry.registerItem("extra" + std::to_string(i), std::make_unique<Counter>(i)));
    EXPECT_EQ(two, &m_registry.getItem("two"));
    EXPECT_EQ(two->value, 2);
}

TEST_F(RegistryTest, DuplicateNameKeepsOldItem)
{
    EXPECT_FALSE(m_registry.registerItem("one", std::make_unique<Counter>(100)));
    EXPECT_TRUE(m_capture.contains("Item 'one' already registered", "ML.Registry"));
    EXPECT_EQ(m_registry.getItem("one").value, 1);
    EXPECT_EQ(m_registry.availableItems().size(), 2u);
}

TEST_F(RegistryTest, NullItemIsRefused)
{
    EXPECT_FALSE(m_registry.registerItem("null", nullptr));
    EXPECT_FALSE(m_registry.hasItem("null"));
    EXPECT_EQ(m_capture.messages(Log::Error).size(), 1u);
}

TEST_F(RegistryTest, UnknownItemLogsThenThrows)
{
    try {
        m_registry.getItem("missing");
        FAIL() << "no exception";
    } catch (std::out_of_range const& e) {
        EXPECT_STREQ(e.what(), "_Map_base::at");
        EXPECT_TRUE(m_capture.contains("missing is not a registered item.", "ML.Registry"));
    }
    Registry<Counter> const& constRegistry = m_registry;
    EXPECT_THROW(constRegistry.getItem("missing"), std::out_of_range);
    EXPECT_EQ(m_capture.count("missing is not a registered item.", "ML.Registry"), 2);
}

TEST_F(RegistryTest, Unregister)
{
    EXPECT_TRUE(m_registry.unregisterItem("one"));
    EXPECT_FALSE(m_registry.hasItem("one"));
    EXPECT_TRUE(m_capture.messages().empty());

    EXPECT_FALSE(m_registry.unregisterItem("one"));
    EXPECT_TRUE(m_capture.contains("Item 'one' not registered", "ML.Registry"));

    m_registry.unregisterAllItems();
    EXPECT_TRUE(m_registry.availableItems().empty());
    EXPECT_TRUE(m_registry.getAllItems().empty());
    // The name can be used again.
    EXPECT_TRUE(m_registry.registerItem("two", std::make_unique<Counter>(22)));
    EXPECT_EQ(m_registry.getItem("two").value, 22);
}

TEST(ItemFunctionRegistries, AreProcessWideAndCallable)
{
    EXPECT_EQ(&itemFunctionRegistry(), &Singleton<ItemFunctionRegistry>::instance());
    EXPECT_EQ(&itemPredicateRegistry(), &Singleton<ItemPredicateRegistry>::instance());

    int calls = 0;
    ASSERT_TRUE(itemFunctionRegistry().registerItem(
        "RegistryTest.count", std::make_unique<ItemFunction>([&calls](DataItem&) { ++calls; })));
    ASSERT_TRUE(itemPredicateRegistry().registerItem(
        "RegistryTest.empty",
        std::make_unique<ItemPredicate>([](DataItem const& item) { return item.empty(); })));

    DataItem item;
    itemFunctionRegistry().getItem("RegistryTest.count")(item);
    itemFunctionRegistry().getItem("RegistryTest.count")(item);
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(itemPredicateRegistry().getItem("RegistryTest.empty")(item));

    EXPECT_TRUE(itemFunctionRegistry().unregisterItem("RegistryTest.count"));
    EXPECT_TRUE(itemPredicateRegistry().unregisterItem("RegistryTest.empty"));
}

} // namespace
} // namespace Velmoria::ML

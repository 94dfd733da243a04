// Data components: one of each type per list (components written in Python: one of each id),
// clones that keep the dynamic type, parents told of every move, and the factory by id.

#include "host/data/DataComponentList.h"

#include "host/core/Log.h"
#include "host/core/Parameter.h"
#include "host/core/Properties.h"
#include "host/data/DataComponentFactory.h"

#include <gtest/gtest.h>

using namespace Velmoria;

namespace {

class LabelNames : public DataComponent<LabelNames>
{
public:
    std::string id() const override { return "LabelNames"; }
    bool operator==(LabelNames const& o) const { return p_names.value() == o.p_names.value(); }
    Parameter<std::string> p_names{"names", "", this};
};

class Spacing : public DataComponent<Spacing>, public TemporaryDataComponent
{
public:
    explicit Spacing(double v = 1.0) { p_value = v; }
    std::string id() const override { return "Spacing"; }
    bool operator==(Spacing const& o) const { return p_value.value() == o.p_value.value(); }
    Parameter<double> p_value{"value", 1.0, this};
};

// Stands for the one C++ class behind every component written in Python.
class FakePyDataComponent : public DataComponent<FakePyDataComponent>
{
public:
    explicit FakePyDataComponent(std::string id = "", int payload = 0)
        : m_id(std::move(id))
        , m_payload(payload)
    {}
    std::string id() const override { return m_id; }
    bool operator==(FakePyDataComponent const& o) const { return m_id == o.m_id && m_payload == o.m_payload; }
    int payload() const { return m_payload; }

private:
    std::string m_id;
    int m_payload;
};

class ParentAware : public DataComponent<ParentAware>, public DataComponentWithParentInterface
{
public:
    std::string id() const override { return "ParentAware"; }
    bool operator==(ParentAware const&) const { return true; }
};

class DataComponentListTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        list.signalChanged.connect([this] { ++changes; });
    }
    DataComponentList list;
    int changes = 0;
};

} // namespace

TEST_F(DataComponentListTest, OneComponentOfEachTypeAndOneSignalPerChange)
{
    list.add(std::make_unique<LabelNames>());
    list.add(std::make_unique<Spacing>(2.0));
    auto second = std::make_unique<LabelNames>();
    second->p_names = "liver";
    LabelNames* added = list.add(std::move(second));
    EXPECT_EQ(changes, 3);
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list.all()[0], added) << "a replacing component keeps the old position";
    EXPECT_EQ(list.get<LabelNames>()->p_names.value(), "liver");
    EXPECT_DOUBLE_EQ(list.get<Spacing>()->p_value.value(), 2.0);

    Log::Capture capture;
    EXPECT_EQ(list.add(std::unique_ptr<LabelNames>()), nullptr);
    EXPECT_EQ(changes, 3);
    EXPECT_TRUE(capture.contains("Ignoring a null component", "Host.DataComponentList"));

    EXPECT_EQ(list.getOrCreate<LabelNames>(), added);
    EXPECT_EQ(changes, 3);
    EXPECT_TRUE(list.remove<LabelNames>());
    EXPECT_FALSE(list.remove<LabelNames>());
    EXPECT_EQ(list.get<LabelNames>(), nullptr);
    EXPECT_NE(list.getOrCreate<LabelNames>(), nullptr);
    EXPECT_EQ(changes, 5);
    list.clear();
    list.clear();
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(changes, 6) << "clearing an empty list is no change";
}

TEST_F(DataComponentListTest, PythonComponentsAreOnePerId)
{
    EXPECT_TRUE(DataComponentList::comparesById(FakePyDataComponent("a")));
    EXPECT_FALSE(DataComponentList::comparesById(LabelNames()));
    list.add(std::make_unique<FakePyDataComponent>("tags", 1));
    list.add(std::make_unique<FakePyDataComponent>("notes", 2));
    list.add(std::make_unique<FakePyDataComponent>("tags", 3));
    ASSERT_EQ(list.size(), 2);
    auto* first = static_cast<FakePyDataComponent*>(list.all()[0]);
    EXPECT_EQ(first->id(), "tags");
    EXPECT_EQ(first->payload(), 3);
}

TEST_F(DataComponentListTest, ParentIsToldOnAddCopyAndMove)
{
    ParentAware* component = list.add(std::make_unique<ParentAware>());
    EXPECT_EQ(component->parentList(), &list);

    DataComponentList copy(list);
    auto* copied = copy.get<ParentAware>();
    ASSERT_NE(copied, component);
    EXPECT_EQ(copied->parentList(), &copy);

    DataComponentList moved(std::move(copy));
    EXPECT_EQ(moved.get<ParentAware>(), copied);
    EXPECT_EQ(copied->parentList(), &moved);

    DataComponentList assigned;
    assigned = std::move(moved);
    EXPECT_EQ(copied->parentList(), &assigned);
}

TEST_F(DataComponentListTest, AddListClonesAndSignalsOnce)
{
    DataComponentList other;
    other.add(std::make_unique<LabelNames>())->p_names = "a";
    other.add(std::make_unique<Spacing>(3.0));
    list.add(std::make_unique<Spacing>(1.0));
    list.add(other);
    EXPECT_EQ(changes, 2);
    ASSERT_EQ(list.size(), 2);
    EXPECT_DOUBLE_EQ(list.get<Spacing>()->p_value.value(), 3.0);
    EXPECT_NE(list.get<LabelNames>(), other.get<LabelNames>()) << "components are cloned, not shared";
    EXPECT_TRUE(list == other);

    list.get<LabelNames>()->p_names = "b";
    EXPECT_FALSE(list == other);
    list.assign(other);
    EXPECT_TRUE(list == other);
    EXPECT_EQ(changes, 3);
}

TEST(DataComponent, CloneAssignEqualsCheckTheDynamicTypeAndConfigureRoundTrips)
{
    LabelNames a;
    a.p_names = "liver;kidney";
    std::unique_ptr<DataComponentBase> clone = a.clone();
    ASSERT_NE(dynamic_cast<LabelNames*>(clone.get()), nullptr);
    EXPECT_TRUE(clone->equals(a));

    LabelNames b;
    EXPECT_FALSE(b.equals(a));
    EXPECT_TRUE(b.assign(a));
    EXPECT_TRUE(b.equals(a));

    Spacing s(5.0);
    EXPECT_FALSE(s.assign(a));
    EXPECT_DOUBLE_EQ(s.p_value.value(), 5.0);
    EXPECT_FALSE(s.equals(a));

    EXPECT_TRUE(isPersistent(a));
    EXPECT_FALSE(isPersistent(s));
    Properties p;
    a.configuration(&p);
    LabelNames read;
    read.configure(&p);
    EXPECT_TRUE(read.equals(a));
}

TEST(DataComponentFactory, CreatesRegisteredAndRefusesUnknown)
{
    auto& factory = DataComponentFactory::get();
    EXPECT_TRUE(factory.registerComponent("TestLabelNames", [] { return std::make_unique<LabelNames>(); }));
    Log::Capture capture;
    EXPECT_FALSE(factory.registerComponent("TestLabelNames", [] { return std::make_unique<Spacing>(); }));
    EXPECT_TRUE(
        capture.contains("Replacing the creator of component 'TestLabelNames'", "Host.DataComponentFactory"));
    EXPECT_NE(dynamic_cast<Spacing*>(factory.create("TestLabelNames").get()), nullptr)
        << "the later registration wins";
    auto ids = factory.registeredIds();
    EXPECT_NE(std::find(ids.begin(), ids.end(), "TestLabelNames"), ids.end());

    EXPECT_EQ(factory.create("NoSuchComponent"), nullptr);
    EXPECT_TRUE(capture.contains("Unknown data component id 'NoSuchComponent'", "Host.DataComponentFactory"));
    EXPECT_TRUE(factory.registerComponent("TestNull", [] { return std::unique_ptr<DataComponentBase>(); }));
    EXPECT_EQ(factory.create("TestNull"), nullptr);
    EXPECT_TRUE(capture.contains("The creator of data component 'TestNull' returned null"));
    EXPECT_FALSE(factory.registerComponent("", [] { return std::make_unique<LabelNames>(); }));
    EXPECT_TRUE(factory.unregisterComponent("TestLabelNames"));
    EXPECT_TRUE(factory.unregisterComponent("TestNull"));
    EXPECT_FALSE(factory.isRegistered("TestLabelNames"));
}

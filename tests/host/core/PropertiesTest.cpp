#include "host/core/Properties.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <optional>

using namespace Velmoria;

namespace {

// A value of each family, its text, and the kind setParam gives it.
template <class T>
struct Sample;
template <>
struct Sample<bool>
{
    static bool value() { return true; }
    static constexpr char const* text = "true";
    static constexpr int kind = ParamType::Bool;
};
template <>
struct Sample<int>
{
    static int value() { return -12; }
    static constexpr char const* text = "-12";
    static constexpr int kind = ParamType::Int;
};
template <>
struct Sample<double>
{
    static double value() { return 1.0 / 3.0; }
    static constexpr char const* text = "0.3333333333333333";
    static constexpr int kind = ParamType::Double;
};
template <>
struct Sample<std::string>
{
    static std::string value() { return " spaced text "; }
    static constexpr char const* text = " spaced text ";
    static constexpr int kind = ParamType::String;
};
template <>
struct Sample<Eigen::Vector3d>
{
    static Eigen::Vector3d value() { return {1, 0.5, -2}; }
    static constexpr char const* text = "1 0.5 -2";
    static constexpr int kind = ParamType::Vector;
};
template <>
struct Sample<Eigen::Matrix2f>
{
    static Eigen::Matrix2f value() { return (Eigen::Matrix2f() << 1, 2, 3, 4).finished(); }
    static constexpr char const* text = "[1 2, 3 4]";
    static constexpr int kind = ParamType::Matrix;
};
template <>
struct Sample<std::vector<Eigen::Vector2d>>
{
    static std::vector<Eigen::Vector2d> value() { return {{1, 2}, {3, 4}}; }
    static constexpr char const* text = "[1 2, 3 4]";
    static constexpr int kind = ParamType::Matrix;
};
template <>
struct Sample<std::optional<double>>
{
    static std::optional<double> value() { return 2.5; }
    static constexpr char const* text = "2.5";
    static constexpr int kind = ParamType::Double;
};

} // namespace

// ---------------------------------------------------------------------------------------------
// Typed values

template <class T>
class PropertiesTypedValue : public ::testing::Test
{};
using ValueTypes = ::testing::Types<bool, int, double, std::string, Eigen::Vector3d, Eigen::Matrix2f,
                                    std::vector<Eigen::Vector2d>, std::optional<double>>;
TYPED_TEST_SUITE(PropertiesTypedValue, ValueTypes);

TYPED_TEST(PropertiesTypedValue, StoresTextAndKindAndReadsBack)
{
    using S = Sample<TypeParam>;
    Properties p;
    p.setParam("key", S::value());
    EXPECT_EQ(p.paramValueText("key"), S::text);
    EXPECT_FALSE(p.paramIsList("key"));
    EXPECT_EQ(p.paramType("key"), S::kind);
    TypeParam out{};
    ASSERT_TRUE(p.param("key", out));
    EXPECT_TRUE(ValueText::sameValue(out, S::value()));
    EXPECT_TRUE(ValueText::sameValue(p.paramOr("key", TypeParam{}), S::value()));
}

TYPED_TEST(PropertiesTypedValue, MissingOrUnreadableKeyLeavesOutputUntouched)
{
    using S = Sample<TypeParam>;
    Properties p;
    p.setParam("bad", "not a value of any type [");
    TypeParam out = S::value();
    EXPECT_FALSE(p.param("missing", out));
    if constexpr (!std::is_same_v<TypeParam, std::string>) {
        EXPECT_FALSE(p.param("bad", out));
    }
    EXPECT_TRUE(ValueText::sameValue(out, S::value()));
}

TYPED_TEST(PropertiesTypedValue, DefaultIsStoredAsAttribute)
{
    using S = Sample<TypeParam>;
    Properties p;
    p.setParam("key", S::value(), S::value());
    EXPECT_EQ(p.paramAttributes("key"), (ParamAttributes{{"default", S::text}}));
    p.setParam("key", S::value(), S::value());
    EXPECT_EQ(p.paramAttributes("key").size(), 1u) << "a second default replaces the first";
}

TEST(Properties, StringLiteralStaysTextAndNeverBecomesBool)
{
    Properties p;
    p.setParam("mode", "linear");
    char const* pointer = "cubic";
    p.setParam("other", pointer);
    EXPECT_EQ(p.paramValueText("mode"), "linear");
    EXPECT_EQ(p.paramValueText("other"), "cubic");
    EXPECT_EQ(p.paramType("mode"), ParamType::String);
    bool flag = false;
    EXPECT_FALSE(p.param("mode", flag));
    p.setParam("with", std::string("a"), "b");
    EXPECT_EQ(p.paramValueText("with"), "a");
    EXPECT_EQ(p.paramAttribute("with", "default"), "b");
    EXPECT_EQ(p.paramOr("mode", "none"), "linear");
    EXPECT_EQ(p.paramOr("missing", "none"), "none");
}

TEST(Properties, StringListIsAListValue)
{
    Properties p;
    p.setParam("apply_to", std::vector<std::string>{"image", "label"});
    EXPECT_TRUE(p.paramIsList("apply_to"));
    EXPECT_EQ(p.paramType("apply_to"), ParamType::List);
    EXPECT_EQ(p.paramValueText("apply_to"), "");
    std::vector<std::string> out;
    ASSERT_TRUE(p.param("apply_to", out));
    EXPECT_EQ(out, (std::vector<std::string>{"image", "label"}));
    std::string text = "keep";
    EXPECT_FALSE(p.param("apply_to", text));
    EXPECT_EQ(text, "keep");
}

TEST(Properties, InitializerListConvertsWithTheWriter)
{
    Properties p{
        {"size", 3}, {"sigma", 0.1}, {"name", "x"}, {"flag", true}, {"spacing", Eigen::Vector3d(1, 1, 2)}};
    EXPECT_EQ(p.paramKeys(), (std::vector<std::string>{"size", "sigma", "name", "flag", "spacing"}));
    EXPECT_EQ(p.paramValueText("size"), "3");
    EXPECT_EQ(p.paramValueText("sigma"), "0.1");
    EXPECT_EQ(p.paramValueText("name"), "x");
    EXPECT_EQ(p.paramValueText("flag"), "true");
    EXPECT_EQ(p.paramValueText("spacing"), "1 1 2");
    EXPECT_EQ(p.paramType("sigma"), ParamType::Double);
    EXPECT_TRUE(p.name().empty());
}

// ---------------------------------------------------------------------------------------------
// Keys, order, types

TEST(Properties, KeysKeepInsertionOrderAndOverwritesKeepPosition)
{
    Properties p("tree");
    p.setParam("b", 1);
    p.setParam("a", 2);
    p.setParam("c", 3);
    p.setParam("a", 20);
    EXPECT_EQ(p.paramKeys(), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(p.paramOr("a", 0), 20);
    EXPECT_TRUE(p.removeParam("b"));
    EXPECT_FALSE(p.removeParam("b"));
    EXPECT_EQ(p.paramKeys(), (std::vector<std::string>{"a", "c"}));
    EXPECT_FALSE(p.contains("b"));
}

TEST(Properties, RenameKeepsPositionValueTypeAndAttributes)
{
    Properties p;
    p.setParam("first", 1);
    p.setParam("old", 2.5);
    p.setParam("last", 3);
    p.setParamType("old", ParamType::Enumeration | ParamType::Hidden);
    p.setParamAttributes("old", "values: 'A, B', label: Old");
    ASSERT_TRUE(p.renameParam("old", "new"));
    EXPECT_EQ(p.paramKeys(), (std::vector<std::string>{"first", "new", "last"}));
    EXPECT_EQ(p.paramValueText("new"), "2.5");
    EXPECT_EQ(p.paramType("new"), ParamType::Enumeration | ParamType::Hidden);
    EXPECT_EQ(p.paramAttributes("new"), (ParamAttributes{{"values", "A, B"}, {"label", "Old"}}));

    EXPECT_FALSE(p.renameParam("missing", "x"));
    EXPECT_FALSE(p.renameParam("new", "last")) << "must not overwrite an existing key";
    EXPECT_EQ(p.paramValueText("last"), "3");
    EXPECT_TRUE(p.renameParam("new", "new"));
}

TEST(Properties, KindIsSetOnceAndFlagsSurvive)
{
    Properties p;
    p.setParam("device", "CPU");
    p.setParamType("device", ParamType::Enumeration | ParamType::Hidden);
    p.setParam("device", "GPU");
    EXPECT_EQ(p.paramType("device"), ParamType::Enumeration | ParamType::Hidden);

    p.setParamValue("raw", ParamValue::fromText("3"));
    EXPECT_EQ(p.paramType("raw"), ParamType::Default);
    p.setParam("raw", 3);
    EXPECT_EQ(p.paramType("raw"), ParamType::Int) << "an untyped key takes the kind of the value";
    p.setParam("raw", 3.5);
    EXPECT_EQ(p.paramType("raw"), ParamType::Int) << "a typed key keeps its kind";

    EXPECT_EQ(p.paramType("missing"), ParamType::Default);
    EXPECT_FALSE(p.setParamType("missing", ParamType::Int));
    EXPECT_EQ(ParamType::kind(ParamType::Label | ParamType::Hidden), ParamType::Label);
    EXPECT_TRUE(ParamType::isHidden(ParamType::Label | ParamType::Hidden));
    EXPECT_FALSE(ParamType::isHidden(ParamType::Label));
}

// ---------------------------------------------------------------------------------------------
// Attributes

struct HiddenCase
{
    char const* attributes;
    int typeBefore;
    int typeAfter;
};

class PropertiesHiddenAttribute : public ::testing::TestWithParam<HiddenCase>
{};

TEST_P(PropertiesHiddenAttribute, SetsOrClearsTheFlag)
{
    HiddenCase const c = GetParam();
    Properties p;
    p.setParam("k", "v");
    p.setParamType("k", c.typeBefore);
    ASSERT_TRUE(p.setParamAttributes("k", std::string_view(c.attributes)));
    EXPECT_EQ(p.paramType("k"), c.typeAfter) << c.attributes;
}

INSTANTIATE_TEST_SUITE_P(
    Texts, PropertiesHiddenAttribute,
    ::testing::Values(HiddenCase{"hidden: 1", ParamType::String, ParamType::String | ParamType::Hidden},
                      HiddenCase{"hidden: TRUE", ParamType::Int, ParamType::Int | ParamType::Hidden},
                      HiddenCase{"hidden: 0", ParamType::String | ParamType::Hidden, ParamType::String},
                      HiddenCase{"hidden: false", ParamType::Path | ParamType::Hidden, ParamType::Path},
                      HiddenCase{"label: x", ParamType::String | ParamType::Hidden,
                                 ParamType::String | ParamType::Hidden},
                      HiddenCase{"hidden: 1, hidden: 0", ParamType::String, ParamType::String},
                      HiddenCase{"hidden: maybe", ParamType::String, ParamType::String}));

TEST(PropertiesAttributes, ReplaceAppendAndSetMany)
{
    Properties p;
    p.setParam("a", 1);
    p.setParam("b", 2);
    ASSERT_TRUE(p.setParamAttributes("a", "deprecatedName: old, deprecatedName: older"));
    ASSERT_TRUE(p.addParamAttribute("a", "required", "true"));
    EXPECT_EQ(
        p.paramAttributes("a"),
        (ParamAttributes{{"deprecatedName", "old"}, {"deprecatedName", "older"}, {"required", "true"}}));
    EXPECT_EQ(p.paramAttribute("a", "deprecatedName"), "old");
    EXPECT_EQ(p.paramAttribute("a", "missing"), std::nullopt);
    ASSERT_TRUE(p.setParamAttributes("a", ParamAttributes{{"label", "A"}}));
    EXPECT_EQ(p.paramAttributes("a"), (ParamAttributes{{"label", "A"}}));

    EXPECT_TRUE(p.setAttributes({{"a", "hidden: 1"}, {"b", "values:'X,Y'"}}));
    EXPECT_TRUE(ParamType::isHidden(p.paramType("a")));
    EXPECT_EQ(p.paramAttribute("b", "values"), "X,Y");
    EXPECT_FALSE(p.setAttributes({{"missing", "a: 1"}}));

    EXPECT_TRUE(p.paramAttributes("missing").empty());
    EXPECT_FALSE(p.setParamAttributes("missing", "a: 1"));
    EXPECT_FALSE(p.addParamAttribute("missing", "a", "1"));
}

TEST(PropertiesAttributes, MalformedTextChangesNothingAndWarns)
{
    Properties p;
    p.setParam("device", "CPU");
    p.setParamAttributes("device", "values: 'CPU, GPU'");
    Log::Capture capture;
    EXPECT_FALSE(p.setParamAttributes("device", "values: 'CPU"));
    EXPECT_EQ(p.paramAttributes("device"), (ParamAttributes{{"values", "CPU, GPU"}}));
    EXPECT_TRUE(capture.contains("Could not read the attributes 'values: 'CPU' of parameter 'device': "
                                 "unterminated quote in the value of "
                                 "'values'",
                                 "Host.Properties"));
}

// ---------------------------------------------------------------------------------------------
// Sub-trees

class PropertiesTree : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_root.setParam("top", 1);
        m_a1 = m_root.addSubProperties("A");
        m_b = m_root.addSubProperties("B");
        m_a2 = m_root.addSubProperties("A");
        m_a1->setParam("x", 1);
        m_a2->setParam("x", 2);
    }

    std::vector<std::string> names() const
    {
        std::vector<std::string> result;
        for (Properties const* sub : std::as_const(m_root).subProperties())
            result.push_back(sub->name());
        return result;
    }

    Properties m_root{"root"};
    Properties* m_a1 = nullptr;
    Properties* m_b = nullptr;
    Properties* m_a2 = nullptr;
};

TEST_F(PropertiesTree, FindsByNameAndCreatesOnRequest)
{
    EXPECT_EQ(m_root.subProperties("A"), (std::vector<Properties*>{m_a1, m_a2}));
    EXPECT_EQ(m_root.subProperties("A", false), m_a1);
    EXPECT_EQ(m_root.findSubProperties("B"), m_b);
    EXPECT_EQ(m_root.subProperties("C", false), nullptr);
    EXPECT_EQ(m_root.findSubProperties("C"), nullptr);
    Properties* c = m_root.subProperties("C", true);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->name(), "C");
    EXPECT_EQ(m_root.subProperties("C", true), c) << "created once";
    EXPECT_EQ(names(), (std::vector<std::string>{"A", "B", "A", "C"}));
}

TEST_F(PropertiesTree, InsertClampsTheIndex)
{
    m_root.insertSubProperties(std::make_unique<Properties>("front"), -5);
    m_root.insertSubProperties(std::make_unique<Properties>("second"), 1);
    m_root.insertSubProperties(std::make_unique<Properties>("back"), 100);
    EXPECT_EQ(names(), (std::vector<std::string>{"front", "second", "A", "B", "A", "back"}));
    EXPECT_EQ(m_root.insertSubProperties(nullptr, 0), nullptr);
    EXPECT_EQ(m_root.addSubProperties(std::unique_ptr<Properties>()), nullptr);
    EXPECT_EQ(m_root.subPropertiesCount(), 6u);
}

TEST_F(PropertiesTree, DeleteAndExtractOnlyDirectChildren)
{
    Properties* grandChild = m_b->addSubProperties("deep");
    EXPECT_FALSE(m_root.deleteSubProperty(grandChild));
    EXPECT_FALSE(m_root.deleteSubProperty(nullptr));
    EXPECT_TRUE(m_root.deleteSubProperty(m_a1));
    EXPECT_EQ(names(), (std::vector<std::string>{"B", "A"}));
    std::unique_ptr<Properties> b = m_root.extractSubProperty(m_b);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->subProperties("deep", false), grandChild);
    EXPECT_EQ(names(), (std::vector<std::string>{"A"}));
}

TEST_F(PropertiesTree, RemoveEmptySubPropertiesCleansRecursively)
{
    m_b->addSubProperties("empty")->addSubProperties("emptier");
    Properties* kept = m_b->addSubProperties("kept");
    kept->setParam("v", 1);
    m_root.addSubProperties("");
    m_root.removeEmptySubProperties();
    EXPECT_EQ(names(), (std::vector<std::string>{"A", "B", "A"}));
    EXPECT_EQ(m_b->subProperties(), (std::vector<Properties*>{kept}));

    m_b->removeParam("v");
    kept->removeParam("v");
    m_root.removeEmptySubProperties();
    EXPECT_EQ(names(), (std::vector<std::string>{"A", "A"})) << "B became empty once its child was removed";
}

TEST_F(PropertiesTree, ClearKeepsTheNameAndCopiesAreDeep)
{
    Properties copy(m_root);
    copy.subProperties("A", false)->setParam("x", 100);
    EXPECT_EQ(m_a1->paramOr("x", 0), 1);
    EXPECT_TRUE(copy.compareWith(copy));
    EXPECT_FALSE(copy.compareWith(m_root));

    Properties assigned;
    assigned = m_root;
    EXPECT_TRUE(assigned == m_root);
    m_root.clear();
    EXPECT_TRUE(m_root.isEmpty());
    EXPECT_EQ(m_root.name(), "root");
    EXPECT_EQ(assigned.subPropertiesCount(), 3u);
    EXPECT_FALSE(assigned.isEmpty());
}

// ---------------------------------------------------------------------------------------------
// copyFrom

class PropertiesCopyFrom : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_target.setParam("shared", 1);
        m_target.setParam("own", "mine");
        m_target.addSubProperties("Sub")->setParam("a", 1);

        m_source.setParam("shared", 2);
        m_source.setParamType("shared", ParamType::Enumeration);
        m_source.setParamAttributes("shared", "values: '1, 2'");
        m_source.setParam("new", 3.5);
        Properties* sub = m_source.addSubProperties("Sub");
        sub->setParam("b", 2);
        m_source.addSubProperties("Other");
    }

    Properties m_target{"target"};
    Properties m_source{"source"};
};

TEST_F(PropertiesCopyFrom, DefaultCopiesValuesTypesAttributesAndAppendsSubTrees)
{
    m_target.copyFrom(m_source);
    EXPECT_EQ(m_target.name(), "target");
    EXPECT_EQ(m_target.paramKeys(), (std::vector<std::string>{"shared", "own", "new"}));
    EXPECT_EQ(m_target.paramValueText("shared"), "2");
    EXPECT_EQ(m_target.paramType("shared"), ParamType::Enumeration);
    EXPECT_EQ(m_target.paramAttribute("shared", "values"), "1, 2");
    EXPECT_EQ(m_target.paramType("new"), ParamType::Double);
    ASSERT_EQ(m_target.subPropertiesCount(), 3u);
    EXPECT_EQ(m_target.subProperties("Sub").size(), 2u);
    EXPECT_FALSE(m_target.subProperties("Sub", false)->contains("b"));
}

struct CopyFlagCase
{
    int flags;
    char const* shared;     // value of "shared" afterwards
    bool hasNew;            // "new" appended
    int sharedType;         //
    std::size_t attributes; // number of attributes of "shared"
    std::size_t subTrees;   //
    bool mergedB;           // first "Sub" received "b"
    char const* name;
};

class PropertiesCopyFlags : public PropertiesCopyFrom, public ::testing::WithParamInterface<CopyFlagCase>
{};

TEST_P(PropertiesCopyFlags, EachBitCopiesItsPartOnly)
{
    CopyFlagCase const c = GetParam();
    m_target.copyFrom(m_source, c.flags);
    EXPECT_EQ(m_target.paramValueText("shared"), c.shared);
    EXPECT_EQ(m_target.contains("new"), c.hasNew);
    EXPECT_EQ(m_target.paramType("shared"), c.sharedType);
    EXPECT_EQ(m_target.paramAttributes("shared").size(), c.attributes);
    EXPECT_EQ(m_target.subPropertiesCount(), c.subTrees);
    EXPECT_EQ(m_target.subProperties("Sub", false)->contains("b"), c.mergedB);
    EXPECT_EQ(m_target.name(), c.name);
    EXPECT_EQ(m_target.paramValueText("own"), "mine") << "keys missing in the source stay";
}

INSTANTIATE_TEST_SUITE_P(
    Flags, PropertiesCopyFlags,
    ::testing::Values(
        CopyFlagCase{Properties::CopyValues, "2", true, ParamType::Int, 0, 1, false, "target"},
        CopyFlagCase{Properties::CopyTypes, "1", false, ParamType::Enumeration, 0, 1, false, "target"},
        CopyFlagCase{Properties::CopyAttributes, "1", false, ParamType::Int, 1, 1, false, "target"},
        CopyFlagCase{Properties::CopySubProperties, "1", false, ParamType::Int, 0, 3, false, "target"},
        // Merging applies the same flags below: without CopyValues no value reaches "Sub".
        CopyFlagCase{Properties::MergeSubProperties, "1", false, ParamType::Int, 0, 2, false, "target"},
        CopyFlagCase{Properties::MergeSubProperties | Properties::CopyValues, "2", true, ParamType::Int, 0, 2,
                     true, "target"},
        CopyFlagCase{Properties::CopyName, "1", false, ParamType::Int, 0, 1, false, "source"},
        CopyFlagCase{Properties::CopyDefault | Properties::MergeSubProperties | Properties::CopyName, "2",
                     true, ParamType::Enumeration, 1, 2, true, "source"}));

TEST_F(PropertiesCopyFrom, FilterPicksKeysButNotSubTrees)
{
    m_target.copyFrom(m_source, Properties::CopyDefault,
                      [](std::string_view key) { return key != "shared"; });
    EXPECT_EQ(m_target.paramValueText("shared"), "1");
    EXPECT_TRUE(m_target.contains("new"));
    EXPECT_EQ(m_target.subPropertiesCount(), 3u);
}

TEST_F(PropertiesCopyFrom, MergePairsRepeatedNamesInOrder)
{
    Properties list;
    list.addSubProperties("Op")->setParam("i", 1);
    list.addSubProperties("Op")->setParam("i", 2);
    Properties update;
    update.addSubProperties("Op")->setParam("j", 10);
    update.addSubProperties("Op")->setParam("j", 20);
    update.addSubProperties("Op")->setParam("j", 30);
    list.copyFrom(update, Properties::CopyDefault | Properties::MergeSubProperties);
    auto ops = list.subProperties("Op");
    ASSERT_EQ(ops.size(), 3u);
    EXPECT_EQ(ops[0]->paramOr("i", 0) * 100 + ops[0]->paramOr("j", 0), 110);
    EXPECT_EQ(ops[1]->paramOr("i", 0) * 100 + ops[1]->paramOr("j", 0), 220);
    EXPECT_EQ(ops[2]->paramOr("j", 0), 30);
    EXPECT_FALSE(ops[2]->contains("i"));
}

TEST_F(PropertiesCopyFrom, CopyFromItselfDuplicatesSubTreesOnce)
{
    m_source.copyFrom(m_source);
    EXPECT_EQ(m_source.subPropertiesCount(), 4u);
    EXPECT_EQ(m_source.paramKeys(), (std::vector<std::string>{"shared", "new"}));
}

// ---------------------------------------------------------------------------------------------
// compareWith

struct CompareCase
{
    char const* change;
    std::function<void(Properties&)> apply;
    int firstDetectingFlags; // the weakest mode that sees the change; -1 = none does
};

class PropertiesCompare : public ::testing::TestWithParam<CompareCase>
{
protected:
    static Properties sample()
    {
        Properties p("root");
        p.setParam("a", 1);
        p.setParam("b", "text");
        p.setParam("c", std::vector<std::string>{"x"});
        p.setParamAttributes("a", "label: A");
        p.addSubProperties("S")->setParam("d", 2.5);
        return p;
    }
};

TEST_P(PropertiesCompare, DetectsExactlyWhatTheFlagsAskFor)
{
    CompareCase const& c = GetParam();
    Properties const original = sample();
    Properties changed = sample();
    c.apply(changed);
    for (int flags : {0, int(Properties::CompareOrder), int(Properties::CompareTypes),
                      int(Properties::CompareAttributes), int(Properties::CompareName)}) {
        bool const expectEqual = c.firstDetectingFlags == -1 ||
                                 (c.firstDetectingFlags != 0 && (c.firstDetectingFlags & flags) == 0);
        EXPECT_EQ(original.compareWith(changed, flags), expectEqual) << c.change << " with flags " << flags;
        EXPECT_EQ(changed.compareWith(original, flags), expectEqual)
            << c.change << " reversed, flags " << flags;
    }
    EXPECT_EQ(original == changed, c.firstDetectingFlags == -1);
}

INSTANTIATE_TEST_SUITE_P(
    Changes, PropertiesCompare,
    ::testing::Values(
        CompareCase{"nothing", [](Properties&) {}, -1},
        CompareCase{"value", [](Properties& p) { p.setParam("a", 2); }, 0},
        CompareCase{"text vs list", [](Properties& p) { p.setParamValue("c", ParamValue::fromText("x")); },
                    0},
        CompareCase{"extra key", [](Properties& p) { p.setParam("z", 0); }, 0},
        CompareCase{"missing key", [](Properties& p) { p.removeParam("b"); }, 0},
        CompareCase{"sub-tree value", [](Properties& p) { p.subProperties("S", false)->setParam("d", 3); },
                    0},
        CompareCase{"sub-tree name", [](Properties& p) { p.subProperties("S", false)->setName("T"); }, 0},
        CompareCase{"extra sub-tree", [](Properties& p) { p.addSubProperties("S"); }, 0},
        CompareCase{"order",
                    [](Properties& p) {
                        p.removeParam("a");
                        p.setParam("a", 1);
                        p.setParamAttributes("a", "label: A");
                    },
                    Properties::CompareOrder},
        CompareCase{"type", [](Properties& p) { p.setParamType("b", ParamType::Path); },
                    Properties::CompareTypes},
        CompareCase{"attribute", [](Properties& p) { p.setParamAttributes("a", "label: B"); },
                    Properties::CompareAttributes},
        CompareCase{"sub-tree attribute",
                    [](Properties& p) { p.subProperties("S", false)->addParamAttribute("d", "x", "1"); },
                    Properties::CompareAttributes},
        CompareCase{"root name", [](Properties& p) { p.setName("other"); }, Properties::CompareName}));

TEST(Properties, DescribeShowsValuesTypesAndSubTrees)
{
    Properties p("root");
    p.setParam("a", 1);
    p.setParam("l", std::vector<std::string>{"x", "y"});
    p.addSubProperties("S")->setParam("b", "t");
    std::string const text = p.describe();
    EXPECT_NE(text.find("a = \"1\" type 2"), std::string::npos) << text;
    EXPECT_NE(text.find("l = [\"x\", \"y\"]"), std::string::npos) << text;
    EXPECT_NE(text.find("    'S'\n        b = \"t\""), std::string::npos) << text;
}

#include "host/core/Properties.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <functional>

using namespace Velmoria;

namespace {

using Strings = std::vector<std::string>;

TEST(Properties, TextStaysTextDefaultsAreReplacedAndStringListsAreLists)
{
    Properties p;
    p.setParam("mode", "linear");
    EXPECT_EQ(p.paramType("mode"), ParamType::String);
    bool flag = false;
    EXPECT_FALSE(p.param("mode", flag)) << "a string literal never becomes a bool";
    EXPECT_FALSE(p.paramIsList("mode"));
    p.setParam("with", std::string("a"), "b");
    EXPECT_EQ(p.paramAttribute("with", "default"), "b");
    p.setParam("count", 1, 2);
    p.setParam("count", 1, 3);
    EXPECT_EQ(p.paramAttributes("count"), (ParamAttributes{{"default", "3"}}))
        << "a second default replaces the first";
    EXPECT_EQ(p.paramOr("missing", "none"), "none");
    EXPECT_EQ(p.paramValueText("missing"), "");
    EXPECT_FALSE(p.paramIsList("missing"));

    p.setParam("apply_to", Strings{"image", "label"});
    EXPECT_TRUE(p.paramIsList("apply_to"));
    EXPECT_EQ(p.paramValueText("apply_to"), "");
    EXPECT_EQ(p.paramType("apply_to"), ParamType::List);
    EXPECT_EQ(p.paramOr("apply_to", Strings()), (Strings{"image", "label"}));
    std::string text = "keep";
    EXPECT_FALSE(p.param("apply_to", text));
    EXPECT_EQ(text, "keep");
}

TEST(Properties, KeysKeepTheirPositionWhenOverwrittenOrRenamed)
{
    Properties p{{"b", 1}, {"old", 2.5}, {"last", 3}};
    p.setParam("b", 20);
    p.setParamType("old", ParamType::Enumeration | ParamType::Hidden);
    p.setParamAttributes("old", "values: 'A, B', label: Old");
    ASSERT_TRUE(p.renameParam("old", "new"));
    EXPECT_EQ(p.paramKeys(), (Strings{"b", "new", "last"}));
    EXPECT_EQ(p.paramValueText("new"), "2.5");
    EXPECT_EQ(p.paramType("new"), ParamType::Enumeration | ParamType::Hidden);
    EXPECT_EQ(p.paramAttributes("new"), (ParamAttributes{{"values", "A, B"}, {"label", "Old"}}));
    EXPECT_FALSE(p.renameParam("missing", "x"));
    EXPECT_FALSE(p.renameParam("new", "last")) << "must not overwrite an existing key";
    EXPECT_TRUE(p.renameParam("new", "new"));
    EXPECT_EQ(p.paramValueText("last"), "3");
    EXPECT_TRUE(p.removeParam("b"));
    EXPECT_FALSE(p.removeParam("b"));
    EXPECT_EQ(p.paramKeys(), (Strings{"new", "last"}));
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
    EXPECT_FALSE(p.setParamType("missing", ParamType::Int));
    EXPECT_EQ(p.paramType("missing"), ParamType::Default);
}

TEST(PropertiesAttributes, HiddenAttributeSetsOrClearsTheFlag)
{
    struct Case
    {
        char const* attributes;
        int typeBefore;
        int typeAfter;
    };
    int const string = ParamType::String;
    int const hidden = ParamType::String | ParamType::Hidden;
    for (Case const& c :
         {Case{"hidden: 1", string, hidden}, Case{"hidden: TRUE", string, hidden},
          Case{"hidden: false", hidden, string}, Case{"label: x", hidden, hidden},
          Case{"hidden: 1, hidden: 0", string, string}, Case{"hidden: maybe", string, string}}) {
        Properties p{{"k", "v"}};
        p.setParamType("k", c.typeBefore);
        ASSERT_TRUE(p.setParamAttributes("k", std::string_view(c.attributes)));
        EXPECT_EQ(p.paramType("k"), c.typeAfter) << c.attributes;
    }
}

TEST(PropertiesAttributes, ReplaceAppendSetManyOrRefuseMalformedText)
{
    Properties p{{"a", 1}, {"b", 2}};
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
    EXPECT_FALSE(p.addParamAttribute("missing", "a", "1"));
    EXPECT_TRUE(p.paramAttributes("missing").empty());

    Log::Capture capture;
    EXPECT_FALSE(p.setParamAttributes("b", "values: 'X"));
    EXPECT_EQ(p.paramAttributes("b"), (ParamAttributes{{"values", "X,Y"}}));
    EXPECT_TRUE(capture.contains("Could not read the attributes 'values: 'X' of parameter 'b': "
                                 "unterminated quote in the value of 'values'",
                                 "Host.Properties"));
}

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

    Strings names() const
    {
        Strings result;
        for (Properties const* sub : std::as_const(m_root).subProperties())
            result.push_back(sub->name());
        return result;
    }

    Properties m_root{"root"};
    Properties* m_a1 = nullptr;
    Properties* m_b = nullptr;
    Properties* m_a2 = nullptr;
};

TEST_F(PropertiesTree, FindsCreatesAndInsertsByName)
{
    EXPECT_EQ(m_root.subProperties("A"), (std::vector<Properties*>{m_a1, m_a2}));
    EXPECT_EQ(m_root.subProperties("A", false), m_a1);
    EXPECT_EQ(m_root.findSubProperties("B"), m_b);
    EXPECT_EQ(m_root.findSubProperties("C"), nullptr);
    EXPECT_EQ(m_root.subProperties("C", false), nullptr);
    Properties* c = m_root.subProperties("C", true);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(m_root.subProperties("C", true), c) << "created once";
    // Insertion clamps the index.
    m_root.insertSubProperties(std::make_unique<Properties>("front"), -5);
    m_root.insertSubProperties(std::make_unique<Properties>("second"), 1);
    m_root.insertSubProperties(std::make_unique<Properties>("back"), 100);
    EXPECT_EQ(names(), (Strings{"front", "second", "A", "B", "A", "C", "back"}));
    EXPECT_EQ(m_root.insertSubProperties(nullptr, 0), nullptr);
    EXPECT_EQ(m_root.addSubProperties(std::unique_ptr<Properties>()), nullptr);
}

TEST_F(PropertiesTree, DeleteExtractAndRemoveEmptyChildren)
{
    Properties* grandChild = m_b->addSubProperties("deep");
    EXPECT_FALSE(m_root.deleteSubProperty(grandChild)) << "only direct children";
    EXPECT_FALSE(m_root.deleteSubProperty(nullptr));
    EXPECT_TRUE(m_root.deleteSubProperty(m_a1));
    std::unique_ptr<Properties> b = m_root.extractSubProperty(m_b);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->subProperties("deep", false), grandChild);
    EXPECT_EQ(names(), (Strings{"A"}));

    m_a2->addSubProperties("empty")->addSubProperties("emptier");
    m_a2->addSubProperties("kept")->setParam("v", 1);
    m_root.addSubProperties("");
    m_root.removeEmptySubProperties();
    EXPECT_EQ(names(), (Strings{"A"}));
    EXPECT_EQ(m_a2->subPropertiesCount(), 1u);
    m_a2->removeParam("x");
    m_a2->subProperties("kept", false)->removeParam("v");
    m_root.removeEmptySubProperties();
    EXPECT_TRUE(names().empty()) << "A became empty once its child was removed";
}

TEST_F(PropertiesTree, CopiesAreDeepAndClearKeepsTheName)
{
    Properties copy(m_root);
    copy.subProperties("A", false)->setParam("x", 100);
    EXPECT_EQ(m_a1->paramOr("x", 0), 1);
    Properties assigned;
    assigned = m_root;
    EXPECT_TRUE(assigned == m_root);
    m_root.clear();
    EXPECT_TRUE(m_root.isEmpty());
    EXPECT_EQ(m_root.name(), "root");
    EXPECT_EQ(assigned.subPropertiesCount(), 3u);
    EXPECT_FALSE(assigned.isEmpty());
}

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
        m_source.addSubProperties("Sub")->setParam("b", 2);
        m_source.addSubProperties("Other");
    }

    Properties m_target{"target"};
    Properties m_source{"source"};
};

TEST_F(PropertiesCopyFrom, EachFlagCopiesItsPartOnly)
{
    struct Case
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
    for (Case const& c :
         {Case{Properties::CopyDefault, "2", true, ParamType::Enumeration, 1, 3, false, "target"},
          Case{Properties::CopyValues, "2", true, ParamType::Int, 0, 1, false, "target"},
          Case{Properties::CopyTypes, "1", false, ParamType::Enumeration, 0, 1, false, "target"},
          Case{Properties::CopyAttributes, "1", false, ParamType::Int, 1, 1, false, "target"},
          Case{Properties::CopySubProperties, "1", false, ParamType::Int, 0, 3, false, "target"},
          // Merging applies the same flags below: without CopyValues no value reaches "Sub".
          Case{Properties::MergeSubProperties, "1", false, ParamType::Int, 0, 2, false, "target"},
          Case{Properties::MergeSubProperties | Properties::CopyValues, "2", true, ParamType::Int, 0, 2, true,
               "target"},
          Case{Properties::CopyDefault | Properties::MergeSubProperties | Properties::CopyName, "2", true,
               ParamType::Enumeration, 1, 2, true, "source"}}) {
        SCOPED_TRACE("flags " + std::to_string(c.flags));
        Properties target = m_target;
        target.copyFrom(m_source, c.flags);
        EXPECT_EQ(target.paramValueText("shared"), c.shared);
        EXPECT_EQ(target.contains("new"), c.hasNew);
        EXPECT_EQ(target.paramType("shared"), c.sharedType);
        EXPECT_EQ(target.paramAttributes("shared").size(), c.attributes);
        EXPECT_EQ(target.subPropertiesCount(), c.subTrees);
        EXPECT_EQ(target.subProperties("Sub", false)->contains("b"), c.mergedB);
        EXPECT_EQ(target.name(), c.name);
        EXPECT_EQ(target.paramValueText("own"), "mine") << "keys missing in the source stay";
    }
}

TEST_F(PropertiesCopyFrom, FilterPicksKeysAndCopyFromItselfDuplicatesSubTreesOnce)
{
    m_target.copyFrom(m_source, Properties::CopyDefault,
                      [](std::string_view key) { return key != "shared"; });
    EXPECT_EQ(m_target.paramValueText("shared"), "1");
    EXPECT_TRUE(m_target.contains("new"));
    EXPECT_EQ(m_target.subPropertiesCount(), 3u) << "the filter does not apply to sub-trees";
    m_source.copyFrom(m_source);
    EXPECT_EQ(m_source.subPropertiesCount(), 4u);
    EXPECT_EQ(m_source.paramKeys(), (Strings{"shared", "new"}));
}

TEST(PropertiesMerge, PairsRepeatedNamesInOrder)
{
    Properties list;
    list.addSubProperties("Op")->setParam("i", 1);
    list.addSubProperties("Op")->setParam("i", 2);
    Properties update;
    for (int j : {10, 20, 30})
        update.addSubProperties("Op")->setParam("j", j);
    list.copyFrom(update, Properties::CopyDefault | Properties::MergeSubProperties);
    auto ops = list.subProperties("Op");
    ASSERT_EQ(ops.size(), 3u);
    EXPECT_EQ(ops[0]->paramOr("i", 0) * 100 + ops[0]->paramOr("j", 0), 110);
    EXPECT_EQ(ops[1]->paramOr("i", 0) * 100 + ops[1]->paramOr("j", 0), 220);
    EXPECT_EQ(ops[2]->paramKeys(), (Strings{"j"}));
}

TEST(PropertiesCompare, DetectsExactlyWhatTheFlagsAskFor)
{
    struct Case
    {
        char const* change;
        std::function<void(Properties&)> apply;
        int firstDetectingFlags; // the weakest mode that sees the change; -1 = none does
    };
    Properties original("root");
    original.setParam("a", 1);
    original.setParam("b", "text");
    original.setParam("c", Strings{"x"});
    original.setParamAttributes("a", "label: A");
    original.addSubProperties("S")->setParam("d", 2.5);
    for (Case const& c : std::vector<Case>{
             {"nothing", [](Properties&) {}, -1},
             {"value", [](Properties& p) { p.setParam("a", 2); }, 0},
             {"text vs list", [](Properties& p) { p.setParamValue("c", ParamValue::fromText("x")); }, 0},
             {"extra key", [](Properties& p) { p.setParam("z", 0); }, 0},
             {"missing key", [](Properties& p) { p.removeParam("b"); }, 0},
             {"sub-tree value", [](Properties& p) { p.subProperties("S", false)->setParam("d", 3); }, 0},
             {"sub-tree name", [](Properties& p) { p.subProperties("S", false)->setName("T"); }, 0},
             {"extra sub-tree", [](Properties& p) { p.addSubProperties("S"); }, 0},
             {"order",
              [](Properties& p) {
                  p.removeParam("a");
                  p.setParam("a", 1);
                  p.setParamAttributes("a", "label: A");
              },
              Properties::CompareOrder},
             {"type", [](Properties& p) { p.setParamType("b", ParamType::Path); }, Properties::CompareTypes},
             {"attribute", [](Properties& p) { p.setParamAttributes("a", "label: B"); },
              Properties::CompareAttributes},
             {"sub-tree attribute",
              [](Properties& p) { p.subProperties("S", false)->addParamAttribute("d", "x", "1"); },
              Properties::CompareAttributes},
             {"root name", [](Properties& p) { p.setName("other"); }, Properties::CompareName}}) {
        Properties changed = original;
        c.apply(changed);
        for (int flags : {0, int(Properties::CompareOrder), int(Properties::CompareTypes),
                          int(Properties::CompareAttributes), int(Properties::CompareName)}) {
            bool const expectEqual = c.firstDetectingFlags == -1 ||
                                     (c.firstDetectingFlags != 0 && (c.firstDetectingFlags & flags) == 0);
            EXPECT_EQ(original.compareWith(changed, flags), expectEqual)
                << c.change << " with flags " << flags;
            EXPECT_EQ(changed.compareWith(original, flags), expectEqual)
                << c.change << " reversed, flags " << flags;
        }
        EXPECT_EQ(original == changed, c.firstDetectingFlags == -1) << c.change;
    }
}

TEST(Properties, DescribeShowsValuesTypesAndSubTrees)
{
    Properties p("root");
    p.setParam("a", 1);
    p.setParam("l", Strings{"x", "y"});
    p.addSubProperties("S")->setParam("b", "t");
    std::string const text = p.describe();
    EXPECT_NE(text.find("a = \"1\" type 2"), std::string::npos) << text;
    EXPECT_NE(text.find("l = [\"x\", \"y\"]"), std::string::npos) << text;
    EXPECT_NE(text.find("    'S'\n        b = \"t\""), std::string::npos) << text;
}

} // namespace

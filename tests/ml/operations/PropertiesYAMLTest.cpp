// The YAML form of Properties and the list form of operation specs: what a processing list file
// means, what the writer produces, and how failures are reported.

#include "ml/operations/PropertiesYAML.h"

#include "ml/TestHelpers.h"
#include "ml/operations/ParamException.h"
#include "ml/operations/ProcessingSpecs.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/Resource.h"

#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <string>
#include <vector>

namespace Velmoria::ML {
namespace {

// ---------------------------------------------------------------------------------------------
// Expected trees

struct Tree
{
    std::string name;
    std::vector<std::pair<std::string, ParamValue>> params = {};
    std::vector<Tree> subs = {};
};

ParamValue text(std::string value)
{
    return ParamValue::fromText(std::move(value));
}

ParamValue list(std::vector<std::string> items)
{
    return ParamValue::fromList(std::move(items));
}

void fill(Properties& out, Tree const& tree)
{
    out.setName(tree.name);
    for (auto const& [key, value] : tree.params)
        out.setParamValue(key, value);
    for (auto const& sub : tree.subs)
        fill(*out.addSubProperties(""), sub);
}

Properties build(Tree const& tree)
{
    Properties out;
    fill(out, tree);
    return out;
}

// Values, order of keys and sub-trees, and all names; not the types (YAML has none).
::testing::AssertionResult sameTree(Properties const& actual, Properties const& expected)
{
    if (actual.compareWith(expected, Properties::CompareOrder | Properties::CompareName))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "actual:\n"
                                         << actual.describe() << "\nexpected:\n"
                                         << expected.describe();
}

// ---------------------------------------------------------------------------------------------
// Parsing: YAML text -> tree

struct ParseCase
{
    std::string label;
    std::string yaml;
    Tree expected;
};

class PropertiesYAMLParse : public ::testing::TestWithParam<ParseCase>
{};

TEST_P(PropertiesYAMLParse, GivesExpectedTree)
{
    Log::Capture capture;
    auto const& c = GetParam();
    auto parsed = PropertiesYAML::createFromString(c.yaml);
    ASSERT_NE(parsed, nullptr) << c.yaml;
    EXPECT_TRUE(sameTree(*parsed, build(c.expected))) << c.yaml;
    EXPECT_TRUE(capture.messages(Log::Error).empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PropertiesYAMLParse,
    ::testing::Values(
        ParseCase{"ScalarItem", "- Foo\n", {"", {}, {{"Foo"}}}},
        ParseCase{"FirstKeyNamesItemAndStoresValue", "- Foo: 3\n", {"", {}, {{"Foo", {{"Foo", text("3")}}}}}},
        // A null value stores nothing; a list of numbers (quoted or not, several in one scalar)
        // becomes vector text, a list of lists a matrix; other lists stay lists, flattened, with
        // null items empty.
        ParseCase{"ValueForms",
                  "- Foo:\n    a: ~\n    b: 2\n    mixed: [a, 1]\n    numbers: [1, 2.5]\n    quoted: ['1', "
                  "\"-2e3\"]\n"
                  "    several: ['1  2', 3]\n    empty: []\n    matrix: [[1, 2], [3, 4]]\n    nested: [[a, "
                  "b], [c]]\n"
                  "    nulls: [a, ~]\n",
                  {"",
                   {},
                   {{"Foo",
                     {{"b", text("2")},
                      {"mixed", list({"a", "1"})},
                      {"numbers", text("1 2.5")},
                      {"quoted", text("1 -2e3")},
                      {"several", text("1 2 3")},
                      {"empty", text("")},
                      {"matrix", text("[1 2, 3 4]")},
                      {"nested", list({"a", "b", "c"})},
                      {"nulls", list({"a", ""})}}}}}},
        ParseCase{
            "BlockMatrix", "m:\n  - - 1\n    - 0\n  - - 0\n    - 1\n", {"m", {{"m", text("[1 0, 0 1]")}}}},
        ParseCase{"BlockListOfFlowRowsIsNotSimple",
                  "Foo:\n  m:\n    - [1, 2]\n    - [3]\n",
                  {"Foo", {}, {{"m", {}, {{"", {}, {{"1"}, {"2"}}}, {"", {}, {{"3"}}}}}}}},
        ParseCase{"SubPropsAtTopLevel",
                  "__subProps__:\n  - A\n  - B: {x: 1}\n",
                  {"", {}, {{"A"}, {"B", {{"x", text("1")}}}}}},
        ParseCase{"SubPropsInsideNamedTree",
                  "Foo:\n  a: 1\n  __subProps__:\n    - Bar\n    - Baz:\n        b: 2\n",
                  {"Foo", {{"a", text("1")}}, {{"Bar"}, {"Baz", {{"b", text("2")}}}}}},
        ParseCase{"SubPropsOnlyEntryOfItem",
                  "- Outer:\n    __subProps__:\n      - Inner: {c: 3}\n",
                  {"", {}, {{"Outer", {}, {{"Inner", {{"c", text("3")}}}}}}}},
        ParseCase{"NamedNesting",
                  "Model:\n  engine: torch\n  Sub:\n    x: 1\n",
                  {"Model", {{"engine", text("torch")}}, {{"Sub", {{"x", text("1")}}}}}},
        ParseCase{"OneEntryMapInsideNamedTreeOpensSubTree",
                  "Model:\n  Sub:\n    Deeper:\n      x: 1\n",
                  {"Model", {}, {{"Sub", {}, {{"Deeper", {{"x", text("1")}}}}}}}},
        ParseCase{"TopLevelMapIsNamedByItsFirstKey",
                  "a: 1\nb: text\n",
                  {"a", {{"a", text("1")}, {"b", text("text")}}}},
        ParseCase{"ListOfMapsValueGivesUnnamedItems",
                  "Foo:\n  items:\n    - x: 1\n    - y: [a]\n",
                  {"Foo", {}, {{"items", {}, {{"x", {{"x", text("1")}}}, {"y", {{"y", list({"a"})}}}}}}}},
        ParseCase{"EmptyDocument", "", {""}}),
    [](auto const& info) { return info.param.label; });

// ---------------------------------------------------------------------------------------------
// The list form of operation specs

// A scalar item, a one-entry map holding the parameters, and the name as first (null) key with
// the parameters beside it: the same operation.
TEST(ProcessingSpecs, EquivalentItemFormsGiveTheSameSpecs)
{
    for (char const* yaml :
         {"- Foo\n- Bar: {a: 1, b: [1, 2]}\n", "- Foo\n- Bar:\n    a: 1\n    b: [1, 2]\n",
          "- Foo:\n- Bar:\n  a: 1\n  b:\n    - 1\n    - 2\n", "- {Foo: ~}\n- {Bar: ~, a: 1, b: [1, 2]}\n"}) {
        SCOPED_TRACE(yaml);
        auto parsed = PropertiesYAML::createFromString(yaml);
        ASSERT_NE(parsed, nullptr);
        auto specs = propertyToProcessingSpecs(*parsed);
        ASSERT_EQ(specs.size(), 2u);
        EXPECT_EQ(specs[0].name, "Foo");
        EXPECT_EQ(specs[0].phase, Phase::Always);
        EXPECT_TRUE(specs[0].properties.isEmpty());
        EXPECT_EQ(specs[1].name, "Bar");
        EXPECT_EQ(specs[1].phase, Phase::Always);
        EXPECT_TRUE(sameTree(specs[1].properties, build({"Bar", {{"a", text("1")}, {"b", text("1 2")}}})));
    }
}

TEST(ProcessingSpecs, ListItemPhasesReachTheSpecsAndStayInTheirConfiguration)
{
    auto parsed = PropertiesYAML::createFromString(
        "- A: {phase: training}\n- B: {phase: inference}\n- C: {phase: Training Validation}\n"
        "- D: {phase: [validation, inference]}\n- E: {phase: 5}\n- F: {phase: always}\n");
    ASSERT_NE(parsed, nullptr);
    auto const specs = propertyToProcessingSpecs(*parsed);
    std::vector<Phase> const expected = {Phase::Training,
                                         Phase::Inference,
                                         Phase::Training | Phase::Validation,
                                         Phase::Validation | Phase::Inference,
                                         Phase::Training | Phase::Inference,
                                         Phase::Always};
    ASSERT_EQ(specs.size(), expected.size());
    for (std::size_t i = 0; i < specs.size(); ++i) {
        EXPECT_EQ(specs[i].phase, expected[i]) << specs[i].name;
        // The key stays in the configuration: Operation::configure accepts it.
        EXPECT_TRUE(specs[i].properties.contains("phase"));
    }
}

TEST(ProcessingSpecs, SingleTreesIgnoreThePhaseListsNameTheCulpritAndNullEntriesAreSkipped)
{
    Properties single("Foo");
    single.setParam("phase", "training");
    auto specs = propertyToProcessingSpecs(single);
    ASSERT_EQ(specs.size(), 1u);
    EXPECT_EQ(specs[0].name, "Foo");
    EXPECT_EQ(specs[0].phase, Phase::Always);
    EXPECT_EQ(specs[0].properties, single);

    Properties list;
    list.addSubProperties("Good");
    list.addSubProperties("Resample")->setParam("phase", "sometimes");
    MLTest::expectThrowContaining<ParamException>([&] { propertyToProcessingSpecs(list); }, "Resample");
    MLTest::expectThrowContaining<ParamException>([&] { propertyToProcessingSpecs(list); }, "sometimes");

    Log::Capture capture;
    Properties a("A");
    std::vector<Properties*> entries{&a, nullptr};
    specs = propertyListToProcessingSpecs(entries);
    ASSERT_EQ(specs.size(), 1u);
    EXPECT_EQ(specs[0].name, "A");
    EXPECT_TRUE(capture.contains("Entry 1 of the processing list is null and was skipped", "ML.Operation"));
}

TEST(ProcessingSpecs, SpecsToListAndBackKeepNamePhaseAndConfiguration)
{
    Properties resample;
    resample.setParam("resolution", "1 1 2");
    resample.addSubProperties("Nested")->setParam("x", "1");
    std::vector<Operation::Specs> specs{{"Resample", resample, Phase::Training | Phase::Validation},
                                        {"Normalize", Properties(), Phase::Inference},
                                        {"Crop", Properties(), Phase::Always},
                                        {"Flip", Properties(), Phase::Validation | Phase::Inference}};

    auto list = processingSpecsToPropertyList(specs);
    ASSERT_EQ(list.size(), specs.size());
    EXPECT_EQ(list[0]->name(), "Resample");
    EXPECT_EQ(list[0]->paramKeys(), (std::vector<std::string>{"resolution", "phase"}));
    EXPECT_EQ(list[0]->paramValueText("phase"), "Training Validation");
    EXPECT_EQ(list[0]->subPropertiesCount(), 1u);

    std::vector<Properties*> pointers;
    for (auto const& item : list)
        pointers.push_back(item.get());
    auto back = propertyListToProcessingSpecs(pointers);
    ASSERT_EQ(back.size(), specs.size());
    for (std::size_t i = 0; i < specs.size(); ++i) {
        EXPECT_EQ(back[i].name, specs[i].name);
        EXPECT_EQ(back[i].phase, specs[i].phase) << specs[i].name;
        EXPECT_EQ(back[i].properties.paramValueText("resolution"),
                  specs[i].properties.paramValueText("resolution"));
    }
}

// ---------------------------------------------------------------------------------------------
// Writing

TEST(PropertiesYAMLSave, ExactTextWithFourBlankIndentation)
{
    Properties root;
    auto* resample = root.addSubProperties("Resample");
    resample->setParam("resolution", "1 1 2");
    resample->setParam("apply_to", std::vector<std::string>{"image", "label"});
    resample->setParam("matrix", "[1 0, 0 1]");
    resample->setParam("empty", "");
    resample->setParam("secret", "x");
    resample->setParamType("secret", ParamType::String | ParamType::Hidden);
    resample->setParam("caption", "Shown in forms");
    resample->setParamType("caption", ParamType::Label);
    auto* nested = resample->addSubProperties("Nested");
    nested->setParam("x", "1");
    nested->addSubProperties("Leaf");
    root.addSubProperties("Normalize");
    root.addSubProperties("")->setParam("a", "1");

    EXPECT_EQ(PropertiesYAML::saveToString(root), "__subProps__:\n"
                                                  "  - Resample:\n"
                                                  "        resolution: 1 1 2\n"
                                                  "        apply_to: [image, label]\n"
                                                  "        matrix: [[1, 0], [0, 1]]\n"
                                                  "        empty: \"\"\n"
                                                  "        __subProps__:\n"
                                                  "          - Nested:\n"
                                                  "                x: 1\n"
                                                  "                __subProps__:\n"
                                                  "                  - Leaf\n"
                                                  "  - Normalize\n"
                                                  "  - a: 1\n");
}

TEST(PropertiesYAMLSave, NamedRootAndEmptyTrees)
{
    Properties named("Model");
    named.setParam("engine", "torch");
    EXPECT_EQ(PropertiesYAML::saveToString(named), "Model:\n    engine: torch\n");

    EXPECT_EQ(PropertiesYAML::saveToString(Properties("Alone")), "Alone\n");
    EXPECT_EQ(PropertiesYAML::saveToString(Properties()), "");

    Properties hiddenOnly("Foo");
    hiddenOnly.setParam("h", "1");
    hiddenOnly.setParamType("h", ParamType::Hidden);
    EXPECT_EQ(PropertiesYAML::saveToString(hiddenOnly), "Foo\n");

    Properties withEmptyItem;
    withEmptyItem.addSubProperties("");
    EXPECT_EQ(PropertiesYAML::saveToString(withEmptyItem), "__subProps__:\n  - {}\n");
}

// Texts that YAML would misread unquoted must come back as they were.
TEST(PropertiesYAMLSave, QuotesWhatYAMLWouldMisread)
{
    for (std::string const text :
         {"a: b", "~", "null", "#comment", " padded ", "[not closed", "a, b", "{x}", "- dash", "line\nbreak",
          "it's \"quoted\"", "Grüße", "[a b, c d]", "*alias", "&anchor", "@at", "`tick`", "%percent"}) {
        Properties tree("Item");
        tree.setParam("value", text);
        tree.setParam("items", std::vector<std::string>{"x", text});
        std::string const saved = PropertiesYAML::saveToString(tree);
        auto reread = PropertiesYAML::createFromString(saved);
        ASSERT_NE(reread, nullptr) << saved;
        EXPECT_EQ(reread->paramValueText("value"), text) << saved;
        std::vector<std::string> items;
        ASSERT_TRUE(reread->param("items", items));
        EXPECT_EQ(items, (std::vector<std::string>{"x", text})) << saved;
    }
}

// Reading what was written gives the tree that the original text gave.
TEST(PropertiesYAMLSave, SaveThenParseGivesTheSameTree)
{
    for (char const* yaml :
         {"- Foo\n- Bar: {a: 1, b: [1, 2], c: [x, 2], m: [[1, 2], [3, 4]]}\n",
          "Model:\n  engine: torch\n  Sub:\n    x: 1\n    __subProps__:\n      - A\n      - B: {y: 2}\n",
          "- Outer:\n    __subProps__:\n      - Inner: {c: [[1], [2]]}\n      - Other\n",
          "- Foo: {m: '[1 2 3]', e: '', v: [], q: 'a: b'}\n", "Foo: 3\n",
          "- A:\n    phase: Training Validation\n    apply_to: [image]\n"}) {
        auto first = PropertiesYAML::createFromString(yaml);
        ASSERT_NE(first, nullptr) << yaml;
        std::string const saved = PropertiesYAML::saveToString(*first);
        auto second = PropertiesYAML::createFromString(saved);
        ASSERT_NE(second, nullptr) << saved;
        EXPECT_TRUE(sameTree(*second, *first)) << saved;
        EXPECT_EQ(PropertiesYAML::saveToString(*second), saved);
    }
}

// ---------------------------------------------------------------------------------------------
// Failures and sources

TEST(PropertiesYAMLErrors, ParseErrorsAndUndefinedNodesGiveNullAndUnmappableKeysKeepWhatWasRead)
{
    std::string const bad = "a: [1, 2\nb: }";
    std::string expected;
    try {
        YAML::Load(bad);
    } catch (YAML::Exception const& e) {
        expected = std::string("Yaml Parse error: ") + e.what();
    }
    ASSERT_FALSE(expected.empty());
    Log::Capture capture;
    EXPECT_EQ(PropertiesYAML::createFromString(bad), nullptr);
    EXPECT_TRUE(capture.contains(expected, "ML.PropertiesYAML"));

    EXPECT_EQ(PropertiesYAML::createFromNode(YAML::Load("{a: 1}")["missing"]), nullptr);
    EXPECT_TRUE(capture.contains("YAML node is not defined", "ML.PropertiesYAML"));

    // No partial tree: the keys after the failing one would be lost without a word.
    EXPECT_EQ(PropertiesYAML::createFromString("{c: 2, [a, b]: 1, d: 3}"), nullptr);
    EXPECT_TRUE(capture.containsFragment("Failed to create Properties from YAML: "));
}

class PropertiesYAMLFiles : public ::testing::Test
{
protected:
    std::string path(std::string const& name) const { return (m_folder.path() / name).str(); }

    Filesystem::TemporaryDirectory m_folder{"yamltest"};
};

TEST_F(PropertiesYAMLFiles, SaveAndLoadFileAndNameTheFileOnFailure)
{
    Properties tree("Model");
    tree.setParam("engine", "torch");
    tree.addSubProperties("Part")->setParam("x", "[1 2, 3 4]");
    std::string const file = path("model.yaml");
    ASSERT_TRUE(PropertiesYAML::saveToFile(tree, file));
    EXPECT_EQ(Filesystem::File(file).readText(), PropertiesYAML::saveToString(tree));

    int const level = Log::g_globalLevel;
    Log::g_globalLevel = Log::Debug;
    Log::Capture capture;
    auto loaded = PropertiesYAML::createFromFile(file);
    Log::g_globalLevel = level;
    ASSERT_NE(loaded, nullptr);
    EXPECT_TRUE(sameTree(*loaded, tree));
    EXPECT_TRUE(capture.contains("Loading from File", "ML.PropertiesYAML"));

    // Absolute paths go to the file system.
    auto viaEither = PropertiesYAML::createFromResourceOrFile(file);
    ASSERT_NE(viaEither, nullptr);
    EXPECT_TRUE(sameTree(*viaEither, tree));

    std::string const missing = path("absent.yaml");
    EXPECT_EQ(PropertiesYAML::createFromFile(missing), nullptr);
    EXPECT_TRUE(capture.contains("Couldn't open file " + missing + "\n", "ML.PropertiesYAML"));

    std::string const broken = path("broken.yaml");
    ASSERT_TRUE(Filesystem::File(broken).writeText("a: [1\n"));
    EXPECT_EQ(PropertiesYAML::createFromFile(broken), nullptr);
    EXPECT_TRUE(capture.contains("Could not read the YAML of '" + broken + "'", "ML.PropertiesYAML"));
    EXPECT_TRUE(capture.containsFragment("Yaml Parse error: "));

    capture.clear();
    EXPECT_FALSE(PropertiesYAML::saveToFile(Properties("A"), path("no/such/folder/a.yaml")));
    EXPECT_FALSE(capture.messages(Log::Error).empty());
}

ByteBuffer bytes(std::string const& text)
{
    ByteBuffer buffer;
    buffer.copyFrom(text.data(), text.size());
    return buffer;
}

class PropertiesYAMLResources : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_repository.add("lists/basic.yaml", bytes("- Foo\n- Bar: {a: 1}\n")));
        ASSERT_TRUE(m_repository.add("lists/broken.yaml", bytes("[1, 2")));
        Resource::addRepository(&m_repository);
    }
    void TearDown() override { Resource::removeRepository(&m_repository); }

    Resource::MemoryRepository m_repository{"PropertiesYAMLTest"};
};

TEST_F(PropertiesYAMLResources, LoadsResourcesAndReportsFailuresUnlessProbing)
{
    for (auto const& loaded : {PropertiesYAML::createFromResource("lists/basic.yaml"),
                               PropertiesYAML::createFromResourceOrFile("lists/basic.yaml")}) {
        ASSERT_NE(loaded, nullptr);
        EXPECT_TRUE(sameTree(*loaded, build({"", {}, {{"Foo"}, {"Bar", {{"a", text("1")}}}}})));
    }

    Log::Capture capture;
    EXPECT_EQ(PropertiesYAML::createFromResource("lists/absent.yaml", false), nullptr);
    EXPECT_TRUE(capture.records().empty());
    EXPECT_EQ(PropertiesYAML::createFromResource("lists/absent.yaml"), nullptr);
    EXPECT_TRUE(capture.contains("Couldn't open file Resource lists/absent.yaml\n", "ML.PropertiesYAML"));
    EXPECT_EQ(PropertiesYAML::createFromResource("lists/broken.yaml"), nullptr);
    EXPECT_TRUE(capture.contains("Could not read the YAML of 'lists/broken.yaml'", "ML.PropertiesYAML"));
}

} // namespace
} // namespace Velmoria::ML

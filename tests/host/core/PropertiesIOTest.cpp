#include "host/core/PropertiesIO.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <limits>

using namespace Velmoria;

namespace {

// A tree with every kind of value, type and attribute the system stores.
Properties everyKind()
{
    Properties root("Root tree");
    root.setParam("flag", true);
    root.setParam("count", -3);
    root.setParam("third", 1.0 / 3.0);
    root.setParam("tiny", 4.9406564584124654e-324);
    root.setParam("negativeZero", -0.0);
    root.setParam("float", 0.1f);
    root.setParam("spacing", Eigen::Vector3d(1, 1, 2.5));
    root.setParam("matrix", Eigen::Matrix3d::Identity().eval());
    root.setParam("points", std::vector<Eigen::Vector3f>{{1, 2, 3}, {4, 5, 6}});
    root.setParam("numbers", std::vector<int>{5, 4, 3});
    root.setParam("apply_to", std::vector<std::string>{"image", "label"});
    root.setParam("emptyList", std::vector<std::string>{});
    root.setParam("emptyItems", std::vector<std::string>{"", " ", ""});
    root.setParam("emptyText", "");
    root.setParam("unset", std::optional<double>{});
    root.setParam("awkward", "  <a href=\"x\">&amp;</a> 'q'\r\n\ttab é ✓ ");
    root.setParam("device", "GPUIfOpenGl", "ForceCPU");
    root.setParamType("device", ParamType::Enumeration);
    root.setParamAttributes("device",
                            "values: 'ForceCPU, GPUIfGlImage, GPUIfOpenGl, ForceGPU', label: Device");
    root.setParam("secret", "x");
    root.setParamAttributes("secret", "hidden: 1, deprecatedName: old, deprecatedName: older");
    root.setParam("title", "Section");
    root.setParamType("title", ParamType::Label);
    root.setParam("quoted", 1);
    root.setParamAttributes("quoted", ParamAttributes{{"note", "it's, \"odd\"\nreally"}, {"empty", ""}});
    root.setParamValue("untyped", ParamValue::fromText("raw"));

    Properties* list = root.addSubProperties("Operations");
    Properties* first = list->addSubProperties("Resample");
    first->setParam("resolution", Eigen::Vector3d(1, 1, 1));
    list->addSubProperties("Resample")->setParam("resolution", Eigen::Vector3d(2, 2, 2));
    Properties* unnamed = list->addSubProperties("");
    unnamed->addSubProperties("deep")->addSubProperties("deeper")->setParam("leaf", "value");
    root.addSubProperties("Empty");
    return root;
}

struct ErrorLines
{
    int count = 0;
    std::string message;
};

ErrorLines ioErrors(Log::Capture const& capture)
{
    ErrorLines lines;
    for (Log::Record const& record : capture.records()) {
        if (record.level == Log::Error && record.category == "Host.PropertiesIO") {
            ++lines.count;
            lines.message = record.message;
        }
    }
    return lines;
}

} // namespace

class PropertiesIOFiles : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_folder.isValid()); }

    std::string at(std::string const& name) const { return (m_folder.path() / name).str(); }
    std::string fileWith(std::string const& name, std::string const& content) const
    {
        std::string const path = at(name);
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    std::vector<std::string> names() const
    {
        std::vector<std::string> result;
        for (auto const& entry : std::filesystem::directory_iterator(m_folder.path().stdPath()))
            result.push_back(entry.path().filename().string());
        std::sort(result.begin(), result.end());
        return result;
    }

    Filesystem::TemporaryDirectory m_folder{"properties-io"};
};

// ---------------------------------------------------------------------------------------------
// Round trips

class PropertiesIORoundTrip : public PropertiesIOFiles, public ::testing::WithParamInterface<int>
{};

TEST_P(PropertiesIORoundTrip, EveryKindOfValueSurvivesExactly)
{
    Properties const original = everyKind();
    std::string const xml = PropertiesIO::saveToXMLString(original, GetParam());
    std::unique_ptr<Properties> loaded = PropertiesIO::loadFromXMLString(xml);
    ASSERT_NE(loaded, nullptr) << xml;
    EXPECT_TRUE(loaded->compareWith(original, Properties::CompareAll)) << xml << "\n" << loaded->describe();

    std::string const path = at("tree.xml");
    ASSERT_TRUE(PropertiesIO::saveToXML(original, path, GetParam()));
    Properties fromFile;
    ASSERT_TRUE(PropertiesIO::loadFromXML(fromFile, path));
    EXPECT_TRUE(fromFile == original) << fromFile.describe();
    EXPECT_EQ(names(), (std::vector<std::string>{"tree.xml"})) << "no temporary file stays behind";
}

TEST_P(PropertiesIORoundTrip, CustomRootElement)
{
    Properties const original = everyKind();
    std::string const xml = PropertiesIO::saveToXMLString(original, GetParam(), "settings");
    EXPECT_NE(xml.find("<settings version=\"1.0\" name=\"Root tree\">"), std::string::npos) << xml;
    EXPECT_NE(PropertiesIO::loadFromXMLString(xml, "settings"), nullptr);
    EXPECT_NE(PropertiesIO::loadFromXMLString(xml, ""), nullptr) << "an empty root name accepts any";
    Log::Capture capture;
    EXPECT_EQ(PropertiesIO::loadFromXMLString(xml), nullptr);
    EXPECT_EQ(ioErrors(capture).count, 1);
}

INSTANTIATE_TEST_SUITE_P(Formats, PropertiesIORoundTrip,
                         ::testing::Values(int(PropertiesIO::Indented), int(PropertiesIO::Compact)));

class PropertiesIOAwkwardText : public ::testing::TestWithParam<std::string>
{};

TEST_P(PropertiesIOAwkwardText, RoundTripsInEveryPlaceTextGoes)
{
    std::string const text = GetParam();
    Properties original(text);
    original.setParam("value", text);
    original.setParam(text.empty() ? "emptyKey" : text, 1);
    original.setParam("list", std::vector<std::string>{text, text});
    original.setParamAttributes("value", ParamAttributes{{"a", text}});
    original.addSubProperties(text)->setParam("inner", text);
    for (int format : {int(PropertiesIO::Indented), int(PropertiesIO::Compact)}) {
        std::string const xml = PropertiesIO::saveToXMLString(original, format);
        std::unique_ptr<Properties> loaded = PropertiesIO::loadFromXMLString(xml);
        ASSERT_NE(loaded, nullptr) << xml;
        EXPECT_TRUE(*loaded == original) << xml << "\n" << loaded->describe();
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, PropertiesIOAwkwardText,
                         ::testing::Values("", " ", "   ", "\n", "\r\n", "\t", " lead", "trail ",
                                           "a\r\nb\nc\rd", "<tag>", "&amp;", "\"double\" 'single'", "]]>",
                                           "x, y: 'z'", "Grüße 日本 ✓", "<![CDATA[x]]>"));

TEST(PropertiesIOFormat, WritesTheDocumentedShape)
{
    Properties p;
    p.setParam("spacing", Eigen::Vector3d(1, 1, 2.5));
    p.setParam("apply_to", std::vector<std::string>{"image", "label"});
    p.setParam("none", std::vector<std::string>{});
    p.setParam("device", "A");
    p.setParamType("device", ParamType::Enumeration);
    p.setParamAttributes("device", "values: 'A, B'");
    p.addSubProperties("Sub")->setParam("x", "");
    p.addSubProperties("");
    EXPECT_EQ(PropertiesIO::saveToXMLString(p),
              "<?xml version=\"1.0\"?>\n"
              "<propertyfile version=\"1.0\">\n"
              "    <param name=\"spacing\" type=\"5\">1 1 2.5</param>\n"
              "    <param name=\"apply_to\" type=\"10\">\n"
              "        <item>image</item>\n"
              "        <item>label</item>\n"
              "    </param>\n"
              "    <param name=\"none\" type=\"10\" list=\"true\" />\n"
              "    <param name=\"device\" type=\"9\" attributes=\"values: 'A, B'\">A</param>\n"
              "    <property name=\"Sub\">\n"
              "        <param name=\"x\" type=\"4\" />\n"
              "    </property>\n"
              "    <property />\n"
              "</propertyfile>\n");
    std::string const compact = PropertiesIO::saveToXMLString(p, PropertiesIO::Compact);
    EXPECT_EQ(compact.find("\n    "), std::string::npos) << compact;
}

TEST(PropertiesIOFormat, ReadsHandWrittenFiles)
{
    std::unique_ptr<Properties> p = PropertiesIO::loadFromXMLString(R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- written by hand -->
<propertyfile>
  <param name="modes"><item>a</item>   <item><![CDATA[<b>]]></item></param>
  <param name="joined">x<![CDATA[&]]>y</param>
  <param name="blank">  </param>
  <param name="hidden" type="260">v</param>
  <property name="Sub"><param name="k">1</param></property>
</propertyfile>)");
    ASSERT_NE(p, nullptr);
    std::vector<std::string> modes;
    ASSERT_TRUE(p->param("modes", modes));
    EXPECT_EQ(modes, (std::vector<std::string>{"a", "<b>"}));
    EXPECT_EQ(p->paramValueText("joined"), "x&y");
    EXPECT_EQ(p->paramValueText("blank"), "  ");
    EXPECT_TRUE(ParamType::isHidden(p->paramType("hidden")));
    EXPECT_EQ(ParamType::kind(p->paramType("hidden")), ParamType::String);
    ASSERT_NE(p->findSubProperties("Sub"), nullptr);
    EXPECT_EQ(p->findSubProperties("Sub")->paramOr("k", 0), 1);
}

TEST(PropertiesIOFormat, UnknownElementsAreSkippedWithAWarning)
{
    Log::Capture capture;
    std::unique_ptr<Properties> p = PropertiesIO::loadFromXMLString(
        "<propertyfile>\n<future/><param name=\"a\">1</param></propertyfile>");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->paramValueText("a"), "1");
    EXPECT_TRUE(
        capture.contains("Ignoring unknown element <future> in XML text (line 2)", "Host.PropertiesIO"));
}

// ---------------------------------------------------------------------------------------------
// Failures

struct BadFile
{
    char const* name;
    char const* content;
    char const* reason; // expected at the end of the error line
};

class PropertiesIOBadFile : public PropertiesIOFiles, public ::testing::WithParamInterface<BadFile>
{};

TEST_P(PropertiesIOBadFile, FailsWithOneErrorLineNamingTheFile)
{
    BadFile const c = GetParam();
    std::string const path = fileWith(std::string(c.name) + ".xml", c.content);
    Properties out("untouched");
    out.setParam("keep", 1);
    Log::Capture capture;
    EXPECT_EQ(PropertiesIO::loadFromXML(path), nullptr);
    EXPECT_FALSE(PropertiesIO::loadFromXML(out, path));
    ErrorLines const errors = ioErrors(capture);
    EXPECT_EQ(errors.count, 2) << "one line per failed call";
    EXPECT_EQ(errors.message, "Could not load properties from '" + path + "': " + c.reason);
    EXPECT_EQ(out.name(), "untouched");
    EXPECT_TRUE(out.contains("keep"));
}

INSTANTIATE_TEST_SUITE_P(
    Contents, PropertiesIOBadFile,
    ::testing::Values(
        BadFile{"unclosed", "<propertyfile>\n<param name=\"a\">1</param>\n",
                "Start-end tags mismatch at offset 40 (line 2, column 26)"},
        BadFile{"garbage", "not xml at all", "No document element found at offset 14 (line 1, column 15)"},
        BadFile{"empty", "", "No document element found at offset 0 (line 1, column 1)"},
        BadFile{"wrongRoot", "<settings/>", "the root element is <settings>, expected <propertyfile>"},
        BadFile{"version", "<propertyfile version=\"2.0\"/>", "unsupported file version '2.0'"},
        BadFile{"noName", "<propertyfile>\n\n<param>1</param></propertyfile>",
                "<param> without a name (line 3)"},
        BadFile{"badType", "<propertyfile><param name=\"a\" type=\"five\">1</param></propertyfile>",
                "parameter 'a' has the invalid type 'five' (line 1)"},
        BadFile{
            "badAttributes", "<propertyfile><param name=\"a\" attributes=\"x: 'open\"/></propertyfile>",
            "parameter 'a' has the invalid attributes 'x: 'open' (unterminated quote in the value of 'x') "
            "(line 1)"},
        BadFile{"elementInValue", "<propertyfile><param name=\"a\">1<b/></param></propertyfile>",
                "unexpected element <b> inside the value of <param> (line 1)"},
        BadFile{"textBesideItems", "<propertyfile><param name=\"a\"><item/>x</param></propertyfile>",
                "list parameter 'a' holds something other than <item>s (line 1)"},
        BadFile{"strayText", "<propertyfile><property name=\"S\">oops</property></propertyfile>",
                "text outside of a <param> (line 1)"}),
    [](::testing::TestParamInfo<BadFile> const& info) { return std::string(info.param.name); });

TEST_F(PropertiesIOFiles, MissingFileAndFolderAreNamed)
{
    Log::Capture capture;
    std::string const missing = at("missing.xml");
    EXPECT_EQ(PropertiesIO::loadFromXML(missing), nullptr);
    EXPECT_TRUE(capture.contains("Could not load properties from '" + missing + "': the file does not exist",
                                 "Host.PropertiesIO"));
    std::filesystem::create_directory(at("folder"));
    EXPECT_EQ(PropertiesIO::loadFromXML(at("folder")), nullptr);
    EXPECT_TRUE(
        capture.contains("Could not load properties from '" + at("folder") + "': it is not a regular file",
                         "Host.PropertiesIO"));
    EXPECT_EQ(ioErrors(capture).count, 2);
}

TEST_F(PropertiesIOFiles, SaveReplacesAnExistingFile)
{
    std::string const path = fileWith("settings.xml", "old content that is not XML");
    Properties p("new");
    p.setParam("a", 1);
    ASSERT_TRUE(PropertiesIO::saveToXML(p, path));
    std::unique_ptr<Properties> loaded = PropertiesIO::loadFromXML(path);
    ASSERT_NE(loaded, nullptr);
    EXPECT_TRUE(*loaded == p);
    EXPECT_EQ(names(), (std::vector<std::string>{"settings.xml"}));
}

TEST_F(PropertiesIOFiles, SaveIntoAMissingFolderFailsAndNamesThePath)
{
    std::string const path = at("no/such/folder/out.xml");
    Log::Capture capture;
    EXPECT_FALSE(PropertiesIO::saveToXML(Properties(), path));
    EXPECT_TRUE(capture.contains("Could not save properties to '" + path + "'", "Host.PropertiesIO"));
    EXPECT_FALSE(PropertiesIO::saveToXML(Properties(), ""));
    EXPECT_EQ(ioErrors(capture).count, 2);
}

#include "host/core/PropertiesIO.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace Velmoria;

namespace {

// A tree with every kind of value, type and attribute the system stores.
Properties everyKind()
{
    Properties root("Root tree");
    root.setParam("flag", true);
    root.setParam("third", 1.0 / 3.0);
    root.setParam("spacing", Eigen::Vector3d(1, 1, 2.5));
    root.setParam("matrix", Eigen::Matrix3d::Identity().eval());
    root.setParam("points", std::vector<Eigen::Vector3f>{{1, 2, 3}, {4, 5, 6}});
    root.setParam("apply_to", std::vector<std::string>{"image", "label"});
    root.setParam("emptyList", std::vector<std::string>{});
    root.setParam("emptyItems", std::vector<std::string>{"", " ", ""});
    root.setParam("emptyText", "");
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

    Filesystem::TemporaryDirectory m_folder{"properties-io"};
};

TEST_F(PropertiesIOFiles, EveryKindOfValueSurvivesExactlyInEitherFormat)
{
    Properties const original = everyKind();
    for (int format : {int(PropertiesIO::Indented), int(PropertiesIO::Compact)}) {
        std::string const xml = PropertiesIO::saveToXMLString(original, format);
        std::unique_ptr<Properties> loaded = PropertiesIO::loadFromXMLString(xml);
        ASSERT_NE(loaded, nullptr) << xml;
        EXPECT_TRUE(loaded->compareWith(original, Properties::CompareAll)) << xml << "\n"
                                                                           << loaded->describe();
        ASSERT_TRUE(PropertiesIO::saveToXML(original, at("tree.xml"), format));
        Properties fromFile;
        ASSERT_TRUE(PropertiesIO::loadFromXML(fromFile, at("tree.xml")));
        EXPECT_TRUE(fromFile == original) << fromFile.describe();
    }
    // Another root element name is accepted only when asked for (or when any is).
    std::string const settings = PropertiesIO::saveToXMLString(original, PropertiesIO::Compact, "settings");
    EXPECT_NE(settings.find("<settings version=\"1.0\" name=\"Root tree\">"), std::string::npos) << settings;
    EXPECT_NE(PropertiesIO::loadFromXMLString(settings, "settings"), nullptr);
    EXPECT_NE(PropertiesIO::loadFromXMLString(settings, ""), nullptr);
    Log::Capture capture;
    EXPECT_EQ(PropertiesIO::loadFromXMLString(settings), nullptr);
    EXPECT_EQ(capture.messages(Log::Error).size(), 1u);
}

TEST(PropertiesIOFormat, AwkwardTextRoundTripsInEveryPlaceTextGoes)
{
    for (std::string const text :
         {"", " ", "   ", "\n", "\r\n", "\t", " lead", "trail ", "a\r\nb\nc\rd", "<tag>", "&amp;",
          "\"double\" 'single'", "]]>", "x, y: 'z'", "Grüße 日本 ✓", "<![CDATA[x]]>"}) {
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
}

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

TEST(PropertiesIOFormat, ReadsHandWrittenFilesAndSkipsUnknownElements)
{
    Log::Capture capture;
    std::unique_ptr<Properties> p = PropertiesIO::loadFromXMLString(R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- written by hand -->
<propertyfile>
  <param name="modes"><item>a</item>   <item><![CDATA[<b>]]></item></param>
  <param name="joined">x<![CDATA[&]]>y</param>
  <param name="blank">  </param><future/>
  <param name="hidden" type="260">v</param>
  <property name="Sub"><param name="k">1</param></property>
</propertyfile>)");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->paramOr("modes", std::vector<std::string>()), (std::vector<std::string>{"a", "<b>"}));
    EXPECT_EQ(p->paramValueText("joined"), "x&y");
    EXPECT_EQ(p->paramValueText("blank"), "  ");
    EXPECT_EQ(p->paramType("hidden"), ParamType::String | ParamType::Hidden);
    ASSERT_NE(p->findSubProperties("Sub"), nullptr);
    EXPECT_EQ(p->findSubProperties("Sub")->paramOr("k", 0), 1);
    EXPECT_TRUE(
        capture.contains("Ignoring unknown element <future> in XML text (line 6)", "Host.PropertiesIO"));
}

TEST_F(PropertiesIOFiles, BadFilesFailWithOneErrorLineNamingTheFileAndTheReason)
{
    struct Case
    {
        char const* content;
        char const* reason; // expected at the end of the error line
    };
    for (Case const& c :
         {Case{"<propertyfile>\n<param name=\"a\">1</param>\n",
               "Start-end tags mismatch at offset 40 (line 2, column 26)"},
          Case{"not xml at all", "No document element found at offset 14 (line 1, column 15)"},
          Case{"", "No document element found at offset 0 (line 1, column 1)"},
          Case{"<settings/>", "the root element is <settings>, expected <propertyfile>"},
          Case{"<propertyfile version=\"2.0\"/>", "unsupported file version '2.0'"},
          Case{"<propertyfile>\n\n<param>1</param></propertyfile>", "<param> without a name (line 3)"},
          Case{"<propertyfile><param name=\"a\" type=\"five\">1</param></propertyfile>",
               "parameter 'a' has the invalid type 'five' (line 1)"},
          Case{"<propertyfile><param name=\"a\" attributes=\"x: 'open\"/></propertyfile>",
               "parameter 'a' has the invalid attributes 'x: 'open' (unterminated quote in the value of 'x') "
               "(line 1)"},
          Case{"<propertyfile><param name=\"a\">1<b/></param></propertyfile>",
               "unexpected element <b> inside the value of <param> (line 1)"},
          Case{"<propertyfile><param name=\"a\"><item/>x</param></propertyfile>",
               "list parameter 'a' holds something other than <item>s (line 1)"},
          Case{"<propertyfile><property name=\"S\">oops</property></propertyfile>",
               "text outside of a <param> (line 1)"}}) {
        SCOPED_TRACE(c.content);
        std::string const path = fileWith("bad.xml", c.content);
        Properties out("untouched");
        out.setParam("keep", 1);
        Log::Capture capture;
        EXPECT_EQ(PropertiesIO::loadFromXML(path), nullptr);
        EXPECT_FALSE(PropertiesIO::loadFromXML(out, path));
        std::vector<std::string> const errors = capture.messages(Log::Error);
        ASSERT_EQ(errors.size(), 2u) << "one line per failed call";
        EXPECT_EQ(errors[1], "Could not load properties from '" + path + "': " + c.reason);
        EXPECT_EQ(out.name(), "untouched");
        EXPECT_TRUE(out.contains("keep"));
    }
    Log::Capture capture;
    EXPECT_EQ(PropertiesIO::loadFromXML(at("missing.xml")), nullptr);
    EXPECT_TRUE(capture.contains("Could not load properties from '" + at("missing.xml") +
                                     "': the file does not exist",
                                 "Host.PropertiesIO"));
    EXPECT_EQ(PropertiesIO::loadFromXML(m_folder.path().str()), nullptr);
    EXPECT_TRUE(capture.contains("Could not load properties from '" + m_folder.path().str() +
                                     "': it is not a regular file",
                                 "Host.PropertiesIO"));
}

TEST_F(PropertiesIOFiles, SaveReplacesAnExistingFileOrFailsNamingThePath)
{
    std::string const path = fileWith("settings.xml", "old content that is not XML");
    Properties p("new");
    p.setParam("a", 1);
    ASSERT_TRUE(PropertiesIO::saveToXML(p, path));
    std::unique_ptr<Properties> loaded = PropertiesIO::loadFromXML(path);
    ASSERT_NE(loaded, nullptr);
    EXPECT_TRUE(*loaded == p);

    std::string const nowhere = at("no/such/folder/out.xml");
    Log::Capture capture;
    EXPECT_FALSE(PropertiesIO::saveToXML(Properties(), nowhere));
    EXPECT_TRUE(capture.contains("Could not save properties to '" + nowhere + "'", "Host.PropertiesIO"));
    EXPECT_FALSE(PropertiesIO::saveToXML(Properties(), ""));
    EXPECT_TRUE(capture.contains("Could not save properties: the file path is empty", "Host.PropertiesIO"));
}

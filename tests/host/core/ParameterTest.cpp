#include "host/core/Parameter.h"

#include "host/core/Configurable.h"
#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/PropertiesIO.h"
#include "host/core/Settings.h"

#include <gtest/gtest.h>

#include <limits>

using namespace Velmoria;

namespace {

class Smoothing : public Configurable
{
public:
    Parameter<double> p_sigma{"sigma", 1.0, this};
    Parameter<bool> p_adaptive{"adaptive", false, this};
    Parameter<std::string> p_mode{"mode", "gauss", this};
    Parameter<Eigen::Vector3i> p_kernel{"kernel", Eigen::Vector3i(3, 3, 3), this};
};

class Pipeline : public Configurable
{
public:
    Parameter<int> p_threads{"threads", 1, this};
    SubProperty<Smoothing> p_smoothing{"Smoothing", this};
};

class Outer : public Configurable
{
public:
    SubProperty<Pipeline> p_pipeline{"Pipeline", this};
    Parameter<std::vector<std::string>> p_fields{"fields", {"image"}, this};
};

// An owner that builds its parameters afresh when copied.
class Handmade : public Configurable
{
public:
    Handmade()
    {
        p_size.setLabel("Size");
        p_size.addDeprecatedName("old_size");
    }
    Handmade(Handmade const& other)
        : Configurable(other)
        , p_size("size", 0, this)
    {
        p_size.setParentFromCopy(other.p_size);
    }

    Parameter<int> p_size{"size", 4, this};
};

} // namespace

// ---------------------------------------------------------------------------------------------
// Parameter<T> of each type: configuration of one object configures another.

template <class T>
struct Values;
template <>
struct Values<bool>
{
    static bool a() { return false; }
    static bool b() { return true; }
};
template <>
struct Values<int>
{
    static int a() { return 3; }
    static int b() { return -70000; }
};
template <>
struct Values<float>
{
    static float a() { return 0.5f; }
    static float b() { return 0.1f; }
};
template <>
struct Values<double>
{
    static double a() { return 2.0; }
    static double b() { return 1.0 / 3.0; }
};
template <>
struct Values<std::string>
{
    static std::string a() { return "a"; }
    static std::string b() { return " b, with 'quotes' "; }
};
template <>
struct Values<Eigen::Vector3d>
{
    static Eigen::Vector3d a() { return Eigen::Vector3d::Zero(); }
    static Eigen::Vector3d b() { return {0.1, -2, 1e-7}; }
};
template <>
struct Values<std::optional<int>>
{
    static std::optional<int> a() { return 5; }
    static std::optional<int> b() { return std::nullopt; }
};

template <class T>
class ParameterTyped : public ::testing::Test
{};
using ParameterTypes =
    ::testing::Types<bool, int, float, double, std::string, Eigen::Vector3d, std::optional<int>>;
TYPED_TEST_SUITE(ParameterTyped, ParameterTypes);

TYPED_TEST(ParameterTyped, ConfigurationRoundTripsThroughProperties)
{
    using V = Values<TypeParam>;
    Configurable source;
    Parameter<TypeParam> written("value", V::a(), &source);
    written.setValue(V::b());
    Properties p;
    source.configuration(&p);
    EXPECT_EQ(p.paramValueText("value"), ValueText::toText(V::b()));
    EXPECT_EQ(p.paramAttribute("value", "default"), ValueText::toText(V::a()));

    Configurable target;
    Parameter<TypeParam> read("value", V::a(), &target);
    int changes = 0;
    read.signalValueChanged.connect([&](TypeParam const&) { ++changes; });
    target.configure(&p);
    EXPECT_TRUE(ValueText::sameValue(read.value(), V::b()));
    EXPECT_EQ(changes, 1);
    target.configure(&p);
    EXPECT_EQ(changes, 1) << "configuring the same value again is no change";
    target.configureDefaults();
    EXPECT_TRUE(ValueText::sameValue(read.value(), V::a()));
    EXPECT_EQ(changes, 2);
}

// ---------------------------------------------------------------------------------------------
// Configurable

TEST(Configurable, ConfigurationWritesAllParametersInRegistrationOrder)
{
    Smoothing s;
    Properties p;
    s.configuration(&p);
    EXPECT_EQ(p.paramKeys(), (std::vector<std::string>{"sigma", "adaptive", "mode", "kernel"}));
    EXPECT_EQ(p.paramValueText("kernel"), "3 3 3");
    EXPECT_EQ(p.paramType("sigma"), ParamType::Double);
    EXPECT_EQ(p.paramType("kernel"), ParamType::Vector);
    s.configuration(nullptr);
    s.configure(nullptr);
}

TEST(Configurable, ConfigureSetsPresentKeysAndLeavesTheRest)
{
    Smoothing s;
    s.p_mode = "box";
    Properties p{{"sigma", 2.5}, {"adaptive", "TRUE"}, {"unrelated", 1}};
    s.configure(&p);
    EXPECT_EQ(s.p_sigma, 2.5);
    EXPECT_TRUE(s.p_adaptive);
    EXPECT_EQ(s.p_mode.value(), "box");
    EXPECT_EQ(s.p_kernel.value(), Eigen::Vector3i(3, 3, 3));
}

TEST(Configurable, UnreadableValueWarnsAndKeepsTheValue)
{
    Smoothing s;
    Properties p{{"sigma", "wide"}, {"kernel", "3 3"}};
    Log::Capture capture;
    s.configure(&p);
    EXPECT_EQ(s.p_sigma, 1.0);
    EXPECT_EQ(s.p_kernel.value(), Eigen::Vector3i(3, 3, 3));
    EXPECT_TRUE(
        capture.contains("Could not read parameter 'sigma': 'wide' is not a valid double", "Host.Parameter"));
    EXPECT_TRUE(
        capture.contains("Could not read parameter 'kernel': '3 3' is not a valid 3-vector of 32-bit integer",
                         "Host.Parameter"));
}

TEST(Configurable, ParametersLeaveTheirParentWhenDestroyed)
{
    Configurable owner;
    {
        Parameter<int> temporary("temporary", 1, &owner);
        EXPECT_EQ(owner.parameters().size(), 1u);
        EXPECT_EQ(owner.parameter("temporary"), &temporary);
        EXPECT_EQ(temporary.parent(), &owner);
    }
    EXPECT_TRUE(owner.parameters().empty());

    auto outlived = std::make_unique<Parameter<int>>("outlived", 1);
    {
        Configurable shortLived;
        shortLived.registerParameter(outlived.get());
        shortLived.registerParameter(outlived.get());
        EXPECT_EQ(shortLived.parameters().size(), 1u) << "registered once";
    }
    EXPECT_EQ(outlived->parent(), nullptr);
    outlived.reset(); // must not touch the dead owner

    Configurable first;
    Configurable second;
    Parameter<int> moved("moved", 1, &first);
    second.registerParameter(&moved);
    EXPECT_TRUE(first.parameters().empty());
    EXPECT_EQ(moved.parent(), &second);
    second.unregisterParameter(&moved);
    EXPECT_EQ(moved.parent(), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Copies

TEST(ConfigurableCopy, DefaultedCopyRegistersTheCopiedParameters)
{
    Smoothing original;
    original.p_sigma = 4.0;
    Smoothing copy(original);
    ASSERT_EQ(copy.parameters().size(), 4u);
    EXPECT_EQ(copy.parameters()[0], &copy.p_sigma);
    EXPECT_EQ(copy.parameters()[3], &copy.p_kernel);
    EXPECT_EQ(copy.p_sigma, 4.0);

    Properties p{{"sigma", 9.0}};
    copy.configure(&p);
    EXPECT_EQ(copy.p_sigma, 9.0);
    EXPECT_EQ(original.p_sigma, 4.0) << "the copy must not configure the original";
    EXPECT_EQ(original.parameters()[0], &original.p_sigma);
}

TEST(ConfigurableCopy, NestedSubPropertiesRegisterWithTheirOwnCopies)
{
    Outer original;
    original.p_pipeline->p_smoothing->p_mode = "box";
    std::vector<Outer> copies(2, original);
    for (Outer& copy : copies) {
        ASSERT_EQ(copy.parameters().size(), 2u);
        EXPECT_EQ(copy.parameters()[0], &copy.p_pipeline);
        EXPECT_EQ(copy.p_pipeline->parameters()[1], &copy.p_pipeline.value().p_smoothing);
        EXPECT_EQ(copy.p_pipeline->p_smoothing->parameters()[2], &copy.p_pipeline->p_smoothing->p_mode);
        EXPECT_EQ(copy.p_pipeline->p_smoothing->p_mode.value(), "box");
    }
}

TEST(ConfigurableCopy, AssignmentCopiesValuesAndKeepsRegistrations)
{
    Smoothing a;
    Smoothing b;
    a.p_sigma = 7.0;
    int changes = 0;
    b.p_sigma.signalValueChanged.connect([&](double const&) { ++changes; });
    b = a;
    EXPECT_EQ(b.p_sigma, 7.0);
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(b.parameters()[0], &b.p_sigma);
    EXPECT_EQ(a.parameters()[0], &a.p_sigma);
}

TEST(ConfigurableCopy, SetParentFromCopyTakesStateForHandmadeCopies)
{
    Handmade original;
    original.p_size = 12;
    Handmade copy(original);
    EXPECT_EQ(copy.p_size.value(), 12);
    EXPECT_EQ(copy.p_size.defaultValue(), 4);
    EXPECT_EQ(copy.p_size.label(), "Size");
    EXPECT_EQ(copy.p_size.deprecatedNames(), (std::vector<std::string>{"old_size"}));
    ASSERT_EQ(copy.parameters().size(), 1u);
    EXPECT_EQ(copy.parameters()[0], &copy.p_size);

    Configurable other;
    Parameter<int> loose("loose", 0);
    loose.setParentFromCopy(original.p_size, &other);
    EXPECT_EQ(loose.value(), 12);
    EXPECT_EQ(loose.name(), "loose");
    EXPECT_EQ(other.parameters(), (std::vector<ParameterBase*>{&loose}));
}

// ---------------------------------------------------------------------------------------------
// Names, attributes, signals

TEST(Parameter, ConfigurationWritesTypeAndAttributesInOrder)
{
    Configurable owner;
    Parameter<std::string> device("device", "ForceCPU", &owner);
    device.setLabel("Device");
    device.setAttribute("values", "ForceCPU, ForceGPU");
    device.setAttribute("values", "ForceCPU, GPUIfOpenGl, ForceGPU");
    device.addDeprecatedName("computing_device");
    device.addDeprecatedName("gpu");
    device.addDeprecatedName("gpu");
    device.addDeprecatedName("");
    device.setType(ParamType::Enumeration | ParamType::Hidden);
    Properties p;
    owner.configuration(&p);
    EXPECT_EQ(p.paramType("device"), ParamType::Enumeration | ParamType::Hidden);
    EXPECT_EQ(p.paramAttributes("device"), (ParamAttributes{{"label", "Device"},
                                                            {"values", "ForceCPU, GPUIfOpenGl, ForceGPU"},
                                                            {"deprecatedName", "computing_device"},
                                                            {"deprecatedName", "gpu"},
                                                            {"default", "ForceCPU"}}));

    Parameter<int> plain("plain", 1, &owner);
    plain.setType(ParamType::Hidden);
    owner.configuration(&p);
    EXPECT_EQ(p.paramType("plain"), ParamType::Int | ParamType::Hidden)
        << "flags combine with the value's kind";
}

TEST(Parameter, DeprecatedNamesConfigureAndWinOverTheName)
{
    Configurable owner;
    Parameter<int> size("size", 1, &owner);
    size.addDeprecatedName("old_size");
    Log::Capture capture;

    Properties onlyOld{{"old_size", 5}};
    EXPECT_TRUE(size.configure(&onlyOld));
    EXPECT_EQ(size.value(), 5);
    EXPECT_TRUE(capture.contains("Using deprecated parameter 'old_size'. Please use 'size' instead.",
                                 "Host.Parameter"));

    Properties both{{"old_size", 6}, {"size", 7}};
    EXPECT_TRUE(size.configure(&both));
    EXPECT_EQ(size.value(), 6);

    Properties badOld{{"old_size", "x"}, {"size", 8}};
    EXPECT_TRUE(size.configure(&badOld));
    EXPECT_EQ(size.value(), 8) << "an unreadable deprecated key falls through to the name";

    Properties none{{"other", 1}};
    EXPECT_FALSE(size.configure(&none));
    EXPECT_FALSE(size.configure(nullptr));
    EXPECT_EQ(size.value(), 8);
}

TEST(Parameter, SignalFiresOncePerRealChange)
{
    Parameter<double> p("p", 0.0);
    std::vector<double> seen;
    p.signalValueChanged.connect([&](double const& v) { seen.push_back(v); });
    EXPECT_TRUE(p.setValue(1.0));
    EXPECT_FALSE(p.setValue(1.0));
    p = 1.0;
    p = 2.0;
    EXPECT_TRUE(p.setValue(-0.0));
    EXPECT_TRUE(p.setValue(0.0));
    double const nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(p.setValue(nan));
    EXPECT_FALSE(p.setValue(nan));
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen[1], 2.0);
    p.setToDefault();
    EXPECT_EQ(seen.size(), 6u);
    EXPECT_EQ(p.value(), 0.0);
}

// ---------------------------------------------------------------------------------------------
// SubProperty

TEST(SubProperty, IsStoredAsANamedSubTree)
{
    Outer outer;
    outer.p_pipeline->p_threads = 8;
    outer.p_pipeline->p_smoothing->p_sigma = 0.25;
    Properties p;
    outer.configuration(&p);
    EXPECT_EQ(p.paramKeys(), (std::vector<std::string>{"fields"}));
    EXPECT_TRUE(p.paramIsList("fields"));
    Properties const* pipeline = p.findSubProperties("Pipeline");
    ASSERT_NE(pipeline, nullptr);
    EXPECT_EQ(pipeline->paramValueText("threads"), "8");
    Properties const* smoothing = pipeline->findSubProperties("Smoothing");
    ASSERT_NE(smoothing, nullptr);
    EXPECT_EQ(smoothing->paramValueText("sigma"), "0.25");

    Outer other;
    other.configure(&p);
    EXPECT_EQ(other.p_pipeline->p_threads, 8);
    EXPECT_EQ((*other.p_pipeline).p_smoothing->p_sigma, 0.25);

    other.configureDefaults();
    EXPECT_EQ(other.p_pipeline->p_threads, 1);
    EXPECT_EQ(other.p_pipeline->p_smoothing->p_sigma, 1.0);
}

TEST(SubProperty, ReadsTheFirstSubTreeOrADeprecatedName)
{
    Pipeline pipeline;
    pipeline.p_smoothing.addDeprecatedName("Blur");
    Properties p;
    p.addSubProperties("Smoothing")->setParam("sigma", 2.0);
    p.addSubProperties("Smoothing")->setParam("sigma", 3.0);
    EXPECT_TRUE(pipeline.p_smoothing.configure(&p));
    EXPECT_EQ(pipeline.p_smoothing->p_sigma, 2.0);

    Properties old;
    old.addSubProperties("Blur")->setParam("sigma", 5.0);
    Log::Capture capture;
    EXPECT_TRUE(pipeline.p_smoothing.configure(&old));
    EXPECT_EQ(pipeline.p_smoothing->p_sigma, 5.0);
    EXPECT_TRUE(capture.contains("Using deprecated parameter 'Blur'. Please use 'Smoothing' instead.",
                                 "Host.Parameter"));
    Properties const empty;
    EXPECT_FALSE(pipeline.p_smoothing.configure(&empty));
    EXPECT_EQ(pipeline.p_smoothing->p_sigma, 5.0);
}

// ---------------------------------------------------------------------------------------------
// Settings

class SettingsFile : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_folder.isValid()); }
    std::string at(std::string const& name) const { return (m_folder.path() / name).str(); }

    Filesystem::TemporaryDirectory m_folder{"settings"};
    Settings m_settings;
};

TEST_F(SettingsFile, SlashedKeysAreNestedSubTrees)
{
    EXPECT_TRUE(m_settings.setValue("ml/defaultModelFolder", std::string("/models")));
    EXPECT_TRUE(m_settings.setValue("ml/engine/threads", 4));
    EXPECT_TRUE(m_settings.setValue("top", true));
    Properties const tree = m_settings.snapshot();
    Properties const* ml = tree.findSubProperties("ml");
    ASSERT_NE(ml, nullptr);
    EXPECT_EQ(ml->paramValueText("defaultModelFolder"), "/models");
    ASSERT_NE(ml->findSubProperties("engine"), nullptr);
    EXPECT_EQ(ml->findSubProperties("engine")->paramValueText("threads"), "4");
    EXPECT_EQ(m_settings.valueOr("ml/engine/threads", 0), 4);
    EXPECT_EQ(m_settings.valueOr("ml/engine/missing", 9), 9);
    EXPECT_EQ(m_settings.valueOr("nowhere/threads", 9), 9);
    EXPECT_TRUE(m_settings.remove("ml/engine/threads"));
    EXPECT_FALSE(m_settings.contains("ml/engine/threads"));
    EXPECT_FALSE(m_settings.remove("ml/engine/threads"));
}

class SettingsBadKey : public SettingsFile, public ::testing::WithParamInterface<char const*>
{};

TEST_P(SettingsBadKey, IsRefusedWithAWarning)
{
    Log::Capture capture;
    EXPECT_FALSE(m_settings.setValue(GetParam(), 1));
    EXPECT_FALSE(m_settings.contains(GetParam()));
    EXPECT_TRUE(m_settings.snapshot().isEmpty());
    EXPECT_TRUE(capture.contains("Invalid settings key '" + std::string(GetParam()) +
                                     "': keys are names separated by single '/'",
                                 "Host.Settings"));
}

INSTANTIATE_TEST_SUITE_P(Keys, SettingsBadKey, ::testing::Values("", "/a", "a/", "a//b", "/"));

TEST_F(SettingsFile, SaveAndLoadRoundTripThroughAFile)
{
    Setting<std::string> folder("ml/defaultModelFolder", "", m_settings);
    Setting<Eigen::Vector3d> spacing("image/spacing", Eigen::Vector3d::Ones(), m_settings);
    Setting<std::vector<std::string>> recent("recent", {}, m_settings);
    folder.setValue("/data/models dir");
    spacing.setValue(Eigen::Vector3d(0.5, 0.5, 2));
    recent.setValue({"a.nii", "b.nii"});

    Log::Capture capture;
    EXPECT_FALSE(m_settings.save()) << "no file chosen yet";
    EXPECT_TRUE(capture.contains("Could not save the settings: no file was chosen", "Host.Settings"));
    std::string const path = at("settings.xml");
    m_settings.setPath(path);
    ASSERT_TRUE(m_settings.save());

    Settings loaded;
    std::vector<std::string> changes;
    loaded.signalChanged.connect([&](std::string const& key) { changes.push_back(key); });
    ASSERT_TRUE(loaded.load(path));
    EXPECT_EQ(loaded.path(), path);
    EXPECT_EQ(changes, (std::vector<std::string>{""}));
    EXPECT_TRUE(loaded.snapshot() == m_settings.snapshot());
    EXPECT_EQ(Setting<std::string>("ml/defaultModelFolder", "", loaded).value(), "/data/models dir");
    EXPECT_EQ(Setting<Eigen::Vector3d>("image/spacing", Eigen::Vector3d::Zero(), loaded).value(),
              Eigen::Vector3d(0.5, 0.5, 2));
    EXPECT_EQ(Setting<std::vector<std::string>>("recent", {}, loaded).value(),
              (std::vector<std::string>{"a.nii", "b.nii"}));

    std::unique_ptr<Properties> raw = PropertiesIO::loadFromXML(path, Settings::RootElement);
    ASSERT_NE(raw, nullptr) << "the file is a <settings> property file";

    EXPECT_FALSE(loaded.load(at("missing.xml")));
    EXPECT_EQ(loaded.path(), path) << "a failed load changes nothing";
    EXPECT_TRUE(loaded.contains("recent"));
}

TEST_F(SettingsFile, SettingFallsBackToItsDefault)
{
    Setting<int> threads("engine/threads", 2, m_settings);
    EXPECT_EQ(threads.value(), 2);
    EXPECT_FALSE(threads.isSet());
    std::vector<std::string> changes;
    m_settings.signalChanged.connect([&](std::string const& key) { changes.push_back(key); });
    threads.setValue(6);
    EXPECT_EQ(threads.value(), 6);
    EXPECT_TRUE(threads.isSet());

    m_settings.setValue("engine/threads", "many");
    Log::Capture capture;
    EXPECT_EQ(threads.value(), 2);
    EXPECT_TRUE(capture.contains(
        "Setting 'engine/threads' holds 'many', which is not a valid 32-bit integer; using the default",
        "Host.Settings"));
    threads.reset();
    EXPECT_FALSE(threads.isSet());
    m_settings.clear();
    EXPECT_EQ(changes, (std::vector<std::string>{"engine/threads", "engine/threads", "engine/threads", ""}));
}

TEST(Settings, ProcessWideInstanceIsOne)
{
    EXPECT_EQ(&Settings::get(), &Settings::get());
}

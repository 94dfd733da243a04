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
    Handmade() { p_size.addDeprecatedName("old_size"); }
    Handmade(Handmade const& other)
        : Configurable(other)
        , p_size("size", 0, this)
    {
        p_size.setParentFromCopy(other.p_size);
    }

    Parameter<int> p_size{"size", 4, this};
};

} // namespace

// Of each type of value: the default, the one configured, its text and the kind it is stored as.
template <class T>
struct Sample
{
    T defaultValue;
    T value;
    char const* text;
    int kind;
};

struct Samples
{
    static Sample<bool> of(bool) { return {false, true, "true", ParamType::Bool}; }
    static Sample<int> of(int) { return {3, -70000, "-70000", ParamType::Int}; }
    static Sample<float> of(float) { return {0.5f, 0.1f, "0.1", ParamType::Double}; }
    static Sample<double> of(double) { return {2.0, 1.0 / 3.0, "0.3333333333333333", ParamType::Double}; }
    static Sample<std::string> of(std::string) { return {"a", " b, 'c' ", " b, 'c' ", ParamType::String}; }
    static Sample<Eigen::Vector3d> of(Eigen::Vector3d)
    {
        return {{0, 0, 0}, {0.1, -2, 1e-7}, "0.1 -2 1e-07", ParamType::Vector};
    }
    static Sample<Eigen::Matrix2f> of(Eigen::Matrix2f)
    {
        return {Eigen::Matrix2f::Zero(), (Eigen::Matrix2f() << 1, 2, 3, 4).finished(), "[1 2, 3 4]",
                ParamType::Matrix};
    }
    static Sample<std::vector<Eigen::Vector2d>> of(std::vector<Eigen::Vector2d>)
    {
        return {{}, {{1, 2}, {3, 4}}, "[1 2, 3 4]", ParamType::Matrix};
    }
    static Sample<std::optional<int>> of(std::optional<int>) { return {5, std::nullopt, "", ParamType::Int}; }
};

template <class T>
class ParameterTyped : public ::testing::Test
{};
using ParameterTypes = ::testing::Types<bool, int, float, double, std::string, Eigen::Vector3d,
                                        Eigen::Matrix2f, std::vector<Eigen::Vector2d>, std::optional<int>>;
TYPED_TEST_SUITE(ParameterTyped, ParameterTypes);

TYPED_TEST(ParameterTyped, ConfigurationRoundTripsThroughProperties)
{
    auto const s = Samples::of(TypeParam{});
    Configurable source;
    Parameter<TypeParam> written("value", s.defaultValue, &source);
    written.setValue(s.value);
    Properties p;
    source.configuration(&p);
    EXPECT_EQ(p.paramValueText("value"), s.text);
    EXPECT_EQ(p.paramType("value"), s.kind);
    EXPECT_EQ(p.paramAttributes("value"), (ParamAttributes{{"default", ValueText::toText(s.defaultValue)}}));

    Configurable target;
    Parameter<TypeParam> read("value", s.defaultValue, &target);
    int changes = 0;
    read.signalValueChanged.connect([&](TypeParam const&) { ++changes; });
    target.configure(&p);
    EXPECT_TRUE(ValueText::sameValue(read.value(), s.value));
    EXPECT_EQ(changes, 1);
    target.configure(&p);
    EXPECT_EQ(changes, 1) << "configuring the same value again is no change";
    target.configureDefaults();
    EXPECT_TRUE(ValueText::sameValue(read.value(), s.defaultValue));
    EXPECT_EQ(changes, 2);

    // A missing or unreadable key leaves the output untouched.
    TypeParam out = s.value;
    EXPECT_FALSE(p.param("missing", out));
    p.setParam("bad", "not a value of any type [");
    if constexpr (!std::is_same_v<TypeParam, std::string>) {
        EXPECT_FALSE(p.param("bad", out));
    }
    EXPECT_TRUE(ValueText::sameValue(out, s.value));
}

TEST(Configurable, ConfigureReadsThePresentKeysAndWarnsAboutUnreadableOnes)
{
    Smoothing s;
    Properties written;
    s.configuration(&written);
    EXPECT_EQ(written.paramKeys(), (std::vector<std::string>{"sigma", "adaptive", "mode", "kernel"}));
    EXPECT_EQ(written.paramValueText("kernel"), "3 3 3");

    s.p_mode = "box";
    Properties p{{"sigma", "wide"}, {"kernel", "3 3"}, {"adaptive", "TRUE"}, {"unrelated", 1}};
    Log::Capture capture;
    s.configure(&p);
    EXPECT_TRUE(s.p_adaptive);
    EXPECT_EQ(s.p_mode.value(), "box");
    EXPECT_EQ(s.p_sigma, 1.0);
    EXPECT_EQ(s.p_kernel.value(), Eigen::Vector3i(3, 3, 3));
    EXPECT_TRUE(
        capture.contains("Could not read parameter 'sigma': 'wide' is not a valid double", "Host.Parameter"));
    EXPECT_TRUE(
        capture.contains("Could not read parameter 'kernel': '3 3' is not a valid 3-vector of 32-bit integer",
                         "Host.Parameter"));
    s.configuration(nullptr);
    s.configure(nullptr);
}

TEST(Configurable, ParametersAndOwnersForgetEachOtherWhenDestroyed)
{
    Configurable owner;
    {
        Parameter<int> temporary("temporary", 1, &owner);
        EXPECT_EQ(owner.parameter("temporary"), &temporary);
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

    Parameter<int> moved("moved", 1, &owner);
    Configurable second;
    second.registerParameter(&moved);
    EXPECT_TRUE(owner.parameters().empty());
    second.unregisterParameter(&moved);
    EXPECT_EQ(moved.parent(), nullptr);
}

TEST(ConfigurableCopy, CopiesAndAssignmentsRegisterTheirOwnParameters)
{
    Smoothing original;
    original.p_sigma = 4.0;
    Smoothing copy(original);
    ASSERT_EQ(copy.parameters().size(), 4u);
    EXPECT_EQ(copy.parameters()[0], &copy.p_sigma);
    EXPECT_EQ(copy.parameters()[3], &copy.p_kernel);
    Properties p{{"sigma", 9.0}};
    copy.configure(&p);
    EXPECT_EQ(copy.p_sigma, 9.0);
    EXPECT_EQ(original.p_sigma, 4.0) << "the copy must not configure the original";

    int changes = 0;
    copy.p_sigma.signalValueChanged.connect([&](double const&) { ++changes; });
    copy = original;
    EXPECT_EQ(copy.p_sigma, 4.0);
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(copy.parameters()[0], &copy.p_sigma);
    EXPECT_EQ(original.parameters()[0], &original.p_sigma);
}

TEST(ConfigurableCopy, NestedSubPropertiesRegisterWithTheirOwnCopies)
{
    Outer original;
    original.p_pipeline->p_smoothing->p_mode = "box";
    std::vector<Outer> copies(2, original);
    for (Outer& copy : copies) {
        EXPECT_EQ(copy.parameters()[0], &copy.p_pipeline);
        EXPECT_EQ(copy.p_pipeline->parameters()[1], &copy.p_pipeline.value().p_smoothing);
        EXPECT_EQ(copy.p_pipeline->p_smoothing->parameters()[2], &copy.p_pipeline->p_smoothing->p_mode);
        EXPECT_EQ(copy.p_pipeline->p_smoothing->p_mode.value(), "box");
    }
}

TEST(ConfigurableCopy, SetParentFromCopyTakesStateForHandmadeCopies)
{
    Handmade original;
    original.p_size = 12;
    Handmade copy(original);
    EXPECT_EQ(copy.p_size.value(), 12);
    EXPECT_EQ(copy.p_size.defaultValue(), 4);
    EXPECT_EQ(copy.p_size.label(), original.p_size.label());
    EXPECT_EQ(copy.p_size.deprecatedNames(), (std::vector<std::string>{"old_size"}));
    EXPECT_EQ(copy.parameters(), (std::vector<ParameterBase*>{&copy.p_size}));

    Configurable other;
    Parameter<int> loose("loose", 0);
    loose.setParentFromCopy(original.p_size, &other);
    EXPECT_EQ(loose.value(), 12);
    EXPECT_EQ(loose.name(), "loose");
    EXPECT_EQ(other.parameters(), (std::vector<ParameterBase*>{&loose}));
}

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

TEST(Parameter, SignalFiresOncePerRealChange)
{
    Parameter<double> p("p", 0.0);
    std::vector<double> seen;
    p.signalValueChanged.connect([&](double const& v) { seen.push_back(v); });
    double const nan = std::numeric_limits<double>::quiet_NaN();
    // Signed zeros differ, NaN equals NaN.
    for (double value : {1.0, 1.0, -0.0, 0.0, nan, nan})
        p = value;
    p.setToDefault();
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_EQ(p.value(), 0.0);
    EXPECT_FALSE(p.setValue(0.0));
    EXPECT_TRUE(p.setValue(2.0));
}

TEST(SubProperty, IsStoredAsANamedSubTree)
{
    Outer outer;
    outer.p_pipeline->p_threads = 8;
    outer.p_pipeline->p_smoothing->p_sigma = 0.25;
    Properties p;
    outer.configuration(&p);
    EXPECT_EQ(p.paramKeys(), (std::vector<std::string>{"fields"}));
    Properties const* pipeline = p.findSubProperties("Pipeline");
    ASSERT_NE(pipeline, nullptr);
    EXPECT_EQ(pipeline->paramValueText("threads"), "8");
    ASSERT_NE(pipeline->findSubProperties("Smoothing"), nullptr);
    EXPECT_EQ(pipeline->findSubProperties("Smoothing")->paramValueText("sigma"), "0.25");

    Outer other;
    other.configure(&p);
    EXPECT_EQ(other.p_pipeline->p_threads, 8);
    EXPECT_EQ((*other.p_pipeline).p_smoothing->p_sigma, 0.25);
    other.configureDefaults();
    EXPECT_EQ(other.p_pipeline->p_smoothing->p_sigma, 1.0);
}

TEST(Parameter, DeprecatedNamesConfigureAndWinOverTheName)
{
    Configurable owner;
    Parameter<int> size("size", 1, &owner);
    size.addDeprecatedName("old_size");
    Log::Capture capture;
    Properties both{{"old_size", 6}, {"size", 7}};
    EXPECT_TRUE(size.configure(&both));
    EXPECT_EQ(size.value(), 6);
    EXPECT_TRUE(capture.contains("Using deprecated parameter 'old_size'. Please use 'size' instead.",
                                 "Host.Parameter"));
    Properties badOld{{"old_size", "x"}, {"size", 8}};
    EXPECT_TRUE(size.configure(&badOld));
    EXPECT_EQ(size.value(), 8) << "an unreadable deprecated key falls through to the name";
    Properties none{{"other", 1}};
    EXPECT_FALSE(size.configure(&none));
    EXPECT_FALSE(size.configure(nullptr));

    // A sub-property reads the first sub-tree of its name, or one of a deprecated name.
    Pipeline pipeline;
    pipeline.p_smoothing.addDeprecatedName("Blur");
    Properties p;
    p.addSubProperties("Smoothing")->setParam("sigma", 2.0);
    p.addSubProperties("Smoothing")->setParam("sigma", 3.0);
    EXPECT_TRUE(pipeline.p_smoothing.configure(&p));
    EXPECT_EQ(pipeline.p_smoothing->p_sigma, 2.0);
    Properties old;
    old.addSubProperties("Blur")->setParam("sigma", 5.0);
    EXPECT_TRUE(pipeline.p_smoothing.configure(&old));
    EXPECT_EQ(pipeline.p_smoothing->p_sigma, 5.0);
    EXPECT_TRUE(capture.contains("Using deprecated parameter 'Blur'. Please use 'Smoothing' instead.",
                                 "Host.Parameter"));
    EXPECT_FALSE(pipeline.p_smoothing.configure(&none));
}

class SettingsFile : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_folder.isValid()); }
    std::string at(std::string const& name) const { return (m_folder.path() / name).str(); }

    Filesystem::TemporaryDirectory m_folder{"settings"};
    Settings m_settings;
};

TEST_F(SettingsFile, SlashedKeysAreNestedSubTreesAndMalformedOnesAreRefused)
{
    EXPECT_TRUE(m_settings.setValue("ml/defaultModelFolder", std::string("/models")));
    EXPECT_TRUE(m_settings.setValue("ml/engine/threads", 4));
    Properties const tree = m_settings.snapshot();
    ASSERT_NE(tree.findSubProperties("ml"), nullptr);
    ASSERT_NE(tree.findSubProperties("ml")->findSubProperties("engine"), nullptr);
    EXPECT_EQ(tree.findSubProperties("ml")->findSubProperties("engine")->paramValueText("threads"), "4");
    EXPECT_EQ(m_settings.valueOr("ml/engine/threads", 0), 4);
    EXPECT_EQ(m_settings.valueOr("ml/engine/missing", 9), 9);
    EXPECT_EQ(m_settings.valueOr("nowhere/threads", 9), 9);
    EXPECT_TRUE(m_settings.remove("ml/engine/threads"));
    EXPECT_FALSE(m_settings.contains("ml/engine/threads"));
    EXPECT_FALSE(m_settings.remove("ml/engine/threads"));
    EXPECT_EQ(&Settings::get(), &Settings::get()) << "one process-wide instance";

    Log::Capture capture;
    for (std::string const key : {"", "/a", "a/", "a//b", "/"}) {
        EXPECT_FALSE(m_settings.setValue(key, 1)) << key;
        EXPECT_FALSE(m_settings.contains(key)) << key;
        EXPECT_TRUE(capture.contains(
            "Invalid settings key '" + key + "': keys are names separated by single '/'", "Host.Settings"));
    }
    EXPECT_EQ(m_settings.snapshot().subPropertiesCount(), 1u) << "only ml/ remains";
}

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
    EXPECT_NE(PropertiesIO::loadFromXML(path, Settings::RootElement), nullptr)
        << "a <settings> property file";

    Settings loaded;
    std::vector<std::string> changes;
    loaded.signalChanged.connect([&](std::string const& key) { changes.push_back(key); });
    ASSERT_TRUE(loaded.load(path));
    EXPECT_EQ(changes, (std::vector<std::string>{""}));
    EXPECT_TRUE(loaded.snapshot() == m_settings.snapshot());
    EXPECT_EQ(Setting<Eigen::Vector3d>("image/spacing", Eigen::Vector3d::Zero(), loaded).value(),
              Eigen::Vector3d(0.5, 0.5, 2));
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

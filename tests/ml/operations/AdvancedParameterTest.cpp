// Tests of AdvancedParameter: registration with an owner, required/optional keys, deprecated
// names and their precedence, the "required" attribute, enumerations read as integers or names,
// the messages of every failure, and the written configuration. The owner is a minimal class
// that meets the owner contract, and the parameter types are those the library instantiates.
// Then the text forms that processing lists use (ComputingDevice, ParamUnit, ProcessingPolicy,
// the Phase mask) and the readers of size-like keys that take one value, two or three.

#include "ml/operations/AdvancedParameter.h"

#include "ml/TestHelpers.h"
#include "ml/operations/Operation.h"
#include "ml/operations/OperationEnums.h"
#include "ml/operations/ParamException.h"
#include "ml/operations/ParamReading.h"
#include "ml/operations/Phase.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <Eigen/Core>
#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

// The smallest owner: a name and a list.
class Owner
{
public:
    explicit Owner(std::string name)
        : m_name(std::move(name))
    {}
    std::string const& name() const { return m_name; }
    void registerParameter(ParameterBase* parameter) { registered.push_back(parameter); }
    void unregisterParameter(ParameterBase const* parameter) { std::erase(registered, parameter); }

    std::vector<ParameterBase*> registered;

private:
    std::string m_name;
};

enum class Color
{
    Red,
    Green,
    Blue,
};

std::vector<std::string> const kColors = {"Red", "Green", "Blue"};

std::string colorToString(Color color)
{
    if (static_cast<std::size_t>(color) >= kColors.size())
        throw std::runtime_error("no name for color " + std::to_string(static_cast<int>(color)));
    return kColors[static_cast<std::size_t>(color)];
}

Color stringToColor(std::string const& text)
{
    auto const found = std::find(kColors.begin(), kColors.end(), text);
    if (found == kColors.end())
        throw std::runtime_error("Unknown color '" + text + "'");
    return static_cast<Color>(found - kColors.begin());
}

Properties const kEmpty;

template <class Function>
std::string paramExceptionText(Function&& function)
{
    try {
        function();
    } catch (ParamException const& e) {
        return e.what();
    }
    return "<no ParamException>";
}

// ---- Registration and basic reading ------------------------------------------------------------

TEST(AdvancedParameter, RegistersWithItsOwnerInOrderAndLeavesOnDestruction)
{
    Owner owner("Owner");
    AdvancedParameter<int, Owner> a{"a", 1, &owner};
    AdvancedParameter<double, Owner> b{"b", 2.0, &owner};
    {
        AdvancedParameter<bool, Owner> c{"c", false, &owner};
        EXPECT_EQ(owner.registered, (std::vector<ParameterBase*>{&a, &b, &c}));
    }
    EXPECT_EQ(owner.registered, (std::vector<ParameterBase*>{&a, &b}));
    AdvancedParameter<int, Owner> loose{"loose", 0};
    EXPECT_EQ(loose.owner(), nullptr);

    // An operation is an owner.
    class Op : public Operation
    {
    public:
        Op()
            : Operation("Op", ProcessingPolicy::Everything)
        {}
        AdvancedParameter<int, Operation> p_x = {"x", 3, this, ParamRequired::Yes, "old_x"};
    };
    Op op;
    EXPECT_EQ(op.p_x.deprecatedNames(), std::vector<std::string>{"old_x"});
    auto heap = std::make_unique<AdvancedParameter<int, Operation>>("y", 0, &op);
    EXPECT_EQ(op.parameters(), (std::vector<ParameterBase*>{&op.p_x, heap.get()}));
    heap.reset();
    EXPECT_EQ(op.parameters(), std::vector<ParameterBase*>{&op.p_x});
}

class AdvancedParameterConfigure : public ::testing::Test
{
protected:
    Owner owner{"Owner"};
    Log::Capture capture;
};

TEST_F(AdvancedParameterConfigure, ReadValueIsStoredAndTheSignalFiresOnRealChangesOnly)
{
    AdvancedParameter<int, Owner> p{"size", 4, &owner};
    int signals = 0;
    p.signalValueChanged.connect([&](int const&) { ++signals; });
    // A null tree or a missing optional key keep the value.
    EXPECT_FALSE(p.configure(nullptr));
    EXPECT_FALSE(p.configure(&kEmpty));
    EXPECT_EQ(p.value(), 4);
    Properties props{{"size", 7}};
    EXPECT_TRUE(p.configure(&props));
    EXPECT_TRUE(p.configure(&props));
    EXPECT_EQ(p.value(), 7);
    EXPECT_EQ(signals, 1);
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(AdvancedParameterConfigure, MissingRequiredKeyThrowsAndLogsInTheOwnersCategory)
{
    AdvancedParameter<int, Owner> p{"size", 4, &owner, ParamRequired::Yes};
    EXPECT_EQ(paramExceptionText([&] { p.configure(&kEmpty); }),
              "Missing required configure parameter 'size'");
    EXPECT_TRUE(capture.contains("Missing required configure parameter 'size'", "ML.Owner"));
    EXPECT_EQ(capture.records()[0].level, Log::Error);
    EXPECT_EQ(p.value(), 4);

    // Without an owner there is nobody to name: the exception alone tells.
    capture.clear();
    AdvancedParameter<int, Owner> loose{"size", 4, nullptr, ParamRequired::Yes};
    EXPECT_THROW(loose.configure(&kEmpty), ParamException);
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(AdvancedParameterConfigure, UnparsableValueThrowsEvenWhenOptional)
{
    AdvancedParameter<double, Owner> p{"sigma", 1.5, &owner};
    Properties props{{"sigma", "wide"}};
    std::string const text = "Parameter 'sigma' could not be parsed, please check the syntax";
    EXPECT_EQ(paramExceptionText([&] { p.configure(&props); }), text);
    EXPECT_TRUE(capture.contains(text, "ML.Owner"));
    EXPECT_EQ(p.value(), 1.5);

    // So is an unreadable deprecated key when nothing else is given.
    AdvancedParameter<int, Owner> q{"size", 1, &owner, ParamRequired::No, "old_size"};
    Properties old{{"old_size", "big"}};
    EXPECT_EQ(paramExceptionText([&] { q.configure(&old); }),
              "Parameter 'old_size' could not be parsed, please check the syntax");
    EXPECT_EQ(q.value(), 1);
}

TEST_F(AdvancedParameterConfigure, RequiredAttributeOfTheTreeOverrulesTheDeclaration)
{
    AdvancedParameter<int, Owner> p{"size", 4, &owner, ParamRequired::Yes};
    Properties props{{"size", 5}};
    props.setParamAttributes("size", "required: false");
    EXPECT_TRUE(p.configure(&props));
    EXPECT_EQ(p.required(), ParamRequired::No);
    EXPECT_FALSE(p.configure(&kEmpty));

    AdvancedParameter<int, Owner> q{"size", 4, &owner, ParamRequired::No};
    props.setParamAttributes("size", "required: yes");
    EXPECT_TRUE(q.configure(&props));
    EXPECT_EQ(q.required(), ParamRequired::Yes);
    EXPECT_THROW(q.configure(&kEmpty), ParamException);
}

// ---- Deprecated names ------------------------------------------------------------------------------

struct DeprecatedCase
{
    std::string label;
    Properties properties;
    int expected;
    std::string warningCategory; // empty: no deprecation warning
    bool ownerLess = false;
};

class DeprecatedNameTest : public ::testing::TestWithParam<DeprecatedCase>
{};

TEST_P(DeprecatedNameTest, DeprecatedNamesAreTriedFirst)
{
    DeprecatedCase const& c = GetParam();
    Owner owner("Resample");
    AdvancedParameter<int, Owner> p{"size", 1, c.ownerLess ? nullptr : &owner, ParamRequired::No, "old_size"};
    p.addDeprecatedName("older_size");
    Log::Capture capture;
    EXPECT_TRUE(p.configure(&c.properties));
    EXPECT_EQ(p.value(), c.expected);
    int const warnings =
        capture.count("Using deprecated parameter 'old_size'. Please use: 'size' instead.") +
        capture.count("Using deprecated parameter 'older_size'. Please use: 'size' instead.");
    if (c.warningCategory.empty()) {
        EXPECT_EQ(warnings, 0);
    } else {
        ASSERT_EQ(warnings, 1);
        EXPECT_EQ(capture.records()[0].category, c.warningCategory);
        EXPECT_EQ(capture.records()[0].level, Log::Warning);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Precedence, DeprecatedNameTest,
    ::testing::Values(
        DeprecatedCase{"CurrentOnly", Properties{{"size", 3}}, 3, ""},
        DeprecatedCase{"DeprecatedOnly", Properties{{"old_size", 4}}, 4, "ML.Resample"},
        DeprecatedCase{"BothDeprecatedWins", Properties{{"size", 3}, {"old_size", 4}}, 4, "ML.Resample"},
        DeprecatedCase{"FirstDeprecatedWins", Properties{{"older_size", 5}, {"old_size", 4}}, 4,
                       "ML.Resample"},
        DeprecatedCase{"UnreadableDeprecatedFallsThrough", Properties{{"old_size", "x"}, {"older_size", 6}},
                       6, "ML.Resample"},
        DeprecatedCase{"UnreadableDeprecatedCurrentReadable", Properties{{"old_size", "x"}, {"size", 2}}, 2,
                       ""},
        DeprecatedCase{"WithoutOwner", Properties{{"old_size", 8}}, 8, "ML.AdvancedParameter", true}),
    [](auto const& info) { return info.param.label; });

// ---- Enumerations --------------------------------------------------------------------------------

class EnumParameter : public AdvancedParameterConfigure
{
protected:
    AdvancedParameter<Color, Owner> named{"color",       Color::Red,    &owner, ParamRequired::No,
                                          colorToString, stringToColor, kColors};
    AdvancedParameter<Color, Owner> bare{"shade", Color::Red, &owner};
};

TEST_F(EnumParameter, IntegersAreTakenWithoutRangeCheckAndNamesGoThroughStringToEnum)
{
    Properties props{{"color", 2}, {"shade", 9}};
    EXPECT_TRUE(named.configure(&props));
    EXPECT_TRUE(bare.configure(&props));
    EXPECT_EQ(named.value(), Color::Blue);
    EXPECT_EQ(static_cast<int>(bare.value()), 9);

    Properties names{{"color", "Green"}};
    EXPECT_TRUE(named.configure(&names));
    EXPECT_EQ(named.value(), Color::Green);
}

TEST_F(EnumParameter, RejectedNamesLogWhyAndThrowUnparsable)
{
    Properties props{{"color", "Purple"}, {"shade", "Green"}};
    EXPECT_EQ(paramExceptionText([&] { named.configure(&props); }),
              "Parameter 'color' could not be parsed, please check the syntax");
    EXPECT_TRUE(capture.contains("Unknown color 'Purple'", "ML.Owner"));
    EXPECT_EQ(named.value(), Color::Red);

    // Without a string-to-enum function, the log explains how to declare the parameter.
    EXPECT_THROW(bare.configure(&props), ParamException);
    EXPECT_TRUE(capture.containsFragment("Enum Parameter `shade` is stored as string, but no string to enum "
                                         "function was given. Please instantiate your Enum Parameter as"));
    EXPECT_TRUE(
        capture.contains("Parameter 'shade' could not be parsed, please check the syntax", "ML.Owner"));
}

TEST_F(EnumParameter, ConfigurationWritesNamesWithTheEnumerationKind)
{
    named = Color::Blue;
    Properties props;
    named.configuration(&props);
    bare.configuration(&props);
    EXPECT_EQ(props.paramValueText("color"), "Blue");
    EXPECT_EQ(ParamType::kind(props.paramType("color")), ParamType::Enumeration);
    EXPECT_EQ(props.paramAttribute("color", "values"), "Red,Green,Blue");
    EXPECT_EQ(props.paramAttribute("color", "default"), "Red");

    // Without text forms: the integer, of the integer kind.
    EXPECT_EQ(props.paramValueText("shade"), "0");
    EXPECT_EQ(ParamType::kind(props.paramType("shade")), ParamType::Int);

    // What is written reads back.
    AdvancedParameter<Color, Owner> other{"color",       Color::Red,    nullptr, ParamRequired::Yes,
                                          colorToString, stringToColor, kColors};
    EXPECT_TRUE(other.configure(&props));
    EXPECT_EQ(other.value(), Color::Blue);

    // A value without a name falls back to the integer form, still of the enumeration kind ...
    named = static_cast<Color>(7);
    named.configuration(&props);
    EXPECT_EQ(props.paramValueText("color"), "7");
    EXPECT_EQ(ParamType::kind(props.paramType("color")), ParamType::Enumeration);
    // ... and so do values without converters.
    AdvancedParameter<ParamUnit, Owner> unit{"unit",  ParamUnit::Voxel, &owner,  ParamRequired::No,
                                             "units", nullptr,          nullptr, {"MM", "Fraction", "Voxel"}};
    unit.configuration(&props);
    EXPECT_EQ(props.paramValueText("unit"), "2");
    EXPECT_EQ(ParamType::kind(props.paramType("unit")), ParamType::Enumeration);
    EXPECT_EQ(props.paramAttribute("unit", "values"), "MM,Fraction,Voxel");
    EXPECT_EQ(props.paramAttribute("unit", "deprecatedName"), "units");
}

// ---- The library's value types ---------------------------------------------------------------------

// What is written reads back, and text that is not a T is refused without changing the value.
template <class T>
void expectRoundTripAndRefusal(T const& sample, T const& zero, char const* bad)
{
    SCOPED_TRACE(bad);
    Owner owner("Types");
    AdvancedParameter<T, Owner> source{"v", zero, &owner};
    source = sample;
    Properties props;
    source.configuration(&props);

    AdvancedParameter<T, Owner> target{"v", zero, &owner, ParamRequired::Yes};
    EXPECT_TRUE(target.configure(&props));
    EXPECT_TRUE(ValueText::sameValue(target.value(), sample));

    Log::Capture capture;
    Properties badProps{{"v", bad}};
    EXPECT_THROW(target.configure(&badProps), ParamException);
    EXPECT_TRUE(ValueText::sameValue(target.value(), sample));
    EXPECT_TRUE(capture.contains("Parameter 'v' could not be parsed, please check the syntax", "ML.Types"));
}

TEST(AdvancedParameterTypes, WrittenValuesReadBackAndBadTextIsRefused)
{
    expectRoundTripAndRefusal(-12, 0, "1.5");
    expectRoundTripAndRefusal(1UL << 40, 0UL, "-1");
    expectRoundTripAndRefusal(std::optional<double>(2.5), std::optional<double>(), "two");
    expectRoundTripAndRefusal(Eigen::Vector3d(1.0, -2.0, 0.5), Eigen::Vector3d::Zero().eval(), "1 2");
    expectRoundTripAndRefusal(std::vector<Eigen::Vector3f>{{1, 2, 3}, {4, 5, 6}},
                              std::vector<Eigen::Vector3f>(), "1 2 3 4");
}

using Policy = Operation::ProcessingPolicy;

TEST(ParamText, ComputingDeviceNamesAndNumbers)
{
    std::pair<std::string, int> const spellings[] = {
        {"gpuifopengl", 2}, {"gpu_if_glimage", 1}, {"ForceGPU", 3}, {"FORCE_CPU", 0}, {" 2", 2},
        {"-1", -1},         {"3 gpus", 3}};
    for (auto const& [text, value] : spellings)
        EXPECT_EQ(static_cast<int>(stringToDevice(text)), value) << text;
    for (int value : {0, 1, 2, 3, 7, -4})
        EXPECT_EQ(static_cast<int>(stringToDevice(deviceToString(static_cast<ComputingDevice>(value)))),
                  value);
    for (std::string const text : {"", "force-gpu", "99999999999999999999"})
        MLTest::expectThrowWithMessage<ParamException>(
            [&] { stringToDevice(text); },
            "Unknown computing device '" + text +
                "', supported are ['gpu_if_opengl', 'gpu_if_glimage', 'force_gpu', 'force_cpu']");
}

TEST(ParamText, UnitsAndPoliciesReadBackAndRefuseUnknownNames)
{
    for (auto const& [text, unit] : std::vector<std::pair<std::string, ParamUnit>>{
             {"mm", ParamUnit::MM}, {"FRACTION", ParamUnit::Fraction}, {"Voxel", ParamUnit::Voxel}}) {
        EXPECT_EQ(stringToParamUnit(text), unit) << text;
        EXPECT_EQ(stringToParamUnit(paramUnitToString(unit)), unit) << text;
    }
    EXPECT_EQ(paramUnitToString(static_cast<ParamUnit>(3)), "");
    MLTest::expectThrowWithMessage<std::runtime_error>(
        [] { stringToParamUnit("voxels"); },
        "Unknown param unit 'voxels', supported are ['MM', 'Fraction', 'Voxel']");

    for (auto const& [text, policy] :
         std::vector<std::pair<std::string, Policy>>{{"everything", Policy::Everything},
                                                     {"0", Policy::EverythingButLabels},
                                                     {"only_labels", Policy::OnlyLabels}})
        EXPECT_EQ(Operation::stringToProcessingPolicy(text), policy) << text;
    for (Policy policy : {Policy::EverythingButLabels, Policy::Everything, Policy::OnlyLabels})
        EXPECT_EQ(Operation::stringToProcessingPolicy(Operation::processingPolicyToString(policy)), policy);
    EXPECT_EQ(Operation::processingPolicyToString(static_cast<Policy>(3)), "");
    MLTest::expectThrowWithMessage<std::runtime_error>(
        [] { Operation::stringToProcessingPolicy("labels"); },
        "Unknown processing_policy 'labels', supported are ['EVERYTHING', 'EVERYTHING_BUT_LABELS', "
        "'ONLY_LABELS']");
}

TEST(ParamText, PhaseSpellingsNamesAndMasks)
{
    std::pair<std::string, unsigned> const spellings[] = {{"Train", 1},
                                                          {"test", 4},
                                                          {"\"Training\" \"Inference\"", 5},
                                                          {" \t\f\vvalidation\r\n", 2},
                                                          {"training training", 1},
                                                          {"inference always", 7}};
    for (auto const& [text, mask] : spellings)
        EXPECT_EQ(static_cast<unsigned>(stringToPhase(text)), mask) << "text: '" << text << "'";
    for (auto const& [text, word] : std::vector<std::pair<std::string, std::string>>{
             {"Training Bogus", "bogus"}, {"", ""}, {"training  validation", ""}})
        MLTest::expectThrowWithMessage<ParamException>(
            [&] { stringToPhase(text); },
            "Unknown phase '" + word + "', supported are ['training', 'validation', 'inference', 'always']");

    for (unsigned mask = 1; mask <= 7; ++mask)
        EXPECT_EQ(stringToPhase(phaseToString(static_cast<Phase>(mask))), static_cast<Phase>(mask)) << mask;
    EXPECT_EQ(phaseToString(static_cast<Phase>(6)), "Validation Inference");
    EXPECT_EQ(phaseToString(static_cast<Phase>(0)), "");
    EXPECT_EQ(phaseToString(static_cast<Phase>(8 | 2)), "Validation");
    EXPECT_EQ(phaseToString(static_cast<Phase>(0xF)), "Always");

    EXPECT_EQ(detail::multiStringToPhase({"train", "Validation"}), Phase::Training | Phase::Validation);
    EXPECT_THROW(detail::multiStringToPhase({"train", "later"}), ParamException);
    Phase mask = Phase::Training;
    mask |= Phase::Inference;
    EXPECT_TRUE(includesPhase(mask, Phase::Inference));
    EXPECT_FALSE(includesPhase(mask, Phase::Validation));
}

// ---- One value, two or three -------------------------------------------------------------------

TEST(ParamReading, ReadsThreeTwoOrOneValues)
{
    struct Case
    {
        std::string text;
        std::optional<Eigen::Vector3d> real;    // nullopt: not read
        std::optional<Eigen::Vector3i> integer; // nullopt: not read
    };
    for (Case const& c : {Case{"1 2 3", Eigen::Vector3d(1, 2, 3), Eigen::Vector3i(1, 2, 3)},
                          Case{"4 5", Eigen::Vector3d(4, 5, 9), Eigen::Vector3i(4, 5, 9)},
                          Case{"6", Eigen::Vector3d(6, 6, 6), Eigen::Vector3i(6, 6, 6)},
                          Case{"0.5 1.5", Eigen::Vector3d(0.5, 1.5, 9), std::nullopt},
                          Case{"2.5", Eigen::Vector3d(2.5, 2.5, 2.5), std::nullopt},
                          Case{"1 2 3 4", std::nullopt, std::nullopt},
                          Case{"large", std::nullopt, std::nullopt}, Case{"", std::nullopt, std::nullopt}}) {
        SCOPED_TRACE(c.text);
        Properties p;
        p.setParam("size", c.text);
        Eigen::Vector3d real(-1, -1, -1);
        EXPECT_EQ(detail::readVec3OrVec2OrScalar(p, "size", real, Eigen::Vector3d(7, 8, 9)),
                  c.real.has_value());
        EXPECT_EQ(real, c.real.value_or(Eigen::Vector3d(-1, -1, -1)));
        Eigen::Vector3i integer(-1, -1, -1);
        EXPECT_EQ(detail::readVec3iOrVec2iOrScalar(p, "size", integer, Eigen::Vector3i(7, 8, 9)),
                  c.integer.has_value());
        EXPECT_EQ(integer, c.integer.value_or(Eigen::Vector3i(-1, -1, -1)));
    }

    // A missing key reads nothing; a YAML sequence arrives as a list value and reads like text.
    Properties p;
    Eigen::Vector3i integer(1, 1, 1);
    EXPECT_FALSE(detail::readVec3iOrVec2iOrScalar(p, "size", integer, Eigen::Vector3i::Zero()));
    EXPECT_EQ(integer, Eigen::Vector3i(1, 1, 1));
    p.setParam("size", std::vector<std::string>{"3", "4"});
    EXPECT_TRUE(detail::readVec3iOrVec2iOrScalar(p, "size", integer, Eigen::Vector3i(0, 0, 1)));
    EXPECT_EQ(integer, Eigen::Vector3i(3, 4, 1));
}

} // namespace

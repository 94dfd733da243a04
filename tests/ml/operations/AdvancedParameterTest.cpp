// Tests of AdvancedParameter: registration with an owner, required/optional keys, deprecated
// names and their precedence, the "required" attribute, enumerations read as integers or names,
// the messages of every failure, and the written configuration. The owner is a minimal class
// that meets the owner contract, and the parameter types are those the library instantiates.

#include "ml/operations/AdvancedParameter.h"

#include "ml/operations/Operation.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <Eigen/Core>
#include <algorithm>
#include <optional>
#include <string>
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

TEST_F(AdvancedParameterConfigure, UnreadableDeprecatedKeyAloneIsAnError)
{
    AdvancedParameter<int, Owner> p{"size", 1, &owner, ParamRequired::No, "old_size"};
    Properties props{{"old_size", "big"}};
    EXPECT_EQ(paramExceptionText([&] { p.configure(&props); }),
              "Parameter 'old_size' could not be parsed, please check the syntax");
    EXPECT_EQ(p.value(), 1);
}

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

TEST_F(EnumParameter, CopyForANewOwnerTakesStateAndRegisters)
{
    named = Color::Green;
    Owner second("Second");
    AdvancedParameter<Color, Owner> copy(named, &second);
    EXPECT_EQ(copy.value(), Color::Green);
    EXPECT_EQ(copy.defaultValue(), Color::Red);
    EXPECT_EQ(copy.owner(), &second);
    EXPECT_EQ(second.registered, std::vector<ParameterBase*>{&copy});
    Properties props{{"color", "Blue"}};
    EXPECT_TRUE(copy.configure(&props));
    EXPECT_EQ(copy.value(), Color::Blue);
    EXPECT_EQ(named.value(), Color::Green);
}

// ---- The library's value types ---------------------------------------------------------------------

template <class T>
struct Sample;

template <>
struct Sample<int>
{
    static int value() { return -12; }
    static constexpr char const* bad = "1.5";
};
template <>
struct Sample<unsigned long>
{
    static unsigned long value() { return 1UL << 40; }
    static constexpr char const* bad = "-1";
};
template <>
struct Sample<std::optional<double>>
{
    static std::optional<double> value() { return 2.5; }
    static constexpr char const* bad = "two";
};
template <>
struct Sample<Eigen::Vector3d>
{
    static Eigen::Vector3d value() { return {1.0, -2.0, 0.5}; }
    static constexpr char const* bad = "1 2";
};
template <>
struct Sample<std::vector<Eigen::Vector3f>>
{
    static std::vector<Eigen::Vector3f> value() { return {{1, 2, 3}, {4, 5, 6}}; }
    static constexpr char const* bad = "1 2 3 4";
};

// A value other than the sample (Eigen leaves default-constructed values uninitialised).
template <class T>
T zeroOf()
{
    if constexpr (ValueText::FixedEigen<T>)
        return T::Zero();
    else
        return T{};
}

template <class T>
class ValueTypes : public ::testing::Test
{};

using LibraryTypes = ::testing::Types<int, unsigned long, std::optional<double>, Eigen::Vector3d,
                                      std::vector<Eigen::Vector3f>>;
TYPED_TEST_SUITE(ValueTypes, LibraryTypes);

TYPED_TEST(ValueTypes, WrittenValueReadsBackAndBadTextIsRefused)
{
    Owner owner("Types");
    AdvancedParameter<TypeParam, Owner> source{"v", zeroOf<TypeParam>(), &owner};
    source = Sample<TypeParam>::value();
    Properties props;
    source.configuration(&props);

    AdvancedParameter<TypeParam, Owner> target{"v", zeroOf<TypeParam>(), &owner, ParamRequired::Yes};
    EXPECT_TRUE(target.configure(&props));
    EXPECT_TRUE(ValueText::sameValue(target.value(), Sample<TypeParam>::value()));

    Log::Capture capture;
    Properties bad{{"v", Sample<TypeParam>::bad}};
    EXPECT_THROW(target.configure(&bad), ParamException);
    EXPECT_TRUE(ValueText::sameValue(target.value(), Sample<TypeParam>::value()));
    EXPECT_TRUE(capture.contains("Parameter 'v' could not be parsed, please check the syntax", "ML.Types"));
}

} // namespace

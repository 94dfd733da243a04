#include "host/core/Flags.h"

#include <gtest/gtest.h>

using namespace Velmoria;

namespace {
enum class Option : unsigned
{
    None = 0,
    A = 1,
    B = 2,
    C = 4,
    AB = 3,
};
}

TEST(Flags, SetTestAndClear)
{
    Flags<Option> flags;
    EXPECT_TRUE(flags.empty());
    flags |= Option::A;
    flags.set(Option::C);
    EXPECT_TRUE(flags.test(Option::A));
    EXPECT_FALSE(flags.test(Option::B));
    EXPECT_TRUE(flags.test(Option::C));
    EXPECT_EQ(flags.value(), 5u);
    flags.reset(Option::A);
    EXPECT_EQ(flags.value(), 4u);
    EXPECT_FALSE(flags.test(Option::None)) << "a zero flag is never reported as set";
}

TEST(Flags, MultiBitFlagNeedsAllBits)
{
    Flags<Option> flags = Option::A;
    EXPECT_FALSE(flags.test(Option::AB));
    EXPECT_TRUE(flags.testAny(Option::AB));
    flags |= Option::B;
    EXPECT_TRUE(flags.test(Option::AB));
}

TEST(Flags, OperatorsAndRawValueRoundTrip)
{
    Flags<Option> ab{Option::A, Option::B};
    Flags<Option> bc{Option::B, Option::C};
    EXPECT_EQ((ab & bc).value(), 2u);
    EXPECT_EQ((ab | bc).value(), 7u);
    EXPECT_EQ((ab ^ bc).value(), 5u);
    EXPECT_EQ(Flags<Option>::fromValue(ab.value()), ab);
    EXPECT_TRUE(static_cast<bool>(ab));
    EXPECT_FALSE(static_cast<bool>(Flags<Option>()));
}

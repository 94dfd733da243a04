// Tests of the Phase mask and its text forms: every spelling stringToPhase accepts (quotes,
// surrounding white space, two-phase strings), the names phaseToString gives, the round trip of
// all seven masks, and the exact message for an unknown word.

#include "ml/operations/Phase.h"

#include "ml/operations/ParamException.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Velmoria::ML;

namespace {

struct ReadCase
{
    std::string text;
    unsigned expected;
};

class StringToPhaseTest : public ::testing::TestWithParam<ReadCase>
{};

TEST_P(StringToPhaseTest, ReadsTheMask)
{
    EXPECT_EQ(static_cast<unsigned>(stringToPhase(GetParam().text)), GetParam().expected)
        << "text: '" << GetParam().text << "'";
}

INSTANTIATE_TEST_SUITE_P(
    Spellings, StringToPhaseTest,
    ::testing::Values(ReadCase{"training", 1}, ReadCase{"Train", 1}, ReadCase{"TRAINING", 1},
                      ReadCase{"validation", 2}, ReadCase{"Inference", 4}, ReadCase{"test", 4},
                      ReadCase{"always", 7}, ReadCase{"Always", 7}, ReadCase{"\"Training Validation\"", 3},
                      ReadCase{"Training Inference", 5}, ReadCase{"validation test", 6},
                      ReadCase{"\"Training\" \"Inference\"", 5}, ReadCase{" \t\f\vvalidation\r\n", 2},
                      ReadCase{"\n training validation inference \v", 7}, ReadCase{"training training", 1},
                      ReadCase{"inference always", 7}));

struct WriteCase
{
    unsigned mask;
    std::string text;
};

class PhaseToStringTest : public ::testing::TestWithParam<WriteCase>
{};

TEST_P(PhaseToStringTest, WritesNamesThatReadBack)
{
    Phase const phase = static_cast<Phase>(GetParam().mask);
    EXPECT_EQ(phaseToString(phase), GetParam().text);
    EXPECT_EQ(stringToPhase(phaseToString(phase)), phase);
}

INSTANTIATE_TEST_SUITE_P(AllMasks, PhaseToStringTest,
                         ::testing::Values(WriteCase{1, "Training"}, WriteCase{2, "Validation"},
                                           WriteCase{4, "Inference"}, WriteCase{3, "Training Validation"},
                                           WriteCase{5, "Training Inference"},
                                           WriteCase{6, "Validation Inference"}, WriteCase{7, "Always"}));

TEST(Phase, NoBitIsTheEmptyTextAndHighBitsAreIgnored)
{
    EXPECT_EQ(phaseToString(static_cast<Phase>(0)), "");
    EXPECT_EQ(phaseToString(static_cast<Phase>(8 | 2)), "Validation");
    EXPECT_EQ(phaseToString(static_cast<Phase>(0xF)), "Always");
}

struct BadCase
{
    std::string text;
    std::string word;
};

class UnknownPhaseTest : public ::testing::TestWithParam<BadCase>
{};

TEST_P(UnknownPhaseTest, ThrowsParamExceptionNamingTheWord)
{
    try {
        stringToPhase(GetParam().text);
        ADD_FAILURE() << "no exception for '" << GetParam().text << "'";
    } catch (ParamException const& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Unknown phase '" + GetParam().word +
                      "', supported are ['training', 'validation', 'inference', 'always']");
    }
}

INSTANTIATE_TEST_SUITE_P(Words, UnknownPhaseTest,
                         ::testing::Values(BadCase{"bogus", "bogus"}, BadCase{"Training Bogus", "bogus"},
                                           BadCase{"", ""}, BadCase{"training  validation", ""},
                                           BadCase{"training,validation", "training,validation"}));

TEST(Phase, DetailFunctionsAndOperators)
{
    EXPECT_EQ(detail::singleStringToPhase("TEST"), Phase::Inference);
    EXPECT_EQ(detail::multiStringToPhase({"train", "Validation"}), Phase::Training | Phase::Validation);
    EXPECT_EQ(static_cast<unsigned>(detail::multiStringToPhase({})), 0U);
    EXPECT_THROW(detail::multiStringToPhase({"train", "later"}), ParamException);

    Phase mask = Phase::Training;
    mask |= Phase::Inference;
    EXPECT_TRUE(includesPhase(mask, Phase::Inference));
    EXPECT_FALSE(includesPhase(mask, Phase::Validation));
    EXPECT_TRUE(includesPhase(Phase::Always, Phase::Validation));
    EXPECT_EQ(mask & Phase::Training, Phase::Training);
}

} // namespace

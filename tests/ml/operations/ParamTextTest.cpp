// The text forms that processing lists use for parameters: ComputingDevice, ParamUnit,
// Operation::ProcessingPolicy and the Phase mask (every spelling read, the names written and
// read back, the message for an unknown text naming it and the choices), and the readers of
// size-like keys that take one value, two or three.

#include "ml/TestHelpers.h"
#include "ml/operations/Operation.h"
#include "ml/operations/OperationEnums.h"
#include "ml/operations/ParamException.h"
#include "ml/operations/ParamReading.h"
#include "ml/operations/Phase.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

using Policy = Operation::ProcessingPolicy;

TEST(ParamText, ComputingDeviceNamesAndNumbers)
{
    std::vector<std::pair<std::string, int>> const spellings = {{"gpu_if_opengl", 2},
                                                                {"GPUIfOpenGl", 2},
                                                                {"gpuifopengl", 2},
                                                                {"gpu_if_glimage", 1},
                                                                {"GPUIfGlImage", 1},
                                                                {"force_gpu", 3},
                                                                {"ForceGPU", 3},
                                                                {"FORCE_CPU", 0},
                                                                {"forcecpu", 0},
                                                                {"0", 0},
                                                                {"1", 1},
                                                                {"7", 7},
                                                                {" 2", 2},
                                                                {"-1", -1},
                                                                {"3 gpus", 3}};
    for (auto const& [text, value] : spellings)
        EXPECT_EQ(static_cast<int>(stringToDevice(text)), value) << text;
    // Canonical names, and numbers for values outside the enumeration, read back.
    EXPECT_EQ(deviceToString(ComputingDevice::GPUIfGlImage), "GPUIfGlImage");
    EXPECT_EQ(deviceToString(static_cast<ComputingDevice>(7)), "7");
    for (int value : {0, 1, 2, 3, 7, -4})
        EXPECT_EQ(static_cast<int>(stringToDevice(deviceToString(static_cast<ComputingDevice>(value)))),
                  value);
    for (std::string const text : {"", "gpu", "force-gpu", "99999999999999999999", "cpu_if_opengl"})
        MLTest::expectThrowWithMessage<ParamException>(
            [&] { stringToDevice(text); },
            "Unknown computing device '" + text +
                "', supported are ['gpu_if_opengl', 'gpu_if_glimage', 'force_gpu', 'force_cpu']");
}

TEST(ParamText, UnitsInAnyCase)
{
    std::vector<std::pair<std::string, ParamUnit>> const spellings = {{"mm", ParamUnit::MM},
                                                                      {"MM", ParamUnit::MM},
                                                                      {"Fraction", ParamUnit::Fraction},
                                                                      {"FRACTION", ParamUnit::Fraction},
                                                                      {"voxel", ParamUnit::Voxel},
                                                                      {"Voxel", ParamUnit::Voxel}};
    for (auto const& [text, unit] : spellings) {
        EXPECT_EQ(stringToParamUnit(text), unit) << text;
        EXPECT_EQ(stringToParamUnit(paramUnitToString(unit)), unit) << text;
    }
    EXPECT_EQ(paramUnitToString(static_cast<ParamUnit>(3)), "");
    // A plain runtime_error, not a ParamException.
    try {
        stringToParamUnit("voxels");
        ADD_FAILURE() << "no exception";
    } catch (ParamException const&) {
        ADD_FAILURE() << "a unit error is a plain runtime_error";
    } catch (std::runtime_error const& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Unknown param unit 'voxels', supported are ['MM', 'Fraction', 'Voxel']");
    }
}

TEST(ParamText, ProcessingPolicyNamesAndNumbers)
{
    std::vector<std::pair<std::string, Policy>> const spellings = {
        {"everything", Policy::Everything},
        {"1", Policy::Everything},
        {"EverythingButLabels", Policy::EverythingButLabels},
        {"0", Policy::EverythingButLabels},
        {"only_labels", Policy::OnlyLabels},
        {"2", Policy::OnlyLabels}};
    for (auto const& [text, policy] : spellings)
        EXPECT_EQ(Operation::stringToProcessingPolicy(text), policy) << text;
    for (Policy policy : {Policy::EverythingButLabels, Policy::Everything, Policy::OnlyLabels})
        EXPECT_EQ(Operation::stringToProcessingPolicy(Operation::processingPolicyToString(policy)), policy);
    EXPECT_EQ(Operation::processingPolicyToString(Policy::EverythingButLabels), "EVERYTHING_BUT_LABELS");
    EXPECT_EQ(Operation::processingPolicyToString(static_cast<Policy>(3)), "");
    MLTest::expectThrowWithMessage<std::runtime_error>(
        [] { Operation::stringToProcessingPolicy("labels"); },
        "Unknown processing_policy 'labels', supported are ['EVERYTHING', 'EVERYTHING_BUT_LABELS', "
        "'ONLY_LABELS']");
}

TEST(ParamText, PhaseSpellingsQuotesAndWhiteSpace)
{
    std::vector<std::pair<std::string, unsigned>> const spellings = {
        {"training", 1},
        {"Train", 1},
        {"validation", 2},
        {"test", 4},
        {"Always", 7},
        {"\"Training Validation\"", 3},
        {"validation test", 6},
        {"\"Training\" \"Inference\"", 5},
        {" \t\f\vvalidation\r\n", 2},
        {"\n training validation inference \v", 7},
        {"training training", 1},
        {"inference always", 7}};
    for (auto const& [text, mask] : spellings)
        EXPECT_EQ(static_cast<unsigned>(stringToPhase(text)), mask) << "text: '" << text << "'";
    for (auto const& [text, word] :
         std::vector<std::pair<std::string, std::string>>{{"bogus", "bogus"},
                                                          {"Training Bogus", "bogus"},
                                                          {"", ""},
                                                          {"training  validation", ""},
                                                          {"training,validation", "training,validation"}})
        MLTest::expectThrowWithMessage<ParamException>(
            [&] { stringToPhase(text); },
            "Unknown phase '" + word + "', supported are ['training', 'validation', 'inference', 'always']");
}

TEST(ParamText, PhaseNamesReadBackAndMasksCombine)
{
    std::vector<std::pair<unsigned, std::string>> const names = {
        {1, "Training"},           {2, "Validation"},           {4, "Inference"}, {3, "Training Validation"},
        {5, "Training Inference"}, {6, "Validation Inference"}, {7, "Always"}};
    for (auto const& [mask, text] : names) {
        EXPECT_EQ(phaseToString(static_cast<Phase>(mask)), text);
        EXPECT_EQ(stringToPhase(text), static_cast<Phase>(mask)) << text;
    }
    // No bit is the empty text, and high bits are ignored.
    EXPECT_EQ(phaseToString(static_cast<Phase>(0)), "");
    EXPECT_EQ(phaseToString(static_cast<Phase>(8 | 2)), "Validation");
    EXPECT_EQ(phaseToString(static_cast<Phase>(0xF)), "Always");

    EXPECT_EQ(detail::multiStringToPhase({"train", "Validation"}), Phase::Training | Phase::Validation);
    EXPECT_EQ(static_cast<unsigned>(detail::multiStringToPhase({})), 0U);
    EXPECT_THROW(detail::multiStringToPhase({"train", "later"}), ParamException);
    Phase mask = Phase::Training;
    mask |= Phase::Inference;
    EXPECT_TRUE(includesPhase(mask, Phase::Inference));
    EXPECT_FALSE(includesPhase(mask, Phase::Validation));
    EXPECT_EQ(mask & Phase::Training, Phase::Training);
}

// ---- One value, two or three -------------------------------------------------------------------

struct ReadCase
{
    std::string label;
    std::string text;
    std::optional<Eigen::Vector3d> real;    // nullopt: not read
    std::optional<Eigen::Vector3i> integer; // nullopt: not read
};

class Vec3OrVec2OrScalarTest : public ::testing::TestWithParam<ReadCase>
{};

TEST_P(Vec3OrVec2OrScalarTest, ReadsTheFormsInOrder)
{
    ReadCase const& c = GetParam();
    Properties p;
    p.setParam("size", c.text);

    Eigen::Vector3d real(-1, -1, -1);
    EXPECT_EQ(detail::readVec3OrVec2OrScalar(p, "size", real, Eigen::Vector3d(7, 8, 9)), c.real.has_value());
    EXPECT_EQ(real, c.real.value_or(Eigen::Vector3d(-1, -1, -1)));

    Eigen::Vector3i integer(-1, -1, -1);
    EXPECT_EQ(detail::readVec3iOrVec2iOrScalar(p, "size", integer, Eigen::Vector3i(7, 8, 9)),
              c.integer.has_value());
    EXPECT_EQ(integer, c.integer.value_or(Eigen::Vector3i(-1, -1, -1)));
}

INSTANTIATE_TEST_SUITE_P(
    Forms, Vec3OrVec2OrScalarTest,
    ::testing::Values(ReadCase{"ThreeValues", "1 2 3", Eigen::Vector3d(1, 2, 3), Eigen::Vector3i(1, 2, 3)},
                      ReadCase{"TwoValuesTakeTheThirdFromDefaults", "4 5", Eigen::Vector3d(4, 5, 9),
                               Eigen::Vector3i(4, 5, 9)},
                      ReadCase{"ScalarFillsAll", "6", Eigen::Vector3d(6, 6, 6), Eigen::Vector3i(6, 6, 6)},
                      ReadCase{"Fractions", "0.5 1.5", Eigen::Vector3d(0.5, 1.5, 9), std::nullopt},
                      ReadCase{"FractionalScalar", "2.5", Eigen::Vector3d(2.5, 2.5, 2.5), std::nullopt},
                      ReadCase{"FourValues", "1 2 3 4", std::nullopt, std::nullopt},
                      ReadCase{"Text", "large", std::nullopt, std::nullopt},
                      ReadCase{"Empty", "", std::nullopt, std::nullopt}),
    [](auto const& info) { return info.param.label; });

TEST(ParamReading, MissingKeyAndListValues)
{
    Properties p;
    Eigen::Vector3d real(1, 1, 1);
    EXPECT_FALSE(detail::readVec3OrVec2OrScalar(p, "size", real, Eigen::Vector3d::Zero()));
    EXPECT_EQ(real, Eigen::Vector3d(1, 1, 1));

    // A YAML sequence arrives as a list value and reads like the text form.
    p.setParam("size", std::vector<std::string>{"3", "4"});
    Eigen::Vector3i integer;
    EXPECT_TRUE(detail::readVec3iOrVec2iOrScalar(p, "size", integer, Eigen::Vector3i(0, 0, 1)));
    EXPECT_EQ(integer, Eigen::Vector3i(3, 4, 1));
}

} // namespace

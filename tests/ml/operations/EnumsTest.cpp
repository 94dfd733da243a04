// The text forms of the operation enumerations as tables: ComputingDevice (names, numbers,
// values outside the enumeration), ParamUnit and Operation::ProcessingPolicy, each with its exact
// message for an unknown text and the exception type that carries it.

#include "ml/operations/Operation.h"
#include "ml/operations/OperationEnums.h"
#include "ml/operations/ParamException.h"

#include <gtest/gtest.h>

#include <string>

using namespace Velmoria::ML;

namespace {

struct DeviceCase
{
    std::string text;
    int expected;
};

class StringToDeviceTest : public ::testing::TestWithParam<DeviceCase>
{};

TEST_P(StringToDeviceTest, ReadsNamesAndNumbers)
{
    EXPECT_EQ(static_cast<int>(stringToDevice(GetParam().text)), GetParam().expected) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(Spellings, StringToDeviceTest,
                         ::testing::Values(DeviceCase{"gpu_if_opengl", 2}, DeviceCase{"GPUIfOpenGl", 2},
                                           DeviceCase{"gpuifopengl", 2}, DeviceCase{"gpu_if_glimage", 1},
                                           DeviceCase{"GPUIfGlImage", 1}, DeviceCase{"force_gpu", 3},
                                           DeviceCase{"ForceGPU", 3}, DeviceCase{"FORCE_CPU", 0},
                                           DeviceCase{"forcecpu", 0}, DeviceCase{"0", 0}, DeviceCase{"1", 1},
                                           DeviceCase{"2", 2}, DeviceCase{"3", 3}, DeviceCase{"7", 7},
                                           DeviceCase{" 2", 2}, DeviceCase{"-1", -1},
                                           DeviceCase{"3 gpus", 3}));

class UnknownDeviceTest : public ::testing::TestWithParam<std::string>
{};

TEST_P(UnknownDeviceTest, ThrowsParamException)
{
    try {
        stringToDevice(GetParam());
        ADD_FAILURE() << "no exception for '" << GetParam() << "'";
    } catch (ParamException const& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Unknown computing device '" + GetParam() +
                      "', supported are ['gpu_if_opengl', 'gpu_if_glimage', 'force_gpu', 'force_cpu']");
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, UnknownDeviceTest,
                         ::testing::Values("", "gpu", "force-gpu", "99999999999999999999", "cpu_if_opengl"));

TEST(DeviceToString, CanonicalNamesAndNumbersOutsideTheEnumeration)
{
    EXPECT_EQ(deviceToString(ComputingDevice::ForceCPU), "ForceCPU");
    EXPECT_EQ(deviceToString(ComputingDevice::GPUIfGlImage), "GPUIfGlImage");
    EXPECT_EQ(deviceToString(ComputingDevice::GPUIfOpenGl), "GPUIfOpenGl");
    EXPECT_EQ(deviceToString(ComputingDevice::ForceGPU), "ForceGPU");
    EXPECT_EQ(deviceToString(static_cast<ComputingDevice>(7)), "7");
    for (int value : {0, 1, 2, 3, 7, -4})
        EXPECT_EQ(static_cast<int>(stringToDevice(deviceToString(static_cast<ComputingDevice>(value)))),
                  value);
}

struct UnitCase
{
    std::string text;
    ParamUnit unit;
};

class ParamUnitTest : public ::testing::TestWithParam<UnitCase>
{};

TEST_P(ParamUnitTest, ReadsAnyCase)
{
    EXPECT_EQ(stringToParamUnit(GetParam().text), GetParam().unit);
    EXPECT_EQ(stringToParamUnit(paramUnitToString(GetParam().unit)), GetParam().unit);
}

INSTANTIATE_TEST_SUITE_P(Spellings, ParamUnitTest,
                         ::testing::Values(UnitCase{"mm", ParamUnit::MM}, UnitCase{"MM", ParamUnit::MM},
                                           UnitCase{"Fraction", ParamUnit::Fraction},
                                           UnitCase{"FRACTION", ParamUnit::Fraction},
                                           UnitCase{"voxel", ParamUnit::Voxel},
                                           UnitCase{"Voxel", ParamUnit::Voxel}));

TEST(ParamUnitNames, CanonicalNamesAndUnknownText)
{
    EXPECT_EQ(paramUnitToString(ParamUnit::MM), "MM");
    EXPECT_EQ(paramUnitToString(ParamUnit::Fraction), "Fraction");
    EXPECT_EQ(paramUnitToString(ParamUnit::Voxel), "Voxel");
    EXPECT_EQ(paramUnitToString(static_cast<ParamUnit>(3)), "");
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

using Policy = Operation::ProcessingPolicy;

struct PolicyCase
{
    std::string text;
    Policy policy;
};

class ProcessingPolicyTest : public ::testing::TestWithParam<PolicyCase>
{};

TEST_P(ProcessingPolicyTest, ReadsNamesAndNumbers)
{
    EXPECT_EQ(Operation::stringToProcessingPolicy(GetParam().text), GetParam().policy) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(Spellings, ProcessingPolicyTest,
                         ::testing::Values(PolicyCase{"everything", Policy::Everything},
                                           PolicyCase{"EVERYTHING", Policy::Everything},
                                           PolicyCase{"1", Policy::Everything},
                                           PolicyCase{"EverythingButLabels", Policy::EverythingButLabels},
                                           PolicyCase{"EVERYTHING_BUT_LABELS", Policy::EverythingButLabels},
                                           PolicyCase{"0", Policy::EverythingButLabels},
                                           PolicyCase{"OnlyLabels", Policy::OnlyLabels},
                                           PolicyCase{"only_labels", Policy::OnlyLabels},
                                           PolicyCase{"2", Policy::OnlyLabels}));

TEST(ProcessingPolicyNames, CanonicalNamesRoundTripAndUnknownText)
{
    EXPECT_EQ(Operation::processingPolicyToString(Policy::EverythingButLabels), "EVERYTHING_BUT_LABELS");
    EXPECT_EQ(Operation::processingPolicyToString(Policy::Everything), "EVERYTHING");
    EXPECT_EQ(Operation::processingPolicyToString(Policy::OnlyLabels), "ONLY_LABELS");
    EXPECT_EQ(Operation::processingPolicyToString(static_cast<Policy>(3)), "");
    for (Policy policy : {Policy::EverythingButLabels, Policy::Everything, Policy::OnlyLabels})
        EXPECT_EQ(Operation::stringToProcessingPolicy(Operation::processingPolicyToString(policy)), policy);
    try {
        Operation::stringToProcessingPolicy("labels");
        ADD_FAILURE() << "no exception";
    } catch (std::runtime_error const& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Unknown processing_policy 'labels', supported are ['EVERYTHING', 'EVERYTHING_BUT_LABELS', "
                  "'ONLY_LABELS']");
    }
}

} // namespace

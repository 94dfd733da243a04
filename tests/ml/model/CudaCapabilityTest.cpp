// Compute capability texts, the support rule, and the device check run against fake device data
// (the build machines have no GPU, and the check must not need one).

#include "ml/model/CudaCapability.h"

#include "ml/model/CudaDeviceManager.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velmoria::ML {
namespace {

TEST(CudaCapabilityParse, FindsTheFirstVersionWithItsPtxFlag)
{
    struct Case
    {
        std::string text;
        std::optional<CudaComputeCapability> expected;
    };
    Case const cases[] = {
        {"8.6", CudaComputeCapability{8, 6, false}},
        {"9.0+PTX", CudaComputeCapability{9, 0, true}},
        {"10.0a+PTX", CudaComputeCapability{10, 0, true}},
        {"7.12", CudaComputeCapability{7, 12, false}},
        {"arch 7.5 only", CudaComputeCapability{7, 5, false}},
        {"8.0+ptx", CudaComputeCapability{8, 0, false}}, // the flag is upper case only
        {"sm_86", std::nullopt},
        {"", std::nullopt},
        {"99999999999.0", std::nullopt},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(CudaComputeCapability::parse(c.text), c.expected);
    }

    auto const list = CudaComputeCapability::parseList("8.0;8.6 9.0+PTX");
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list[2], (CudaComputeCapability{9, 0, true}));
    EXPECT_EQ(list[1].toString(), "8.6");
    EXPECT_EQ(list[2].toString(), "9.0+PTX");
}

struct SupportCase
{
    std::string label;
    int major, minor, runtimeMajor, runtimeMinor;
    std::string entries; // parsed with parseList
    bool expected;
    std::string fragment; // of the expected log line, empty for none at error level
};

class CudaSupportTest : public ::testing::TestWithParam<SupportCase>
{};

TEST_P(CudaSupportTest, Decides)
{
    SupportCase const& c = GetParam();
    int const level = Log::g_globalLevel;
    Log::g_globalLevel = 1;
    Log::Capture capture;
    bool const supported = isCudaComputeCapabilitySupported(c.major, c.minor, c.runtimeMajor, c.runtimeMinor,
                                                            CudaComputeCapability::parseList(c.entries));
    Log::g_globalLevel = level;
    EXPECT_EQ(supported, c.expected);
    if (c.fragment.empty())
        EXPECT_TRUE(capture.messages(Log::Error).empty());
    else
        EXPECT_TRUE(capture.containsFragment("GPU compute capability " + c.fragment)) << c.fragment;
}

INSTANTIATE_TEST_SUITE_P(
    Rule, CudaSupportTest,
    ::testing::Values(
        SupportCase{"EmptyList", 8, 6, 12, 0, "", false, ""},
        SupportCase{"SameMajorLowerMinor", 8, 6, 12, 0, "8.0", true, ""},
        SupportCase{"Ada86NeedsRuntimeAbove117", 8, 9, 11, 7, "8.6", false,
                    "8.9 cannot be supported as it's higher than any supported architecture versions and no "
                    "compatible PTX was found."},
        SupportCase{"Ada86WithRuntime118", 8, 9, 11, 8, "8.6", true, ""},
        SupportCase{"Ada80IsDirect", 8, 9, 11, 0, "8.0", true, ""},
        SupportCase{"HopperThroughPtx", 9, 0, 12, 0, "8.0 8.6+PTX", true,
                    "9.0 is supported by this CUDA runtime via PTX."},
        SupportCase{"PtxAboveDeviceDoesNotHelp", 8, 0, 12, 0, "8.6+PTX 7.5", false,
                    "8.0 cannot be supported as it's higher"},
        SupportCase{
            "BelowLowestMajor", 7, 5, 12, 0, "8.0 9.0", false,
            "7.5 is not supported by the CUDA runtime as it is lower than the lowest supported compute "
            "architecture version: 8"},
        SupportCase{"NewerMajorWithoutPtx", 9, 0, 12, 0, "8.0 8.6", false,
                    "9.0 is not supported by this CUDA runtime."}),
    [](auto const& info) { return info.param.label; });

// ---- The device check against fake device data ------------------------------------------------

class FakeCudaRuntime : public CudaRuntime
{
public:
    int getDeviceCount(int& count) const override
    {
        count = static_cast<int>(devices.size());
        return countError;
    }
    int getDeviceProperties(int index, CudaDeviceProperties& properties) const override
    {
        auto it = devices.find(index);
        if (it == devices.end() || !it->second)
            return NullCudaRuntime::InvalidDeviceError;
        properties = *it->second;
        return 0;
    }
    int getRuntimeVersion(int& version) const override
    {
        version = runtimeVersion;
        return versionError;
    }

    // Two devices; a null entry is a device whose query fails.
    std::map<int, std::optional<CudaDeviceProperties>> devices{{0, CudaDeviceProperties{"Old GPU", 7, 0}},
                                                               {1, CudaDeviceProperties{"New GPU", 8, 6}}};
    int runtimeVersion = 12020;
    int countError = 0;
    int versionError = 0;
};

std::vector<std::string> const kAmpere{"8.0", "8.6"};

struct CheckCase
{
    std::string label;
    std::function<void(FakeCudaRuntime&)> setUp;
    std::optional<int> deviceIndex;
    std::optional<std::vector<std::string>> architectures;
    bool passes;
    std::string lastLine;
};

class CudaCheckTest : public ::testing::TestWithParam<CheckCase>
{};

TEST_P(CudaCheckTest, Checks)
{
    CheckCase const& c = GetParam();
    auto runtime = std::make_shared<FakeCudaRuntime>();
    c.setUp(*runtime);
    CudaDeviceManager const manager(runtime);
    Log::Capture capture;
    auto const result = detail::checkCudaRuntimeCompatibility(manager, c.deviceIndex, c.architectures);
    EXPECT_EQ(result.passed, c.passes);
    ASSERT_FALSE(result.lines.empty());
    EXPECT_EQ(result.lines.back(), c.lastLine);
}

auto const kNoChange = [](FakeCudaRuntime&) {};
std::string const kNotInBuild = "GPU compute capability 7.0 is not supported by this build.";
std::string const kSkipped = "No supported architectures defined. Skipping architecture support check.";

INSTANTIATE_TEST_SUITE_P(
    Devices, CudaCheckTest,
    ::testing::Values(
        CheckCase{"NoDevice", [](auto& r) { r.devices.clear(); }, 0, kAmpere, false,
                  "No CUDA device is available."},
        CheckCase{"CountFails", [](auto& r) { r.countError = 100; }, 0, kAmpere, false,
                  "No CUDA device is available."},
        CheckCase{"VersionFails", [](auto& r) { r.versionError = 35; }, 0, kAmpere, false,
                  "Could not query CUDA runtime version."},
        CheckCase{"IndexOutOfRange", kNoChange, 2, kAmpere, false,
                  "Device index out of range. Device index: 2, number of devices: 2"},
        CheckCase{"PropertiesFail", [](auto& r) { r.devices[1] = std::nullopt; }, 1, kAmpere, false,
                  "Failed to get CUDA device properties for device 1"},
        CheckCase{"Supported", kNoChange, 1, kAmpere, true, "Supported CUDA Compute Capability: 8.0 8.6"},
        CheckCase{"NotSupportedByBuild", kNoChange, 0, kAmpere, false, kNotInBuild},
        CheckCase{"DefaultIndexIsFirstDevice", kNoChange, std::nullopt, kAmpere, false, kNotInBuild},
        CheckCase{"EmptyListSkipsCheck", kNoChange, 0, std::vector<std::string>{}, true, kSkipped},
        CheckCase{"BuildListUndefinedSkipsCheck", kNoChange, 0, std::nullopt, true, kSkipped}),
    [](auto const& info) { return info.param.label; });

TEST(CudaDeviceManagerTest, WithoutCudaThereIsNoDevice)
{
    CudaDeviceManager const manager;
    Log::Capture capture;
    EXPECT_EQ(manager.getDeviceCount(), 0);
    EXPECT_FALSE(manager.getCompatibleCudaDevice({kAmpere}).has_value());
    EXPECT_TRUE(capture.contains("No CUDA device is available.", "ML.CudaUtils"));
    EXPECT_TRUE(capture.contains("CUDA compute compatibility check failed", "ML.CudaUtils"));
    EXPECT_TRUE(capture.contains("CUDA device compatibility check failed", "ML.CudaUtils"));
}

TEST(CudaDeviceManagerTest, QueriesDecodeTheVersionOrReportTheirErrorCodes)
{
    auto runtime = std::make_shared<FakeCudaRuntime>();
    runtime->runtimeVersion = 11080;
    EXPECT_EQ(CudaDeviceManager(runtime).getCudaRuntimeVersion()->minor, 8);
    runtime->countError = 100;
    runtime->versionError = 35;
    CudaDeviceManager const manager(runtime);
    Log::Capture capture;
    EXPECT_FALSE(manager.getDeviceCount().has_value());
    EXPECT_FALSE(manager.getCudaRuntimeVersion().has_value());
    EXPECT_FALSE(manager.getDeviceProperties(5).has_value());
    EXPECT_TRUE(capture.contains("Could not get the list of CUDA devices (error code 100)", "ML.CudaUtils"));
    EXPECT_TRUE(capture.contains("Could not query CUDA runtime version (error code 35)", "ML.CudaUtils"));
    EXPECT_TRUE(capture.contains("Could not query CUDA info from device 5", "ML.CudaUtils"));
}

TEST(CudaDeviceManagerTest, FirstCompatibleDeviceOfTheListWins)
{
    auto runtime = std::make_shared<FakeCudaRuntime>();
    runtime->devices[2] = CudaDeviceProperties{"Another GPU", 8, 0};
    CudaDeviceManager const manager(runtime);
    Log::Capture capture;
    EXPECT_EQ(manager.getCompatibleCudaDevice(kAmpere, std::vector<int>{0, 2, 1}), 2);
    EXPECT_TRUE(capture.contains("Device name: Another GPU", "ML.CudaUtils"));
    EXPECT_FALSE(capture.contains("CUDA device compatibility check failed", "ML.CudaUtils"));
    EXPECT_FALSE(manager.getCompatibleCudaDevice(kAmpere, std::vector<int>{0}).has_value());
    EXPECT_TRUE(capture.contains("CUDA device compatibility check failed", "ML.CudaUtils"));
}

} // namespace
} // namespace Velmoria::ML

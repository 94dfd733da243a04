// SamplingConfiguration: keys and their old names, the version-dependent default, refused padding
// settings, and the properties handed to the image-splitting algorithm.

#include "ml/sampling/SamplingConfiguration.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <string>

namespace Velmoria::ML {
namespace {

using Mode = ImageProcessing::PaddingMode;

// Each key, once under its name and once under each old name, must land in its parameter.
struct KeyCase
{
    std::string key;
    std::string text;
    std::string check; // the value as toSplitImagesAlgorithmProperties writes it
    std::string splitKey;
};

class SamplingKeys : public ::testing::TestWithParam<KeyCase>
{};

TEST_P(SamplingKeys, AreReadAndHandedToTheSplitAlgorithm)
{
    SamplingConfiguration configuration(5);
    Properties properties;
    properties.setParam(GetParam().key, GetParam().text);
    Log::Capture capture;
    ASSERT_TRUE(configuration.configureChecked(&properties));
    Properties const split = configuration.toSplitImagesAlgorithmProperties();
    ASSERT_TRUE(split.contains(GetParam().splitKey)) << GetParam().splitKey;
    EXPECT_EQ(split.paramValueText(GetParam().splitKey), GetParam().check);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, SamplingKeys,
    ::testing::Values(
        KeyCase{"MaxSizeSubdivision", "64 64 32", "64 64 32", "maxSize"},
        KeyCase{"maxSize", "16 16 8", "16 16 8", "maxSize"}, KeyCase{"PixelsOverlap", "12", "12", "overlap"},
        KeyCase{"overlap", "3", "3", "overlap"},
        KeyCase{"DimensionDivisor", "16 16 4", "16 16 4", "dimensionDivisor"},
        KeyCase{"dimensionDivisor", "8 8 8", "8 8 8", "dimensionDivisor"},
        KeyCase{"RecombineWeighted", "True", "true", "weighted"},
        KeyCase{"weighted", "1", "true", "weighted"},
        KeyCase{"RecombineDevice", "force_cpu", "ForceCPU", "device"},
        KeyCase{"recombineDevice", "force_gpu", "ForceGPU", "device"},
        KeyCase{"device", "0", "ForceCPU", "device"}, KeyCase{"PaddingMode", "Zero", "Zero", "paddingMode"},
        KeyCase{"PaddingMode", "clamp", "Clamp", "paddingMode"},
        KeyCase{"paddingMode", "Clamp", "Clamp", "paddingMode"},
        KeyCase{"ExtendImage", "true", "true", "extendImage"},
        KeyCase{"extendImage", "true", "true", "extendImage"},
        KeyCase{"SkipUnpadding", "false", "false", "skipUnpadding"},
        KeyCase{"skipUnpadding", "false", "false", "skipUnpadding"},
        KeyCase{"EnsureInputImageMultipleOfDivisor", "true", "true", "ensureMultipleOfDivisor"},
        KeyCase{"ensureInputImageMultipleOfDivisor", "true", "true", "ensureMultipleOfDivisor"}));

TEST(SamplingConfigurationSplit, WritesEveryKeyInTableOrder)
{
    SamplingConfiguration configuration(5);
    Properties const split = configuration.toSplitImagesAlgorithmProperties();
    std::vector<std::string> const expected = {"maxSize",     "overlap",       "dimensionDivisor",
                                               "weighted",    "device",        "paddingMode",
                                               "extendImage", "skipUnpadding", "ensureMultipleOfDivisor"};
    EXPECT_EQ(split.paramKeys(), expected);
    EXPECT_EQ(split.paramValueText("paddingMode"), "Mirror");
    EXPECT_EQ(split.paramValueText("skipUnpadding"), "true");
}

struct RefusedCase
{
    int version;
    std::string key;
    std::string text;
    std::string message;
};

class SamplingRefused : public ::testing::TestWithParam<RefusedCase>
{};

TEST_P(SamplingRefused, IsLoggedAndChangesNothing)
{
    SamplingConfiguration configuration(GetParam().version);
    Properties properties;
    properties.setParam(GetParam().key, GetParam().text);
    properties.setParam("PixelsOverlap", "9");
    Log::Capture capture;
    EXPECT_FALSE(configuration.configureChecked(&properties));
    EXPECT_TRUE(capture.contains(GetParam().message, "ML.SamplingConfiguration"));
    EXPECT_EQ(configuration.p_pixelsOverlap.value(), 0);
    EXPECT_EQ(configuration.p_paddingMode.value(), Mode::Mirror);
    // configure is the same without its result, and never throws.
    EXPECT_NO_THROW(configuration.configure(&properties));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SamplingRefused,
    ::testing::Values(RefusedCase{5, "mirrorPadding", "true",
                                  "`mirrorPadding` is no longer supported from version 5 on. Please use "
                                  "`PaddingMode: [Mirror, Clamp, Zero]` instead."},
                      RefusedCase{
                          5, "PaddingMode", "Reflect",
                          "Got invalid padding mode `Reflect`. Please choose from Mirror, Zero, Clamp. "},
                      RefusedCase{3, "paddingMode", "7",
                                  "Got invalid padding mode `7`. Please choose from Mirror, Zero, Clamp. "}));

TEST(SamplingConfigurationOld, VersionFourKeepsUnpaddingAndIgnoresMirrorPadding)
{
    SamplingConfiguration configuration(4);
    EXPECT_EQ(configuration.version(), 4);
    EXPECT_FALSE(configuration.p_skipUnpadding.value());
    Properties properties;
    properties.setParam("mirrorPadding", "true");
    properties.setParam("weighted", "true");
    Log::Capture capture;
    EXPECT_TRUE(configuration.configureChecked(&properties));
    EXPECT_TRUE(configuration.p_recombineWeighted.value());
    EXPECT_TRUE(configuration.configureChecked(nullptr));
    // Old names still work but are warned about.
    EXPECT_TRUE(
        capture.contains("Using deprecated parameter 'weighted'. Please use: 'RecombineWeighted' instead.",
                         "ML.SamplingConfiguration"));
}

} // namespace
} // namespace Velmoria::ML

// The catalogue as a processing list sees it: every registered name creates its operation with
// the processing policy that decides whether label maps are touched; bad input fails with a
// message that names the culprit and leaves the input as it was; bad keys make configure fail
// with a line that says why.

#include "ml/TestHelpers.h"
#include "ml/data/components/ReferenceImageDataComponent.h"
#include "ml/operations/CatalogueTestHelpers.h"
#include "ml/plugin/Registrations.h"

#include "host/image/DisplayOptions.h"
#include "host/image/Mask.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

namespace {

using Policy = Operation::ProcessingPolicy;

class Catalogue : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { registerOperations(); }
};

TEST_F(Catalogue, EveryNameCreatesItsOperationWithItsPolicyAndContracts)
{
    std::map<Policy, std::vector<std::string>> const policies = {
        {Policy::Everything,
         {"Softmax", "Crop", "PolyCrop", "Pad", "PadDims", "PadDimsToNextMultiple", "UndoPadding", "Inverse",
          "Resample", "ResampleDims", "ResampleKeepingAspectRatio", "ResampleToInput", "ResolutionReduction",
          "SetSpacing", "CropAroundLabelMap"}},
        {Policy::EverythingButLabels,
         {"ConvertToGray", "BakePhotometricInterpretation", "CutOut", "Smooth", "HighPass", "Clip",
          "LinearIntensityMapping", "Invert", "Threshold", "MakeFloat", "NormalizeNormal", "AdjustShiftScale",
          "Sigmoid", "Tanh", "NormalizeUniform", "NormalizePercentile", "NormalizeMAD", "GammaCorrection",
          "ArgMax"}},
        {Policy::OnlyLabels, {"OneHot"}}};
    // The keys some operations cannot do without.
    std::map<std::string, Properties> const required = {
        {"OneHot", {{"num_classes", 2}}},
        {"Inverse", {{"target_identifier", "x"}}},
        {"ResampleKeepingAspectRatio", {{"target_dim_x", 10}}}};
    // Those that give a new set and leave their input as it was (only the padding operations can
    // record how to undo themselves).
    std::set<std::string> const copies = {"Crop",
                                          "CutOut",
                                          "PolyCrop",
                                          "CropAroundLabelMap",
                                          "Pad",
                                          "PadDims",
                                          "PadDimsToNextMultiple",
                                          "UndoPadding",
                                          "Resample",
                                          "ResampleDims",
                                          "ResampleKeepingAspectRatio",
                                          "ResampleToInput",
                                          "ResolutionReduction",
                                          "MakeFloat",
                                          "LinearIntensityMapping"};
    std::vector<std::string> const names = registeredOperationNames();
    for (auto const& [policy, list] : policies) {
        for (std::string const& name : list) {
            SCOPED_TRACE(name);
            EXPECT_NE(std::find(names.begin(), names.end(), name), names.end());
            auto const found = required.find(name);
            Properties const properties = found == required.end() ? Properties() : found->second;
            auto const operation = Operation::createFromFactories({name, properties, Phase::Always});
            ASSERT_NE(operation, nullptr);
            EXPECT_EQ(operation->name(), name);
            EXPECT_EQ(operation->processingPolicy(), policy);
            EXPECT_EQ(operation->doesNotModifyInput(), copies.contains(name));
            EXPECT_EQ(operation->supportsInversion(), name.starts_with("Pad"));
        }
    }
}

// ---- Failures while processing ----------------------------------------------------------------

using Input = std::function<std::shared_ptr<SharedImageSet>()>;

// `frames` ramp frames of `dims` with `channels` channels.
Input ramp(Eigen::Vector3i const& dims, int frames = 1, int channels = 1)
{
    return [=] { return rampSet(dims, frames, channels); };
}

// One float frame of 3 x 2 pixels holding `stored` with the given shift.
Input labels(std::vector<double> const& stored, double shift = 0.0, int channels = 1)
{
    return [=] {
        return std::make_shared<SharedImageSet>(
            MLTest::placedFrame<float>(Eigen::Vector3i(3, 2, 1), channels, stored, shift));
    };
}

std::shared_ptr<SharedImageSet> bytes()
{
    return std::make_shared<SharedImageSet>(
        MLTest::placedFrame<unsigned char>(Eigen::Vector3i(2, 1, 1), 2, {1, 2, 3, 4}));
}

std::shared_ptr<SharedImageSet> twoWidths()
{
    auto set = rampSet({12, 3, 2});
    set->add(rampFrame({10, 3, 2}));
    return set;
}

std::shared_ptr<SharedImageSet> disagreeingInvertFlags()
{
    auto set = rampSet({2, 1, 1});
    set->components().getOrCreate<DisplayOptions2d>()->p_invert.setValue(true);
    set->components().getOrCreate<DisplayOptions3d>()->p_invert.setValue(false);
    return set;
}

std::shared_ptr<SharedImageSet> emptyReference()
{
    auto set = rampSet({6, 5, 4});
    set->components().add(std::make_unique<ReferenceImageDataComponent>());
    return set;
}

std::shared_ptr<SharedImageSet> nothingInsideTheMask()
{
    auto set = rampSet({2, 1, 1});
    set->get(0)->setMask(std::make_shared<IntensityMask>(50.0, 60.0));
    return set;
}

struct ErrorCase
{
    std::string name;
    std::string operation;
    Properties properties;
    Input input;
    std::string message; // after "[ML.<operation>] "; a prefix of it for the long ones
};

class ProcessingErrors : public Catalogue, public ::testing::WithParamInterface<ErrorCase>
{};

TEST_P(ProcessingErrors, NameTheCulpritAndLeaveTheInputAlone)
{
    ErrorCase const& c = GetParam();
    Log::Capture capture;
    auto const operation = Operation::createFromFactories({c.operation, c.properties, Phase::Always});
    ASSERT_NE(operation, nullptr) << ::testing::PrintToString(capture.messages());
    auto const input = c.input();
    Eigen::Vector3i const dims = input->get(0)->dimensions();
    double const first = storedAt(*input->get(0), 0);
    std::string const error = errorOf(*operation, input);
    EXPECT_EQ(error.rfind("[ML." + c.operation + "] " + c.message, 0), 0U) << error;
    EXPECT_EQ(input->get(0)->dimensions(), dims);
    EXPECT_EQ(storedAt(*input->get(0), 0), first);
}

INSTANTIATE_TEST_SUITE_P(
    Catalogue, ProcessingErrors,
    ::testing::Values(
        // Channels
        ErrorCase{"SoftmaxOfBytes", "Softmax", Properties(), bytes, "Input image is not float"},
        ErrorCase{"SoftmaxForcedOnGpu", "Softmax", Properties{{"device", "force_gpu"}}, ramp({1, 1, 1}, 1, 5),
                  "Cannot force run on GPU with image channels > 4"},
        ErrorCase{"BakeMultichannel", "BakePhotometricInterpretation", Properties(), ramp({2, 1, 1}, 1, 2),
                  "BakePhotometricInterpretationOperation can't be applied to multichannel images"},
        ErrorCase{"BakeDisagreeingFlags", "BakePhotometricInterpretation", Properties(),
                  disagreeingInvertFlags,
                  "DisplayOptions2d and displayOptions3D have different invert values"},
        // Crop: the first frame (width 12) would be fine for most; the second must stop the run.
        ErrorCase{"CropNegativeOffset", "Crop", Properties{{"size", "-1 -1 -1"}, {"offset", "-11 0 0"}},
                  twoWidths, "Resolved offset is negative. Crop offset: [-11, 0, 0]"},
        ErrorCase{"CropOffsetPastEnd", "Crop", Properties{{"size", "1 -1 -1"}, {"offset", "11 0 0"}},
                  twoWidths,
                  "Offset exceeds image dimensions. Image size: [10, 3, 2], Crop offset: [11, 0, 0]"},
        ErrorCase{"CropNothingLeft", "Crop", Properties{{"size", "-1 -1 -1"}, {"offset", "10 0 0"}},
                  twoWidths, "Resolved size is equal to zero. Crop size: [0, 3, 2]"},
        ErrorCase{"CropZeroSize", "Crop", Properties{{"size", "4 0 -1"}}, twoWidths,
                  "Resolved size is equal to zero. Crop size: [4, 0, 2]"},
        ErrorCase{
            "CropBoxPastEnd", "Crop", Properties{{"size", "6 -1 -1"}, {"offset", "5 0 0"}}, twoWidths,
            "Offset + size exceeds image dimensions. Image size: [10, 3, 2], Offset + size: [11, 3, 2]"},
        ErrorCase{"CutOutNegativeSize", "CutOut",
                  Properties{{"size", "-1 1 1"}, {"offset", "0 0 0"}, {"fill_value", "0"}}, ramp({4, 4, 1}),
                  "cutout size should be >= 0."},
        ErrorCase{"CutOutNegativeOffset", "CutOut",
                  Properties{{"size", "1 1 1"}, {"offset", "0 -2 0"}, {"fill_value", "0"}}, ramp({4, 4, 1}),
                  "cutout offset should be >= 0."},
        ErrorCase{"CutOutLengthsDiffer", "CutOut",
                  Properties{{"size", "1 1 1"}, {"offset", "0 0 0"}, {"fill_value", "0 1"}}, ramp({4, 4, 1}),
                  "number of offsets, sizes and fill values are not equal."},
        ErrorCase{
            "CutOutSizeUnit", "CutOut",
            Properties{{"size", "1 1 1"}, {"size_units", "7"}, {"offset", "0 0 0"}, {"fill_value", "0"}},
            ramp({4, 4, 1}), "Cutout size units not supported"},
        ErrorCase{
            "CutOutOffsetUnit", "CutOut",
            Properties{{"size", "1 1 1"}, {"offset_units", "9"}, {"offset", "0 0 0"}, {"fill_value", "0"}},
            ramp({4, 4, 1}), "Cutout offset units not supported"},
        // Padding
        ErrorCase{"PadRemovesMoreThanTheImage", "Pad", Properties{{"pad_size_y", "-2 -2"}}, ramp({4, 3, 1}),
                  "Negative padding is larger than image size. Got padding [(0, 0), (-2, -2), (0, 0)] for "
                  "image size [4, 3, 1]"},
        ErrorCase{"PadDimsZeroTarget", "PadDims", Properties{{"target_dims", "4 0 2"}}, ramp({4, 3, 2}),
                  "Target dimensions must be strictly positive."},
        ErrorCase{"PadToNegativeMultiple", "PadDimsToNextMultiple",
                  Properties{{"dimension_divisor", "4 4 -1"}}, ramp({4, 3, 2}),
                  "Dimension divisors must be strictly positive."},
        // Resampling and spacing
        ErrorCase{"ResampleDimsZero", "ResampleDims", Properties{{"target_dims", "4 0 2"}}, ramp({6, 5, 4}),
                  "Incorrect 'target_dims' parameter"},
        ErrorCase{"ResampleToInputWithoutComponent", "ResampleToInput", Properties(), ramp({6, 5, 4}),
                  "no ReferenceImageDataComponent found"},
        ErrorCase{"ResampleToInputWithoutReference", "ResampleToInput", Properties(), emptyReference,
                  "no valid reference in ReferenceImageDataComponent"},
        ErrorCase{"ResolutionReductionZeroSpacing", "ResolutionReduction",
                  Properties{{"target_spacing", "1 0 1"}}, ramp({6, 5, 4}),
                  "'target_spacing' must be positive"},
        ErrorCase{"SetSpacingBatchOfTwo", "SetSpacing", Properties(), ramp({9, 6, 5}, 2),
                  "SetSpacingOperation requires batch size 1 for image element"},
        ErrorCase{"SetSpacingTwoDWithZScaling", "SetSpacing", Properties{{"spacing", "1 1 1"}},
                  ramp({9, 6, 1}), "SetSpacingOperation requires z scaling of 1 for 2D images."},
        ErrorCase{"SetSpacingNegative", "SetSpacing", Properties{{"spacing", "1 -1 1"}}, ramp({9, 6, 5}),
                  "'spacing' must be positive"},
        ErrorCase{"CropAroundLabelMapWithoutLabels", "CropAroundLabelMap", Properties(), ramp({4, 4, 2}),
                  "No label map (an image element of modality Label) among the selected fields"},
        // Intensities
        ErrorCase{"AdjustShiftScaleSizesDiffer", "AdjustShiftScale",
                  Properties{{"shift", "1 2"}, {"scale", "1"}}, ramp({2, 1, 1}, 1, 2),
                  "the size of 'shift' and 'scale' must be equal"},
        ErrorCase{"AdjustShiftScaleEmpty", "AdjustShiftScale",
                  Properties{{"shift", std::vector<double>{}}, {"scale", std::vector<double>{}}},
                  ramp({2, 1, 1}), "the size of 'shift' and 'scale' must be between 1 and 4"},
        ErrorCase{"AdjustShiftScaleFive", "AdjustShiftScale",
                  Properties{{"shift", "1 2 3 4 5"}, {"scale", "1 1 1 1 1"}}, ramp({2, 1, 1}, 1, 5),
                  "the size of 'shift' and 'scale' must be between 1 and 4"},
        ErrorCase{"AdjustShiftScaleChannels", "AdjustShiftScale",
                  Properties{{"shift", "1 2 3"}, {"scale", "1 1 1"}}, ramp({2, 1, 1}),
                  "the size of 'shift' must be 1 or match the image channels"},
        ErrorCase{"GammaCorrectionOfBytes", "GammaCorrection", Properties{{"gamma", 0.5}}, bytes,
                  "Input image must be float"},
        ErrorCase{"NormalizeMADUnknownChannel", "NormalizeMAD", Properties{{"selected_channels", "0 2"}},
                  ramp({2, 1, 1}, 1, 2), "Selected channel 2 does not exist in images of 2 channels"},
        ErrorCase{"NormalizePercentileOnlyZeros", "NormalizePercentile", Properties{{"ignore_zeros", true}},
                  labels({0, 0, 0, 0, 0, 0}),
                  "Could not compute the percentiles 0 and 1 of channel 0 of image 0"},
        ErrorCase{"NormalizeUniformEmptyMask", "NormalizeUniform", Properties(), nothingInsideTheMask,
                  "Image 0 has no value inside its mask to take the range from"},
        // Filters
        ErrorCase{"SmoothZeroSize", "Smooth", Properties{{"half_kernel_size", "1 0 1"}}, ramp({6, 5, 4}),
                  "Invalid kernel size"},
        ErrorCase{"SmoothWiderThanX", "Smooth", Properties{{"half_kernel_size", "7 1 1"}}, ramp({6, 5, 4}),
                  "Kernel size is too large, please decrease it."},
        ErrorCase{"SmoothWiderThanZ", "Smooth", Properties{{"half_kernel_size", "1 1 5"}}, ramp({6, 5, 4}),
                  "Kernel size is too large, please decrease it."},
        // 6 mm along x is 8.6 voxels of 0.7 mm, more than 6.
        ErrorCase{"SmoothMillimetresTooWide", "Smooth",
                  Properties{{"half_kernel_size", "6 1 1"}, {"kernel_size_in_mm", true}}, ramp({6, 5, 4}),
                  "Kernel size is too large, please decrease it."},
        ErrorCase{"SmoothHuge", "Smooth", Properties{{"half_kernel_size", "1e9 1 1"}}, ramp({6, 5, 4}),
                  "Kernel size is too large, please decrease it."},
        ErrorCase{"HighPassFiveChannels", "HighPass", Properties(), ramp({2, 2, 1}, 1, 5),
                  "HighPassOperation doesn't apply on images with more than 4 channels"},
        ErrorCase{"HighPassNegativeSize", "HighPass", Properties{{"half_kernel_size", -1}}, ramp({3, 3, 1}),
                  "Failed to execute algorithm"},
        ErrorCase{"HighPassStrictOnCpu", "HighPass",
                  Properties{{"device", "force_cpu"}, {"error_on_unexpected_behaviour", true}},
                  ramp({3, 3, 1}), "HighPass was forced to run on CPU but is not implemented for that yet."},
        // Labels
        ErrorCase{"ArgMaxOfTooManyChannels", "ArgMax", Properties(), ramp({2, 1, 1}, 1, 256),
                  "Cannot compute the arg max of 256 channels: at most 255 fit an 8-bit label"},
        ErrorCase{"OneHotZeroClasses", "OneHot", Properties{{"num_classes", 0}}, labels({0, 1, 2, 0, 0, 0}),
                  "'num_classes' must be at least 1, got 0"},
        ErrorCase{"OneHotTwoChannels", "OneHot", Properties{{"num_classes", 2}},
                  labels(std::vector<double>(12, 0.0), 0.0, 2),
                  "Input must be a one-channel label map, got 2 channels"},
        ErrorCase{"OneHotTooLarge", "OneHot", Properties{{"num_classes", 3}}, labels({0, 1, 2, 3, 1, 0}),
                  "Label value 3 at pixel (0, 1, 0) is not a class of 'num_classes' 3: labels must be whole "
                  "numbers in [0, 3)"},
        ErrorCase{"OneHotNegative", "OneHot", Properties{{"num_classes", 3}}, labels({0, 1, 2, 0, 0, 0}, 1.0),
                  "Label value -1 at pixel (0, 0, 0) is not a class"},
        ErrorCase{"OneHotFraction", "OneHot", Properties{{"num_classes", 3}}, labels({0, 1.5, 2, 0, 0, 0}),
                  "Label value 1.5 at pixel (1, 0, 0) is not a class"},
        ErrorCase{"OneHotNaN", "OneHot", Properties{{"num_classes", 3}},
                  labels({0, 0, 0, 0, 0, std::nan("")}),
                  "Label value nan at pixel (2, 1, 0) is not a class"}),
    [](auto const& info) { return info.param.name; });

// ---- Failures while configuring ------------------------------------------------------------------

struct ConfigureCase
{
    std::string name;
    std::string operation;
    Properties properties;
    std::string logged; // a part of the error line
};

class ConfigureErrors : public Catalogue, public ::testing::WithParamInterface<ConfigureCase>
{};

TEST_P(ConfigureErrors, RefuseTheOperationAndSayWhy)
{
    ConfigureCase const& c = GetParam();
    Log::Capture capture;
    EXPECT_EQ(Operation::createFromFactories({c.operation, c.properties, Phase::Always}), nullptr);
    EXPECT_TRUE(capture.containsFragment(c.logged)) << ::testing::PrintToString(capture.messages());
}

INSTANTIATE_TEST_SUITE_P(
    Catalogue, ConfigureErrors,
    ::testing::Values(
        ConfigureCase{"OneHotWithoutClasses", "OneHot", Properties(),
                      "Missing required configure parameter 'num_classes'"},
        ConfigureCase{"InverseWithoutIdentifier", "Inverse", Properties(), "target_identifier"},
        ConfigureCase{
            "InverseWithEmptyIdentifier", "Inverse", Properties{{"target_identifier", ""}},
            "Wrong value for parameter 'target_identifier' - either it was missing while required, or "
            "it was present but wrongly formatted."},
        ConfigureCase{"PadUnknownMode", "Pad", Properties{{"padding_mode", "Wrap"}}, "'padding_mode'"},
        ConfigureCase{"PadUnknownLabelMode", "Pad", Properties{{"label_padding_mode", "Wrap"}},
                      "Wrong value for parameter 'label_padding_mode'"},
        ConfigureCase{"RecombineUnknownMode", "RecombinePatches", Properties{{"mode", "gaussian"}},
                      "Unknown recombine mode 'gaussian', supported are ['Default', 'Weighted']"},
        ConfigureCase{"PercentileOutliers", "NormalizePercentile", Properties{{"min_outlier", 0.1}},
                      "Parameters 'min_outlier' or 'max_outlier' are not supported anymore"},
        ConfigureCase{"PercentileBelowZero", "NormalizePercentile", Properties{{"min_percentile", -0.1}},
                      "Min/max percentiles must be in [0;1] (min_percentile -0.1, max_percentile 1)"},
        ConfigureCase{"PercentileAboveOne", "NormalizePercentile", Properties{{"max_percentile", 1.5}},
                      "Min/max percentiles must be in [0;1] (min_percentile 0, max_percentile 1.5)"},
        ConfigureCase{"AspectTwoDimsWithoutReference", "ResampleKeepingAspectRatio",
                      Properties{{"target_dim_x", 10}, {"target_dim_y", 8}},
                      "keep_aspect_ratio_wrt is required, accepted values are x, y or z."},
        ConfigureCase{"AspectUnknownReference", "ResampleKeepingAspectRatio",
                      Properties{{"target_dim_x", 10}, {"target_dim_y", 8}, {"keep_aspect_ratio_wrt", "w"}},
                      "keep_aspect_ratio_wrt w specified, but accepted values are x, y or z."},
        ConfigureCase{
            "AspectReferenceNotGiven", "ResampleKeepingAspectRatio",
            Properties{{"target_dim_x", 10}, {"target_dim_y", 8}, {"keep_aspect_ratio_wrt", "z"}},
            "Requested to keep aspect ratio with respect to z, but dimension for z was not specified"},
        ConfigureCase{"AspectNothingGiven", "ResampleKeepingAspectRatio",
                      Properties{{"keep_aspect_ratio_wrt", "x"}},
                      "At least one of target_dim_x, target_dim_y and target_dim_z must be given."},
        ConfigureCase{
            "SmoothWords", "Smooth", Properties{{"half_kernel_size", "wide"}},
            "Parameter 'half_kernel_size' could not be parsed from 'wide': expected one, two or three "
            "numbers"},
        ConfigureCase{"SmoothFourNumbers", "Smooth", Properties{{"half_kernel_size", "1 2 3 4"}},
                      "could not be parsed from '1 2 3 4'"},
        ConfigureCase{"RenameWithoutTarget", "Rename",
                      Properties{{"source", std::vector<std::string>{"label"}}}, "'target'"}),
    [](auto const& info) { return info.param.name; });

} // namespace

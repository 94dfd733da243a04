// The catalogue as a processing list sees it: every registered name creates its operation with
// the processing policy that decides whether label maps are touched; bad input fails with a
// message that names the culprit and leaves the input as it was; bad keys make configure fail
// with a line that says why. Then the item-structure operations: targets, renaming, removing,
// copying fields, label modality.

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/data/components/ReferenceImageDataComponent.h"
#include "ml/operations/CatalogueTestHelpers.h"
#include "ml/operations/OperationException.h"
#include "ml/operations/catalogue/ItemStructureOperations.h"
#include "ml/plugin/Registrations.h"

#include "host/core/Log.h"
#include "host/image/DisplayOptions.h"
#include "host/image/LabelDataComponent.h"
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
using namespace Velmoria::MLTest;

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
    std::string const copies = " Crop CutOut PolyCrop CropAroundLabelMap Pad PadDims PadDimsToNextMultiple "
                               "UndoPadding Resample ResampleDims ResampleKeepingAspectRatio ResampleToInput "
                               "ResolutionReduction MakeFloat LinearIntensityMapping ";
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
            EXPECT_EQ(operation->doesNotModifyInput(), copies.find(" " + name + " ") != std::string::npos);
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

// ---- Item structure ----------------------------------------------------------------------------

DataItem threeFields()
{
    DataItem item;
    item.set("image", makeSet(2));
    item.set("label", makeSet(2));
    item.set("weights", makeSet(2));
    return item;
}

std::vector<std::string> fieldOrder(DataItem const& item)
{
    std::vector<std::string> names;
    for (auto const& [name, element] : item.elements())
        names.push_back(name);
    return names;
}

Properties keys(std::initializer_list<std::pair<char const*, std::vector<std::string>>> lists)
{
    Properties properties;
    for (auto const& [key, values] : lists)
        properties.setParam(key, values);
    return properties;
}

} // namespace

TEST(MarkAsTarget, TagsAndUntagsTheNamedFields)
{
    DataItem item = threeFields();
    MarkAsTargetOperation mark;
    ASSERT_TRUE(mark.configure(keys({{"apply_to", {"label", "weights"}}})));
    mark.process(item);
    EXPECT_FALSE(item.get("image")->isTarget());
    EXPECT_TRUE(item.get("label")->isTarget());
    EXPECT_TRUE(item.get("weights")->isTarget());

    UnmarkAsTargetOperation unmark;
    ASSERT_TRUE(unmark.configure(keys({{"apply_to", {"weights"}}})));
    unmark.process(item);
    EXPECT_TRUE(item.get("label")->isTarget());
    EXPECT_FALSE(item.get("weights")->isTarget());

    Log::Capture capture;
    MarkAsTargetOperation().process(item);
    EXPECT_TRUE(capture.contains("No field given in 'apply_to': nothing to do.", "ML.MarkAsTarget"));
    EXPECT_FALSE(item.get("image")->isTarget());
}

TEST(RenameAndRemove, RenameKeepsThePositionOfTheFieldAndRemoveDropsFields)
{
    DataItem item = threeFields();
    auto* labelElement = item.get("label");
    RenameOperation rename;
    ASSERT_TRUE(rename.configure(keys({{"source", {"label"}}, {"target", {"segmentation"}}})));
    rename.process(item);
    EXPECT_EQ(fieldOrder(item), (std::vector<std::string>{"image", "segmentation", "weights"}));
    EXPECT_EQ(item.get("segmentation"), labelElement);

    RemoveOperation remove;
    ASSERT_TRUE(remove.configure(keys({{"apply_to", {"weights", "image"}}})));
    remove.process(item);
    EXPECT_EQ(fieldOrder(item), (std::vector<std::string>{"segmentation"}));
}

TEST(Rename, RefusesToOverwriteOrToPairUnevenListsAndWarnsAboutMissingSources)
{
    DataItem item = threeFields();
    RenameOperation rename;
    ASSERT_TRUE(rename.configure(keys({{"source", {"label"}}, {"target", {"image"}}})));
    EXPECT_THROW(rename.process(item), OperationException);

    RenameOperation uneven;
    ASSERT_TRUE(uneven.configure(keys({{"source", {"label", "image"}}, {"target", {"x"}}})));
    EXPECT_THROW(uneven.process(item), OperationException);
    EXPECT_EQ(fieldOrder(item), (std::vector<std::string>{"image", "label", "weights"}));

    RenameOperation missing;
    ASSERT_TRUE(missing.configure(keys({{"source", {"mask"}}, {"target", {"x"}}})));
    Log::Capture capture;
    missing.process(item);
    EXPECT_TRUE(capture.contains(
        "Fields 'mask' do not exist in the input data item. Input fields are [image,label,weights].",
        "ML.Rename"));
    missing.setErrorOnUnexpectedBehaviour(true);
    EXPECT_THROW(missing.process(item), OperationException);
}

TEST(Copy, MakesAnIndependentCopyWithTheTargetTag)
{
    DataItem item = threeFields();
    item.get("label")->tagAsTarget();
    CopyOperation copy;
    ASSERT_TRUE(copy.configure(keys({{"source", {"label"}}, {"target", {"label_copy"}}})));
    copy.process(item);
    ASSERT_TRUE(item.contains("label_copy"));
    EXPECT_TRUE(item.get("label_copy")->isTarget());
    auto original = item.get<ImageElement>("label")->sis();
    auto duplicate = item.get<ImageElement>("label_copy")->sis();
    EXPECT_NE(duplicate->mem(0)->data(), original->mem(0)->data()) << "a copy must not share pixels";
    EXPECT_EQ(firstValue(*duplicate->get(1)), firstValue(*original->get(1)));
    EXPECT_TRUE(
        duplicate->get(1)->pixelToWorld({0, 0, 0}).isApprox(original->get(1)->pixelToWorld({0, 0, 0})));
    EXPECT_THROW(copy.process(item), OperationException) << "the target exists now";
}

TEST(SetLabelModality, MarksTargetsAsLabelMapsAndNamesLabels)
{
    DataItem item = threeFields();
    item.get("label")->tagAsTarget();
    SetLabelModalityOperation operation;
    ASSERT_TRUE(operation.configure(keys({{"label_names", {"background", "liver", "spleen"}}})));
    operation.process(item);

    auto label = item.get<ImageElement>("label")->sis();
    EXPECT_EQ(label->modality(), Data::Modality::Label);
    EXPECT_EQ(label->get(1)->modality(), Data::Modality::Label);
    auto const* names = label->components().get<LabelDataComponent>();
    ASSERT_NE(names, nullptr);
    EXPECT_EQ(names->labelName(0), "background");
    EXPECT_EQ(names->labelName(2), "spleen");
    EXPECT_NE(item.get<ImageElement>("image")->sis()->modality(), Data::Modality::Label)
        << "by default only target fields become label maps";
}

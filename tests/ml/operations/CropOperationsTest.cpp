// Crop, CutOut, PolyCrop, CropAroundLabelMap, Pad, PadDims, PadDimsToNextMultiple and UndoPadding.
// Geometry is checked against world positions computed here from the convention (pixel p at
// (p - (dim - 1) / 2) * spacing in image millimetres, then matrixToWorld) on an obliquely turned,
// moved, anisotropic grid; CutOut's boxes and PolyCrop's half-spaces against masks computed pixel by
// pixel; CropAroundLabelMap against the box found by hand from where the labels were drawn; border
// values of padding against reference index rules written here, and its round trips through the
// inversion records bit for bit. The messages are in CatalogueTest.

#include "ml/operations/catalogue/CropOperations.h"

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/operations/CatalogueTestHelpers.h"
#include "ml/operations/catalogue/CropAroundLabelMapOperation.h"
#include "ml/operations/catalogue/InverseOperation.h"
#include "ml/operations/catalogue/PadOperations.h"
#include "ml/operations/catalogue/UndoPaddingOperation.h"
#include "ml/plugin/Registrations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;
using ImageProcessing::PaddingMode;

namespace {

// `sizes.size()` ramp frames of modality MRI with `channels` channels.
std::shared_ptr<SharedImageSet> mriSet(std::vector<Eigen::Vector3i> const& sizes, int channels = 1)
{
    auto set = std::make_shared<SharedImageSet>();
    for (auto const& dims : sizes) {
        set->add(rampFrame(dims, channels));
        set->get(set->size() - 1)->setModality(Data::Modality::MRI);
    }
    return set;
}

// ---- Crop ------------------------------------------------------------------------------------------

struct CropCase
{
    std::string name;
    Eigen::Vector3i dims;
    Eigen::Vector3i size;
    Eigen::Vector3i offset;
    Eigen::Vector3i resolvedOffset;
    Eigen::Vector3i resolvedSize;
};

class CropGeometry : public ::testing::TestWithParam<CropCase>
{};

TEST_P(CropGeometry, KeepsPixelsAtTheirWorldPositions)
{
    CropCase const& c = GetParam();
    CropOperation crop(c.size, c.offset);
    auto const input = mriSet({c.dims, c.dims}, 2);
    auto const output = crop.process(input);
    ASSERT_EQ(output->size(), 2);
    for (int f = 0; f < 2; ++f) {
        SharedImage const& in = *input->get(f);
        SharedImage const& out = *output->get(f);
        ASSERT_EQ(out.dimensions(), c.resolvedSize);
        EXPECT_EQ(out.spacing(), in.spacing());
        EXPECT_EQ(out.modality(), Data::Modality::MRI);
        forEachPixel(c.resolvedSize, [&](Eigen::Vector3i const& q) {
            Eigen::Vector3i const p = q + c.resolvedOffset;
            for (int ch = 0; ch < 2; ++ch)
                ASSERT_EQ(valueAt(out, q, ch), valueAt(in, p, ch));
            ASSERT_LT((conventionWorld(out, q.cast<double>()) - conventionWorld(in, p.cast<double>())).norm(),
                      1e-9);
        });
    }
}

INSTANTIATE_TEST_SUITE_P(
    Crop, CropGeometry,
    ::testing::Values(CropCase{"LastFourColumns", {10, 3, 2}, {-1, -1, -1}, {-4, 0, 0}, {6, 0, 0}, {4, 3, 2}},
                      CropCase{"InnerBox", {6, 5, 4}, {2, 3, 1}, {1, 1, 2}, {1, 1, 2}, {2, 3, 1}},
                      CropCase{
                          "ToTheEndFromNegative", {7, 6, 3}, {3, -1, 2}, {-5, -2, 0}, {2, 4, 0}, {3, 2, 2}},
                      CropCase{"Whole", {4, 3, 2}, {-1, -1, -1}, {0, 0, 0}, {0, 0, 0}, {4, 3, 2}}),
    [](auto const& info) { return info.param.name; });

// ---- CutOut ----------------------------------------------------------------------------------------

struct CutOutCase
{
    std::string name;
    Properties properties;
    std::vector<std::pair<Eigen::Vector3i, Eigen::Vector3i>> boxes; // offset, size in voxels
    std::vector<float> fills;
    std::vector<std::string> warnings;
};

class CutOutBoxes : public ::testing::TestWithParam<CutOutCase>
{};

TEST_P(CutOutBoxes, BlankExactlyTheBoxesInAllChannels)
{
    CutOutCase const& c = GetParam();
    CutOutOperation cutOut;
    Log::Capture capture;
    ASSERT_TRUE(cutOut.configure(c.properties));
    Eigen::Vector3i const dims(8, 6, 4);
    auto const input = mriSet({dims}, 2);
    auto const output = cutOut.process(input);
    ASSERT_NE(output, input);
    EXPECT_EQ(messagesOf(capture, "ML.CutOut"), c.warnings);
    SharedImage const& in = *input->get(0);
    SharedImage const& out = *output->get(0);
    EXPECT_EQ(out.matrixToWorld(), in.matrixToWorld());
    forEachPixel(dims, [&](Eigen::Vector3i const& p) {
        std::optional<float> fill;
        for (std::size_t b = 0; b < c.boxes.size(); ++b) {
            auto const& [offset, size] = c.boxes[b];
            if ((p.array() >= offset.array()).all() && (p.array() < (offset + size).array()).all())
                fill = c.fills[b];
        }
        for (int ch = 0; ch < 2; ++ch) {
            ASSERT_EQ(valueAt(out, p, ch), fill.value_or(valueAt(in, p, ch))) << p.transpose();
            // The input is a different set and stays as it was.
            ASSERT_EQ(valueAt(in, p, ch), 10.0 * ((p.z() * 6 + p.y()) * 8 + p.x()) + ch + 1);
        }
    });
}

std::string const kTooSmall = "cutout size too small. Increasing to at least one voxel.";
std::string const kClipped = "offset + cutout size exceeds image dimension. Clipping size to image extent.";

INSTANTIATE_TEST_SUITE_P(
    CutOut, CutOutBoxes,
    ::testing::Values(CutOutCase{"Voxels",
                                 Properties{{"size", "2 3 1"}, {"offset", "1 2 3"}, {"fill_value", "-5"}},
                                 {{{1, 2, 3}, {2, 3, 1}}},
                                 {-5.0F},
                                 {}},
                      // offset 1.4 / 0.7 = 2, 2.6 / 1.3 = 2; size 4, 3, 1
                      CutOutCase{"FractionAndMM",
                                 Properties{{"size", "0.5 0.5 0.25"},
                                            {"size_units", "Fraction"},
                                            {"offset", "1.4 2.6 0"},
                                            {"offset_units", "MM"},
                                            {"fill_value", "0"}},
                                 {{{2, 2, 0}, {4, 3, 1}}},
                                 {0.0F},
                                 {}},
                      CutOutCase{"TwoBoxes",
                                 Properties{{"size", "[1 1 1, 2 2 2]"},
                                            {"offset", "[0 0 0, 6 4 2]"},
                                            {"fill_value", "7 9"}},
                                 {{{0, 0, 0}, {1, 1, 1}}, {{6, 4, 2}, {2, 2, 2}}},
                                 {7.0F, 9.0F},
                                 {}},
                      CutOutCase{"ZeroSizeIsOneVoxel",
                                 Properties{{"size", "0 0 0"}, {"offset", "3 3 1"}, {"fill_value", "2"}},
                                 {{{3, 3, 1}, {1, 1, 1}}},
                                 {2.0F},
                                 {kTooSmall}},
                      CutOutCase{"ClippedAtTheEnd",
                                 Properties{{"size", "5 1 1"}, {"offset", "6 0 0"}, {"fill_value", "3"}},
                                 {{{6, 0, 0}, {2, 1, 1}}},
                                 {3.0F},
                                 {kClipped}},
                      CutOutCase{"StartingBeyondTheImage",
                                 Properties{{"size", "1 1 1"}, {"offset", "9 0 0"}, {"fill_value", "3"}},
                                 {},
                                 {},
                                 {kClipped}}),
    [](auto const& info) { return info.param.name; });

// ---- PolyCrop --------------------------------------------------------------------------------------

TEST(PolyCrop, KeepsThePixelsInFrontOfEveryPlane)
{
    std::vector<std::pair<std::string, std::vector<Eigen::Vector3d>>> const cases = {
        {"HighQuarterOfX", {{0.5, 0.0, 0.0}}},
        {"LowHalfOfY", {{0.0, -0.01, 0.0}}},
        {"ObliqueTwoPlanes", {{0.3, 0.4, 0.1}, {-0.2, 0.1, -0.45}}},
        {"ZeroPointIsSkipped", {{0.0, 0.0, 0.0}, {0.0, 0.0, 0.7}}},
        {"FarPlaneKeepsAll", {{2.0, 0.0, 0.0}}}};
    Eigen::Vector3i const dims(8, 6, 5);
    for (auto const& [name, points] : cases) {
        SCOPED_TRACE(name);
        auto const input = mriSet({dims}, 3);
        auto const output = PolyCropOperation(points).process(input);
        ASSERT_NE(output, input);
        SharedImage const& in = *input->get(0);
        SharedImage const& out = *output->get(0);
        EXPECT_EQ(out.matrixToWorld(), in.matrixToWorld());
        int kept = 0;
        forEachPixel(dims, [&](Eigen::Vector3i const& p) {
            // Centred normalised coordinates: 2 * (p + 0.5) / dim - 1.
            Eigen::Vector3d const centred = (2.0 * (p.cast<double>() + Eigen::Vector3d::Constant(0.5)))
                                                .cwiseQuotient(dims.cast<double>()) -
                                            Eigen::Vector3d::Ones();
            bool keep = true;
            for (Eigen::Vector3d const& point : points)
                if (point.norm() > 1e-6 && centred.dot(point.normalized()) >= point.norm())
                    keep = false;
            kept += keep ? 1 : 0;
            for (int ch = 0; ch < 3; ++ch)
                ASSERT_EQ(valueAt(out, p, ch), keep ? valueAt(in, p, ch) : 0.0) << p.transpose();
        });
        EXPECT_GT(kept, 0);
    }
}

// ---- CropAroundLabelMap ----------------------------------------------------------------------------

Eigen::Vector3i const kLabelDims(16, 12, 8);

// Label 2 fills the box x 3..5, y 4..6, z 2..3; label 5 is the single pixel (9, 8, 5).
int labelAt(int x, int y, int z, int = 0)
{
    if (x >= 3 && x <= 5 && y >= 4 && y <= 6 && z >= 2 && z <= 3)
        return 2;
    if (x == 9 && y == 8 && z == 5)
        return 5;
    return 0;
}

// Image values name their pixel, so that a cropped pixel shows where it came from.
int imageAt(int x, int y, int z, int = 0)
{
    return (z * kLabelDims.y() + y) * kLabelDims.x() + x;
}

// An image of `imageDims` and the label map, in the given order.
DataItem imageAndLabels(bool labelFirst = false, Eigen::Vector3i const& imageDims = kLabelDims)
{
    auto labels = std::make_shared<SharedImageSet>(obliqueFrame<unsigned char>(kLabelDims, 1, labelAt));
    labels->setModality(Data::Modality::Label);
    DataItem item;
    if (labelFirst)
        item.set("label", labels);
    item.set("image", std::make_shared<SharedImageSet>(obliqueFrame<float>(imageDims, 1, imageAt)));
    if (!labelFirst)
        item.set("label", labels);
    return item;
}

SharedImage const& frameOf(DataItem const& item, std::string const& field)
{
    return *item.get<ImageElement>(field)->sis()->get(0);
}

struct BoxCase
{
    std::string name;
    std::vector<int> labelValues;
    int margin;
    bool reorder;
    bool labelFirst;
    Eigen::Vector3i offset;
    Eigen::Vector3i size;
};

class CropAroundLabelMapBoxes : public ::testing::TestWithParam<BoxCase>
{};

TEST_P(CropAroundLabelMapBoxes, CropImageAndLabelToTheSameBoxInPlace)
{
    BoxCase const& c = GetParam();
    DataItem item = imageAndLabels(c.labelFirst);
    CropAroundLabelMapOperation(c.labelValues, c.margin, c.reorder).process(item);

    for (char const* field : {"image", "label"}) {
        SharedImage const& frame = frameOf(item, field);
        ASSERT_EQ(frame.dimensions(), c.size) << field;
        EXPECT_EQ(frame.spacing(), kObliqueSpacing) << field;
        for (Eigen::Vector3i const& q : {Eigen::Vector3i(0, 0, 0), (c.size - Eigen::Vector3i::Ones()).eval(),
                                         Eigen::Vector3i(c.size.x() - 1, 0, c.size.z() / 2)}) {
            Eigen::Vector3i const p = q + c.offset;
            // Same world point as the original pixel ...
            Eigen::Vector3d const world =
                conventionWorld(obliqueMatrix(), kLabelDims, kObliqueSpacing, p.cast<double>());
            EXPECT_LT((frame.pixelToWorld(q.cast<double>()) - world).norm(), 1e-9) << field << q.transpose();
            // ... and the same value: each element kept its own content.
            double const expected =
                std::string(field) == "image" ? imageAt(p.x(), p.y(), p.z()) : labelAt(p.x(), p.y(), p.z());
            EXPECT_EQ(valueAt(frame, q), expected) << field << " " << q.transpose();
        }
    }
    EXPECT_EQ(item.get<ImageElement>("label")->sis()->modality(), Data::Modality::Label);
}

INSTANTIATE_TEST_SUITE_P(
    Boxes, CropAroundLabelMapBoxes,
    ::testing::Values(
        // Every non-zero label: x 3..9, y 4..8, z 2..5.
        BoxCase{"AllLabels", {}, 0, false, false, {3, 4, 2}, {7, 5, 4}},
        BoxCase{"OnlyTwo", {2}, 0, false, false, {3, 4, 2}, {3, 3, 2}},
        // The single pixel of 5 with a margin of 1.
        BoxCase{"OnlyFive", {5}, 1, false, true, {8, 7, 4}, {3, 3, 3}},
        // Margin 2 on the box of 2: x 1..7, y 2..8, z 0..5.
        BoxCase{"Margin", {2}, 2, false, false, {1, 2, 0}, {7, 7, 6}},
        // Clipped at the image: z 5 - 3 .. 5 + 3 = 2..7 fits (8 slices), x 6..12, y 5..11.
        BoxCase{"MarginClipped", {5}, 3, false, false, {6, 5, 2}, {7, 7, 6}},
        BoxCase{"ReorderLabelSecond", {}, 1, true, false, {2, 3, 1}, {9, 7, 6}},
        BoxCase{"ReorderLabelFirst", {2}, 0, true, true, {3, 4, 2}, {3, 3, 2}},
        // A frame without the label stays whole.
        BoxCase{"LabelAbsent", {7}, 0, false, false, {0, 0, 0}, kLabelDims}),
    [](auto const& info) { return info.param.name; });

TEST(CropAroundLabelMap, FailuresNameTheirCauseAndChangeNothing)
{
    struct Failure
    {
        char const* name;
        Eigen::Vector3i imageDims;
        std::vector<int> labelValues;
        int margin;
        char const* message;
    };
    for (Failure const& c :
         {Failure{"SizeMismatch", {16, 12, 7}, {}, 0, "Image size must match label size"},
          Failure{"NegativeMargin", kLabelDims, {}, -1, "CropLabelMapAlgorithm failed"},
          Failure{"SinglePixelBox",
                  kLabelDims,
                  {5},
                  0,
                  "The box around the labels is a single pixel, which an image element cannot hold; give a "
                  "margin"}}) {
        SCOPED_TRACE(c.name);
        DataItem item = imageAndLabels(false, c.imageDims);
        Log::Capture capture; // the host's own error line for a bad margin stays off the console
        CropAroundLabelMapOperation operation(c.labelValues, c.margin, false);
        MLTest::expectThrowWithMessage<OperationException>(
            [&] { operation.process(item); }, std::string("[ML.CropAroundLabelMap] ") + c.message);
        EXPECT_EQ(frameOf(item, "image").dimensions(), c.imageDims);
        EXPECT_EQ(frameOf(item, "label").dimensions(), kLabelDims);
    }
}

// The source index that a padded index shows, by the rules of the modes (-1: fill).
int referenceSource(int s, int n, PaddingMode mode)
{
    if (s >= 0 && s < n)
        return s;
    if (mode == PaddingMode::Zero)
        return -1;
    if (mode == PaddingMode::Clamp)
        return std::clamp(s, 0, n - 1);
    if (n == 1)
        return 0;
    int const period = 2 * (n - 1);
    int m = ((s % period) + period) % period;
    return m < n ? m : period - m;
}

// ---- Pad: sizes, values and world positions ----------------------------------------------------

struct PadCase
{
    std::string name;
    Eigen::Vector3i dims;
    Eigen::Vector3i low;
    Eigen::Vector3i high;
    PaddingMode mode;
    bool allowDimensionChange;
    Eigen::Vector3i expectedDims;
};

class PadGeometry : public ::testing::TestWithParam<PadCase>
{};

TEST_P(PadGeometry, KeepsWorldPositionsAndFillsBordersByTheMode)
{
    PadCase const& c = GetParam();
    constexpr double kFill = 5.0;
    PadOperation pad(Eigen::Vector2i(c.low.x(), c.high.x()), Eigen::Vector2i(c.low.y(), c.high.y()),
                     Eigen::Vector2i(c.low.z(), c.high.z()), c.mode);
    pad.p_paddingValue.setValue(kFill);
    pad.p_allowDimensionChange.setValue(c.allowDimensionChange);
    auto const input = rampSet(c.dims, 2, 2);
    input->setModality(Data::Modality::CT);
    auto const output = pad.process(input);
    ASSERT_NE(output, nullptr);
    ASSERT_EQ(output->size(), 2);
    ASSERT_NE(output, input);

    for (int f = 0; f < 2; ++f) {
        SharedImage const& in = *input->get(f);
        SharedImage const& out = *output->get(f);
        ASSERT_EQ(out.dimensions(), c.expectedDims);
        EXPECT_EQ(out.spacing(), in.spacing());
        EXPECT_EQ(out.modality(), Data::Modality::CT);
        // Applied low padding: none on an axis of one pixel unless allowed.
        Eigen::Vector3i low = c.low;
        for (int a = 0; a < 3; ++a)
            if (c.dims[a] == 1 && !c.allowDimensionChange)
                low[a] = 0;
        forEachPixel(out.dimensions(), [&](Eigen::Vector3i const& q) {
            Eigen::Vector3i const s = q - low;
            Eigen::Vector3i src;
            for (int a = 0; a < 3; ++a)
                src[a] = referenceSource(s[a], c.dims[a], c.mode);
            for (int ch = 0; ch < 2; ++ch) {
                double const expected = (src.array() < 0).any() ? kFill : valueAt(in, src, ch);
                ASSERT_EQ(valueAt(out, q, ch), expected) << "pixel " << q.transpose() << " channel " << ch;
            }
            if ((s.array() >= 0).all() && (s.array() < c.dims.array()).all()) {
                ASSERT_LT(
                    (conventionWorld(out, q.cast<double>()) - conventionWorld(in, s.cast<double>())).norm(),
                    1e-9)
                    << "pixel " << q.transpose();
            }
        });
    }
}

INSTANTIATE_TEST_SUITE_P(
    Pad, PadGeometry,
    ::testing::Values(
        PadCase{"ZeroAsymmetric", {4, 3, 2}, {2, 0, 1}, {3, 1, 0}, PaddingMode::Zero, false, {9, 4, 3}},
        PadCase{"MirrorWide", {3, 2, 2}, {4, 1, 0}, {5, 2, 1}, PaddingMode::Mirror, false, {12, 5, 3}},
        PadCase{"ClampAndCrop", {5, 4, 3}, {-1, 2, 0}, {2, -2, -1}, PaddingMode::Clamp, false, {6, 4, 2}},
        PadCase{"TwoDimensional", {4, 3, 1}, {1, 1, 1}, {1, 1, 1}, PaddingMode::Mirror, false, {6, 5, 1}},
        PadCase{
            "TwoDimensionalGrowing", {4, 3, 1}, {0, 0, 1}, {0, 0, 1}, PaddingMode::Clamp, true, {4, 3, 3}},
        PadCase{"CropOnly", {6, 5, 4}, {-1, -2, 0}, {-2, 0, -3}, PaddingMode::Zero, false, {3, 3, 1}}),
    [](auto const& info) { return info.param.name; });

TEST(Pad, AllZeroSizesReturnTheInputObject)
{
    auto const input = rampSet({4, 3, 2});
    PadOperation pad;
    EXPECT_EQ(pad.process(input), input);
}

TEST(Pad, TheFillValueIsAnOriginalIntensity)
{
    auto frame = rampFrame({2, 2, 1});
    frame->mem()->setShiftScale(3.0, 2.0); // stored = (original + 3) * 2
    PadOperation pad(Eigen::Vector2i(1, 0), Eigen::Vector2i::Zero(), Eigen::Vector2i::Zero(),
                     PaddingMode::Zero);
    pad.p_paddingValue.setValue(4.0);
    auto const output = pad.process(std::make_shared<SharedImageSet>(frame));
    EXPECT_EQ(valueAt(*output->get(0), {0, 0, 0}), 14.0F);
    EXPECT_EQ(valueAt(*output->get(0), {1, 0, 0}), 1.0F);
}

// ---- Label maps ----------------------------------------------------------------------------------

struct LabelCase
{
    std::string name;
    Properties properties;
    bool label;
    float expectedBorder; // value of padded pixel (0, 0, 0); the ramp's first value is 1
};

class PadLabels : public ::testing::TestWithParam<LabelCase>
{};

TEST_P(PadLabels, LabelMapsUseTheLabelSettings)
{
    LabelCase const& c = GetParam();
    PadOperation pad;
    Log::Capture capture;
    Properties properties = c.properties;
    properties.setParam("pad_size_x", "2 0");
    properties.setParam("pad_size_y", "2 0");
    ASSERT_TRUE(pad.configure(properties));
    auto const input = rampSet({3, 3, 1});
    if (c.label)
        input->setModality(Data::Modality::Label);
    auto const output = pad.process(input);
    EXPECT_EQ(valueAt(*output->get(0), {0, 0, 0}), c.expectedBorder);
    EXPECT_EQ(valueAt(*output->get(0), {2, 2, 0}), valueAt(*input->get(0), {0, 0, 0}));
}

INSTANTIATE_TEST_SUITE_P(
    Pad, PadLabels,
    ::testing::Values(
        LabelCase{"ImageMirrors", Properties{{"label_padding_mode", "Zero"}, {"label_padding_value", "7"}},
                  false, 81.0F},
        LabelCase{"LabelTakesLabelModeAndValue",
                  Properties{{"label_padding_mode", "Zero"}, {"label_padding_value", "7"}}, true, 7.0F},
        LabelCase{"LabelWithoutLabelValueFillsZero", Properties{{"label_padding_mode", "Zero"}}, true, 0.0F},
        LabelCase{
            "LabelClamps",
            Properties{{"padding_mode", "Zero"}, {"padding_value", "9"}, {"label_padding_mode", "Clamp"}},
            true, 1.0F},
        LabelCase{"LabelWithoutLabelModeUsesImageSettings",
                  Properties{{"padding_mode", "Zero"}, {"padding_value", "9"}}, true, 9.0F}),
    [](auto const& info) { return info.param.name; });

// ---- checkParams warnings --------------------------------------------------------------------------

using Warnings = std::vector<std::string>;

struct WarningCase
{
    std::string name;
    Properties properties;
    Warnings expected;
};

class PadWarnings : public ::testing::TestWithParam<WarningCase>
{};

std::string const kValueUnused = "PaddingValue is used only when the specified PaddingMode is 'Zero' (i.e. "
                                 "Constant padding), otherwise ignored";
std::string const kLabelValueUnused =
    "Label PaddingValue is used only when the specified Label PaddingMode is "
    "'Zero' (i.e. Constant padding), otherwise ignored";
std::string const kLabelValueNeedsMode =
    "Label PaddingValue is used only if either PaddingMode is not 'Zero' or if "
    "Label PaddingMode is specified and its value is 'Zero'.";
std::string const kValueNotForLabels = "PaddingValue is not used with Label PaddingMode. In case you wanted "
                                       "to specify a padding value for labelmaps, "
                                       "set `label_padding_value` instead.";

TEST_P(PadWarnings, AreLoggedInOrderByEveryPaddingOperation)
{
    WarningCase const& c = GetParam();
    PadOperation pad;
    PadDimsOperation padDims;
    PadDimsToNextMultipleOperation padNext;
    for (Operation* operation : std::vector<Operation*>{&pad, &padDims, &padNext}) {
        Log::Capture capture;
        EXPECT_TRUE(operation->configure(c.properties));
        EXPECT_EQ(messagesOf(capture, operation->logCategory()), c.expected) << operation->name();
    }
    // With errors on, the first warning becomes the failure of configure.
    PadOperation strict;
    Properties properties = c.properties;
    properties.setParam("error_on_unexpected_behaviour", true);
    Log::Capture capture;
    EXPECT_EQ(strict.configure(properties), c.expected.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Pad, PadWarnings,
    ::testing::Values(
        // A value only for the mode that uses it: nothing to say.
        WarningCase{"None", Properties{{"padding_mode", "Zero"}, {"padding_value", "3"}}, Warnings()},
        WarningCase{"ValueWithMirror", Properties{{"padding_mode", "Mirror"}, {"padding_value", "3"}},
                    Warnings{kValueUnused}},
        WarningCase{"LabelValueWithClampLabelMode",
                    Properties{{"padding_mode", "Zero"},
                               {"label_padding_mode", "Clamp"},
                               {"label_padding_value", "1"}},
                    Warnings{kLabelValueUnused}},
        WarningCase{"LabelValueWithoutLabelModeUnderZero",
                    Properties{{"padding_mode", "Zero"}, {"label_padding_value", "1"}},
                    Warnings{kLabelValueNeedsMode}},
        WarningCase{
            "ValueMeantForLabels",
            Properties{{"padding_mode", "Clamp"}, {"padding_value", "2"}, {"label_padding_mode", "Zero"}},
            Warnings{kValueUnused, kValueNotForLabels}},
        WarningCase{"TwoInOrder",
                    Properties{{"padding_mode", "Mirror"},
                               {"padding_value", "2"},
                               {"label_padding_mode", "Mirror"},
                               {"label_padding_value", "4"}},
                    Warnings{kValueUnused, kLabelValueUnused}}),
    [](auto const& info) { return info.param.name; });

// ---- PadDims and PadDimsToNextMultiple ---------------------------------------------------------------

TEST(PadDims, SplitsTheDifferenceAndKeepsTheCentre)
{
    struct Case
    {
        Eigen::Vector3i dims;
        Eigen::Vector3i target;
        PaddingDoneInfo::PadSize expected;
    };
    for (Case const& c : {Case{{5, 3, 2}, {8, 3, 2}, {{{1, 2}, {0, 0}, {0, 0}}}},
                          Case{{7, 3, 2}, {4, 3, 2}, {{{-1, -2}, {0, 0}, {0, 0}}}},
                          Case{{6, 9, 2}, {9, 4, 5}, {{{1, 2}, {-2, -3}, {1, 2}}}}}) {
        SCOPED_TRACE(c.target.transpose());
        EXPECT_EQ(PadDimsOperation::padSizeFor(c.dims, c.target), c.expected);
        PadDimsOperation padDims(c.target);
        padDims.p_allowDimensionChange.setValue(true);
        auto const input = rampSet(c.dims);
        auto const output = padDims.process(input);
        ASSERT_EQ(output->get(0)->dimensions(), c.target);
        // The first kept pixel shows the input pixel at -low (or 0 when padded) and sits where it did.
        Eigen::Vector3i const low(c.expected[0].first, c.expected[1].first, c.expected[2].first);
        Eigen::Vector3i const q = low.cwiseMax(0);
        Eigen::Vector3i const p = q - low;
        EXPECT_EQ(valueAt(*output->get(0), q), valueAt(*input->get(0), p));
        EXPECT_LT((conventionWorld(*output->get(0), q.cast<double>()) -
                   conventionWorld(*input->get(0), p.cast<double>()))
                      .norm(),
                  1e-9);
    }
}

TEST(PadDimsToNextMultiple, RoundsEachAxisUpToItsDivisorButKeepsFlatAxes)
{
    struct Case
    {
        Eigen::Vector3i dims;
        Eigen::Vector3i divisor;
        Eigen::Vector3i expected;
    };
    for (Case const& c : {Case{{33, 16, 3}, {16, 16, 4}, {48, 16, 4}}, Case{{7, 5, 1}, {4, 2, 8}, {8, 6, 8}},
                          Case{{9, 10, 2}, {1, 3, 2}, {9, 12, 2}}}) {
        PadDimsToNextMultipleOperation padNext(c.divisor);
        EXPECT_EQ(padNext.calculateTargetDims(c.dims), c.expected);
        // An axis of one pixel is kept unless dimension changes are allowed.
        Eigen::Vector3i const kept = (c.dims.array() == 1).select(Eigen::Vector3i::Ones(), c.expected);
        EXPECT_EQ(padNext.process(rampSet(c.dims))->get(0)->dimensions(), kept);
    }
}

// ---- Inversion round trips -----------------------------------------------------------------------
// The steps only add pixels: what a negative padding removed cannot come back.

struct RoundTripCase
{
    std::string name;
    std::string operation;
    Properties properties;
    std::string inverseName;
    bool exactMatrix; // UndoPadding restores the recorded matrix exactly
};

class PadRoundTrip : public ::testing::TestWithParam<RoundTripCase>
{
protected:
    static void SetUpTestSuite() { registerOperations(); }
};

TEST_P(PadRoundTrip, ForwardThenInverseGivesTheInputBack)
{
    RoundTripCase const& c = GetParam();
    auto const input = rampSet({5, 7, 3}, 2, 2);
    auto const keep = input->clone();
    DataItem item;
    item.set("image", std::make_shared<ImageElement>(input));

    Properties properties = c.properties;
    properties.setParam("record_identifier", std::string("pad"));
    auto forward = Operation::createFromFactories({c.operation, properties, Phase::Always});
    ASSERT_NE(forward, nullptr);
    forward->process(item);
    auto const padded = item.get<ImageElement>("image")->sis();
    ASSERT_NE(padded->get(0)->dimensions(), keep->get(0)->dimensions());
    // The new set carries the record, with the inverse and (where needed) the padding done.
    auto const* inversion = padded->components().get<InversionComponent>();
    ASSERT_NE(inversion, nullptr);
    auto const* info = inversion->getInversionInfo("pad");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->operationName, c.inverseName);
    ASSERT_TRUE(info->context.has_value());
    PaddingDoneDataComponent done;
    done.configure(&*info->context);
    ASSERT_EQ(done.infos.size(), 1U);
    ASSERT_EQ(done.infos[0].size(), 2U);
    EXPECT_TRUE(done.infos[0].originalDescriptorWorlds[1].isApprox(keep->get(1)->descriptorWorld()));

    InverseOperation inverse("pad");
    inverse.process(item);
    auto const restored = item.get<ImageElement>("image")->sis();
    ASSERT_EQ(restored->size(), 2);
    for (int f = 0; f < 2; ++f) {
        SharedImage const& back = *restored->get(f);
        SharedImage const& original = *keep->get(f);
        EXPECT_TRUE(back.descriptor().isApprox(original.descriptor())) << f;
        EXPECT_TRUE(sameBytes(back, original)) << f;
        if (c.exactMatrix)
            EXPECT_EQ(back.matrixToWorld(), original.matrixToWorld()) << f;
        else
            EXPECT_TRUE(back.matrixToWorld().isApprox(original.matrixToWorld(), 1e-12)) << f;
    }
    EXPECT_FALSE(restored->components().get<InversionComponent>()->hasInversion("pad"));
}

INSTANTIATE_TEST_SUITE_P(
    Inversion, PadRoundTrip,
    ::testing::Values(
        RoundTripCase{"Pad", "Pad",
                      Properties{{"pad_size_x", "2 3"}, {"pad_size_y", "0 2"}, {"pad_size_z", "1 0"}}, "Pad",
                      false},
        RoundTripCase{"PadZero", "Pad",
                      Properties{{"pad_size_x", "1 1"}, {"pad_size_z", "0 1"}, {"padding_mode", "Zero"}},
                      "Pad", false},
        RoundTripCase{"PadDims", "PadDims", Properties{{"target_dims", "8 9 6"}}, "UndoPadding", true},
        RoundTripCase{"PadDimsToNextMultiple", "PadDimsToNextMultiple",
                      Properties{{"dimension_divisor", "4 4 4"}}, "UndoPadding", true}),
    [](auto const& info) { return info.param.name; });

// ---- UndoPadding ---------------------------------------------------------------------------------

TEST(UndoPadding, WithoutWorkWarnsAndReturnsTheInputOrFailsInErrorMode)
{
    struct Case
    {
        std::string identifier;
        int setup; // 0: no component, 1: component without the identifier, 2: info without context
        std::string expected;
    };
    for (Case const& c :
         {Case{"", 1, "No target identifier specified. Skipping UndoPadding."},
          Case{"pad", 0, "Input has no Inversion data component. No padding was performed on this image."},
          Case{"other", 2, "InversionComponent has no info associated with the identifier `other`"},
          Case{"pad", 2, "InversionComponent has an associated info with no context properties"}}) {
        SCOPED_TRACE(c.expected);
        auto const input = rampSet({4, 4, 1});
        if (c.setup >= 1)
            input->components().getOrCreate<InversionComponent>();
        if (c.setup == 2)
            input->components().get<InversionComponent>()->recordInversion(
                "pad", Operation::Specs{"UndoPadding", {}, Phase::Always});
        UndoPaddingOperation undo(c.identifier);
        Log::Capture capture;
        EXPECT_EQ(undo.process(input), input);
        EXPECT_EQ(messagesOf(capture, "ML.UndoPadding"), std::vector<std::string>{c.expected});
        undo.setErrorOnUnexpectedBehaviour(true);
        EXPECT_EQ(errorOf(undo, input), "[ML.UndoPadding] " + c.expected);
    }
}

TEST(UndoPadding, RefusesAnotherFrameCountAndUndoesDirectly)
{
    DataItem item;
    item.set("image", std::make_shared<ImageElement>(rampSet({5, 5, 2}, 2)));
    PadDimsOperation padDims(Eigen::Vector3i(8, 3, 2));
    padDims.setRecordIdentifier("pad");
    padDims.process(item);
    auto const padded = item.get<ImageElement>("image")->sis();
    ASSERT_EQ(padded->get(0)->dimensions(), Eigen::Vector3i(8, 3, 2));

    // Directly, without Inverse: the record stays, the frames are back.
    UndoPaddingOperation undo("pad");
    auto const restored = undo.process(padded);
    ASSERT_EQ(restored->size(), 2);
    EXPECT_EQ(restored->get(1)->dimensions(), Eigen::Vector3i(5, 5, 2));
    EXPECT_EQ(restored->get(1)->matrixToWorld(), obliqueMatrix(50.0));
    EXPECT_TRUE(restored->components().get<InversionComponent>()->hasInversion("pad"));

    std::shared_ptr<SharedImageSet> const oneFrame = padded->clone();
    oneFrame->remove(1);
    EXPECT_EQ(
        errorOf(undo, oneFrame),
        "[ML.UndoPadding] Padding was performed on an image with 2 frames. Cannot undo it on image with 1 "
        "frames.");
}

} // namespace

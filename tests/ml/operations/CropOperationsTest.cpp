// Crop, CutOut, PolyCrop and CropAroundLabelMap. Crop's geometry is checked against world
// positions computed from the convention on an obliquely turned, moved, anisotropic grid;
// CutOut's boxes and PolyCrop's half-spaces against masks computed here pixel by pixel;
// CropAroundLabelMap against the box found by hand from where the labels were drawn. Their
// messages are in CatalogueTest.

#include "ml/operations/catalogue/CropOperations.h"

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/operations/CatalogueTestHelpers.h"
#include "ml/operations/catalogue/CropAroundLabelMapOperation.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

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

TEST(Crop, ReadsTheOldKeyNamesWithADeprecationNote)
{
    CropOperation crop;
    Log::Capture capture;
    ASSERT_TRUE(crop.configure(Properties{{"crop_size", "2 2 1"}, {"crop_offset", "1 0 0"}}));
    EXPECT_TRUE(
        capture.contains("Using deprecated parameter 'crop_size'. Please use: 'size' instead.", "ML.Crop"));
    auto const output = crop.process(mriSet({{4, 3, 2}}));
    EXPECT_EQ(output->get(0)->dimensions(), Eigen::Vector3i(2, 2, 1));
    EXPECT_EQ(valueAt(*output->get(0), {0, 0, 0}), 11.0);
}

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
    // Worked out by hand: the high quarter of x is the last two columns of eight.
    auto const output = PolyCropOperation({{0.5, 0.0, 0.0}}).process(mriSet({{8, 2, 1}}));
    for (int x = 0; x < 8; ++x)
        EXPECT_EQ(valueAt(*output->get(0), {x, 1, 0}) == 0.0, x >= 6) << x;
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
        BoxCase{"ReorderLabelFirst", {2}, 0, true, true, {3, 4, 2}, {3, 3, 2}}),
    [](auto const& info) { return info.param.name; });

TEST(CropAroundLabelMap, FrameWithoutTheLabelStaysWhole)
{
    DataItem item = imageAndLabels();
    CropAroundLabelMapOperation({7}, 0, false).process(item);
    EXPECT_EQ(frameOf(item, "image").dimensions(), kLabelDims);
    EXPECT_EQ(frameOf(item, "label").dimensions(), kLabelDims);
}

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

} // namespace

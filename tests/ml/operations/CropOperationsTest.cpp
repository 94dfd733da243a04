// Crop, CutOut and PolyCrop. Crop's geometry is checked against world positions computed here
// from the convention (pixel p at (p - (dim - 1) / 2) * spacing, then matrixToWorld) on an
// obliquely turned, moved, anisotropic grid; CutOut's boxes and PolyCrop's half-spaces against
// masks computed here pixel by pixel.

#include "ml/operations/catalogue/CropOperations.h"

#include "ml/operations/OperationException.h"

#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

Eigen::Vector3d const kSpacing(0.7, 1.3, 2.5);

Eigen::Matrix4d obliqueMatrix()
{
    Eigen::Affine3d const t = Eigen::Translation3d(3.0, -8.0, 21.0) *
                              Eigen::AngleAxisd(-0.8, Eigen::Vector3d(2.0, -1.0, 1.0).normalized());
    return t.matrix();
}

// A float frame whose stored value at pixel i, channel c is 10 * i + c + 1 (never 0).
std::shared_ptr<SharedImage> rampFrame(Eigen::Vector3i const& dims, int channels = 1)
{
    auto pixels = TypedImage<float>::zeros(dims, channels);
    for (std::size_t i = 0; i < pixels->descriptor().pixelCount(); ++i)
        for (int c = 0; c < channels; ++c)
            pixels->setValue(static_cast<float>(10 * i + static_cast<std::size_t>(c) + 1),
                             i * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c));
    pixels->setSpacing(kSpacing, true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(obliqueMatrix());
    frame->setModality(Data::Modality::MRI);
    return frame;
}

std::shared_ptr<SharedImageSet> setOf(std::vector<Eigen::Vector3i> const& sizes, int channels = 1)
{
    auto set = std::make_shared<SharedImageSet>();
    for (auto const& dims : sizes)
        set->add(rampFrame(dims, channels));
    return set;
}

Eigen::Vector3d worldOf(SharedImage const& frame, Eigen::Vector3d const& p)
{
    Eigen::Vector3d const dims = frame.dimensions().cast<double>();
    Eigen::Vector3d const image = (p - (dims - Eigen::Vector3d::Ones()) / 2.0).cwiseProduct(frame.spacing());
    return (frame.matrixToWorld() * image.homogeneous()).head<3>();
}

float valueAt(SharedImage const& frame, Eigen::Vector3i const& p, int channel = 0)
{
    Eigen::Vector3i const d = frame.dimensions();
    auto const index =
        ((static_cast<std::size_t>(p.z()) * d.y() + p.y()) * d.x() + p.x()) * frame.channels() + channel;
    return static_cast<float const*>(frame.mem()->data())[index];
}

std::string errorOf(Operation& operation, std::shared_ptr<SharedImageSet> const& set)
{
    try {
        operation.process(set);
    } catch (OperationException const& e) {
        return e.what();
    }
    return "no exception";
}

std::vector<std::string> messagesOf(Log::Capture const& capture, std::string const& category)
{
    std::vector<std::string> out;
    for (auto const& record : capture.records())
        if (record.category == category)
            out.push_back(record.message);
    return out;
}

template <class F>
void forEachPixel(Eigen::Vector3i const& dims, F&& f)
{
    for (int z = 0; z < dims.z(); ++z)
        for (int y = 0; y < dims.y(); ++y)
            for (int x = 0; x < dims.x(); ++x)
                f(Eigen::Vector3i(x, y, z));
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

void PrintTo(CropCase const& c, std::ostream* os)
{
    *os << c.name;
}

class CropGeometry : public ::testing::TestWithParam<CropCase>
{};

TEST_P(CropGeometry, KeepsPixelsAtTheirWorldPositions)
{
    CropCase const& c = GetParam();
    CropOperation crop(c.size, c.offset);
    auto const input = setOf({c.dims, c.dims}, 2);
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
            ASSERT_LT((worldOf(out, q.cast<double>()) - worldOf(in, p.cast<double>())).norm(), 1e-9);
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

struct CropErrorCase
{
    std::string name;
    Eigen::Vector3i size;
    Eigen::Vector3i offset;
    std::string expected;
};

void PrintTo(CropErrorCase const& c, std::ostream* os)
{
    *os << c.name;
}

class CropErrors : public ::testing::TestWithParam<CropErrorCase>
{};

TEST_P(CropErrors, AreFoundBeforeAnyFrameIsCropped)
{
    CropErrorCase const& c = GetParam();
    // The first frame would be fine for most cases; the second (width 10) must stop the run.
    auto const input = setOf({{12, 3, 2}, {10, 3, 2}});
    CropOperation crop(c.size, c.offset);
    EXPECT_EQ(errorOf(crop, input), "[ML.Crop] " + c.expected);
    EXPECT_EQ(input->get(0)->dimensions(), Eigen::Vector3i(12, 3, 2));
    EXPECT_EQ(input->get(1)->dimensions(), Eigen::Vector3i(10, 3, 2));
}

INSTANTIATE_TEST_SUITE_P(
    Crop, CropErrors,
    ::testing::Values(
        CropErrorCase{"NegativeOffset",
                      {-1, -1, -1},
                      {-11, 0, 0},
                      "Resolved offset is negative. Crop offset: [-11, 0, 0]"},
        CropErrorCase{"OffsetPastEnd",
                      {1, -1, -1},
                      {11, 0, 0},
                      "Offset exceeds image dimensions. Image size: [10, 3, 2], Crop offset: [11, 0, 0]"},
        CropErrorCase{
            "NothingLeft", {-1, -1, -1}, {10, 0, 0}, "Resolved size is equal to zero. Crop size: [0, 3, 2]"},
        CropErrorCase{
            "ZeroSize", {4, 0, -1}, {0, 0, 0}, "Resolved size is equal to zero. Crop size: [4, 0, 2]"},
        CropErrorCase{
            "BoxPastEnd",
            {6, -1, -1},
            {5, 0, 0},
            "Offset + size exceeds image dimensions. Image size: [10, 3, 2], Offset + size: [11, 3, 2]"}),
    [](auto const& info) { return info.param.name; });

TEST(Crop, ReadsTheOldKeyNamesWithADeprecationNote)
{
    CropOperation crop;
    Log::Capture capture;
    ASSERT_TRUE(crop.configure(Properties{{"crop_size", "2 2 1"}, {"crop_offset", "1 0 0"}}));
    EXPECT_EQ(crop.p_size.value(), Eigen::Vector3i(2, 2, 1));
    EXPECT_EQ(crop.p_offset.value(), Eigen::Vector3i(1, 0, 0));
    EXPECT_TRUE(
        capture.contains("Using deprecated parameter 'crop_size'. Please use: 'size' instead.", "ML.Crop"));
    auto const output = crop.process(setOf({{4, 3, 2}}));
    EXPECT_EQ(output->get(0)->dimensions(), Eigen::Vector3i(2, 2, 1));
    EXPECT_EQ(valueAt(*output->get(0), {0, 0, 0}), 11.0F);
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

void PrintTo(CutOutCase const& c, std::ostream* os)
{
    *os << c.name;
}

class CutOutBoxes : public ::testing::TestWithParam<CutOutCase>
{};

TEST_P(CutOutBoxes, BlankExactlyTheBoxesInAllChannels)
{
    CutOutCase const& c = GetParam();
    CutOutOperation cutOut;
    Log::Capture capture;
    ASSERT_TRUE(cutOut.configure(c.properties));
    Eigen::Vector3i const dims(8, 6, 4);
    auto const input = setOf({dims}, 2);
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
            ASSERT_EQ(valueAt(in, p, ch),
                      10.0F * static_cast<float>((p.z() * 6 + p.y()) * 8 + p.x()) + ch + 1);
        }
    });
}

std::string const kTooSmall = "cutout size too small. Increasing to at least one voxel.";
std::string const kClipped = "offset + cutout size exceeds image dimension. Clipping size to image extent.";

INSTANTIATE_TEST_SUITE_P(
    CutOut, CutOutBoxes,
    ::testing::Values(CutOutCase{"Voxels",
                                 {{"size", "2 3 1"}, {"offset", "1 2 3"}, {"fill_value", "-5"}},
                                 {{{1, 2, 3}, {2, 3, 1}}},
                                 {-5.0F},
                                 {}},
                      CutOutCase{"FractionAndMM",
                                 {{"size", "0.5 0.5 0.25"},
                                  {"size_units", "Fraction"},
                                  {"offset", "1.4 2.6 0"},
                                  {"offset_units", "MM"},
                                  {"fill_value", "0"}},
                                 // offset 1.4 / 0.7 = 2, 2.6 / 1.3 = 2; size 4, 3, 1
                                 {{{2, 2, 0}, {4, 3, 1}}},
                                 {0.0F},
                                 {}},
                      CutOutCase{
                          "TwoBoxes",
                          {{"size", "[1 1 1, 2 2 2]"}, {"offset", "[0 0 0, 6 4 2]"}, {"fill_value", "7 9"}},
                          {{{0, 0, 0}, {1, 1, 1}}, {{6, 4, 2}, {2, 2, 2}}},
                          {7.0F, 9.0F},
                          {}},
                      CutOutCase{"ZeroSizeIsOneVoxel",
                                 {{"size", "0 0 0"}, {"offset", "3 3 1"}, {"fill_value", "2"}},
                                 {{{3, 3, 1}, {1, 1, 1}}},
                                 {2.0F},
                                 {kTooSmall}},
                      CutOutCase{"ClippedAtTheEnd",
                                 {{"size", "5 1 1"}, {"offset", "6 0 0"}, {"fill_value", "3"}},
                                 {{{6, 0, 0}, {2, 1, 1}}},
                                 {3.0F},
                                 {kClipped}},
                      CutOutCase{"StartingBeyondTheImage",
                                 {{"size", "1 1 1"}, {"offset", "9 0 0"}, {"fill_value", "3"}},
                                 {},
                                 {},
                                 {kClipped}}),
    [](auto const& info) { return info.param.name; });

struct CutOutErrorCase
{
    std::string name;
    Properties properties;
    std::string expected;
};

void PrintTo(CutOutErrorCase const& c, std::ostream* os)
{
    *os << c.name;
}

class CutOutErrors : public ::testing::TestWithParam<CutOutErrorCase>
{};

TEST_P(CutOutErrors, FailWithTheirMessage)
{
    CutOutErrorCase const& c = GetParam();
    CutOutOperation cutOut;
    ASSERT_TRUE(cutOut.configure(c.properties));
    auto const input = setOf({{4, 4, 1}});
    EXPECT_EQ(errorOf(cutOut, input), "[ML.CutOut] " + c.expected);
    EXPECT_EQ(valueAt(*input->get(0), {0, 0, 0}), 1.0F);
}

INSTANTIATE_TEST_SUITE_P(
    CutOut, CutOutErrors,
    ::testing::Values(
        CutOutErrorCase{"NegativeSize",
                        {{"size", "-1 1 1"}, {"offset", "0 0 0"}, {"fill_value", "0"}},
                        "cutout size should be >= 0."},
        CutOutErrorCase{"NegativeOffset",
                        {{"size", "1 1 1"}, {"offset", "0 -2 0"}, {"fill_value", "0"}},
                        "cutout offset should be >= 0."},
        CutOutErrorCase{"LengthsDiffer",
                        {{"size", "1 1 1"}, {"offset", "0 0 0"}, {"fill_value", "0 1"}},
                        "number of offsets, sizes and fill values are not equal."},
        CutOutErrorCase{"UnknownSizeUnit",
                        {{"size", "1 1 1"}, {"size_units", "7"}, {"offset", "0 0 0"}, {"fill_value", "0"}},
                        "Cutout size units not supported"},
        CutOutErrorCase{"UnknownOffsetUnit",
                        {{"size", "1 1 1"}, {"offset_units", "9"}, {"offset", "0 0 0"}, {"fill_value", "0"}},
                        "Cutout offset units not supported"}),
    [](auto const& info) { return info.param.name; });

// ---- PolyCrop --------------------------------------------------------------------------------------

struct PolyCase
{
    std::string name;
    std::vector<Eigen::Vector3d> points;
};

void PrintTo(PolyCase const& c, std::ostream* os)
{
    *os << c.name;
}

class PolyCropHalfSpaces : public ::testing::TestWithParam<PolyCase>
{};

TEST_P(PolyCropHalfSpaces, KeepThePixelsInFrontOfEveryPlane)
{
    PolyCase const& c = GetParam();
    PolyCropOperation polyCrop(c.points);
    Eigen::Vector3i const dims(8, 6, 5);
    auto const input = setOf({dims}, 3);
    auto const output = polyCrop.process(input);
    ASSERT_NE(output, input);
    SharedImage const& in = *input->get(0);
    SharedImage const& out = *output->get(0);
    EXPECT_EQ(out.matrixToWorld(), in.matrixToWorld());
    int kept = 0;
    forEachPixel(dims, [&](Eigen::Vector3i const& p) {
        // Centred normalised coordinates: 2 * (p + 0.5) / dim - 1.
        Eigen::Vector3d const centred =
            (2.0 * (p.cast<double>() + Eigen::Vector3d::Constant(0.5))).cwiseQuotient(dims.cast<double>()) -
            Eigen::Vector3d::Ones();
        bool keep = true;
        for (Eigen::Vector3d const& point : c.points)
            if (point.norm() > 1e-6 && centred.dot(point.normalized()) >= point.norm())
                keep = false;
        kept += keep ? 1 : 0;
        for (int ch = 0; ch < 3; ++ch)
            ASSERT_EQ(valueAt(out, p, ch), keep ? valueAt(in, p, ch) : 0.0F) << p.transpose();
    });
    EXPECT_GT(kept, 0);
}

INSTANTIATE_TEST_SUITE_P(PolyCrop, PolyCropHalfSpaces,
                         ::testing::Values(PolyCase{"HighQuarterOfX", {{0.5, 0.0, 0.0}}},
                                           PolyCase{"LowHalfOfY", {{0.0, -0.01, 0.0}}},
                                           PolyCase{"ObliqueTwoPlanes",
                                                    {{0.3, 0.4, 0.1}, {-0.2, 0.1, -0.45}}},
                                           PolyCase{"ZeroPointIsSkipped", {{0.0, 0.0, 0.0}, {0.0, 0.0, 0.7}}},
                                           PolyCase{"FarPlaneKeepsAll", {{2.0, 0.0, 0.0}}}),
                         [](auto const& info) { return info.param.name; });

TEST(PolyCrop, HighQuarterOfXBlanksTheLastTwoColumnsOfEight)
{
    auto const output = PolyCropOperation({{0.5, 0.0, 0.0}}).process(setOf({{8, 2, 1}}));
    for (int x = 0; x < 8; ++x)
        EXPECT_EQ(valueAt(*output->get(0), {x, 1, 0}) == 0.0F, x >= 6) << x;
}

} // namespace

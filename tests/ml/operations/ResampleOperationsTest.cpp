// Resample operations: the grid each one produces is checked against world positions computed
// here from the geometry convention (pixel p at (p - (dim - 1) / 2) * spacing in image mm, then
// matrixToWorld), on an obliquely rotated, translated frame with anisotropic spacing; values
// against a linear ramp (which trilinear interpolation must reproduce exactly) and label maps
// against their own value set. Then the keys and edge cases of each operation. SetSpacing, which
// changes the grid without resampling, closes the file. The messages are in CatalogueTest.

#include "ml/operations/catalogue/ResampleOperations.h"

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointSet.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/VectorElement.h"
#include "ml/data/components/ReferenceImageDataComponent.h"
#include "ml/operations/CatalogueTestHelpers.h"
#include "ml/operations/catalogue/SetSpacingOperation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <optional>
#include <set>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

namespace {

constexpr double kTol = 1e-6;

template <class T>
std::shared_ptr<SharedImageSet> makeSet(Eigen::Vector3i const& dims, Eigen::Vector3d const& spacing,
                                        Eigen::Matrix4d const& matrix,
                                        std::function<double(int, int, int)> const& value)
{
    auto frame = obliqueFrame<T>(
        dims, 1, [&](int x, int y, int z, int) { return value(x, y, z); }, spacing);
    frame->setMatrixToWorld(matrix);
    return std::make_shared<SharedImageSet>(frame);
}

double valueAt(SharedImage const& frame, int x, int y, int z)
{
    return CatalogueTests::valueAt(frame, Eigen::Vector3i(x, y, z));
}

// Ramp of the pixel indices: trilinear interpolation reproduces it exactly between pixel centres.
double ramp(Eigen::Vector3d const& p)
{
    return 2.0 * p.x() + 3.0 * p.y() + 5.0 * p.z();
}

// Labels in blocks, so that neighbouring pixels often differ and differ by more than one.
double blockLabel(int x, int y, int z)
{
    return ((x / 3 + y / 2 + z) % 3) * 4.0;
}

std::set<double> valuesOf(SharedImage const& frame)
{
    std::set<double> values;
    for (int z = 0; z < frame.slices(); ++z)
        for (int y = 0; y < frame.height(); ++y)
            for (int x = 0; x < frame.width(); ++x)
                values.insert(valueAt(frame, x, y, z));
    return values;
}

void expectVectorNear(Eigen::Vector3d const& actual, Eigen::Vector3d const& expected, std::string const& what)
{
    EXPECT_LT((actual - expected).norm(), kTol)
        << what << ": " << actual.transpose() << " vs " << expected.transpose();
}

Eigen::Vector3i const kDims(12, 10, 6);
Eigen::Vector3d const kSpacing(0.7, 1.1, 2.5);

// ---- Grids -----------------------------------------------------------------------------------

// One way to change the grid and the grid it must produce, worked out by hand from the
// operation's definition.
struct GridCase
{
    std::string name;
    std::function<std::unique_ptr<Operation>()> make;
    Eigen::Vector3i dims;
    Eigen::Vector3d spacing;
};

class ResampleGridTest : public ::testing::TestWithParam<GridCase>
{};

TEST_P(ResampleGridTest, pixelsLieWhereTheConventionPutsThem)
{
    GridCase const& c = GetParam();
    Eigen::Matrix4d const m = obliqueMatrix();
    auto input = makeSet<float>(kDims, kSpacing, m, [](int x, int y, int z) {
        return ramp({double(x), double(y), double(z)});
    });
    auto const operation = c.make();
    auto const output = operation->process(std::shared_ptr<SharedImageSet>(input));
    ASSERT_NE(output, nullptr);
    ASSERT_EQ(output->size(), 1);
    SharedImage const& frame = *output->get(0);
    ASSERT_EQ(frame.dimensions(), c.dims);
    ASSERT_LT((frame.spacing() - c.spacing).norm(), kTol);

    // The centre stays, and chosen pixels (corners, an inner one) lie where the convention says.
    expectVectorNear(frame.pixelToWorld((c.dims.cast<double>() - Eigen::Vector3d::Ones()) / 2.0),
                     m.block<3, 1>(0, 3), "centre");
    for (Eigen::Vector3d const& p :
         {Eigen::Vector3d(0, 0, 0), (c.dims - Eigen::Vector3i::Ones()).cast<double>().eval(),
          Eigen::Vector3d(1, 2, 0)})
        expectVectorNear(frame.pixelToWorld(p), conventionWorld(m, c.dims, c.spacing, p), "pixel");

    // Values: the ramp at the input pixel that each output pixel's world point falls on, for
    // points among the input's pixel centres (upsampling only, so no smoothing is involved).
    if ((c.spacing.array() <= kSpacing.array()).all()) {
        int checked = 0;
        for (int z = 0; z < c.dims.z(); ++z)
            for (int y = 0; y < c.dims.y(); ++y)
                for (int x = 0; x < c.dims.x(); ++x) {
                    Eigen::Vector3d const w = conventionWorld(m, c.dims, c.spacing, Eigen::Vector3d(x, y, z));
                    Eigen::Vector3d const q = conventionPixel(m, kDims, kSpacing, w);
                    if ((q.array() < 0.0).any() || (q.array() > (kDims.cast<double>().array() - 1.0)).any())
                        continue;
                    EXPECT_NEAR(valueAt(frame, x, y, z), ramp(q), 1e-3) << x << " " << y << " " << z;
                    ++checked;
                }
        EXPECT_GT(checked, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Operations, ResampleGridTest,
    ::testing::Values(
        // extent 8.4 x 11 x 15: round(extent / s) pixels of s.
        GridCase{"Resample",
                 [] { return std::make_unique<ResampleOperation>(Eigen::Vector3d(0.5, 1.0, 2.0)); },
                 Eigen::Vector3i(17, 11, 8), Eigen::Vector3d(0.5, 1.0, 2.0)},
        // With preserve_extent the spacing becomes extent / dims.
        GridCase{"ResamplePreserveExtent",
                 [] { return std::make_unique<ResampleOperation>(Eigen::Vector3d(0.5, 1.0, 2.0), true); },
                 Eigen::Vector3i(17, 11, 8), Eigen::Vector3d(8.4 / 17, 1.0, 15.0 / 8)},
        // One number for all three axes, read by configure.
        GridCase{"ResampleCoarser",
                 [] {
                     auto op = std::make_unique<ResampleOperation>();
                     EXPECT_TRUE(op->configure(Properties{{"resolution", 2.0}}));
                     return op;
                 },
                 Eigen::Vector3i(4, 6, 8), Eigen::Vector3d(2.0, 2.0, 2.0)},
        GridCase{"ResampleDims",
                 [] { return std::make_unique<ResampleDimsOperation>(Eigen::Vector3i(24, 15, 6)); },
                 Eigen::Vector3i(24, 15, 6), Eigen::Vector3d(0.35, 11.0 / 15, 2.5)},
        // factor 18 / 12 = 1.5: 10 -> 15, 6 -> 9.
        GridCase{"ResampleKeepingAspectRatio",
                 [] {
                     auto op = std::make_unique<ResampleKeepingAspectRatioOperation>();
                     op->p_targetDimX.setValue(18);
                     return op;
                 },
                 Eigen::Vector3i(18, 15, 9), Eigen::Vector3d(8.4 / 18, 11.0 / 15, 15.0 / 9)}),
    [](auto const& info) { return info.param.name; });

// ---- Label maps ------------------------------------------------------------------------------

class ResampleLabelMapTest : public ::testing::TestWithParam<GridCase>
{};

// Nearest neighbour: every output label is one of the input's, and it is the label of an input
// pixel whose area holds the output pixel's centre.
TEST_P(ResampleLabelMapTest, neverCreatesALabelAndTakesTheNearestPixel)
{
    GridCase const& c = GetParam();
    Eigen::Matrix4d const m = obliqueMatrix();
    auto labels = makeSet<unsigned char>(kDims, kSpacing, m, blockLabel);
    labels->setModality(Data::Modality::Label);
    std::set<double> const before = valuesOf(*labels->get(0));

    auto const output = c.make()->process(std::shared_ptr<SharedImageSet>(labels));
    ASSERT_NE(output, nullptr);
    SharedImage const& frame = *output->get(0);
    ASSERT_EQ(frame.dimensions(), c.dims);
    std::set<double> const after = valuesOf(frame);
    for (double v : after)
        EXPECT_TRUE(before.contains(v)) << "new label " << v;

    for (int z = 0; z < c.dims.z(); ++z)
        for (int y = 0; y < c.dims.y(); ++y)
            for (int x = 0; x < c.dims.x(); ++x) {
                Eigen::Vector3d const w = conventionWorld(m, c.dims, c.spacing, Eigen::Vector3d(x, y, z));
                Eigen::Vector3d const q = conventionPixel(m, kDims, kSpacing, w);
                // The labels of the (at most two per axis) input pixels nearest to q.
                std::set<double> candidates;
                for (int dz = 0; dz < 2; ++dz)
                    for (int dy = 0; dy < 2; ++dy)
                        for (int dx = 0; dx < 2; ++dx) {
                            Eigen::Vector3d const r(std::round(q.x() + (dx ? 1e-3 : -1e-3)),
                                                    std::round(q.y() + (dy ? 1e-3 : -1e-3)),
                                                    std::round(q.z() + (dz ? 1e-3 : -1e-3)));
                            Eigen::Vector3i const p =
                                r.cast<int>().cwiseMax(0).cwiseMin(kDims - Eigen::Vector3i::Ones());
                            candidates.insert(blockLabel(p.x(), p.y(), p.z()));
                        }
                EXPECT_TRUE(candidates.contains(valueAt(frame, x, y, z))) << x << " " << y << " " << z;
            }
}

INSTANTIATE_TEST_SUITE_P(
    Operations, ResampleLabelMapTest,
    ::testing::Values(
        GridCase{"ResampleFiner",
                 [] { return std::make_unique<ResampleOperation>(Eigen::Vector3d(0.3, 0.45, 1.0)); },
                 Eigen::Vector3i(28, 24, 15), Eigen::Vector3d(0.3, 0.45, 1.0)},
        // Coarser: a linear, smoothed resampling would mix 0, 4 and 8 into 2, 3, 6 ...
        GridCase{"ResampleCoarser",
                 [] { return std::make_unique<ResampleOperation>(Eigen::Vector3d(1.9, 2.3, 3.1)); },
                 Eigen::Vector3i(4, 5, 5), Eigen::Vector3d(1.9, 2.3, 3.1)},
        GridCase{"ResampleDims",
                 [] { return std::make_unique<ResampleDimsOperation>(Eigen::Vector3i(7, 13, 4)); },
                 Eigen::Vector3i(7, 13, 4), Eigen::Vector3d(8.4 / 7, 11.0 / 13, 15.0 / 4)}),
    [](auto const& info) { return info.param.name; });

// ---- ResampleToInput and ResolutionReduction ----------------------------------------------------

class ResampleToGridTest : public ::testing::Test
{
protected:
    Eigen::Matrix4d m = obliqueMatrix();
    std::shared_ptr<SharedImageSet> input = makeSet<float>(kDims, kSpacing, m, [](int x, int y, int z) {
        return ramp({double(x), double(y), double(z)});
    });
};

// A reference grid turned against the input and finer: the values are the input's ramp at each
// pixel's world point where that lies among the input's pixel centres, and 0 beyond the input.
TEST_F(ResampleToGridTest, resampleToInputFollowsARotatedReferenceGrid)
{
    Eigen::Affine3d const turn =
        Eigen::Translation3d(1.0, 0.5, -0.5) * Eigen::AngleAxisd(0.4, Eigen::Vector3d::UnitZ());
    Eigen::Matrix4d const rm = m * turn.matrix();
    Eigen::Vector3i const rdims(16, 14, 5);
    Eigen::Vector3d const rspacing(0.6, 0.8, 2.0);
    auto reference = makeSet<float>(rdims, rspacing, rm, [](int, int, int) { return 0.0; });
    input->components().add(std::make_unique<ReferenceImageDataComponent>(reference));

    auto const output = ResampleToInputOperation().process(std::shared_ptr<SharedImageSet>(input));
    ASSERT_NE(output, nullptr);
    SharedImage const& frame = *output->get(0);
    ASSERT_TRUE(frame.descriptorWorld().isApprox(reference->get(0)->descriptorWorld(), 113));
    // The reference travels on with the result.
    ASSERT_NE(output->components().get<ReferenceImageDataComponent>(), nullptr);
    EXPECT_EQ(output->components().get<ReferenceImageDataComponent>()->reference, reference);

    int inside = 0;
    int outside = 0;
    for (int z = 0; z < rdims.z(); ++z)
        for (int y = 0; y < rdims.y(); ++y)
            for (int x = 0; x < rdims.x(); ++x) {
                Eigen::Vector3d const q = conventionPixel(
                    m, kDims, kSpacing, conventionWorld(rm, rdims, rspacing, Eigen::Vector3d(x, y, z)));
                double const v = valueAt(frame, x, y, z);
                if ((q.array() >= 0.0).all() && (q.array() <= kDims.cast<double>().array() - 1.0).all()) {
                    EXPECT_NEAR(v, ramp(q), 1e-3) << x << " " << y << " " << z;
                    ++inside;
                } else if ((q.array() < -0.51).any() ||
                           (q.array() > kDims.cast<double>().array() - 0.49).any()) {
                    EXPECT_EQ(v, 0.0) << x << " " << y << " " << z;
                    ++outside;
                }
            }
    EXPECT_GT(inside, 100);
    EXPECT_GT(outside, 10);
}

TEST_F(ResampleToGridTest, resolutionReductionKeepsTheGridAndLosesDetail)
{
    // Alternating columns: detail at the finest scale, which a 4 mm acquisition cannot hold.
    auto stripes = makeSet<float>(kDims, kSpacing, m, [](int x, int, int) { return x % 2 ? 10.0 : 0.0; });
    auto const output = ResolutionReductionOperation(Eigen::Vector3d(4.0, 4.0, 4.0))
                            .process(std::shared_ptr<SharedImageSet>(stripes));
    ASSERT_NE(output, nullptr);
    ASSERT_NE(output.get(), stripes.get());
    SharedImage const& frame = *output->get(0);
    EXPECT_TRUE(frame.descriptorWorld().isApprox(stripes->get(0)->descriptorWorld(), 127));
    // Neighbouring columns no longer differ by the full 10.
    for (int x = 2; x + 3 < kDims.x(); ++x)
        EXPECT_LT(std::abs(valueAt(frame, x + 1, 4, 3) - valueAt(frame, x, 4, 3)), 5.0) << x;
    // The input is left as it was.
    EXPECT_EQ(valueAt(*stripes->get(0), 1, 4, 3), 10.0);
}

// ---- Keys, edge cases, messages -------------------------------------------------------------------

std::shared_ptr<SharedImageSet> plainSet()
{
    return makeSet<float>(Eigen::Vector3i(6, 5, 4), kSpacing, obliqueMatrix(),
                          [](int x, int, int) { return x; });
}

std::unique_ptr<ResampleKeepingAspectRatioOperation>
aspect(std::optional<int> x, std::optional<int> y, std::optional<int> z, std::optional<std::string> wrt)
{
    auto op = std::make_unique<ResampleKeepingAspectRatioOperation>();
    op->p_targetDimX.setValue(x);
    op->p_targetDimY.setValue(y);
    op->p_targetDimZ.setValue(z);
    op->p_keepAspectRatioWrt.setValue(std::move(wrt));
    return op;
}

// All three given are covered by configureWarnsAboutUnneededKeys alone, whose once-per-process
// warning must not have been used up by another test of this program.
TEST(ResampleKeepingAspectRatioTest, scalesTheFreeAxesByTheReferenceFactor)
{
    struct Case
    {
        std::optional<int> x, y, z;
        std::optional<std::string> wrt;
        Eigen::Vector3i input;
        Eigen::Vector3i expected;
    };
    for (Case const& c : {// Only x: 200 x 150 to width 100 is 100 x 75, and stays 2D.
                          Case{100, {}, {}, {}, {200, 150, 1}, {100, 75, 1}},
                          // Truncated, never 0: 3 * (2 / 200) is 0.03.
                          Case{2, {}, {}, {}, {200, 3, 1}, {2, 1, 1}},
                          // Upscaling a 2D image keeps one slice.
                          Case{400, {}, {}, {}, {200, 150, 1}, {400, 300, 1}},
                          // Only y decides alone; z follows in 3D: factor 0.5, 7 * 0.5 = 3.5 -> 3.
                          Case{{}, 30, {}, {}, {40, 60, 7}, {20, 30, 3}},
                          // Two given: the named one decides the third.
                          Case{50, 10, {}, "y", {40, 20, 8}, {50, 10, 4}}}) {
        auto set = makeSet<float>(c.input, Eigen::Vector3d::Ones(), obliqueMatrix(),
                                  [](int, int, int) { return 1.0; });
        auto const output = aspect(c.x, c.y, c.z, c.wrt)->process(set);
        ASSERT_NE(output, nullptr);
        EXPECT_EQ(output->get(0)->dimensions(), c.expected) << c.input.transpose();
    }
    EXPECT_EQ(aspect({}, {}, 4, {})->determineKeepAspectRatioWrt(), "z");
    EXPECT_EQ(aspect(1, 2, 3, {})->determineKeepAspectRatioWrt(), "x");
    EXPECT_EQ(aspect(1, 2, {}, "y")->determineKeepAspectRatioWrt(), "y");
}

TEST(ResampleKeepingAspectRatioTest, configureWarnsAboutUnneededKeys)
{
    Log::Capture capture;
    ResampleKeepingAspectRatioOperation all;
    Properties const props{
        {"target_dim_x", 10}, {"target_dim_y", 20}, {"target_dim_z", 30}, {"keep_aspect_ratio_wrt", "y"}};
    EXPECT_TRUE(all.configure(props));
    EXPECT_TRUE(
        capture.contains("keep_aspect_ratio_wrt y was not needed since all of the target dimensions are "
                         "specified. Please consider using ResampleDims directly for better performance",
                         "ML.ResampleKeepingAspectRatio"));

    // The advice to use ResampleDims comes once per process, however many runs.
    auto set = plainSet();
    auto const first = all.process(std::shared_ptr<SharedImageSet>(set));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->get(0)->dimensions(), Eigen::Vector3i(10, 20, 30));
    all.process(std::shared_ptr<SharedImageSet>(set));
    ResampleKeepingAspectRatioOperation another;
    ASSERT_TRUE(another.configure(props));
    another.process(std::shared_ptr<SharedImageSet>(set));
    EXPECT_EQ(capture.count(
                  "All of x, y and z are specified: please use ResampleDims directly for better performance.",
                  "ML.ResampleKeepingAspectRatio"),
              1);
}

TEST(ResampleOperationTest, twoDImagesIgnoreTheZResolutionAndAZeroResolutionReturnsTheInput)
{
    auto set = makeSet<float>(Eigen::Vector3i(20, 10, 1), Eigen::Vector3d(1.0, 1.0, 3.0), obliqueMatrix(),
                              [](int x, int, int) { return x; });
    auto const output = ResampleOperation(Eigen::Vector3d(2.0, 2.0, 0.0)).process(set);
    ASSERT_NE(output, nullptr);
    EXPECT_NE(output.get(), set.get());
    EXPECT_EQ(output->get(0)->dimensions(), Eigen::Vector3i(10, 5, 1));

    Log::Capture capture;
    set = plainSet();
    EXPECT_EQ(ResampleOperation(Eigen::Vector3d(1.0, 0.0, 1.0)).processImages(set), set);
    EXPECT_TRUE(capture.contains(
        "Target resolution is 0 in one dimensions. Returning image without resampling.", "ML.Resample"));
}

// Annotations in world coordinates pass through; the set keeps its modality and components.
TEST(ResampleOperationTest, annotationsPassThroughAndTheSetKeepsModalityAndComponents)
{
    auto set = plainSet();
    set->setModality(Data::Modality::CT);
    auto reference = plainSet();
    set->components().add(std::make_unique<ReferenceImageDataComponent>(reference));
    DataItem item;
    item.set("image", set);
    auto points = std::make_shared<KeypointSet>(KeypointSet::Keypoints{{{Eigen::Vector3d(1, 2, 3)}}});
    item.set("kpts", points);
    item.set("scores", makeSet<float>(Eigen::Vector3i(1, 1, 1), Eigen::Vector3d::Ones(),
                                      Eigen::Matrix4d::Identity(), [](int, int, int) { return 0.25; }));
    ResampleDimsOperation(Eigen::Vector3i(3, 3, 2)).process(item);
    auto const output = item.get<ImageElement>("image")->sis();
    EXPECT_EQ(output->get(0)->dimensions(), Eigen::Vector3i(3, 3, 2));
    EXPECT_EQ(output->modality(), Data::Modality::CT);
    EXPECT_EQ(output->get(0)->modality(), Data::Modality::CT);
    ASSERT_NE(output->components().get<ReferenceImageDataComponent>(), nullptr);
    EXPECT_EQ(output->components().get<ReferenceImageDataComponent>()->reference, reference);
    EXPECT_EQ(item.get<KeypointsElement>("kpts")->keypoints(), points);
    EXPECT_EQ(points->keypoints()[0][0][0], Eigen::Vector3d(1, 2, 3));
    EXPECT_EQ(item.get<VectorElement>("scores")->sis()->get(0)->dimensions(), Eigen::Vector3i(1, 1, 1));
}

TEST(ResampleOperationTest, imageResamplerProcessReplacesTheFramesInPlace)
{
    ImageResampler resampler;
    auto set = plainSet();
    auto reference = makeSet<float>(Eigen::Vector3i(3, 3, 3), Eigen::Vector3d(2, 2, 2),
                                    Eigen::Matrix4d::Identity(), [](int, int, int) { return 0.0; });
    // Both paths of the device choice give the same grid.
    for (bool forceCPU : {true, false}) {
        auto copy = set->clone();
        ASSERT_TRUE(resampler.process(copy.get(), reference.get(), forceCPU));
        EXPECT_TRUE(copy->get(0)->descriptorWorld().isApprox(reference->get(0)->descriptorWorld(), 113));
    }
    EXPECT_FALSE(resampler.process(nullptr, reference.get(), true));
}

// ---- SetSpacing ----------------------------------------------------------------------------------

std::shared_ptr<SharedImageSet> spacedSet(Eigen::Vector3i const& dims, Eigen::Vector3d const& spacing,
                                          Eigen::Matrix4d const& matrix = obliqueMatrix())
{
    return makeSet<short>(dims, spacing, matrix,
                          [&](int x, int y, int z) { return (x + 7 * y + 13 * z) % 97; });
}

struct SpacingCase
{
    Eigen::Vector3i dims;
    Eigen::Vector3d newSpacing;
};

class SetSpacingGeometryTest : public ::testing::TestWithParam<SpacingCase>
{};

// After the change every pixel lies where the convention puts it with the new spacing, so the
// centre stays on its world point; the pixels are untouched.
TEST_P(SetSpacingGeometryTest, keepsTheCentreAndScalesAboutIt)
{
    SpacingCase const& c = GetParam();
    Eigen::Matrix4d const m = obliqueMatrix();
    DataItem item;
    item.set("image", spacedSet(c.dims, kSpacing));
    item.set("label", spacedSet(c.dims, kSpacing));
    item.get("label")->tagAsTarget();
    auto points = std::make_shared<KeypointSet>(KeypointSet::Keypoints{{{Eigen::Vector3d(1, 2, 3)}}});
    item.set("kpts", points);
    auto const before = item.get<ImageElement>("image")->sis()->get(0)->clone();

    SetSpacingOperation(c.newSpacing).process(item);

    for (char const* field : {"image", "label"}) {
        SharedImage const& frame = *item.get<ImageElement>(field)->sis()->get(0);
        EXPECT_EQ(frame.spacing(), c.newSpacing) << field;
        EXPECT_EQ(frame.dimensions(), c.dims) << field;
        Eigen::Vector3d const centre = (c.dims.cast<double>() - Eigen::Vector3d::Ones()) / 2.0;
        EXPECT_LT((frame.pixelToWorld(centre) - m.block<3, 1>(0, 3)).norm(), 1e-9) << field;
        for (Eigen::Vector3d const& p :
             {Eigen::Vector3d(0, 0, 0), Eigen::Vector3d(c.dims.x() - 1, 0, 0),
              (c.dims - Eigen::Vector3i::Ones()).cast<double>().eval(), Eigen::Vector3d(2, 1, 0)})
            EXPECT_LT((frame.pixelToWorld(p) - conventionWorld(m, c.dims, c.newSpacing, p)).norm(), 1e-9)
                << field << " " << p.transpose();
    }
    // Not resampled: the same pixels; the keypoints are left alone.
    EXPECT_TRUE(sameBytes(*item.get<ImageElement>("image")->sis()->get(0), *before));
    EXPECT_EQ(points->keypoints()[0][0][0], Eigen::Vector3d(1, 2, 3));
}

INSTANTIATE_TEST_SUITE_P(Spacings, SetSpacingGeometryTest,
                         ::testing::Values(SpacingCase{{9, 6, 5}, {0.5, 2.0, 1.0}},
                                           SpacingCase{{9, 6, 5}, {0.7, 1.1, 2.5}},
                                           SpacingCase{{10, 7, 1}, {1.4, 0.4, 2.5}}));

// The checks across the elements of an item (those on one set are in CatalogueTest).
TEST(SetSpacingOperationTest, refusesItemsWhoseElementsDisagree)
{
    Eigen::Matrix4d shifted = obliqueMatrix();
    shifted(0, 3) += 0.5;
    Eigen::Vector3i const dims(9, 6, 5);
    auto twoFrames = spacedSet(dims, kSpacing);
    twoFrames->add(twoFrames->getShared(0));
    struct Check
    {
        char const* name;
        std::shared_ptr<SharedImageSet> second;
        char const* message;
    };
    for (Check const& c :
         {Check{"NoImage", nullptr, "SetSpacingOperation requires at least one image element"},
          Check{"MixedBatchSizes", twoFrames,
                "SetSpacingOperation requires all active data elements to have the same batch size"},
          Check{"OtherSize", spacedSet({9, 6, 4}, kSpacing),
                "SetSpacingOperation requires all image elements to have the same descriptor world"},
          Check{"OtherPosition", spacedSet(dims, kSpacing, shifted),
                "SetSpacingOperation requires all image elements to have the same descriptor world"}}) {
        SCOPED_TRACE(c.name);
        DataItem item;
        if (c.second) {
            item.set("a", spacedSet(dims, kSpacing));
            item.set("b", c.second);
        } else {
            item.set("kpts",
                     std::make_shared<KeypointSet>(KeypointSet::Keypoints{{{Eigen::Vector3d(1, 2, 3)}}}));
        }
        MLTest::expectThrowWithMessage<OperationException>(
            [&] { SetSpacingOperation(Eigen::Vector3d::Ones()).process(item); },
            std::string("[ML.SetSpacing] ") + c.message);
        if (c.second) {
            EXPECT_EQ(item.get<ImageElement>("a")->sis()->get(0)->spacing(), kSpacing);
        }
    }
}

} // namespace

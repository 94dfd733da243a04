// createCropped copies the right pixels for every pixel type, the box geometry keeps each pixel at
// its world position (checked against the centred-pixel formula), and boxes that leave the image
// are refused with a message.

#include "host/processing/Cropping.h"

#include "ProcessingFixtures.h"

#include "host/core/Log.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>

using namespace Velmoria;
using namespace Velmoria::ImageProcessing;
using namespace Velmoria::ProcessingTest;

namespace {

template <class T>
class CroppingTypedTest : public ::testing::Test
{};
TYPED_TEST_SUITE(CroppingTypedTest, AllPixelTypes);

TYPED_TEST(CroppingTypedTest, CopiesTheBoxAndKeepsDescriptorAndWorldPositions)
{
    using T = TypeParam;
    auto frame = randomFrame<T>();
    Eigen::Vector3i const offset(2, 1, 3), size(4, 5, 2);
    auto cropped = createCropped(*frame, offset, size);
    ASSERT_TRUE(cropped);
    auto const& in = typed<T>(*frame);
    auto const& out = typed<T>(*cropped);
    EXPECT_EQ(out.dimensions(), size);
    EXPECT_EQ(out.channels(), 2);
    EXPECT_EQ(out.spacing(), frame->spacing());
    EXPECT_EQ(out.shift(), 3.0);
    EXPECT_EQ(out.scale(), 0.5);
    for (int z = 0; z < size.z(); ++z)
        for (int y = 0; y < size.y(); ++y)
            for (int x = 0; x < size.x(); ++x)
                for (int c = 0; c < 2; ++c)
                    ASSERT_EQ(out.value(x, y, z, c),
                              in.value(x + offset.x(), y + offset.y(), z + offset.z(), c));
    EXPECT_EQ(cropped->modality(), Data::Modality::CT);
    EXPECT_EQ(cropped->deformation(), frame->deformation());
    EXPECT_EQ(cropped->mask(), nullptr);
    Eigen::Vector3d const q(3, 4, 1);
    EXPECT_TRUE(analyticWorld(cropped->matrixToWorld(), size, frame->spacing(), q)
                    .isApprox(analyticWorld(testMatrix(), frame->dimensions(), frame->spacing(),
                                            q + offset.cast<double>()),
                              1e-12));
}

struct BoxCase
{
    Eigen::Vector3i dims, offset, size;
};

class BoxGeometryTest : public ::testing::TestWithParam<BoxCase>
{};

// Every pixel of the box that is also a pixel of the grid lies at the same world position; boxes
// larger than the grid (padding) included.
TEST_P(BoxGeometryTest, KeptPixelsKeepWorldPosition)
{
    BoxCase const& c = GetParam();
    Eigen::Vector3d const spacing(0.5, 1.25, 2.0);
    Eigen::Matrix4d const m = testMatrix();
    Eigen::Matrix4d const box = boxMatrixToWorld(m, c.dims, spacing, c.offset, c.size);
    for (int corner = 0; corner < 8; ++corner) {
        Eigen::Vector3d q;
        for (int a = 0; a < 3; ++a)
            q[a] = (corner >> a) & 1 ? c.size[a] - 1 : 0;
        EXPECT_TRUE(analyticWorld(box, c.size, spacing, q)
                        .isApprox(analyticWorld(m, c.dims, spacing, q + c.offset.cast<double>()), 1e-12))
            << "corner " << corner;
    }
    ImageDescriptorWorld grid(ImageDescriptor(PixelType::Short, c.dims, 3), m);
    grid.descriptor().spacing = spacing;
    ImageDescriptorWorld const boxed = boxDescriptorWorld(grid, c.offset, c.size);
    EXPECT_EQ(boxed.descriptor().dimensions(), c.size);
    EXPECT_EQ(boxed.descriptor().channels, 3);
    EXPECT_TRUE(boxed.matrixToWorld().isApprox(box));
}

INSTANTIATE_TEST_SUITE_P(Boxes, BoxGeometryTest,
                         ::testing::Values(BoxCase{{7, 6, 5}, {2, 1, 3}, {4, 5, 2}},    // inside
                                           BoxCase{{7, 6, 5}, {1, 1, 1}, {5, 4, 3}},    // both sides equally
                                           BoxCase{{7, 6, 5}, {-3, 0, -1}, {12, 6, 8}}, // padding
                                           BoxCase{{8, 8, 1}, {0, 4, 0}, {8, 4, 1}}));  // 2D

TEST(BoxGeometryTest, LiteralTranslation)
{
    // Width 10 at 2 mm, box from pixel 6 of width 4: the new centre is old pixel 7.5, which lies
    // at (7.5 − 4.5) · 2 = 6 mm from the old centre. Cropping both sides equally keeps the matrix.
    Eigen::Matrix4d const box =
        boxMatrixToWorld(Eigen::Matrix4d::Identity(), {10, 1, 1}, {2.0, 1.0, 1.0}, {6, 0, 0}, {4, 1, 1});
    EXPECT_NEAR(box(0, 3), 6.0, 1e-12);
    EXPECT_NEAR(box(1, 3), 0.0, 1e-12);
    Eigen::Matrix4d const same =
        boxMatrixToWorld(testMatrix(), {10, 8, 6}, {2.0, 1.0, 3.0}, {2, 1, 0}, {6, 6, 6});
    EXPECT_TRUE(same.isApprox(testMatrix()));
}

TEST(CropBoundsTest, BoxesOutsideTheImageAreRefusedWithAMessageAndTheWholeImageIsAllowed)
{
    auto frame = randomFrame<short>();
    for (auto [offset, size] : {std::pair{Eigen::Vector3i(-1, 0, 0), Eigen::Vector3i(2, 2, 2)},
                                std::pair{Eigen::Vector3i(0, 0, 0), Eigen::Vector3i(2, 0, 2)},
                                std::pair{Eigen::Vector3i(5, 0, 0), Eigen::Vector3i(3, 1, 1)},
                                std::pair{Eigen::Vector3i(0, 0, 5), Eigen::Vector3i(1, 1, 1)}}) {
        std::string const message =
            fmt::format("Crop box offset [{}, {}, {}] size [{}, {}, {}] does not lie inside an image of size "
                        "[7, 6, 5]",
                        offset.x(), offset.y(), offset.z(), size.x(), size.y(), size.z());
        Log::Capture capture;
        EXPECT_EQ(createCropped(*frame->mem(), offset, size), nullptr);
        EXPECT_EQ(createCropped(*frame, offset, size), nullptr);
        EXPECT_EQ(capture.count(message, "Host.Cropping"), 2) << message;
    }

    auto whole = createCropped(*frame, Eigen::Vector3i::Zero(), frame->dimensions());
    ASSERT_TRUE(whole);
    EXPECT_TRUE(whole->matrixToWorld().isApprox(frame->matrixToWorld()));
    EXPECT_EQ(std::memcmp(whole->mem()->data(), frame->mem()->data(), frame->mem()->byteSize()), 0);
}

} // namespace

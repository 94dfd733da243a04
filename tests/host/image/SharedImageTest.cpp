#include "host/image/SharedImage.h"

#include "host/core/Log.h"
#include "host/image/Deformation.h"
#include "host/image/Mask.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>

using namespace Velmoria;

namespace {

// A 4x3x2 frame, spacing (0.5, 1, 2), turned by 90° about z and moved by (10, 20, 30).
class SharedImageGeometry : public ::testing::Test
{
protected:
    SharedImageGeometry()
    {
        auto pixels = TypedImage<float>::zeros(Eigen::Vector3i(4, 3, 2), 1);
        pixels->setSpacing(Eigen::Vector3d(0.5, 1.0, 2.0), true);
        for (int i = 0; i < 24; ++i)
            pixels->pointer()[i] = static_cast<float>(i);
        frame = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
        Eigen::Matrix4d matrix = Eigen::Matrix4d::Identity();
        matrix.topLeftCorner<3, 3>() =
            Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitZ()).toRotationMatrix();
        matrix.topRightCorner<3, 1>() = Eigen::Vector3d(10, 20, 30);
        frame->setMatrixToWorld(matrix);
    }

    // World positions worked out by hand: the centred image coordinates of pixel p are
    // (p - (dim - 1) / 2) * spacing, the rotation maps (x, y, z) to (-y, x, z).
    static Eigen::Vector3d firstCorner() { return {11.0, 19.25, 29.0}; } // pixel (0, 0, 0): (-0.75, -1, -1)
    static Eigen::Vector3d lastCorner() { return {9.0, 20.75, 31.0}; }   // pixel (3, 2, 1): (0.75, 1, 1)
    static Eigen::Vector3d centre() { return {10.0, 20.0, 30.0}; }       // pixel (1.5, 1, 0.5)

    void expectWorldPositions(SharedImage const& image)
    {
        EXPECT_TRUE(image.pixelToWorld(Eigen::Vector3d(0, 0, 0)).isApprox(firstCorner(), 1e-12));
        EXPECT_TRUE(image.pixelToWorld(Eigen::Vector3d(3, 2, 1)).isApprox(lastCorner(), 1e-12));
        EXPECT_TRUE(image.pixelToWorld(Eigen::Vector3d(1.5, 1, 0.5)).isApprox(centre(), 1e-12));
    }

    std::unique_ptr<SharedImage> frame;
};

} // namespace

TEST_F(SharedImageGeometry, PixelToWorldFollowsTheCentredConvention)
{
    expectWorldPositions(*frame);
    EXPECT_TRUE(frame->worldToPixel(lastCorner()).isApprox(Eigen::Vector3d(3, 2, 1), 1e-12));
    Eigen::Vector4d corner = frame->pixelToWorldMatrix() * Eigen::Vector4d(0, 0, 0, 1);
    EXPECT_TRUE(corner.head<3>().isApprox(firstCorner(), 1e-12));
    EXPECT_TRUE((frame->worldToPixelMatrix() * frame->pixelToWorldMatrix()).isIdentity(1e-12));
}

TEST_F(SharedImageGeometry, CloneCopiesPixelsAndKeepsTheWorldPosition)
{
    auto deep = frame->clone();
    EXPECT_NE(deep->mem()->data(), frame->mem()->data());
    EXPECT_EQ(static_cast<TypedImage<float> const*>(deep->mem())->value(3, 2, 1), 23.0f);
    expectWorldPositions(*deep);

    auto shared = frame->clone(SharedImage::CloneOption::SharePixels);
    EXPECT_EQ(shared->mem()->data(), frame->mem()->data());
    expectWorldPositions(*shared);

    SharedImage copy(*frame);
    EXPECT_NE(copy.mem()->data(), frame->mem()->data());
    expectWorldPositions(copy);
}

TEST_F(SharedImageGeometry, SpacingChangeKeepsTheCentreInPlace)
{
    frame->setSpacing(Eigen::Vector3d(1.0, 1.0, 1.0));
    EXPECT_TRUE(frame->pixelToWorld(Eigen::Vector3d(1.5, 1, 0.5)).isApprox(centre(), 1e-12));
    // Pixel (0, 0, 0) is now at (-1.5, -1, -0.5) in image coordinates.
    EXPECT_TRUE(
        frame->pixelToWorld(Eigen::Vector3d(0, 0, 0)).isApprox(Eigen::Vector3d(11.0, 18.5, 29.5), 1e-12));
}

TEST_F(SharedImageGeometry, MatrixFromWorldIsTheInverse)
{
    Eigen::Matrix4d fromWorld = frame->matrixFromWorld();
    SharedImage other(*frame);
    other.setMatrixToWorld(Eigen::Matrix4d::Identity());
    other.setMatrixFromWorld(fromWorld);
    expectWorldPositions(other);
}

TEST_F(SharedImageGeometry, CloneOptionsLeaveOutMaskAndDeformation)
{
    frame->setMask(std::make_shared<IntensityMask>(0.0, 5.0));
    frame->setDeformation(std::make_shared<ConstantDeformation>(Eigen::Vector3d(1, 0, 0)));
    frame->setModality(Data::Modality::CT);

    auto full = frame->clone();
    EXPECT_EQ(full->mask(), frame->mask());
    EXPECT_EQ(full->deformation(), frame->deformation());
    EXPECT_EQ(full->modality(), Data::Modality::CT);

    auto bare = frame->clone(SharedImage::CloneOptions{SharedImage::CloneOption::WithoutMask,
                                                       SharedImage::CloneOption::WithoutDeformation});
    EXPECT_EQ(bare->mask(), nullptr);
    EXPECT_EQ(bare->deformation(), nullptr);
}

TEST(SharedImage, HasNoGpuRepresentationInThisBuild)
{
    SharedImage frame(ImageDescriptor(PixelType::UChar, Eigen::Vector3i(2, 2, 1), 1));
    EXPECT_FALSE(frame.hasGl());
    EXPECT_TRUE(frame.makeExclusive(Image::Memory));
    Log::Capture capture;
    EXPECT_FALSE(frame.makeExclusive(Image::Gpu));
    EXPECT_TRUE(frame.hasMem()) << "a failed makeExclusive must not drop the CPU image";
    EXPECT_EQ(capture.records().size(), 1u);
}

TEST(SharedImage, RejectsNullImages)
{
    EXPECT_THROW(SharedImage(std::shared_ptr<Image>()), ImageError);
    SharedImage frame(ImageDescriptor(PixelType::Float, Eigen::Vector3i(2, 2, 1), 1));
    Log::Capture capture;
    EXPECT_FALSE(frame.assign(nullptr));
    EXPECT_TRUE(frame.hasMem());
}

TEST(SharedImage, UpdateReplacesContentAndKeepsGeometry)
{
    SharedImage frame(ImageDescriptor(PixelType::Float, Eigen::Vector3i(2, 2, 1), 1));
    Eigen::Matrix4d matrix = Eigen::Matrix4d::Identity();
    matrix(0, 3) = 5.0;
    frame.setMatrixToWorld(matrix);
    auto replacement = TypedImage<float>::zeros(Eigen::Vector3i(3, 1, 1), 2);
    replacement->fill(7.0f);
    frame.update(*replacement);
    EXPECT_EQ(frame.dimensions(), Eigen::Vector3i(3, 1, 1));
    EXPECT_EQ(frame.channels(), 2);
    EXPECT_EQ(static_cast<TypedImage<float> const*>(frame.mem())->value(2, 0, 0, 1), 7.0f);
    EXPECT_NE(frame.mem()->data(), replacement->data());
    EXPECT_EQ(frame.matrixToWorld(), matrix);
    EXPECT_TRUE(frame.isGlDirty());
}

// ---------------------------------------------------------------------------------------------
// Masks

TEST(IntensityMask, SelectsOriginalIntensitiesInRange)
{
    // Stored values 0..5 with original = stored / scale - shift = stored / 2 - 1: -1, -0.5, 0, 0.5, 1, 1.5.
    auto pixels = TypedImage<short>::zeros(Eigen::Vector3i(6, 1, 1), 1);
    for (int i = 0; i < 6; ++i)
        pixels->pointer()[i] = static_cast<short>(i);
    pixels->setShiftScale(1.0, 2.0);
    SharedImage frame(std::shared_ptr<Image>(std::move(pixels)));

    auto mask = IntensityMask(-0.5, 1.0).createExplicitMask(frame);
    ASSERT_NE(mask, nullptr);
    std::vector<unsigned char> inside(mask->pointer(), mask->pointer() + 6);
    EXPECT_EQ(inside, (std::vector<unsigned char>{0, 1, 1, 1, 1, 0}));
}

TEST(IntensityMask, LooksAtTheFirstChannelOnly)
{
    auto pixels = TypedImage<float>::zeros(Eigen::Vector3i(2, 1, 1), 2);
    pixels->setValue(10.0f, 0, 0, 0, 1); // second channel of pixel 0: ignored
    pixels->setValue(10.0f, 1, 0, 0, 0);
    SharedImage frame(std::shared_ptr<Image>(std::move(pixels)));
    auto mask = IntensityMask(5.0, 15.0).createExplicitMask(frame);
    EXPECT_EQ(mask->pointer()[0], 0);
    EXPECT_EQ(mask->pointer()[1], 1);
}

TEST(ExplicitMask, ConvertsLabelImagesAndChecksFit)
{
    auto labels = TypedImage<unsigned short>::zeros(Eigen::Vector3i(3, 1, 1), 1);
    labels->pointer()[1] = 300;
    auto mask =
        ExplicitMask::convert(std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(labels))));
    ASSERT_NE(mask, nullptr);
    EXPECT_EQ(mask->maskImage().value(1, 0, 0), 1);
    EXPECT_EQ(mask->maskImage().value(0, 0, 0), 0);

    SharedImage fitting(ImageDescriptor(PixelType::Float, Eigen::Vector3i(3, 1, 1), 1));
    EXPECT_NE(mask->createExplicitMask(fitting), nullptr);

    Log::Capture capture;
    SharedImage other(ImageDescriptor(PixelType::Float, Eigen::Vector3i(4, 1, 1), 1));
    EXPECT_EQ(mask->createExplicitMask(other), nullptr);
    EXPECT_TRUE(capture.containsFragment("does not fit"));

    auto twoChannels =
        std::make_unique<SharedImage>(ImageDescriptor(PixelType::UChar, Eigen::Vector3i(3, 1, 1), 2));
    EXPECT_EQ(ExplicitMask::convert(std::move(twoChannels)), nullptr);
    EXPECT_EQ(ExplicitMask::convert(nullptr), nullptr);
}

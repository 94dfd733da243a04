// SharedImage and SharedImageSet: clones keep pixels and world positions, frames move rigidly
// with the set, the set keeps selection, timestamps and components in step; masks.

#include "host/core/Log.h"
#include "host/image/Deformation.h"
#include "host/image/Mask.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>

using namespace Velmoria;

namespace {

// A float frame of `size` filled with `value`, spacing (2, 1, 1), moved by `translation`.
std::shared_ptr<SharedImage> floatFrame(float value,
                                        Eigen::Vector3d const& translation = Eigen::Vector3d::Zero(),
                                        Eigen::Vector3i const& size = {3, 2, 1})
{
    auto pixels = TypedImage<float>::zeros(size, 1);
    pixels->fill(value);
    pixels->setSpacing(Eigen::Vector3d(2.0, 1.0, 1.0), true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(Eigen::Affine3d(Eigen::Translation3d(translation)).matrix());
    return frame;
}

float valueAt(SharedImage const& frame, int x, int y, int z)
{
    return static_cast<TypedImage<float> const*>(frame.mem())->value(x, y, z);
}

Eigen::Matrix4d quarterTurnAboutZ()
{
    return Eigen::Affine3d(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitZ())).matrix();
}

// A 3 x 2 x 2 frame holding 0..11, turned by 90° about z and moved by (10, 20, 30), with a mask
// and a deformation.
class SharedImageTest : public ::testing::Test
{
protected:
    SharedImageTest()
        : frame(floatFrame(0.0f, Eigen::Vector3d::Zero(), {3, 2, 2}))
    {
        float* values = static_cast<TypedImage<float>*>(frame->mem())->pointer();
        for (int i = 0; i < 12; ++i)
            values[i] = static_cast<float>(i);
        Eigen::Matrix4d matrix = quarterTurnAboutZ();
        matrix.topRightCorner<3, 1>() = Eigen::Vector3d(10, 20, 30);
        frame->setMatrixToWorld(matrix);
        frame->setMask(std::make_shared<IntensityMask>(0.0, 5.0));
        frame->setDeformation(std::make_shared<ConstantDeformation>(Eigen::Vector3d(1, 0, 0)));
        frame->setModality(Data::Modality::CT);
    }

    // Pixel (2, 1, 1) is at ((2 - 1) * 2, (1 - 0.5) * 1, (1 - 0.5) * 1) = (2, 0.5, 0.5) in image
    // coordinates, turned to (-0.5, 2, 0.5) and moved.
    static void expectPlacedAsTheFixture(SharedImage const& image)
    {
        EXPECT_TRUE(
            image.pixelToWorld(Eigen::Vector3d(2, 1, 1)).isApprox(Eigen::Vector3d(9.5, 22, 30.5), 1e-12));
    }

    std::shared_ptr<SharedImage> frame;
};

} // namespace

TEST_F(SharedImageTest, ClonesCopyOrSharePixelsAndKeepPlacementMaskAndDeformation)
{
    expectPlacedAsTheFixture(*frame);
    auto deep = frame->clone();
    EXPECT_NE(deep->mem()->data(), frame->mem()->data());
    EXPECT_EQ(valueAt(*deep, 2, 1, 1), 11.0f);
    expectPlacedAsTheFixture(*deep);
    EXPECT_EQ(deep->mask(), frame->mask());
    EXPECT_EQ(deep->deformation(), frame->deformation());
    EXPECT_EQ(deep->modality(), Data::Modality::CT);

    auto shared = frame->clone(SharedImage::CloneOption::SharePixels);
    EXPECT_EQ(shared->mem()->data(), frame->mem()->data());
    expectPlacedAsTheFixture(*shared);

    SharedImage copy(*frame);
    EXPECT_NE(copy.mem()->data(), frame->mem()->data());
    expectPlacedAsTheFixture(copy);

    auto bare = frame->clone(SharedImage::CloneOptions{SharedImage::CloneOption::WithoutMask,
                                                       SharedImage::CloneOption::WithoutDeformation});
    EXPECT_EQ(bare->mask(), nullptr);
    EXPECT_EQ(bare->deformation(), nullptr);
}

TEST_F(SharedImageTest, SpacingChangeKeepsTheCentreAndMatrixFromWorldInverts)
{
    SharedImage other(*frame);
    other.setMatrixToWorld(Eigen::Matrix4d::Identity());
    other.setMatrixFromWorld(frame->matrixFromWorld());
    expectPlacedAsTheFixture(other);

    frame->setSpacing(Eigen::Vector3d(1.0, 1.0, 1.0));
    EXPECT_TRUE(
        frame->pixelToWorld(Eigen::Vector3d(1, 0.5, 0.5)).isApprox(Eigen::Vector3d(10, 20, 30), 1e-12));
    // Pixel (2, 1, 1) is now at (1, 0.5, 0.5) in image coordinates.
    EXPECT_TRUE(
        frame->pixelToWorld(Eigen::Vector3d(2, 1, 1)).isApprox(Eigen::Vector3d(9.5, 21, 30.5), 1e-12));
}

TEST_F(SharedImageTest, UpdateReplacesContentAndKeepsGeometry)
{
    Eigen::Matrix4d const matrix = frame->matrixToWorld();
    auto replacement = TypedImage<float>::zeros(Eigen::Vector3i(3, 1, 1), 2);
    replacement->fill(7.0f);
    frame->update(*replacement);
    EXPECT_EQ(frame->dimensions(), Eigen::Vector3i(3, 1, 1));
    EXPECT_EQ(frame->channels(), 2);
    EXPECT_EQ(static_cast<TypedImage<float> const*>(frame->mem())->value(2, 0, 0, 1), 7.0f);
    EXPECT_NE(frame->mem()->data(), replacement->data());
    EXPECT_EQ(frame->matrixToWorld(), matrix);
    EXPECT_TRUE(frame->isGlDirty());
}

TEST(SharedImage, RefusesNullImagesAndHasNoGpuRepresentation)
{
    EXPECT_THROW(SharedImage(std::shared_ptr<Image>()), ImageError);
    SharedImage frame(ImageDescriptor(PixelType::UChar, Eigen::Vector3i(2, 2, 1), 1));
    Log::Capture capture;
    EXPECT_FALSE(frame.assign(nullptr));
    EXPECT_TRUE(frame.hasMem());

    EXPECT_FALSE(frame.hasGl());
    EXPECT_TRUE(frame.makeExclusive(Image::Memory));
    EXPECT_FALSE(frame.makeExclusive(Image::Gpu));
    EXPECT_TRUE(frame.hasMem()) << "a failed makeExclusive must not drop the CPU image";
    EXPECT_EQ(capture.records().size(), 2u);
}

// ---------------------------------------------------------------------------------------------
// SharedImageSet

namespace {

// Three frames of one 3x2 float image each, holding 0, 1 and 2, placed at x = 0, 100 and 200.
class SharedImageSetTest : public ::testing::Test
{
protected:
    SharedImageSetTest()
    {
        set.setName("ct");
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(set.add(floatFrame(static_cast<float>(i), Eigen::Vector3d(100.0 * i, 0, 0))));
        set.properties().setParam("origin", "scanner");
    }

    SharedImageSet set;
};

} // namespace

TEST_F(SharedImageSetTest, IndexMinusOneIsTheFocus)
{
    EXPECT_EQ(set.get(-1), set.get(0));
    EXPECT_TRUE(set.setFocus(2));
    EXPECT_EQ(set.get(-1), set.get(2));
    EXPECT_EQ(set.getShared(-1).get(), set.get(2));
    EXPECT_EQ(set.mem(-1), set.get(2)->mem());
    EXPECT_FALSE(set.setFocus(3));
    EXPECT_EQ(set.get(3), nullptr);
    EXPECT_EQ(set.get(-2), nullptr);
    EXPECT_FALSE(set.hasGl(-1));

    SharedImageSet empty;
    EXPECT_EQ(empty.get(-1), nullptr);
    EXPECT_EQ(empty.img(), nullptr);
    EXPECT_FALSE(empty.pixelType().has_value());
    EXPECT_TRUE(empty.matrix().isIdentity());
    EXPECT_TRUE(empty.bounds().isEmpty());
}

TEST_F(SharedImageSetTest, FramesOfAnotherPixelTypeAreRefused)
{
    Log::Capture capture;
    auto bytes =
        std::make_shared<SharedImage>(ImageDescriptor(PixelType::UChar, Eigen::Vector3i(3, 2, 1), 1));
    EXPECT_FALSE(set.add(bytes));
    EXPECT_FALSE(set.add(std::vector<std::shared_ptr<SharedImage>>{floatFrame(5), bytes}))
        << "adding a list is all or nothing";
    EXPECT_FALSE(set.add(std::shared_ptr<SharedImage>()));
    EXPECT_EQ(set.size(), 3);
    EXPECT_EQ(set.elementwiseComponents().size(), 3);
    EXPECT_EQ(capture.messages(Log::Error).size(), 3u);
    EXPECT_TRUE(capture.containsFragment("'ct'"));

    auto replacement = floatFrame(42);
    EXPECT_TRUE(set.replace(1, replacement));
    EXPECT_EQ(set.getShared(1), replacement);
    EXPECT_FALSE(set.replace(7, floatFrame(1)));
    EXPECT_FALSE(set.replace(0, bytes));
}

TEST_F(SharedImageSetTest, ClonesCopyShareOrLeaveOutFramesAndKeepEverythingElse)
{
    set.setModality(Data::Modality::CT);
    set.setTimestamp(1, 0.5);
    auto copy = set.clone(SharedImageSet::CloneOption::Deep);
    auto cheap = set.clone(SharedImageSet::CloneOption::ShareFrames);
    auto shell = set.clone(SharedImageSet::CloneOption::NoFrames);
    for (auto const* clone : {copy.get(), cheap.get(), shell.get()}) {
        EXPECT_EQ(clone->name(), "ct");
        EXPECT_EQ(clone->modality(), Data::Modality::CT);
        EXPECT_EQ(clone->properties().paramOr("origin", ""), "scanner");
    }
    EXPECT_EQ(shell->size(), 0);
    EXPECT_EQ(shell->elementwiseComponents().size(), 0);
    ASSERT_EQ(copy->size(), 3);
    ASSERT_EQ(cheap->size(), 3);
    EXPECT_EQ(copy->timestamp(1), 0.5);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(cheap->getShared(i), set.getShared(i));
        EXPECT_NE(copy->mem(i)->data(), set.mem(i)->data());
        EXPECT_EQ(valueAt(*copy->get(i), 2, 1, 0), static_cast<float>(i));
        // Pixel (2, 1, 0) is at ((2 - 1) * 2, (1 - 0.5) * 1, 0) = (2, 0.5, 0) plus the frame's offset.
        EXPECT_TRUE(copy->get(i)
                        ->pixelToWorld(Eigen::Vector3d(2, 1, 0))
                        .isApprox(Eigen::Vector3d(2 + 100.0 * i, 0.5, 0)));
    }
}

TEST_F(SharedImageSetTest, SetMatrixMovesEveryFrameRigidlyAndBoundsFollow)
{
    // Frame 0 covers x in [-3, 3] (3 pixels of 2 mm around 0); frame 2 ends at 203.
    EXPECT_TRUE(set.bounds().min().isApprox(Eigen::Vector3d(-3, -1, 0)));
    EXPECT_TRUE(set.bounds().max().isApprox(Eigen::Vector3d(203, 1, 0)));

    EXPECT_EQ(set.matrix(), set.get(0)->matrixToWorld());
    set.setMatrixToWorld(quarterTurnAboutZ() * set.matrixToWorld());
    for (int i = 0; i < 3; ++i) {
        // Before: (2 + 100 i, 0.5, 0); after the turn (x, y) -> (-y, x).
        Eigen::Vector3d expected(-0.5, 2 + 100.0 * i, 0);
        EXPECT_TRUE(set.get(i)->pixelToWorld(Eigen::Vector3d(2, 1, 0)).isApprox(expected, 1e-12))
            << "frame " << i;
    }
    EXPECT_TRUE(set.matrixFromWorld().isApprox(set.get(0)->matrixFromWorld()));
    EXPECT_TRUE(set.bounds().min().isApprox(Eigen::Vector3d(-1, -3, 0)));
    EXPECT_TRUE(set.bounds().max().isApprox(Eigen::Vector3d(1, 203, 0)));
}

TEST_F(SharedImageSetTest, RemoveKeepsSelectionTimestampsAndComponentsInStep)
{
    EXPECT_FALSE(set.hasTimestamps());
    set.setTimestamp(0, 0.0);
    set.setTimestamp(1, 0.1);
    EXPECT_FALSE(set.hasTimestamps()) << "only when every frame has one";
    set.setTimestamp(2, 3.0);
    EXPECT_TRUE(set.hasTimestamps());

    set.setSelection(Selection({0, 2}, 2));
    EXPECT_TRUE(set.remove(1));
    EXPECT_EQ(set.size(), 2);
    EXPECT_EQ(set.selection().indices(), (std::vector<int>{0, 1}));
    EXPECT_EQ(set.focus(), 1);
    EXPECT_EQ(set.timestamp(1), 3.0);
    EXPECT_EQ(set.elementwiseComponents().size(), 2);
    EXPECT_FALSE(set.remove(5));
}

TEST_F(SharedImageSetTest, ModalityReachesEveryFrameAndNewFrames)
{
    set.setModality(Data::Modality::Label);
    for (auto const& frame : set.images())
        EXPECT_EQ(frame->modality(), Data::Modality::Label);
    set.add(floatFrame(9));
    EXPECT_EQ(set.get(3)->modality(), Data::Modality::Label);
}

// ---------------------------------------------------------------------------------------------
// Masks

TEST(IntensityMask, SelectsOriginalIntensitiesOfTheFirstChannelInRange)
{
    // Stored values 0..5 with original = stored / scale - shift = stored / 2 - 1: -1, -0.5, 0, 0.5, 1, 1.5.
    // The second channel is far outside the range and must not matter.
    auto pixels = TypedImage<short>::zeros(Eigen::Vector3i(6, 1, 1), 2);
    for (int i = 0; i < 6; ++i) {
        pixels->setValue(static_cast<short>(i), i, 0, 0, 0);
        pixels->setValue(static_cast<short>(1000), i, 0, 0, 1);
    }
    pixels->setShiftScale(1.0, 2.0);
    SharedImage frame(std::shared_ptr<Image>(std::move(pixels)));

    auto mask = IntensityMask(-0.5, 1.0).createExplicitMask(frame);
    ASSERT_NE(mask, nullptr);
    std::vector<unsigned char> inside(mask->pointer(), mask->pointer() + 6);
    EXPECT_EQ(inside, (std::vector<unsigned char>{0, 1, 1, 1, 1, 0}));
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

#include "host/image/SharedImageSet.h"

#include "host/core/Log.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>

using namespace Velmoria;

namespace {

std::shared_ptr<SharedImage> floatFrame(float value,
                                        Eigen::Vector3d const& translation = Eigen::Vector3d::Zero())
{
    auto pixels = TypedImage<float>::zeros(Eigen::Vector3i(3, 2, 1), 1);
    pixels->fill(value);
    pixels->setSpacing(Eigen::Vector3d(2.0, 1.0, 1.0), true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    Eigen::Matrix4d matrix = Eigen::Matrix4d::Identity();
    matrix.topRightCorner<3, 1>() = translation;
    frame->setMatrixToWorld(matrix);
    return frame;
}

// Three frames of one 3x2 float image each, placed at x = 0, 100 and 200.
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
    EXPECT_EQ(set.size(), 3);
    EXPECT_EQ(set.get(-1), set.get(0));
    EXPECT_TRUE(set.setFocus(2));
    EXPECT_EQ(set.get(-1), set.get(2));
    EXPECT_EQ(set.getShared(-1).get(), set.get(2));
    EXPECT_EQ(set.mem(-1), set.get(2)->mem());
    EXPECT_FALSE(set.setFocus(3));
    EXPECT_EQ(set.get(3), nullptr);
    EXPECT_EQ(set.get(-2), nullptr);
    EXPECT_FALSE(set.hasGl(-1));
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
}

TEST_F(SharedImageSetTest, CloneDeepCopiesPixelsAndKeepsWorldPositions)
{
    set.setModality(Data::Modality::CT);
    set.setTimestamp(1, 0.5);
    auto copy = set.clone(SharedImageSet::CloneOption::Deep);
    ASSERT_EQ(copy->size(), 3);
    EXPECT_EQ(copy->name(), "ct");
    EXPECT_EQ(copy->modality(), Data::Modality::CT);
    EXPECT_EQ(copy->timestamp(1), 0.5);
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(copy->get(i), set.get(i));
        EXPECT_NE(copy->mem(i)->data(), set.mem(i)->data());
        EXPECT_EQ(static_cast<TypedImage<float>*>(copy->mem(i))->value(2, 1, 0), static_cast<float>(i));
        // Pixel (2, 1, 0) is at ((2 - 1) * 2, (1 - 0.5) * 1, 0) = (2, 0.5, 0) plus the frame's offset.
        EXPECT_TRUE(copy->get(i)
                        ->pixelToWorld(Eigen::Vector3d(2, 1, 0))
                        .isApprox(Eigen::Vector3d(2 + 100.0 * i, 0.5, 0)));
    }
}

TEST_F(SharedImageSetTest, CloneWithoutFramesKeepsEverythingElse)
{
    set.setModality(Data::Modality::Label);
    auto shell = set.clone(SharedImageSet::CloneOption::NoFrames);
    EXPECT_EQ(shell->size(), 0);
    EXPECT_EQ(shell->name(), "ct");
    EXPECT_EQ(shell->modality(), Data::Modality::Label);
    EXPECT_EQ(shell->properties().paramOr("origin", ""), "scanner");
    EXPECT_EQ(shell->elementwiseComponents().size(), 0);
}

TEST_F(SharedImageSetTest, CheapCloneSharesFrames)
{
    auto cheap = set.clone(SharedImageSet::CloneOption::ShareFrames);
    ASSERT_EQ(cheap->size(), 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(cheap->getShared(i), set.getShared(i));
    EXPECT_EQ(static_cast<int>(SharedImageSet::CloneOption::NoFrames), 1);
    EXPECT_EQ(static_cast<int>(SharedImageSet::CloneOption::ShareFrames), 4);
}

TEST_F(SharedImageSetTest, SetMatrixMovesEveryFrameRigidly)
{
    EXPECT_EQ(set.matrix(), set.get(0)->matrixToWorld());
    // Turn the whole set by 90° about z around the world origin.
    Eigen::Matrix4d turn = Eigen::Matrix4d::Identity();
    turn.topLeftCorner<3, 3>() = Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitZ()).toRotationMatrix();
    set.setMatrixToWorld(turn * set.matrixToWorld());
    for (int i = 0; i < 3; ++i) {
        // Before: (2 + 100 i, 0.5, 0); after the turn (x, y) -> (-y, x).
        Eigen::Vector3d expected(-0.5, 2 + 100.0 * i, 0);
        EXPECT_TRUE(set.get(i)->pixelToWorld(Eigen::Vector3d(2, 1, 0)).isApprox(expected, 1e-12))
            << "frame " << i;
    }
    EXPECT_TRUE(set.matrixFromWorld().isApprox(set.get(0)->matrixFromWorld()));
}

TEST_F(SharedImageSetTest, BoundsEncloseEveryFramesPixelAreas)
{
    auto box = set.bounds();
    // Frame 0 covers x in [-3, 3] (3 pixels of 2 mm around 0); frame 2 ends at 203.
    EXPECT_TRUE(box.min().isApprox(Eigen::Vector3d(-3, -1, 0)));
    EXPECT_TRUE(box.max().isApprox(Eigen::Vector3d(203, 1, 0)));
}

TEST_F(SharedImageSetTest, RemoveKeepsSelectionTimestampsAndComponentsInStep)
{
    set.setSelection(Selection({0, 2}, 2));
    set.setTimestamp(2, 3.0);
    EXPECT_TRUE(set.remove(1));
    EXPECT_EQ(set.size(), 2);
    EXPECT_EQ(set.selection().indices(), (std::vector<int>{0, 1}));
    EXPECT_EQ(set.focus(), 1);
    EXPECT_EQ(set.timestamp(1), 3.0);
    EXPECT_EQ(set.elementwiseComponents().size(), 2);
    EXPECT_FALSE(set.remove(5));
}

TEST_F(SharedImageSetTest, TimestampsCountOnlyWhenEveryFrameHasOne)
{
    EXPECT_FALSE(set.hasTimestamps());
    set.setTimestamp(0, 0.0);
    set.setTimestamp(1, 0.1);
    EXPECT_FALSE(set.hasTimestamps());
    set.setTimestamp(2, 0.2);
    EXPECT_TRUE(set.hasTimestamps());
    EXPECT_DOUBLE_EQ(set.timestamp(2), 0.2);
}

TEST_F(SharedImageSetTest, ModalityReachesEveryFrameAndNewFrames)
{
    set.setModality(Data::Modality::Label);
    for (auto const& frame : set.images())
        EXPECT_EQ(frame->modality(), Data::Modality::Label);
    set.add(floatFrame(9));
    EXPECT_EQ(set.get(3)->modality(), Data::Modality::Label);
}

TEST_F(SharedImageSetTest, ReplaceSwapsOneFrame)
{
    auto replacement = floatFrame(42);
    EXPECT_TRUE(set.replace(1, replacement));
    EXPECT_EQ(set.getShared(1), replacement);
    Log::Capture capture;
    EXPECT_FALSE(set.replace(7, floatFrame(1)));
    EXPECT_FALSE(set.replace(0, std::make_shared<SharedImage>(ImageDescriptor(PixelType::Int, 3, 2, 1))));
}

TEST(SharedImageSet, EmptySetHasNoFrameAndIdentityMatrix)
{
    SharedImageSet set;
    EXPECT_EQ(set.get(-1), nullptr);
    EXPECT_EQ(set.img(), nullptr);
    EXPECT_FALSE(set.pixelType().has_value());
    EXPECT_TRUE(set.matrix().isIdentity());
    EXPECT_TRUE(set.bounds().isEmpty());
    EXPECT_EQ(set.kind(), Data::Kind::Image);
}

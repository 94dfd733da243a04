// The annotation sets (keypoints, boxes): bounds, equality and tolerance, appending, copies,
// rigid moves, and the conversion of keypoints to and from labelled point clouds.

#include "ml/data/KeypointSet.h"

#include "ml/data/BoundingBoxSet.h"
#include "ml/data/PointCloudConversion.h"
#include "ml/data/TargetTag.h"

#include "host/core/Log.h"
#include "host/data/PointCloud.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <limits>
#include <stdexcept>

using namespace Velmoria;
using namespace Velmoria::ML;
using Eigen::Vector3d;

namespace {

double const kNan = std::numeric_limits<double>::quiet_NaN();

// Two frames: frame 0 with two channels (2 points, 1 point), frame 1 with one empty channel.
KeypointSet sampleKeypoints()
{
    return KeypointSet({{{Vector3d(1, 2, 3), Vector3d(-4, 0, 0)}, {Vector3d(0, 5, -1)}}, {{}}});
}

BoundingBoxSet sampleBoxes()
{
    return BoundingBoxSet(
        {{{Box{Vector3d(0, 0, 0), Vector3d(2, 4, 6)}}}, {{Box{Vector3d(10, 0, 0), Vector3d(1, 1, 1)}}, {}}});
}

Eigen::Matrix4d rotationZ90WithShift()
{
    Eigen::Affine3d transform =
        Eigen::Translation3d(10, 20, 30) * Eigen::AngleAxisd(M_PI / 2, Vector3d::UnitZ());
    return transform.matrix();
}

std::unique_ptr<PointCloud> labelledCloud(std::vector<Vector3d> points, std::vector<int> labels)
{
    auto cloud = std::make_unique<PointCloud>(std::move(points), false, false);
    if (!labels.empty()) {
        EXPECT_TRUE(cloud->setLabels(std::move(labels)));
    }
    return cloud;
}

} // namespace

// Containers ---------------------------------------------------------------------------------

TEST(AnnotationSets, BoundsSurroundAllPointsAndBoxCorners)
{
    KeypointSet const keypoints = sampleKeypoints();
    EXPECT_EQ(keypoints.numPoints(), 3u);
    EXPECT_EQ(keypoints.describe(), "KeypointSet '' (2 frames, 3 points)");
    EXPECT_EQ(keypoints.bounds(), Geometry::AlignedBox(Vector3d(-4, 0, -1), Vector3d(1, 5, 3)));
    EXPECT_TRUE(KeypointSet(KeypointSet::Keypoints{{{}, {}}}).bounds().isEmpty());
    EXPECT_EQ(sampleBoxes().bounds(), Geometry::AlignedBox(Vector3d(-1, -2, -3), Vector3d(10.5, 2, 3)));
    EXPECT_TRUE(BoundingBoxSet().bounds().isEmpty());

    Box const box{Vector3d(1, 2, 3), Vector3d(2, 4, 8)};
    EXPECT_EQ(box.topLeft(), Vector3d(0, 0, -1));
    EXPECT_EQ(box.bottomRight(), Vector3d(2, 4, 7));
    EXPECT_EQ(Box::fromCorners(box.topLeft(), box.bottomRight()), box);
}

TEST(AnnotationSets, NanOrAnotherStructureMakesSetsUnequal)
{
    KeypointSet const base = sampleKeypoints();
    EXPECT_TRUE(base == sampleKeypoints());
    KeypointSet withNan = sampleKeypoints();
    withNan.keypoints()[0][1][0].y() = kNan;
    EXPECT_FALSE(withNan.isEqual(withNan));
    KeypointSet extraChannel = sampleKeypoints();
    extraChannel.keypoints()[1].emplace_back();
    KeypointSet extraFrame = sampleKeypoints();
    extraFrame.keypoints().emplace_back();
    // The same points, but one moved to the other channel.
    KeypointSet moved({{{Vector3d(1, 2, 3)}, {Vector3d(-4, 0, 0), Vector3d(0, 5, -1)}}, {{}}});
    for (KeypointSet const* other : {&withNan, &extraChannel, &extraFrame, &moved}) {
        EXPECT_FALSE(base.isEqual(*other));
        EXPECT_FALSE(other->isEqual(base));
        EXPECT_FALSE(base.isApprox(*other));
        EXPECT_TRUE(base != *other);
    }

    BoundingBoxSet boxes = sampleBoxes();
    EXPECT_TRUE(boxes == sampleBoxes());
    boxes.boxes()[1][0][0].extent.z() = kNan;
    EXPECT_FALSE(boxes == sampleBoxes());
    EXPECT_FALSE(boxes.isApprox(sampleBoxes()));
}

TEST(AnnotationSets, ToleranceIsRelativeWithAnAbsoluteFloor)
{
    struct Case
    {
        Vector3d point;
        Vector3d delta;
        bool approx;
    };
    Case const cases[] = {
        {Vector3d(100, 200, 300), Vector3d::Zero(), true},
        {Vector3d(100, 200, 300), Vector3d(1e-5, 0, 0), true},  // 3e-8 relative
        {Vector3d(100, 200, 300), Vector3d(0, 0, 1e-2), false}, // 3e-5 relative
        {Vector3d(1e6, 0, 0), Vector3d(0.5, 0, 0), true},       // 5e-7 relative
        {Vector3d::Zero(), Vector3d(1e-10, 0, 0), true},        // floor at the origin
        {Vector3d::Zero(), Vector3d(1e-6, 0, 0), false},        // beyond the floor
        {Vector3d(1e-3, 0, 0), Vector3d(0, 1e-7, 0), false},    // 1e-4 relative
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.point) + " + " + ::testing::PrintToString(c.delta));
        KeypointSet const a({{{c.point}}});
        KeypointSet const b({{{Vector3d(c.point + c.delta)}}});
        EXPECT_EQ(a.isApprox(b), c.approx);
        EXPECT_EQ(b.isApprox(a), c.approx);
        EXPECT_EQ(a.isEqual(b), c.delta.isZero(0.0));
        BoundingBoxSet const boxA({{{Box{c.point, Vector3d(1, 1, 1)}}}});
        BoundingBoxSet const boxB({{{Box{Vector3d(c.point + c.delta), Vector3d(1, 1, 1)}}}});
        EXPECT_EQ(boxA.isApprox(boxB), c.approx);
    }
}

TEST(AnnotationSets, AppendFrameCopiesAndChecksTheIndex)
{
    KeypointSet target;
    KeypointSet const source = sampleKeypoints();
    target.appendFrame(source, 1);
    target.appendFrame(source, 0);
    ASSERT_EQ(target.size(), 2u);
    EXPECT_EQ(target.keypoints()[0], source.keypoints()[1]);
    EXPECT_EQ(target.keypoints()[1], source.keypoints()[0]);
    EXPECT_THROW(target.appendFrame(source, 2), std::out_of_range);
    EXPECT_EQ(target.size(), 2u);

    // Appending from itself must not read through a reference invalidated by the growth.
    for (int i = 0; i < 20; ++i)
        target.appendFrame(target, 1);
    EXPECT_EQ(target.keypoints().back(), source.keypoints()[0]);

    BoundingBoxSet boxes;
    EXPECT_THROW(boxes.appendFrame(sampleBoxes(), 5), std::out_of_range);
    boxes.append(sampleBoxes());
    EXPECT_EQ(boxes, sampleBoxes());
}

TEST(AnnotationSets, CopiesMovesAndSwapsCarryNameComponentsAndSelection)
{
    KeypointSet set = sampleKeypoints();
    set.setName("landmarks");
    set.components().add(std::make_unique<TargetTag>());
    set.setSelection(Selection({1, 3}, 3));
    EXPECT_EQ(set.selection().indices(), (std::vector<int>{1}));

    KeypointSet const copy(set);
    EXPECT_EQ(copy, set);
    EXPECT_EQ(copy.name(), "landmarks");
    EXPECT_NE(copy.components().get<TargetTag>(), nullptr);
    EXPECT_NE(copy.components().get<TargetTag>(), set.components().get<TargetTag>());

    KeypointSet moved(std::move(set));
    EXPECT_EQ(moved.name(), "landmarks");
    EXPECT_EQ(moved.size(), 2u);
    EXPECT_NE(moved.components().get<TargetTag>(), nullptr);
    EXPECT_TRUE(set.empty()); // NOLINT(bugprone-use-after-move): the moved-from state is defined

    KeypointSet other;
    EXPECT_TRUE(other.swapWith(moved));
    EXPECT_EQ(other.name(), "landmarks");
    EXPECT_EQ(other.selection().indices(), (std::vector<int>{1}));
    EXPECT_TRUE(moved.empty());
}

TEST(AnnotationSets, MovingTheSetMovesTheEntriesAndKeepsTheIdentity)
{
    KeypointSet points({{{Vector3d(1, 0, 0)}, {Vector3d(0, 2, 0)}}});
    points.setMatrixToWorld(rotationZ90WithShift());
    EXPECT_TRUE(points.matrixToWorld().isIdentity(0.0));
    EXPECT_TRUE(points.keypoints()[0][0][0].isApprox(Vector3d(10, 21, 30)));
    EXPECT_TRUE(points.keypoints()[0][1][0].isApprox(Vector3d(8, 20, 30)));

    BoundingBoxSet boxes({{{Box{Vector3d(1, 0, 0), Vector3d(2, 4, 6)}}}});
    boxes.setMatrix(rotationZ90WithShift());
    Box const& box = boxes.boxes()[0][0][0];
    EXPECT_TRUE(box.center.isApprox(Vector3d(10, 21, 30)));
    // A quarter turn about z swaps the x and y widths of the aligned hull.
    EXPECT_TRUE(box.extent.isApprox(Vector3d(4, 2, 6)));
    EXPECT_TRUE(boxes.matrix().isIdentity(0.0));
}

TEST(AnnotationSets, CanBeShownOnlyWhenEveryEntryIsDrawable)
{
    EXPECT_TRUE(sampleKeypoints().canBeShownIn2D3D());
    EXPECT_TRUE(sampleBoxes().canBeShownIn2D3D());
    KeypointSet withNan = sampleKeypoints();
    withNan.keypoints()[0][0][1].x() = kNan;
    EXPECT_FALSE(withNan.canBeShownIn2D3D());
    BoundingBoxSet inverted = sampleBoxes();
    inverted.boxes()[0][0][0].extent.x() = -1;
    EXPECT_FALSE(inverted.canBeShownIn2D3D());
}

// Point clouds -------------------------------------------------------------------------------

TEST(PointCloudConversion, LabelsBecomeChannelsOfWorldPointsInEveryFrame)
{
    auto first = labelledCloud({Vector3d(1, 0, 0), Vector3d(2, 0, 0), Vector3d(3, 0, 5)}, {3, 1, 3});
    first->setMatrixToWorld(rotationZ90WithShift());
    auto const second = labelledCloud({Vector3d(2, 2, 2)}, {4});
    Log::Capture capture;
    KeypointSet const set(std::vector<PointCloud const*>{first.get(), second.get()});
    EXPECT_TRUE(capture.records().empty());
    ASSERT_EQ(set.size(), 2u);
    // Label l goes to channel l - 1; every frame has the largest channel count.
    ASSERT_EQ(set.keypoints()[0].size(), 4u);
    ASSERT_EQ(set.keypoints()[0][0].size(), 1u);
    EXPECT_TRUE(set.keypoints()[0][0][0].isApprox(Vector3d(10, 22, 30)));
    EXPECT_TRUE(set.keypoints()[0][1].empty());
    ASSERT_EQ(set.keypoints()[0][2].size(), 2u);
    EXPECT_TRUE(set.keypoints()[0][2][0].isApprox(Vector3d(10, 21, 30)));
    EXPECT_TRUE(set.keypoints()[0][2][1].isApprox(Vector3d(10, 23, 35)));
    ASSERT_EQ(set.keypoints()[1].size(), 4u);
    EXPECT_EQ(set.keypoints()[1][3], (std::vector<Vector3d>{Vector3d(2, 2, 2)}));
}

TEST(PointCloudConversion, UnusableCloudsAreReported)
{
    auto const good = labelledCloud({Vector3d(1, 0, 0)}, {1});
    auto const zeroLabel = labelledCloud({Vector3d(1, 0, 0), Vector3d(2, 0, 0)}, {2, 0});
    auto const negativeLabel = labelledCloud({Vector3d(1, 0, 0)}, {-100});
    std::string const labelError =
        "PointCloud labels are expected to be > 0 to be correctly mapped to KeypointSet channels.";
    for (PointCloud const* bad : {zeroLabel.get(), negativeLabel.get(), static_cast<PointCloud*>(nullptr)}) {
        Log::Capture capture;
        EXPECT_TRUE(KeypointSet(std::vector<PointCloud const*>{good.get(), bad}).empty());
        EXPECT_TRUE(capture.contains(
            bad ? labelError : "PointCloud 1 of 2 is null; no KeypointSet can be made", "ML.KeypointSet"));
    }

    // A cloud without labels is usable: every point goes to the first channel, with a warning.
    auto const unlabelled = labelledCloud({Vector3d(1, 0, 0), Vector3d(0, 1, 0)}, {});
    Log::Capture capture;
    KeypointSet const set(*unlabelled);
    EXPECT_EQ(capture.messages(Log::Warning),
              std::vector<std::string>{
                  "PointCloud does not have any label - all points will be mapped to the zero label."});
    ASSERT_EQ(set.size(), 1u);
    ASSERT_EQ(set.keypoints()[0].size(), 1u);
    EXPECT_EQ(set.keypoints()[0][0].size(), 2u);
}

TEST(PointCloudConversion, KeypointsToCloudsAndBack)
{
    KeypointSet set = sampleKeypoints();
    set.setName("marks");
    auto const clouds = keypointsToPointClouds(set);
    ASSERT_EQ(clouds.size(), 2u);
    PointCloud const& first = *clouds[0];
    EXPECT_EQ(first.name(), "marks");
    EXPECT_EQ(first.points(),
              (std::vector<Vector3d>{Vector3d(1, 2, 3), Vector3d(-4, 0, 0), Vector3d(0, 5, -1)}));
    EXPECT_EQ(first.labels(), (std::vector<int>{1, 1, 2}));
    EXPECT_EQ(first.normals().size(), 3u);
    EXPECT_EQ(first.colors().size(), 3u);
    EXPECT_EQ(clouds[1]->size(), 0u);

    // Frame 1 had one empty channel; after the round trip every frame has the largest count.
    KeypointSet expected = sampleKeypoints();
    expected.keypoints()[1].resize(2);
    Log::Capture capture;
    EXPECT_EQ(pointCloudsToKeypoints(clouds), expected);
    EXPECT_TRUE(capture.records().empty());
}

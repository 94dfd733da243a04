// Point clouds and the axis-aligned boxes that bound every data item in world coordinates.

#include "host/data/PointCloud.h"

#include "host/core/Log.h"
#include "host/data/AlignedBox.h"

#include <gtest/gtest.h>

#include <Eigen/LU>
#include <limits>

using namespace Velmoria;
using Eigen::Vector3d;
using Geometry::AlignedBox;

namespace {

std::vector<Vector3d> threePoints()
{
    return {Vector3d(0, 0, 0), Vector3d(1, 2, 3), Vector3d(-1, 0, 1)};
}

} // namespace

TEST(AlignedBox, GrowsByPointsAndBoxesAndEmptyBoxesAreEqual)
{
    AlignedBox box;
    EXPECT_TRUE(box.isEmpty());
    EXPECT_FALSE(box.includesPoint(Vector3d::Zero()));
    EXPECT_EQ(box.extent(), Vector3d::Zero());
    EXPECT_EQ(box.center(), Vector3d::Zero());
    EXPECT_EQ(box, AlignedBox(Vector3d(1, 1, 1), Vector3d(0, 0, 0))) << "all empty boxes are equal";

    box.addPoint(Vector3d(1, 2, 3));
    EXPECT_FALSE(box.isEmpty());
    EXPECT_EQ(box, AlignedBox(Vector3d(1, 2, 3), Vector3d(1, 2, 3)));
    box.addPoint(Vector3d(-1, 5, 3));
    box.addPoint(Vector3d(std::numeric_limits<double>::quiet_NaN(), 0, 0));
    box.addBox(AlignedBox());
    EXPECT_EQ(box, AlignedBox(Vector3d(-1, 2, 3), Vector3d(1, 5, 3)));
    box.addBox(AlignedBox(Vector3d(0, 0, 0), Vector3d(0, 0, 10)));
    EXPECT_EQ(box, AlignedBox(Vector3d(-1, 0, 0), Vector3d(1, 5, 10)));
    EXPECT_EQ(box.extent(), Vector3d(2, 5, 10));
    EXPECT_EQ(box.center(), Vector3d(0, 2.5, 5));
}

TEST(AlignedBox, IncludesItsClosedInsideOnly)
{
    AlignedBox box(Vector3d(0, 0, 0), Vector3d(1, 2, 3));
    for (Vector3d const& inside : {Vector3d(0.5, 1, 1.5), Vector3d(0, 0, 0), Vector3d(1, 2, 3)})
        EXPECT_TRUE(box.includesPoint(inside)) << inside.transpose();
    for (Vector3d const& outside : {Vector3d(1.0001, 1, 1), Vector3d(0.5, -1e-9, 1), Vector3d(0.5, 1, 3.5)})
        EXPECT_FALSE(box.includesPoint(outside)) << outside.transpose();
}

TEST(AlignedBox, TransformedUsesAllCorners)
{
    AlignedBox box(Vector3d(0, 0, 0), Vector3d(1, 2, 3));
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    // 90 degrees about z, then a shift: x' = -y + 10, y' = x.
    m.block<3, 3>(0, 0) << 0, -1, 0, 1, 0, 0, 0, 0, 1;
    m.block<3, 1>(0, 3) << 10, 0, 0;
    AlignedBox t = box.transformed(m);
    EXPECT_TRUE(t.min().isApprox(Vector3d(8, 0, 0)));
    EXPECT_TRUE(t.max().isApprox(Vector3d(10, 1, 3)));
    EXPECT_TRUE(AlignedBox().transformed(m).isEmpty());
}

// ---------------------------------------------------------------------------------------------

TEST(PointCloud, ConstructorFlagsAllocateAttributesAndBoundsAreInWorldCoordinates)
{
    PointCloud counted(4, true, "counted");
    EXPECT_EQ(counted.size(), 4u);
    EXPECT_TRUE(counted.hasNormals());
    EXPECT_FALSE(counted.hasColors());

    PointCloud cloud(threePoints(), false, true, "listed");
    EXPECT_FALSE(cloud.hasNormals());
    ASSERT_TRUE(cloud.hasColors());
    EXPECT_EQ(cloud.colors().size(), 3u);

    EXPECT_EQ(cloud.bounds(), AlignedBox(Vector3d(-1, 0, 0), Vector3d(1, 2, 3)));
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    m.diagonal().head<3>() = Vector3d(2, 1, 1); // scale x by 2
    m.block<3, 1>(0, 3) = Vector3d(10, 20, 30);
    cloud.setMatrixToWorld(m);
    EXPECT_TRUE(cloud.bounds().min().isApprox(Vector3d(8, 20, 30)));
    EXPECT_TRUE(cloud.bounds().max().isApprox(Vector3d(12, 22, 33)));
    EXPECT_TRUE(cloud.matrixFromWorld().isApprox(m.inverse()));
    EXPECT_TRUE(PointCloud().bounds().isEmpty());
}

TEST(PointCloud, AttributeSizesMustMatch)
{
    PointCloud cloud(threePoints(), false, false, "lung");
    Log::Capture capture;
    EXPECT_FALSE(cloud.setLabels({1, 2}));
    EXPECT_FALSE(cloud.hasLabels());
    EXPECT_TRUE(capture.contains("Cannot set labels of point cloud 'lung': 2 values for 3 points",
                                 "Host.PointCloud"));
    EXPECT_FALSE(cloud.setNormals(std::vector<Vector3d>(4, Vector3d::UnitZ())));
    EXPECT_FALSE(cloud.setColors(std::vector<Eigen::Vector4f>(1)));
    EXPECT_FALSE(cloud.setPoint(3, Vector3d::Zero()));

    EXPECT_TRUE(cloud.setNormals(std::vector<Vector3d>(3, Vector3d::UnitZ())));
    EXPECT_TRUE(cloud.setPoint(2, Vector3d(5, 5, 5)));
    EXPECT_EQ(cloud.points()[2], Vector3d(5, 5, 5));
    EXPECT_TRUE(cloud.setLabels({1, 2, 3}));
    EXPECT_EQ(cloud.labels(), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(cloud.setLabels({}));
    EXPECT_FALSE(cloud.hasLabels()) << "an empty vector removes the attribute";
}

TEST(PointCloud, TakeDataCloneAndSwap)
{
    PointCloud a(threePoints(), true, false, "a");
    ASSERT_TRUE(a.setLabels({4, 5, 6}));
    a.setModality(Data::Modality::CT);
    auto copy = a.clone();
    EXPECT_EQ(copy->points(), a.points());
    EXPECT_EQ(copy->labels(), a.labels());
    EXPECT_EQ(copy->modality(), Data::Modality::CT);
    EXPECT_EQ(copy->name(), "a");

    PointCloud b(1, false, "b");
    EXPECT_TRUE(a.swapWith(b));
    EXPECT_EQ(a.name(), "b");
    EXPECT_EQ(a.size(), 1u);
    EXPECT_EQ(b.size(), 3u);
    EXPECT_EQ(b.modality(), Data::Modality::CT);

    PointCloud::Content content = b.takeData();
    EXPECT_EQ(content.points.size(), 3u);
    EXPECT_EQ(content.normals.size(), 3u);
    EXPECT_EQ(content.labels, (std::vector<int>{4, 5, 6}));
    EXPECT_EQ(b.size(), 0u);
    EXPECT_FALSE(b.hasNormals());
    EXPECT_FALSE(b.hasLabels());
}

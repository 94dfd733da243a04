#include "host/data/PointCloud.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <Eigen/LU>

using namespace Velmoria;
using Eigen::Vector3d;

namespace {

std::vector<Vector3d> threePoints()
{
    return {Vector3d(0, 0, 0), Vector3d(1, 2, 3), Vector3d(-1, 0, 1)};
}

} // namespace

TEST(PointCloud, ConstructorFlagsAllocateAttributes)
{
    PointCloud counted(4, true, "counted");
    EXPECT_EQ(counted.size(), 4u);
    EXPECT_TRUE(counted.hasNormals());
    EXPECT_FALSE(counted.hasColors());
    EXPECT_EQ(counted.name(), "counted");
    EXPECT_EQ(counted.kind(), Data::Kind::PointCloud);

    PointCloud listed(threePoints(), false, true, "listed");
    EXPECT_FALSE(listed.hasNormals());
    ASSERT_TRUE(listed.hasColors());
    EXPECT_EQ(listed.colors().size(), 3u);
    EXPECT_EQ(listed.points()[1], Vector3d(1, 2, 3));
}

TEST(PointCloud, BoundsAreInWorldCoordinates)
{
    PointCloud cloud(threePoints(), false, false);
    EXPECT_EQ(cloud.bounds(), Geometry::AlignedBox(Vector3d(-1, 0, 0), Vector3d(1, 2, 3)));
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    m.diagonal().head<3>() = Vector3d(2, 1, 1); // scale x by 2
    m.block<3, 1>(0, 3) = Vector3d(10, 20, 30);
    cloud.setMatrixToWorld(m);
    auto box = cloud.bounds();
    EXPECT_TRUE(box.min().isApprox(Vector3d(8, 20, 30)));
    EXPECT_TRUE(box.max().isApprox(Vector3d(12, 22, 33)));
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

    EXPECT_TRUE(cloud.setLabels({1, 2, 3}));
    EXPECT_EQ(cloud.labels(), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(cloud.setLabels({}));
    EXPECT_FALSE(cloud.hasLabels()) << "an empty vector removes the attribute";
}

TEST(PointCloud, TakeDataMovesEverythingOut)
{
    PointCloud cloud(threePoints(), true, false);
    ASSERT_TRUE(cloud.setLabels({4, 5, 6}));
    PointCloud::Content content = cloud.takeData();
    EXPECT_EQ(content.points.size(), 3u);
    EXPECT_EQ(content.normals.size(), 3u);
    EXPECT_EQ(content.labels, (std::vector<int>{4, 5, 6}));
    EXPECT_EQ(cloud.size(), 0u);
    EXPECT_FALSE(cloud.hasNormals());
    EXPECT_FALSE(cloud.hasLabels());
}

TEST(PointCloud, CloneAndSwap)
{
    PointCloud a(threePoints(), false, false, "a");
    a.setModality(Data::Modality::CT);
    auto copy = a.clone();
    EXPECT_EQ(copy->points(), a.points());
    EXPECT_EQ(copy->modality(), Data::Modality::CT);
    EXPECT_EQ(copy->name(), "a");

    PointCloud b(1, false, "b");
    EXPECT_TRUE(a.swapWith(b));
    EXPECT_EQ(a.name(), "b");
    EXPECT_EQ(a.size(), 1u);
    EXPECT_EQ(b.size(), 3u);
    EXPECT_EQ(b.modality(), Data::Modality::CT);
}

#include "host/data/AlignedBox.h"

#include <gtest/gtest.h>

#include <limits>

using namespace Velmoria;
using Eigen::Vector3d;
using Geometry::AlignedBox;

TEST(AlignedBox, DefaultIsEmptyAndIncludesNothing)
{
    AlignedBox box;
    EXPECT_TRUE(box.isEmpty());
    EXPECT_FALSE(box.includesPoint(Vector3d::Zero()));
    EXPECT_EQ(box.extent(), Vector3d::Zero());
    EXPECT_EQ(box.center(), Vector3d::Zero());
    EXPECT_EQ(box, AlignedBox(Vector3d(1, 1, 1), Vector3d(0, 0, 0))) << "all empty boxes are equal";
}

TEST(AlignedBox, AddPointAndBoxGrow)
{
    AlignedBox box;
    box.addPoint(Vector3d(1, 2, 3));
    EXPECT_FALSE(box.isEmpty());
    EXPECT_EQ(box.min(), Vector3d(1, 2, 3));
    EXPECT_EQ(box.max(), Vector3d(1, 2, 3));
    box.addPoint(Vector3d(-1, 5, 3));
    box.addPoint(Vector3d(std::numeric_limits<double>::quiet_NaN(), 0, 0));
    EXPECT_EQ(box, AlignedBox(Vector3d(-1, 2, 3), Vector3d(1, 5, 3)));
    box.addBox(AlignedBox());
    EXPECT_EQ(box, AlignedBox(Vector3d(-1, 2, 3), Vector3d(1, 5, 3)));
    box.addBox(AlignedBox(Vector3d(0, 0, 0), Vector3d(0, 0, 10)));
    EXPECT_EQ(box.min(), Vector3d(-1, 0, 0));
    EXPECT_EQ(box.max(), Vector3d(1, 5, 10));
    EXPECT_EQ(box.extent(), Vector3d(2, 5, 10));
    EXPECT_EQ(box.center(), Vector3d(0, 2.5, 5));
}

class AlignedBoxIncludes : public ::testing::TestWithParam<std::pair<Vector3d, bool>>
{};

TEST_P(AlignedBoxIncludes, ClosedBox)
{
    AlignedBox box(Vector3d(0, 0, 0), Vector3d(1, 2, 3));
    EXPECT_EQ(box.includesPoint(GetParam().first), GetParam().second) << GetParam().first.transpose();
}

INSTANTIATE_TEST_SUITE_P(
    AlignedBox, AlignedBoxIncludes,
    ::testing::Values(std::pair{Vector3d(0.5, 1, 1.5), true}, std::pair{Vector3d(0, 0, 0), true},
                      std::pair{Vector3d(1, 2, 3), true}, std::pair{Vector3d(1.0001, 1, 1), false},
                      std::pair{Vector3d(0.5, -1e-9, 1), false}, std::pair{Vector3d(0.5, 1, 3.5), false}));

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

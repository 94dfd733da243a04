// Tests of the readers of size-like keys that take one value, two or three: the order in which
// the forms are tried, where the third component comes from, and what is refused.

#include "ml/operations/ParamReading.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

struct ReadCase
{
    std::string label;
    std::string text;
    std::optional<Eigen::Vector3d> real;    // nullopt: not read
    std::optional<Eigen::Vector3i> integer; // nullopt: not read
};

class Vec3OrVec2OrScalarTest : public ::testing::TestWithParam<ReadCase>
{};

TEST_P(Vec3OrVec2OrScalarTest, ReadsTheFormsInOrder)
{
    ReadCase const& c = GetParam();
    Properties p;
    p.setParam("size", c.text);

    Eigen::Vector3d real(-1, -1, -1);
    EXPECT_EQ(detail::readVec3OrVec2OrScalar(p, "size", real, Eigen::Vector3d(7, 8, 9)), c.real.has_value());
    EXPECT_EQ(real, c.real.value_or(Eigen::Vector3d(-1, -1, -1)));

    Eigen::Vector3i integer(-1, -1, -1);
    EXPECT_EQ(detail::readVec3iOrVec2iOrScalar(p, "size", integer, Eigen::Vector3i(7, 8, 9)),
              c.integer.has_value());
    EXPECT_EQ(integer, c.integer.value_or(Eigen::Vector3i(-1, -1, -1)));
}

INSTANTIATE_TEST_SUITE_P(
    Forms, Vec3OrVec2OrScalarTest,
    ::testing::Values(ReadCase{"ThreeValues", "1 2 3", Eigen::Vector3d(1, 2, 3), Eigen::Vector3i(1, 2, 3)},
                      ReadCase{"TwoValuesTakeTheThirdFromDefaults", "4 5", Eigen::Vector3d(4, 5, 9),
                               Eigen::Vector3i(4, 5, 9)},
                      ReadCase{"ScalarFillsAll", "6", Eigen::Vector3d(6, 6, 6), Eigen::Vector3i(6, 6, 6)},
                      ReadCase{"Fractions", "0.5 1.5", Eigen::Vector3d(0.5, 1.5, 9), std::nullopt},
                      ReadCase{"FractionalScalar", "2.5", Eigen::Vector3d(2.5, 2.5, 2.5), std::nullopt},
                      ReadCase{"FourValues", "1 2 3 4", std::nullopt, std::nullopt},
                      ReadCase{"Text", "large", std::nullopt, std::nullopt},
                      ReadCase{"Empty", "", std::nullopt, std::nullopt}),
    [](auto const& info) { return info.param.label; });

TEST(ParamReading, MissingKeyAndListValues)
{
    Properties p;
    Eigen::Vector3d real(1, 1, 1);
    EXPECT_FALSE(detail::readVec3OrVec2OrScalar(p, "size", real, Eigen::Vector3d::Zero()));
    EXPECT_EQ(real, Eigen::Vector3d(1, 1, 1));

    // A YAML sequence arrives as a list value and reads like the text form.
    p.setParam("size", std::vector<std::string>{"3", "4"});
    Eigen::Vector3i integer;
    EXPECT_TRUE(detail::readVec3iOrVec2iOrScalar(p, "size", integer, Eigen::Vector3i(0, 0, 1)));
    EXPECT_EQ(integer, Eigen::Vector3i(3, 4, 1));
}

} // namespace

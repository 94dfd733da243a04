// SetSpacing: after the change every pixel lies where the convention puts it with the new
// spacing (computed here: pixel p at (p - (dim - 1) / 2) * spacing, then matrixToWorld), so the
// centre stays on its world point; the pixels are untouched; and each check has its message.

#include "ml/operations/catalogue/SetSpacingOperation.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointSet.h"
#include "ml/operations/OperationException.h"

#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cstring>
#include <functional>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

Eigen::Matrix4d obliqueMatrix()
{
    Eigen::Affine3d const t = Eigen::Translation3d(-3.0, 8.0, 41.0) *
                              Eigen::AngleAxisd(1.1, Eigen::Vector3d(2.0, -1.0, 0.5).normalized());
    return t.matrix();
}

Eigen::Vector3d analyticWorld(Eigen::Matrix4d const& m, Eigen::Vector3i const& dims,
                              Eigen::Vector3d const& spacing, Eigen::Vector3d const& p)
{
    Eigen::Vector3d const image =
        (p - (dims.cast<double>() - Eigen::Vector3d::Ones()) / 2.0).cwiseProduct(spacing);
    return (m * image.homogeneous()).head<3>();
}

std::shared_ptr<SharedImageSet> makeSet(Eigen::Vector3i const& dims, Eigen::Vector3d const& spacing,
                                        int frames = 1, Eigen::Matrix4d const& matrix = obliqueMatrix())
{
    auto set = std::make_shared<SharedImageSet>();
    for (int f = 0; f < frames; ++f) {
        auto pixels = TypedImage<short>::zeros(dims, 1);
        for (std::size_t i = 0; i < pixels->valueCount(); ++i)
            pixels->setValue(static_cast<short>(i % 97), i);
        pixels->setSpacing(spacing, true);
        auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
        frame->setMatrixToWorld(matrix);
        set->add(frame);
    }
    return set;
}

SharedImage& frameOf(DataItem& item, std::string const& field)
{
    return *item.get<ImageElement>(field)->sis()->get(0);
}

Eigen::Vector3i const kDims(9, 6, 5);
Eigen::Vector3d const kSpacing(0.8, 1.2, 3.0);

// ---- Geometry ------------------------------------------------------------------------------

struct SpacingCase
{
    Eigen::Vector3i dims;
    Eigen::Vector3d oldSpacing;
    Eigen::Vector3d newSpacing;
};

class SetSpacingGeometryTest : public ::testing::TestWithParam<SpacingCase>
{};

TEST_P(SetSpacingGeometryTest, keepsTheCentreAndScalesAboutIt)
{
    SpacingCase const& c = GetParam();
    Eigen::Matrix4d const m = obliqueMatrix();
    DataItem item;
    item.set("image", makeSet(c.dims, c.oldSpacing));
    item.set("label", makeSet(c.dims, c.oldSpacing));
    item.get("label")->tagAsTarget();
    auto const before = item.get<ImageElement>("image")->sis()->get(0)->clone();

    SetSpacingOperation(c.newSpacing).process(item);

    for (char const* field : {"image", "label"}) {
        SharedImage const& frame = frameOf(item, field);
        EXPECT_EQ(frame.spacing(), c.newSpacing) << field;
        EXPECT_EQ(frame.dimensions(), c.dims) << field;
        Eigen::Vector3d const centre = (c.dims.cast<double>() - Eigen::Vector3d::Ones()) / 2.0;
        EXPECT_LT((frame.pixelToWorld(centre) - m.block<3, 1>(0, 3)).norm(), 1e-9) << field;
        for (Eigen::Vector3d const& p :
             {Eigen::Vector3d(0, 0, 0), Eigen::Vector3d(c.dims.x() - 1, 0, 0),
              (c.dims - Eigen::Vector3i::Ones()).cast<double>().eval(), Eigen::Vector3d(2, 1, 0)})
            EXPECT_LT((frame.pixelToWorld(p) - analyticWorld(m, c.dims, c.newSpacing, p)).norm(), 1e-9)
                << field << " " << p.transpose();
    }
    // Not resampled: the same pixels.
    SharedImage const& after = frameOf(item, "image");
    EXPECT_EQ(std::memcmp(after.mem()->data(), before->mem()->data(), after.mem()->byteSize()), 0);
}

INSTANTIATE_TEST_SUITE_P(Spacings, SetSpacingGeometryTest,
                         ::testing::Values(SpacingCase{kDims, kSpacing, Eigen::Vector3d(0.5, 2.0, 1.0)},
                                           SpacingCase{kDims, kSpacing, Eigen::Vector3d(0.8, 1.2, 3.0)},
                                           SpacingCase{Eigen::Vector3i(10, 7, 1),
                                                       Eigen::Vector3d(0.8, 1.2, 3.0),
                                                       Eigen::Vector3d(1.6, 0.4, 3.0)}));

TEST(SetSpacingOperationTest, leavesOtherElementsAlone)
{
    DataItem item;
    item.set("image", makeSet(kDims, kSpacing));
    auto points = std::make_shared<KeypointSet>(KeypointSet::Keypoints{{{Eigen::Vector3d(1, 2, 3)}}});
    item.set("kpts", points);
    SetSpacingOperation(Eigen::Vector3d(2.0, 2.0, 2.0)).process(item);
    EXPECT_EQ(frameOf(item, "image").spacing(), Eigen::Vector3d(2.0, 2.0, 2.0));
    EXPECT_EQ(points->keypoints()[0][0][0], Eigen::Vector3d(1, 2, 3));
}

// ---- Checks ----------------------------------------------------------------------------------

struct CheckCase
{
    std::string name;
    std::function<DataItem()> item;
    Eigen::Vector3d spacing;
    std::string message;
};

void PrintTo(CheckCase const& c, std::ostream* os)
{
    *os << c.name;
}

class SetSpacingCheckTest : public ::testing::TestWithParam<CheckCase>
{};

TEST_P(SetSpacingCheckTest, failsWithItsMessageBeforeChangingAnything)
{
    CheckCase const& c = GetParam();
    DataItem item = c.item();
    std::vector<Eigen::Vector3d> before;
    for (auto const& [name, element] : item.elements())
        if (auto const* image = dynamic_cast<ImageElement const*>(element.get()))
            before.push_back(image->sis()->get(0)->spacing());

    SetSpacingOperation operation(c.spacing);
    try {
        operation.process(item);
        ADD_FAILURE() << "no exception";
    } catch (OperationException const& e) {
        EXPECT_EQ(std::string(e.what()), "[ML.SetSpacing] " + c.message);
    }
    std::size_t i = 0;
    for (auto const& [name, element] : item.elements())
        if (auto const* image = dynamic_cast<ImageElement const*>(element.get())) {
            EXPECT_EQ(image->sis()->get(0)->spacing(), before[i++]) << name;
        }
}

DataItem itemOf(std::vector<std::pair<std::string, std::shared_ptr<SharedImageSet>>> sets)
{
    DataItem item;
    for (auto& [name, set] : sets)
        item.set(name, std::move(set));
    return item;
}

Eigen::Matrix4d shifted()
{
    Eigen::Matrix4d m = obliqueMatrix();
    m(0, 3) += 0.5;
    return m;
}

INSTANTIATE_TEST_SUITE_P(
    Checks, SetSpacingCheckTest,
    ::testing::Values(
        CheckCase{"NoImage",
                  [] {
                      DataItem item;
                      item.set("kpts", std::make_shared<KeypointSet>(
                                           KeypointSet::Keypoints{{{Eigen::Vector3d(1, 2, 3)}}}));
                      return item;
                  },
                  Eigen::Vector3d::Ones(), "SetSpacingOperation requires at least one image element"},
        CheckCase{"MixedBatchSizes",
                  [] {
                      return itemOf({{"a", makeSet(kDims, kSpacing, 1)}, {"b", makeSet(kDims, kSpacing, 2)}});
                  },
                  Eigen::Vector3d::Ones(),
                  "SetSpacingOperation requires all active data elements to have the same batch size"},
        CheckCase{"BatchOfTwo",
                  [] {
                      return itemOf({{"a", makeSet(kDims, kSpacing, 2)}});
                  },
                  Eigen::Vector3d::Ones(), "SetSpacingOperation requires batch size 1 for image element"},
        CheckCase{"OtherSize",
                  [] {
                      return itemOf({{"a", makeSet(kDims, kSpacing)},
                                     {"b", makeSet(Eigen::Vector3i(9, 6, 4), kSpacing)}});
                  },
                  Eigen::Vector3d::Ones(),
                  "SetSpacingOperation requires all image elements to have the same descriptor world"},
        CheckCase{"OtherPosition",
                  [] {
                      return itemOf(
                          {{"a", makeSet(kDims, kSpacing)}, {"b", makeSet(kDims, kSpacing, 1, shifted())}});
                  },
                  Eigen::Vector3d::Ones(),
                  "SetSpacingOperation requires all image elements to have the same descriptor world"},
        CheckCase{"TwoDWithZScaling",
                  [] {
                      return itemOf({{"a", makeSet(Eigen::Vector3i(9, 6, 1), kSpacing)}});
                  },
                  Eigen::Vector3d(1.0, 1.0, 1.0),
                  "SetSpacingOperation requires z scaling of 1 for 2D images."},
        CheckCase{"NegativeSpacing",
                  [] {
                      return itemOf({{"a", makeSet(kDims, kSpacing)}});
                  },
                  Eigen::Vector3d(1.0, -1.0, 1.0), "'spacing' must be positive"}),
    [](auto const& info) { return info.param.name; });

} // namespace

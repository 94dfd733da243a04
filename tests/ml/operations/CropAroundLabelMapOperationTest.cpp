// CropAroundLabelMap: the image and the label map are cut to the same box, found here by hand
// from where the labels were drawn; each cropped pixel keeps its value and its world position
// (computed from the convention: pixel p at (p - (dim - 1) / 2) * spacing, then matrixToWorld);
// each element gets its own content back whatever the order; and the failures have their
// messages.

#include "ml/operations/catalogue/CropAroundLabelMapOperation.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/operations/OperationException.h"

#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <functional>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

Eigen::Matrix4d obliqueMatrix()
{
    Eigen::Affine3d const t = Eigen::Translation3d(7.0, -2.0, 30.0) *
                              Eigen::AngleAxisd(0.8, Eigen::Vector3d(0.3, 1.0, -2.0).normalized());
    return t.matrix();
}

Eigen::Vector3d analyticWorld(Eigen::Matrix4d const& m, Eigen::Vector3i const& dims,
                              Eigen::Vector3d const& spacing, Eigen::Vector3d const& p)
{
    Eigen::Vector3d const image =
        (p - (dims.cast<double>() - Eigen::Vector3d::Ones()) / 2.0).cwiseProduct(spacing);
    return (m * image.homogeneous()).head<3>();
}

Eigen::Vector3i const kDims(16, 12, 8);
Eigen::Vector3d const kSpacing(0.6, 0.9, 2.2);

// Label 2 fills the box x 3..5, y 4..6, z 2..3; label 5 is the single pixel (9, 8, 5).
int labelAt(int x, int y, int z)
{
    if (x >= 3 && x <= 5 && y >= 4 && y <= 6 && z >= 2 && z <= 3)
        return 2;
    if (x == 9 && y == 8 && z == 5)
        return 5;
    return 0;
}

// Image values name their pixel, so that a cropped pixel shows where it came from.
int imageAt(int x, int y, int z)
{
    return (z * kDims.y() + y) * kDims.x() + x;
}

template <class T>
std::shared_ptr<SharedImageSet> makeSet(Eigen::Vector3i const& dims,
                                        std::function<int(int, int, int)> const& value)
{
    auto pixels = TypedImage<T>::zeros(dims, 1);
    std::size_t i = 0;
    for (int z = 0; z < dims.z(); ++z)
        for (int y = 0; y < dims.y(); ++y)
            for (int x = 0; x < dims.x(); ++x)
                pixels->setValue(static_cast<T>(value(x, y, z)), i++);
    pixels->setSpacing(kSpacing, true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(obliqueMatrix());
    return std::make_shared<SharedImageSet>(frame);
}

std::shared_ptr<SharedImageSet> makeLabels()
{
    auto set = makeSet<unsigned char>(kDims, labelAt);
    set->setModality(Data::Modality::Label);
    return set;
}

double valueAt(SharedImage const& frame, Eigen::Vector3i const& p)
{
    auto const i = static_cast<std::size_t>((p.z() * frame.height() + p.y()) * frame.width() + p.x());
    double v = 0.0;
    visitPixelType(frame.pixelType(), [&](auto tag) {
        v = static_cast<double>(static_cast<TypedImage<decltype(tag)> const&>(*frame.mem()).value(i));
    });
    return v;
}

SharedImage const& frameOf(DataItem const& item, std::string const& field)
{
    return *item.get<ImageElement>(field)->sis()->get(0);
}

// ---- Boxes -----------------------------------------------------------------------------------

struct BoxCase
{
    std::string name;
    std::vector<int> labelValues;
    int margin;
    bool reorder;
    bool labelFirst;
    Eigen::Vector3i offset;
    Eigen::Vector3i size;
};

void PrintTo(BoxCase const& c, std::ostream* os)
{
    *os << c.name;
}

class CropAroundLabelMapBoxTest : public ::testing::TestWithParam<BoxCase>
{};

TEST_P(CropAroundLabelMapBoxTest, cropsImageAndLabelToTheSameBoxInPlace)
{
    BoxCase const& c = GetParam();
    DataItem item;
    if (c.labelFirst)
        item.set("label", makeLabels());
    item.set("image", makeSet<float>(kDims, imageAt));
    if (!c.labelFirst)
        item.set("label", makeLabels());

    CropAroundLabelMapOperation(c.labelValues, c.margin, c.reorder).process(item);

    Eigen::Matrix4d const m = obliqueMatrix();
    for (char const* field : {"image", "label"}) {
        SharedImage const& frame = frameOf(item, field);
        ASSERT_EQ(frame.dimensions(), c.size) << field;
        EXPECT_EQ(frame.spacing(), kSpacing) << field;
        for (Eigen::Vector3i const& q : {Eigen::Vector3i(0, 0, 0), (c.size - Eigen::Vector3i::Ones()).eval(),
                                         Eigen::Vector3i(c.size.x() - 1, 0, c.size.z() / 2)}) {
            Eigen::Vector3i const p = q + c.offset;
            // Same world point as the original pixel ...
            EXPECT_LT(
                (frame.pixelToWorld(q.cast<double>()) - analyticWorld(m, kDims, kSpacing, p.cast<double>()))
                    .norm(),
                1e-9)
                << field << " " << q.transpose();
            // ... and the same value: each element kept its own content.
            double const expected =
                std::string(field) == "image" ? imageAt(p.x(), p.y(), p.z()) : labelAt(p.x(), p.y(), p.z());
            EXPECT_EQ(valueAt(frame, q), expected) << field << " " << q.transpose();
        }
    }
    EXPECT_EQ(item.get<ImageElement>("label")->sis()->modality(), Data::Modality::Label);
}

INSTANTIATE_TEST_SUITE_P(
    Boxes, CropAroundLabelMapBoxTest,
    ::testing::Values(
        // Every non-zero label: x 3..9, y 4..8, z 2..5.
        BoxCase{"AllLabels", {}, 0, false, false, {3, 4, 2}, {7, 5, 4}},
        BoxCase{"OnlyTwo", {2}, 0, false, false, {3, 4, 2}, {3, 3, 2}},
        // The single pixel of 5 with a margin of 1.
        BoxCase{"OnlyFive", {5}, 1, false, true, {8, 7, 4}, {3, 3, 3}},
        // Margin 2 on the box of 2: x 1..7, y 2..8, z 0..5.
        BoxCase{"Margin", {2}, 2, false, false, {1, 2, 0}, {7, 7, 6}},
        // Clipped at the image: z 5 - 3 .. 5 + 3 = 2..7 fits (8 slices), x 6..12, y 5..11.
        BoxCase{"MarginClipped", {5}, 3, false, false, {6, 5, 2}, {7, 7, 6}},
        BoxCase{"ReorderLabelSecond", {}, 1, true, false, {2, 3, 1}, {9, 7, 6}},
        BoxCase{"ReorderLabelFirst", {2}, 0, true, true, {3, 4, 2}, {3, 3, 2}}),
    [](auto const& info) { return info.param.name; });

TEST(CropAroundLabelMapOperationTest, frameWithoutTheLabelStaysWhole)
{
    DataItem item;
    item.set("image", makeSet<float>(kDims, imageAt));
    item.set("label", makeLabels());
    CropAroundLabelMapOperation({7}, 0, false).process(item);
    EXPECT_EQ(frameOf(item, "image").dimensions(), kDims);
    EXPECT_EQ(frameOf(item, "label").dimensions(), kDims);
}

// ---- Failures --------------------------------------------------------------------------------

struct FailureCase
{
    std::string name;
    std::function<DataItem()> item;
    std::vector<int> labelValues;
    int margin;
    std::string message;
};

void PrintTo(FailureCase const& c, std::ostream* os)
{
    *os << c.name;
}

class CropAroundLabelMapFailureTest : public ::testing::TestWithParam<FailureCase>
{};

TEST_P(CropAroundLabelMapFailureTest, failsWithItsMessageAndChangesNothing)
{
    FailureCase const& c = GetParam();
    DataItem item = c.item();
    std::vector<Eigen::Vector3i> before;
    for (auto const& [name, element] : item.elements())
        before.push_back(dynamic_cast<ImageElement const&>(*element).sis()->get(0)->dimensions());
    Log::Capture capture; // the host's own error line for a bad margin stays off the console
    CropAroundLabelMapOperation operation(c.labelValues, c.margin, false);
    try {
        operation.process(item);
        ADD_FAILURE() << "no exception";
    } catch (OperationException const& e) {
        EXPECT_EQ(std::string(e.what()), "[ML.CropAroundLabelMap] " + c.message);
    }
    std::size_t i = 0;
    for (auto const& [name, element] : item.elements())
        EXPECT_EQ(dynamic_cast<ImageElement const&>(*element).sis()->get(0)->dimensions(), before[i++])
            << name;
}

INSTANTIATE_TEST_SUITE_P(
    Failures, CropAroundLabelMapFailureTest,
    ::testing::Values(FailureCase{"SizeMismatch",
                                  [] {
                                      DataItem item;
                                      item.set("image", makeSet<float>(Eigen::Vector3i(16, 12, 7), imageAt));
                                      item.set("label", makeLabels());
                                      return item;
                                  },
                                  {},
                                  0,
                                  "Image size must match label size"},
                      FailureCase{
                          "NoLabelMap",
                          [] {
                              DataItem item;
                              item.set("image", makeSet<float>(kDims, imageAt));
                              return item;
                          },
                          {},
                          0,
                          "No label map (an image element of modality Label) among the selected fields"},
                      FailureCase{"NegativeMargin",
                                  [] {
                                      DataItem item;
                                      item.set("image", makeSet<float>(kDims, imageAt));
                                      item.set("label", makeLabels());
                                      return item;
                                  },
                                  std::vector<int>{}, -1, "CropLabelMapAlgorithm failed"},
                      FailureCase{"SinglePixelBox",
                                  [] {
                                      DataItem item;
                                      item.set("image", makeSet<float>(kDims, imageAt));
                                      item.set("label", makeLabels());
                                      return item;
                                  },
                                  {5},
                                  0,
                                  "The box around the labels is a single pixel, which an image element "
                                  "cannot hold; give a margin"}),
    [](auto const& info) { return info.param.name; });

} // namespace

// CropLabelMapAlgorithm: boxes of chosen labels with margins (clipped to the image), companion
// images cut with the same box, world positions kept (checked against the centred-pixel
// formula), the order of the outputs, frames without labels, and the refusals.

#include "host/processing/CropLabelMapAlgorithm.h"

#include "ProcessingFixtures.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <gtest/gtest.h>

#include <tuple>

using namespace Velmoria;
using namespace Velmoria::ProcessingTest;

namespace {

// Label 1 at (2, 3, 4), label 2 at (6, 5, 4) and (7, 7, 6), label 3 at (1, 1, 1) in a 10 x 9 x 8
// map placed by testMatrix().
std::shared_ptr<SharedImageSet> labelMap(std::string const& name = "labels")
{
    auto pixels = TypedImage<unsigned char>::zeros(Eigen::Vector3i(10, 9, 8), 1);
    pixels->setValue(1, 2, 3, 4);
    pixels->setValue(2, 6, 5, 4);
    pixels->setValue(2, 7, 7, 6);
    pixels->setValue(3, 1, 1, 1);
    pixels->setSpacing(Eigen::Vector3d(0.5, 0.75, 1.5), true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(testMatrix());
    auto set = std::make_shared<SharedImageSet>(frame);
    set->setName(name);
    set->setModality(Data::Modality::Label);
    return set;
}

std::shared_ptr<SharedImageSet> companion(std::string const& name, Eigen::Vector3i const& size = {10, 9, 8})
{
    FrameSpec spec;
    spec.size = size;
    auto set = std::make_shared<SharedImageSet>(randomFrame<float>(spec));
    set->setName(name);
    return set;
}

struct BoxCase
{
    std::vector<int> labels;
    int margin;
    Eigen::Vector3i offset, size;
};

// Test names in failure output (gtest would otherwise dump the bytes, padding included).
void PrintTo(BoxCase const& c, std::ostream* os)
{
    *os << ::testing::PrintToString(c.labels) << ", margin " << c.margin;
}

class CropLabelBoxTest : public ::testing::TestWithParam<BoxCase>
{};

TEST_P(CropLabelBoxTest, LabelMapAndCompanionCutToTheBox)
{
    BoxCase const& c = GetParam();
    auto labels = labelMap();
    auto image = companion("image");
    CropLabelMapAlgorithm algorithm(labels.get(), image.get());
    algorithm.setLabelValues(c.labels);
    algorithm.setMargin(c.margin);
    algorithm.compute();
    ASSERT_EQ(algorithm.status(), Algorithm::Success);
    ASSERT_EQ(algorithm.boxes().size(), 1u);
    EXPECT_EQ(algorithm.boxes()[0].first, c.offset);
    EXPECT_EQ(algorithm.boxes()[0].second, c.size);
    auto outputs = algorithm.takeOutputSets();
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_EQ(outputs[0]->name(), "labels");
    EXPECT_EQ(outputs[0]->modality(), Data::Modality::Label);
    EXPECT_EQ(outputs[1]->name(), "image");
    for (auto const& [set, original] :
         {std::pair{outputs[0].get(), labels.get()}, std::pair{outputs[1].get(), image.get()}}) {
        SharedImage const& out = *set->get(0);
        SharedImage const& in = *original->get(0);
        ASSERT_EQ(out.dimensions(), c.size);
        EXPECT_EQ(out.channels(), in.channels());
        // The last pixel of the box is the same point of the world before and after.
        Eigen::Vector3d const q = (c.size - Eigen::Vector3i::Ones()).cast<double>();
        EXPECT_TRUE(analyticWorld(out.matrixToWorld(), c.size, in.spacing(), q)
                        .isApprox(analyticWorld(in.matrixToWorld(), in.dimensions(), in.spacing(),
                                                q + c.offset.cast<double>()),
                                  1e-12));
    }
    auto const& outImage = typed<float>(*outputs[1]->get(0));
    auto const& inImage = typed<float>(*image->get(0));
    for (int z = 0; z < c.size.z(); ++z)
        for (int y = 0; y < c.size.y(); ++y)
            for (int x = 0; x < c.size.x(); ++x)
                ASSERT_EQ(outImage.value(x, y, z, 1),
                          inImage.value(x + c.offset.x(), y + c.offset.y(), z + c.offset.z(), 1));
}

INSTANTIATE_TEST_SUITE_P(Boxes, CropLabelBoxTest,
                         ::testing::Values(BoxCase{{}, 0, {1, 1, 1}, {7, 7, 6}}, // every non-zero label
                                           BoxCase{{2}, 0, {6, 5, 4}, {2, 3, 3}},
                                           BoxCase{{2}, 1, {5, 4, 3}, {4, 5, 5}},
                                           BoxCase{{2}, 5, {1, 0, 0}, {9, 9, 8}}, // clipped to the image
                                           BoxCase{{1, 3}, 0, {1, 1, 1}, {2, 3, 4}},
                                           BoxCase{{3, 9}, 2, {0, 0, 0}, {4, 4, 4}}));

TEST(CropLabelMapTest, OutputOrderFollowsTheLabelMapPositionUnlessReordered)
{
    struct Row
    {
        bool reorder;
        int position;
        std::vector<std::string> expected;
    };
    for (Row const& row :
         {Row{false, 0, {"L", "A", "B"}}, Row{false, 1, {"A", "L", "B"}}, Row{false, 2, {"A", "B", "L"}},
          Row{true, 2, {"L", "A", "B"}}, Row{true, 0, {"L", "A", "B"}}}) {
        SCOPED_TRACE(::testing::PrintToString(row.expected));
        auto labels = labelMap("L");
        auto a = companion("A");
        auto b = companion("B");
        CropLabelMapAlgorithm algorithm(labels.get());
        algorithm.setFurtherInputs({a.get(), b.get()});
        algorithm.setReorder(row.reorder);
        algorithm.setLabelMapPosition(row.position);
        algorithm.compute();
        ASSERT_EQ(algorithm.status(), Algorithm::Success);
        OwningDataList list = algorithm.takeOutput();
        std::vector<std::string> names;
        for (int i = 0; i < list.size(); ++i)
            names.push_back(list.getItem(i)->name());
        EXPECT_EQ(names, row.expected);
    }
}

TEST(CropLabelMapTest, FrameWithoutLabelsIsKeptWhole)
{
    auto labels = labelMap();
    CropLabelMapAlgorithm algorithm(labels.get());
    algorithm.setLabelValues({42});
    Log::Capture capture;
    algorithm.compute();
    ASSERT_EQ(algorithm.status(), Algorithm::Success);
    EXPECT_TRUE(capture.contains("Frame 0 of the label map 'labels' holds none of the labels; kept whole",
                                 "Host.CropLabelMapAlgorithm"));
    auto outputs = algorithm.takeOutputSets();
    ASSERT_EQ(outputs.size(), 1u);
    EXPECT_EQ(outputs[0]->get(0)->dimensions(), Eigen::Vector3i(10, 9, 8));
    EXPECT_TRUE(outputs[0]->get(0)->matrixToWorld().isApprox(testMatrix()));
}

TEST(CropLabelMapTest, TwoDimensionalMapConfiguredFromTextStaysTwoDimensional)
{
    auto pixels = TypedImage<short>::zeros(Eigen::Vector3i(6, 5, 1), 2);
    pixels->setValue(4, 3, 2, 0, 1); // the label sits in the second channel
    SharedImageSet labels(std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels))));
    CropLabelMapAlgorithm algorithm(&labels);
    Properties properties;
    properties.setParam("labelValues", "4");
    properties.setParam("margin", "1");
    algorithm.configure(&properties);
    algorithm.compute();
    ASSERT_EQ(algorithm.status(), Algorithm::Success);
    EXPECT_EQ(algorithm.boxes()[0].first, Eigen::Vector3i(2, 1, 0));
    EXPECT_EQ(algorithm.boxes()[0].second, Eigen::Vector3i(3, 3, 1));
}

using CropRefusal = Refusal<CropLabelMapAlgorithm, std::vector<std::shared_ptr<SharedImageSet>>>;

class CropLabelRefusalTest : public ::testing::TestWithParam<CropRefusal>
{};

TEST_P(CropLabelRefusalTest, InvalidInputWithMessage)
{
    auto labels = labelMap();
    std::vector<std::shared_ptr<SharedImageSet>> keep;
    CropLabelMapAlgorithm algorithm(labels.get());
    GetParam().setup(algorithm, keep);
    expectRefused(algorithm, GetParam().message, "Host.CropLabelMapAlgorithm");
    EXPECT_TRUE(algorithm.takeOutputSets().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CropLabelRefusalTest,
    ::testing::Values(
        CropRefusal{"NoLabelMap", [](auto& a, auto&) { a.setLabelMap(nullptr); }, "No label map set"},
        CropRefusal{"NegativeMargin", [](auto& a, auto&) { a.setMargin(-1); },
                    "Margin -1 must not be negative"},
        CropRefusal{
            "SizeMismatch",
            [](auto& a, auto& keep) {
                keep.push_back(companion("small", {10, 9, 7}));
                a.addInput(keep.back().get());
            },
            "Frame 0 of further input 0 ('small') has size [10, 9, 7], the label map's frame has [10, 9, 8]"},
        CropRefusal{"FrameCount",
                    [](auto& a, auto& keep) {
                        keep.push_back(companion("two"));
                        keep.back()->add(companion("x")->getShared(0));
                        a.addInput(keep.back().get());
                    },
                    "Further input 0 has 2 frames, the label map 'labels' has 1"},
        CropRefusal{"NullFurther", [](auto& a, auto&) { a.addInput(nullptr); },
                    "Further input 0 has 0 frames, the label map 'labels' has 1"},
        CropRefusal{"Position", [](auto& a, auto&) { a.setLabelMapPosition(2); },
                    "Label map position 2 is outside the 1 inputs"}),
    [](auto const& info) { return std::string(info.param.name); });

} // namespace

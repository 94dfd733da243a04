// Tests of DataItem: the batch-size and dimension rules, set/pop and their signals, the batch
// operations (split, stack, merge, append, appendFrame) and their sharing of frames, clone,
// equality and the rigid move of setMatrix, with world positions worked out by hand.

#include "ml/data/DataItem.h"

#include "ml/TestHelpers.h"
#include "ml/data/BoundingBoxSet.h"
#include "ml/data/ImageElement.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/data/KeypointSet.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/TargetTag.h"
#include "ml/data/Tensor.h"
#include "ml/data/TensorSet.h"
#include "ml/data/TensorSetElement.h"
#include "ml/data/VectorElement.h"

#include "host/core/Log.h"
#include "host/image/DataSourceComponent.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::MLTest;

namespace {

std::vector<std::string> keysOf(DataItem const& item)
{
    return item.elements().keys();
}

SharedImageSet& sisOf(DataItem& item, std::string const& name)
{
    auto* element = item.get<SISBasedElement>(name);
    EXPECT_NE(element, nullptr) << name;
    return *element->sis();
}

// An item with an image batch "image" and a vector batch "score" of `batch` samples each, and an
// item-level component so that tests see where item components go.
DataItem imageAndScore(int batch, std::string const& origin = "a.nii")
{
    DataItem item;
    item.set("image", makeSet(batch));
    item.set("score", makeVectorSet(batch, 2));
    item.components().add(
        std::make_unique<DataSourceComponent>(std::vector{DataSourceInfo{origin, "", 0, ""}}));
    return item;
}

std::string originOf(DataItem const& item)
{
    auto const* sources = item.components().get<DataSourceComponent>();
    return sources && !sources->sources().empty() ? sources->sources().front().filename : "";
}

std::shared_ptr<Tensor> scalarTensor(float value)
{
    return std::make_shared<Tensor>(Tensor::Shape{1}, &value);
}

} // namespace

// Empty item and Data overrides ---------------------------------------------------------------------

TEST(DataItemBasics, EmptyItemHasBatchZeroAndNoDimension)
{
    DataItem item;
    ASSERT_TRUE(item.batchSize().has_value());
    EXPECT_EQ(*item.batchSize(), 0U);
    EXPECT_EQ(item.dimension(), 0);
    EXPECT_TRUE(item.fields().empty());
    EXPECT_TRUE(item.empty());
    EXPECT_EQ(item.describe(), "ML.DataItem");
    EXPECT_EQ(item.name(), "ML.DataItem");
    EXPECT_EQ(item.kind(), Data::Kind::Unknown);
    EXPECT_EQ(item.matrixConvention(), 1);
    EXPECT_TRUE(item.bounds().isEmpty());
    EXPECT_EQ(item.children().size(), 0);
}

TEST(DataItemBasics, MoveTakesEverythingAndLeavesAnEmptyItem)
{
    DataItem item = imageAndScore(2);
    item.setName("sample");
    auto* image = item.get("image");
    DataItem moved(std::move(item));
    EXPECT_EQ(moved.get("image"), image);
    EXPECT_EQ(moved.name(), "sample");
    EXPECT_EQ(originOf(moved), "a.nii");
    EXPECT_TRUE(item.empty()); // NOLINT(bugprone-use-after-move): the moved-from state is defined

    DataItem assigned = imageAndScore(1);
    assigned = std::move(moved);
    EXPECT_EQ(assigned.get("image"), image);
    EXPECT_EQ(keysOf(assigned), (std::vector<std::string>{"image", "score"}));
    EXPECT_TRUE(moved.empty()); // NOLINT(bugprone-use-after-move)
}

// Batch size ---------------------------------------------------------------------------------------

struct BatchCase
{
    std::vector<int> sizes;
    std::optional<std::size_t> expected;
};

class DataItemBatchSizeTest : public ::testing::TestWithParam<BatchCase>
{};

TEST_P(DataItemBatchSizeTest, FollowsTheAsymmetricRule)
{
    Log::Capture capture; // differing sizes warn on set; that is not what is tested here
    DataItem item;
    int index = 0;
    for (int size : GetParam().sizes)
        item.set("field" + std::to_string(index++), std::make_shared<ImageElement>(makeSet(size)));
    EXPECT_EQ(item.batchSize(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Sizes, DataItemBatchSizeTest,
                         ::testing::Values(BatchCase{{3}, 3}, BatchCase{{3, 3}, 3}, BatchCase{{0, 3}, 3},
                                           BatchCase{{3, 0}, std::nullopt}, BatchCase{{0, 0}, 0},
                                           BatchCase{{0, 2, 2}, 2}, BatchCase{{2, 2, 0}, std::nullopt},
                                           BatchCase{{2, 3}, std::nullopt},
                                           BatchCase{{0, 2, 3}, std::nullopt}));

// Dimension ------------------------------------------------------------------------------------------

struct DimensionCase
{
    std::vector<Eigen::Vector3i> sizes; // (1, 1, 1) stands for a vector element
    int expected;
};

class DataItemDimensionTest : public ::testing::TestWithParam<DimensionCase>
{};

TEST_P(DataItemDimensionTest, IgnoresDimensionsUpToOneAndZeroOnDisagreement)
{
    DataItem item;
    int index = 0;
    for (auto const& size : GetParam().sizes) {
        FrameLayout layout;
        layout.size = size;
        item.set("field" + std::to_string(index++), makeSet(1, layout));
    }
    EXPECT_EQ(item.dimension(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Fields, DataItemDimensionTest,
                         ::testing::Values(DimensionCase{{{1, 1, 1}}, 0}, DimensionCase{{{4, 1, 1}}, 0},
                                           DimensionCase{{{4, 4, 1}}, 2},
                                           DimensionCase{{{4, 4, 1}, {1, 1, 1}}, 2},
                                           DimensionCase{{{4, 1, 1}, {4, 4, 4}, {1, 1, 1}}, 3},
                                           DimensionCase{{{4, 4, 4}, {4, 4, 4}}, 3},
                                           DimensionCase{{{4, 4, 1}, {4, 4, 4}}, 0}));

// set ------------------------------------------------------------------------------------------------

TEST(DataItemSet, ImageSetBecomesVectorOrImageElement)
{
    DataItem item;
    item.set("score", makeVectorSet(1, 4));
    item.set("image", makeSet(1));
    FrameLayout line;
    line.size = Eigen::Vector3i(1, 5, 1);
    item.set("profile", makeSet(1, line));
    EXPECT_EQ(item.get("score")->type(), ElementType::Vector);
    EXPECT_NE(item.get<VectorElement>("score"), nullptr);
    EXPECT_EQ(item.get<ImageElement>("score"), nullptr);
    EXPECT_EQ(item.get("image")->type(), ElementType::Image);
    EXPECT_EQ(item.get("profile")->type(), ElementType::Image);
    EXPECT_EQ(item.get("missing"), nullptr);
    EXPECT_EQ(item.get<ImageElement>("missing"), nullptr);
}

TEST(DataItemSet, InvalidImageSetLogsAndChangesNothing)
{
    DataItem item = imageAndScore(1);
    Log::Capture capture;
    item.set("empty", std::make_shared<SharedImageSet>());
    item.set("null", std::shared_ptr<SharedImageSet>());
    EXPECT_EQ(capture.count("SharedImageSet is invalid or empty", "DataItem"), 2);
    EXPECT_EQ(keysOf(item), (std::vector<std::string>{"image", "score"}));
}

TEST(DataItemSet, NullElementThrowsAndLeavesTheItemUnchanged)
{
    DataItem item = imageAndScore(1);
    expectThrowWithMessage<DataItemException>([&] { item.set("image", std::shared_ptr<DataElement>()); },
                                              "Can not add invalid Element.");
    EXPECT_EQ(item.get("image")->type(), ElementType::Image);
    EXPECT_EQ(item.elements().size(), 2U);
    EXPECT_THROW(DataItem({{"x", nullptr}}), DataItemException);
}

TEST(DataItemSet, DifferentBatchSizeWarnsExceptWhenReplacingTheOnlyElement)
{
    std::string const warning =
        "Adding Element 'extra' with a different batch size than the present elements, "
        "which may lead to unexpected behavior.";
    DataItem item;
    Log::Capture capture;
    item.set("image", makeSet(2));
    item.set("image", makeSet(3)); // the only element, replaced
    EXPECT_TRUE(capture.records().empty());

    item.set("extra", makeSet(1));
    EXPECT_TRUE(capture.contains(warning, "ML.DataItem"));
    EXPECT_EQ(item.get("extra")->batchSize(), 1U); // added all the same

    capture.clear();
    item.set("same", makeSet(3));
    EXPECT_TRUE(capture.records().empty());
}

TEST(DataItemSet, ReplacingKeepsPositionAndSignalsTheNewContent)
{
    DataItem item = imageAndScore(1);
    std::vector<Data*> added;
    item.signalChildAdded.connect([&](Data* data) { added.push_back(data); });
    auto replacement = makeSet(1);
    item.set("image", replacement);
    item.set("last", makeSet(1));
    EXPECT_EQ(keysOf(item), (std::vector<std::string>{"image", "score", "last"}));
    ASSERT_EQ(added.size(), 2U);
    EXPECT_EQ(added[0], replacement.get());
    EXPECT_EQ(sisOf(item, "image").getShared(0), replacement->getShared(0));
}

TEST(DataItemSet, ConstructorSetsInOrder)
{
    auto a = std::make_shared<ImageElement>(makeSet(1));
    auto b = std::make_shared<VectorElement>(makeVectorSet(1));
    DataItem item({{"b", b}, {"a", a}});
    EXPECT_EQ(keysOf(item), (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(item.get("a"), a.get());
    EXPECT_EQ(item.fields(), (std::unordered_set<std::string>{"a", "b"}));
    EXPECT_TRUE(item.contains("a"));
    EXPECT_FALSE(item.contains("c"));
}

TEST(DataItemSet, KeypointTensorAndBoxOverloads)
{
    KeypointSet keypoints(KeypointSet::Keypoints{{{Eigen::Vector3d(1, 2, 3)}}, {{Eigen::Vector3d(4, 5, 6)}}});
    DataItem item;
    item.set("points", keypoints); // copies
    auto* element = item.get<KeypointsElement>("points");
    ASSERT_NE(element, nullptr);
    EXPECT_NE(element->keypoints().get(), &keypoints);
    EXPECT_TRUE(*element->keypoints() == keypoints);
    EXPECT_EQ(element->batchSize(), 2U);

    auto tensor = scalarTensor(2.5F);
    item.set("logit", tensor);
    auto* tensors = item.get<TensorSetElement>("logit");
    ASSERT_NE(tensors, nullptr);
    EXPECT_EQ(tensors->batchSize(), 1U);
    EXPECT_EQ(tensors->tensor(0), tensor);

    Log::Capture capture;
    item.set("copy", Tensor(*tensor));
    EXPECT_NE(item.get<TensorSetElement>("copy")->tensor(0), tensor);
    EXPECT_TRUE(*item.get<TensorSetElement>("copy")->tensor(0) == *tensor);
    item.set("boxes", BoundingBoxSet(BoundingBoxSet::Boxes{{{Box{}}}, {{Box{}}}}));
    EXPECT_EQ(item.get("boxes")->type(), ElementType::BoundingBox);
}

// pop and clear --------------------------------------------------------------------------------------

TEST(DataItemPop, TakesTheElementOutAfterSignalling)
{
    DataItem item = imageAndScore(1);
    item.set("third", makeSet(1));
    Data* content = item.get("score")->content().get();
    std::vector<Data*> removed;
    bool presentDuringSignal = false;
    item.signalChildRemoved.connect([&](Data* data) {
        removed.push_back(data);
        presentDuringSignal = item.contains("score");
    });

    auto element = item.pop("score");
    ASSERT_NE(element, nullptr);
    EXPECT_EQ(element->content().get(), content);
    EXPECT_EQ(removed, std::vector<Data*>{content});
    EXPECT_TRUE(presentDuringSignal);
    EXPECT_EQ(keysOf(item), (std::vector<std::string>{"image", "third"}));

    EXPECT_EQ(item.pop("score"), nullptr);
    EXPECT_EQ(removed.size(), 1U);

    item.clear();
    EXPECT_TRUE(item.empty());
    EXPECT_EQ(removed.size(), 3U);
}

// split ------------------------------------------------------------------------------------------------

TEST(DataItemSplit, BatchOfOneIsTheItemItself)
{
    Log::Capture capture;
    DataItem item;
    item.set("z", makeSet(1));
    item.set("a", makeSet(1));
    item.set("m", makeVectorSet(1));
    auto* z = item.get("z");
    auto parts = DataItem::split(std::move(item));
    ASSERT_EQ(parts.size(), 1U);
    EXPECT_EQ(keysOf(parts[0]), (std::vector<std::string>{"z", "a", "m"}));
    EXPECT_EQ(parts[0].get("z"), z);
}

TEST(DataItemSplit, SharesFramesAndCopiesItemComponents)
{
    DataItem item = imageAndScore(3);
    item.get("image")->tagAsTarget();
    auto image = item.get<ImageElement>("image")->sis();
    auto score = item.get<VectorElement>("score")->sis();
    auto parts = DataItem::split(std::move(item));
    ASSERT_EQ(parts.size(), 3U);
    for (int k = 0; k < 3; ++k) {
        DataItem& part = parts[static_cast<std::size_t>(k)];
        EXPECT_EQ(part.fields(), (std::unordered_set<std::string>{"image", "score"}));
        EXPECT_EQ(part.batchSize(), std::optional<std::size_t>(1));
        EXPECT_EQ(sisOf(part, "image").getShared(0), image->getShared(k));
        EXPECT_EQ(sisOf(part, "image").mem(0)->data(), image->mem(k)->data());
        EXPECT_EQ(sisOf(part, "score").getShared(0), score->getShared(k));
        EXPECT_TRUE(part.get("image")->isTarget());
        EXPECT_FALSE(part.get("score")->isTarget());
        EXPECT_EQ(originOf(part), "a.nii");
        // Corner and centre voxels of the 3x3x3 frame, spacing (1, 2, 3), at x = 100 k.
        SharedImage const& frame = *sisOf(part, "image").get(0);
        EXPECT_TRUE(frame.pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(100.0 * k - 1.0, -2.0, -3.0)));
        EXPECT_TRUE(frame.pixelToWorld({2, 2, 2}).isApprox(Eigen::Vector3d(100.0 * k + 1.0, 2.0, 3.0)));
        EXPECT_TRUE(frame.pixelToWorld({1, 1, 1}).isApprox(Eigen::Vector3d(100.0 * k, 0.0, 0.0)));
    }
}

TEST(DataItemSplit, EmptyAndInconsistentItems)
{
    EXPECT_TRUE(DataItem::split(DataItem()).empty());
    Log::Capture capture;
    DataItem inconsistent;
    inconsistent.set("a", makeSet(2));
    inconsistent.set("b", makeSet(3));
    expectThrowWithMessage<DataItemException>(
        [&] { DataItem::split(std::move(inconsistent)); },
        "Cannot split data item whose elements have an inconsistent batch size.");
}

TEST(DataItemSplit, TensorsAndKeypointsSplitAlongTheBatch)
{
    DataItem item;
    item.set("logit", std::make_shared<TensorSet>(std::vector{scalarTensor(1.0F), scalarTensor(2.0F)}));
    item.set("points",
             KeypointSet(KeypointSet::Keypoints{{{Eigen::Vector3d(1, 0, 0)}}, {{Eigen::Vector3d(2, 0, 0)}}}));
    auto parts = DataItem::split(std::move(item));
    ASSERT_EQ(parts.size(), 2U);
    EXPECT_EQ(parts[1].get<TensorSetElement>("logit")->tensor(0)->toFloatVector(), std::vector<float>{2.0F});
    EXPECT_EQ(parts[1].get<KeypointsElement>("points")->keypoints()->keypoints()[0][0][0],
              Eigen::Vector3d(2, 0, 0));
}

// stack ------------------------------------------------------------------------------------------------

TEST(DataItemStack, ConcatenatesBatchesSharingFramesInItemOrder)
{
    std::vector<DataItem> items;
    items.push_back(imageAndScore(2, "first.nii"));
    items.push_back(imageAndScore(1, "second.nii"));
    auto first = items[0].get<ImageElement>("image")->sis();
    auto second = items[1].get<ImageElement>("image")->sis();
    int signals = 0;

    DataItem stacked = DataItem::stack(std::move(items));
    stacked.signalChildAdded.connect([&](Data*) { ++signals; });
    ASSERT_EQ(stacked.batchSize(), std::optional<std::size_t>(3));
    SharedImageSet& image = sisOf(stacked, "image");
    EXPECT_EQ(image.getShared(0), first->getShared(0));
    EXPECT_EQ(image.getShared(1), first->getShared(1));
    EXPECT_EQ(image.getShared(2), second->getShared(0));
    EXPECT_EQ(image.mem(2)->data(), second->mem(0)->data());
    EXPECT_EQ(stacked.get("score")->type(), ElementType::Vector);
    EXPECT_EQ(originOf(stacked), "first.nii");
    // Frame 2 is frame 0 of the second item: its centre stays at x = 0, its corner at -1, -2, -3.
    EXPECT_TRUE(image.get(2)->pixelToWorld({1, 1, 1}).isApprox(Eigen::Vector3d(0.0, 0.0, 0.0)));
    EXPECT_TRUE(image.get(1)->pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(99.0, -2.0, -3.0)));
    EXPECT_EQ(signals, 0);
}

TEST(DataItemStack, OneItemIsKeptEvenInconsistentButLosesItemComponents)
{
    Log::Capture capture;
    std::vector<DataItem> items;
    items.push_back(imageAndScore(2));
    items.back().set("odd", makeSet(1));
    items.back().setName("named");
    auto* image = items.back().get("image");
    DataItem stacked = DataItem::stack(std::move(items));
    EXPECT_EQ(stacked.get("image"), image);
    EXPECT_EQ(keysOf(stacked), (std::vector<std::string>{"image", "score", "odd"}));
    EXPECT_FALSE(stacked.batchSize().has_value());
    EXPECT_EQ(stacked.components().size(), 0);
    EXPECT_EQ(stacked.name(), "ML.DataItem");

    EXPECT_TRUE(DataItem::stack({}).empty());
}

TEST(DataItemStack, RefusesInconsistentItemsAndDifferentFields)
{
    Log::Capture capture;
    std::vector<DataItem> inconsistent;
    inconsistent.push_back(imageAndScore(1));
    inconsistent.push_back(imageAndScore(1));
    inconsistent.back().set("score", makeVectorSet(2));
    expectThrowWithMessage<DataItemException>([&] { DataItem::stack(std::move(inconsistent)); },
                                              "Cannot stack items with an inconsistent batch size.");

    std::vector<DataItem> different;
    different.push_back(imageAndScore(1));
    different.push_back(imageAndScore(1));
    different.back().pop("score");
    different.back().set("other", makeVectorSet(1));
    expectThrowWithMessage<DataItemException>([&] { DataItem::stack(std::move(different)); },
                                              "Cannot stack items with different fields");
}

TEST(DataItemStack, MixedElementTypesLeaveANullField)
{
    Log::Capture capture;
    std::vector<DataItem> items;
    items.emplace_back();
    items.back().set("x", makeSet(1));
    items.emplace_back();
    items.back().set("x", makeVectorSet(1));
    DataItem stacked = DataItem::stack(std::move(items));
    EXPECT_TRUE(stacked.contains("x"));
    EXPECT_EQ(stacked.get("x"), nullptr);
    EXPECT_TRUE(capture.contains("Cannot stack elements of different types", "ML.DataElement"));
    // The hole is survivable: the item still answers.
    EXPECT_EQ(stacked.batchSize(), std::optional<std::size_t>(0));
    EXPECT_EQ(stacked.children().size(), 0);
}

TEST(DataItemStack, TensorsAreStackedBySharing)
{
    std::vector<DataItem> items;
    auto t0 = scalarTensor(1.0F);
    auto t1 = scalarTensor(2.0F);
    items.emplace_back();
    items.back().set("logit", t0);
    items.emplace_back();
    items.back().set("logit", t1);
    DataItem stacked = DataItem::stack(std::move(items));
    auto* tensors = stacked.get<TensorSetElement>("logit");
    ASSERT_NE(tensors, nullptr);
    ASSERT_EQ(tensors->batchSize(), 2U);
    EXPECT_EQ(tensors->tensor(0), t0);
    EXPECT_EQ(tensors->tensor(1), t1);
}

// merge ------------------------------------------------------------------------------------------------

TEST(DataItemMerge, AppendsFieldsInItemOrderAndCollectsComponents)
{
    std::vector<DataItem> items(2);
    items[0].set("b", makeSet(2));
    items[0].set("a", makeSet(2));
    items[1].set("c", makeVectorSet(2));
    items[1].components().add(std::make_unique<TargetTag>());
    auto* c = items[1].get("c");
    Log::Capture capture;
    DataItem merged = DataItem::merge(std::move(items));
    EXPECT_TRUE(capture.records().empty());
    EXPECT_EQ(keysOf(merged), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(merged.get("c"), c);
    EXPECT_NE(merged.components().get<TargetTag>(), nullptr);
}

TEST(DataItemMerge, RepeatedFieldThrows)
{
    std::vector<DataItem> items(2);
    items[0].set("a", makeSet(1));
    items[1].set("b", makeSet(1));
    items[1].set("a", makeSet(1));
    expectThrowWithMessage<DataItemException>([&] { DataItem::merge(std::move(items)); },
                                              "Key 'a' already present");
}

TEST(DataItemMerge, WarnsOnceForDifferentAndForInconsistentBatches)
{
    Log::Capture capture;
    std::vector<DataItem> items(4);
    items[0].set("a", makeSet(1));
    items[1].set("b", makeSet(2));
    items[2].set("c", makeSet(3));
    items[3].set("d", makeSet(2));
    items[3].set("e", makeSet(1));
    capture.clear();
    DataItem merged = DataItem::merge(std::move(items));
    EXPECT_EQ(capture.count("Merging items with different batch sizes.", "ML.DataItem"), 1);
    EXPECT_EQ(capture.count("Merging items with an inconsistent batch sizes.", "ML.DataItem"), 1);
    EXPECT_EQ(merged.elements().size(), 5U);

    std::vector<DataItem> single(1);
    single[0].set("x", makeSet(1));
    EXPECT_EQ(keysOf(DataItem::merge(std::move(single))), std::vector<std::string>{"x"});
    EXPECT_TRUE(DataItem::merge({}).empty());
}

// append and appendFrame -------------------------------------------------------------------------------

TEST(DataItemAppend, AppendFrameSharesTheSourceFrame)
{
    DataItem target = imageAndScore(1);
    DataItem source = imageAndScore(3);
    source.set("ignored", makeSet(3));
    ASSERT_TRUE(target.appendFrame(source, 2));
    EXPECT_EQ(target.batchSize(), std::optional<std::size_t>(2));
    EXPECT_EQ(sisOf(target, "image").getShared(1), sisOf(source, "image").getShared(2));
    EXPECT_EQ(sisOf(target, "score").getShared(1), sisOf(source, "score").getShared(2));
    EXPECT_FALSE(target.contains("ignored"));
    EXPECT_TRUE(
        sisOf(target, "image").get(1)->pixelToWorld({1, 1, 1}).isApprox(Eigen::Vector3d(200.0, 0.0, 0.0)));
}

TEST(DataItemAppend, AppendTakesEveryFrameInOrder)
{
    DataItem target = imageAndScore(1);
    DataItem source = imageAndScore(2);
    ASSERT_TRUE(target.append(source));
    ASSERT_EQ(target.batchSize(), std::optional<std::size_t>(3));
    EXPECT_EQ(sisOf(target, "image").getShared(1), sisOf(source, "image").getShared(0));
    EXPECT_EQ(sisOf(target, "image").getShared(2), sisOf(source, "image").getShared(1));

    // Appending an item to itself doubles it once; it does not chase its own growth.
    ASSERT_TRUE(target.append(target));
    EXPECT_EQ(target.batchSize(), std::optional<std::size_t>(6));
    EXPECT_EQ(sisOf(target, "image").getShared(5), sisOf(source, "image").getShared(1));
}

TEST(DataItemAppend, TensorsAndKeypointsAppendTheirEntry)
{
    DataItem target;
    target.set("logit", scalarTensor(1.0F));
    target.set("points", KeypointSet(KeypointSet::Keypoints{{{Eigen::Vector3d(1, 0, 0)}}}));
    DataItem source;
    auto t = scalarTensor(7.0F);
    source.set("logit", std::make_shared<TensorSet>(std::vector{scalarTensor(6.0F), t}));
    source.set("points", KeypointSet(KeypointSet::Keypoints{{{Eigen::Vector3d(5, 0, 0)}},
                                                            {{Eigen::Vector3d(9, 0, 0)}}}));
    ASSERT_TRUE(target.appendFrame(source, 1));
    EXPECT_EQ(target.get<TensorSetElement>("logit")->tensor(1), t);
    EXPECT_EQ(target.get<KeypointsElement>("points")->keypoints()->keypoints()[1][0][0],
              Eigen::Vector3d(9, 0, 0));
}

struct AppendFailure
{
    std::string name;
    std::size_t frame;
    std::string message;
};

class DataItemAppendFailureTest : public ::testing::TestWithParam<AppendFailure>
{};

TEST_P(DataItemAppendFailureTest, RefusesWithAMessageAndChangesNothing)
{
    DataItem target = imageAndScore(1);
    DataItem source;
    if (GetParam().name == "missing")
        source.set("image", makeSet(2));
    else if (GetParam().name == "type") {
        source.set("image", makeVectorSet(2));
        source.set("score", makeVectorSet(2));
    } else {
        source = imageAndScore(2);
    }

    Log::Capture capture;
    EXPECT_FALSE(target.appendFrame(source, GetParam().frame));
    EXPECT_TRUE(capture.contains(GetParam().message, "ML.DataItem")) << GetParam().message;
    EXPECT_EQ(target.get("image")->batchSize(), 1U);
    EXPECT_EQ(target.get("score")->batchSize(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DataItemAppendFailureTest,
    ::testing::Values(
        AppendFailure{"missing", 0, "Source item doesn't contain field `score`"},
        AppendFailure{"type", 0,
                      "Source element `image` is of type `Vector`, while target element is of type `Image`"},
        AppendFailure{"range", 2, "Frame index 2 is greater or equal than the `image` element size: 2"}),
    [](auto const& info) { return info.param.name; });

TEST(DataItemAppend, InconsistentSourceIsRefused)
{
    Log::Capture capture;
    DataItem target = imageAndScore(1);
    DataItem source = imageAndScore(2);
    source.set("score", makeVectorSet(1));
    EXPECT_FALSE(target.append(source));
    EXPECT_TRUE(capture.contains("Source item has inconsistent batch size.", "ML.DataItem"));
    EXPECT_EQ(target.batchSize(), std::optional<std::size_t>(1));
}

// clone and equality -------------------------------------------------------------------------------------

TEST(DataItemClone, DeepCopiesPixelsAndKeepsPlacement)
{
    DataItem item = imageAndScore(2);
    item.setName("case 7");
    item.get("image")->tagAsTarget();
    DataItem clone = item.clone(DataElement::CloneOptions::Deep);
    EXPECT_EQ(clone.name(), "case 7");
    EXPECT_EQ(originOf(clone), "a.nii");
    EXPECT_EQ(keysOf(clone), keysOf(item));
    EXPECT_TRUE(clone == item);
    for (std::string const field : {"image", "score"}) {
        EXPECT_NE(clone.get(field), item.get(field));
        for (int i = 0; i < 2; ++i) {
            EXPECT_NE(sisOf(clone, field).getShared(i), sisOf(item, field).getShared(i));
            EXPECT_NE(sisOf(clone, field).mem(i)->data(), sisOf(item, field).mem(i)->data());
        }
    }
    EXPECT_TRUE(clone.get("image")->isTarget());
    SharedImage const& frame = *sisOf(clone, "image").get(1);
    EXPECT_TRUE(frame.pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(99.0, -2.0, -3.0)));
    EXPECT_TRUE(frame.pixelToWorld({2, 2, 2}).isApprox(Eigen::Vector3d(101.0, 2.0, 3.0)));

    static_cast<float*>(sisOf(clone, "image").mem(1)->data())[5] += 1.0F;
    EXPECT_FALSE(clone == item);
    EXPECT_TRUE(clone != item);
}

class DataItemShallowCloneTest : public ::testing::TestWithParam<DataElement::CloneOptions>
{};

TEST_P(DataItemShallowCloneTest, KeepsNameAndComponentsOnly)
{
    DataItem item = imageAndScore(2);
    item.setName("case 8");
    DataItem clone = item.clone(GetParam());
    EXPECT_TRUE(clone.empty());
    EXPECT_EQ(clone.name(), "case 8");
    EXPECT_EQ(originOf(clone), "a.nii");
    EXPECT_EQ(item.elements().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Options, DataItemShallowCloneTest,
                         ::testing::Values(DataElement::CloneOptions::Empty,
                                           DataElement::CloneOptions::Shell));

struct Difference
{
    std::string name;
    void (*change)(DataItem&);
};

class DataItemEqualityTest : public ::testing::TestWithParam<Difference>
{};

TEST_P(DataItemEqualityTest, ADifferenceInContentMakesItemsUnequal)
{
    DataItem a = imageAndScore(2);
    DataItem b = a.clone();
    ASSERT_TRUE(a == b);
    GetParam().change(b);
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(a != b);
}

INSTANTIATE_TEST_SUITE_P(
    Changes, DataItemEqualityTest,
    ::testing::Values(
        Difference{
            "Pixel",
            [](DataItem& item) { static_cast<float*>(sisOf(item, "score").mem(1)->data())[1] = -1.0F; }},
        Difference{"Spacing",
                   [](DataItem& item) { sisOf(item, "image").get(0)->setSpacing(Eigen::Vector3d(1, 1, 1)); }},
        Difference{"ShiftScale",
                   [](DataItem& item) { sisOf(item, "image").mem(0)->setShiftScale(1.0, 2.0); }},
        Difference{"FrameCount", [](DataItem& item) { sisOf(item, "image").remove(1); }},
        Difference{
            "ElementType",
            [](DataItem& item) {
                item.set("score", std::make_shared<TensorSet>(std::vector{scalarTensor(0), scalarTensor(1)}));
            }},
        Difference{"FieldCount", [](DataItem& item) { item.pop("score"); }}),
    [](auto const& info) { return info.param.name; });

TEST(DataItemEquality, AMissingKeyThrowsFromTheLookup)
{
    DataItem a = imageAndScore(1);
    DataItem b = imageAndScore(1);
    b.set("other", b.pop("score"));
    expectThrowWithMessage<std::out_of_range>([&] { (void)(a == b); }, "Key not found in OrderedMap");
}

// Geometry ------------------------------------------------------------------------------------------------

TEST(DataItemGeometry, SetMatrixMovesEveryChildRigidly)
{
    DataItem item;
    item.set("image", makeSet(2));
    FrameLayout flat;
    flat.size = Eigen::Vector3i(2, 2, 1);
    flat.spacing = Eigen::Vector3d(4.0, 4.0, 1.0);
    flat.translation = Eigen::Vector3d(0.0, 0.0, 50.0);
    item.set("slice", makeSet(1, flat));

    // A quarter turn about z, then a shift of 5 mm along x: (x, y, z) -> (5 - y, x, z).
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    m.topLeftCorner<3, 3>() = Eigen::AngleAxisd(EIGEN_PI / 2, Eigen::Vector3d::UnitZ()).toRotationMatrix();
    m(0, 3) = 5.0;
    item.setMatrix(m);
    EXPECT_TRUE(item.matrix().isApprox(m));

    SharedImageSet& image = sisOf(item, "image");
    // Frame 1 had its corner voxel (0, 0, 0) at (99, -2, -3) and (2, 2, 2) at (101, 2, 3), its
    // centre at (100, 0, 0).
    EXPECT_TRUE(image.get(1)->pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(7.0, 99.0, -3.0)));
    EXPECT_TRUE(image.get(1)->pixelToWorld({2, 2, 2}).isApprox(Eigen::Vector3d(3.0, 101.0, 3.0)));
    EXPECT_TRUE(image.get(1)->pixelToWorld({1, 1, 1}).isApprox(Eigen::Vector3d(5.0, 100.0, 0.0)));
    // Frame 0: corner (-1, -2, -3) -> (7, -1, -3).
    EXPECT_TRUE(image.get(0)->pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(7.0, -1.0, -3.0)));
    // The 2x2 slice with 4 mm pixels at z = 50: pixel (0, 0) was at (-2, -2, 50), now (7, -2, 50);
    // pixel (1, 1) was at (2, 2, 50), now (3, 2, 50).
    SharedImage const& slice = *sisOf(item, "slice").get(0);
    EXPECT_TRUE(slice.pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(7.0, -2.0, 50.0)));
    EXPECT_TRUE(slice.pixelToWorld({1, 1, 0}).isApprox(Eigen::Vector3d(3.0, 2.0, 50.0)));

    // Back to the identity undoes the move: the change is relative to the present matrix.
    item.setMatrix(Eigen::Matrix4d::Identity());
    EXPECT_TRUE(image.get(1)->pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(99.0, -2.0, -3.0)));
    EXPECT_TRUE(slice.pixelToWorld({1, 1, 0}).isApprox(Eigen::Vector3d(2.0, 2.0, 50.0)));
}

TEST(DataItemGeometry, BoundsAreTheUnionOfTheChildren)
{
    DataItem item;
    item.set("image", makeSet(2));
    FrameLayout flat;
    flat.size = Eigen::Vector3i(2, 2, 1);
    flat.spacing = Eigen::Vector3d(4.0, 4.0, 1.0);
    flat.translation = Eigen::Vector3d(0.0, 0.0, 50.0);
    item.set("slice", makeSet(1, flat));
    ASSERT_EQ(item.children().size(), 2);
    EXPECT_EQ(item.children()[0], item.get("image")->content().get());

    // The image frames cover x in [-1.5, 1.5] and [98.5, 101.5], y in [-3, 3], z in [-4.5, 4.5];
    // the slice covers x, y in [-4, 4] at z = 50.
    auto const box = item.bounds();
    EXPECT_TRUE(box.min().isApprox(Eigen::Vector3d(-4.0, -4.0, -4.5)));
    EXPECT_TRUE(box.max().isApprox(Eigen::Vector3d(101.5, 4.0, 50.0)));
}

TEST(DataItemAppend, FrameOfAnotherPixelTypeIsRefusedBeforeAnyChange)
{
    DataItem target = imageAndScore(1);
    DataItem source = imageAndScore(1);
    auto bytes = std::make_shared<SharedImageSet>();
    bytes->add(std::make_shared<SharedImage>(
        std::shared_ptr<Image>(TypedImage<unsigned char>::zeros(Eigen::Vector3i(3, 3, 3), 1))));
    source.set("score", makeVectorSet(1, 2));
    source.set("image", bytes);
    Log::Capture capture;
    EXPECT_FALSE(target.appendFrame(source, 0));
    EXPECT_TRUE(capture.containsFragment("is of pixel type"));
    EXPECT_EQ(target.get("image")->batchSize(), 1U);
    EXPECT_EQ(target.get("score")->batchSize(), 1U);
}

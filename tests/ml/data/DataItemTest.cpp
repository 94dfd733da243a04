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
#include <functional>
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

std::shared_ptr<Tensor> scalarTensor(float value)
{
    return std::make_shared<Tensor>(Tensor::Shape{1}, &value);
}

KeypointSet pointsAlongX(int count)
{
    KeypointSet::Keypoints frames;
    for (int k = 0; k < count; ++k)
        frames.push_back({{Eigen::Vector3d(k, 0, 0)}});
    return KeypointSet(std::move(frames));
}

// A batch of `batch` samples in four fields of four kinds: images "image" (sample k at x = 100 k),
// vectors "score", tensors "logit" (sample k holds k) and keypoints "points" (sample k at x = k);
// and an item-level component so that tests see where item components go.
DataItem batchOf(int batch, std::string const& origin = "a.nii")
{
    DataItem item;
    item.set("image", makeSet(batch));
    item.set("score", makeVectorSet(batch, 2));
    auto tensors = std::make_shared<TensorSet>();
    for (int k = 0; k < batch; ++k)
        tensors->add(scalarTensor(static_cast<float>(k)));
    item.set("logit", tensors);
    item.set("points", pointsAlongX(batch));
    item.components().add(
        std::make_unique<DataSourceComponent>(std::vector{DataSourceInfo{origin, "", 0, ""}}));
    return item;
}

// An item of the given image fields in order, each a batch of the given size.
DataItem itemOf(std::vector<std::pair<std::string, int>> const& fields)
{
    DataItem item;
    for (auto const& [name, size] : fields)
        item.set(name, makeSet(size));
    return item;
}

std::string originOf(DataItem const& item)
{
    auto const* sources = item.components().get<DataSourceComponent>();
    return sources && !sources->sources().empty() ? sources->sources().front().filename : "";
}

std::shared_ptr<Tensor> tensorOf(DataItem const& item, std::size_t sample)
{
    return item.get<TensorSetElement>("logit")->tensor(sample);
}

Eigen::Vector3d pointOf(DataItem const& item, std::size_t sample)
{
    return item.get<KeypointsElement>("points")->keypoints()->keypoints().at(sample)[0][0];
}

} // namespace

// Batch size and dimension ---------------------------------------------------------------------------

TEST(DataItemShape, BatchSizeFollowsTheAsymmetricRule)
{
    std::optional<std::size_t> const none;
    std::pair<std::vector<int>, std::optional<std::size_t>> const cases[] = {
        {{}, 0},        {{3, 3}, 3},       {{0, 3}, 3},    {{3, 0}, none},   {{0, 0}, 0},
        {{0, 2, 2}, 2}, {{2, 2, 0}, none}, {{2, 3}, none}, {{0, 2, 3}, none}};
    Log::Capture capture; // differing sizes warn on set; that is not what is tested here
    for (auto const& [sizes, expected] : cases) {
        DataItem item;
        for (std::size_t i = 0; i < sizes.size(); ++i)
            item.set("field" + std::to_string(i), std::make_shared<ImageElement>(makeSet(sizes[i])));
        EXPECT_EQ(item.batchSize(), expected) << ::testing::PrintToString(sizes);
    }
}

TEST(DataItemShape, DimensionIgnoresSizesUpToOneAndIsZeroOnDisagreement)
{
    // {expected, sizes}; (1, 1, 1) stands for a vector element.
    using Sizes = std::vector<Eigen::Vector3i>;
    std::pair<int, Sizes> const cases[] = {{0, Sizes{}},
                                           {0, Sizes{{1, 1, 1}}},
                                           {0, Sizes{{4, 1, 1}}},
                                           {2, Sizes{{4, 4, 1}}},
                                           {2, Sizes{{4, 4, 1}, {1, 1, 1}}},
                                           {3, Sizes{{4, 1, 1}, {4, 4, 4}, {1, 1, 1}}},
                                           {3, Sizes{{4, 4, 4}, {4, 4, 4}}},
                                           {0, Sizes{{4, 4, 1}, {4, 4, 4}}}};
    for (auto const& [expected, sizes] : cases) {
        DataItem item;
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            FrameLayout layout;
            layout.size = sizes[i];
            item.set("field" + std::to_string(i), makeSet(1, layout));
        }
        EXPECT_EQ(item.dimension(), expected) << sizes.size() << " fields";
    }
}

// set and pop ------------------------------------------------------------------------------------------

TEST(DataItemSet, ImageSetBecomesVectorOrImageElementAndBadInputIsRefused)
{
    DataItem item;
    item.set("score", makeVectorSet(1, 4));
    item.set("image", makeSet(1));
    FrameLayout line;
    line.size = Eigen::Vector3i(1, 5, 1);
    item.set("profile", makeSet(1, line));
    EXPECT_NE(item.get<VectorElement>("score"), nullptr);
    EXPECT_EQ(item.get<ImageElement>("score"), nullptr);
    EXPECT_EQ(item.get("image")->type(), ElementType::Image);
    EXPECT_EQ(item.get("profile")->type(), ElementType::Image);
    EXPECT_EQ(item.get<ImageElement>("missing"), nullptr);

    Log::Capture capture;
    item.set("empty", std::make_shared<SharedImageSet>());
    item.set("null", std::shared_ptr<SharedImageSet>());
    EXPECT_EQ(capture.count("SharedImageSet is invalid or empty", "DataItem"), 2);
    expectThrowWithMessage<DataItemException>([&] { item.set("image", std::shared_ptr<DataElement>()); },
                                              "Can not add invalid Element.");
    EXPECT_THROW(item.set("tensor", std::shared_ptr<Tensor>()), DataItemException);
    EXPECT_THROW(DataItem({{"x", nullptr}}), DataItemException);
    EXPECT_EQ(keysOf(item), (std::vector<std::string>{"score", "image", "profile"}));
}

TEST(DataItemSet, DifferentBatchSizeWarnsExceptWhenReplacingTheOnlyElement)
{
    DataItem item;
    Log::Capture capture;
    item.set("image", makeSet(2));
    item.set("image", makeSet(3)); // the only element, replaced
    EXPECT_TRUE(capture.records().empty());

    item.set("extra", makeSet(1));
    EXPECT_TRUE(capture.contains("Adding Element 'extra' with a different batch size than the present "
                                 "elements, which may lead to unexpected behavior.",
                                 "ML.DataItem"));
    EXPECT_EQ(item.get("extra")->batchSize(), 1U); // added all the same
    capture.clear();
    item.set("same", makeSet(3));
    EXPECT_TRUE(capture.records().empty());
}

TEST(DataItemSet, ConstructorAndReplacementKeepTheOrderAndSignalTheNewContent)
{
    auto a = std::make_shared<ImageElement>(makeSet(1));
    auto b = std::make_shared<VectorElement>(makeVectorSet(1));
    DataItem item({{"b", b}, {"a", a}});
    EXPECT_EQ(item.get("a"), a.get());
    EXPECT_EQ(item.fields(), (std::unordered_set<std::string>{"a", "b"}));

    std::vector<Data*> added;
    item.signalChildAdded.connect([&](Data* data) { added.push_back(data); });
    auto replacement = makeSet(1);
    item.set("b", replacement);
    item.set("last", makeSet(1));
    EXPECT_EQ(keysOf(item), (std::vector<std::string>{"b", "a", "last"}));
    ASSERT_EQ(added.size(), 2U);
    EXPECT_EQ(added[0], replacement.get());
    EXPECT_EQ(sisOf(item, "b").getShared(0), replacement->getShared(0));
}

TEST(DataItemSet, ValueOverloadsCopyAndPointerOverloadsShare)
{
    KeypointSet const keypoints = pointsAlongX(2);
    auto tensor = scalarTensor(2.5F);
    TensorSet const tensors(tensor);
    DataItem item;
    item.set("points", keypoints);
    item.set("shared", tensor);
    item.set("copy", Tensor(*tensor));
    item.set("set copy", tensors);
    item.set("boxes", BoundingBoxSet(BoundingBoxSet::Boxes{{{Box{}}}, {{Box{}}}}));

    auto* element = item.get<KeypointsElement>("points");
    ASSERT_NE(element, nullptr);
    EXPECT_NE(element->keypoints().get(), &keypoints);
    EXPECT_TRUE(*element->keypoints() == keypoints);
    EXPECT_EQ(item.get<TensorSetElement>("shared")->tensor(0), tensor);
    EXPECT_NE(item.get<TensorSetElement>("copy")->tensor(0), tensor);
    EXPECT_TRUE(*item.get<TensorSetElement>("copy")->tensor(0) == *tensor);
    EXPECT_NE(item.get<TensorSetElement>("set copy")->tensor(0), tensor);
    EXPECT_EQ(item.get("boxes")->type(), ElementType::BoundingBox);
}

TEST(DataItemPop, TakesTheElementOutAfterSignalling)
{
    DataItem item = itemOf({{"image", 1}, {"score", 1}, {"third", 1}});
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

// split, stack and merge ------------------------------------------------------------------------------

TEST(DataItemBatches, SplitThenStackSharesEverySampleInOrder)
{
    DataItem item = batchOf(3);
    item.get("image")->tagAsTarget();
    auto const image = item.get<ImageElement>("image")->sis();
    auto const score = item.get<VectorElement>("score")->sis();
    auto const tensors = item.get<TensorSetElement>("logit")->tensorSet();
    std::vector<DataItem> parts = DataItem::split(std::move(item));
    ASSERT_EQ(parts.size(), 3U);
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE("sample " + std::to_string(k));
        DataItem& part = parts[static_cast<std::size_t>(k)];
        EXPECT_EQ(keysOf(part).size(), 4U);
        EXPECT_EQ(part.batchSize(), std::optional<std::size_t>(1));
        EXPECT_EQ(sisOf(part, "image").getShared(0), image->getShared(k));
        EXPECT_EQ(sisOf(part, "score").getShared(0), score->getShared(k));
        EXPECT_EQ(tensorOf(part, 0), tensors->getShared(k));
        EXPECT_EQ(pointOf(part, 0), Eigen::Vector3d(k, 0, 0));
        EXPECT_TRUE(part.get("image")->isTarget());
        EXPECT_FALSE(part.get("score")->isTarget());
        EXPECT_EQ(originOf(part), "a.nii");
        expectFrameAt(*sisOf(part, "image").get(0), 100.0 * k);
    }
    parts[2].components().clear();

    // The items stack in their order, each field sharing the samples, with the first item's components.
    std::swap(parts[0], parts[2]);
    DataItem stacked = DataItem::stack(std::move(parts));
    ASSERT_EQ(stacked.batchSize(), std::optional<std::size_t>(3));
    int const order[] = {2, 1, 0};
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(sisOf(stacked, "image").getShared(k), image->getShared(order[k]));
        EXPECT_EQ(tensorOf(stacked, static_cast<std::size_t>(k)), tensors->getShared(order[k]));
        EXPECT_EQ(pointOf(stacked, static_cast<std::size_t>(k)), Eigen::Vector3d(order[k], 0, 0));
        expectFrameAt(*sisOf(stacked, "image").get(k), 100.0 * order[k]);
    }
    EXPECT_EQ(stacked.get("score")->type(), ElementType::Vector);
    EXPECT_TRUE(stacked.get("image")->isTarget());
    EXPECT_EQ(originOf(stacked), "");
}

TEST(DataItemBatches, ABatchOfOneIsKeptAsItIs)
{
    Log::Capture capture;
    DataItem single = itemOf({{"z", 1}, {"a", 1}});
    auto* z = single.get("z");
    auto alone = DataItem::split(std::move(single));
    ASSERT_EQ(alone.size(), 1U);
    EXPECT_EQ(keysOf(alone[0]), (std::vector<std::string>{"z", "a"}));
    EXPECT_EQ(alone[0].get("z"), z);
    EXPECT_TRUE(DataItem::split(DataItem()).empty());

    // Stacking one item keeps it even when inconsistent, but it loses its name and components.
    std::vector<DataItem> items;
    items.push_back(batchOf(2));
    items.back().set("odd", makeSet(1));
    items.back().setName("named");
    auto* image = items.back().get("image");
    DataItem stacked = DataItem::stack(std::move(items));
    EXPECT_EQ(stacked.get("image"), image);
    EXPECT_EQ(keysOf(stacked), (std::vector<std::string>{"image", "score", "logit", "points", "odd"}));
    EXPECT_FALSE(stacked.batchSize().has_value());
    EXPECT_EQ(stacked.components().size(), 0);
    EXPECT_EQ(stacked.name(), "ML.DataItem");
    EXPECT_TRUE(DataItem::stack({}).empty());
}

TEST(DataItemBatches, MixedElementTypesStackIntoANullField)
{
    Log::Capture capture;
    std::vector<DataItem> items(2);
    items[0].set("x", makeSet(1));
    items[1].set("x", makeVectorSet(1));
    DataItem stacked = DataItem::stack(std::move(items));
    EXPECT_TRUE(stacked.contains("x"));
    EXPECT_EQ(stacked.get("x"), nullptr);
    EXPECT_TRUE(capture.contains("Cannot stack elements of different types", "ML.DataElement"));
    // The hole is survivable: the item still answers.
    EXPECT_EQ(stacked.batchSize(), std::optional<std::size_t>(0));
    EXPECT_EQ(stacked.children().size(), 0);
    EXPECT_TRUE(stacked.bounds().isEmpty());
}

TEST(DataItemBatches, MergeAppendsFieldsInItemOrderAndCollectsComponents)
{
    std::vector<DataItem> items(2);
    items[0] = itemOf({{"b", 2}, {"a", 2}});
    items[1].set("c", makeVectorSet(2));
    items[1].components().add(std::make_unique<TargetTag>());
    auto* c = items[1].get("c");
    Log::Capture capture;
    DataItem merged = DataItem::merge(std::move(items));
    EXPECT_TRUE(capture.records().empty());
    EXPECT_EQ(keysOf(merged), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(merged.get("c"), c);
    EXPECT_NE(merged.components().get<TargetTag>(), nullptr);
    EXPECT_TRUE(DataItem::merge({}).empty());

    // Different and inconsistent batches are merged all the same, with one warning each.
    items.clear();
    for (auto const& fields :
         {std::vector<std::pair<std::string, int>>{{"a", 1}}, {{"b", 2}}, {{"c", 3}}, {{"d", 2}, {"e", 1}}})
        items.push_back(itemOf(fields));
    capture.clear();
    merged = DataItem::merge(std::move(items));
    EXPECT_EQ(capture.count("Merging items with different batch sizes.", "ML.DataItem"), 1);
    EXPECT_EQ(capture.count("Merging items with an inconsistent batch sizes.", "ML.DataItem"), 1);
    EXPECT_EQ(merged.elements().size(), 5U);
}

TEST(DataItemBatches, InconsistentBatchesAndRepeatedFieldsThrowNamingTheProblem)
{
    auto twoItems = [](std::vector<std::pair<std::string, int>> const& first,
                       std::vector<std::pair<std::string, int>> const& second) {
        std::vector<DataItem> items;
        items.push_back(itemOf(first));
        items.push_back(itemOf(second));
        return items;
    };
    std::pair<std::function<void()>, std::string> const cases[] = {
        {[] {
             DataItem::split(itemOf({{"a", 2}, {"b", 3}}));
         },
         "Cannot split data item whose elements have an inconsistent batch size."},
        {[&] {
             DataItem::stack(twoItems({{"a", 1}}, {{"a", 1}, {"b", 2}}));
         },
         "Cannot stack items with an inconsistent batch size."},
        {[&] {
             DataItem::stack(twoItems({{"a", 1}, {"b", 1}}, {{"a", 1}, {"c", 1}}));
         },
         "Cannot stack items with different fields"},
        {[&] {
             DataItem::merge(twoItems({{"a", 1}}, {{"b", 1}, {"a", 1}}));
         },
         "Key 'a' already present"},
    };
    Log::Capture capture;
    for (auto const& [action, message] : cases) {
        SCOPED_TRACE(message);
        expectThrowWithMessage<DataItemException>(action, message);
    }
}

// append and appendFrame -------------------------------------------------------------------------------

TEST(DataItemAppend, AppendFrameAndAppendShareTheSourceFramesOfEveryField)
{
    DataItem target = batchOf(1);
    DataItem source = batchOf(3);
    source.set("ignored", makeSet(3));
    ASSERT_TRUE(target.appendFrame(source, 2));
    EXPECT_EQ(target.batchSize(), std::optional<std::size_t>(2));
    EXPECT_EQ(sisOf(target, "image").getShared(1), sisOf(source, "image").getShared(2));
    EXPECT_EQ(sisOf(target, "score").getShared(1), sisOf(source, "score").getShared(2));
    EXPECT_EQ(tensorOf(target, 1), tensorOf(source, 2));
    EXPECT_EQ(pointOf(target, 1), Eigen::Vector3d(2, 0, 0));
    EXPECT_FALSE(target.contains("ignored"));
    expectFrameAt(*sisOf(target, "image").get(1), 200.0);

    // append takes every frame in order.
    ASSERT_TRUE(target.append(source));
    ASSERT_EQ(target.batchSize(), std::optional<std::size_t>(5));
    EXPECT_EQ(sisOf(target, "image").getShared(2), sisOf(source, "image").getShared(0));
    EXPECT_EQ(sisOf(target, "image").getShared(4), sisOf(source, "image").getShared(2));

    // Appending an item to itself doubles it once; it does not chase its own growth.
    ASSERT_TRUE(target.append(target));
    EXPECT_EQ(target.batchSize(), std::optional<std::size_t>(10));
    EXPECT_EQ(sisOf(target, "image").getShared(9), sisOf(source, "image").getShared(2));
}

TEST(DataItemAppend, RefusesWithAMessageAndChangesNothing)
{
    auto replaced = [](std::string const& field, std::shared_ptr<SharedImageSet> set, int batch = 2) {
        DataItem source = batchOf(batch);
        source.set(field, std::move(set));
        return source;
    };
    auto bytes = std::make_shared<SharedImageSet>();
    bytes->add(std::make_shared<SharedImage>(
        std::shared_ptr<Image>(TypedImage<unsigned char>::zeros(Eigen::Vector3i(3, 3, 3), 1))));
    struct Case
    {
        DataItem source;
        std::optional<std::size_t> frame; // appendFrame of this frame, or append the whole item
        std::string message;
    };
    Log::Capture capture;
    Case cases[] = {
        {itemOf({{"image", 2}}), 0, "Source item doesn't contain field `score`"},
        {replaced("image", makeVectorSet(2)), 0,
         "Source element `image` is of type `Vector`, while target element is of type `Image`"},
        {batchOf(2), 2, "Frame index 2 is greater or equal than the `image` element size: 2"},
        {replaced("image", bytes, 1), 0, "Frame 0 of the source element `image` is of pixel type"},
        {replaced("score", makeVectorSet(1)), std::nullopt, "Source item has inconsistent batch size."},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.message);
        DataItem target = batchOf(1);
        capture.clear();
        EXPECT_FALSE(c.frame ? target.appendFrame(c.source, *c.frame) : target.append(c.source));
        EXPECT_TRUE(capture.containsFragment(c.message));
        for (std::string const& field : keysOf(target))
            EXPECT_EQ(target.get(field)->batchSize(), 1U) << field;
    }
}

// clone and equality -------------------------------------------------------------------------------------

TEST(DataItemClone, DeepCopiesPixelsAndKeepsPlacementOthersKeepNameAndComponentsOnly)
{
    DataItem item = batchOf(2);
    item.setName("case 7");
    item.get("image")->tagAsTarget();
    for (auto option : {DataElement::CloneOptions::Empty, DataElement::CloneOptions::Shell}) {
        DataItem const shallow = item.clone(option);
        EXPECT_TRUE(shallow.empty());
        EXPECT_EQ(shallow.name(), "case 7");
        EXPECT_EQ(originOf(shallow), "a.nii");
    }

    DataItem clone = item.clone(DataElement::CloneOptions::Deep);
    EXPECT_EQ(clone.name(), "case 7");
    EXPECT_EQ(originOf(clone), "a.nii");
    EXPECT_EQ(keysOf(clone), keysOf(item));
    EXPECT_TRUE(clone == item);
    EXPECT_NE(tensorOf(clone, 1), tensorOf(item, 1));
    EXPECT_TRUE(clone.get("image")->isTarget());
    expectFrameAt(*sisOf(clone, "image").get(1), 100.0);

    // The pixels are copies: a change to the clone makes the items differ.
    static_cast<float*>(sisOf(clone, "image").mem(1)->data())[5] += 1.0F;
    EXPECT_FALSE(clone == item);
}

TEST(DataItemEquality, ADifferenceInContentMakesItemsUnequal)
{
    std::pair<char const*, std::function<void(DataItem&)>> const changes[] = {
        {"pixel",
         [](DataItem& item) { static_cast<float*>(sisOf(item, "score").mem(1)->data())[1] = -1.0F; }},
        {"spacing",
         [](DataItem& item) { sisOf(item, "image").get(0)->setSpacing(Eigen::Vector3d(1, 1, 1)); }},
        {"frame count", [](DataItem& item) { sisOf(item, "image").remove(1); }},
        {"tensor", [](DataItem& item) { tensorOf(item, 1)->bytePtr()[0] ^= 0x01; }},
        {"keypoint",
         [](DataItem& item) {
             item.get<KeypointsElement>("points")->keypoints()->keypoints()[0][0][0].x() = 9;
         }},
        {"element type", [](DataItem& item) { item.set("score", makeSet(2)); }},
        {"field count", [](DataItem& item) { item.pop("score"); }},
    };
    DataItem const a = batchOf(2);
    for (auto const& [name, change] : changes) {
        SCOPED_TRACE(name);
        DataItem b = a.clone();
        ASSERT_TRUE(a == b);
        change(b);
        EXPECT_TRUE(a != b);
    }
    // Equal sizes with different keys compare unrelated items: the lookup throws.
    DataItem b = batchOf(2);
    b.set("other", b.pop("score"));
    expectThrowWithMessage<std::out_of_range>([&] { (void)(a == b); }, "Key not found in OrderedMap");
}

// Geometry ------------------------------------------------------------------------------------------------

TEST(DataItemGeometry, SetMatrixMovesEveryChildRigidlyAndBoundsAreTheirUnion)
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
    // the 2x2 slice with 4 mm pixels covers x, y in [-4, 4] at z = 50.
    EXPECT_TRUE(item.bounds().min().isApprox(Eigen::Vector3d(-4.0, -4.0, -4.5)));
    EXPECT_TRUE(item.bounds().max().isApprox(Eigen::Vector3d(101.5, 4.0, 50.0)));

    // A quarter turn about z, then a shift of 5 mm along x: (x, y, z) -> (5 - y, x, z).
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    m.topLeftCorner<3, 3>() = Eigen::AngleAxisd(EIGEN_PI / 2, Eigen::Vector3d::UnitZ()).toRotationMatrix();
    m(0, 3) = 5.0;
    item.setMatrix(m);
    EXPECT_TRUE(item.matrix().isApprox(m));
    // Frame 1 had its corner voxel (0, 0, 0) at (99, -2, -3), (2, 2, 2) at (101, 2, 3).
    SharedImageSet& image = sisOf(item, "image");
    EXPECT_TRUE(image.get(1)->pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(7.0, 99.0, -3.0)));
    EXPECT_TRUE(image.get(1)->pixelToWorld({2, 2, 2}).isApprox(Eigen::Vector3d(3.0, 101.0, 3.0)));
    // The slice's pixel (1, 1) was at (2, 2, 50).
    SharedImage const& slice = *sisOf(item, "slice").get(0);
    EXPECT_TRUE(slice.pixelToWorld({1, 1, 0}).isApprox(Eigen::Vector3d(3.0, 2.0, 50.0)));

    // Back to the identity undoes the move: the change is relative to the present matrix.
    item.setMatrix(Eigen::Matrix4d::Identity());
    expectFrameAt(*image.get(1), 100.0);
    EXPECT_TRUE(slice.pixelToWorld({1, 1, 0}).isApprox(Eigen::Vector3d(2.0, 2.0, 50.0)));
}

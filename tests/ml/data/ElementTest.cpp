// Tests of the element layer under DataItem: element type names, OrderedMap, TargetTag and the
// image-set based elements (invariants, dimension, split/stack/clone sharing and records).

#include "ml/TestHelpers.h"
#include "ml/data/DataElement.h"
#include "ml/data/ImageElement.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/data/OrderedMap.h"
#include "ml/data/TargetTag.h"
#include "ml/data/VectorElement.h"
#include "ml/operations/ParamException.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"
#include "host/core/String.h"
#include "host/image/DataSourceComponent.h"
#include "host/image/DatasetLicenseComponent.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::MLTest;

namespace {

DataSourceInfo source(int index)
{
    return {"scan" + std::to_string(index) + ".nii", "NiftiIO", index, "frame " + std::to_string(index)};
}

DatasetInfo dataset(int index)
{
    return {"set" + std::to_string(index), "CC-BY-4.0", "cite " + std::to_string(index), ""};
}

} // namespace

// Element type names -----------------------------------------------------------------------------

class ElementTypeNameTest : public ::testing::TestWithParam<std::tuple<ElementType, std::string, int>>
{};

TEST_P(ElementTypeNameTest, NameAndValueAreFixedAndParseInAnyCase)
{
    auto const& [type, name, value] = GetParam();
    EXPECT_EQ(static_cast<int>(type), value);
    EXPECT_EQ(elementTypeToString(type), name);
    EXPECT_EQ(stringToElementType(name), type);
    EXPECT_EQ(stringToElementType(String::toUpperCopy(name)), type);
    EXPECT_EQ(ElementTypeHash()(type), static_cast<std::size_t>(value));
}

INSTANTIATE_TEST_SUITE_P(AllTypes, ElementTypeNameTest,
                         ::testing::Values(std::make_tuple(ElementType::Image, "Image", 0),
                                           std::make_tuple(ElementType::BoundingBox, "BoundingBox", 1),
                                           std::make_tuple(ElementType::Keypoint, "Keypoint", 2),
                                           std::make_tuple(ElementType::Vector, "Vector", 3),
                                           std::make_tuple(ElementType::Tensor, "Tensor", 4)));

TEST(ElementTypeNames, OutOfRangeValueIsUnknownAndUnknownTextThrows)
{
    EXPECT_EQ(elementTypeToString(static_cast<ElementType>(7)), "Unknown");
    EXPECT_EQ(elementTypeToString(static_cast<ElementType>(-1)), "Unknown");
    expectThrowWithMessage<ParamException>([] { stringToElementType("Images"); },
                                           "Unknown prediction output 'Images', supported are ['Vector', "
                                           "'Image', 'Keypoint', 'BoundingBox', 'Tensor']");
    EXPECT_THROW(stringToElementType(""), ParamException);
}

// OrderedMap ---------------------------------------------------------------------------------------

TEST(OrderedMap, KeepsInsertionOrderAndReplacesInPlace)
{
    OrderedMap<std::string, int> map;
    map["b"] = 1;
    map["a"] = 2;
    map["c"] = 3;
    map["a"] = 20;
    EXPECT_EQ(map.keys(), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(map["a"], 20);
    EXPECT_EQ(map.size(), 3U);

    EXPECT_TRUE(map.erase("b"));
    EXPECT_FALSE(map.erase("b"));
    EXPECT_EQ(map.keys(), (std::vector<std::string>{"a", "c"}));

    EXPECT_FALSE(map.insertOrAssign("c", 30));
    EXPECT_TRUE(map.insertOrAssign("d", 4));
    EXPECT_EQ(map.keys(), (std::vector<std::string>{"a", "c", "d"}));
    EXPECT_EQ(map.at("c"), 30);
}

TEST(OrderedMap, NonConstLookupAppendsDefaultConstLookupThrows)
{
    OrderedMap<std::string, int> map{{"x", 1}, {"y", 2}, {"x", 5}};
    EXPECT_EQ(map.keys(), (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(map["x"], 5);

    EXPECT_EQ(map["new"], 0);
    EXPECT_TRUE(map.contains("new"));
    EXPECT_EQ(map.keys().back(), "new");

    auto const& constMap = map;
    EXPECT_EQ(constMap["y"], 2);
    expectThrowWithMessage<std::out_of_range>([&] { (void)constMap["missing"]; },
                                              "Key not found in OrderedMap");
    expectThrowWithMessage<std::out_of_range>([&] { (void)map.at("missing"); },
                                              "Key not found in OrderedMap");
    EXPECT_FALSE(constMap.contains("missing"));
}

// TargetTag ----------------------------------------------------------------------------------------

TEST(TargetTag, MarksAnElementAndWritesNothing)
{
    ImageElement element(makeSet(2));
    EXPECT_FALSE(element.isTarget());
    element.tagAsTarget();
    element.tagAsTarget();
    EXPECT_TRUE(element.isTarget());
    EXPECT_EQ(element.components().size(), 1);
    // The tag lives on the content, so everyone sharing the set sees it.
    EXPECT_NE(element.sis()->components().get<TargetTag>(), nullptr);
    element.untagAsTarget();
    EXPECT_FALSE(element.isTarget());

    TargetTag tag;
    EXPECT_EQ(tag.id(), "TargetTag");
    Properties properties;
    tag.configuration(&properties);
    EXPECT_TRUE(properties.paramKeys().empty());
    EXPECT_TRUE(properties.subProperties().empty());
    EXPECT_TRUE(tag.equals(*tag.clone()));
}

// Image and vector element invariants ------------------------------------------------------------

TEST(SISElementInvariants, OneByOneByOneFramesAreVectorsOnly)
{
    auto vectors = makeVectorSet(2, 4);
    expectThrowWithMessage<DataElementException>([&] { ImageElement element(vectors); },
                                                 "ImageElement cannot be constructed from 0-D images. For "
                                                 "images with a 1x1x1 size, please use VectorElement "
                                                 "instead.");
    VectorElement vector(vectors);
    EXPECT_EQ(vector.type(), ElementType::Vector);
    EXPECT_EQ(vector.batchSize(), 2U);
    EXPECT_EQ(vector.dimension(), 1);

    FrameLayout line;
    line.size = Eigen::Vector3i(2, 1, 1);
    expectThrowWithMessage<DataElementException>(
        [&] { VectorElement element(makeSet(1, line)); },
        "VectorElement can only be constructed from 0-D images (1x1x1, potentially with multiple channels).");
    EXPECT_EQ(ImageElement(makeSet(1, line)).type(), ElementType::Image);
}

TEST(SISElementInvariants, ALaterBadFrameIsFoundToo)
{
    auto set = makeSet(2);
    set->add(makeVectorSet(1)->getShared(0));
    EXPECT_THROW(ImageElement element(set), DataElementException);
}

TEST(SISElementInvariants, NullAndForeignContentAreRefusedAndLeaveTheElementAlone)
{
    expectThrowWithMessage<DataElementException>([] { ImageElement element(nullptr); },
                                                 "Input SharedImageSet must be valid.");
    expectThrowWithMessage<DataElementException>([] { VectorElement element(nullptr); },
                                                 "Input SharedImageSet must be valid.");

    auto original = makeSet(2);
    ImageElement element(original);
    expectThrowWithMessage<DataElementException>([&] { element.setContent(nullptr); },
                                                 "Can only set content of type SharedImageSet");
    expectThrowWithMessage<DataElementException>([&] { element.setSis(nullptr); },
                                                 "Input SharedImageSet must be valid.");
    EXPECT_THROW(element.setSis(makeVectorSet(1)), DataElementException);
    EXPECT_EQ(element.sis(), original);
    EXPECT_EQ(element.content(), original);

    auto replacement = makeSet(3);
    element.setContent(replacement);
    EXPECT_EQ(element.sis(), replacement);
    EXPECT_EQ(element.batchSize(), 3U);
}

struct DimensionCase
{
    Eigen::Vector3i size;
    int dimension;
};

class SISElementDimensionTest : public ::testing::TestWithParam<DimensionCase>
{};

TEST_P(SISElementDimensionTest, ComesFromTheFocusFrame)
{
    FrameLayout layout;
    layout.size = GetParam().size;
    ImageElement element(makeSet(2, layout));
    EXPECT_EQ(element.dimension(), GetParam().dimension);
}

INSTANTIATE_TEST_SUITE_P(Sizes, SISElementDimensionTest,
                         ::testing::Values(DimensionCase{{4, 1, 1}, 1}, DimensionCase{{1, 3, 1}, 2},
                                           DimensionCase{{4, 3, 1}, 2}, DimensionCase{{1, 1, 2}, 3},
                                           DimensionCase{{4, 3, 2}, 3}));

TEST(SISElementDimension, FocusFrameDecidesAndEmptySetIsZero)
{
    auto set = makeSet(1); // 3x3x3
    FrameLayout flat;
    flat.size = Eigen::Vector3i(3, 3, 1);
    set->add(makeFrame(flat));
    ImageElement element(set);
    EXPECT_EQ(element.dimension(), 3);
    ASSERT_TRUE(set->setFocus(1));
    EXPECT_EQ(element.dimension(), 2);

    ImageElement empty(std::make_shared<SharedImageSet>());
    EXPECT_EQ(empty.dimension(), 0);
    EXPECT_EQ(empty.batchSize(), 0U);
}

// Split, stack and clone ------------------------------------------------------------------------

// A batch of three 3x3x3 frames with spacing (1, 2, 3) at x = 0, 100, 200, with one source and
// licence record per frame, a TargetTag and the name "label".
class SISBatchTest : public ::testing::Test
{
protected:
    SISBatchTest()
    {
        set->setName("label");
        set->components().add(
            std::make_unique<DataSourceComponent>(std::vector{source(0), source(1), source(2)}));
        set->components().add(
            std::make_unique<DatasetLicenseComponent>(std::vector{dataset(0), dataset(1), dataset(2)}));
        set->components().add(std::make_unique<TargetTag>());
    }

    // The corner and centre voxels of frame `frame` of the fixture, in world coordinates,
    // worked out by hand: image coordinates (p - (3 - 1) / 2) * spacing, plus the translation.
    static void expectFramePlacement(SharedImage const& frame, int originalIndex)
    {
        double const x = 100.0 * originalIndex;
        EXPECT_TRUE(frame.pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(x - 1.0, -2.0, -3.0)));
        EXPECT_TRUE(frame.pixelToWorld({2, 2, 2}).isApprox(Eigen::Vector3d(x + 1.0, 2.0, 3.0)));
        EXPECT_TRUE(frame.pixelToWorld({1, 1, 1}).isApprox(Eigen::Vector3d(x, 0.0, 0.0)));
    }

    std::shared_ptr<SharedImageSet> set = makeSet(3);
};

TEST_F(SISBatchTest, SplitSharesFramesAndGivesEachPartItsRecord)
{
    ImageElement element(set);
    auto parts = element.split();
    ASSERT_EQ(parts.size(), 3U);
    for (int i = 0; i < 3; ++i) {
        auto* part = dynamic_cast<ImageElement*>(parts[static_cast<std::size_t>(i)].get());
        ASSERT_NE(part, nullptr);
        ASSERT_EQ(part->batchSize(), 1U);
        EXPECT_EQ(part->sis()->getShared(0), set->getShared(i));
        EXPECT_EQ(part->sis()->mem(0)->data(), set->mem(i)->data());
        EXPECT_NE(part->sis(), set);
        EXPECT_EQ(part->sis()->name(), "label");
        EXPECT_TRUE(part->isTarget());
        expectFramePlacement(*part->sis()->get(0), i);

        auto const* sources = part->components().get<DataSourceComponent>();
        ASSERT_NE(sources, nullptr);
        EXPECT_EQ(sources->sources(), std::vector{source(i)});
        auto const* licenses = part->components().get<DatasetLicenseComponent>();
        ASSERT_NE(licenses, nullptr);
        EXPECT_EQ(licenses->infos(), std::vector{dataset(i)});
    }
    // The source keeps its full records.
    EXPECT_EQ(set->components().get<DataSourceComponent>()->sources().size(), 3U);
}

TEST_F(SISBatchTest, RecordsOfAnotherLengthAreDroppedOnSplit)
{
    set->components().add(std::make_unique<DataSourceComponent>(std::vector{source(0), source(1)}));
    set->components().remove<DatasetLicenseComponent>();
    ImageElement element(set);
    for (auto const& part : element.split()) {
        EXPECT_EQ(part->components().get<DataSourceComponent>(), nullptr);
        EXPECT_EQ(part->components().get<DatasetLicenseComponent>(), nullptr);
        EXPECT_TRUE(part->isTarget());
    }
}

TEST_F(SISBatchTest, EmptySetSplitsIntoNothing)
{
    ImageElement element(std::make_shared<SharedImageSet>());
    EXPECT_TRUE(element.split().empty());
}

TEST_F(SISBatchTest, StackReversesSplitSharingFramesAndMergingRecords)
{
    ImageElement element(set);
    std::vector<std::shared_ptr<DataElement>> parts = element.split();
    std::swap(parts[0], parts[2]); // stack order, not original order, decides
    auto stacked = DataElement::stack(parts);
    ASSERT_NE(stacked, nullptr);
    auto* image = dynamic_cast<ImageElement*>(stacked.get());
    ASSERT_NE(image, nullptr);
    ASSERT_EQ(image->batchSize(), 3U);
    int const order[] = {2, 1, 0};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(image->sis()->getShared(i), set->getShared(order[i]));
        expectFramePlacement(*image->sis()->get(i), order[i]);
    }
    EXPECT_EQ(image->components().get<DataSourceComponent>()->sources(),
              (std::vector{source(2), source(1), source(0)}));
    EXPECT_EQ(image->components().get<DatasetLicenseComponent>()->infos(),
              (std::vector{dataset(2), dataset(1), dataset(0)}));
    EXPECT_TRUE(image->isTarget());
    EXPECT_EQ(image->sis()->name(), "label");
}

TEST_F(SISBatchTest, StackOfVectorsStaysVectorAndRecordsOnlyWhereGiven)
{
    auto a = std::make_shared<VectorElement>(makeVectorSet(2));
    auto b = std::make_shared<VectorElement>(makeVectorSet(1));
    b->sis()->components().add(std::make_unique<DataSourceComponent>(std::vector{source(7)}));
    auto stacked = DataElement::stack({a, b});
    ASSERT_NE(dynamic_cast<VectorElement*>(stacked.get()), nullptr);
    EXPECT_EQ(stacked->batchSize(), 3U);
    EXPECT_EQ(dynamic_cast<VectorElement&>(*stacked).sis()->getShared(2), b->sis()->getShared(0));
    EXPECT_EQ(stacked->components().get<DataSourceComponent>()->sources(), std::vector{source(7)});
    EXPECT_EQ(stacked->components().get<DatasetLicenseComponent>(), nullptr);
}

TEST_F(SISBatchTest, StackRefusesEmptyAndMixedLists)
{
    EXPECT_EQ(DataElement::stack({}), nullptr);

    Log::Capture capture;
    auto image = std::make_shared<ImageElement>(set);
    auto vector = std::make_shared<VectorElement>(makeVectorSet(1));
    EXPECT_EQ(DataElement::stack({image, vector}), nullptr);
    EXPECT_TRUE(capture.contains("Cannot stack elements of different types", "ML.DataElement"));
}

class SISCloneTest : public SISBatchTest, public ::testing::WithParamInterface<DataElement::CloneOptions>
{};

TEST_P(SISCloneTest, DeepCopiesPixelsOthersGiveAFramelessSet)
{
    ImageElement element(set);
    auto clone = element.clone(GetParam());
    auto* image = dynamic_cast<ImageElement*>(clone.get());
    ASSERT_NE(image, nullptr);
    EXPECT_NE(image->sis(), set);
    EXPECT_TRUE(image->isTarget());
    EXPECT_EQ(image->sis()->name(), "label");
    EXPECT_EQ(image->components().get<DataSourceComponent>()->sources().size(), 3U);
    if (GetParam() != DataElement::CloneOptions::Deep) {
        EXPECT_EQ(image->batchSize(), 0U);
        return;
    }
    ASSERT_EQ(image->batchSize(), 3U);
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(image->sis()->getShared(i), set->getShared(i));
        EXPECT_NE(image->sis()->mem(i)->data(), set->mem(i)->data());
        EXPECT_EQ(firstValue(*image->sis()->get(i)), 1000.0F * static_cast<float>(i));
        expectFramePlacement(*image->sis()->get(i), i);
    }
    // The copy is independent: a write to it does not reach the original.
    static_cast<float*>(image->sis()->mem(0)->data())[0] = -5.0F;
    EXPECT_EQ(firstValue(*set->get(0)), 0.0F);
    // The tag was cloned with the content, not shared.
    image->untagAsTarget();
    EXPECT_TRUE(element.isTarget());
}

INSTANTIATE_TEST_SUITE_P(Options, SISCloneTest,
                         ::testing::Values(DataElement::CloneOptions::Deep, DataElement::CloneOptions::Empty,
                                           DataElement::CloneOptions::Shell));

TEST(VectorElementClone, KeepsItsClass)
{
    VectorElement element(makeVectorSet(2, 3));
    auto clone = element.clone(DataElement::CloneOptions::Deep);
    auto* vector = dynamic_cast<VectorElement*>(clone.get());
    ASSERT_NE(vector, nullptr);
    EXPECT_EQ(vector->batchSize(), 2U);
    EXPECT_EQ(vector->sis()->get(1)->channels(), 3);
    EXPECT_EQ(dynamic_cast<VectorElement*>(element.split().at(1).get())->sis()->getShared(0),
              element.sis()->getShared(1));
}

namespace {

// An element whose type lies outside the enumeration, as a corrupt file or a newer plug-in
// could produce; stack must refuse it by exception rather than dispatch blindly.
class OutOfRangeElement : public DataElement
{
public:
    ElementType type() const override { return static_cast<ElementType>(9); }
    void setContent(std::shared_ptr<Data> content) override { m_content = std::move(content); }
    int dimension() const override { return 0; }
    std::size_t batchSize() const override { return 1; }
    std::vector<std::shared_ptr<DataElement>> split() override { return {}; }
    std::unique_ptr<DataElement> clone(CloneOptions) const override { return nullptr; }
};

} // namespace

TEST(ElementStack, TypeOutsideTheEnumerationThrows)
{
    auto odd = std::make_shared<OutOfRangeElement>();
    expectThrowWithMessage<DataItemException>(
        [&] {
            DataElement::stack({odd, odd});
        },
        "Elements of type 9 cannot be stacked!");
    // Without content the component list is a private empty one, never a dangling reference.
    EXPECT_FALSE(odd->isTarget());
    EXPECT_TRUE(odd->components().empty());
}

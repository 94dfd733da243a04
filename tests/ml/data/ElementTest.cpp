// Tests of the element layer under DataItem: element type names, TargetTag and the
// image-set based elements (invariants, dimension, split/stack/clone sharing and records).

#include "ml/TestHelpers.h"
#include "ml/data/DataElement.h"
#include "ml/data/ImageElement.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/data/TargetTag.h"
#include "ml/data/VectorElement.h"
#include "ml/operations/ParamException.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"
#include "host/core/String.h"
#include "host/image/DataSourceComponent.h"
#include "host/image/DatasetLicenseComponent.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

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

std::shared_ptr<SharedImageSet> setOfSize(Eigen::Vector3i const& size, int count = 1)
{
    FrameLayout layout;
    layout.size = size;
    return makeSet(count, layout);
}

} // namespace

// Element type names and TargetTag -------------------------------------------------------

TEST(ElementTypeNames, RoundTripInAnyCaseAndUnknownTextThrows)
{
    for (ElementType type : {ElementType::Image, ElementType::BoundingBox, ElementType::Keypoint,
                             ElementType::Vector, ElementType::Tensor}) {
        std::string const name = elementTypeToString(type);
        SCOPED_TRACE(name);
        EXPECT_EQ(stringToElementType(name), type);
        EXPECT_EQ(stringToElementType(String::toUpperCopy(name)), type);
    }
    EXPECT_EQ(elementTypeToString(ElementType::BoundingBox), "BoundingBox");
    EXPECT_EQ(elementTypeToString(static_cast<ElementType>(7)), "Unknown");
    expectThrowWithMessage<ParamException>([] { stringToElementType("Images"); },
                                           "Unknown prediction output 'Images', supported are ['Vector', "
                                           "'Image', 'Keypoint', 'BoundingBox', 'Tensor']");
}

TEST(TargetTag, MarksTheSharedContentAndWritesNothing)
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
    Properties properties;
    tag.configuration(&properties);
    tag.configure(&properties);
    EXPECT_TRUE(properties.isEmpty());
    EXPECT_TRUE(tag.equals(*tag.clone()));
}

// Image and vector element invariants ------------------------------------------------------------

TEST(SISElementInvariants, RefusedContentNamesTheRuleAndLeavesTheElementAlone)
{
    auto original = makeSet(2);
    ImageElement element(original);
    auto mixed = makeSet(2);
    mixed->add(makeVectorSet(1)->getShared(0));
    struct Case
    {
        char const* name;
        std::function<void()> action;
        char const* message;
    };
    char const* const zeroD = "ImageElement cannot be constructed from 0-D images. For images with a 1x1x1 "
                              "size, please use VectorElement instead.";
    Case const cases[] = {
        {"vector frames as image", [] { ImageElement e(makeVectorSet(2, 4)); }, zeroD},
        {"a later vector frame", [&] { ImageElement e(mixed); }, zeroD},
        {"line as vector",
         [] {
             VectorElement e(setOfSize({2, 1, 1}));
         },
         "VectorElement can only be constructed from 0-D images (1x1x1, potentially with multiple "
         "channels)."},
        {"null image set", [] { ImageElement e(nullptr); }, "Input SharedImageSet must be valid."},
        {"null vector set", [] { VectorElement e(nullptr); }, "Input SharedImageSet must be valid."},
        {"null content", [&] { element.setContent(nullptr); }, "Can only set content of type SharedImageSet"},
        {"null set", [&] { element.setSis(nullptr); }, "Input SharedImageSet must be valid."},
        {"vector set", [&] { element.setSis(makeVectorSet(1)); }, zeroD},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.name);
        expectThrowWithMessage<DataElementException>(c.action, c.message);
    }
    EXPECT_EQ(element.sis(), original);

    EXPECT_EQ(ImageElement(setOfSize({2, 1, 1})).type(), ElementType::Image);
    VectorElement vector(makeVectorSet(2, 4));
    EXPECT_EQ(vector.type(), ElementType::Vector);
    EXPECT_EQ(vector.batchSize(), 2U);
    auto replacement = makeSet(3);
    element.setContent(replacement);
    EXPECT_EQ(element.sis(), replacement);
    EXPECT_EQ(element.batchSize(), 3U);
}

TEST(SISElementDimension, ComesFromTheFocusFrame)
{
    auto set = makeSet(1); // 3x3x3
    set->add(setOfSize({3, 3, 1})->getShared(0));
    ImageElement element(set);
    EXPECT_EQ(element.dimension(), 3);
    ASSERT_TRUE(set->setFocus(1));
    EXPECT_EQ(element.dimension(), 2);
    EXPECT_EQ(ImageElement(std::make_shared<SharedImageSet>()).dimension(), 0);
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

    std::shared_ptr<SharedImageSet> set = makeSet(3);
};

TEST_F(SISBatchTest, SplitGivesEachPartItsRecordsAndStackMergesThemInOrder)
{
    ImageElement element(set);
    std::vector<std::shared_ptr<DataElement>> parts = element.split();
    ASSERT_EQ(parts.size(), 3U);
    for (int i = 0; i < 3; ++i) {
        DataElement const& part = *parts[static_cast<std::size_t>(i)];
        EXPECT_EQ(part.batchSize(), 1U);
        EXPECT_EQ(part.content()->name(), "label");
        EXPECT_TRUE(part.isTarget());
        EXPECT_EQ(part.components().get<DataSourceComponent>()->sources(), std::vector{source(i)});
        EXPECT_EQ(part.components().get<DatasetLicenseComponent>()->infos(), std::vector{dataset(i)});
    }
    // The source keeps its full records.
    EXPECT_EQ(set->components().get<DataSourceComponent>()->sources().size(), 3U);

    std::swap(parts[0], parts[2]); // stack order, not original order, decides
    auto stacked = DataElement::stack(parts);
    ASSERT_NE(dynamic_cast<ImageElement*>(stacked.get()), nullptr);
    EXPECT_EQ(stacked->components().get<DataSourceComponent>()->sources(),
              (std::vector{source(2), source(1), source(0)}));
    EXPECT_EQ(stacked->components().get<DatasetLicenseComponent>()->infos(),
              (std::vector{dataset(2), dataset(1), dataset(0)}));
    EXPECT_EQ(stacked->content()->name(), "label");

    // Records of another length cannot be attributed to frames and are dropped.
    set->components().add(std::make_unique<DataSourceComponent>(std::vector{source(0), source(1)}));
    set->components().remove<DatasetLicenseComponent>();
    for (auto const& part : element.split()) {
        EXPECT_EQ(part->components().get<DataSourceComponent>(), nullptr);
        EXPECT_EQ(part->components().get<DatasetLicenseComponent>(), nullptr);
    }
    EXPECT_TRUE(ImageElement(std::make_shared<SharedImageSet>()).split().empty());
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
    EXPECT_EQ(dynamic_cast<VectorElement*>(a->split().at(1).get())->sis()->getShared(0),
              a->sis()->getShared(1));

    EXPECT_EQ(DataElement::stack({}), nullptr);
    Log::Capture capture;
    EXPECT_EQ(DataElement::stack({std::make_shared<ImageElement>(set), a}), nullptr);
    EXPECT_TRUE(capture.contains("Cannot stack elements of different types", "ML.DataElement"));
}

class SISCloneTest : public SISBatchTest, public ::testing::WithParamInterface<DataElement::CloneOptions>
{};

TEST_P(SISCloneTest, DeepCopiesPixelsOthersGiveAFramelessSet)
{
    VectorElement vector(makeVectorSet(2, 3));
    auto const vectorClone = vector.clone(GetParam());
    ASSERT_NE(dynamic_cast<VectorElement*>(vectorClone.get()), nullptr);
    EXPECT_EQ(vectorClone->batchSize(), GetParam() == DataElement::CloneOptions::Deep ? 2U : 0U);

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
        EXPECT_NE(image->sis()->mem(i)->data(), set->mem(i)->data());
        EXPECT_EQ(firstValue(*image->sis()->get(i)), 1000.0F * static_cast<float>(i));
        expectFrameAt(*image->sis()->get(i), 100.0 * i);
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

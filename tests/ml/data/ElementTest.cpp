// Tests of the element layer under DataItem: element type names, TargetTag, the image-set based
// elements (invariants, dimension, split/stack/clone sharing and records), and the elements whose
// content is a set of per-sample entries (keypoints, boxes, tensors), whose batch contract is
// tested once for all three as typed tests.

#include "ml/TestHelpers.h"
#include "ml/data/BoundingBoxElement.h"
#include "ml/data/DataElement.h"
#include "ml/data/ImageElement.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/TargetTag.h"
#include "ml/data/TensorSetElement.h"
#include "ml/data/VectorElement.h"
#include "ml/operations/ParamException.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"
#include "host/core/String.h"
#include "host/data/PointCloud.h"
#include "host/image/DataSourceComponent.h"
#include "host/image/DatasetLicenseComponent.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::MLTest;
using Eigen::Vector3d;

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
    // Nothing to write: the tag's presence is the whole information.
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

// ---- Elements of per-sample entries ------------------------------------------------------------

namespace {

template <class F>
std::string thrownMessage(F&& f)
{
    try {
        f();
    } catch (DataElementException const& e) {
        return e.what();
    }
    return "<nothing thrown>";
}

// Sample i of every set below is distinguishable from sample j by value.
struct KeypointsCase
{
    using Element = KeypointsElement;
    using Set = KeypointSet;
    static constexpr ElementType type = ElementType::Keypoint;
    static constexpr char const* contentName = "KeypointSet";
    static constexpr int dimension = 0;
    static constexpr bool shellShares = false;

    static std::shared_ptr<Set> make(std::size_t samples)
    {
        auto set = std::make_shared<Set>();
        for (std::size_t i = 0; i < samples; ++i)
            set->keypoints().push_back({{Vector3d(double(i), 1, 2)}, {}, {Vector3d(0, double(i), 0)}});
        return set;
    }
    static std::shared_ptr<Set> content(Element const& element) { return element.keypoints(); }
    static void setSet(Element& element, std::shared_ptr<Set> set) { element.setKeypoints(std::move(set)); }
    static bool sampleEquals(Set const& a, std::size_t i, Set const& b, std::size_t j)
    {
        return a.keypoints().at(i) == b.keypoints().at(j);
    }
    static void modify(Set& set) { set.keypoints()[0][0][0].x() += 1; }
};

struct BoxesCase
{
    using Element = BoundingBoxElement;
    using Set = BoundingBoxSet;
    static constexpr ElementType type = ElementType::BoundingBox;
    static constexpr char const* contentName = "BoundingBoxSet";
    static constexpr int dimension = 0;
    static constexpr bool shellShares = false;

    static std::shared_ptr<Set> make(std::size_t samples)
    {
        auto set = std::make_shared<Set>();
        for (std::size_t i = 0; i < samples; ++i)
            set->boxes().push_back({{Box{Vector3d(double(i), 0, 0), Vector3d(1, 2, 3)}}});
        return set;
    }
    static std::shared_ptr<Set> content(Element const& element) { return element.boxes(); }
    static void setSet(Element& element, std::shared_ptr<Set> set) { element.setBoxes(std::move(set)); }
    static bool sampleEquals(Set const& a, std::size_t i, Set const& b, std::size_t j)
    {
        return a.boxes().at(i) == b.boxes().at(j);
    }
    static void modify(Set& set) { set.boxes()[0][0][0].extent.y() = 7; }
};

struct TensorsCase
{
    using Element = TensorSetElement;
    using Set = TensorSet;
    static constexpr ElementType type = ElementType::Tensor;
    static constexpr char const* contentName = "Tensor";
    static constexpr int dimension = 2;
    static constexpr bool shellShares = true;

    static std::shared_ptr<Set> make(std::size_t samples)
    {
        auto set = std::make_shared<Set>();
        for (std::size_t i = 0; i < samples; ++i) {
            std::vector<float> const values{float(i), 0.5f, 1.f, 2.f};
            set->add(std::make_shared<Tensor>(Tensor::Shape{2, 2}, values.data()));
        }
        return set;
    }
    static std::shared_ptr<Set> content(Element const& element) { return element.tensorSet(); }
    static void setSet(Element& element, std::shared_ptr<Set> set) { element.setTensorSet(std::move(set)); }
    static bool sampleEquals(Set const& a, std::size_t i, Set const& b, std::size_t j)
    {
        return *a.tensors().at(i) == *b.tensors().at(j);
    }
    static void modify(Set& set) { set.getShared(0)->bytePtr()[0] ^= 0x5a; }
};

template <class Case>
class SetElementTest : public ::testing::Test
{
protected:
    using Element = typename Case::Element;

    // `samples` samples, named, tagged as target.
    std::shared_ptr<Element> makeElement(std::size_t samples = 3)
    {
        auto set = Case::make(samples);
        set->setName("annotations");
        auto element = std::make_shared<Element>(set);
        element->tagAsTarget();
        return element;
    }
};

using Cases = ::testing::Types<KeypointsCase, BoxesCase, TensorsCase>;
TYPED_TEST_SUITE(SetElementTest, Cases);

} // namespace

TYPED_TEST(SetElementTest, SplitGivesOneSampleEachAndStackRestoresTheBatchInOrder)
{
    auto element = this->makeElement(3);
    EXPECT_EQ(element->type(), TypeParam::type);
    EXPECT_EQ(element->dimension(), TypeParam::dimension);
    auto const whole = TypeParam::content(*element);
    auto const parts = element->split();
    ASSERT_EQ(parts.size(), 3u);
    std::vector<std::shared_ptr<typename TypeParam::Element>> reversed;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        auto const part = std::dynamic_pointer_cast<typename TypeParam::Element>(parts[i]);
        ASSERT_NE(part, nullptr);
        EXPECT_EQ(part->batchSize(), 1u);
        EXPECT_TRUE(part->isTarget());
        EXPECT_EQ(TypeParam::content(*part)->name(), "annotations");
        EXPECT_TRUE(TypeParam::sampleEquals(*TypeParam::content(*part), 0, *whole, i)) << "sample " << i;
        reversed.insert(reversed.begin(), part);
    }
    EXPECT_EQ(element->batchSize(), 3u);

    auto const stacked = TypeParam::Element::stack(reversed);
    ASSERT_NE(stacked, nullptr);
    EXPECT_TRUE(stacked->isTarget());
    ASSERT_EQ(stacked->batchSize(), 3u);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_TRUE(TypeParam::sampleEquals(*TypeParam::content(*stacked), i, *whole, 2 - i))
            << "sample " << i;

    // The generic entry point dispatches to the same function.
    auto const viaBase = DataElement::stack(parts);
    ASSERT_NE(viaBase, nullptr);
    EXPECT_EQ(viaBase->type(), TypeParam::type);
    EXPECT_EQ(viaBase->batchSize(), 3u);

    EXPECT_EQ(TypeParam::Element::stack({}), nullptr);
    Log::Capture capture;
    EXPECT_EQ(TypeParam::Element::stack({this->makeElement(1), nullptr}), nullptr);
    EXPECT_EQ(capture.messages(Log::Error).size(), 1u);
}

TYPED_TEST(SetElementTest, ClonesKeepTheAttributesAndCopyAsTheirOptionSays)
{
    auto element = this->makeElement(2);
    auto const original = TypeParam::content(*element);
    auto const empty = element->clone(DataElement::CloneOptions::Empty);
    EXPECT_EQ(empty->type(), TypeParam::type);
    EXPECT_EQ(empty->batchSize(), 0u);
    EXPECT_TRUE(empty->isTarget());
    EXPECT_EQ(empty->content()->name(), "annotations");
    EXPECT_NE(empty->content(), element->content());

    auto const deep = element->clone(DataElement::CloneOptions::Deep);
    auto const deepCopy = TypeParam::content(dynamic_cast<typename TypeParam::Element const&>(*deep));
    EXPECT_NE(deepCopy, original);
    EXPECT_TRUE(*deepCopy == *original);
    EXPECT_TRUE(deep->isTarget());
    TypeParam::modify(*deepCopy);
    EXPECT_FALSE(*deepCopy == *original);
    EXPECT_TRUE(*original == *TypeParam::make(2));

    // Tensors are shared by a shell clone, keypoints and boxes are copied.
    auto const shell = element->clone(DataElement::CloneOptions::Shell);
    EXPECT_EQ(shell->batchSize(), 2u);
    auto const shellCopy = TypeParam::content(dynamic_cast<typename TypeParam::Element const&>(*shell));
    EXPECT_NE(shellCopy, original);
    TypeParam::modify(*shellCopy);
    EXPECT_EQ(*shellCopy == *original, TypeParam::shellShares);
}

TYPED_TEST(SetElementTest, InvalidContentThrowsWithTheSetNameAndKeepsTheContent)
{
    using Element = typename TypeParam::Element;
    std::string const invalid = std::string("Input ") + TypeParam::contentName + " must be valid.";
    std::string const wrongType = std::string("Can only set content of type ") + TypeParam::contentName;
    EXPECT_EQ(thrownMessage([] { Element element(nullptr); }), invalid);

    auto element = this->makeElement(1);
    EXPECT_EQ(thrownMessage([&] { TypeParam::setSet(*element, nullptr); }), invalid);
    EXPECT_EQ(thrownMessage([&] { element->setContent(std::make_shared<PointCloud>()); }), wrongType);
    EXPECT_EQ(thrownMessage([&] { element->setContent(nullptr); }), wrongType);
    EXPECT_EQ(element->batchSize(), 1u);

    auto replacement = TypeParam::make(4);
    element->setContent(replacement);
    EXPECT_EQ(element->batchSize(), 4u);
    EXPECT_EQ(TypeParam::content(*element), replacement);
}

// Tensor sharing -----------------------------------------------------------------------------

TEST(TensorSetElement, SplitSharesTheTensorsAndASetOfSeveralIsNoSample)
{
    auto set = TensorsCase::make(3);
    auto element = std::make_shared<TensorSetElement>(set);
    auto const part = std::static_pointer_cast<TensorSetElement>(element->split().at(1));
    EXPECT_EQ(part->tensor(0), set->getShared(1));
    EXPECT_EQ(part->tensor(0)->toFloatVector().front(), 1.f);

    Log::Capture capture;
    EXPECT_EQ(TensorSetElement::stack({part, element}), nullptr);
    EXPECT_TRUE(capture.contains("Stack not possible when sets have multiple elements", "ML.TensorSet"));
}

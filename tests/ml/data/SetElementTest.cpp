// The three elements whose content is a set of per-sample entries: KeypointsElement,
// BoundingBoxElement and TensorSetElement. The batch contract (split / stack / clone) is tested
// once for all three as typed tests; what only tensors do (sharing) follows.

#include "ml/data/BoundingBoxElement.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/TargetTag.h"
#include "ml/data/TensorSetElement.h"

#include "host/core/Log.h"
#include "host/data/PointCloud.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;
using Eigen::Vector3d;

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
    static constexpr char const* invalidMessage = "Input KeypointSet must be valid.";
    static constexpr char const* wrongTypeMessage = "Can only set content of type KeypointSet";
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
    static constexpr char const* invalidMessage = "Input BoundingBoxSet must be valid.";
    static constexpr char const* wrongTypeMessage = "Can only set content of type BoundingBoxSet";
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
    static constexpr char const* invalidMessage = "Input Tensor must be valid.";
    static constexpr char const* wrongTypeMessage = "Can only set content of type Tensor";
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

    // Three samples, named, tagged as target.
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

TYPED_TEST(SetElementTest, BatchSizeTypeAndDimension)
{
    auto element = this->makeElement(3);
    EXPECT_EQ(element->batchSize(), 3u);
    EXPECT_EQ(element->type(), TypeParam::type);
    EXPECT_EQ(element->dimension(), TypeParam::dimension);
    EXPECT_EQ(element->content(), std::static_pointer_cast<Data>(TypeParam::content(*element)));
    EXPECT_EQ(typename TypeParam::Element(TypeParam::make(0)).batchSize(), 0u);
}

TYPED_TEST(SetElementTest, SplitGivesOneSamplePerElementWithTheComponents)
{
    auto element = this->makeElement(3);
    auto const parts = element->split();
    ASSERT_EQ(parts.size(), 3u);
    auto const whole = TypeParam::content(*element);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        auto const* part = dynamic_cast<typename TypeParam::Element const*>(parts[i].get());
        ASSERT_NE(part, nullptr);
        EXPECT_EQ(part->batchSize(), 1u);
        EXPECT_TRUE(part->isTarget());
        EXPECT_EQ(TypeParam::content(*part)->name(), "annotations");
        EXPECT_TRUE(TypeParam::sampleEquals(*TypeParam::content(*part), 0, *whole, i)) << "sample " << i;
    }
    EXPECT_EQ(element->batchSize(), 3u);
}

TYPED_TEST(SetElementTest, StackOfTheSplitRestoresTheBatchInOrder)
{
    auto element = this->makeElement(3);
    auto const parts = element->split();
    std::vector<std::shared_ptr<typename TypeParam::Element>> typed;
    for (auto it = parts.rbegin(); it != parts.rend(); ++it)
        typed.push_back(std::static_pointer_cast<typename TypeParam::Element>(*it));

    auto const stacked = TypeParam::Element::stack(typed);
    ASSERT_NE(stacked, nullptr);
    EXPECT_EQ(stacked->batchSize(), 3u);
    EXPECT_TRUE(stacked->isTarget());
    auto const whole = TypeParam::content(*element);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_TRUE(TypeParam::sampleEquals(*TypeParam::content(*stacked), i, *whole, 2 - i))
            << "sample " << i;

    // The generic entry point dispatches to the same function.
    std::vector<std::shared_ptr<DataElement>> generic{parts.begin(), parts.end()};
    auto const viaBase = DataElement::stack(generic);
    ASSERT_NE(viaBase, nullptr);
    EXPECT_EQ(viaBase->type(), TypeParam::type);
    EXPECT_EQ(viaBase->batchSize(), 3u);
}

TYPED_TEST(SetElementTest, StackRefusesEmptyListsAndNullElements)
{
    EXPECT_EQ(TypeParam::Element::stack({}), nullptr);
    Log::Capture capture;
    EXPECT_EQ(TypeParam::Element::stack({this->makeElement(1), nullptr}), nullptr);
    EXPECT_EQ(capture.messages(Log::Error).size(), 1u);
}

TYPED_TEST(SetElementTest, CloneEmptyKeepsAttributesButNoSamples)
{
    auto element = this->makeElement(3);
    auto const clone = element->clone(DataElement::CloneOptions::Empty);
    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->type(), TypeParam::type);
    EXPECT_EQ(clone->batchSize(), 0u);
    EXPECT_TRUE(clone->isTarget());
    EXPECT_EQ(clone->content()->name(), "annotations");
    EXPECT_NE(clone->content(), element->content());
}

TYPED_TEST(SetElementTest, CloneDeepIsEqualAndIndependent)
{
    auto element = this->makeElement(2);
    auto const clone = element->clone(DataElement::CloneOptions::Deep);
    auto const* typed = dynamic_cast<typename TypeParam::Element const*>(clone.get());
    ASSERT_NE(typed, nullptr);
    auto const copy = TypeParam::content(*typed);
    auto const original = TypeParam::content(*element);
    EXPECT_NE(copy, original);
    EXPECT_TRUE(*copy == *original);
    EXPECT_TRUE(typed->isTarget());
    TypeParam::modify(*copy);
    EXPECT_FALSE(*copy == *original);
    EXPECT_TRUE(*original == *TypeParam::make(2));
}

TYPED_TEST(SetElementTest, CloneShellKeepsTheSamples)
{
    auto element = this->makeElement(2);
    auto const clone = element->clone(DataElement::CloneOptions::Shell);
    auto const* typed = dynamic_cast<typename TypeParam::Element const*>(clone.get());
    ASSERT_NE(typed, nullptr);
    EXPECT_EQ(typed->batchSize(), 2u);
    auto const copy = TypeParam::content(*typed);
    EXPECT_NE(copy, TypeParam::content(*element));
    TypeParam::modify(*copy);
    // Tensors are shared by a shell clone, keypoints and boxes are copied.
    EXPECT_EQ(*copy == *TypeParam::content(*element), TypeParam::shellShares);
}

TYPED_TEST(SetElementTest, InvalidContentThrowsWithTheSetName)
{
    using Element = typename TypeParam::Element;
    EXPECT_EQ(thrownMessage([] { Element element(nullptr); }), TypeParam::invalidMessage);

    auto element = this->makeElement(1);
    EXPECT_EQ(thrownMessage([&] { element->setContent(std::make_shared<PointCloud>()); }),
              TypeParam::wrongTypeMessage);
    EXPECT_EQ(thrownMessage([&] { element->setContent(nullptr); }), TypeParam::wrongTypeMessage);
    EXPECT_EQ(element->batchSize(), 1u);

    auto replacement = TypeParam::make(4);
    element->setContent(replacement);
    EXPECT_EQ(element->batchSize(), 4u);
    EXPECT_EQ(TypeParam::content(*element), replacement);
}

TEST(SetElementSetters, NullSetsThrowAndKeepTheContent)
{
    KeypointsElement keypoints(KeypointsCase::make(2));
    EXPECT_EQ(thrownMessage([&] { keypoints.setKeypoints(nullptr); }), "Input KeypointSet must be valid.");
    EXPECT_EQ(keypoints.batchSize(), 2u);
    BoundingBoxElement boxes(BoxesCase::make(2));
    EXPECT_EQ(thrownMessage([&] { boxes.setBoxes(nullptr); }), "Input BoundingBoxSet must be valid.");
    EXPECT_EQ(boxes.batchSize(), 2u);
    TensorSetElement tensors(TensorsCase::make(2));
    EXPECT_EQ(thrownMessage([&] { tensors.setTensorSet(nullptr); }), "Input Tensor must be valid.");
    EXPECT_EQ(tensors.batchSize(), 2u);
}

// Tensor sharing -----------------------------------------------------------------------------

TEST(TensorSetElement, SplitAndStackShareTheTensors)
{
    auto set = TensorsCase::make(3);
    auto element = std::make_shared<TensorSetElement>(set);
    auto const parts = element->split();
    ASSERT_EQ(parts.size(), 3u);
    std::vector<std::shared_ptr<TensorSetElement>> typed;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        typed.push_back(std::static_pointer_cast<TensorSetElement>(parts[i]));
        EXPECT_EQ(typed.back()->tensor(0), set->getShared(i));
    }
    auto const stacked = TensorSetElement::stack(typed);
    ASSERT_NE(stacked, nullptr);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(stacked->tensor(i), set->getShared(i));

    auto const deep = element->clone(DataElement::CloneOptions::Deep);
    EXPECT_NE(static_cast<TensorSetElement const&>(*deep).tensor(0), set->getShared(0));
}

TEST(TensorSetElement, StackRefusesSetsOfSeveralTensors)
{
    auto single = std::make_shared<TensorSetElement>(TensorsCase::make(1));
    auto multiple = std::make_shared<TensorSetElement>(TensorsCase::make(2));
    Log::Capture capture;
    EXPECT_EQ(TensorSetElement::stack({single, multiple}), nullptr);
    EXPECT_TRUE(capture.contains("Stack not possible when sets have multiple elements", "ML.TensorSet"));
}

TEST(TensorSetElement, TensorAccessOutOfBoundsIsNull)
{
    TensorSetElement element(TensorsCase::make(2));
    Log::Capture capture;
    EXPECT_EQ(element.tensor(2), nullptr);
    EXPECT_TRUE(capture.contains("Accessing TensorSet out of bounds: 2/2", "ML.TensorSet"));
    EXPECT_EQ(element.tensor(1)->toFloatVector().front(), 1.f);
}

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

TEST(TensorSetElement, SplitAndStackShareTheTensors)
{
    auto set = TensorsCase::make(3);
    auto element = std::make_shared<TensorSetElement>(set);
    std::vector<std::shared_ptr<TensorSetElement>> typed;
    for (auto const& part : element->split())
        typed.push_back(std::static_pointer_cast<TensorSetElement>(part));
    ASSERT_EQ(typed.size(), 3u);
    auto const stacked = TensorSetElement::stack(typed);
    ASSERT_NE(stacked, nullptr);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(typed[i]->tensor(0), set->getShared(i));
        EXPECT_EQ(stacked->tensor(i), set->getShared(i));
    }
    EXPECT_EQ(stacked->tensor(1)->toFloatVector().front(), 1.f);

    // A set of several tensors is not one sample and cannot be stacked.
    Log::Capture capture;
    EXPECT_EQ(TensorSetElement::stack({typed[0], element}), nullptr);
    EXPECT_TRUE(capture.contains("Stack not possible when sets have multiple elements", "ML.TensorSet"));
}

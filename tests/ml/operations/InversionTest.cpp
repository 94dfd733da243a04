// Inversion end to end: an invertible operation run with "record_identifier" records how to undo
// itself on each element it processes, and "Inverse" with the same identifier undoes it and
// removes the record.

#include "ml/TestHelpers.h"
#include "ml/data/ImageElement.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/operations/InvertibleOperation.h"
#include "ml/operations/OperationException.h"
#include "ml/operations/OperationFactory.h"
#include "ml/operations/OperationInversionBridge.h"
#include "ml/operations/TestOperations.h"
#include "ml/operations/catalogue/InverseOperation.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

namespace Velmoria::ML {
namespace {

constexpr char const* kTestFactory = "InversionTest";

// Adds "value" to every float pixel; undone by itself with the negated value.
class AddConstantOperation : public InvertibleOperation
{
public:
    AddConstantOperation()
        : InvertibleOperation("AddConstant", ProcessingPolicy::EverythingButLabels)
    {}

    AdvancedParameter<double, Operation> p_value = {"value", 0.0, this, ParamRequired::Yes};

    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override
    {
        if (inputIsEmptyOrNull(sis.get()))
            return sis;
        for (auto const& frame : sis->images()) {
            auto* pixels = static_cast<float*>(frame->mem()->data());
            for (std::size_t i = 0; i < frame->mem()->valueCount(); ++i)
                pixels[i] += static_cast<float>(p_value.value());
        }
        return sis;
    }

protected:
    Specs getInverseSpecsImpl() const override
    {
        return Specs{"AddConstant", Properties{{"value", -p_value.value()}}, Phase::Always};
    }
};

std::unique_ptr<AddConstantOperation> addConstant(double value, std::string const& identifier = {})
{
    auto operation = std::make_unique<AddConstantOperation>();
    Properties properties{{"value", value}};
    if (!identifier.empty())
        properties.setParam("record_identifier", identifier);
    EXPECT_TRUE(operation->configure(properties));
    return operation;
}

std::unique_ptr<InverseOperation> inverse(std::string const& identifier)
{
    auto operation = std::make_unique<InverseOperation>();
    EXPECT_TRUE(operation->configure(Properties{{"target_identifier", identifier}}));
    return operation;
}

// Pixel values are small integers, so float sums are exact and can be compared with ==.
std::vector<float> pixels(DataItem const& item, std::string const& field)
{
    std::vector<float> values;
    for (auto const& frame : item.get<ImageElement>(field)->sis()->images()) {
        auto const* data = static_cast<float const*>(frame->mem()->data());
        values.insert(values.end(), data, data + frame->mem()->valueCount());
    }
    return values;
}

InversionComponent const* record(DataItem& item, std::string const& field)
{
    return item.get(field)->components().get<InversionComponent>();
}

// An item with two images and a target; AddConstant is registered in a factory of its own for
// the test and removed afterwards.
class Inversion : public ::testing::Test
{
protected:
    void SetUp() override
    {
        getSubOperationFactory(kTestFactory)
            .registerType<AddConstantOperation>("AddConstant", makeUniqueOperation<AddConstantOperation>);
        m_item.set("image", MLTest::makeSet(2));
        m_item.set("other", MLTest::makeSet(1));
        m_item.set("label", MLTest::makeSet(1));
        m_item.get("label")->tagAsTarget();
        m_original = pixels(m_item, "image");
    }
    void TearDown() override { operationFactoryRegistry().unregisterItem(kTestFactory); }

    DataItem m_item;
    std::vector<float> m_original;
};

TEST_F(Inversion, RecordHoldsTheInverseSpecsOfEachProcessedElementOnlyWithAnIdentifier)
{
    auto operation = addConstant(5);
    EXPECT_TRUE(operation->supportsInversion());
    operation->process(m_item);
    EXPECT_EQ(record(m_item, "image"), nullptr);
    // The bridge itself refuses, and does not leave an empty component behind.
    EXPECT_FALSE(recordOperationForInversion(*operation, m_item.get("image")));
    EXPECT_EQ(record(m_item, "image"), nullptr);

    addConstant(5, "shift")->process(m_item);
    for (char const* field : {"image", "other"}) {
        auto const* component = record(m_item, field);
        ASSERT_NE(component, nullptr) << field;
        auto const* info = component->getInversionInfo("shift");
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->operationName, "AddConstant");
        EXPECT_EQ(info->config.paramOr("value", 0.0), -5.0);
        EXPECT_FALSE(info->context.has_value());
    }
    // The policy kept the label out, so there is nothing to undo there.
    EXPECT_EQ(record(m_item, "label"), nullptr);
}

TEST_F(Inversion, InverseGivesTheInputBackAndRemovesTheRecord)
{
    std::vector<float> const label = pixels(m_item, "label");
    addConstant(5, "shift")->process(m_item);
    ASSERT_NE(pixels(m_item, "image"), m_original);

    auto undo = inverse("shift");
    int const level = Log::g_globalLevel;
    Log::g_globalLevel = Log::Debug;
    Log::Capture capture;
    undo->process(m_item);
    Log::g_globalLevel = level;
    EXPECT_EQ(capture.count("Popped inversion info for identifier 'shift' from element", "ML.Inverse"), 2);
    EXPECT_EQ(pixels(m_item, "image"), m_original);
    EXPECT_FALSE(record(m_item, "image")->hasInversion("shift"));
    EXPECT_FALSE(record(m_item, "other")->hasInversion("shift"));
    // Inverse has the policy Everything, yet the label, which the step never touched, stays.
    EXPECT_EQ(pixels(m_item, "label"), label);
    ASSERT_NE(undo->operationToInvert(), nullptr);
    EXPECT_EQ(undo->operationToInvert()->name(), "AddConstant");
    EXPECT_EQ(undo->inversionComponents().size(), 2U);
}

TEST_F(Inversion, TwoRunsOfOneIdentifierAreUndoneLastFirstAndOtherIdentifiersStay)
{
    addConstant(5, "shift")->process(m_item);
    addConstant(100, "shift")->process(m_item);
    addConstant(7, "other")->process(m_item);
    ASSERT_EQ(record(m_item, "image")->getAllInversionInfos("shift").size(), 2U);

    inverse("shift")->process(m_item);
    // The later run (+100) was undone; the earlier one is next.
    std::vector<float> expected = m_original;
    for (float& value : expected)
        value += 12.0F;
    EXPECT_EQ(pixels(m_item, "image"), expected);
    auto const* remaining = record(m_item, "image")->getInversionInfo("shift");
    ASSERT_NE(remaining, nullptr);
    EXPECT_EQ(remaining->config.paramOr("value", 0.0), -5.0);

    inverse("shift")->process(m_item);
    EXPECT_FALSE(record(m_item, "image")->hasInversion("shift"));
    EXPECT_TRUE(record(m_item, "image")->hasInversion("other"));
    inverse("other")->process(m_item);
    EXPECT_EQ(pixels(m_item, "image"), m_original);
}

TEST_F(Inversion, ApplyToOfTheInverseIsPassedOn)
{
    addConstant(5, "shift")->process(m_item);
    auto undo = std::make_unique<InverseOperation>();
    ASSERT_TRUE(undo->configure(Properties{{"target_identifier", "shift"},
                                           {"apply_to", std::vector<std::string>{"image"}},
                                           {"device", "ForceCPU"}}));
    undo->process(m_item);
    EXPECT_EQ(pixels(m_item, "image"), m_original);
    EXPECT_TRUE(record(m_item, "other")->hasInversion("shift"));
    auto inner = undo->operationToInvert();
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->applyTo(), std::optional<Operation::FieldSet>(Operation::FieldSet{"image"}));
    EXPECT_EQ(inner->computingDevice(), ComputingDevice::ForceCPU);
}

TEST_F(Inversion, SingleImageSetIsInvertedToo)
{
    auto set = MLTest::makeSet(1);
    std::vector<float> const before(static_cast<float const*>(set->images()[0]->mem()->data()),
                                    static_cast<float const*>(set->images()[0]->mem()->data()) + 27);
    auto shifted = addConstant(3, "id")->process(set);
    ASSERT_NE(shifted, nullptr);
    auto restored = inverse("id")->process(shifted);
    ASSERT_NE(restored, nullptr);
    auto const* data = static_cast<float const*>(restored->images()[0]->mem()->data());
    EXPECT_EQ(std::vector<float>(data, data + 27), before);
    EXPECT_FALSE(restored->components().get<InversionComponent>()->hasInversion("id"));
}

TEST_F(Inversion, MissingOrUnreachableRecordsFailAndUndoNothing)
{
    addConstant(5, "shift")->process(m_item);
    Log::Capture capture;
    MLTest::expectThrowWithMessage<OperationException>(
        [&] { inverse("missing")->process(m_item); },
        "[ML.Inverse] Failed to find operation with record identifier 'missing' to invert");
    EXPECT_TRUE(capture.contains(
        "No InversionComponent found with record identifier 'missing' in any processed elements",
        "ML.Inverse"));

    // A record outside the selection is not found.
    InverseOperation labelOnly;
    ASSERT_TRUE(labelOnly.configure(
        Properties{{"target_identifier", "shift"}, {"apply_to", std::vector<std::string>{"label"}}}));
    EXPECT_FALSE(labelOnly.setupInverseOperationByIdentifier(m_item, "shift"));
    EXPECT_EQ(labelOnly.operationToInvert(), nullptr);
    EXPECT_THROW(labelOnly.process(m_item), OperationException);
    EXPECT_TRUE(record(m_item, "image")->hasInversion("shift"));

    // A record of an operation that no factory knows.
    m_item.get<ImageElement>("other")->sis()->components().getOrCreate<InversionComponent>()->recordInversion(
        "ghost", Operation::Specs{"NoSuchOperation", Properties(), Phase::Always});
    EXPECT_THROW(inverse("ghost")->process(m_item), OperationException);
    EXPECT_TRUE(capture.contains("NoSuchOperation is not a registered operation", "ML.Operation"));
}

} // namespace
} // namespace Velmoria::ML

// What travels with the data about its processing: the inversion stack (lookups and pops by
// identifier from the end, the empty identifier, specs, the written form) and the processing
// record (every frame, stacking, and the recorder every operation runs after an element).

#include "ml/data/DataItem.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/operations/TestOperations.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <utility>

namespace Velmoria::ML {
namespace {

using Info = InversionComponent::InversionInfo;
using Entries = ProcessingRecordComponent::Entries;
using Entry = ProcessingRecordComponent::Entry;

Operation::Specs specs(std::string name, double value)
{
    return {std::move(name), Properties{{"value", value}}, Phase::Training};
}

// Two infos of "a" around one of "b": the usual shape of a stack with a repeated step.
InversionComponent stackOfThree()
{
    InversionComponent component;
    component.recordInversion("a", specs("First", 1));
    component.recordInversion("b", specs("Other", 2));
    component.recordInversion("a", specs("Second", 3), Properties{{"run", 2}});
    return component;
}

std::vector<std::string> operationNames(InversionComponent const& component)
{
    std::vector<std::string> names;
    for (Info const& info : component.infos())
        names.push_back(info.operationName);
    return names;
}

TEST(InversionComponent, LookupsAndPopsTakeTheLatestOfTheIdentifier)
{
    InversionComponent component = stackOfThree();
    EXPECT_TRUE(component.hasInversion("a"));
    EXPECT_FALSE(component.hasInversion("c"));
    EXPECT_EQ(component.getInversionInfo("a")->operationName, "Second");
    auto const all = std::as_const(component).getAllInversionInfos("a");
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0]->operationName, "First");
    // The non-const lookups let an operation add the context of its run.
    component.getInversionInfo("b")->context = Properties{{"x", 1}};
    EXPECT_TRUE(component.infos()[1].context.has_value());
    EXPECT_EQ(component.getAllInversionInfos("a").size(), 2U);

    auto const later = component.popInversionInfo("a");
    ASSERT_TRUE(later.has_value());
    EXPECT_EQ(later->operationName, "Second");
    EXPECT_EQ(later->context->paramOr("run", 0), 2);
    component.recordInversion("c", specs("Last", 4));
    ASSERT_TRUE(component.popInversionInfo("b").has_value());
    EXPECT_EQ(operationNames(component), (std::vector<std::string>{"First", "Last"}));
    EXPECT_EQ(component.popInversionInfo("a")->operationName, "First");
    EXPECT_FALSE(component.popInversionInfo("a").has_value());
    EXPECT_EQ(operationNames(component), std::vector<std::string>{"Last"});
}

TEST(InversionComponent, SpecsUndoInEveryPhaseAndAnEmptyIdentifierIsNotRecorded)
{
    InversionComponent component = stackOfThree();
    auto const inverse = component.inverseSpecs("b");
    ASSERT_TRUE(inverse.has_value());
    EXPECT_EQ(inverse->name, "Other");
    EXPECT_EQ(inverse->properties.paramOr("value", 0.0), 2.0);
    // Recorded for training only, undone in every phase.
    EXPECT_EQ(inverse->phase, Phase::Always);
    EXPECT_FALSE(component.inverseSpecs("c").has_value());

    component.recordInversion("", specs("X", 1));
    component.recordInversion("", specs("X", 1), Properties{{"a", 1}});
    component.recordInversion(Info{"X", "", Properties(), std::nullopt});
    EXPECT_EQ(component.infos().size(), 3U);
}

TEST(InversionComponent, InfosAndStacksCompareEveryPartInOrder)
{
    Info const base{"Op", "id", Properties{{"v", 1}}, std::nullopt};
    EXPECT_TRUE(base == (Info{"Op", "id", Properties{{"v", 1}}, std::nullopt}));
    // A context absent and one present (even empty) differ.
    for (Info const& other : {Info{"Other", "id", Properties{{"v", 1}}, std::nullopt},
                              Info{"Op", "other", Properties{{"v", 1}}, std::nullopt},
                              Info{"Op", "id", Properties{{"v", 2}}, std::nullopt},
                              Info{"Op", "id", Properties{{"v", 1}}, Properties()}}) {
        SCOPED_TRACE(other.operationName + " " + other.identifier);
        EXPECT_FALSE(base == other);
    }

    InversionComponent a;
    a.recordInversion("x", specs("X", 1));
    InversionComponent b;
    b.recordInversion("y", specs("Y", 1));
    EXPECT_NE(a + b, b + a);
    EXPECT_EQ((a + b).infos()[1].identifier, "y");
    a += a;
    EXPECT_EQ(a.getAllInversionInfos("x").size(), 2U);
}

TEST(InversionComponent, EmptyPartsAreNotWrittenAndNamelessInfosAreSkippedWithAnError)
{
    InversionComponent component;
    component.recordInversion(Info{"Undo", "id", Properties(), Properties()});
    Properties written;
    component.configuration(&written);
    Properties const* infoTree = written.findSubProperties("id");
    ASSERT_NE(infoTree, nullptr);
    EXPECT_EQ(infoTree->paramOr("operation_name", ""), "Undo");
    EXPECT_EQ(infoTree->findSubProperties("config"), nullptr);
    EXPECT_EQ(infoTree->findSubProperties("context"), nullptr);

    written.addSubProperties("broken")->addSubProperties("config")->setParam("v", 1);
    Log::Capture capture;
    InversionComponent read;
    read.configure(&written);
    ASSERT_EQ(read.infos().size(), 1U);
    EXPECT_TRUE(read.infos()[0].config.isEmpty());
    // An empty context is not written, so it reads back as none.
    EXPECT_FALSE(read.infos()[0].context.has_value());
    EXPECT_TRUE(capture.contains("No operation_name found for inversion info 'broken'. Skipping.",
                                 "ML.InversionComponent"));
}

// ---- The processing record -------------------------------------------------------------------

TEST(ProcessingRecord, RecordsOnEveryFrameInOrderAndNothingWithoutFrames)
{
    MLTest::AddOneOperation operation;
    ASSERT_TRUE(operation.configure(Properties{{"amount", 2.5}}));
    ProcessingRecordComponent record(std::vector<Entries>(3));
    record.recordProcessing("Clip", Properties{{"min", 0}});
    record.recordProcessing(operation);
    ASSERT_EQ(record.frameCount(), 3U);
    for (std::size_t frame = 0; frame < 3; ++frame) {
        Entries const entries = record[frame];
        ASSERT_EQ(entries.size(), 2U);
        EXPECT_EQ(entries[0].name, "Clip");
        EXPECT_EQ(entries[0].config.paramOr("min", -1), 0);
        EXPECT_EQ(entries[1].name, "AddOne");
        EXPECT_TRUE(entries[1].config == operation.configuration());
    }
    EXPECT_TRUE(record[3].empty());

    ProcessingRecordComponent frameless;
    frameless.recordProcessing("Clip", Properties{{"min", 0}});
    frameless.recordProcessing(operation);
    EXPECT_EQ(frameless.frameCount(), 0U);
}

// Entries are equal only when every aspect of the trees is: a changed attribute or order counts.
TEST(ProcessingRecord, EntriesDifferWhenTheirTreesDiffer)
{
    Properties const base{{"a", 1}, {"b", 2}};
    Entry const entry{"Op", base};
    EXPECT_TRUE(entry == (Entry{"Op", base}));
    EXPECT_FALSE(entry == (Entry{"Other", base}));
    Properties withAttribute = base;
    withAttribute.setParamAttributes("a", "hidden: 1");
    for (Properties const& other : {Properties{{"a", 1}, {"b", 3}}, Properties{{"b", 2}, {"a", 1}},
                                    withAttribute, Properties{{"a", 1}}}) {
        SCOPED_TRACE(other.describe());
        EXPECT_FALSE(entry == (Entry{"Op", other}));
    }
}

TEST(ProcessingRecord, StackingAppendsFramesInOrder)
{
    ProcessingRecordComponent first(std::vector<Entries>(1));
    first.recordProcessing("A", Properties());
    ProcessingRecordComponent second(std::vector<Entries>(2));
    second.recordProcessing("B", Properties());

    ProcessingRecordComponent const sum = first + second;
    ASSERT_EQ(sum.frameCount(), 3U);
    EXPECT_EQ(sum[0][0].name, "A");
    EXPECT_EQ(sum[2][0].name, "B");
    EXPECT_EQ(first.frameCount(), 1U); // + copies

    ProcessingRecordComponent const more = first + Entries{{"C", Properties()}};
    ASSERT_EQ(more.frameCount(), 2U);
    EXPECT_EQ(more[1][0].name, "C");

    first += first;
    EXPECT_EQ(first.frameCount(), 2U);
    EXPECT_EQ(first[1][0].name, "A");
}

// Installs the recorder for the test and puts back what was there.
class ProcessingRecordHook : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_before = Operation::processingRecordHook();
        ProcessingRecordComponent::installProcessingRecordHook();
    }
    void TearDown() override { Operation::setProcessingRecordHook(m_before); }

private:
    Operation::RecordHookFunction m_before = nullptr;
};

TEST_F(ProcessingRecordHook, EveryProcessedElementRecordsEachOperationPerFrame)
{
    DataItem item;
    item.set("image", MLTest::makeSet(2));
    item.set("label", MLTest::makeSet(2));
    item.get("label")->tagAsTarget();

    MLTest::AddOneOperation first;
    MLTest::AddOneOperation second;
    ASSERT_TRUE(second.configure(Properties{{"amount", 3.0}}));
    first.process(item);
    second.process(item);

    auto const* record = item.get("image")->components().get<ProcessingRecordComponent>();
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(record->frameCount(), 2U);
    for (std::size_t frame = 0; frame < 2; ++frame) {
        ASSERT_EQ((*record)[frame].size(), 2U);
        EXPECT_TRUE((*record)[frame][0].config == first.configuration());
        EXPECT_TRUE((*record)[frame][1].config == second.configuration());
    }
    // The label was left alone by the policy, so nothing was recorded on it.
    EXPECT_EQ(item.get("label")->components().get<ProcessingRecordComponent>(), nullptr);
    EXPECT_NO_THROW(ProcessingRecordComponent::recordProcessingHook(first, nullptr));
}

TEST_F(ProcessingRecordHook, KeypointsAreRecordedPerSampleAndAnExistingRecordKeepsItsFrames)
{
    DataItem item;
    item.set("kpts", MLTest::makeKeypoints());
    MLTest::ShiftPointsOperation shift;
    shift.process(item);
    auto const* record = item.get("kpts")->components().get<ProcessingRecordComponent>();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->frameCount(), item.get("kpts")->batchSize());
    EXPECT_EQ((*record)[0].front().name, "ShiftPoints");

    auto set = MLTest::makeSet(2);
    set->components().add(std::make_unique<ProcessingRecordComponent>(std::vector<Entries>(1)));
    DataItem images;
    images.set("image", set);
    MLTest::AddOneOperation addOne;
    addOne.process(images);
    record = set->components().get<ProcessingRecordComponent>();
    ASSERT_EQ(record->frameCount(), 1U);
    EXPECT_EQ((*record)[0].size(), 1U);
}

} // namespace
} // namespace Velmoria::ML

// The processing record: appending to every frame, stacking records, the frame-less record, and
// the recorder every operation runs after an element was processed.

#include "ml/data/components/ProcessingRecordComponent.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/operations/TestOperations.h"

#include <gtest/gtest.h>

namespace Velmoria::ML {
namespace {

using Entries = ProcessingRecordComponent::Entries;

TEST(ProcessingRecord, RecordsOnEveryFrameInOrder)
{
    ProcessingRecordComponent record(std::vector<Entries>(3));
    record.recordProcessing("Clip", Properties{{"min", 0}});
    record.recordProcessing("Sigmoid", Properties());
    ASSERT_EQ(record.frameCount(), 3U);
    for (std::size_t frame = 0; frame < 3; ++frame) {
        Entries const entries = record[frame];
        ASSERT_EQ(entries.size(), 2U);
        EXPECT_EQ(entries[0].name, "Clip");
        EXPECT_EQ(entries[0].config.paramOr("min", -1), 0);
        EXPECT_EQ(entries[1].name, "Sigmoid");
    }
    EXPECT_TRUE(record[3].empty());
}

TEST(ProcessingRecord, WithoutFramesRecordsAndWritesNothing)
{
    ProcessingRecordComponent record;
    record.recordProcessing("Clip", Properties{{"min", 0}});
    MLTest::AddOneOperation operation;
    record.recordProcessing(operation);
    EXPECT_EQ(record.frameCount(), 0U);
    Properties written;
    record.configuration(&written);
    EXPECT_TRUE(written.isEmpty());
}

TEST(ProcessingRecord, OperationIsRecordedWithItsCurrentConfiguration)
{
    MLTest::AddOneOperation operation;
    ASSERT_TRUE(operation.configure(Properties{{"amount", 2.5}}));
    ProcessingRecordComponent record(std::vector<Entries>(1));
    record.recordProcessing(operation);
    ASSERT_EQ(record[0].size(), 1U);
    EXPECT_EQ(record[0][0].name, "AddOne");
    EXPECT_TRUE(record[0][0].config == operation.configuration());
    EXPECT_EQ(record[0][0].config.paramOr("amount", 0.0), 2.5);
}

// Entries are equal only when every aspect of the trees is: a changed attribute or order counts.
struct EntryDifference
{
    char const* what;
    Properties other;
};

class EntryEquality : public ::testing::TestWithParam<EntryDifference>
{};

TEST_P(EntryEquality, DiffersWhenTheTreesDiffer)
{
    Properties base{{"a", 1}, {"b", 2}};
    ProcessingRecordComponent::Entry const entry{"Op", base};
    EXPECT_TRUE(entry == (ProcessingRecordComponent::Entry{"Op", base}));
    EXPECT_FALSE(entry == (ProcessingRecordComponent::Entry{"Other", base}));
    EXPECT_FALSE(entry == (ProcessingRecordComponent::Entry{"Op", GetParam().other})) << GetParam().what;
}

Properties withAttribute()
{
    Properties p{{"a", 1}, {"b", 2}};
    p.setParamAttributes("a", "hidden: 1");
    return p;
}

INSTANTIATE_TEST_SUITE_P(Differences, EntryEquality,
                         ::testing::Values(EntryDifference{"value", Properties{{"a", 1}, {"b", 3}}},
                                           EntryDifference{"order", Properties{{"b", 2}, {"a", 1}}},
                                           EntryDifference{"attribute", withAttribute()},
                                           EntryDifference{"missing key", Properties{{"a", 1}}}));

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

// ---- The recorder ------------------------------------------------------------------------------

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
}

TEST_F(ProcessingRecordHook, NonImageElementsAreRecordedPerSample)
{
    DataItem item;
    item.set("kpts", MLTest::makeKeypoints());
    MLTest::ShiftPointsOperation operation;
    operation.process(item);
    auto const* record = item.get("kpts")->components().get<ProcessingRecordComponent>();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->frameCount(), item.get("kpts")->batchSize());
    EXPECT_EQ((*record)[0].front().name, "ShiftPoints");
}

TEST_F(ProcessingRecordHook, ExistingRecordKeepsItsFrames)
{
    auto set = MLTest::makeSet(2);
    set->components().add(std::make_unique<ProcessingRecordComponent>(std::vector<Entries>(1)));
    DataItem item;
    item.set("image", set);
    MLTest::AddOneOperation operation;
    operation.process(item);
    auto const* record = set->components().get<ProcessingRecordComponent>();
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(record->frameCount(), 1U);
    EXPECT_EQ((*record)[0].size(), 1U);
}

TEST_F(ProcessingRecordHook, NullElementIsIgnored)
{
    MLTest::AddOneOperation operation;
    EXPECT_NO_THROW(ProcessingRecordComponent::recordProcessingHook(operation, nullptr));
}

} // namespace
} // namespace Velmoria::ML

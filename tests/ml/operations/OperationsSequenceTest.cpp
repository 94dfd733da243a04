// OperationsSequence: phases, the failure contract (code 2, emptied item, a message naming every
// operation and the failing index), construction from specs, and seeds.

#include "ml/operations/OperationsSequence.h"

#include "TestOperations.h"
#include "ml/data/SISBasedElement.h"
#include "ml/operations/OperationException.h"
#include "ml/operations/OperationFactory.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::MLTest;

namespace {

class FailOperation : public Operation
{
public:
    FailOperation()
        : Operation("Fail", ProcessingPolicy::Everything)
    {}
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet>) const override
    {
        throwOperationError("deliberate failure");
    }
};

// Adds a uniform random number from its own generator to the first pixel.
class RandomShiftOperation : public Operation
{
public:
    RandomShiftOperation()
        : Operation("RandomShift", ProcessingPolicy::Everything)
    {}
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override
    {
        static_cast<float*>(sis->mem(0)->data())[0] +=
            static_cast<float>(randomGenerator().getUniformReal(0.0, 1.0));
        return sis;
    }
};

DataItem imageItem()
{
    DataItem item;
    item.set("image", makeSet(1));
    return item;
}

float firstPixel(DataItem& item)
{
    return firstValue(*item.get<SISBasedElement>("image")->sis()->get(0));
}

std::shared_ptr<Operation> addOne()
{
    return std::make_shared<AddOneOperation>();
}

} // namespace

TEST(OperationsSequence, EmptySequenceSucceedsAndANullOperationCannotBeAdded)
{
    OperationsSequence sequence;
    DataItem item = imageItem();
    EXPECT_FALSE(sequence.process(item, Phase::Inference).has_value());
    EXPECT_EQ(firstPixel(item), 0.0f);
    EXPECT_TRUE(sequence.doesNotModifyInput());

    auto error = sequence.addOperation(nullptr, Phase::Always);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, 1u);
    EXPECT_EQ(error->message, "Cannot add invalid Operation instance");
    EXPECT_TRUE(sequence.operations().empty());
}

TEST(OperationsSequence, OperationsRunOnlyWhenTheirPhasesMeetTheRun)
{
    struct Case
    {
        Phase entry;
        Phase run;
        bool runs;
    };
    for (Case const& c :
         {Case{Phase::Training, Phase::Inference, false}, Case{Phase::Always, Phase::Inference, true},
          Case{Phase::Training | Phase::Validation, Phase::Validation, true},
          Case{Phase::Training | Phase::Validation, Phase::Inference, false},
          Case{Phase::Inference, Phase::Inference, true}}) {
        OperationsSequence sequence;
        ASSERT_FALSE(sequence.addOperation(addOne(), c.entry).has_value());
        DataItem item = imageItem();
        EXPECT_FALSE(sequence.process(item, c.run).has_value());
        EXPECT_EQ(firstPixel(item), c.runs ? 1.0f : 0.0f)
            << phaseToString(c.entry) << " in " << phaseToString(c.run);
    }
}

TEST(OperationsSequence, FailureClearsTheItemAndNamesEveryOperation)
{
    OperationsSequence sequence;
    sequence.addOperation(addOne(), Phase::Always);
    sequence.addOperation(std::make_shared<FailOperation>(), Phase::Always);
    auto third = std::make_shared<AddOneOperation>();
    sequence.addOperation(third, Phase::Always);

    DataItem item = imageItem();
    auto error = sequence.process(item, Phase::Training);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, 2u);
    EXPECT_TRUE(item.empty());
    EXPECT_EQ(
        error->message,
        "In OperationsSequence: [(0: AddOne), (1: Fail), (2: AddOne), ] Error at operation 1: [ML.Fail] "
        "deliberate failure");
}

TEST(OperationsSequence, ConstructionStopsAtAnUnknownNameAndKeepsWhatCameBefore)
{
    getCppOperationFactory().registerType<AddOneOperation>("SequenceTestAddOne",
                                                           makeUniqueOperation<AddOneOperation>);
    Properties amount;
    amount.setParam("amount", 2.0);
    std::vector<Operation::Specs> specs = {{"SequenceTestAddOne", amount, Phase::Always},
                                           {"NoSuchOperation", Properties(), Phase::Always},
                                           {"SequenceTestAddOne", Properties(), Phase::Always}};
    Log::Capture capture;
    OperationsSequence sequence(specs);
    ASSERT_TRUE(sequence.error().has_value());
    EXPECT_EQ(sequence.error()->message, "Cannot add invalid Operation instance");
    EXPECT_EQ(sequence.getOperationNames(), (std::vector<std::string>{"AddOne"}));
    EXPECT_TRUE(capture.contains("Cannot add invalid Operation instance", "ML.OperationsSequence"));

    DataItem item = imageItem();
    EXPECT_FALSE(sequence.process(item, Phase::Inference).has_value());
    EXPECT_EQ(firstPixel(item), 2.0f) << "the configured operation ran with its configuration";
}

TEST(OperationsSequence, SeedsRepeatAugmentations)
{
    OperationsSequence sequence;
    sequence.addOperation(std::make_shared<RandomShiftOperation>(), Phase::Always);
    {
        Log::Capture capture;
        sequence.setOperationSeeds(7);
        EXPECT_TRUE(capture.records().empty()) << "operations without a seed are seeded silently";
    }
    auto run = [&] {
        DataItem item = imageItem();
        sequence.process(item, Phase::Training);
        return firstPixel(item);
    };
    float first = run();
    float second = run();
    EXPECT_NE(first, second) << "the stream goes on between runs";
    sequence.resetOperationSeeds();
    EXPECT_EQ(run(), first);
    EXPECT_EQ(run(), second);

    Log::Capture capture;
    sequence.setOperationSeeds(8);
    EXPECT_TRUE(capture.contains(
        "setOperationSeeds: RandomShift was already seeded with a different value - overriding!",
        "ML.OperationsSequence"));
    EXPECT_TRUE(capture.contains("Operations seeds were reset.", "ML.OperationsSequence"));
}

TEST(OperationsSequence, SettersReachEveryOperationAndImagesCanBeProcessedDirectly)
{
    OperationsSequence sequence;
    auto a = std::make_shared<AddOneOperation>();
    auto b = std::make_shared<AddOneOperation>();
    sequence.addOperation(a, Phase::Always);
    sequence.addOperation(b, Phase::Training);
    sequence.setOperationsComputingDevice(ComputingDevice::ForceCPU);
    sequence.setErrorOnUnexpectedBehaviour(true);
    for (auto const& operation : sequence.operations()) {
        EXPECT_EQ(operation->computingDevice(), ComputingDevice::ForceCPU);
        EXPECT_TRUE(operation->errorOnUnexpectedBehaviour());
    }
    EXPECT_EQ(sequence.phases(), (std::vector<Phase>{Phase::Always, Phase::Training}));
    EXPECT_FALSE(sequence.doesNotModifyInput());

    // The image conveniences read image and label back; the label is not a target here, so it is
    // processed; b is for training only, so only a runs.
    sequence.setErrorOnUnexpectedBehaviour(false);
    auto [outImage, outLabel] = sequence.process(makeSet(1), makeSet(1), Phase::Inference);
    ASSERT_NE(outImage, nullptr);
    ASSERT_NE(outLabel, nullptr);
    EXPECT_EQ(firstValue(*outImage->get(0)), 1.0f);
    EXPECT_EQ(firstValue(*outLabel->get(0)), 1.0f);
    EXPECT_EQ(sequence.process(makeSet(1), Phase::Always)->size(), 1);
}

// Tests of the operation framework. The Operation base class: which fields an item's elements
// reach (policy, apply_to, missing fields), the dispatch to the typed virtuals and its refusals,
// hooks, the one-element conveniences, configure/configuration with their messages, seeding, and
// the GPU decision. OperationsSequence: phases, the failure contract (code 2, emptied item, a
// message naming every operation and the failing index), construction from specs, and seeds.
// Inversion end to end: an invertible operation run with "record_identifier" records how to undo
// itself on each element it processes, and "Inverse" with the same identifier undoes it and
// removes the record.

#include "TestOperations.h"
#include "ml/TestHelpers.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/SISBasedElement.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/operations/InvertibleOperation.h"
#include "ml/operations/OperationException.h"
#include "ml/operations/OperationFactory.h"
#include "ml/operations/OperationInversionBridge.h"
#include "ml/operations/OperationsSequence.h"
#include "ml/operations/catalogue/InverseOperation.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::MLTest;

namespace {

using Policy = Operation::ProcessingPolicy;

template <class Function>
std::string exceptionText(Function&& function)
{
    try {
        function();
    } catch (OperationException const& e) {
        return e.what();
    }
    return "<no OperationException>";
}

float pixel(DataItem& item, std::string const& field)
{
    return firstValue(*item.get<SISBasedElement>(field)->sis()->get(0));
}

// Names of the fields whose elements reached the operation, in the order they did.
std::vector<std::string> processedFields(Operation& operation, DataItem& item)
{
    std::vector<std::string> names;
    operation.preProcessHooks().push_back([&](Operation&, DataElement* element) {
        for (auto const& [name, candidate] : item.elements())
            if (candidate.get() == element)
                names.push_back(name);
    });
    operation.process(item);
    operation.preProcessHooks().clear();
    return names;
}

// ---- Selection: policy x targets x apply_to ---------------------------------------------------

struct SelectionCase
{
    std::string label;
    Policy policy;
    std::optional<Operation::FieldSet> applyTo;
    std::vector<std::string> expected;
};

class SelectionTest : public ::testing::TestWithParam<SelectionCase>
{};

TEST_P(SelectionTest, ProcessesExactlyTheSelectedFieldsInItemOrder)
{
    SelectionCase const& c = GetParam();
    PassOperation operation(c.policy);
    operation.setApplyTo(c.applyTo);
    DataItem item = makeFullItem();
    Log::Capture capture;
    EXPECT_EQ(processedFields(operation, item), c.expected);
    EXPECT_TRUE(capture.messages(Log::Warning).empty());
}

using Fields = std::vector<std::string>;

INSTANTIATE_TEST_SUITE_P(
    PolicyAndApplyTo, SelectionTest,
    ::testing::Values(
        // Every field of makeFullItem() in item order.
        SelectionCase{"Everything", Policy::Everything, std::nullopt,
                      Fields{"image", "vector", "label", "kpts", "boxes", "tensor", "label_kpts"}},
        SelectionCase{"EverythingButLabels", Policy::EverythingButLabels, std::nullopt,
                      Fields{"image", "vector", "kpts", "boxes", "tensor"}},
        SelectionCase{"OnlyLabels", Policy::OnlyLabels, std::nullopt, Fields{"label", "label_kpts"}},
        SelectionCase{"ApplyToLabelOverridesEverythingButLabels", Policy::EverythingButLabels,
                      Operation::FieldSet{"label"}, Fields{"label"}},
        SelectionCase{"ApplyToInputOverridesOnlyLabels", Policy::OnlyLabels,
                      Operation::FieldSet{"tensor", "image"}, Fields{"image", "tensor"}},
        SelectionCase{"ApplyToSubsetUnderEverything", Policy::Everything,
                      Operation::FieldSet{"boxes", "kpts"}, Fields{"kpts", "boxes"}}),
    [](auto const& info) { return info.param.label; });

TEST(OperationSelection, AllLabelsUnderEverythingButLabelsWarnsAndChangesNothing)
{
    AddOneOperation operation;
    DataItem item;
    item.set("label", makeSet(1));
    item.get("label")->tagAsTarget();
    float const before = pixel(item, "label");

    std::string const text =
        "Operation will not be applied to any field. Probably the operation expects a field to be tagged as "
        "Label but it's not. If that's the case, please use MarkAsLabelOperation on the field of interest.";
    Log::Capture capture;
    operation.process(item);
    EXPECT_TRUE(capture.contains(text, "ML.AddOne"));
    EXPECT_EQ(pixel(item, "label"), before);

    operation.setErrorOnUnexpectedBehaviour(true);
    EXPECT_EQ(exceptionText([&] { operation.process(item); }), "[ML.AddOne] " + text);
    EXPECT_EQ(pixel(item, "label"), before);
}

TEST(OperationSelection, MissingFieldIsWarnedAboutOrInErrorModeThrowsBeforeAnythingIsProcessed)
{
    AddOneOperation operation;
    operation.setApplyTo(Operation::FieldSet{"image", "nowhere", "absent"});
    DataItem item = makeFullItem();
    float const before = pixel(item, "image");

    Log::Capture capture;
    operation.process(item);
    EXPECT_EQ(pixel(item, "image"), before + 1.0F);
    std::string const text =
        "Cannot execute operation on fields 'absent,nowhere' because they do not exist in "
        "input data item. Input fields are [image,vector,label,kpts,boxes,tensor,label_kpts].";
    EXPECT_TRUE(capture.contains(text, "ML.AddOne"));

    operation.setErrorOnUnexpectedBehaviour(true);
    EXPECT_EQ(exceptionText([&] { operation.process(item); }), "[ML.AddOne] " + text);
    EXPECT_EQ(pixel(item, "image"), before + 1.0F);
}

// ---- Dispatch ---------------------------------------------------------------------------------

TEST(OperationDispatch, ImagesAndVectorsReachTheirVirtualsAndUnimplementedKindsAreRefused)
{
    AddOneOperation operation;
    DataItem item;
    item.set("image", makeSet(2));
    item.set("vector", makeVectorSet(2));
    item.set("label", makeSet(2));
    item.get("label")->tagAsTarget();
    float const image = pixel(item, "image");
    float const vector = pixel(item, "vector");
    float const label = pixel(item, "label");
    auto const* imageSet = item.get<SISBasedElement>("image")->sis().get();

    operation.process(item);
    EXPECT_EQ(pixel(item, "image"), image + 1.0F);
    EXPECT_EQ(pixel(item, "vector"), vector + 1.0F);
    EXPECT_EQ(pixel(item, "label"), label);
    // Content is handed over, not copied: the element holds the same set as before.
    EXPECT_EQ(item.get<SISBasedElement>("image")->sis().get(), imageSet);

    // An operation without processPoints refuses keypoints even under Everything.
    operation.setProcessingPolicy(Policy::Everything);
    item.set("kpts", makeKeypoints());
    EXPECT_EQ(exceptionText([&] { operation.process(item); }),
              "[ML.AddOne] Not implemented for points data elements");

    // Kept out through apply_to, the same item processes.
    operation.setApplyTo(Operation::FieldSet{"image"});
    EXPECT_NO_THROW(operation.process(item));
}

TEST(OperationDispatch, BaseVirtualsThrowNamingTheOperationAndTheElementKind)
{
    NothingOperation operation;
    std::vector<std::pair<std::string, std::function<void(DataItem&)>>> const kinds = {
        {"image", [](DataItem& item) { item.set("x", makeSet(1)); }},
        {"vector", [](DataItem& item) { item.set("x", makeVectorSet(1)); }},
        {"boxes", [](DataItem& item) { item.set("x", makeBoxes()); }},
        {"points", [](DataItem& item) { item.set("x", makeKeypoints()); }},
        {"tensor", [](DataItem& item) { item.set("x", makeTensors()); }}};
    for (auto const& [kind, fill] : kinds) {
        DataItem item;
        fill(item);
        EXPECT_EQ(exceptionText([&] { operation.process(item); }),
                  "[ML.Nothing] Not implemented for " + kind + " data elements");
    }
}

TEST(OperationDispatch, RequiredTypesMissingOrWrongThrowAndLogTheField)
{
    AddOneOperation operation;
    DataItem item;
    item.set("image", makeSet(1));
    item.set("score", makeVectorSet(1));

    operation.setRequiredItemsTypes({{"image", ElementType::Image}, {"score", ElementType::Vector}});
    EXPECT_TRUE(operation.checkRequiredItemsTypes(item));

    operation.setRequiredItemsTypes({{"mask", ElementType::Image}});
    {
        Log::Capture capture;
        EXPECT_EQ(exceptionText([&] { operation.process(item); }),
                  "Input data item does not have the required types");
        EXPECT_TRUE(capture.contains("Required field 'mask' missing.", "ML.AddOne"));
    }

    operation.setRequiredItemsTypes({{"image", ElementType::Vector}});
    Log::Capture capture;
    EXPECT_FALSE(operation.checkRequiredItemsTypes(item));
    EXPECT_TRUE(
        capture.contains("Required field 'image' must be of type '3', but found '0' instead.", "ML.AddOne"));
}

// ---- Hooks ------------------------------------------------------------------------------------

TEST(OperationHooks, RunInOrderAroundEachElementAndOneShotListsEmptyAfterwardsUnlessProcessingThrows)
{
    PassOperation operation;
    std::vector<std::string> calls;
    auto hook = [&](std::string tag) {
        return [&calls, tag](Operation& op, DataElement* element) {
            calls.push_back(tag + ":" + std::to_string(static_cast<int>(element->type())) + ":" + op.name());
        };
    };
    operation.preProcessHooks().push_back(hook("pre"));
    operation.oneShotPreProcessHooks().push_back(hook("pre1"));
    operation.postProcessHooks().push_back(hook("post"));
    operation.oneShotPostProcessHooks().push_back(hook("post1"));

    DataItem item;
    item.set("image", makeSet(1));
    item.set("kpts", makeKeypoints());
    operation.process(item);
    EXPECT_EQ(calls, (std::vector<std::string>{"pre:0:Pass", "pre1:0:Pass", "post:0:Pass", "post1:0:Pass",
                                               "pre:2:Pass", "pre1:2:Pass", "post:2:Pass", "post1:2:Pass"}));
    EXPECT_TRUE(operation.oneShotPreProcessHooks().empty());
    EXPECT_TRUE(operation.oneShotPostProcessHooks().empty());
    EXPECT_EQ(operation.preProcessHooks().size(), 1U);
    EXPECT_EQ(operation.postProcessHooks().size(), 1U);

    calls.clear();
    operation.process(item);
    EXPECT_EQ(calls.size(), 4U);

    NothingOperation throwing;
    throwing.oneShotPreProcessHooks().push_back([](Operation&, DataElement*) {});
    EXPECT_THROW(throwing.process(item), OperationException);
    EXPECT_EQ(throwing.oneShotPreProcessHooks().size(), 1U);
}

// ---- One-element conveniences -------------------------------------------------------------------

TEST(OperationSingleElement, ImageSetIsProcessedWhateverThePolicyAndApplyToIsRestored)
{
    AddOneOperation operation;
    operation.setProcessingPolicy(Policy::OnlyLabels);
    auto sis = makeSet(2);
    float const before = firstValue(*sis->get(1));

    auto result = operation.process(sis);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(firstValue(*result->get(1)), before + 1.0F);
    EXPECT_FALSE(operation.applyTo().has_value());

    operation.setApplyTo(Operation::FieldSet{"image", "other"});
    EXPECT_NE(operation.process(makeVectorSet(1)), nullptr);
    EXPECT_EQ(operation.applyTo(), (Operation::FieldSet{"image", "other"}));

    // Also when the operation throws.
    NothingOperation nothing;
    EXPECT_THROW(nothing.process(makeSet(1)), OperationException);
    EXPECT_FALSE(nothing.applyTo().has_value());
}

TEST(OperationSingleElement, NullOrEmptyInputGivesNullWithAnErrorAndAUniqueSetGivesANewSet)
{
    AddOneOperation operation;
    Log::Capture capture;
    EXPECT_EQ(operation.process(std::shared_ptr<SharedImageSet>()), nullptr);
    EXPECT_EQ(operation.process(std::make_shared<SharedImageSet>()), nullptr);
    EXPECT_EQ(capture.count("Invalid or empty input", "ML.Operation"), 2);
    EXPECT_EQ(operation.process(std::unique_ptr<SharedImageSet>()), nullptr);

    ShiftPointsOperation points;
    EXPECT_EQ(points.process(std::shared_ptr<KeypointSet>()), nullptr);
    EXPECT_EQ(points.process(std::shared_ptr<BoundingBoxSet>()), nullptr);
    EXPECT_EQ(capture.count("Invalid input", "ML.Operation"), 2);

    auto input = std::unique_ptr<SharedImageSet>(makeSet(1)->clone(SharedImageSet::CloneOption::ShareFrames));
    auto const* frame = input->get(0);
    float const before = firstValue(*frame);
    auto result = operation.process(std::move(input));
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->get(0), frame);
    EXPECT_EQ(firstValue(*result->get(0)), before + 1.0F);
}

TEST(OperationSingleElement, KeypointsAndBoxesGoThroughTheirVirtuals)
{
    ShiftPointsOperation operation;
    auto points = operation.process(makeKeypoints());
    ASSERT_NE(points, nullptr);
    EXPECT_EQ(points->keypoints()[0][0][1], Eigen::Vector3d(5, 5, 6));

    // An empty set is valid input.
    auto empty = operation.process(std::make_shared<KeypointSet>());
    ASSERT_NE(empty, nullptr);
    EXPECT_TRUE(empty->empty());

    EXPECT_EQ(exceptionText([&] { operation.process(makeBoxes()); }),
              "[ML.ShiftPoints] Not implemented for boxes data elements");
    PassOperation pass;
    auto boxes = makeBoxes();
    EXPECT_EQ(pass.process(boxes), boxes);
}

// ---- Warnings -----------------------------------------------------------------------------------

TEST(OperationWarnings, SameTextLogsOnceAndThrowsEveryTimeInErrorMode)
{
    AddOneOperation operation;
    Log::Capture capture;
    operation.warnOperationUnexpectedBehaviour("odd");
    operation.warnOperationUnexpectedBehaviour("odd");
    operation.warnOperationUnexpectedBehaviour("other");
    EXPECT_EQ(capture.count("odd", "ML.AddOne"), 1);
    EXPECT_EQ(capture.count("other", "ML.AddOne"), 1);

    operation.setErrorOnUnexpectedBehaviour(true);
    EXPECT_EQ(exceptionText([&] { operation.warnOperationUnexpectedBehaviour("odd"); }), "[ML.AddOne] odd");
    EXPECT_EQ(exceptionText([&] { operation.warnOperationUnexpectedBehaviour("new"); }), "[ML.AddOne] new");
    EXPECT_EQ(capture.count("odd", "ML.AddOne"), 1);
    EXPECT_EQ(capture.count("new", "ML.AddOne"), 1);
}

// ---- configure ------------------------------------------------------------------------------------

class OperationConfigure : public ::testing::Test
{
protected:
    AddOneOperation operation;
    Log::Capture capture;
};

TEST_F(OperationConfigure, BaseKeysAndParametersAreRead)
{
    Properties p{{"device", "force_cpu"},
                 {"seed", 12},
                 {"processing_policy", 2},
                 {"error_on_unexpected_behaviour", "True"},
                 {"record_identifier", "step1"},
                 {"amount", 2.5},
                 {"unit", "voxel"}};
    p.setParam("apply_to", std::vector<std::string>{"a", "b"});
    EXPECT_TRUE(operation.configure(p)) << p.describe();
    EXPECT_EQ(operation.computingDevice(), ComputingDevice::ForceCPU);
    EXPECT_EQ(operation.seed(), 12U);
    EXPECT_EQ(operation.processingPolicy(), Policy::OnlyLabels);
    EXPECT_TRUE(operation.errorOnUnexpectedBehaviour());
    EXPECT_EQ(operation.recordIdentifier(), "step1");
    EXPECT_EQ(operation.applyTo(), (Operation::FieldSet{"a", "b"}));
    EXPECT_EQ(operation.p_amount.value(), 2.5);
    EXPECT_EQ(operation.p_unit.value(), ParamUnit::Voxel);
    EXPECT_TRUE(capture.records().empty());

    // A second call changes only what it names.
    EXPECT_TRUE(operation.configure(Properties{{"amount", 4}}));
    EXPECT_EQ(operation.p_amount.value(), 4.0);
    EXPECT_EQ(operation.processingPolicy(), Policy::OnlyLabels);
    EXPECT_EQ(operation.recordIdentifier(), "step1");
}

TEST_F(OperationConfigure, UnknownKeyIsAWarningThenAnErrorWhenErrorModeIsInTheSameTree)
{
    std::string const warning =
        "Parameter 'bogus' was specified but not used during the configuration of the operation.";
    EXPECT_TRUE(operation.configure(Properties{{"bogus", 1}, {"amount", 3}}));
    EXPECT_TRUE(capture.contains(warning, "ML.AddOne"));
    EXPECT_EQ(operation.p_amount.value(), 3.0);

    AddOneOperation strict;
    EXPECT_FALSE(strict.configure(Properties{{"bogus", 1}, {"error_on_unexpected_behaviour", true}}));
    EXPECT_TRUE(capture.contains("Could not configure operation: [ML.AddOne] " + warning, "ML.Operation"));
}

TEST_F(OperationConfigure, BaseKeysDeprecatedNamesAndManualParametersAreNotUnknown)
{
    Properties p{{"apply_to_label", "x"}, {"phase", "Training"}, {"value", 7}};
    EXPECT_TRUE(operation.configure(p));
    EXPECT_EQ(operation.p_amount.value(), 7.0);
    EXPECT_FALSE(capture.containsFragment("was specified but not used"));
    EXPECT_TRUE(
        capture.contains("Using deprecated parameter 'value'. Please use: 'amount' instead.", "ML.AddOne"));

    // A manually configured parameter's key is accepted and left to the subclass.
    operation.setManuallyConfiguredParameters({&operation.p_amount});
    EXPECT_TRUE(operation.configure(Properties{{"amount", 9}}));
    EXPECT_EQ(operation.p_amount.value(), 7.0);
    EXPECT_FALSE(capture.containsFragment("was specified but not used"));
}

TEST_F(OperationConfigure, PolicyByNameOrNumberAndTheDeprecatedProcessLabel)
{
    EXPECT_TRUE(operation.configure(Properties{{"process_label", 1}}));
    EXPECT_EQ(operation.processingPolicy(), Policy::Everything);
    EXPECT_TRUE(
        capture.contains("'process_label' is deprecated. Please use 'processing_policy'", "ML.AddOne"));

    // When both are given the current key wins and nothing is said about the old one.
    AddOneOperation other;
    capture.clear();
    EXPECT_TRUE(other.configure(Properties{{"processing_policy", 2}, {"process_label", 1}}));
    EXPECT_EQ(other.processingPolicy(), Policy::OnlyLabels);
    EXPECT_FALSE(capture.containsFragment("deprecated"));

    EXPECT_TRUE(operation.configure(Properties{{"processing_policy", "everything"}}));
    EXPECT_EQ(operation.processingPolicy(), Policy::Everything);

    EXPECT_FALSE(operation.configure(Properties{{"processing_policy", 5}}));
    EXPECT_EQ(operation.processingPolicy(), Policy::Everything);
    EXPECT_TRUE(
        capture.contains("Wrong value for parameter 'processing_policy': '5' is not a processing policy "
                         "(0, 1 or 2).",
                         "ML.AddOne"));

    EXPECT_FALSE(operation.configure(Properties{{"processing_policy", "most"}}));
    EXPECT_TRUE(capture.contains("Unknown processing_policy 'most', supported are ['EVERYTHING', "
                                 "'EVERYTHING_BUT_LABELS', 'ONLY_LABELS']",
                                 "ML.AddOne"));
}

TEST_F(OperationConfigure, BadDeviceStopsAtOnceOtherUnreadableBaseValuesFailButTheRestIsRead)
{
    EXPECT_FALSE(operation.configure(Properties{{"device", "tpu"}, {"amount", 5}}));
    EXPECT_TRUE(
        capture.contains("Unknown computing device 'tpu', supported are ['gpu_if_opengl', 'gpu_if_glimage', "
                         "'force_gpu', 'force_cpu']",
                         "ML.Operation"));
    EXPECT_EQ(operation.p_amount.value(), 1.0);
    EXPECT_EQ(operation.computingDevice(), ComputingDevice::GPUIfOpenGl);

    EXPECT_FALSE(operation.configure(Properties{{"seed", "abc"}, {"amount", 6}}));
    EXPECT_TRUE(capture.contains("Wrong value for parameter 'seed': 'abc' is not an unsigned 32-bit integer.",
                                 "ML.AddOne"));
    EXPECT_EQ(operation.p_amount.value(), 6.0);
    EXPECT_FALSE(operation.seed().has_value());

    EXPECT_FALSE(operation.configure(Properties{{"error_on_unexpected_behaviour", "maybe"}}));
    EXPECT_TRUE(capture.contains(
        "Wrong value for parameter 'error_on_unexpected_behaviour': 'maybe' is not a bool.", "ML.AddOne"));
}

class RequiredOperation : public Operation
{
public:
    RequiredOperation()
        : Operation("Required", ProcessingPolicy::Everything)
    {}
    AdvancedParameter<int, Operation> p_size = {"size", 1, this, ParamRequired::Yes};
    AdvancedParameter<double, Operation> p_bad = {"bad", 0.5, this};
    AdvancedParameter<std::string, Operation> p_mode = {"mode", "a", this};
};

TEST_F(OperationConfigure, EveryBadParameterIsReportedInOnePass)
{
    RequiredOperation required;
    EXPECT_FALSE(required.configure(Properties{{"bad", "x"}, {"mode", "b"}}));
    EXPECT_EQ(required.p_mode.value(), "b");
    EXPECT_EQ(required.p_bad.value(), 0.5);
    EXPECT_TRUE(capture.contains("Missing required configure parameter 'size'", "ML.Required"));
    EXPECT_TRUE(
        capture.contains("Parameter 'bad' could not be parsed, please check the syntax", "ML.Required"));

    EXPECT_TRUE(operation.configureOnly(Properties{{"amount", "not a number"}}, {}));
    EXPECT_FALSE(operation.configureOnly(Properties{{"amount", "not a number"}}, {&operation.p_amount}));
}

TEST_F(OperationConfigure, SeedReseedsTheOperationsOwnGenerator)
{
    auto draws = [](AddOneOperation& op) {
        std::vector<double> values;
        for (int i = 0; i < 4; ++i)
            values.push_back(op.randomGenerator().getUniformReal(0.0, 1.0));
        return values;
    };
    AddOneOperation a;
    AddOneOperation b;
    ASSERT_TRUE(a.configure(Properties{{"seed", 99}}));
    b.seedRandomEngine(99);
    std::vector<double> const first = draws(a);
    EXPECT_EQ(first, draws(b));

    // Reseeding restarts the sequence; another seed gives other numbers.
    ASSERT_TRUE(a.configure(Properties{{"seed", 99}}));
    EXPECT_EQ(draws(a), first);
    a.seedRandomEngine(100);
    EXPECT_NE(draws(a), first);
    EXPECT_EQ(a.seed(), 100U);
}

// ---- configuration ------------------------------------------------------------------------------

TEST(OperationConfiguration, ConfiguringFromTheConfigurationGivesTheSameConfiguration)
{
    AddOneOperation source;
    Log::Capture capture;
    ASSERT_TRUE(source.configure(Properties{{"device", "3"},
                                            {"seed", 4},
                                            {"processing_policy", 1},
                                            {"record_identifier", "r"},
                                            {"amount", 0.25},
                                            {"unit", 1}}));
    source.setApplyTo(Operation::FieldSet{"z", "a"});
    Properties const p = source.configuration();
    EXPECT_EQ(p.paramKeys(), (std::vector<std::string>{"device", "processing_policy", "seed", "apply_to",
                                                       "error_on_unexpected_behaviour", "record_identifier",
                                                       "amount", "unit"}));
    EXPECT_EQ(p.paramValueText("device"), "ForceGPU");
    EXPECT_EQ(p.paramAttribute("processing_policy", "values"), "EverythingButLabels, Everything, OnlyLabels");
    EXPECT_FALSE(ParamType::isHidden(p.paramType("record_identifier")));
    EXPECT_TRUE(ParamType::isHidden(AddOneOperation().configuration().paramType("record_identifier")));
    AddOneOperation copy;
    ASSERT_TRUE(copy.configure(p));
    EXPECT_TRUE(copy.configuration().compareWith(source.configuration(), Properties::CompareAll))
        << copy.configuration().describe() << source.configuration().describe();
    EXPECT_EQ(copy.p_unit.value(), ParamUnit::Fraction);
    EXPECT_TRUE(capture.records().empty());
}

// ---- GPU decision ---------------------------------------------------------------------------------

struct GpuCase
{
    std::string label;
    ComputingDevice device;
    std::function<std::shared_ptr<SharedImageSet>()> make;
    bool allowChannelBatch;
    bool expected;
    std::string note; // empty: no notification
};

class ShouldRunOnGpuTest : public ::testing::TestWithParam<GpuCase>
{};

TEST_P(ShouldRunOnGpuTest, DecidesAndNotifiesTheFallBack)
{
    GpuCase const& c = GetParam();
    std::vector<std::string> notes;
    auto sis = c.make();
    EXPECT_EQ(shouldRunOnGPU(c.device, sis.get(), c.allowChannelBatch,
                             [&](std::string&& text) { notes.push_back(std::move(text)); }),
              c.expected);
    if (c.note.empty())
        EXPECT_TRUE(notes.empty());
    else
        EXPECT_EQ(notes, std::vector<std::string>{"has to use fallback to CPU, encountered " + c.note});
}

template <class T = float>
std::function<std::shared_ptr<SharedImageSet>()> image(int channels = 1, Eigen::Vector3i size = {4, 4, 1})
{
    return [=] { return makeTypedSet<T>(size, channels); };
}

std::shared_ptr<SharedImageSet> firstBadFrameDecides()
{
    auto sis = makeTypedSet<float>({4, 4, 1}, 1);
    sis->add(makeTypedSet<float>({4, 4, 1}, 6)->getShared(0));
    sis->add(makeTypedSet<float>({8, 1, 1}, 1)->getShared(0));
    return sis;
}

constexpr ComputingDevice kGpu = ComputingDevice::ForceGPU;

INSTANTIATE_TEST_SUITE_P(
    Devices, ShouldRunOnGpuTest,
    ::testing::Values(
        GpuCase{"ForceGpuFloat2D", kGpu, image(), false, true, ""},
        GpuCase{"ForceCpu", ComputingDevice::ForceCPU, image(), false, false, ""},
        GpuCase{"GpuIfOpenGlWithoutContext", ComputingDevice::GPUIfOpenGl, image(), false, false, ""},
        GpuCase{"DeviceOutsideTheEnum", static_cast<ComputingDevice>(7), image(), false, false, ""},
        GpuCase{"NullSet", kGpu, [] { return std::shared_ptr<SharedImageSet>(); }, false, false, ""},
        GpuCase{"EmptySet", kGpu, [] { return std::make_shared<SharedImageSet>(); }, false, false, ""},
        GpuCase{"FiveChannels", kGpu, image(5), false, false, "with more than 4 channels."},
        GpuCase{"FiveChannelsInBatches", kGpu, image(5), true, true, ""},
        GpuCase{"OneDimension", kGpu, image(1, {8, 1, 1}), false, false, "with only 1 dimension."},
        GpuCase{"Int", kGpu, image<int>(), false, false, "of type 'Int'."},
        GpuCase{"UShortIsFine", kGpu, image<unsigned short>(2), false, true, ""},
        GpuCase{"FirstBadFrameDecides", kGpu, firstBadFrameDecides, false, false,
                "with more than 4 channels."}),
    [](auto const& info) { return info.param.label; });

class BatchingOperation : public AddOneOperation
{
protected:
    bool allowChannelBatchOnGPU() const override { return true; }
};

TEST(OperationGpu, UseGpuWarnsOnceThroughTheOperationAndHonoursChannelBatches)
{
    AddOneOperation operation;
    operation.setComputingDevice(ComputingDevice::ForceGPU);
    auto sis = makeTypedSet<float>({4, 4, 1}, 5);
    Log::Capture capture;
    EXPECT_FALSE(operation.useGPU(sis.get()));
    EXPECT_FALSE(operation.useGPU(sis.get()));
    EXPECT_EQ(
        capture.count("has to use fallback to CPU, encountered with more than 4 channels.", "ML.AddOne"), 1);

    BatchingOperation batching;
    batching.setComputingDevice(ComputingDevice::ForceGPU);
    EXPECT_TRUE(batching.useGPU(sis.get()));

    operation.setErrorOnUnexpectedBehaviour(true);
    EXPECT_THROW(operation.useGPU(sis.get()), OperationException);
}

// ---- OperationsSequence ---------------------------------------------------------------------------

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

std::shared_ptr<Operation> addOne()
{
    return std::make_shared<AddOneOperation>();
}

TEST(OperationsSequence, EmptySequenceSucceedsAndANullOperationCannotBeAdded)
{
    OperationsSequence sequence;
    DataItem item = imageItem();
    EXPECT_FALSE(sequence.process(item, Phase::Inference).has_value());
    EXPECT_EQ(pixel(item, "image"), 0.0f);
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
        EXPECT_EQ(pixel(item, "image"), c.runs ? 1.0f : 0.0f)
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
    EXPECT_EQ(pixel(item, "image"), 2.0f) << "the configured operation ran with its configuration";
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
        return pixel(item, "image");
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

// ---- Inversion ------------------------------------------------------------------------------------

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

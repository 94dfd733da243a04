// Tests of the Operation base class: which fields an item's elements reach (policy, apply_to,
// missing fields), the dispatch to the typed virtuals and its refusals, hooks, the one-element
// conveniences, configure/configuration with their messages, seeding, and the GPU decision.

#include "TestOperations.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointsElement.h"
#include "ml/operations/OperationException.h"

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

TEST(OperationSelection, SelectedFieldsAreNoSetForEverythingAndASetOtherwiseAndAreLogged)
{
    DataItem item = makeFullItem();
    PassOperation everything(Policy::Everything);
    EXPECT_FALSE(everything.selectedFields(item).has_value());

    PassOperation onlyLabels(Policy::OnlyLabels);
    DataItem inputsOnly;
    inputsOnly.set("image", makeSet(1));
    auto const selected = onlyLabels.selectedFields(inputsOnly);
    ASSERT_TRUE(selected.has_value());
    EXPECT_TRUE(selected->empty());

    int const savedLevel = Log::g_globalLevel;
    Log::g_globalLevel = Log::Debug;
    Log::Capture capture;
    onlyLabels.process(item);
    Log::g_globalLevel = savedLevel;
    EXPECT_TRUE(capture.contains("Selected fields: [label, label_kpts, ]", "ML.Pass"));
}

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

int g_recordCalls = 0;

void countRecord(Operation&, DataElement*)
{
    ++g_recordCalls;
}

TEST(OperationHooks, RecordSeamAddsTheInstalledRecorderFirstToNewOperationsOnly)
{
    ASSERT_EQ(Operation::processingRecordHook(), nullptr);
    PassOperation before;
    EXPECT_TRUE(before.postProcessHooks().empty());

    Operation::setProcessingRecordHook(&countRecord);
    PassOperation after;
    Operation::setProcessingRecordHook(nullptr);
    ASSERT_EQ(after.postProcessHooks().size(), 1U);
    EXPECT_TRUE(before.postProcessHooks().empty());

    // The recorder runs once on every processed element.
    g_recordCalls = 0;
    DataItem item;
    item.set("image", makeSet(1));
    item.set("kpts", makeKeypoints());
    after.process(item);
    before.process(item);
    EXPECT_EQ(g_recordCalls, 2);
    EXPECT_TRUE(PassOperation().postProcessHooks().empty());
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
    EXPECT_EQ(exceptionText([&] { operation.warnOperationUnexpectedBehaviour("odd"); }), "[ML.AddOne] odd");
    EXPECT_EQ(exceptionText([&] { operation.warnOperationUnexpectedBehaviour("new"); }), "[ML.AddOne] new");
    EXPECT_EQ(capture.count("odd", "ML.AddOne"), 1);
    EXPECT_EQ(capture.count("new", "ML.AddOne"), 1);
}

TEST(OperationWarnings, EmptyOrNullInputConfigFailedAndDeprecatedTexts)
{
    AddOneOperation operation;
    Log::Capture capture;
    EXPECT_TRUE(operation.inputIsEmptyOrNull(nullptr));
    SharedImageSet empty;
    EXPECT_TRUE(operation.inputIsEmptyOrNull(&empty));
    EXPECT_FALSE(operation.inputIsEmptyOrNull(makeSet(1).get()));
    EXPECT_TRUE(capture.contains("Input SharedImageSet is nullptr.", "ML.AddOne"));
    EXPECT_TRUE(capture.contains("Input SharedImageSet is empty.", "ML.AddOne"));

    auto emptySet = std::make_shared<SharedImageSet>();
    EXPECT_EQ(operation.processImages(emptySet), emptySet);

    capture.clear();
    operation.configFailed("size");
    operation.logDeprecatedParam("old_size", "size");
    EXPECT_EQ(
        capture.count("Wrong value for parameter 'size' - either it was missing while required, or it was "
                      "present but wrongly formatted.",
                      "ML.AddOne"),
        1);
    EXPECT_EQ(
        capture.count("Using deprecated parameter 'old_size'. Please use: 'size' instead.", "ML.AddOne"), 1);
    EXPECT_EQ(capture.records()[0].level, Log::Error);
    EXPECT_EQ(capture.records()[1].level, Log::Warning);
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

TEST(OperationConfiguration, KeysInOrderWithTypesAndAttributes)
{
    AddOneOperation operation;
    Properties p = operation.configuration();
    EXPECT_EQ(p.paramKeys(),
              (std::vector<std::string>{"device", "processing_policy", "error_on_unexpected_behaviour",
                                        "record_identifier", "amount", "unit"}));
    EXPECT_EQ(p.paramValueText("device"), "GPUIfOpenGl");
    EXPECT_EQ(ParamType::kind(p.paramType("device")), ParamType::Enumeration);
    EXPECT_EQ(p.paramAttribute("device", "values"), "ForceCPU, GPUIfGlImage, GPUIfOpenGl, ForceGPU");
    EXPECT_EQ(p.paramValueText("processing_policy"), "0");
    EXPECT_EQ(ParamType::kind(p.paramType("processing_policy")), ParamType::Enumeration);
    EXPECT_EQ(p.paramAttribute("processing_policy", "values"), "EverythingButLabels, Everything, OnlyLabels");
    EXPECT_EQ(p.paramValueText("error_on_unexpected_behaviour"), "false");
    EXPECT_EQ(p.paramAttribute("record_identifier", "hidden"), "1");
    EXPECT_TRUE(ParamType::isHidden(p.paramType("record_identifier")));
    EXPECT_EQ(p.paramValueText("unit"), "MM");

    operation.seedRandomEngine(5);
    operation.setApplyTo(Operation::FieldSet{"z", "a"});
    operation.setRecordIdentifier("id");
    operation.setComputingDevice(ComputingDevice::ForceGPU);
    p = operation.configuration();
    EXPECT_EQ(p.paramKeys(), (std::vector<std::string>{"device", "processing_policy", "seed", "apply_to",
                                                       "error_on_unexpected_behaviour", "record_identifier",
                                                       "amount", "unit"}));
    EXPECT_EQ(p.paramValueText("device"), "ForceGPU");
    EXPECT_EQ(p.paramValueText("seed"), "5");
    EXPECT_EQ(p.paramOr("apply_to", std::vector<std::string>{}), (std::vector<std::string>{"a", "z"}));
    EXPECT_EQ(p.paramAttribute("record_identifier", "hidden"), "0");
    EXPECT_FALSE(ParamType::isHidden(p.paramType("record_identifier")));
}

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
    AddOneOperation copy;
    ASSERT_TRUE(copy.configure(source.configuration()));
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
        GpuCase{"ForceGpuFloat3DFourChannels", kGpu, image(4, {3, 3, 3}), false, true, ""},
        GpuCase{"ForceCpu", ComputingDevice::ForceCPU, image(), false, false, ""},
        GpuCase{"GpuIfOpenGlWithoutContext", ComputingDevice::GPUIfOpenGl, image(), false, false, ""},
        GpuCase{"GpuIfGlImageWithoutContext", ComputingDevice::GPUIfGlImage, image(), false, false, ""},
        GpuCase{"DeviceOutsideTheEnum", static_cast<ComputingDevice>(7), image(), false, false, ""},
        GpuCase{"NullSet", kGpu, [] { return std::shared_ptr<SharedImageSet>(); }, false, false, ""},
        GpuCase{"EmptySet", kGpu, [] { return std::make_shared<SharedImageSet>(); }, false, false, ""},
        GpuCase{"FiveChannels", kGpu, image(5), false, false, "with more than 4 channels."},
        GpuCase{"FiveChannelsInBatches", kGpu, image(5), true, true, ""},
        GpuCase{"OneDimension", kGpu, image(1, {8, 1, 1}), false, false, "with only 1 dimension."},
        GpuCase{"Int", kGpu, image<int>(), false, false, "of type 'Int'."},
        GpuCase{"UInt", kGpu, image<unsigned int>(), false, false, "of type 'UInt'."},
        GpuCase{"Double", kGpu, image<double>(), false, false, "of type 'Double'."},
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

TEST(OperationGpu, CpuPreparationMarksGpuCopiesStale)
{
    AddOneOperation operation;
    auto sis = makeSet(2);
    ASSERT_FALSE(sis->get(0)->isGlDirty());
    operation.prepareInputForDevice(*sis);
    EXPECT_TRUE(sis->get(0)->isGlDirty());
    EXPECT_TRUE(sis->get(1)->isGlDirty());
    EXPECT_FALSE(sis->get(1)->isMemDirty());
}

} // namespace

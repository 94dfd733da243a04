// Pad, PadDims, PadDimsToNextMultiple and UndoPadding. Geometry is checked against world
// positions computed here from the convention (pixel p at (p - (dim - 1) / 2) * spacing in image
// millimetres, then matrixToWorld) on an obliquely turned, moved, anisotropic grid; border values
// against reference index rules written here; round trips through the inversion records bit for
// bit. Their messages are in CatalogueTest.

#include "ml/operations/catalogue/PadOperations.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/operations/CatalogueTestHelpers.h"
#include "ml/operations/catalogue/InverseOperation.h"
#include "ml/operations/catalogue/UndoPaddingOperation.h"
#include "ml/plugin/Registrations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;
using ImageProcessing::PaddingMode;

namespace {

// The source index that a padded index shows, by the rules of the modes (-1: fill).
int referenceSource(int s, int n, PaddingMode mode)
{
    if (s >= 0 && s < n)
        return s;
    if (mode == PaddingMode::Zero)
        return -1;
    if (mode == PaddingMode::Clamp)
        return std::clamp(s, 0, n - 1);
    if (n == 1)
        return 0;
    int const period = 2 * (n - 1);
    int m = ((s % period) + period) % period;
    return m < n ? m : period - m;
}

// ---- Pad: sizes, values and world positions ----------------------------------------------------

struct PadCase
{
    std::string name;
    Eigen::Vector3i dims;
    Eigen::Vector3i low;
    Eigen::Vector3i high;
    PaddingMode mode;
    bool allowDimensionChange;
    Eigen::Vector3i expectedDims;
};

class PadGeometry : public ::testing::TestWithParam<PadCase>
{};

TEST_P(PadGeometry, KeepsWorldPositionsAndFillsBordersByTheMode)
{
    PadCase const& c = GetParam();
    constexpr double kFill = 5.0;
    PadOperation pad(Eigen::Vector2i(c.low.x(), c.high.x()), Eigen::Vector2i(c.low.y(), c.high.y()),
                     Eigen::Vector2i(c.low.z(), c.high.z()), c.mode);
    pad.p_paddingValue.setValue(kFill);
    pad.p_allowDimensionChange.setValue(c.allowDimensionChange);
    auto const input = rampSet(c.dims, 2, 2);
    input->setModality(Data::Modality::CT);
    auto const output = pad.process(input);
    ASSERT_NE(output, nullptr);
    ASSERT_EQ(output->size(), 2);
    ASSERT_NE(output, input);

    for (int f = 0; f < 2; ++f) {
        SharedImage const& in = *input->get(f);
        SharedImage const& out = *output->get(f);
        ASSERT_EQ(out.dimensions(), c.expectedDims);
        EXPECT_EQ(out.spacing(), in.spacing());
        EXPECT_EQ(out.modality(), Data::Modality::CT);
        // Applied low padding: none on an axis of one pixel unless allowed.
        Eigen::Vector3i low = c.low;
        for (int a = 0; a < 3; ++a)
            if (c.dims[a] == 1 && !c.allowDimensionChange)
                low[a] = 0;
        forEachPixel(out.dimensions(), [&](Eigen::Vector3i const& q) {
            Eigen::Vector3i const s = q - low;
            Eigen::Vector3i src;
            for (int a = 0; a < 3; ++a)
                src[a] = referenceSource(s[a], c.dims[a], c.mode);
            for (int ch = 0; ch < 2; ++ch) {
                double const expected = (src.array() < 0).any() ? kFill : valueAt(in, src, ch);
                ASSERT_EQ(valueAt(out, q, ch), expected) << "pixel " << q.transpose() << " channel " << ch;
            }
            if ((s.array() >= 0).all() && (s.array() < c.dims.array()).all()) {
                ASSERT_LT(
                    (conventionWorld(out, q.cast<double>()) - conventionWorld(in, s.cast<double>())).norm(),
                    1e-9)
                    << "pixel " << q.transpose();
            }
        });
    }
}

INSTANTIATE_TEST_SUITE_P(
    Pad, PadGeometry,
    ::testing::Values(
        PadCase{"ZeroAsymmetric", {4, 3, 2}, {2, 0, 1}, {3, 1, 0}, PaddingMode::Zero, false, {9, 4, 3}},
        PadCase{"MirrorWide", {3, 2, 2}, {4, 1, 0}, {5, 2, 1}, PaddingMode::Mirror, false, {12, 5, 3}},
        PadCase{"ClampAndCrop", {5, 4, 3}, {-1, 2, 0}, {2, -2, -1}, PaddingMode::Clamp, false, {6, 4, 2}},
        PadCase{"TwoDimensional", {4, 3, 1}, {1, 1, 1}, {1, 1, 1}, PaddingMode::Mirror, false, {6, 5, 1}},
        PadCase{
            "TwoDimensionalGrowing", {4, 3, 1}, {0, 0, 1}, {0, 0, 1}, PaddingMode::Clamp, true, {4, 3, 3}},
        PadCase{"CropOnly", {6, 5, 4}, {-1, -2, 0}, {-2, 0, -3}, PaddingMode::Zero, false, {3, 3, 1}}),
    [](auto const& info) { return info.param.name; });

TEST(Pad, AllZeroSizesReturnTheInputObject)
{
    auto const input = rampSet({4, 3, 2});
    PadOperation pad;
    EXPECT_EQ(pad.process(input), input);
}

TEST(Pad, TheFillValueIsAnOriginalIntensity)
{
    auto frame = rampFrame({2, 2, 1});
    frame->mem()->setShiftScale(3.0, 2.0); // stored = (original + 3) * 2
    PadOperation pad(Eigen::Vector2i(1, 0), Eigen::Vector2i::Zero(), Eigen::Vector2i::Zero(),
                     PaddingMode::Zero);
    pad.p_paddingValue.setValue(4.0);
    auto const output = pad.process(std::make_shared<SharedImageSet>(frame));
    EXPECT_EQ(valueAt(*output->get(0), {0, 0, 0}), 14.0F);
    EXPECT_EQ(valueAt(*output->get(0), {1, 0, 0}), 1.0F);
}

TEST(Pad, ConfigurationKeysAndDefaultMode)
{
    PadOperation pad;
    EXPECT_EQ(pad.p_paddingMode.value(), PaddingMode::Mirror);
    EXPECT_TRUE(pad.configure(Properties{{"pad_size_x", "1 2"}, {"padding_mode", "clamp"}}));
    EXPECT_EQ(pad.p_padSizeX.value(), Eigen::Vector2i(1, 2));
    EXPECT_EQ(pad.p_paddingMode.value(), PaddingMode::Clamp);
    EXPECT_TRUE(pad.configure(Properties{{"padding_mode", "0"}}));
    EXPECT_EQ(pad.p_paddingMode.value(), PaddingMode::Zero);
}

// ---- Label maps ----------------------------------------------------------------------------------

struct LabelCase
{
    std::string name;
    Properties properties;
    bool label;
    float expectedBorder; // value of padded pixel (0, 0, 0); the ramp's first value is 1
};

class PadLabels : public ::testing::TestWithParam<LabelCase>
{};

TEST_P(PadLabels, LabelMapsUseTheLabelSettings)
{
    LabelCase const& c = GetParam();
    PadOperation pad;
    Log::Capture capture;
    Properties properties = c.properties;
    properties.setParam("pad_size_x", "2 0");
    properties.setParam("pad_size_y", "2 0");
    ASSERT_TRUE(pad.configure(properties));
    auto const input = rampSet({3, 3, 1});
    if (c.label)
        input->setModality(Data::Modality::Label);
    auto const output = pad.process(input);
    EXPECT_EQ(valueAt(*output->get(0), {0, 0, 0}), c.expectedBorder);
    EXPECT_EQ(valueAt(*output->get(0), {2, 2, 0}), valueAt(*input->get(0), {0, 0, 0}));
}

INSTANTIATE_TEST_SUITE_P(
    Pad, PadLabels,
    ::testing::Values(
        LabelCase{"ImageMirrors", Properties{{"label_padding_mode", "Zero"}, {"label_padding_value", "7"}},
                  false, 81.0F},
        LabelCase{"LabelTakesLabelModeAndValue",
                  Properties{{"label_padding_mode", "Zero"}, {"label_padding_value", "7"}}, true, 7.0F},
        LabelCase{"LabelWithoutLabelValueFillsZero", Properties{{"label_padding_mode", "Zero"}}, true, 0.0F},
        LabelCase{
            "LabelClamps",
            Properties{{"padding_mode", "Zero"}, {"padding_value", "9"}, {"label_padding_mode", "Clamp"}},
            true, 1.0F},
        LabelCase{"LabelWithoutLabelModeUsesImageSettings",
                  Properties{{"padding_mode", "Zero"}, {"padding_value", "9"}}, true, 9.0F}),
    [](auto const& info) { return info.param.name; });

// ---- checkParams warnings --------------------------------------------------------------------------

using Warnings = std::vector<std::string>;

struct WarningCase
{
    std::string name;
    Properties properties;
    Warnings expected;
};

class PadWarnings : public ::testing::TestWithParam<WarningCase>
{};

std::string const kValueUnused = "PaddingValue is used only when the specified PaddingMode is 'Zero' (i.e. "
                                 "Constant padding), otherwise ignored";
std::string const kLabelValueUnused =
    "Label PaddingValue is used only when the specified Label PaddingMode is "
    "'Zero' (i.e. Constant padding), otherwise ignored";
std::string const kLabelValueNeedsMode =
    "Label PaddingValue is used only if either PaddingMode is not 'Zero' or if "
    "Label PaddingMode is specified and its value is 'Zero'.";
std::string const kValueNotForLabels = "PaddingValue is not used with Label PaddingMode. In case you wanted "
                                       "to specify a padding value for labelmaps, "
                                       "set `label_padding_value` instead.";

TEST_P(PadWarnings, AreLoggedInOrderByEveryPaddingOperation)
{
    WarningCase const& c = GetParam();
    PadOperation pad;
    PadDimsOperation padDims;
    PadDimsToNextMultipleOperation padNext;
    for (Operation* operation : std::vector<Operation*>{&pad, &padDims, &padNext}) {
        Log::Capture capture;
        EXPECT_TRUE(operation->configure(c.properties));
        EXPECT_EQ(messagesOf(capture, operation->logCategory()), c.expected) << operation->name();
    }
    // With errors on, the first warning becomes the failure of configure.
    PadOperation strict;
    Properties properties = c.properties;
    properties.setParam("error_on_unexpected_behaviour", true);
    Log::Capture capture;
    EXPECT_EQ(strict.configure(properties), c.expected.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Pad, PadWarnings,
    ::testing::Values(
        // A value only for the mode that uses it: nothing to say.
        WarningCase{"None", Properties{{"padding_mode", "Zero"}, {"padding_value", "3"}}, Warnings()},
        WarningCase{"ValueWithMirror", Properties{{"padding_mode", "Mirror"}, {"padding_value", "3"}},
                    Warnings{kValueUnused}},
        WarningCase{"LabelValueWithClampLabelMode",
                    Properties{{"padding_mode", "Zero"},
                               {"label_padding_mode", "Clamp"},
                               {"label_padding_value", "1"}},
                    Warnings{kLabelValueUnused}},
        WarningCase{"LabelValueWithoutLabelModeUnderZero",
                    Properties{{"padding_mode", "Zero"}, {"label_padding_value", "1"}},
                    Warnings{kLabelValueNeedsMode}},
        WarningCase{
            "ValueMeantForLabels",
            Properties{{"padding_mode", "Clamp"}, {"padding_value", "2"}, {"label_padding_mode", "Zero"}},
            Warnings{kValueUnused, kValueNotForLabels}},
        WarningCase{"TwoInOrder",
                    Properties{{"padding_mode", "Mirror"},
                               {"padding_value", "2"},
                               {"label_padding_mode", "Mirror"},
                               {"label_padding_value", "4"}},
                    Warnings{kValueUnused, kLabelValueUnused}}),
    [](auto const& info) { return info.param.name; });

// ---- PadDims and PadDimsToNextMultiple ---------------------------------------------------------------

TEST(PadDims, SplitsTheDifferenceAndKeepsTheCentre)
{
    struct Case
    {
        Eigen::Vector3i dims;
        Eigen::Vector3i target;
        PaddingDoneInfo::PadSize expected;
    };
    for (Case const& c : {Case{{5, 3, 2}, {8, 3, 2}, {{{1, 2}, {0, 0}, {0, 0}}}},
                          Case{{7, 3, 2}, {4, 3, 2}, {{{-1, -2}, {0, 0}, {0, 0}}}},
                          Case{{6, 9, 2}, {9, 4, 5}, {{{1, 2}, {-2, -3}, {1, 2}}}}}) {
        SCOPED_TRACE(c.target.transpose());
        EXPECT_EQ(PadDimsOperation::padSizeFor(c.dims, c.target), c.expected);
        PadDimsOperation padDims(c.target);
        padDims.p_allowDimensionChange.setValue(true);
        auto const input = rampSet(c.dims);
        auto const output = padDims.process(input);
        ASSERT_EQ(output->get(0)->dimensions(), c.target);
        // The first kept pixel shows the input pixel at -low (or 0 when padded) and sits where it did.
        Eigen::Vector3i const low(c.expected[0].first, c.expected[1].first, c.expected[2].first);
        Eigen::Vector3i const q = low.cwiseMax(0);
        Eigen::Vector3i const p = q - low;
        EXPECT_EQ(valueAt(*output->get(0), q), valueAt(*input->get(0), p));
        EXPECT_LT((conventionWorld(*output->get(0), q.cast<double>()) -
                   conventionWorld(*input->get(0), p.cast<double>()))
                      .norm(),
                  1e-9);
    }
}

TEST(PadDimsToNextMultiple, RoundsEachAxisUpToItsDivisorButKeepsFlatAxes)
{
    struct Case
    {
        Eigen::Vector3i dims;
        Eigen::Vector3i divisor;
        Eigen::Vector3i expected;
    };
    for (Case const& c : {Case{{33, 16, 3}, {16, 16, 4}, {48, 16, 4}}, Case{{7, 5, 1}, {4, 2, 8}, {8, 6, 8}},
                          Case{{9, 10, 2}, {1, 3, 2}, {9, 12, 2}}}) {
        PadDimsToNextMultipleOperation padNext(c.divisor);
        EXPECT_EQ(padNext.calculateTargetDims(c.dims), c.expected);
        // An axis of one pixel is kept unless dimension changes are allowed.
        Eigen::Vector3i const kept = (c.dims.array() == 1).select(Eigen::Vector3i::Ones(), c.expected);
        EXPECT_EQ(padNext.process(rampSet(c.dims))->get(0)->dimensions(), kept);
    }
}

// ---- Inversion round trips -----------------------------------------------------------------------
// The steps only add pixels: what a negative padding removed cannot come back.

struct RoundTripCase
{
    std::string name;
    std::string operation;
    Properties properties;
    std::string inverseName;
    bool exactMatrix; // UndoPadding restores the recorded matrix exactly
};

class PadRoundTrip : public ::testing::TestWithParam<RoundTripCase>
{
protected:
    static void SetUpTestSuite() { registerOperations(); }
};

TEST_P(PadRoundTrip, ForwardThenInverseGivesTheInputBack)
{
    RoundTripCase const& c = GetParam();
    auto const input = rampSet({5, 7, 3}, 2, 2);
    auto const keep = input->clone();
    DataItem item;
    item.set("image", std::make_shared<ImageElement>(input));

    Properties properties = c.properties;
    properties.setParam("record_identifier", std::string("pad"));
    auto forward = Operation::createFromFactories({c.operation, properties, Phase::Always});
    ASSERT_NE(forward, nullptr);
    forward->process(item);
    auto const padded = item.get<ImageElement>("image")->sis();
    ASSERT_NE(padded->get(0)->dimensions(), keep->get(0)->dimensions());
    // The new set carries the record, with the inverse and (where needed) the padding done.
    auto const* inversion = padded->components().get<InversionComponent>();
    ASSERT_NE(inversion, nullptr);
    auto const* info = inversion->getInversionInfo("pad");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->operationName, c.inverseName);
    ASSERT_TRUE(info->context.has_value());
    PaddingDoneDataComponent done;
    done.configure(&*info->context);
    ASSERT_EQ(done.infos.size(), 1U);
    ASSERT_EQ(done.infos[0].size(), 2U);
    EXPECT_TRUE(done.infos[0].originalDescriptorWorlds[1].isApprox(keep->get(1)->descriptorWorld()));

    InverseOperation inverse("pad");
    inverse.process(item);
    auto const restored = item.get<ImageElement>("image")->sis();
    ASSERT_EQ(restored->size(), 2);
    for (int f = 0; f < 2; ++f) {
        SharedImage const& back = *restored->get(f);
        SharedImage const& original = *keep->get(f);
        EXPECT_TRUE(back.descriptor().isApprox(original.descriptor())) << f;
        EXPECT_TRUE(sameBytes(back, original)) << f;
        if (c.exactMatrix)
            EXPECT_EQ(back.matrixToWorld(), original.matrixToWorld()) << f;
        else
            EXPECT_TRUE(back.matrixToWorld().isApprox(original.matrixToWorld(), 1e-12)) << f;
    }
    EXPECT_FALSE(restored->components().get<InversionComponent>()->hasInversion("pad"));
}

INSTANTIATE_TEST_SUITE_P(
    Inversion, PadRoundTrip,
    ::testing::Values(
        RoundTripCase{"Pad", "Pad",
                      Properties{{"pad_size_x", "2 3"}, {"pad_size_y", "0 2"}, {"pad_size_z", "1 0"}}, "Pad",
                      false},
        RoundTripCase{"PadZero", "Pad",
                      Properties{{"pad_size_x", "1 1"}, {"pad_size_z", "0 1"}, {"padding_mode", "Zero"}},
                      "Pad", false},
        RoundTripCase{"PadDims", "PadDims", Properties{{"target_dims", "8 9 6"}}, "UndoPadding", true},
        RoundTripCase{"PadDimsToNextMultiple", "PadDimsToNextMultiple",
                      Properties{{"dimension_divisor", "4 4 4"}}, "UndoPadding", true}),
    [](auto const& info) { return info.param.name; });

TEST(PadInverseSpecs, NegateTheSizesAndDropTheIdentifier)
{
    PadOperation pad(Eigen::Vector2i(1, 2), Eigen::Vector2i(-3, 0), Eigen::Vector2i(0, 4),
                     PaddingMode::Clamp);
    pad.setRecordIdentifier("p");
    Operation::Specs const specs = pad.inverseSpecs();
    EXPECT_EQ(specs.name, "Pad");
    EXPECT_EQ(specs.properties.paramOr("pad_size_x", Eigen::Vector2i::Zero().eval()),
              Eigen::Vector2i(-1, -2));
    EXPECT_EQ(specs.properties.paramOr("pad_size_y", Eigen::Vector2i::Zero().eval()), Eigen::Vector2i(3, 0));
    EXPECT_EQ(specs.properties.paramOr("pad_size_z", Eigen::Vector2i::Zero().eval()), Eigen::Vector2i(0, -4));
    EXPECT_EQ(specs.properties.paramOr("padding_mode", std::string()), "Clamp");
    EXPECT_FALSE(specs.properties.contains("record_identifier"));

    PadDimsOperation padDims;
    padDims.setRecordIdentifier("dims");
    EXPECT_EQ(padDims.inverseSpecs().name, "UndoPadding");
    EXPECT_EQ(padDims.inverseSpecs().properties.paramOr("target_identifier", std::string()), "dims");
}

// ---- UndoPadding ---------------------------------------------------------------------------------

TEST(UndoPadding, WithoutWorkWarnsAndReturnsTheInputOrFailsInErrorMode)
{
    struct Case
    {
        std::string identifier;
        int setup; // 0: no component, 1: component without the identifier, 2: info without context
        std::string expected;
    };
    for (Case const& c :
         {Case{"", 1, "No target identifier specified. Skipping UndoPadding."},
          Case{"pad", 0, "Input has no Inversion data component. No padding was performed on this image."},
          Case{"other", 2, "InversionComponent has no info associated with the identifier `other`"},
          Case{"pad", 2, "InversionComponent has an associated info with no context properties"}}) {
        SCOPED_TRACE(c.expected);
        auto const input = rampSet({4, 4, 1});
        if (c.setup >= 1)
            input->components().getOrCreate<InversionComponent>();
        if (c.setup == 2)
            input->components().get<InversionComponent>()->recordInversion(
                "pad", Operation::Specs{"UndoPadding", {}, Phase::Always});
        UndoPaddingOperation undo(c.identifier);
        Log::Capture capture;
        EXPECT_EQ(undo.process(input), input);
        EXPECT_EQ(messagesOf(capture, "ML.UndoPadding"), std::vector<std::string>{c.expected});
        undo.setErrorOnUnexpectedBehaviour(true);
        EXPECT_EQ(errorOf(undo, input), "[ML.UndoPadding] " + c.expected);
    }
}

TEST(UndoPadding, RefusesAnotherFrameCountAndUndoesDirectly)
{
    DataItem item;
    item.set("image", std::make_shared<ImageElement>(rampSet({5, 5, 2}, 2)));
    PadDimsOperation padDims(Eigen::Vector3i(8, 3, 2));
    padDims.setRecordIdentifier("pad");
    padDims.process(item);
    auto const padded = item.get<ImageElement>("image")->sis();
    ASSERT_EQ(padded->get(0)->dimensions(), Eigen::Vector3i(8, 3, 2));

    // Directly, without Inverse: the record stays, the frames are back.
    UndoPaddingOperation undo("pad");
    auto const restored = undo.process(padded);
    ASSERT_EQ(restored->size(), 2);
    EXPECT_EQ(restored->get(1)->dimensions(), Eigen::Vector3i(5, 5, 2));
    EXPECT_EQ(restored->get(1)->matrixToWorld(), obliqueMatrix(50.0));
    EXPECT_TRUE(restored->components().get<InversionComponent>()->hasInversion("pad"));

    std::shared_ptr<SharedImageSet> const oneFrame = padded->clone();
    oneFrame->remove(1);
    EXPECT_EQ(
        errorOf(undo, oneFrame),
        "[ML.UndoPadding] Padding was performed on an image with 2 frames. Cannot undo it on image with 1 "
        "frames.");
}

} // namespace

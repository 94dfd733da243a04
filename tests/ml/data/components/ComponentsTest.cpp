// Persistence of the processing components: every component written with configuration() and
// read back by a fresh component from the DataComponentFactory, once straight from the tree and
// once through the XML text of a file, must compare equal; reading replaces what was there; and a
// damaged padding or patch record is read as far as it goes, every missing piece logged with the
// numbers as written. Then the inversion stack and the processing record in use.

#include "ml/data/DataItem.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/data/components/ReferenceImageDataComponent.h"
#include "ml/operations/TestOperations.h"
#include "ml/plugin/Registrations.h"

#include "host/core/Log.h"
#include "host/core/PropertiesIO.h"
#include "host/data/DataComponentFactory.h"
#include "host/image/SharedImageSet.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace Velmoria::ML {
namespace {

// A placed, rotated, anisotropic geometry whose numbers need full precision to survive.
ImageDescriptorWorld placedDescriptor(int width, double angle)
{
    ImageDescriptor descriptor(PixelType::UShort, width, 17, 5, 2);
    descriptor.spacing = Eigen::Vector3d(0.7, 1.1 / 3.0, 2.5);
    descriptor.isMetric = true;
    descriptor.shift = -1024.0;
    descriptor.scale = 0.1;
    Eigen::Affine3d const t = Eigen::Translation3d(-4.25, 7.0 / 3.0, 12.0) *
                              Eigen::AngleAxisd(angle, Eigen::Vector3d(1, 2, 3).normalized());
    return ImageDescriptorWorld(descriptor, t.matrix());
}

// What each component looks like filled with everything it can hold.
template <class C>
C sample();

template <>
ProcessingRecordComponent sample<ProcessingRecordComponent>()
{
    Properties clip{{"min", 0.5}, {"max", 3}};
    clip.setParamAttributes("max", "hidden: 1");
    clip.addSubProperties("nested")->setParam("apply_to", std::vector<std::string>{"image", "label"});
    ProcessingRecordComponent record(std::vector<ProcessingRecordComponent::Entries>(2));
    record.recordProcessing("Clip", clip);
    record.recordProcessing("Nothing", Properties());
    record += ProcessingRecordComponent::Entries{{"Sigmoid", Properties{{"device", "ForceCPU"}}}};
    return record;
}

template <>
InversionComponent sample<InversionComponent>()
{
    InversionComponent component;
    component.recordInversion("pad", {"UndoPadding", Properties{{"target_identifier", "pad"}}, Phase::Always},
                              Properties{{"size", 2}});
    component.recordInversion("flip",
                              {"Flip", Properties{{"axes", Eigen::Vector3i(1, 0, 0)}}, Phase::Always});
    component.recordInversion("pad", {"UndoPadding", Properties(), Phase::Always});
    return component;
}

template <>
PaddingDoneDataComponent sample<PaddingDoneDataComponent>()
{
    PaddingDoneInfo first;
    first.add(placedDescriptor(31, 0.3), {{{1, 2}, {0, 0}, {-3, 4}}});
    first.add(placedDescriptor(32, -1.2), {{{5, 5}, {6, 7}, {0, 1}}});
    PaddingDoneInfo second;
    second.add(placedDescriptor(40, 2.0), {{{0, 0}, {0, 0}, {0, 0}}});
    PaddingDoneDataComponent component;
    component.add(first);
    component.add(std::vector{second});
    return component;
}

template <>
PatchesFromImageDataComponent sample<PatchesFromImageDataComponent>()
{
    PatchesFromImageDataComponent component;
    component.add(
        PatchInfo{placedDescriptor(64, 0.1), Eigen::Vector3i(-8, 0, 3), Eigen::Vector3i(32, 32, 1)});
    component.add(
        PatchInfo{placedDescriptor(64, 0.1), Eigen::Vector3i(24, 16, 3), Eigen::Vector3i(32, 32, 1)});
    return component;
}

// Writes `component`, optionally through the XML text, and reads it into a component made by the
// factory from the written id.
std::unique_ptr<DataComponentBase> writeAndRead(DataComponentBase const& component, bool throughXml)
{
    Properties written;
    component.configuration(&written);
    if (throughXml) {
        auto loaded = PropertiesIO::loadFromXMLString(PropertiesIO::saveToXMLString(written));
        if (!loaded)
            return nullptr;
        written = *loaded;
    }
    auto read = DataComponentFactory::get().create(component.id());
    if (read)
        read->configure(&written);
    return read;
}

template <class C>
class ComponentPersistence : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { registerDataComponents(); }
};

using PersistentComponents = ::testing::Types<ProcessingRecordComponent, InversionComponent,
                                              PaddingDoneDataComponent, PatchesFromImageDataComponent>;
TYPED_TEST_SUITE(ComponentPersistence, PersistentComponents);

TYPED_TEST(ComponentPersistence, RoundTripComparesEqualThroughTreeAndFileText)
{
    TypeParam const original = sample<TypeParam>();
    for (bool throughXml : {false, true}) {
        SCOPED_TRACE(throughXml ? "through XML" : "through the tree");
        auto read = writeAndRead(original, throughXml);
        ASSERT_NE(read, nullptr);
        auto const* typed = dynamic_cast<TypeParam const*>(read.get());
        ASSERT_NE(typed, nullptr) << "the factory made another class for " << original.id();
        EXPECT_TRUE(*typed == original);
        EXPECT_TRUE(read->equals(original));
    }
    auto copy = original.clone();
    EXPECT_TRUE(copy->equals(original));
    EXPECT_FALSE(copy->equals(TypeParam()));
}

TYPED_TEST(ComponentPersistence, ReadingReplacesTheContentAndAnEmptyOneWritesNothing)
{
    TypeParam component = sample<TypeParam>();
    Properties nothing;
    component.configure(&nothing);
    EXPECT_TRUE(component == TypeParam());
    component.configuration(&nothing);
    EXPECT_TRUE(nothing.isEmpty()) << nothing.describe();
    // A null tree is no instruction at all: nothing changes.
    TypeParam kept = sample<TypeParam>();
    kept.configure(nullptr);
    kept.configuration(nullptr);
    EXPECT_TRUE(kept == sample<TypeParam>());
}

TEST(ComponentRegistration, FactoryMakesEveryComponentAndTheRecorderIsInstalled)
{
    auto const before = Operation::processingRecordHook();
    Operation::setProcessingRecordHook(nullptr);
    registerDataComponents();
    EXPECT_EQ(Operation::processingRecordHook(), &ProcessingRecordComponent::recordProcessingHook);
    Operation::setProcessingRecordHook(before);
    for (std::string const id :
         {"TargetTag", "ReferenceImageDataComponent", "ProcessingRecordComponent", "InversionComponent",
          "PaddingDoneDataComponent", "PatchesFromImageDataComponent"}) {
        auto created = DataComponentFactory::get().create(id);
        ASSERT_NE(created, nullptr) << id;
        EXPECT_EQ(created->id(), id);
    }
}

TEST(ReferenceImageDataComponent, ReferenceIsComparedByIdentityAndNotPersisted)
{
    auto image = std::make_shared<SharedImageSet>();
    ReferenceImageDataComponent const component(image);
    EXPECT_TRUE(component == ReferenceImageDataComponent(image));
    EXPECT_FALSE(component == ReferenceImageDataComponent(std::make_shared<SharedImageSet>()));

    Properties written;
    component.configuration(&written);
    EXPECT_TRUE(written.isEmpty());
    ReferenceImageDataComponent read(image);
    read.configure(&written);
    // A file cannot bring a pointer back, and reading one does not drop the live reference.
    EXPECT_EQ(read.reference, image);
}

// ---- Damaged padding and patch records ----------------------------------------------------------

ImageDescriptorWorld descriptorOfWidth(int width)
{
    Eigen::Matrix4d matrix = Eigen::Matrix4d::Identity();
    matrix(0, 3) = 0.5 * width;
    return ImageDescriptorWorld(ImageDescriptor(PixelType::Float, width, 8, 4), matrix);
}

// Two infos, the first of three frames of widths 10, 11, 12 with pad sizes that name the frame.
PaddingDoneDataComponent threeAndOneFrames()
{
    PaddingDoneInfo first;
    for (int j = 0; j < 3; ++j)
        first.add(descriptorOfWidth(10 + j), {{{j, j + 1}, {0, 0}, {2, 2}}});
    PaddingDoneInfo second;
    second.add(descriptorOfWidth(20), {{{1, 1}, {1, 1}, {1, 1}}});
    return PaddingDoneDataComponent({first, second});
}

// Three patches at x offsets -5, 5 and 15.
PatchesFromImageDataComponent threePatches()
{
    PatchesFromImageDataComponent component;
    for (int i = 0; i < 3; ++i)
        component.add(
            PatchInfo{descriptorOfWidth(30), Eigen::Vector3i(10 * i - 5, 0, 0), Eigen::Vector3i(16, 8, 4)});
    return component;
}

// What was read, as a text: per padding info "[width:high x pad ...]", per patch its x offset.
std::string shapeOfPadding(Properties const& tree)
{
    PaddingDoneDataComponent component;
    component.configure(&tree);
    std::string text;
    for (PaddingDoneInfo const& info : component.infos) {
        text += "[";
        for (std::size_t j = 0; j < info.size(); ++j)
            text += std::to_string(info.originalDescriptorWorlds[j].descriptor().width) + ":" +
                    std::to_string(info.padSizes[j][0].second) + (j + 1 < info.size() ? " " : "");
        text += "]";
    }
    return text;
}

std::string shapeOfPatches(Properties const& tree)
{
    PatchesFromImageDataComponent component;
    component.configure(&tree);
    std::string text;
    for (PatchInfo const& patch : component.patches)
        text += std::to_string(patch.offset.x()) + " ";
    return text;
}

Properties* sub(Properties& tree, std::string const& name)
{
    return tree.subProperties(name, false);
}

// Deletes sub-tree `child` of sub-tree `parent`.
void drop(Properties& tree, std::string const& parent, std::string const& child)
{
    sub(tree, parent)->deleteSubProperty(sub(*sub(tree, parent), child));
}

// A damage done to the written tree, the error it must cause and what must be read anyway.
struct Damage
{
    std::string name;
    bool patches; // else padding
    std::function<void(Properties&)> damage;
    std::string message;
    std::string expected;
};

class DamagedRecord : public ::testing::TestWithParam<Damage>
{};

TEST_P(DamagedRecord, IsLoggedAndLeftOut)
{
    Damage const& d = GetParam();
    Properties tree;
    if (d.patches)
        threePatches().configuration(&tree);
    else
        threeAndOneFrames().configuration(&tree);
    d.damage(tree);
    Log::Capture capture;
    EXPECT_EQ(d.patches ? shapeOfPatches(tree) : shapeOfPadding(tree), d.expected);
    std::string const category =
        d.patches ? "ML.PatchesFromImageDataComponent" : "ML.PaddingDoneDataComponent";
    EXPECT_TRUE(capture.contains(d.message, category)) << testing::PrintToString(capture.messages());
}

INSTANTIATE_TEST_SUITE_P(
    Damages, DamagedRecord,
    ::testing::Values(
        Damage{"PaddingMissingPadSize", false,
               [](Properties& t) { drop(t, "PaddingDoneInfo 1", "PadSize 2"); },
               "No PadSize 2 found for PaddingDoneInfo 1", "[10:1 12:3][20:1]"},
        Damage{"PaddingMissingDescriptor", false,
               [](Properties& t) { drop(t, "PaddingDoneInfo 1", "originalDescriptorWorld 3"); },
               "No originalDescriptorWorld 3 found for PaddingDoneInfo 1", "[10:1 11:2][20:1]"},
        Damage{"PaddingMissingSize", false,
               [](Properties& t) { sub(t, "PaddingDoneInfo 2")->removeParam("size"); },
               "No size info for PaddingInfo 2 found. Skipping.", "[10:1 11:2 12:3]"},
        Damage{"PaddingRenamedInfo", false,
               [](Properties& t) { sub(t, "PaddingDoneInfo 1")->setName("PaddingDoneInfo 7"); },
               "No info for PaddingInfo 1 found. Skipping.", "[20:1]"},
        Damage{"PaddingBadPadValue", false,
               [](Properties& t) { sub(*sub(t, "PaddingDoneInfo 2"), "PadSize 1")->setParam("y", "1"); },
               "Invalid value '1' for 'y' in PadSize 1 of PaddingDoneInfo 2", "[10:1 11:2 12:3][]"},
        Damage{"PaddingBadMatrix", false,
               [](Properties& t) {
                   sub(*sub(t, "PaddingDoneInfo 1"), "originalDescriptorWorld 1")
                       ->setParam("matrixToWorld", "oops");
               },
               "Invalid value 'oops' for 'matrixToWorld' in originalDescriptorWorld 1 of PaddingDoneInfo 1",
               "[11:2 12:3][20:1]"},
        Damage{"PaddingHugeSize", false,
               [](Properties& t) { sub(t, "PaddingDoneInfo 2")->setParam("size", 4000000000U); },
               "Size 4000000000 of PaddingInfo 2 exceeds its 2 sub-trees. Reading those.",
               "[10:1 11:2 12:3][20:1]"},
        Damage{"PatchMissingRoi", true, [](Properties& t) { drop(t, "Patch 2", "ROI"); },
               "No ROI found for patch 2", "-5 15 "},
        Damage{"PatchMissingDescriptor", true,
               [](Properties& t) { drop(t, "Patch 1", "originalDescriptorWorld"); },
               "No originalDescriptorWorld found for patch 1", "5 15 "},
        Damage{"PatchRenamed", true, [](Properties& t) { sub(t, "Patch 3")->setName("Patch"); },
               "No info for Patch 3 found. Skipping.", "-5 5 "},
        Damage{"PatchBadOffset", true,
               [](Properties& t) { sub(*sub(t, "Patch 1"), "ROI")->setParam("offset", "1 2"); },
               "Invalid value '1 2' for 'offset' in ROI of patch 1", "5 15 "},
        Damage{"PatchMissingImageDescriptor", true,
               [](Properties& t) {
                   Properties* world = sub(*sub(t, "Patch 3"), "originalDescriptorWorld");
                   world->deleteSubProperty(world->subProperties().front());
               },
               "No image descriptor found in originalDescriptorWorld of patch 3", "-5 5 "}),
    [](auto const& info) { return info.param.name; });

// ---- What travels with the data about its processing: the inversion stack (lookups and pops by
// identifier from the end, the empty identifier, the inverse steps, the written form) and the processing
// record (every frame, stacking, and the recorder every operation runs after an element).

using Info = InversionComponent::InversionInfo;
using Entries = ProcessingRecordComponent::Entries;
using Entry = ProcessingRecordComponent::Entry;

Operation::Specs step(std::string name, double value)
{
    return {std::move(name), Properties{{"value", value}}, Phase::Training};
}

// Two infos of "a" around one of "b": the usual shape of a stack with a repeated step.
InversionComponent stackOfThree()
{
    InversionComponent component;
    component.recordInversion("a", step("First", 1));
    component.recordInversion("b", step("Other", 2));
    component.recordInversion("a", step("Second", 3), Properties{{"run", 2}});
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
    component.recordInversion("c", step("Last", 4));
    ASSERT_TRUE(component.popInversionInfo("b").has_value());
    EXPECT_EQ(operationNames(component), (std::vector<std::string>{"First", "Last"}));
    EXPECT_EQ(component.popInversionInfo("a")->operationName, "First");
    EXPECT_FALSE(component.popInversionInfo("a").has_value());
    EXPECT_EQ(operationNames(component), std::vector<std::string>{"Last"});
}

TEST(InversionComponent, InversesUndoInEveryPhaseAndAnEmptyIdentifierIsNotRecorded)
{
    InversionComponent component = stackOfThree();
    auto const inverse = component.inverseSpecs("b");
    ASSERT_TRUE(inverse.has_value());
    EXPECT_EQ(inverse->name, "Other");
    EXPECT_EQ(inverse->properties.paramOr("value", 0.0), 2.0);
    // Recorded for training only, undone in every phase.
    EXPECT_EQ(inverse->phase, Phase::Always);
    EXPECT_FALSE(component.inverseSpecs("c").has_value());

    component.recordInversion("", step("X", 1));
    component.recordInversion("", step("X", 1), Properties{{"a", 1}});
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
    a.recordInversion("x", step("X", 1));
    InversionComponent b;
    b.recordInversion("y", step("Y", 1));
    EXPECT_NE(a + b, b + a);
    EXPECT_EQ((a + b).infos()[1].identifier, "y");
    a += a;
    EXPECT_EQ(a.getAllInversionInfos("x").size(), 2U);
}

TEST(InversionComponent, EmptyTreesAreNotWrittenAndNamelessInfosAreSkippedWithAnError)
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

// Entries are equal only when their trees match entirely: a changed attribute or order counts.
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

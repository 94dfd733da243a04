// Persistence of the processing components: every component written with configuration() and
// read back by a fresh component from the DataComponentFactory, once straight from the tree and
// once through the XML text of a file, must compare equal; reading replaces what was there; and a
// damaged padding or patch record is read as far as it goes, every missing part logged with the
// numbers as written.

#include "ml/data/components/InversionComponent.h"
#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/data/components/ReferenceImageDataComponent.h"
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
    Parts, DamagedRecord,
    ::testing::Values(
        Damage{"PaddingMissingPadSize", false,
               [](Properties& t) {
                   sub(t, "PaddingDoneInfo 1")
                       ->deleteSubProperty(sub(*sub(t, "PaddingDoneInfo 1"), "PadSize 2"));
               },
               "No PadSize 2 found for PaddingDoneInfo 1", "[10:1 12:3][20:1]"},
        Damage{"PaddingMissingDescriptor", false,
               [](Properties& t) {
                   Properties* info = sub(t, "PaddingDoneInfo 1");
                   info->deleteSubProperty(sub(*info, "originalDescriptorWorld 3"));
               },
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
        Damage{"PatchMissingRoi", true,
               [](Properties& t) { sub(t, "Patch 2")->deleteSubProperty(sub(*sub(t, "Patch 2"), "ROI")); },
               "No ROI found for patch 2", "-5 15 "},
        Damage{"PatchMissingDescriptor", true,
               [](Properties& t) {
                   sub(t, "Patch 1")->deleteSubProperty(sub(*sub(t, "Patch 1"), "originalDescriptorWorld"));
               },
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

TEST(PaddingDoneInfo, FramesAreWrittenAsTheTableSays)
{
    Properties tree;
    threeAndOneFrames().configuration(&tree);
    Properties const* info = tree.findSubProperties("PaddingDoneInfo 1");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->paramOr("size", 0U), 3U);
    Properties const* pad = info->findSubProperties("PadSize 3");
    ASSERT_NE(pad, nullptr);
    EXPECT_EQ(pad->paramValueText("x"), "2 3");
    EXPECT_EQ(pad->paramValueText("z"), "2 2");
    Properties const* world = info->findSubProperties("originalDescriptorWorld 2");
    ASSERT_NE(world, nullptr);
    Eigen::Matrix4d matrix;
    ASSERT_TRUE(world->param("matrixToWorld", matrix));
    EXPECT_EQ(matrix(0, 3), 5.5);
    ASSERT_EQ(world->subPropertiesCount(), 1U);
    EXPECT_EQ(world->subProperties().front()->paramOr("dimensions", Eigen::Vector3i::Zero().eval()),
              Eigen::Vector3i(11, 8, 4));
}

} // namespace
} // namespace Velmoria::ML

// Persistence of the processing components: every component written with configuration() and
// read back by a fresh component from the DataComponentFactory, once straight from the tree and
// once through the XML text of a file, must compare equal; and reading replaces what was there.

#include "ml/data/components/InversionComponent.h"
#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/data/components/ReferenceImageDataComponent.h"
#include "ml/plugin/Registrations.h"

#include "host/core/PropertiesIO.h"
#include "host/data/DataComponentFactory.h"
#include "host/image/SharedImageSet.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <memory>

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
    Properties empty;
    ProcessingRecordComponent record(std::vector<ProcessingRecordComponent::Entries>(2));
    record.recordProcessing("Clip", clip);
    record.recordProcessing("Nothing", empty);
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
    return PaddingDoneDataComponent({first, second});
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

enum class Route
{
    Tree,
    XmlText,
};

// Writes `component`, optionally through the XML text, and reads it into a component made by the
// factory from the written id.
std::unique_ptr<DataComponentBase> writeAndRead(DataComponentBase const& component, Route route)
{
    Properties written;
    component.configuration(&written);
    if (route == Route::XmlText) {
        std::string const xml = PropertiesIO::saveToXMLString(written);
        auto loaded = PropertiesIO::loadFromXMLString(xml);
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
    for (Route route : {Route::Tree, Route::XmlText}) {
        auto read = writeAndRead(original, route);
        ASSERT_NE(read, nullptr);
        auto const* typed = dynamic_cast<TypeParam const*>(read.get());
        ASSERT_NE(typed, nullptr) << "the factory made another class for " << original.id();
        EXPECT_TRUE(*typed == original) << "route " << static_cast<int>(route);
        EXPECT_TRUE(read->equals(original));
    }
}

TYPED_TEST(ComponentPersistence, ConfigureReplacesTheContent)
{
    TypeParam component = sample<TypeParam>();
    Properties nothing;
    component.configure(&nothing);
    EXPECT_TRUE(component == TypeParam());
    // A null tree is no instruction at all: nothing changes.
    TypeParam kept = sample<TypeParam>();
    kept.configure(nullptr);
    EXPECT_TRUE(kept == sample<TypeParam>());
}

TYPED_TEST(ComponentPersistence, EmptyComponentWritesNothing)
{
    Properties written;
    TypeParam().configuration(&written);
    EXPECT_TRUE(written.isEmpty()) << written.describe();
}

TYPED_TEST(ComponentPersistence, CloneIsEqualAndIndependent)
{
    TypeParam const original = sample<TypeParam>();
    auto copy = original.clone();
    EXPECT_TRUE(copy->equals(original));
    EXPECT_FALSE(copy->equals(TypeParam()));
    Properties nothing;
    copy->configure(&nothing);
    EXPECT_TRUE(original == sample<TypeParam>());
}

// ---- Registration ---------------------------------------------------------------------------

class ComponentRegistration : public ::testing::TestWithParam<char const*>
{
protected:
    static void SetUpTestSuite() { registerDataComponents(); }
};

TEST_P(ComponentRegistration, FactoryMakesTheComponentOfThatId)
{
    auto created = DataComponentFactory::get().create(GetParam());
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(created->id(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Ids, ComponentRegistration,
                         ::testing::Values("TargetTag", "ReferenceImageDataComponent",
                                           "ProcessingRecordComponent", "InversionComponent",
                                           "PaddingDoneDataComponent", "PatchesFromImageDataComponent"));

TEST(ComponentRegistrationHook, RegisteringInstallsTheProcessingRecorder)
{
    auto const before = Operation::processingRecordHook();
    Operation::setProcessingRecordHook(nullptr);
    registerDataComponents();
    EXPECT_EQ(Operation::processingRecordHook(), &ProcessingRecordComponent::recordProcessingHook);
    Operation::setProcessingRecordHook(before);
}

// ---- Reference image --------------------------------------------------------------------------

TEST(ReferenceImageDataComponent, ReferenceIsComparedByIdentityAndNotPersisted)
{
    auto image = std::make_shared<SharedImageSet>();
    ReferenceImageDataComponent const component(image);
    EXPECT_TRUE(component == ReferenceImageDataComponent(image));
    EXPECT_FALSE(component == ReferenceImageDataComponent(std::make_shared<SharedImageSet>()));
    EXPECT_EQ(component.id(), "ReferenceImageDataComponent");

    Properties written;
    component.configuration(&written);
    EXPECT_TRUE(written.isEmpty());
    ReferenceImageDataComponent read(image);
    read.configure(&written);
    // A file cannot bring a pointer back, and reading one does not drop the live reference.
    EXPECT_EQ(read.reference, image);
}

} // namespace
} // namespace Velmoria::ML

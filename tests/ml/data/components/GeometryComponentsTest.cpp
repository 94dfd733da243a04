// Padding and patch records read from damaged trees: every missing part is logged with the
// numbers as written and left out, the rest is read.

#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace Velmoria::ML {
namespace {

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

PatchesFromImageDataComponent threePatches()
{
    PatchesFromImageDataComponent component;
    for (int i = 0; i < 3; ++i)
        component.add(
            PatchInfo{descriptorOfWidth(30), Eigen::Vector3i(10 * i - 5, 0, 0), Eigen::Vector3i(16, 8, 4)});
    return component;
}

// A damage done to the written tree, the error it must cause and what must be read anyway.
struct Damage
{
    std::string name;
    std::function<void(Properties&)> damage;
    std::string message;
    // Frames per info (padding) or the widths' offsets kept (patches), as a text for the check.
    std::string expected;
};

std::string shape(PaddingDoneDataComponent const& component)
{
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

std::string shape(PatchesFromImageDataComponent const& component)
{
    std::string text;
    for (PatchInfo const& patch : component.patches)
        text += std::to_string(patch.offset.x()) + " ";
    return text;
}

Properties* sub(Properties& tree, std::string const& name)
{
    return tree.subProperties(name, false);
}

class PaddingDamage : public ::testing::TestWithParam<Damage>
{};

TEST_P(PaddingDamage, IsLoggedAndLeftOut)
{
    Properties tree;
    threeAndOneFrames().configuration(&tree);
    GetParam().damage(tree);
    Log::Capture capture;
    PaddingDoneDataComponent read;
    read.configure(&tree);
    EXPECT_TRUE(capture.contains(GetParam().message, "ML.PaddingDoneDataComponent"))
        << testing::PrintToString(capture.messages());
    EXPECT_EQ(shape(read), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Parts, PaddingDamage,
    ::testing::Values(
        Damage{"MissingPadSize",
               [](Properties& t) {
                   Properties* info = sub(t, "PaddingDoneInfo 1");
                   info->deleteSubProperty(sub(*info, "PadSize 2"));
               },
               "No PadSize 2 found for PaddingDoneInfo 1", "[10:1 12:3][20:1]"},
        Damage{"MissingDescriptor",
               [](Properties& t) {
                   Properties* info = sub(t, "PaddingDoneInfo 1");
                   info->deleteSubProperty(sub(*info, "originalDescriptorWorld 3"));
               },
               "No originalDescriptorWorld 3 found for PaddingDoneInfo 1", "[10:1 11:2][20:1]"},
        Damage{"MissingSize", [](Properties& t) { sub(t, "PaddingDoneInfo 2")->removeParam("size"); },
               "No size info for PaddingInfo 2 found. Skipping.", "[10:1 11:2 12:3]"},
        Damage{"RenamedInfo",
               [](Properties& t) { sub(t, "PaddingDoneInfo 1")->setName("PaddingDoneInfo 7"); },
               "No info for PaddingInfo 1 found. Skipping.", "[20:1]"},
        Damage{"BadPadValue",
               [](Properties& t) { sub(*sub(t, "PaddingDoneInfo 2"), "PadSize 1")->setParam("y", "1"); },
               "Invalid value '1' for 'y' in PadSize 1 of PaddingDoneInfo 2", "[10:1 11:2 12:3][]"},
        Damage{"BadMatrix",
               [](Properties& t) {
                   sub(*sub(t, "PaddingDoneInfo 1"), "originalDescriptorWorld 1")
                       ->setParam("matrixToWorld", "oops");
               },
               "Invalid value 'oops' for 'matrixToWorld' in originalDescriptorWorld 1 of PaddingDoneInfo 1",
               "[11:2 12:3][20:1]"},
        Damage{"HugeSize", [](Properties& t) { sub(t, "PaddingDoneInfo 2")->setParam("size", 4000000000U); },
               "Size 4000000000 of PaddingInfo 2 exceeds its 2 sub-trees. Reading those.",
               "[10:1 11:2 12:3][20:1]"}),
    [](auto const& info) { return info.param.name; });

class PatchDamage : public ::testing::TestWithParam<Damage>
{};

TEST_P(PatchDamage, IsLoggedAndTheWholePatchLeftOut)
{
    Properties tree;
    threePatches().configuration(&tree);
    GetParam().damage(tree);
    Log::Capture capture;
    PatchesFromImageDataComponent read;
    read.configure(&tree);
    EXPECT_TRUE(capture.contains(GetParam().message, "ML.PatchesFromImageDataComponent"))
        << testing::PrintToString(capture.messages());
    EXPECT_EQ(shape(read), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Parts, PatchDamage,
    ::testing::Values(Damage{"MissingRoi",
                             [](Properties& t) {
                                 Properties* patch = sub(t, "Patch 2");
                                 patch->deleteSubProperty(sub(*patch, "ROI"));
                             },
                             "No ROI found for patch 2", "-5 15 "},
                      Damage{"MissingDescriptor",
                             [](Properties& t) {
                                 Properties* patch = sub(t, "Patch 1");
                                 patch->deleteSubProperty(sub(*patch, "originalDescriptorWorld"));
                             },
                             "No originalDescriptorWorld found for patch 1", "5 15 "},
                      Damage{"RenamedPatch", [](Properties& t) { sub(t, "Patch 3")->setName("Patch"); },
                             "No info for Patch 3 found. Skipping.", "-5 5 "},
                      Damage{"BadOffset",
                             [](Properties& t) { sub(*sub(t, "Patch 1"), "ROI")->setParam("offset", "1 2"); },
                             "Invalid value '1 2' for 'offset' in ROI of patch 1", "5 15 "},
                      Damage{"MissingImageDescriptor",
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

TEST(PaddingDoneDataComponent, AddAppendsOneByOne)
{
    PaddingDoneDataComponent component;
    PaddingDoneDataComponent const sample = threeAndOneFrames();
    component.add(sample.infos.front());
    component.add(sample.infos);
    ASSERT_EQ(component.infos.size(), 3U);
    EXPECT_EQ(component.infos[0], component.infos[1]);
    EXPECT_NE(component, sample);
}

} // namespace
} // namespace Velmoria::ML

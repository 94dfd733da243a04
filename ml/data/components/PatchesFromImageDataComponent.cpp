#include "ml/data/components/PatchesFromImageDataComponent.h"

#include "ml/data/components/DescriptorWorldProperties.h"

#include "host/core/Log.h"

#include <fmt/format.h>

#include <string_view>

namespace Velmoria::ML {

namespace {
constexpr char const* kCategory = "ML.PatchesFromImageDataComponent";
} // namespace

void PatchesFromImageDataComponent::configure(Properties const* properties)
{
    if (!properties)
        return;
    patches.clear();
    std::size_t const count = properties->subPropertiesCount();
    for (std::size_t i = 1; i <= count; ++i) {
        Properties const* patchTree = properties->findSubProperties(fmt::format("Patch {}", i));
        if (!patchTree) {
            VELMORIA_LOG_ERROR(kCategory, "No info for Patch {} found. Skipping.", i);
            continue;
        }
        Properties const* descriptorTree = patchTree->findSubProperties("originalDescriptorWorld");
        Properties const* roiTree = patchTree->findSubProperties("ROI");
        if (!descriptorTree)
            VELMORIA_LOG_ERROR(kCategory, "No originalDescriptorWorld found for patch {}", i);
        if (!roiTree)
            VELMORIA_LOG_ERROR(kCategory, "No ROI found for patch {}", i);
        if (!descriptorTree || !roiTree)
            continue;

        PatchInfo patch;
        if (!readDescriptorWorld(*descriptorTree, patch.originalDescriptorWorld, kCategory,
                                 fmt::format("originalDescriptorWorld of patch {}", i)))
            continue;
        bool roiOk = true;
        for (char const* key : {"offset", "size"}) {
            Eigen::Vector3i value;
            if (!roiTree->param(key, value)) {
                VELMORIA_LOG_ERROR(kCategory, "Invalid value '{}' for '{}' in ROI of patch {}",
                                   roiTree->paramValueText(key), key, i);
                roiOk = false;
                continue;
            }
            (std::string_view(key) == "offset" ? patch.offset : patch.size) = value;
        }
        if (roiOk)
            patches.push_back(std::move(patch));
    }
}

void PatchesFromImageDataComponent::configuration(Properties* properties) const
{
    if (!properties)
        return;
    for (std::size_t i = 0; i < patches.size(); ++i) {
        Properties* patchTree = properties->addSubProperties(fmt::format("Patch {}", i + 1));
        writeDescriptorWorld(patches[i].originalDescriptorWorld,
                             *patchTree->addSubProperties("originalDescriptorWorld"));
        Properties* roiTree = patchTree->addSubProperties("ROI");
        roiTree->setParam("offset", patches[i].offset);
        roiTree->setParam("size", patches[i].size);
    }
}

} // namespace Velmoria::ML

#include "ml/data/components/PaddingDoneDataComponent.h"

#include "ml/data/components/DescriptorWorldProperties.h"

#include "host/core/Log.h"

#include <fmt/format.h>

#include <Eigen/Core>

namespace Velmoria::ML {

namespace {
constexpr char const* kCategory = "ML.PaddingDoneDataComponent";
constexpr char const* kAxes[3] = {"x", "y", "z"};
} // namespace

void PaddingDoneInfo::add(ImageDescriptorWorld const& originalDescriptorWorld, PadSize const& padSize)
{
    originalDescriptorWorlds.push_back(originalDescriptorWorld);
    padSizes.push_back(padSize);
}

void PaddingDoneDataComponent::configure(Properties const* properties)
{
    if (!properties)
        return;
    infos.clear();
    std::size_t const count = properties->subPropertiesCount();
    for (std::size_t i = 1; i <= count; ++i) {
        Properties const* infoTree = properties->findSubProperties(fmt::format("PaddingDoneInfo {}", i));
        if (!infoTree) {
            VELMORIA_LOG_ERROR(kCategory, "No info for PaddingInfo {} found. Skipping.", i);
            continue;
        }
        unsigned int size = 0;
        if (!infoTree->param("size", size)) {
            VELMORIA_LOG_ERROR(kCategory, "No size info for PaddingInfo {} found. Skipping.", i);
            continue;
        }

        // A size beyond what the tree can hold is a damaged file; reading it as written would loop
        // (and log) once per claimed frame.
        if (size > infoTree->subPropertiesCount()) {
            VELMORIA_LOG_ERROR(kCategory,
                               "Size {} of PaddingInfo {} exceeds its {} sub-trees. Reading those.", size, i,
                               infoTree->subPropertiesCount());
            size = static_cast<unsigned int>(infoTree->subPropertiesCount());
        }

        PaddingDoneInfo info;
        for (unsigned int j = 1; j <= size; ++j) {
            Properties const* descriptorTree =
                infoTree->findSubProperties(fmt::format("originalDescriptorWorld {}", j));
            Properties const* padTree = infoTree->findSubProperties(fmt::format("PadSize {}", j));
            if (!descriptorTree)
                VELMORIA_LOG_ERROR(kCategory, "No originalDescriptorWorld {} found for PaddingDoneInfo {}", j,
                                   i);
            if (!padTree)
                VELMORIA_LOG_ERROR(kCategory, "No PadSize {} found for PaddingDoneInfo {}", j, i);
            if (!descriptorTree || !padTree)
                continue;

            ImageDescriptorWorld descriptorWorld;
            if (!readDescriptorWorld(*descriptorTree, descriptorWorld, kCategory,
                                     fmt::format("originalDescriptorWorld {} of PaddingDoneInfo {}", j, i)))
                continue;
            PaddingDoneInfo::PadSize padSize{};
            bool padOk = true;
            for (int axis = 0; axis < 3; ++axis) {
                Eigen::Vector2i lowHigh;
                if (!padTree->param(kAxes[axis], lowHigh)) {
                    VELMORIA_LOG_ERROR(kCategory,
                                       "Invalid value '{}' for '{}' in PadSize {} of PaddingDoneInfo {}",
                                       padTree->paramValueText(kAxes[axis]), kAxes[axis], j, i);
                    padOk = false;
                    break;
                }
                padSize[axis] = {lowHigh.x(), lowHigh.y()};
            }
            if (padOk)
                info.add(descriptorWorld, padSize);
        }
        infos.push_back(std::move(info));
    }
}

void PaddingDoneDataComponent::configuration(Properties* properties) const
{
    if (!properties)
        return;
    for (std::size_t i = 0; i < infos.size(); ++i) {
        PaddingDoneInfo const& info = infos[i];
        Properties* infoTree = properties->addSubProperties(fmt::format("PaddingDoneInfo {}", i + 1));
        infoTree->setParam("size", static_cast<unsigned int>(info.size()));
        for (std::size_t j = 0; j < info.size(); ++j)
            writeDescriptorWorld(info.originalDescriptorWorlds[j], *infoTree->addSubProperties(fmt::format(
                                                                       "originalDescriptorWorld {}", j + 1)));
        for (std::size_t j = 0; j < info.padSizes.size(); ++j) {
            Properties* padTree = infoTree->addSubProperties(fmt::format("PadSize {}", j + 1));
            for (int axis = 0; axis < 3; ++axis)
                padTree->setParam(kAxes[axis], Eigen::Vector2i(info.padSizes[j][axis].first,
                                                               info.padSizes[j][axis].second));
        }
    }
}

} // namespace Velmoria::ML

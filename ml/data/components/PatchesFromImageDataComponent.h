#pragma once

// PatchesFromImageDataComponent: where each frame of a set of patches was cut from, so that
// predictions on the patches can be put back together in the original image.
//
// PatchInfo: the original image's geometry (ImageDescriptorWorld) and the patch's region of
// interest in its pixels: `offset`, the patch's first pixel, and `size`, its extent. An offset
// may be negative (and offset + size may pass the image's end) when the patch lies partly
// outside the image. The component holds one PatchInfo per frame, in frame order.
//
// Persistence (id "PatchesFromImageDataComponent"); numbers in names count from 1:
//   "Patch <i>"                   one sub-tree per patch
//     "originalDescriptorWorld"   an unnamed sub-tree with the ImageDescriptor keys, and
//                                 "matrixToWorld" (4x4)
//     "ROI"                       "offset" and "size", three ints each
// configure is forgiving: a missing patch or a missing or unreadable part of one is logged at
// error level in "ML.PatchesFromImageDataComponent" and that patch is left out.

#include "host/data/DataComponent.h"
#include "host/image/ImageDescriptorWorld.h"

#include <Eigen/Core>
#include <string>
#include <vector>

namespace Velmoria::ML {

struct PatchInfo
{
    ImageDescriptorWorld originalDescriptorWorld;
    Eigen::Vector3i offset = Eigen::Vector3i::Zero();
    Eigen::Vector3i size = Eigen::Vector3i::Zero();

    bool operator==(PatchInfo const& other) const
    {
        return originalDescriptorWorld == other.originalDescriptorWorld && offset == other.offset &&
               size == other.size;
    }
};

class PatchesFromImageDataComponent : public DataComponent<PatchesFromImageDataComponent>
{
public:
    PatchesFromImageDataComponent() = default;
    explicit PatchesFromImageDataComponent(std::vector<PatchInfo> patches)
        : patches(std::move(patches))
    {}

    std::string id() const override { return "PatchesFromImageDataComponent"; }
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    void add(PatchInfo const& patch) { patches.push_back(patch); }
    void add(std::vector<PatchInfo> const& more) { patches.insert(patches.end(), more.begin(), more.end()); }

    bool operator==(PatchesFromImageDataComponent const& other) const { return patches == other.patches; }
    bool operator!=(PatchesFromImageDataComponent const& other) const { return !(*this == other); }

    std::vector<PatchInfo> patches;
};

} // namespace Velmoria::ML

#pragma once

// PaddingDoneDataComponent: what padding did to a batch, so that it can be undone exactly (the
// undo step crops each frame back by the recorded amounts and checks the geometry against the
// recorded descriptor).
//
// PaddingDoneInfo is the record of one padding of a batch: for each frame, the frame's geometry
// before the padding and the pixels added at the low and the high end of each axis. The
// component keeps the infos oldest first; padding the same content twice adds a second info.
//
// Persistence (id "PaddingDoneDataComponent"); numbers in names count from 1:
//   "PaddingDoneInfo <i>"               one sub-tree per info
//     "size"                            number of frames of the info (unsigned)
//     "originalDescriptorWorld <j>"     one per frame: an unnamed sub-tree with the
//                                       ImageDescriptor keys and "matrixToWorld" (4x4)
//     "PadSize <j>"                     one per frame: "x", "y", "z", each "low high"
// configure is forgiving: a missing info, a missing "size" or a missing or unreadable part of a
// frame is logged at error level in "ML.PaddingDoneDataComponent" and left out; the rest is read.
// Those messages name the numbers as written in the file.

#include "host/data/DataComponent.h"
#include "host/image/ImageDescriptorWorld.h"

#include <array>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace Velmoria::ML {

struct PaddingDoneInfo
{
    // Per axis (x, y, z): pixels added at the low end (first) and at the high end (second).
    using PadSize = std::array<std::pair<int, int>, 3>;

    // Appends one frame.
    void add(ImageDescriptorWorld const& originalDescriptorWorld, PadSize const& padSize);
    std::size_t size() const { return originalDescriptorWorlds.size(); }

    bool operator==(PaddingDoneInfo const& other) const = default;

    // Same length: one entry per frame.
    std::vector<ImageDescriptorWorld> originalDescriptorWorlds;
    std::vector<PadSize> padSizes;
};

class PaddingDoneDataComponent : public DataComponent<PaddingDoneDataComponent>
{
public:
    PaddingDoneDataComponent() = default;
    explicit PaddingDoneDataComponent(std::vector<PaddingDoneInfo> infos)
        : infos(std::move(infos))
    {}

    std::string id() const override { return "PaddingDoneDataComponent"; }
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    void add(PaddingDoneInfo const& info) { infos.push_back(info); }
    void add(std::vector<PaddingDoneInfo> const& more)
    {
        infos.insert(infos.end(), more.begin(), more.end());
    }

    bool operator==(PaddingDoneDataComponent const& other) const { return infos == other.infos; }
    bool operator!=(PaddingDoneDataComponent const& other) const { return !(*this == other); }

    std::vector<PaddingDoneInfo> infos;
};

} // namespace Velmoria::ML

#pragma once

// Box: one axis-aligned bounding box in world coordinates (millimetres, patient LPS), as held by
// a BoundingBoxSet.
//
// `extent` is the full width along each axis, not the half width. The two corners that the
// annotation files use are topLeft() = center - extent / 2 and bottomRight() = center + extent / 2;
// fromCorners() is the inverse. A box with a negative extent component is invalid (it cannot be
// drawn); nothing here forbids it, BoundingBoxSet::canBeShownIn2D3D() reports it.

#include <Eigen/Core>

namespace Velmoria::ML {

struct Box
{
    Eigen::Vector3d center = Eigen::Vector3d::Zero();
    Eigen::Vector3d extent = Eigen::Vector3d::Zero();

    Eigen::Vector3d topLeft() const { return center - extent / 2.0; }
    Eigen::Vector3d bottomRight() const { return center + extent / 2.0; }

    static Box fromCorners(Eigen::Vector3d const& topLeft, Eigen::Vector3d const& bottomRight)
    {
        return Box{(topLeft + bottomRight) / 2.0, bottomRight - topLeft};
    }

    // Exact comparison, coordinate by coordinate (a NaN is never equal).
    bool operator==(Box const& other) const { return center == other.center && extent == other.extent; }
    bool operator!=(Box const& other) const { return !(*this == other); }
};

} // namespace Velmoria::ML

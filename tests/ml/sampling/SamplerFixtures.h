#pragma once

// Builders shared by the sampler suites: placed frames whose pixel values tell where they came
// from, label maps, and the analytic world position of a voxel, computed from the geometry
// convention itself (never from the code under test).

#include "tests/ml/TestHelpers.h"

#include "host/data/Data.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <Eigen/Core>
#include <memory>
#include <vector>

namespace Velmoria::MLTest {

// A float set of one placed frame (spacing 0.7 1.1 2.5, rotated and moved) whose value at (x, y,
// z) is x + 100 y + 10000 z, so that a value names its voxel.
inline std::shared_ptr<SharedImageSet> codedSet(Eigen::Vector3i const& dims)
{
    std::vector<double> values;
    for (int z = 0; z < dims.z(); ++z)
        for (int y = 0; y < dims.y(); ++y)
            for (int x = 0; x < dims.x(); ++x)
                values.push_back(x + 100.0 * y + 10000.0 * z);
    return std::make_shared<SharedImageSet>(placedFrame<float>(dims, 1, values));
}

// An unsigned 8-bit label map of zeros (placed like codedSet) with modality Label; `marks`
// gives (voxel, value) pairs.
inline std::shared_ptr<SharedImageSet> labelSet(Eigen::Vector3i const& dims,
                                                std::vector<std::pair<Eigen::Vector3i, int>> const& marks)
{
    std::vector<double> values(static_cast<std::size_t>(dims.prod()), 0.0);
    for (auto const& [voxel, value] : marks)
        values[static_cast<std::size_t>(voxel.x() + dims.x() * (voxel.y() + dims.y() * voxel.z()))] = value;
    auto set = std::make_shared<SharedImageSet>(placedFrame<unsigned char>(dims, 1, values));
    set->setModality(Data::Modality::Label);
    return set;
}

// Where the centre of voxel `p` (possibly outside the image) of a frame with these dimensions,
// spacing and matrix lies in the world: (p − (dim − 1) / 2) ∘ spacing in image millimetres, then
// the matrix.
inline Eigen::Vector3d analyticWorld(Eigen::Vector3d const& p, Eigen::Vector3i const& dims,
                                     Eigen::Vector3d const& spacing, Eigen::Matrix4d const& matrixToWorld)
{
    Eigen::Vector3d const image =
        (p - (dims.cast<double>() - Eigen::Vector3d::Ones()) / 2.0).cwiseProduct(spacing);
    return (matrixToWorld * image.homogeneous()).head<3>();
}

template <class T>
T valueAt(SharedImageSet const& set, int x, int y, int z)
{
    return static_cast<TypedImage<T> const*>(set.get()->mem())->value(x, y, z);
}

} // namespace Velmoria::MLTest

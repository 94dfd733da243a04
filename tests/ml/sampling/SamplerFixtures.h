#pragma once

// Builders shared by the sampler suites: placed frames whose pixel values tell where they came
// from, label maps, and (from PatchFixtures.h) the analytic world position of a voxel.

#include "tests/ml/TestHelpers.h"
#include "tests/ml/sampling/PatchFixtures.h"

#include "host/data/Data.h"
#include "host/image/SharedImageSet.h"

#include <vector>

namespace Velmoria::MLTest {

// A float set of one placed frame (see placedFrame) whose value at (x, y, z) is x + 100 y + 10000 z,
// so that a value names its voxel.
inline std::shared_ptr<SharedImageSet> codedSet(Eigen::Vector3i const& dims)
{
    std::vector<double> values;
    for (int z = 0; z < dims.z(); ++z)
        for (int y = 0; y < dims.y(); ++y)
            for (int x = 0; x < dims.x(); ++x)
                values.push_back(x + 100.0 * y + 10000.0 * z);
    return setWith(placedFrame<float>(dims, 1, values));
}

// An unsigned 8-bit label map of zeros (placed like codedSet) with modality Label; `marks`
// gives (voxel, value) pairs.
inline std::shared_ptr<SharedImageSet> labelSet(Eigen::Vector3i const& dims,
                                                std::vector<std::pair<Eigen::Vector3i, int>> const& marks)
{
    std::vector<double> values(static_cast<std::size_t>(dims.prod()), 0.0);
    for (auto const& [voxel, value] : marks)
        values[static_cast<std::size_t>(voxel.x() + dims.x() * (voxel.y() + dims.y() * voxel.z()))] = value;
    auto set = setWith(placedFrame<unsigned char>(dims, 1, values));
    set->setModality(Data::Modality::Label);
    return set;
}

template <class T>
T valueAt(SharedImageSet const& set, int x, int y, int z)
{
    return valueOf<T>(*set.get(), x, y, z);
}

} // namespace Velmoria::MLTest

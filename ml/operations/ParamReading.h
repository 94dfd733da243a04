#pragma once

// Readers for the size-like keys of operations that accept one value for all axes, one for x
// and y, or one per axis ("spacing: 2", "spacing: 2 3", "spacing: 2 3 4").
//
// Each tries, in this order: a 3-vector, copied whole; a 2-vector, which fills x and y while z
// comes from `defaults` (a 2D setting leaves the third axis at what the caller deems neutral); a
// scalar, copied to all three axes. True when one of them read; otherwise `out` is untouched.
// The integer form refuses fractions ("2.5" is not read). Neither throws nor logs: the caller
// knows whether a missing key is an error.

#include "host/core/Properties.h"

#include <Eigen/Core>
#include <string>

namespace Velmoria::ML::detail {

bool readVec3OrVec2OrScalar(Properties const& properties, std::string const& key, Eigen::Vector3d& out,
                            Eigen::Vector3d const& defaults);
bool readVec3iOrVec2iOrScalar(Properties const& properties, std::string const& key, Eigen::Vector3i& out,
                              Eigen::Vector3i const& defaults);

} // namespace Velmoria::ML::detail

#include "ml/operations/ParamReading.h"

namespace Velmoria::ML::detail {

namespace {

template <class Scalar>
bool readVec3OrVec2OrScalarOf(Properties const& properties, std::string const& key,
                              Eigen::Matrix<Scalar, 3, 1>& out, Eigen::Matrix<Scalar, 3, 1> const& defaults)
{
    Eigen::Matrix<Scalar, 3, 1> vec3;
    if (properties.param(key, vec3)) {
        out = vec3;
        return true;
    }
    Eigen::Matrix<Scalar, 2, 1> vec2;
    if (properties.param(key, vec2)) {
        out = Eigen::Matrix<Scalar, 3, 1>(vec2.x(), vec2.y(), defaults.z());
        return true;
    }
    Scalar scalar{};
    if (properties.param(key, scalar)) {
        out = Eigen::Matrix<Scalar, 3, 1>::Constant(scalar);
        return true;
    }
    return false;
}

} // namespace

bool readVec3OrVec2OrScalar(Properties const& properties, std::string const& key, Eigen::Vector3d& out,
                            Eigen::Vector3d const& defaults)
{
    return readVec3OrVec2OrScalarOf<double>(properties, key, out, defaults);
}

bool readVec3iOrVec2iOrScalar(Properties const& properties, std::string const& key, Eigen::Vector3i& out,
                              Eigen::Vector3i const& defaults)
{
    return readVec3OrVec2OrScalarOf<int>(properties, key, out, defaults);
}

} // namespace Velmoria::ML::detail

#include "host/data/AlignedBox.h"

#include <limits>

namespace Velmoria::Geometry {

AlignedBox::AlignedBox()
    : m_min(Eigen::Vector3d::Constant(std::numeric_limits<double>::infinity()))
    , m_max(Eigen::Vector3d::Constant(-std::numeric_limits<double>::infinity()))
{}

AlignedBox::AlignedBox(Eigen::Vector3d const& min, Eigen::Vector3d const& max)
    : m_min(min)
    , m_max(max)
{}

AlignedBox& AlignedBox::addBox(AlignedBox const& other)
{
    if (other.isEmpty())
        return *this;
    m_min = m_min.cwiseMin(other.m_min);
    m_max = m_max.cwiseMax(other.m_max);
    return *this;
}

AlignedBox& AlignedBox::addPoint(Eigen::Vector3d const& point)
{
    if (!point.allFinite())
        return *this;
    m_min = m_min.cwiseMin(point);
    m_max = m_max.cwiseMax(point);
    return *this;
}

bool AlignedBox::includesPoint(Eigen::Vector3d const& point) const
{
    return !isEmpty() && (point.array() >= m_min.array()).all() && (point.array() <= m_max.array()).all();
}

bool AlignedBox::isEmpty() const
{
    // Written as "not (min <= max)" so that a NaN bound also counts as empty.
    return !(m_min.array() <= m_max.array()).all();
}

Eigen::Vector3d AlignedBox::center() const
{
    return isEmpty() ? Eigen::Vector3d::Zero() : Eigen::Vector3d(0.5 * (m_min + m_max));
}

Eigen::Vector3d AlignedBox::extent() const
{
    return isEmpty() ? Eigen::Vector3d::Zero() : Eigen::Vector3d(m_max - m_min);
}

AlignedBox AlignedBox::transformed(Eigen::Matrix4d const& matrix) const
{
    AlignedBox result;
    if (isEmpty())
        return result;
    for (int corner = 0; corner < 8; ++corner) {
        Eigen::Vector4d p((corner & 1) ? m_max.x() : m_min.x(), (corner & 2) ? m_max.y() : m_min.y(),
                          (corner & 4) ? m_max.z() : m_min.z(), 1.0);
        result.addPoint((matrix * p).head<3>());
    }
    return result;
}

bool AlignedBox::operator==(AlignedBox const& other) const
{
    if (isEmpty() || other.isEmpty())
        return isEmpty() == other.isEmpty();
    return m_min == other.m_min && m_max == other.m_max;
}

} // namespace Velmoria::Geometry

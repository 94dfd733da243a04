#pragma once

// Geometry::AlignedBox: an axis-aligned box in 3-D, the answer of Data::bounds().
//
// A default-constructed box is EMPTY: min = +inf, max = -inf, so that the first addPoint or
// addBox makes it exactly that point or box without a special case. A box is empty as soon as
// min > max on any axis. All empty boxes compare equal; extent() of an empty box is zero and its
// center() is NaN-free zero, so callers never see infinities leak out of an empty answer.
// Non-finite points are not added: one NaN would otherwise make every later comparison false
// and the box silently wrong.

#include <Eigen/Core>

namespace Velmoria::Geometry {

class AlignedBox
{
public:
    AlignedBox();
    AlignedBox(Eigen::Vector3d const& min, Eigen::Vector3d const& max);

    // Grows the box to contain `other`; an empty `other` changes nothing.
    AlignedBox& addBox(AlignedBox const& other);
    // Grows the box to contain `point`; a non-finite point changes nothing.
    AlignedBox& addPoint(Eigen::Vector3d const& point);
    // True when `point` lies inside or on the border (closed box). Never true for an empty box.
    bool includesPoint(Eigen::Vector3d const& point) const;
    bool isEmpty() const;

    Eigen::Vector3d const& min() const { return m_min; }
    Eigen::Vector3d const& max() const { return m_max; }
    // Zero for an empty box.
    Eigen::Vector3d center() const;
    // max - min; zero for an empty box.
    Eigen::Vector3d extent() const;

    // The smallest aligned box holding the 8 corners of this box mapped by the affine `matrix`.
    AlignedBox transformed(Eigen::Matrix4d const& matrix) const;

    bool operator==(AlignedBox const& other) const;

private:
    Eigen::Vector3d m_min;
    Eigen::Vector3d m_max;
};

} // namespace Velmoria::Geometry

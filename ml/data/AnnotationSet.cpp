#include "ml/data/AnnotationSet.h"

#include <fmt/format.h>

#include <Eigen/Geometry>
#include <stdexcept>
#include <utility>

namespace Velmoria::ML {

namespace {

// The per-entry operations, overloaded on the two entry types.

bool approxVector(Eigen::Vector3d const& a, Eigen::Vector3d const& b)
{
    return a.isApprox(b, AnnotationSet<Eigen::Vector3d>::approxPrecision) ||
           (a - b).norm() <= AnnotationSet<Eigen::Vector3d>::approxFloor;
}

void addToBox(Geometry::AlignedBox& box, Eigen::Vector3d const& point)
{
    box.addPoint(point);
}

void addToBox(Geometry::AlignedBox& box, Box const& entry)
{
    box.addPoint(entry.topLeft());
    box.addPoint(entry.bottomRight());
}

bool approxEntry(Eigen::Vector3d const& a, Eigen::Vector3d const& b)
{
    return approxVector(a, b);
}

bool approxEntry(Box const& a, Box const& b)
{
    return approxVector(a.center, b.center) && approxVector(a.extent, b.extent);
}

Eigen::Vector3d transformEntry(Eigen::Vector3d const& point, Eigen::Affine3d const& transform)
{
    return transform * point;
}

// The axis-aligned box around the 8 transformed corners has the transformed center and, per
// axis, the extent sum_j |L_ij| * extent_j (L the linear part): the usual closed form, which
// also keeps the sign of an (invalid) negative extent instead of collapsing it.
Box transformEntry(Box const& box, Eigen::Affine3d const& transform)
{
    return Box{transform * box.center, transform.linear().cwiseAbs() * box.extent};
}

bool drawable(Eigen::Vector3d const& point)
{
    return point.allFinite();
}

bool drawable(Box const& box)
{
    return box.center.allFinite() && box.extent.allFinite() && (box.extent.array() >= 0.0).all();
}

} // namespace

template <class Entry>
AnnotationSet<Entry>::AnnotationSet() = default;

template <class Entry>
AnnotationSet<Entry>::AnnotationSet(Frames frames)
    : m_frames(std::move(frames))
{}

template <class Entry>
AnnotationSet<Entry>::AnnotationSet(AnnotationSet const& other)
    : Data(other.name())
    , Selectable()
    , m_frames(other.m_frames)
    , m_selection(other.m_selection)
{
    setModality(other.modality());
    components().assign(other.components());
}

// Data has no move of its own (see Data.h); its parts go over by the setters.
template <class Entry>
AnnotationSet<Entry>::AnnotationSet(AnnotationSet&& other) noexcept
    : Data(other.name())
    , Selectable()
    , m_frames(std::move(other.m_frames))
    , m_selection(other.m_selection)
{
    setModality(other.modality());
    components() = std::move(other.components());
    other.m_frames.clear();
    other.m_selection = {};
}

template <class Entry>
AnnotationSet<Entry>& AnnotationSet<Entry>::operator=(AnnotationSet const& other)
{
    if (this != &other) {
        AnnotationSet copy(other);
        *this = std::move(copy);
    }
    return *this;
}

template <class Entry>
AnnotationSet<Entry>& AnnotationSet<Entry>::operator=(AnnotationSet&& other) noexcept
{
    if (this != &other) {
        setName(other.name());
        setModality(other.modality());
        components() = std::move(other.components());
        m_frames = std::move(other.m_frames);
        m_selection = other.m_selection;
        other.m_frames.clear();
        other.m_selection = {};
    }
    return *this;
}

template <class Entry>
AnnotationSet<Entry>::~AnnotationSet() = default;

template <class Entry>
Geometry::AlignedBox AnnotationSet<Entry>::bounds() const
{
    Geometry::AlignedBox box;
    for (auto const& frame : m_frames)
        for (auto const& channel : frame)
            for (auto const& entry : channel)
                addToBox(box, entry);
    return box;
}

template <class Entry>
void AnnotationSet<Entry>::setMatrix(Eigen::Matrix4d const& matrix)
{
    if (matrix.isIdentity(0.0))
        return;
    Eigen::Affine3d const transform(matrix);
    for (auto& frame : m_frames)
        for (auto& channel : frame)
            for (auto& entry : channel)
                entry = transformEntry(entry, transform);
}

template <class Entry>
void AnnotationSet<Entry>::appendFrame(AnnotationSet const& source, std::size_t frame)
{
    if (frame >= source.m_frames.size())
        throw std::out_of_range(fmt::format("Frame index {} is out of range for a set of {} frames", frame,
                                            source.m_frames.size()));
    // Copy first: `source` may be this set, and push_back may reallocate under the reference.
    Frame copy = source.m_frames[frame];
    m_frames.push_back(std::move(copy));
}

template <class Entry>
void AnnotationSet<Entry>::append(AnnotationSet const& source)
{
    std::size_t const count = source.m_frames.size();
    for (std::size_t i = 0; i < count; ++i)
        appendFrame(source, i);
}

template <class Entry>
void AnnotationSet<Entry>::copyAttributesFrom(AnnotationSet const& other)
{
    setName(other.name());
    setModality(other.modality());
    components().assign(other.components());
}

template <class Entry>
bool AnnotationSet<Entry>::isEqual(AnnotationSet const& other) const
{
    // Frame == Frame compares sizes and then entries with ==: exactly the rule of the header.
    return m_frames == other.m_frames;
}

template <class Entry>
bool AnnotationSet<Entry>::isApprox(AnnotationSet const& other) const
{
    if (m_frames.size() != other.m_frames.size())
        return false;
    for (std::size_t f = 0; f < m_frames.size(); ++f) {
        auto const& frame = m_frames[f];
        auto const& otherFrame = other.m_frames[f];
        if (frame.size() != otherFrame.size())
            return false;
        for (std::size_t c = 0; c < frame.size(); ++c) {
            if (frame[c].size() != otherFrame[c].size())
                return false;
            for (std::size_t i = 0; i < frame[c].size(); ++i)
                if (!approxEntry(frame[c][i], otherFrame[c][i]))
                    return false;
        }
    }
    return true;
}

template <class Entry>
bool AnnotationSet<Entry>::canBeShownIn2D3D() const
{
    for (auto const& frame : m_frames)
        for (auto const& channel : frame)
            for (auto const& entry : channel)
                if (!drawable(entry))
                    return false;
    return true;
}

template <class Entry>
void AnnotationSet<Entry>::setSelection(Selection const& selection)
{
    m_selection = selection;
    m_selection.clamp(static_cast<int>(m_frames.size()));
}

template <class Entry>
void AnnotationSet<Entry>::swapContent(Data& other)
{
    auto& set = static_cast<AnnotationSet&>(other);
    std::swap(m_frames, set.m_frames);
    std::swap(m_selection, set.m_selection);
}

template class AnnotationSet<Eigen::Vector3d>;
template class AnnotationSet<Box>;

} // namespace Velmoria::ML

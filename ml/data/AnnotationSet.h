#pragma once

// AnnotationSet<Entry>: what KeypointSet (Entry = Eigen::Vector3d) and BoundingBoxSet (Entry =
// Box) have in common. Both hold, per frame (sample of the batch), per channel (class of the
// annotation), a list of entries in world coordinates.
//
// Placement. The coordinates are world coordinates, so matrix() is always the identity. Moving
// a set (setMatrix, setMatrixToWorld, a DataItem moving its children rigidly) applies the given
// transform to the coordinates themselves and leaves the matrix at the identity; a box is
// replaced by the axis-aligned box around its transformed corners.
//
// Comparison. isEqual compares the structure (frames, channels, entries per channel) and every
// coordinate with ==, so a NaN anywhere makes two sets different, even from themselves.
// isApprox compares the same structure and each 3-vector (a point; a box's center and extent)
// with Eigen's isApprox at relative precision approxPrecision (1e-6 of the vector's norm), and,
// because Eigen's relative test never accepts any difference against an exact zero vector (a
// point at the world origin), also accepts a difference whose norm is at most approxFloor
// (1e-9 mm).
//
// The copy constructors copy name, modality, components and content: annotation sets are
// small, unlike images, and DataItem::set(KeypointSet const&) copies.
//
// Explicitly instantiated for the two entry types in AnnotationSet.cpp.

#include "ml/data/Box.h"

#include "host/data/Data.h"
#include "host/image/Selection.h"

#include <Eigen/Core>
#include <cstddef>
#include <vector>

namespace Velmoria::ML {

template <class Entry>
class AnnotationSet : public Data, public Selectable
{
public:
    using Channel = std::vector<Entry>;
    using Frame = std::vector<Channel>;
    using Frames = std::vector<Frame>;

    static constexpr double approxPrecision = 1e-6;
    static constexpr double approxFloor = 1e-9;

    ~AnnotationSet() override;

    Kind kind() const override { return Kind::Annotation; }
    bool isAnnotationType() const override { return true; }
    // The box around all points (all box corners); empty for a set without entries.
    Geometry::AlignedBox bounds() const override;
    // Applies `matrix` to the coordinates; matrix() stays the identity (see above).
    void setMatrix(Eigen::Matrix4d const& matrix) override;

    // Number of frames (samples).
    std::size_t size() const { return m_frames.size(); }
    bool empty() const { return m_frames.empty(); }
    // All entries of all channels of all frames.
    std::size_t numEntries() const
    {
        std::size_t count = 0;
        for (auto const& frame : m_frames)
            for (auto const& channel : frame)
                count += channel.size();
        return count;
    }
    Frames const& frames() const { return m_frames; }
    Frames& frames() { return m_frames; }

    // Appends a copy of frame `frame` of `source` (which may be this set). Throws
    // std::out_of_range for an index at or past source.size().
    void appendFrame(AnnotationSet const& source, std::size_t frame);
    // Appends copies of all frames of `source`.
    void append(AnnotationSet const& source);
    // Takes name, modality and (cloned) components of `other`, not its content.
    void copyAttributesFrom(AnnotationSet const& other);

    bool isEqual(AnnotationSet const& other) const;
    bool isApprox(AnnotationSet const& other) const;
    // True when a view can draw every entry: all coordinates finite (and, for boxes, no
    // negative extent). True for an empty set.
    bool canBeShownIn2D3D() const;

    Selection const& selection() const override { return m_selection; }
    // Kept within size(); see Selection::clamp.
    void setSelection(Selection const& selection) override;

protected:
    AnnotationSet();
    explicit AnnotationSet(Frames frames);
    AnnotationSet(AnnotationSet const& other);
    AnnotationSet(AnnotationSet&& other) noexcept;
    AnnotationSet& operator=(AnnotationSet const& other);
    AnnotationSet& operator=(AnnotationSet&& other) noexcept;

    void swapContent(Data& other) override;

    Frames m_frames;
    Selection m_selection;
};

extern template class AnnotationSet<Eigen::Vector3d>;
extern template class AnnotationSet<Box>;

} // namespace Velmoria::ML

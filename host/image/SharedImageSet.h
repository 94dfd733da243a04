#pragma once

// SharedImageSet: an ordered list of frames (SharedImage) with one pixel type, plus what the set
// as a whole carries: name, modality, components, properties, timestamps and a selection.
//
// It is the content of the ML library's image and vector elements, where the frames are the
// batch: a set of n frames is a batch of n samples. Frames are held by shared_ptr, so a frame can
// belong to several sets at once (batches that are stacked or split share frames, never pixels
// copies). Index -1 in every accessor stands for the frame in focus.
//
// Geometry. Each frame has its own matrixToWorld. The set's matrix (Data::matrix) is the focus
// frame's; setting it moves every frame by the same rigid change, so frames keep their relative
// placement. An empty set has the identity.
//
// Cloning (CloneOption): 0 copies everything, the pixels included; 1 gives a set without frames
// that keeps everything else (name, modality, components, properties); 4 shares the frames
// instead of copying them (the cheap copy taken when a set leaves a data item). Components of
// the set and of each frame are cloned in every case.

#include "host/core/Flags.h"
#include "host/core/Properties.h"
#include "host/data/Data.h"
#include "host/image/ElementwiseDataComponentList.h"
#include "host/image/Selection.h"
#include "host/image/SharedImage.h"

#include <memory>
#include <optional>
#include <vector>

namespace Velmoria {

class SharedImageSet : public Data, public Selectable
{
public:
    enum class CloneOption : int
    {
        Deep = 0,
        NoFrames = 1,     // keep everything but the frames
        NoComponents = 2, // leave the set's and the frames' components out
        ShareFrames = 4,  // the clone holds the same frames (pointer identity)
    };
    using CloneOptions = Flags<CloneOption>;

    SharedImageSet();
    explicit SharedImageSet(std::shared_ptr<SharedImage> frame);
    explicit SharedImageSet(std::vector<std::shared_ptr<SharedImage>> frames);
    ~SharedImageSet() override;

    Kind kind() const override { return Kind::Image; }
    Geometry::AlignedBox bounds() const override;
    std::string describe() const override;

    // Frames ---------------------------------------------------------------------------------
    int size() const { return static_cast<int>(m_frames.size()); }
    bool empty() const { return m_frames.empty(); }
    // The frame at `index` (-1: the frame in focus); null when there is none.
    SharedImage* get(int index = -1);
    SharedImage const* get(int index = -1) const;
    std::shared_ptr<SharedImage> getShared(int index = -1) const;
    Image* img(int index = -1);
    Image const* img(int index = -1) const;
    MemImage* mem(int index = -1);
    MemImage const* mem(int index = -1) const;
    // No GPU backend in this build: no frame has a GPU representation.
    bool hasGl(int index = -1) const;
    bool uploadGl() { return false; }
    std::vector<std::shared_ptr<SharedImage>> const& images() const { return m_frames; }

    // The pixel type of the frames; nullopt for an empty set.
    std::optional<PixelType> pixelType() const;

    // Appends frames. All frames of a set share one pixel type: a frame of another type, or a
    // null one, is refused with a log line (false) and nothing is added. A new frame takes the
    // set's modality when the set has one.
    bool add(std::shared_ptr<SharedImage> frame);
    bool add(std::shared_ptr<Image> image);
    bool add(std::vector<std::shared_ptr<SharedImage>> const& frames);
    // Puts `frame` in place of frame `index` (its components and timestamp stay).
    bool replace(int index, std::shared_ptr<SharedImage> frame);
    // Puts new frames in place of all frames at once (same count; they may have another pixel
    // type than the old ones, but one among themselves). Components and timestamps stay.
    bool replaceAll(std::vector<std::shared_ptr<SharedImage>> frames);
    bool remove(int index);
    void clear();

    // Timestamps (seconds) -------------------------------------------------------------------
    // True when every frame has one.
    bool hasTimestamps() const;
    double timestamp(int index = -1) const;
    bool setTimestamp(int index, double seconds);

    // Selection ------------------------------------------------------------------------------
    Selection const& selection() const override { return m_selection; }
    void setSelection(Selection const& selection) override;
    int focus() const override { return m_selection.focus(); }
    bool setFocus(int index);

    // Modality, properties, components ------------------------------------------------------
    void setModality(Modality modality) override;
    Properties& properties() { return m_properties; }
    Properties const& properties() const { return m_properties; }
    ElementwiseDataComponentList& elementwiseComponents() { return m_frameComponents; }
    ElementwiseDataComponentList const& elementwiseComponents() const { return m_frameComponents; }

    // Geometry ---------------------------------------------------------------------------------
    Eigen::Matrix4d matrix() const override;
    void setMatrix(Eigen::Matrix4d const& matrix) override;

    std::unique_ptr<SharedImageSet> clone(CloneOptions options = CloneOption::Deep) const;

private:
    int resolve(int index) const;
    bool accepts(SharedImage const& frame) const;
    void appendUnchecked(std::shared_ptr<SharedImage> frame);

    std::vector<std::shared_ptr<SharedImage>> m_frames;
    std::vector<std::optional<double>> m_timestamps;
    ElementwiseDataComponentList m_frameComponents;
    Selection m_selection;
    Properties m_properties;
};

} // namespace Velmoria

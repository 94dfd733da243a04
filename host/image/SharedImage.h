#pragma once

// SharedImage: one image frame with its geometry, the unit that every frame of a SharedImageSet
// is made of.
//
// Representations. A frame can live in CPU memory (MemImage) and, once a GPU backend exists, as
// a GPU texture. The two are kept in step by the caller: after writing pixels through mem() say
// setDirtyGl() (the GPU copy is stale); after writing on the GPU say setDirtyMem(). This build
// has no GPU backend: the GPU slot stays empty, hasGl() is false, and every frame is a CPU
// frame. makeExclusive(Gpu) therefore fails with a log line and changes nothing.
//
// Geometry. The pixel buffer knows its dimensions and spacing (ImageDescriptor); the frame adds
// matrixToWorld, which maps the image's own centred millimetre coordinates to world (patient
// LPS) coordinates, see ImageDescriptorWorld.h. pixelToWorld(p) = matrixToWorld · centred(p).
//
// Sharing. Frames are handed around as shared_ptr<SharedImage>; stacking and splitting batches
// share them. The copy constructor and clone() copy the pixels (clone can be told to share
// them); masks and deformations are immutable once attached and are shared by copies.

#include "host/core/Flags.h"
#include "host/data/Data.h"
#include "host/image/Image.h"
#include "host/image/ImageDescriptorWorld.h"
#include "host/image/MemImage.h"

#include <Eigen/Core>
#include <memory>

namespace Velmoria {

class Mask;
class Deformation;

class SharedImage
{
public:
    enum class CloneOption : int
    {
        Deep = 0,               // pixels, geometry, modality, mask and deformation
        WithoutMask = 1,        // leave the mask out
        WithoutDeformation = 2, // leave the deformation out
        SharePixels = 4,        // share the CPU pixel buffer instead of copying it
    };
    using CloneOptions = Flags<CloneOption>;

    // A zero-filled frame of that descriptor.
    explicit SharedImage(ImageDescriptor const& descriptor);
    // Takes the image as its CPU representation (shared, not copied). Throws ImageError for a
    // null pointer or an image that is not in CPU memory (there is no GPU backend yet).
    explicit SharedImage(std::shared_ptr<Image> image);
    // Deep copy of the pixels; the copy shares mask and deformation.
    SharedImage(SharedImage const& other);
    SharedImage(SharedImage&& other) noexcept;
    SharedImage& operator=(SharedImage const& other);
    SharedImage& operator=(SharedImage&& other) noexcept;
    ~SharedImage();

    // Representations ----------------------------------------------------------------------
    MemImage* mem() { return m_mem.get(); }
    MemImage const* mem() const { return m_mem.get(); }
    std::shared_ptr<MemImage> sharedMem() const { return m_mem; }
    bool hasMem() const { return m_mem != nullptr; }
    bool hasGl() const { return false; }
    // The representation that is valid now, without a transfer.
    Image* img() { return m_mem.get(); }
    Image const* img() const { return m_mem.get(); }
    // Makes the image ready for use on the CPU; always true without a GPU backend.
    bool prepare(bool forceCpu = true);

    void setDirtyGl() { m_glDirty = true; }
    void setDirtyMem() { m_memDirty = true; }
    bool isGlDirty() const { return m_glDirty; }
    bool isMemDirty() const { return m_memDirty; }

    // Replaces the content by a copy of `image` (its descriptor included); geometry stays.
    void update(MemImage const& image);
    // Replaces the content by `image` itself (shared). False, with a log line, for null or a
    // non-CPU image.
    bool assign(std::shared_ptr<Image> image);
    // Drops every representation but the one at `location`. False when there is none there.
    bool makeExclusive(Image::Location location);

    // Geometry -------------------------------------------------------------------------------
    ImageDescriptor const& descriptor() const { return m_mem->descriptor(); }
    ImageDescriptorWorld descriptorWorld() const
    {
        return ImageDescriptorWorld(descriptor(), m_matrixToWorld);
    }
    Eigen::Vector3i dimensions() const { return descriptor().dimensions(); }
    int width() const { return descriptor().width; }
    int height() const { return descriptor().height; }
    int slices() const { return descriptor().slices; }
    int channels() const { return descriptor().channels; }
    PixelType pixelType() const { return descriptor().pixelType; }
    Eigen::Vector3d spacing() const { return descriptor().spacing; }

    Eigen::Matrix4d const& matrixToWorld() const { return m_matrixToWorld; }
    Eigen::Matrix4d matrixFromWorld() const;
    // setMatrix is setMatrixToWorld: a frame's matrix always maps image to world.
    void setMatrix(Eigen::Matrix4d const& matrix) { setMatrixToWorld(matrix); }
    void setMatrixToWorld(Eigen::Matrix4d const& matrix) { m_matrixToWorld = matrix; }
    void setMatrixFromWorld(Eigen::Matrix4d const& matrix);
    // Changes the spacing and keeps the image centre (and so matrixToWorld) where it is.
    void setSpacing(Eigen::Vector3d const& spacing);
    void setSpacing(Eigen::Vector3d const& spacing, bool isMetric);

    Eigen::Vector3d pixelToWorld(Eigen::Vector3d const& pixel) const;
    Eigen::Vector3d worldToPixel(Eigen::Vector3d const& world) const;
    Eigen::Matrix4d pixelToWorldMatrix() const;
    Eigen::Matrix4d worldToPixelMatrix() const;

    // Associated data ------------------------------------------------------------------------
    std::shared_ptr<Mask> mask() const { return m_mask; }
    void setMask(std::shared_ptr<Mask> mask) { m_mask = std::move(mask); }
    std::shared_ptr<Deformation> deformation() const { return m_deformation; }
    void setDeformation(std::shared_ptr<Deformation> deformation) { m_deformation = std::move(deformation); }
    Data::Modality modality() const { return m_modality; }
    void setModality(Data::Modality modality) { m_modality = modality; }

    std::unique_ptr<SharedImage> clone(CloneOptions options = CloneOption::Deep) const;

private:
    std::shared_ptr<MemImage> m_mem;
    Eigen::Matrix4d m_matrixToWorld = Eigen::Matrix4d::Identity();
    std::shared_ptr<Mask> m_mask;
    std::shared_ptr<Deformation> m_deformation;
    Data::Modality m_modality = Data::Modality::Unknown;
    bool m_glDirty = false;
    bool m_memDirty = false;
};

} // namespace Velmoria

#pragma once

// ImageDescriptorWorld: an ImageDescriptor plus where the image lies in the world.
//
// Coordinate systems:
//   pixel  indices, 0-based per axis; the centre of pixel p is at integer p.
//   image  millimetres with the origin at the image CENTRE: the centre of pixel p lies at
//          (p − (dim − 1) / 2) ∘ spacing. A 2D image (slices 1) has z offset 0.
//   world  patient LPS (as DICOM and ITK); matrixToWorld maps image to world.
//
// So pixelToWorld(p) = M · [(p − (dim − 1) / 2) ∘ spacing, 1] and
// pixelToWorldMatrix() = M · T(−(dim − 1) / 2 ∘ spacing) · S(spacing).
// Because image coordinates are centred, changing the dimensions around the centre (padding or
// cropping both sides equally) keeps the matrix; changing spacing keeps the centre in place.
//
// matrixToWorld is an affine 4x4 matrix (bottom row 0 0 0 1); usually a rotation and a
// translation, but any invertible affine map works.
//
// The descriptor is held, not inherited, so that an ImageDescriptorWorld never silently turns
// into a plain descriptor that has forgotten its matrix: comparisons between the two kinds do
// not compile; call descriptor() to compare only the buffer description.
//
// isApprox uses the flags of ImageDescriptor (file comment there); Orientation (1) compares the
// upper-left 3x3 block of the matrices, Position (32) their translation column, both with the
// same element-wise tolerance. isSpatiallyCompatible is isApprox with 113.
//
// Configuration: the keys of ImageDescriptor plus "matrixToWorld", a 4x4 matrix text
// ("[1 0 0 0, 0 1 0 0, 0 0 1 0, 0 0 0 1]"). The matrix must be finite, affine and invertible.

#include "host/image/ImageDescriptor.h"

#include <Eigen/Core>
// Code that works with world matrices inverts them; Eigen/LU makes inverse() available to it.
#include <Eigen/LU>

namespace Velmoria {

class ImageDescriptorWorld
{
public:
    ImageDescriptorWorld() = default;
    explicit ImageDescriptorWorld(ImageDescriptor const& descriptor,
                                  Eigen::Matrix4d const& matrixToWorld = Eigen::Matrix4d::Identity());

    ImageDescriptor const& descriptor() const { return m_descriptor; }
    ImageDescriptor& descriptor() { return m_descriptor; }
    void setDescriptor(ImageDescriptor const& descriptor) { m_descriptor = descriptor; }

    Eigen::Matrix4d const& matrixToWorld() const { return m_matrixToWorld; }
    void setMatrixToWorld(Eigen::Matrix4d const& matrix) { m_matrixToWorld = matrix; }
    Eigen::Matrix4d matrixFromWorld() const;
    void setMatrixFromWorld(Eigen::Matrix4d const& matrix);

    // The centred millimetre map between pixel indices and image coordinates.
    Eigen::Vector3d pixelToImage(Eigen::Vector3d const& pixel) const;
    Eigen::Vector3d imageToPixel(Eigen::Vector3d const& image) const;

    Eigen::Vector3d pixelToWorld(Eigen::Vector3d const& pixel) const;
    Eigen::Vector3d worldToPixel(Eigen::Vector3d const& world) const;
    Eigen::Matrix4d pixelToWorldMatrix() const;
    Eigen::Matrix4d worldToPixelMatrix() const;

    bool isApprox(ImageDescriptorWorld const& other, int flags = ImageDescriptor::CompareAll) const;
    bool isApprox(ImageDescriptor const& other, int flags = ImageDescriptor::CompareAll) const = delete;
    // Same dimensions, spacing, orientation and position: both cover the same voxels.
    bool isSpatiallyCompatible(ImageDescriptorWorld const& other) const;

    bool configure(Properties const* properties);
    void configuration(Properties* properties) const;

    bool operator==(ImageDescriptorWorld const& other) const;

private:
    // (dim − 1) / 2 per axis, as doubles.
    Eigen::Vector3d centreIndex() const;

    ImageDescriptor m_descriptor;
    Eigen::Matrix4d m_matrixToWorld = Eigen::Matrix4d::Identity();
};

} // namespace Velmoria

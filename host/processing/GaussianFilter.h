#pragma once

// GaussianFilter: separable Gaussian smoothing of images of every pixel type and channel count.
//
// Size. The filter holds one standard deviation per axis (x, y, z), in voxels or in millimetres
// (Unit). Millimetres are turned into voxels per image through its spacing, so one filter
// smooths images of different resolutions by the same physical amount. The kernel of an axis
// has the radius ceil(3 · sigma) voxels (it holds 99.7 % of the Gaussian) and is normalised to
// sum 1, so a constant image stays constant. The "half kernel size" h that processing lists
// speak of is that radius: fromHalfKernelSize(h) takes sigma = h / 3, whose radius is h again.
// A sigma of 0 leaves that axis alone; an axis of one voxel (the z axis of a 2D image) is never
// smoothed, so 2D images stay 2D images untouched along z.
//
// Borders are clamped: a sample outside the image takes the value of the nearest border voxel
// (ITK's ZeroFluxNeumann condition). Unlike zero padding this keeps a constant image constant
// up to its borders, and unlike mirroring it needs no special case for kernels wider than the
// image.
//
// Values. Smoothing is linear, so it works on the stored values and the result keeps the
// input's pixel type, shift and scale: the original intensities are smoothed as well. Integer
// results are rounded to the nearest integer and clamped to the type's range. Channels are
// smoothed independently. NaN spreads to every voxel whose kernel reaches it. Masks are not
// consulted: every voxel is smoothed (the mask is kept on the result). Sums are accumulated in
// double for 32-bit integers and doubles and in float otherwise.
//
// Errors. Negative or non-finite sigmas, or a kernel radius above kMaxRadius voxels, are
// refused with an error in "Host.GaussianFilter" (null / false), and nothing is changed.

#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"

#include <Eigen/Core>
#include <memory>
#include <vector>

namespace Velmoria::ImageProcessing {

class GaussianFilter
{
public:
    enum class Unit : int
    {
        Voxels = 0,
        Millimetres = 1,
    };

    // Refused beyond this radius: a kernel of thousands of voxels is a unit mistake (mm given
    // as voxels on a fine image), not a request.
    static constexpr int kMaxRadius = 1024;

    explicit GaussianFilter(double sigma, Unit unit = Unit::Voxels);
    explicit GaussianFilter(Eigen::Vector3d const& sigma, Unit unit = Unit::Voxels);
    // sigma = halfKernelSize / 3 (see the file comment).
    static GaussianFilter fromHalfKernelSize(Eigen::Vector3d const& halfKernelSize, Unit unit = Unit::Voxels);

    Eigen::Vector3d const& sigma() const { return m_sigma; }
    Unit unit() const { return m_unit; }
    bool isIsotropic() const { return m_sigma.x() == m_sigma.y() && m_sigma.y() == m_sigma.z(); }

    // The sigma in voxels for an image of this spacing.
    Eigen::Vector3d sigmaInVoxels(Eigen::Vector3d const& spacing) const;
    // The normalised kernel for a sigma in voxels: 2 · ceil(3 · sigma) + 1 weights, {1} for 0.
    static std::vector<double> kernel(double sigmaInVoxels);

    // A smoothed copy (same pixel type, geometry and attributes); null on error.
    std::unique_ptr<SharedImage> apply(SharedImage const& image) const;
    std::unique_ptr<SharedImageSet> apply(SharedImageSet const& images) const;
    // Smooths the pixels of `image` in place (and marks its GPU copy stale); false on error.
    bool applyInPlace(SharedImage& image) const;
    bool applyInPlace(SharedImageSet& images) const;

private:
    // The kernel radii for `image`, or false (with the error logged) when the size is refused.
    bool kernelsFor(SharedImage const& image, std::vector<double> (&kernels)[3]) const;
    void smooth(MemImage const& in, MemImage& out, std::vector<double> const (&kernels)[3]) const;

    Eigen::Vector3d m_sigma;
    Unit m_unit;
};

} // namespace Velmoria::ImageProcessing

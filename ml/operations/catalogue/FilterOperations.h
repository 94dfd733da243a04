#pragma once

// Filter operations: Gaussian smoothing and its complement, the high-pass x - smooth(x). Both
// run the host's separable GaussianFilter (clamped borders, so a constant image stays constant
// up to its borders) and keep geometry, mask and deformation. Policy EverythingButLabels; image
// elements only (vector elements have no neighbourhood to smooth over).
//
// Size. "half_kernel_size" h is the kernel radius: sigma = h / 3, whose 3-sigma radius is h
// again (GaussianFilter::fromHalfKernelSize). Axes of one voxel (z of a 2D image) are never
// smoothed.
//
//   Smooth     "half_kernel_size": one value, one for x and y (z keeps its current value, 1 by
//              default), or one per axis; default 1 on every axis. "kernel_size_in_mm" false:
//              with true the size is in millimetres and turned into voxels per image through
//              its spacing. A size of zero or below, or not finite, on any axis gives
//              "Invalid kernel size". A kernel radius in voxels that exceeds the image's
//              extent on an axis of more than one voxel, or GaussianFilter::kMaxRadius, gives
//              "Kernel size is too large, please decrease it.": such a kernel averages over
//              more than the whole image, which is a unit or typing mistake rather than a
//              request. Anisotropic kernels (one size per axis) are supported: the host filter
//              has one sigma per axis, so no CPU restriction applies.
//   HighPass   "half_kernel_size" int, 1 (the same on every axis, in voxels): x - smooth(x).
//              More than 4 channels: "HighPassOperation doesn't apply on images with more than
//              4 channels". With the device ForceCPU it warns "<name> was forced to run on CPU
//              but is not implemented for that yet." (the GPU is its intended home) and goes
//              on. A smoothing that the filter refuses (a negative size) gives "Failed to
//              execute algorithm".
//
// Pixel types. Both give float images: smoothing and high-pass results are fractional (and
// high-pass ones signed), so an integer input is first made float in original intensities,
// with the info line "Input was not float - adding an implicit MakeFloatOperation." A float
// input is smoothed in place, keeping its shift and scale.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

#include <Eigen/Core>
#include <memory>

namespace Velmoria::ML {

class SmoothOperation : public Operation
{
public:
    explicit SmoothOperation(double halfKernelSize = 1.0, bool kernelSizeInMm = false);
    explicit SmoothOperation(Eigen::Vector3d const& halfKernelSize, bool kernelSizeInMm = false);

    // Reads "half_kernel_size" as a 3-vector, 2-vector or scalar; the other keys as usual.
    bool configure(Properties const& properties) override;

    AdvancedParameter<Eigen::Vector3d, Operation> p_halfKernelSize = {"half_kernel_size",
                                                                      Eigen::Vector3d::Ones(), this};
    AdvancedParameter<bool, Operation> p_kernelSizeInMm = {"kernel_size_in_mm", false, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class HighPassOperation : public Operation
{
public:
    // The GPU program it was written for holds at most 4 channels.
    static constexpr int kMaxChannels = 4;

    explicit HighPassOperation(int halfKernelSize = 1);

    AdvancedParameter<int, Operation> p_halfKernelSize = {"half_kernel_size", 1, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

} // namespace Velmoria::ML

#include "ml/operations/catalogue/FilterOperations.h"

#include "ml/imagemath/ImageMath.h"
#include "ml/operations/ParamReading.h"

#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"
#include "host/processing/FloatConversion.h"
#include "host/processing/GaussianFilter.h"

#include <cmath>
#include <string>

namespace Velmoria::ML {

namespace {

using ImageProcessing::GaussianFilter;

constexpr char const* kHalfKernelSizeKey = "half_kernel_size";

// Smoothing results are fractional: integer input is turned into float first (see the header).
std::shared_ptr<SharedImageSet> floatInput(Operation const& operation, std::shared_ptr<SharedImageSet> sis)
{
    if (sis->pixelType() == PixelType::Float)
        return sis;
    VELMORIA_LOG_INFO(operation.logCategory(),
                      "Input was not float - adding an implicit MakeFloatOperation.");
    std::shared_ptr<SharedImageSet> result = ImageProcessing::createFloat(*sis, false);
    if (!result)
        operation.throwOperationError("Could not convert the input images to float");
    return result;
}

// Whether `filter` would reach beyond the whole extent of some axis of `frame` (or beyond the
// filter's own limit). Axes of one voxel are never smoothed and do not count.
bool kernelTooLarge(GaussianFilter const& filter, SharedImage const& frame)
{
    Eigen::Vector3d const sigma = filter.sigmaInVoxels(frame.spacing());
    Eigen::Vector3i const dims = frame.dimensions();
    for (int axis = 0; axis < 3; ++axis) {
        if (dims[axis] <= 1)
            continue;
        // The radius is at least sigma, so a sigma beyond the extent needs no kernel built.
        if (sigma[axis] > dims[axis])
            return true;
        auto const radius = static_cast<int>(GaussianFilter::kernel(sigma[axis]).size() / 2);
        if (radius > dims[axis] || radius > GaussianFilter::kMaxRadius)
            return true;
    }
    return false;
}

} // namespace

// ---- Smooth --------------------------------------------------------------------------------

SmoothOperation::SmoothOperation(double halfKernelSize, bool kernelSizeInMm)
    : SmoothOperation(Eigen::Vector3d::Constant(halfKernelSize), kernelSizeInMm)
{}

SmoothOperation::SmoothOperation(Eigen::Vector3d const& halfKernelSize, bool kernelSizeInMm)
    : Operation("Smooth", ProcessingPolicy::EverythingButLabels)
{
    p_halfKernelSize.setValue(halfKernelSize);
    p_kernelSizeInMm.setValue(kernelSizeInMm);
    // One number, two or three: the generic parameter reader knows only the 3-vector form.
    setManuallyConfiguredParameters({&p_halfKernelSize});
}

bool SmoothOperation::configure(Properties const& properties)
{
    bool ok = Operation::configure(properties);
    if (!properties.contains(kHalfKernelSizeKey))
        return ok;
    Eigen::Vector3d const current = p_halfKernelSize.value();
    Eigen::Vector3d size = current;
    if (!detail::readVec3OrVec2OrScalar(properties, kHalfKernelSizeKey, size, current)) {
        std::string text;
        properties.param(kHalfKernelSizeKey, text);
        VELMORIA_LOG_ERROR(logCategory(),
                           "Parameter '{}' could not be parsed from '{}': expected one, two or three numbers",
                           kHalfKernelSizeKey, text);
        return false;
    }
    p_halfKernelSize.setValue(size);
    return ok;
}

std::shared_ptr<SharedImageSet> SmoothOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    Eigen::Vector3d const size = p_halfKernelSize.value();
    for (int axis = 0; axis < 3; ++axis)
        if (!std::isfinite(size[axis]) || size[axis] <= 0.0)
            throwOperationError("Invalid kernel size");
    GaussianFilter const filter = GaussianFilter::fromHalfKernelSize(
        size, p_kernelSizeInMm.value() ? GaussianFilter::Unit::Millimetres : GaussianFilter::Unit::Voxels);
    for (std::shared_ptr<SharedImage> const& frame : sis->images())
        if (kernelTooLarge(filter, *frame))
            throwOperationError("Kernel size is too large, please decrease it.");

    sis = floatInput(*this, std::move(sis));
    prepareInputForDevice(*sis);
    // applyInPlace marks each frame's GPU copy stale.
    if (!filter.applyInPlace(*sis))
        throwOperationError("Failed to execute algorithm");
    return sis;
}

// ---- HighPass ------------------------------------------------------------------------------

HighPassOperation::HighPassOperation(int halfKernelSize)
    : Operation("HighPass", ProcessingPolicy::EverythingButLabels)
{
    p_halfKernelSize.setValue(halfKernelSize);
}

std::shared_ptr<SharedImageSet> HighPassOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    for (std::shared_ptr<SharedImage> const& frame : sis->images())
        if (frame->channels() > kMaxChannels)
            throwOperationError("HighPassOperation doesn't apply on images with more than 4 channels");
    if (computingDevice() == ComputingDevice::ForceCPU)
        warnOperationUnexpectedBehaviour(name() +
                                         " was forced to run on CPU but is not implemented for that yet.");

    sis = floatInput(*this, std::move(sis));
    prepareInputForDevice(*sis);
    auto const h = static_cast<double>(p_halfKernelSize.value());
    std::unique_ptr<SharedImageSet> smoothed =
        GaussianFilter::fromHalfKernelSize(Eigen::Vector3d::Constant(h)).apply(*sis);
    if (!smoothed)
        throwOperationError("Failed to execute algorithm");
    ImageMath::Array<SharedImageSet> img(*sis);
    ImageMath::Array<SharedImageSet> low(*smoothed);
    if (!img.assign(img - low))
        throwOperationError("Failed to execute algorithm");
    return sis;
}

} // namespace Velmoria::ML

#include "ml/operations/catalogue/CropOperations.h"

#include "ml/imagemath/ImageMath.h"

#include "host/image/SharedImageSet.h"
#include "host/processing/Cropping.h"

#include <fmt/format.h>

#include <cmath>

namespace Velmoria::ML {

namespace {

std::string text(Eigen::Vector3i const& v)
{
    return fmt::format("[{}, {}, {}]", v.x(), v.y(), v.z());
}

struct Box
{
    Eigen::Vector3i offset;
    Eigen::Vector3i size;
};

} // namespace

// ---- Crop -----------------------------------------------------------------------------------------

CropOperation::CropOperation(Eigen::Vector3i size, Eigen::Vector3i offset)
    : Operation("Crop", ProcessingPolicy::Everything)
{
    p_size.setValue(size);
    p_offset.setValue(offset);
}

std::shared_ptr<SharedImageSet> CropOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    Eigen::Vector3i const requestedOffset = p_offset.value();
    Eigen::Vector3i const requestedSize = p_size.value();

    // Every frame is resolved first, so that a failure leaves nothing half done.
    std::vector<Box> boxes;
    for (auto const& frame : sis->images()) {
        Eigen::Vector3i const dims = frame->dimensions();
        Box box{requestedOffset, requestedSize};
        for (int axis = 0; axis < 3; ++axis)
            if (box.offset[axis] < 0)
                box.offset[axis] += dims[axis];
        if ((box.offset.array() < 0).any())
            throwOperationError("Resolved offset is negative. Crop offset: " + text(requestedOffset));
        if ((box.offset.array() > dims.array()).any())
            throwOperationError("Offset exceeds image dimensions. Image size: " + text(dims) +
                                ", Crop offset: " + text(box.offset));
        for (int axis = 0; axis < 3; ++axis)
            if (box.size[axis] == -1)
                box.size[axis] = dims[axis] - box.offset[axis];
        if ((box.size.array() < 1).any())
            throwOperationError("Resolved size is equal to zero. Crop size: " + text(box.size));
        if (((box.offset + box.size).array() > dims.array()).any())
            throwOperationError("Offset + size exceeds image dimensions. Image size: " + text(dims) +
                                ", Offset + size: " + text(box.offset + box.size));
        boxes.push_back(box);
    }

    std::shared_ptr<SharedImageSet> output = sis->clone(SharedImageSet::CloneOption::NoFrames);
    // No GPU image backend in this build: the copy is the host's row-wise memcpy.
    prepareInputForDevice(*sis);
    for (int i = 0; i < sis->size(); ++i) {
        Box const& box = boxes[static_cast<std::size_t>(i)];
        std::unique_ptr<SharedImage> cropped =
            ImageProcessing::createCropped(*sis->get(i), box.offset, box.size);
        if (!cropped)
            throwOperationError("Could not crop image to size " + text(box.size) + " at offset " +
                                text(box.offset));
        output->add(std::shared_ptr<SharedImage>(std::move(cropped)));
    }
    return output;
}

// ---- CutOut ---------------------------------------------------------------------------------------

CutOutOperation::CutOutOperation()
    : Operation("CutOut", ProcessingPolicy::EverythingButLabels)
{}

std::shared_ptr<SharedImageSet> CutOutOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    std::vector<Eigen::Vector3d> const& sizes = p_size.value();
    std::vector<Eigen::Vector3d> const& offsets = p_offset.value();
    std::vector<double> const& fills = p_fillValue.value();
    if (sizes.size() != offsets.size() || sizes.size() != fills.size())
        throwOperationError("number of offsets, sizes and fill values are not equal.");

    // Per axis, a value in the unit -> voxels of this frame.
    auto toVoxels = [&](ParamUnit unit, double value, int dim, double spacing, char const* what) {
        switch (unit) {
        case ParamUnit::Fraction:
            return value * dim;
        case ParamUnit::MM:
            return value / spacing;
        case ParamUnit::Voxel:
            return value;
        }
        throwOperationError(fmt::format("Cutout {} units not supported", what));
    };
    auto const sizeUnit = p_sizeUnits.value();
    auto const offsetUnit = p_offsetUnits.value();
    if (sizeUnit != ParamUnit::Fraction && sizeUnit != ParamUnit::MM && sizeUnit != ParamUnit::Voxel)
        throwOperationError("Cutout size units not supported");
    if (offsetUnit != ParamUnit::Fraction && offsetUnit != ParamUnit::MM && offsetUnit != ParamUnit::Voxel)
        throwOperationError("Cutout offset units not supported");
    for (std::size_t b = 0; b < sizes.size(); ++b) {
        if ((offsets[b].array() < 0.0).any())
            throwOperationError("cutout offset should be >= 0.");
        if ((sizes[b].array() < 0.0).any())
            throwOperationError("cutout size should be >= 0.");
    }

    std::shared_ptr<SharedImageSet> output = sis->clone(SharedImageSet::CloneOption::Deep);
    prepareInputForDevice(*output);
    for (auto const& frame : output->images()) {
        Eigen::Vector3i const dims = frame->dimensions();
        Eigen::Vector3d const spacing = frame->spacing();
        ImageMath::Array<SharedImage> pixels(*frame);
        for (std::size_t b = 0; b < sizes.size(); ++b) {
            Box box;
            for (int axis = 0; axis < 3; ++axis) {
                box.offset[axis] = static_cast<int>(
                    std::lround(toVoxels(offsetUnit, offsets[b][axis], dims[axis], spacing[axis], "offset")));
                box.size[axis] = static_cast<int>(
                    std::lround(toVoxels(sizeUnit, sizes[b][axis], dims[axis], spacing[axis], "size")));
            }
            if ((box.size.array() < 1).any()) {
                warnOperationUnexpectedBehaviour("cutout size too small. Increasing to at least one voxel.");
                box.size = box.size.cwiseMax(1);
            }
            if (((box.offset + box.size).array() > dims.array()).any()) {
                warnOperationUnexpectedBehaviour(
                    "offset + cutout size exceeds image dimension. Clipping size to image extent.");
                box.size = box.size.cwiseMin(dims - box.offset).cwiseMax(0);
            }
            if ((box.size.array() == 0).any())
                continue; // the box starts beyond the image: nothing of it lies inside
            if (!pixels.block(box.offset, box.size).assign(ImageMath::Scalar<double>(fills[b])))
                throwOperationError("Could not fill the cutout box " + text(box.size) + " at " +
                                    text(box.offset));
        }
    }
    return output;
}

// ---- PolyCrop -------------------------------------------------------------------------------------

PolyCropOperation::PolyCropOperation(std::vector<Eigen::Vector3d> points)
    : Operation("PolyCrop", ProcessingPolicy::Everything)
{
    p_points.setValue(std::move(points));
}

std::shared_ptr<SharedImageSet> PolyCropOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    std::shared_ptr<SharedImageSet> output = sis->clone(SharedImageSet::CloneOption::Deep);
    prepareInputForDevice(*output);
    ImageMath::Array<SharedImageSet> pixels(*output);
    // Centred normalised coordinates: 2 * (p + 0.5) / dim - 1, the image spanning [-1, 1].
    auto const centred =
        ImageMath::makeCoordinates(*output, ImageMath::CoordinateType::Normalized) * 2.0F - 1.0F;
    for (Eigen::Vector3d const& point : p_points.value()) {
        double const length = point.norm();
        if (length <= kMinPointLength)
            continue;
        Eigen::Vector3d const normal = point / length;
        auto const distance = ImageMath::channelSum(
            centred * ImageMath::ChannelWiseScalar<float, 3>({static_cast<float>(normal.x()),
                                                              static_cast<float>(normal.y()),
                                                              static_cast<float>(normal.z())}));
        if (!pixels.assign(ImageMath::select(distance < static_cast<float>(length), pixels, 0.0F)))
            throwOperationError("Could not evaluate the half-space crop on the input images");
    }
    return output;
}

} // namespace Velmoria::ML

#include "host/processing/Cropping.h"

#include "host/core/Log.h"

#include <cstdint>
#include <cstring>

namespace Velmoria::ImageProcessing {

namespace {

constexpr char const* kCategory = "Host.Cropping";

std::string text(Eigen::Vector3i const& v)
{
    return fmt::format("[{}, {}, {}]", v.x(), v.y(), v.z());
}

} // namespace

Eigen::Matrix4d boxMatrixToWorld(Eigen::Matrix4d const& matrixToWorld, Eigen::Vector3i const& dimensions,
                                 Eigen::Vector3d const& spacing, Eigen::Vector3i const& offset,
                                 Eigen::Vector3i const& size)
{
    Eigen::Vector3d const centre =
        (offset.cast<double>() + 0.5 * (size - dimensions).cast<double>()).cwiseProduct(spacing);
    Eigen::Matrix4d translation = Eigen::Matrix4d::Identity();
    translation.topRightCorner<3, 1>() = centre;
    return matrixToWorld * translation;
}

ImageDescriptorWorld boxDescriptorWorld(ImageDescriptorWorld const& grid, Eigen::Vector3i const& offset,
                                        Eigen::Vector3i const& size)
{
    ImageDescriptor descriptor = grid.descriptor();
    descriptor.setDimensions(size);
    return ImageDescriptorWorld(descriptor,
                                boxMatrixToWorld(grid.matrixToWorld(), grid.descriptor().dimensions(),
                                                 grid.descriptor().spacing, offset, size));
}

bool checkCropBox(Eigen::Vector3i const& dimensions, Eigen::Vector3i const& offset,
                  Eigen::Vector3i const& size)
{
    for (int axis = 0; axis < 3; ++axis) {
        if (size[axis] < 1 || offset[axis] < 0 ||
            static_cast<std::int64_t>(offset[axis]) + size[axis] > dimensions[axis]) {
            VELMORIA_LOG_ERROR(kCategory,
                               "Crop box offset {} size {} does not lie inside an image of size {}",
                               text(offset), text(size), text(dimensions));
            return false;
        }
    }
    return true;
}

std::unique_ptr<MemImage> createCropped(MemImage const& source, Eigen::Vector3i const& offset,
                                        Eigen::Vector3i const& size)
{
    if (!checkCropBox(source.dimensions(), offset, size))
        return nullptr;
    ImageDescriptor descriptor = source.descriptor();
    descriptor.setDimensions(size);
    auto target = MemImage::create(descriptor);
    if (!target)
        return nullptr;

    // Rows of the box are contiguous in both images: one memcpy per row.
    std::size_t const pixelBytes =
        pixelTypeSize(descriptor.pixelType) * static_cast<std::size_t>(descriptor.channels);
    std::size_t const rowBytes = pixelBytes * static_cast<std::size_t>(size.x());
    auto const* src = static_cast<unsigned char const*>(source.data());
    auto* dst = static_cast<unsigned char*>(target->data());
    std::int64_t const rows = static_cast<std::int64_t>(size.y()) * size.z();
    std::int64_t const srcWidth = source.width();
    std::int64_t const srcHeight = source.height();
    for (std::int64_t row = 0; row < rows; ++row) {
        std::int64_t const y = row % size.y() + offset.y();
        std::int64_t const z = row / size.y() + offset.z();
        std::size_t const srcPixel = static_cast<std::size_t>((z * srcHeight + y) * srcWidth + offset.x());
        std::memcpy(dst + static_cast<std::size_t>(row) * rowBytes, src + srcPixel * pixelBytes, rowBytes);
    }
    return target;
}

std::unique_ptr<SharedImage> createCropped(SharedImage const& source, Eigen::Vector3i const& offset,
                                           Eigen::Vector3i const& size)
{
    if (!source.mem()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot crop a frame without CPU pixels");
        return nullptr;
    }
    auto pixels = createCropped(*source.mem(), offset, size);
    if (!pixels)
        return nullptr;
    auto frame = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(
        boxMatrixToWorld(source.matrixToWorld(), source.dimensions(), source.spacing(), offset, size));
    frame->setModality(source.modality());
    frame->setDeformation(source.deformation());
    return frame;
}

} // namespace Velmoria::ImageProcessing

#include "host/io/ImageFiles.h"

#include "host/core/Log.h"
#include "host/image/MemImage.h"
#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/io/ItkImageIO.h"

#include <cmath>
#include <cstring>
#include <filesystem>
#include <optional>
#include <vector>

namespace Velmoria::ImageFiles {

namespace {

constexpr char const* Category = "Host.ImageFiles";
std::string fileStem(std::string const& path)
{
    std::string name = std::filesystem::path(path).filename().string();
    for (char const* extension : {".gz", ".nii", ".nrrd", ".nhdr", ".mha", ".mhd", ".png"}) {
        std::string const ext(extension);
        if (name.size() > ext.size() && name.compare(name.size() - ext.size(), ext.size(), ext) == 0)
            name.resize(name.size() - ext.size());
    }
    return name;
}

// Reads what `read` promises; the reason of a failure goes to `why` (the caller logs it).
std::unique_ptr<SharedImageSet> readChecked(std::string const& path, std::string& why)
{
    if (!std::filesystem::exists(path)) {
        why = "the file does not exist";
        return nullptr;
    }
    ImageDescriptor descriptor;
    Eigen::Vector3i dimensions = Eigen::Vector3i::Ones();
    FileGeometry geometry;
    int frames = 1;
    // ITK reads the whole region at once; a 4D file is read into one buffer and then split into
    // frames (a transient second copy), everything else straight into the frame's pixels.
    std::shared_ptr<MemImage> single;
    std::vector<unsigned char> volumes;
    auto allocate = [&](Detail::FileHeader const& header, std::string& reason) -> void* {
        for (int i = 0; i < 3; ++i) {
            dimensions[i] = static_cast<int>(header.size[static_cast<std::size_t>(i)]);
            geometry.spacing[i] = header.spacing[static_cast<std::size_t>(i)];
            geometry.origin[i] = header.origin[static_cast<std::size_t>(i)];
            for (int r = 0; r < 3; ++r)
                geometry.direction(r, i) = header.direction[static_cast<std::size_t>(3 * i + r)];
        }
        frames = static_cast<int>(header.size[3]);
        if (!(geometry.spacing.array() > 0.0).all() || !geometry.spacing.allFinite()) {
            reason = fmt::format("invalid spacing {} {} {}", geometry.spacing.x(), geometry.spacing.y(),
                                 geometry.spacing.z());
            return nullptr;
        }
        descriptor = ImageDescriptor(header.pixelType, dimensions, header.components);
        descriptor.setSpacing(geometry.spacing, true);
        if (!descriptor.isValid() || frames < 1) {
            reason = "invalid image size " + descriptor.describe() + " with " + std::to_string(frames) +
                     " frame(s)";
            return nullptr;
        }
        if (header.byteSize != descriptor.byteSize() * static_cast<std::size_t>(frames)) {
            reason = "the file's data size does not match its header";
            return nullptr;
        }
        if (frames > 1) {
            volumes.resize(header.byteSize);
            return volumes.data();
        }
        single = MemImage::create(descriptor);
        if (!single)
            reason = "out of memory for " + descriptor.describe();
        return single ? single->data() : nullptr;
    };
    if (!Detail::readFile(path, allocate, why))
        return nullptr;

    Eigen::Matrix4d const matrix = geometryFromItk(geometry, dimensions);
    auto set = std::make_unique<SharedImageSet>();
    set->setName(fileStem(path));
    std::size_t const frameBytes = descriptor.byteSize();
    for (int f = 0; f < frames; ++f) {
        std::shared_ptr<MemImage> pixels = single;
        if (frames > 1) {
            pixels = MemImage::create(descriptor);
            if (!pixels) {
                why = "out of memory for " + descriptor.describe();
                return nullptr;
            }
            std::memcpy(pixels->data(), volumes.data() + frameBytes * static_cast<std::size_t>(f),
                        frameBytes);
        }
        auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(pixels));
        frame->setMatrixToWorld(matrix);
        set->add(frame);
    }
    return set;
}

// The values to write for one frame: the stored buffer itself, or a float copy in original
// intensities when shift/scale are not neutral.
void const* originalValues(MemImage const& image, std::vector<float>& converted)
{
    ImageDescriptor const& d = image.descriptor();
    if (d.shift == 0.0 && d.scale == 1.0)
        return image.data();
    converted.resize(image.valueCount());
    visitPixelType(d.pixelType, [&](auto tag) {
        using T = decltype(tag);
        T const* values = static_cast<TypedImage<T> const&>(image).pointer();
        for (std::size_t i = 0; i < converted.size(); ++i)
            converted[i] = static_cast<float>(d.storageToOriginal(static_cast<double>(values[i])));
    });
    return converted.data();
}

bool writeChecked(SharedImageSet const& images, std::string const& path, std::string& why)
{
    if (images.empty()) {
        why = "the image set has no frames";
        return false;
    }
    SharedImage const& first = *images.get(0);
    if (!first.hasMem()) {
        why = "frame 0 has no pixels in memory";
        return false;
    }
    ImageDescriptor const& d = first.descriptor();
    for (int f = 1; f < images.size(); ++f) {
        SharedImage const& frame = *images.get(f);
        if (!frame.hasMem() || !frame.descriptor().isApprox(d, ImageDescriptor::CompareAll) ||
            !ImageDescriptorDetail::approxEqual(frame.matrixToWorld(), first.matrixToWorld())) {
            why = "frame " + std::to_string(f) +
                  " differs from frame 0 in size, type, spacing, intensities or placement; only frames on "
                  "one grid share a file";
            return false;
        }
    }

    FileGeometry const geometry = itkFromGeometry(first.matrixToWorld(), d.spacing, d.dimensions());
    // A 2D frame stays 2D only when its placement lies in the file's xy plane.
    bool const planar = d.slices == 1 && std::abs(geometry.origin.z()) < 1e-12 &&
                        geometry.direction.block<2, 1>(0, 2).isZero(1e-12) &&
                        geometry.direction.block<1, 2>(2, 0).isZero(1e-12) &&
                        std::abs(geometry.direction(2, 2) - 1.0) < 1e-12;
    int const frames = images.size();
    bool const convert = !(d.shift == 0.0 && d.scale == 1.0);

    Detail::FileHeader header;
    header.dimensions = frames > 1 ? 4u : (planar ? 2u : 3u);
    for (int i = 0; i < 3; ++i) {
        header.size[static_cast<std::size_t>(i)] = static_cast<std::size_t>(d.dimensions()[i]);
        header.spacing[static_cast<std::size_t>(i)] = geometry.spacing[i];
        header.origin[static_cast<std::size_t>(i)] = geometry.origin[i];
        for (int r = 0; r < 3; ++r)
            header.direction[static_cast<std::size_t>(3 * i + r)] = geometry.direction(r, i);
    }
    header.size[3] = static_cast<std::size_t>(frames);
    header.pixelType = convert ? PixelType::Float : d.pixelType;
    header.components = d.channels;

    std::vector<float> converted;
    if (frames == 1)
        return Detail::writeFile(path, header, originalValues(*first.mem(), converted), why);
    std::size_t const frameBytes = convert ? d.valueCount() * sizeof(float) : d.byteSize();
    std::vector<unsigned char> buffer(frameBytes * static_cast<std::size_t>(frames));
    for (int f = 0; f < frames; ++f)
        std::memcpy(buffer.data() + frameBytes * static_cast<std::size_t>(f),
                    originalValues(*images.get(f)->mem(), converted), frameBytes);
    return Detail::writeFile(path, header, buffer.data(), why);
}

} // namespace

Eigen::Matrix4d geometryFromItk(FileGeometry const& geometry, Eigen::Vector3i const& dimensions)
{
    Eigen::Vector3d const halfExtent =
        ((dimensions.cast<double>().array() - 1.0) / 2.0 * geometry.spacing.array()).matrix();
    Eigen::Matrix4d matrix = Eigen::Matrix4d::Identity();
    matrix.topLeftCorner<3, 3>() = geometry.direction;
    matrix.topRightCorner<3, 1>() = geometry.origin + geometry.direction * halfExtent;
    return matrix;
}

FileGeometry itkFromGeometry(Eigen::Matrix4d const& matrixToWorld, Eigen::Vector3d const& spacing,
                             Eigen::Vector3i const& dimensions)
{
    FileGeometry geometry;
    geometry.spacing = spacing;
    geometry.direction = matrixToWorld.topLeftCorner<3, 3>();
    Eigen::Vector3d const halfExtent =
        ((dimensions.cast<double>().array() - 1.0) / 2.0 * spacing.array()).matrix();
    geometry.origin = matrixToWorld.topRightCorner<3, 1>() - geometry.direction * halfExtent;
    return geometry;
}

std::unique_ptr<SharedImageSet> read(std::string const& path)
{
    std::string why;
    try {
        if (auto set = readChecked(path, why))
            return set;
    } catch (std::exception const& e) // allocation failures, filesystem errors
    {
        why = e.what();
    }
    VELMORIA_LOG_ERROR(Category, "Could not read image file '{}': {}", path, why);
    return nullptr;
}

bool write(SharedImageSet const& images, std::string const& path)
{
    std::string why;
    try {
        if (writeChecked(images, path, why))
            return true;
    } catch (std::exception const& e) {
        why = e.what();
    }
    VELMORIA_LOG_ERROR(Category, "Could not write image file '{}': {}", path, why);
    return false;
}

} // namespace Velmoria::ImageFiles

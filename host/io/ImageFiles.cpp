#include "host/io/ImageFiles.h"

#include "host/algorithm/IoAlgorithm.h"
#include "host/core/Log.h"
#include "host/core/String.h"
#include "host/image/MemImage.h"
#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/io/ImageFormat.h"
#include "host/io/ItkImageIO.h"

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <vector>

namespace Velmoria::ImageFiles {

namespace {

constexpr char const* Category = "Host.ImageFiles";

Data::Modality modalityFromDicom(std::string const& modality)
{
    if (modality == "CT")
        return Data::Modality::CT;
    if (modality == "MR")
        return Data::Modality::MRI;
    if (modality == "US")
        return Data::Modality::Ultrasound;
    if (modality == "PT")
        return Data::Modality::PET;
    if (modality == "NM")
        return Data::Modality::NuclearMedicine;
    if (modality == "CR" || modality == "DX" || modality == "XA" || modality == "RF" || modality == "MG")
        return Data::Modality::Xray;
    return Data::Modality::Unknown;
}

// One way of reading pixels: a file, or a DICOM series (see ItkImageIO.h).
using Reader = std::function<bool(Detail::BufferFunction const&, std::string& why)>;

// Reads through `reader` into a set named `name`; the reason of a failure goes to `why` (the
// caller logs it).
std::unique_ptr<SharedImageSet> readWith(Reader const& reader, std::string const& name, std::string& why)
{
    ImageDescriptor descriptor;
    Eigen::Vector3i dimensions = Eigen::Vector3i::Ones();
    FileGeometry geometry;
    int frames = 1;
    std::string modality;
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
        modality = header.modality;
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
    if (!reader(allocate, why))
        return nullptr;

    Eigen::Matrix4d const matrix = geometryFromItk(geometry, dimensions);
    auto set = std::make_unique<SharedImageSet>();
    set->setName(name);
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
    if (Data::Modality const m = modalityFromDicom(modality); m != Data::Modality::Unknown)
        set->setModality(m);
    return set;
}

std::unique_ptr<SharedImageSet> readFolder(std::string const& folder, std::string& why)
{
    std::vector<std::string> const series = Detail::dicomSeries(folder, why);
    if (series.empty())
        return nullptr;
    if (series.size() > 1) {
        std::string list;
        for (std::string const& s : series)
            list += (list.empty() ? "'" : ", '") + s + "'";
        VELMORIA_LOG_WARNING(Category, "Folder '{}' holds {} DICOM series ({}); reading the first, '{}'",
                             folder, series.size(), list, series.front());
    }
    std::string note;
    Reader const reader = [&](Detail::BufferFunction const& buffer, std::string& reason) {
        return Detail::readDicomSeries(folder, series.front(), buffer, reason, note);
    };
    // "a/b/" has the file name "" and "a/b" the file name "b": name the set after the folder.
    std::filesystem::path const normal = std::filesystem::path(folder).lexically_normal();
    std::string const name =
        normal.has_filename() ? normal.filename().string() : normal.parent_path().filename().string();
    auto set = readWith(reader, name, why);
    if (set && !note.empty())
        VELMORIA_LOG_WARNING(Category, "DICOM series '{}' in folder '{}': {}", series.front(), folder, note);
    return set;
}

std::unique_ptr<SharedImageSet> readChecked(std::string const& path, std::string& why)
{
    if (!std::filesystem::exists(path)) {
        why = "the file does not exist";
        return nullptr;
    }
    if (std::filesystem::is_directory(path))
        return readFolder(path, why);
    if (String::toLowerCopy(std::filesystem::path(path).filename().string()) == "dicomdir") {
        why = "DICOMDIR files (DICOM media directories) are not read; read the folder of a series instead";
        return nullptr;
    }
    Reader const reader = [&](Detail::BufferFunction const& buffer, std::string& reason) {
        return Detail::readFile(path, buffer, reason);
    };
    return readWith(reader, fileStem(path), why);
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
    std::optional<ImageFormat> const format = formatFromPath(path);
    if (format) {
        why = whyNotWritable(*format, convert ? PixelType::Float : d.pixelType, d.channels, d.slices, frames);
        if (!why.empty())
            return false;
    }
    // Photographs' formats store no placement; their writers take a 2D image only as such.
    bool const photograph =
        format == ImageFormat::Png || format == ImageFormat::Jpeg || format == ImageFormat::Tiff;

    Detail::FileHeader header;
    header.dimensions = frames > 1 ? 4u : ((planar || (photograph && d.slices == 1)) ? 2u : 3u);
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

bool isDicomFile(std::string const& path)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return false;
    if (IoAlgorithm::matchesPatterns(path, filePatterns(ImageFormat::Dicom)))
        return true;
    // Files in the standard layout start with a 128-byte preamble and "DICM"; GDCM reads some
    // files without it, but a name without ".dcm" and without the magic is not worth probing.
    std::ifstream in(path, std::ios::binary);
    char magic[132] = {};
    return in.read(magic, sizeof magic) && std::memcmp(magic + 128, "DICM", 4) == 0;
}

bool isDicomFolder(std::string const& path)
{
    std::error_code error;
    if (!std::filesystem::is_directory(path, error))
        return false;
    for (auto const& entry : std::filesystem::directory_iterator(path, error))
        if (isDicomFile(entry.path().string()))
            return true;
    return false;
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

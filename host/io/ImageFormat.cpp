#include "host/io/ImageFormat.h"

#include "host/algorithm/IoAlgorithm.h"

#include <fmt/core.h>

#include <algorithm>
#include <filesystem>

namespace Velmoria::ImageFiles {

namespace {

struct FormatLimits
{
    ImageFormat format;
    char const* name;
    std::vector<std::string> patterns;
    bool frames;                  // several frames become a fourth axis
    bool volumes;                 // a third axis with more than one slice
    std::vector<PixelType> types; // empty: all eight
    std::vector<int> channels;    // empty: any number
};

// The pixel types ITK's TIFF writer stores as they are (others it refuses or converts).
std::vector<PixelType> const kTiffTypes{PixelType::UChar, PixelType::Char, PixelType::UShort,
                                        PixelType::Short, PixelType::Float};
// The pixel types GDCM writes as DICOM pixel data without a conversion of ours.
std::vector<PixelType> const kDicomTypes{PixelType::UChar, PixelType::Char, PixelType::UShort,
                                         PixelType::Short, PixelType::UInt, PixelType::Int};

std::vector<FormatLimits> const& table()
{
    static std::vector<FormatLimits> const formats{
        {ImageFormat::Nifti, "NIfTI", {"*.nii.gz", "*.nii"}, true, true, {}, {}},
        {ImageFormat::Nrrd, "NRRD", {"*.nrrd", "*.nhdr"}, true, true, {}, {}},
        {ImageFormat::MetaImage, "MetaImage", {"*.mha", "*.mhd"}, true, true, {}, {}},
        {ImageFormat::Png,
         "PNG",
         {"*.png"},
         false,
         false,
         {PixelType::UChar, PixelType::UShort},
         {1, 2, 3, 4}},
        {ImageFormat::Tiff, "TIFF", {"*.tif", "*.tiff"}, false, true, kTiffTypes, {1, 3, 4}},
        {ImageFormat::Jpeg, "JPEG", {"*.jpg", "*.jpeg"}, false, false, {PixelType::UChar}, {1, 3}},
        {ImageFormat::Dicom, "DICOM", {"*.dcm"}, false, true, kDicomTypes, {1, 3}},
    };
    return formats;
}

FormatLimits const& limits(ImageFormat format)
{
    return table().at(static_cast<std::size_t>(format));
}

std::string typeList(std::vector<PixelType> const& types)
{
    std::string text;
    for (PixelType type : types)
        text += (text.empty() ? "" : ", ") + std::string(pixelTypeName(type));
    return text;
}

} // namespace

std::vector<ImageFormat> allImageFormats()
{
    std::vector<ImageFormat> formats;
    for (FormatLimits const& f : table())
        formats.push_back(f.format);
    return formats;
}

std::string formatName(ImageFormat format)
{
    return limits(format).name;
}

std::vector<std::string> filePatterns(ImageFormat format)
{
    return limits(format).patterns;
}

std::optional<ImageFormat> formatFromPath(std::string const& path)
{
    for (FormatLimits const& f : table())
        if (IoAlgorithm::matchesPatterns(path, f.patterns))
            return f.format;
    return std::nullopt;
}

std::string fileStem(std::string const& path)
{
    std::string const name = std::filesystem::path(path).filename().string();
    for (FormatLimits const& f : table()) {
        for (std::string const& pattern : f.patterns) {
            std::string const extension = pattern.substr(1); // "*.nii.gz" -> ".nii.gz"
            if (name.size() > extension.size() && IoAlgorithm::matchesPatterns(name, {pattern}))
                return name.substr(0, name.size() - extension.size());
        }
    }
    return name;
}

std::string whyNotWritable(ImageFormat format, PixelType type, int channels, int slices, int frames)
{
    FormatLimits const& f = limits(format);
    if (frames > 1 && !f.frames)
        return fmt::format("{} holds one image, not {} frames", f.name, frames);
    if (slices > 1 && !f.volumes)
        return fmt::format("{} holds 2D images only, not {} slices", f.name, slices);
    if (!f.types.empty() && std::find(f.types.begin(), f.types.end(), type) == f.types.end())
        return fmt::format("pixel type '{}' cannot be stored in {} ({} only)", pixelTypeName(type), f.name,
                           typeList(f.types));
    if (!f.channels.empty() && std::find(f.channels.begin(), f.channels.end(), channels) == f.channels.end())
        return fmt::format("{} channels cannot be stored in {}", channels, f.name);
    // Colour DICOM is RGB of bytes; GDCM writes other multi-channel types as garbage.
    if (format == ImageFormat::Dicom && channels == 3 && type != PixelType::UChar)
        return fmt::format("pixel type '{}' with 3 channels cannot be stored in DICOM (RGB is uint8 only)",
                           pixelTypeName(type));
    if (format == ImageFormat::Tiff && channels > 1 && type != PixelType::UChar)
        return fmt::format("pixel type '{}' with {} channels cannot be stored in TIFF (colour is uint8 only)",
                           pixelTypeName(type), channels);
    return {};
}

} // namespace Velmoria::ImageFiles

#include "host/io/ImageFileIoAlgorithm.h"

#include "host/core/Log.h"
#include "host/core/String.h"
#include "host/image/SharedImageSet.h"
#include "host/io/ImageFiles.h"

#include <filesystem>

namespace Velmoria {

namespace {

constexpr char const* Category = "Host.ImageFileIoAlgorithm";

} // namespace

ImageFileIoAlgorithm::ImageFileIoAlgorithm(ImageFiles::ImageFormat format, bool seriesFolder)
    : IoAlgorithm(seriesFolder ? Load : LoadSave, seriesFolder ? 0 : 1)
    , m_format(format)
    , m_seriesFolder(seriesFolder && format == ImageFiles::ImageFormat::Dicom)
{}

ImageFileIoAlgorithm::~ImageFileIoAlgorithm() = default;

std::string ImageFileIoAlgorithm::algorithmId(ImageFiles::ImageFormat format, bool seriesFolder)
{
    using ImageFiles::ImageFormat;
    switch (format) {
    case ImageFormat::Nifti:
        return "IO.NiftiIo";
    case ImageFormat::Nrrd:
        return "IO.NrrdIo";
    case ImageFormat::MetaImage:
        return "IO.MetaImageIo";
    case ImageFormat::Png:
        return "IO.PngIo";
    case ImageFormat::Tiff:
        return "IO.TiffIo";
    case ImageFormat::Jpeg:
        return "IO.JpegIo";
    case ImageFormat::Dicom:
        return seriesFolder ? "DICOM.DicomIOAlgorithmFolder" : "DICOM.DicomIOAlgorithmFile";
    }
    return {};
}

bool ImageFileIoAlgorithm::createCompatible(ImageFiles::ImageFormat format, bool seriesFolder,
                                            DataList const& data, Algorithm** algorithm)
{
    SharedImageSet* input = nullptr;
    if (!data.empty()) {
        if (seriesFolder || data.size() != 1 || data.getImages().size() != 1)
            return false;
        input = data.getImage();
    }
    if (algorithm) {
        auto* created = new ImageFileIoAlgorithm(format, seriesFolder);
        created->setInput(input);
        *algorithm = created;
    }
    return true;
}

std::vector<std::string> ImageFileIoAlgorithm::supportedLocations() const
{
    // A folder has no file name pattern.
    return m_seriesFolder ? std::vector<std::string>{} : ImageFiles::filePatterns(m_format);
}

bool ImageFileIoAlgorithm::canLoad(std::string const& path) const
{
    if (m_seriesFolder)
        return ImageFiles::isDicomFolder(path);
    if (m_format == ImageFiles::ImageFormat::Dicom) {
        std::string const name = String::toLowerCopy(std::filesystem::path(path).filename().string());
        return name == "dicomdir" || ImageFiles::isDicomFile(path);
    }
    return IoAlgorithm::canLoad(path);
}

void ImageFileIoAlgorithm::compute()
{
    m_output.reset();
    if (location().empty()) {
        VELMORIA_LOG_ERROR(Category, "{} has no file to {}", algorithmId(m_format, m_seriesFolder),
                           m_input ? "write" : "read");
        fail(nullptr, InvalidInput);
        return;
    }
    if (m_input ? save() : load())
        setStatus(Success);
}

bool ImageFileIoAlgorithm::load()
{
    std::error_code error;
    bool const isFolder = std::filesystem::is_directory(location(), error);
    if (std::filesystem::exists(location(), error) && isFolder != m_seriesFolder) {
        VELMORIA_LOG_ERROR(Category, "Could not read '{}': {} reads {}, not {}", location(),
                           algorithmId(m_format, m_seriesFolder), m_seriesFolder ? "folders" : "files",
                           isFolder ? "folders" : "files");
        return fail(nullptr, InvalidInput);
    }
    m_output = ImageFiles::read(location()); // logs what went wrong
    return m_output ? true : fail(nullptr);
}

bool ImageFileIoAlgorithm::save()
{
    if (!IoAlgorithm::matchesPatterns(location(), supportedLocations())) {
        std::string patterns;
        for (std::string const& p : supportedLocations())
            patterns += (patterns.empty() ? "" : " ") + p;
        VELMORIA_LOG_ERROR(Category, "Could not write '{}': {} writes files named {}", location(),
                           algorithmId(m_format), patterns);
        return fail(nullptr, InvalidInput);
    }
    return ImageFiles::write(*m_input, location()) ? true : fail(nullptr); // write logs the reason
}

OwningDataList ImageFileIoAlgorithm::takeOutput()
{
    OwningDataList output;
    if (m_output)
        output.add(std::move(m_output));
    return output;
}

} // namespace Velmoria

#include "host/io/ItkImageIO.h"

#include "host/io/NiftiFileCheck.h"

#include <fcntl.h>
#include <gdcmTrace.h>
#include <itkGDCMImageIO.h>
#include <itkGDCMImageIOFactory.h>
#include <itkGDCMSeriesFileNames.h>
#include <itkImageIOBase.h>
#include <itkImageIOFactory.h>
#include <itkJPEGImageIOFactory.h>
#include <itkMetaDataObject.h>
#include <itkMetaImageIOFactory.h>
#include <itkNiftiImageIOFactory.h>
#include <itkNrrdImageIOFactory.h>
#include <itkPNGImageIOFactory.h>
#include <itkTIFFImageIOFactory.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <numeric>
#include <vector>

namespace Velmoria::ImageFiles::Detail {

namespace {

using IOComponent = itk::IOComponentEnum;

// ITK registers IO factories automatically only in executables (through generated headers);
// a library has to do it itself, once.
void registerFactories()
{
    static std::once_flag once;
    std::call_once(once, [] {
        itk::NiftiImageIOFactory::RegisterOneFactory();
        itk::NrrdImageIOFactory::RegisterOneFactory();
        itk::MetaImageIOFactory::RegisterOneFactory();
        itk::PNGImageIOFactory::RegisterOneFactory();
        itk::TIFFImageIOFactory::RegisterOneFactory();
        itk::JPEGImageIOFactory::RegisterOneFactory();
        itk::GDCMImageIOFactory::RegisterOneFactory();
        // GDCM reports every oddity of a file (a missing spacing, a private tag with a wrong
        // VR) on standard error; the files are read all the same, and real failures reach us
        // as exceptions, so only its errors stay on.
        gdcm::Trace::DebugOff();
        gdcm::Trace::WarningOff();
    });
}

std::optional<PixelType> pixelTypeFromItk(IOComponent component, std::size_t componentSize)
{
    switch (component) {
    case IOComponent::CHAR:
        return PixelType::Char;
    case IOComponent::UCHAR:
        return PixelType::UChar;
    case IOComponent::SHORT:
        return PixelType::Short;
    case IOComponent::USHORT:
        return PixelType::UShort;
    case IOComponent::INT:
        return PixelType::Int;
    case IOComponent::UINT:
        return PixelType::UInt;
    // `long` is 32 bits on some platforms; only then does it fit our types.
    case IOComponent::LONG:
        return componentSize == 4 ? std::optional(PixelType::Int) : std::nullopt;
    case IOComponent::ULONG:
        return componentSize == 4 ? std::optional(PixelType::UInt) : std::nullopt;
    case IOComponent::FLOAT:
        return PixelType::Float;
    case IOComponent::DOUBLE:
        return PixelType::Double;
    default:
        return std::nullopt;
    }
}

IOComponent itkFromPixelType(PixelType type)
{
    switch (type) {
    case PixelType::Char:
        return IOComponent::CHAR;
    case PixelType::UChar:
        return IOComponent::UCHAR;
    case PixelType::Short:
        return IOComponent::SHORT;
    case PixelType::UShort:
        return IOComponent::USHORT;
    case PixelType::Int:
        return IOComponent::INT;
    case PixelType::UInt:
        return IOComponent::UINT;
    case PixelType::Float:
        return IOComponent::FLOAT;
    case PixelType::Double:
        return IOComponent::DOUBLE;
    }
    return IOComponent::UNKNOWNCOMPONENTTYPE;
}

itk::ImageIORegion fullRegion(itk::ImageIOBase const& io)
{
    unsigned const n = io.GetNumberOfDimensions();
    itk::ImageIORegion region(n);
    for (unsigned i = 0; i < n; ++i) {
        region.SetIndex(i, 0);
        region.SetSize(i, io.GetDimensions(i));
    }
    return region;
}

// Copies `count` values of type `from` to `target` as type `to` (plain casts: the callers only
// widen, or narrow double to float).
void convertValues(PixelType from, void const* source, PixelType to, void* target, std::size_t count)
{
    visitPixelType(from, [&](auto sourceTag) {
        using S = decltype(sourceTag);
        visitPixelType(to, [&](auto targetTag) {
            using T = decltype(targetTag);
            S const* in = static_cast<S const*>(source);
            T* out = static_cast<T*>(target);
            for (std::size_t i = 0; i < count; ++i)
                out[i] = static_cast<T>(in[i]);
        });
    });
}

// The pixel type ITK reports, and the one we keep (float for DICOM's double, see the header).
struct ReadTypes
{
    PixelType file = PixelType::Float;
    PixelType kept = PixelType::Float;
};

// Fills `header` from an IO whose information has been read.
bool headerFromIo(itk::ImageIOBase& io, FileHeader& header, ReadTypes& types, std::string& why)
{
    header.dimensions = io.GetNumberOfDimensions();
    if (header.dimensions < 1 || header.dimensions > 4) {
        why = "unsupported number of dimensions " + std::to_string(header.dimensions) + " (1 to 4 are read)";
        return false;
    }
    std::optional<PixelType> const type = pixelTypeFromItk(io.GetComponentType(), io.GetComponentSize());
    if (!type) {
        why = "unsupported pixel component type '" +
              itk::ImageIOBase::GetComponentTypeAsString(io.GetComponentType()) +
              "' (64-bit integers and long double have no pixel type here)";
        return false;
    }
    bool const dicom = dynamic_cast<itk::GDCMImageIO*>(&io) != nullptr;
    types.file = *type;
    types.kept = (dicom && *type == PixelType::Double) ? PixelType::Float : *type;
    header.pixelType = types.kept;
    header.components = static_cast<int>(io.GetNumberOfComponents());
    unsigned const spatial = std::min(header.dimensions, 3u);
    for (unsigned i = 0; i < header.dimensions; ++i)
        header.size[i] = io.GetDimensions(i);
    for (unsigned i = 0; i < spatial; ++i) {
        header.spacing[i] = io.GetSpacing(i);
        header.origin[i] = io.GetOrigin(i);
        std::vector<double> const axis = io.GetDirection(i);
        for (unsigned r = 0; r < spatial; ++r)
            header.direction[3 * i + r] = axis[r];
    }
    std::size_t values = static_cast<std::size_t>(header.components);
    for (unsigned i = 0; i < header.dimensions; ++i)
        values *= header.size[i];
    header.byteSize = values * pixelTypeSize(types.kept);
    if (dicom)
        itk::ExposeMetaData<std::string>(io.GetMetaDataDictionary(), "0008|0060", header.modality);
    // DICOM pads its strings with blanks.
    while (!header.modality.empty() && header.modality.back() == ' ')
        header.modality.pop_back();
    return true;
}

// Reads the whole image of `io` into `target`, converted to `types.kept` when that differs.
void readPixels(itk::ImageIOBase& io, ReadTypes const& types, std::size_t values, void* target)
{
    io.SetIORegion(fullRegion(io));
    if (types.file == types.kept) {
        io.Read(target);
        return;
    }
    std::vector<unsigned char> fileValues(values * pixelTypeSize(types.file));
    io.Read(fileValues.data());
    convertValues(types.file, fileValues.data(), types.kept, target, values);
}

bool readUnguarded(std::string const& path, BufferFunction const& buffer, std::string& why)
{
    if (IO::isNiftiFileName(path)) {
        if (auto problem = IO::niftiFileProblem(path)) {
            why = std::move(*problem);
            return false;
        }
    }
    itk::ImageIOBase::Pointer io =
        itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::IOFileModeEnum::ReadMode);
    if (!io) {
        why = "no image reader recognises the file (unknown format or damaged header)";
        return false;
    }
    io->SetFileName(path);
    io->ReadImageInformation();

    FileHeader header;
    ReadTypes types;
    if (!headerFromIo(*io, header, types, why))
        return false;
    void* target = buffer(header, why);
    if (!target)
        return false;
    readPixels(*io, types, header.byteSize / pixelTypeSize(types.kept), target);
    return true;
}

itk::GDCMSeriesFileNames::Pointer seriesNames(std::string const& folder)
{
    auto names = itk::GDCMSeriesFileNames::New();
    // With details, files of one series UID that differ in orientation or size count as
    // separate series, so that a series we read always stacks into a volume.
    names->SetUseSeriesDetails(true);
    names->SetDirectory(folder);
    return names;
}

std::vector<std::string> dicomSeriesUnguarded(std::string const& folder, std::string& why)
{
    std::vector<std::string> series = seriesNames(folder)->GetSeriesUIDs();
    std::sort(series.begin(), series.end());
    if (series.empty())
        why = "no DICOM image series in the folder";
    return series;
}

struct SeriesSlice
{
    std::string file;
    FileHeader header;
    ReadTypes types;
    double position = 0.0; // along the normal of the first slice's plane
};

using Vector3 = std::array<double, 3>;

double dot(Vector3 const& a, Vector3 const& b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

Vector3 column(FileHeader const& header, int axis)
{
    auto const a = static_cast<std::size_t>(3 * axis);
    return {header.direction[a], header.direction[a + 1], header.direction[a + 2]};
}

bool readDicomSeriesUnguarded(std::string const& folder, std::string const& series,
                              BufferFunction const& buffer, std::string& why, std::string& note)
{
    std::vector<std::string> const files = seriesNames(folder)->GetFileNames(series);
    if (files.empty()) {
        why = "the folder holds no files of DICOM series '" + series + "'";
        return false;
    }
    // A single file (one slice, or a multi-frame volume) is read as it is.
    if (files.size() == 1)
        return readUnguarded(files.front(), buffer, why);

    std::vector<SeriesSlice> slices;
    for (std::string const& file : files) {
        auto io = itk::GDCMImageIO::New();
        io->SetFileName(file);
        io->ReadImageInformation();
        SeriesSlice slice{file, {}, {}, 0.0};
        if (!headerFromIo(*io, slice.header, slice.types, why)) {
            why = "'" + file + "': " + why;
            return false;
        }
        slices.push_back(std::move(slice));
    }

    FileHeader const& first = slices.front().header;
    Vector3 const u = column(first, 0);
    Vector3 const v = column(first, 1);
    Vector3 const normal{u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    for (SeriesSlice& slice : slices) {
        FileHeader const& h = slice.header;
        auto const sameAxis = [&](int axis, Vector3 const& expected) {
            Vector3 const actual = column(h, axis);
            return std::abs(actual[0] - expected[0]) + std::abs(actual[1] - expected[1]) +
                       std::abs(actual[2] - expected[2]) <
                   1e-4;
        };
        if (h.size[2] != 1 || h.size[0] != first.size[0] || h.size[1] != first.size[1] ||
            h.components != first.components || !sameAxis(0, u) || !sameAxis(1, v)) {
            why = "'" + slice.file + "' does not fit the series' first slice (size " +
                  std::to_string(h.size[0]) + " x " + std::to_string(h.size[1]) + " x " +
                  std::to_string(h.size[2]) +
                  ", or orientation or channels differ); only single-frame slices of one grid are stacked";
            return false;
        }
        slice.position = dot(Vector3{h.origin[0], h.origin[1], h.origin[2]}, normal);
    }
    std::stable_sort(slices.begin(), slices.end(),
                     [](SeriesSlice const& a, SeriesSlice const& b) { return a.position < b.position; });

    std::size_t const n = slices.size();
    FileHeader const& front = slices.front().header;
    FileHeader const& back = slices.back().header;
    Vector3 const step{back.origin[0] - front.origin[0], back.origin[1] - front.origin[1],
                       back.origin[2] - front.origin[2]};
    double const length = std::sqrt(dot(step, step));
    double const spacing = length / static_cast<double>(n - 1);
    double smallest = spacing;
    double largest = spacing;
    for (std::size_t i = 1; i < n; ++i) {
        double const gap = slices[i].position - slices[i - 1].position;
        if (gap < 1e-6 * std::max(1.0, spacing)) {
            why = "'" + slices[i - 1].file + "' and '" + slices[i].file +
                  "' lie at the same position; several acquisitions in one series are not supported";
            return false;
        }
        smallest = std::min(smallest, gap);
        largest = std::max(largest, gap);
    }
    if (largest - smallest > 0.01 * spacing)
        note = "the slice spacing varies from " + std::to_string(smallest) + " to " +
               std::to_string(largest) + " mm; the volume uses their mean " + std::to_string(spacing) + " mm";

    // All slices keep their type when they agree; a rescale that differs between them makes
    // the volume float (the one type that holds every rescaled integer slice closely).
    bool const sameType = std::all_of(slices.begin(), slices.end(), [&](SeriesSlice const& s) {
        return s.types.kept == slices.front().types.kept;
    });
    FileHeader header = front;
    header.pixelType = sameType ? front.pixelType : PixelType::Float;
    header.size[2] = n;
    header.spacing[2] = spacing;
    for (std::size_t r = 0; r < 3; ++r)
        header.direction[6 + r] = step[r] / length;
    std::size_t const sliceValues =
        front.size[0] * front.size[1] * static_cast<std::size_t>(front.components);
    header.byteSize = sliceValues * n * pixelTypeSize(header.pixelType);

    auto* target = static_cast<unsigned char*>(buffer(header, why));
    if (!target)
        return false;
    std::size_t const sliceBytes = sliceValues * pixelTypeSize(header.pixelType);
    std::vector<unsigned char> converted;
    for (std::size_t i = 0; i < n; ++i) {
        auto io = itk::GDCMImageIO::New();
        io->SetFileName(slices[i].file);
        io->ReadImageInformation();
        ReadTypes types;
        if (!headerFromIo(*io, slices[i].header, types, why)) {
            why = "'" + slices[i].file + "': " + why;
            return false;
        }
        unsigned char* sliceTarget = target + i * sliceBytes;
        if (types.kept == header.pixelType) {
            readPixels(*io, types, sliceValues, sliceTarget);
        } else {
            converted.resize(sliceValues * pixelTypeSize(types.kept));
            readPixels(*io, types, sliceValues, converted.data());
            convertValues(types.kept, converted.data(), header.pixelType, sliceTarget, sliceValues);
        }
    }
    return true;
}

bool writeUnguarded(std::string const& path, FileHeader const& header, void const* values, std::string& why)
{
    itk::ImageIOBase::Pointer io =
        itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::IOFileModeEnum::WriteMode);
    if (!io) {
        why = "no image writer for this file extension";
        return false;
    }
    unsigned const n = header.dimensions;
    io->SetNumberOfDimensions(n);
    for (unsigned i = 0; i < n; ++i) {
        bool const space = i < 3;
        io->SetDimensions(i, static_cast<itk::SizeValueType>(header.size[i]));
        io->SetSpacing(i, space ? header.spacing[i] : 1.0);
        io->SetOrigin(i, space ? header.origin[i] : 0.0);
        std::vector<double> axis(n, 0.0);
        for (unsigned r = 0; r < n; ++r)
            axis[r] = (space && r < 3) ? header.direction[3 * i + r] : (r == i ? 1.0 : 0.0);
        io->SetDirection(i, axis);
    }
    io->SetComponentType(itkFromPixelType(header.pixelType));
    io->SetNumberOfComponents(static_cast<unsigned>(header.components));
    // The formats of photographs tell colour from other vectors by the pixel type.
    std::string const name = io->GetNameOfClass();
    bool const picture =
        name == "PNGImageIO" || name == "JPEGImageIO" || name == "TIFFImageIO" || name == "GDCMImageIO";
    if (header.components == 1)
        io->SetPixelType(itk::IOPixelEnum::SCALAR);
    else if (picture && header.components == 3)
        io->SetPixelType(itk::IOPixelEnum::RGB);
    else if (picture && header.components == 4)
        io->SetPixelType(itk::IOPixelEnum::RGBA);
    else
        io->SetPixelType(itk::IOPixelEnum::VECTOR);
    // GDCM picks plain secondary capture by default, which stores no position or orientation.
    // These SOP classes store the whole geometry (and a volume as one multi-frame file): the
    // multi-frame secondary captures for uint8/uint16 gray and uint8 RGB, CT (Enhanced CT for
    // volumes) for the other integer types, which GDCM refuses in secondary capture.
    if (name == "GDCMImageIO") {
        std::string sop;
        if (header.components == 1 && header.pixelType == PixelType::UChar)
            sop = "1.2.840.10008.5.1.4.1.1.7.2";
        else if (header.components == 1 && header.pixelType == PixelType::UShort)
            sop = "1.2.840.10008.5.1.4.1.1.7.3";
        else if (header.components == 3)
            sop = "1.2.840.10008.5.1.4.1.1.7.4";
        else if (header.components == 1 && header.size[2] == 1)
            sop = "1.2.840.10008.5.1.4.1.1.2";
        else if (header.components == 1)
            sop = "1.2.840.10008.5.1.4.1.1.2.1";
        if (!sop.empty())
            itk::EncapsulateMetaData<std::string>(io->GetMetaDataDictionary(), "0008|0016", sop);
    }
    io->SetFileName(path);
    io->SetIORegion(fullRegion(*io));
    io->Write(values);
    return true;
}

// Runs `f`, turning any exception into `why` and false.
template <class F>
auto guarded(std::string& why, F&& f) -> decltype(f())
{
    registerFactories();
    try {
        return f();
    } catch (itk::ExceptionObject const& e) {
        why = e.GetDescription();
    } catch (std::exception const& e) {
        why = e.what();
    }
    return {};
}

// Why a file cannot be written at `path` at all (its folder is missing, not a folder or not
// writable); empty when it can be tried.
std::string whyFolderUnusable(std::filesystem::path const& path)
{
    std::filesystem::path const folder = path.has_parent_path() ? path.parent_path() : ".";
    std::error_code error;
    if (!std::filesystem::exists(folder, error))
        return "the folder '" + folder.string() + "' does not exist";
    if (!std::filesystem::is_directory(folder, error))
        return "'" + folder.string() + "' is not a folder";
    if (::access(folder.c_str(), W_OK) != 0)
        return "the folder '" + folder.string() + "' is not writable (" + std::strerror(errno) + ")";
    if (std::filesystem::is_directory(path, error))
        return "a folder of that name exists";
    return {};
}

// The file's extension as ITK chooses its writer by it: ".nii.gz" counts whole.
std::string fullExtension(std::filesystem::path const& path)
{
    std::string const extension = path.extension().string();
    if (extension == ".gz" || extension == ".bz2")
        return path.stem().extension().string() + extension;
    return extension;
}

// Formats whose header names a second file after itself (MetaImage's .mhd with its .raw,
// Analyze/NIfTI pairs): written in place, since a renamed header would point at a data file of
// the temporary name.
bool isFilePair(std::string const& extension)
{
    return extension == ".mhd" || extension == ".hdr" || extension == ".img" || extension == ".img.gz";
}

// Flushes a written file to the disk before it replaces the old one.
bool syncFile(std::filesystem::path const& path)
{
    int const fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    bool const ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

// Writes through `write` into a temporary file beside `path` and renames it over `path` only when
// the writer succeeded and left a non-empty file: some writers (niftilib) report failures on
// standard error only and return normally. The old file survives any failure.
bool writeReplacing(std::string const& path, std::string& why,
                    std::function<bool(std::string const&)> const& write)
{
    std::filesystem::path const target(path);
    why = whyFolderUnusable(target);
    if (!why.empty())
        return false;
    std::string const extension = fullExtension(target);
    if (isFilePair(extension)) {
        if (!write(path))
            return false;
        std::error_code error;
        if (!std::filesystem::exists(target, error) || std::filesystem::file_size(target, error) == 0) {
            why = "the writer reported success but left no file";
            return false;
        }
        return true;
    }
    static std::atomic<unsigned> counter{0};
    std::string const name = target.filename().string();
    std::filesystem::path const temporary =
        target.parent_path() / ("." + name.substr(0, name.size() - extension.size()) + ".writing-" +
                                std::to_string(::getpid()) + "-" + std::to_string(counter++) + extension);
    std::error_code error;
    bool ok = false;
    try {
        ok = write(temporary.string());
    } catch (...) {
        std::filesystem::remove(temporary, error);
        throw;
    }
    if (ok &&
        (!std::filesystem::exists(temporary, error) || std::filesystem::file_size(temporary, error) == 0)) {
        why = "the writer reported success but left no file";
        ok = false;
    }
    if (ok && !syncFile(temporary)) {
        why = std::string("the file could not be flushed to disk: ") + std::strerror(errno);
        ok = false;
    }
    if (ok) {
        std::filesystem::rename(temporary, target, error);
        if (error) {
            why = "the finished file could not replace '" + path + "': " + error.message();
            ok = false;
        }
    }
    if (!ok)
        std::filesystem::remove(temporary, error);
    return ok;
}

} // namespace

bool readFile(std::string const& path, BufferFunction const& buffer, std::string& why)
{
    return guarded(why, [&] { return readUnguarded(path, buffer, why); });
}

std::vector<std::string> dicomSeries(std::string const& folder, std::string& why)
{
    return guarded(why, [&] { return dicomSeriesUnguarded(folder, why); });
}

bool readDicomSeries(std::string const& folder, std::string const& series, BufferFunction const& buffer,
                     std::string& why, std::string& note)
{
    return guarded(why, [&] { return readDicomSeriesUnguarded(folder, series, buffer, why, note); });
}

bool writeFile(std::string const& path, FileHeader const& header, void const* values, std::string& why)
{
    return guarded(why, [&] {
        return writeReplacing(
            path, why, [&](std::string const& file) { return writeUnguarded(file, header, values, why); });
    });
}

} // namespace Velmoria::ImageFiles::Detail

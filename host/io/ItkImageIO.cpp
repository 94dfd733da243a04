#include "host/io/ItkImageIO.h"

#include <itkImageIOBase.h>
#include <itkImageIOFactory.h>
#include <itkMetaImageIOFactory.h>
#include <itkNiftiImageIOFactory.h>
#include <itkNrrdImageIOFactory.h>
#include <itkPNGImageIOFactory.h>

#include <exception>
#include <mutex>
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

bool readUnguarded(std::string const& path,
                   std::function<void*(FileHeader const&, std::string& why)> const& buffer, std::string& why)
{
    itk::ImageIOBase::Pointer io =
        itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::IOFileModeEnum::ReadMode);
    if (!io) {
        why = "no image reader recognises the file (unknown format or damaged header)";
        return false;
    }
    io->SetFileName(path);
    io->ReadImageInformation();

    FileHeader header;
    header.dimensions = io->GetNumberOfDimensions();
    if (header.dimensions < 1 || header.dimensions > 4) {
        why = "unsupported number of dimensions " + std::to_string(header.dimensions) + " (1 to 4 are read)";
        return false;
    }
    std::optional<PixelType> const type = pixelTypeFromItk(io->GetComponentType(), io->GetComponentSize());
    if (!type) {
        why = "unsupported pixel component type '" +
              itk::ImageIOBase::GetComponentTypeAsString(io->GetComponentType()) +
              "' (64-bit integers and long double have no pixel type here)";
        return false;
    }
    header.pixelType = *type;
    header.components = static_cast<int>(io->GetNumberOfComponents());
    unsigned const spatial = std::min(header.dimensions, 3u);
    for (unsigned i = 0; i < header.dimensions; ++i)
        header.size[i] = io->GetDimensions(i);
    for (unsigned i = 0; i < spatial; ++i) {
        header.spacing[i] = io->GetSpacing(i);
        header.origin[i] = io->GetOrigin(i);
        std::vector<double> const axis = io->GetDirection(i);
        for (unsigned r = 0; r < spatial; ++r)
            header.direction[3 * i + r] = axis[r];
    }
    header.byteSize = io->GetImageSizeInBytes();

    void* target = buffer(header, why);
    if (!target)
        return false;
    io->SetIORegion(fullRegion(*io));
    io->Read(target);
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
    io->SetPixelType(header.components == 1 ? itk::IOPixelEnum::SCALAR : itk::IOPixelEnum::VECTOR);
    io->SetFileName(path);
    io->SetIORegion(fullRegion(*io));
    io->Write(values);
    return true;
}

} // namespace

bool readFile(std::string const& path,
              std::function<void*(FileHeader const&, std::string& why)> const& buffer, std::string& why)
{
    registerFactories();
    try {
        return readUnguarded(path, buffer, why);
    } catch (itk::ExceptionObject const& e) {
        why = e.GetDescription();
    } catch (std::exception const& e) {
        why = e.what();
    }
    return false;
}

bool writeFile(std::string const& path, FileHeader const& header, void const* values, std::string& why)
{
    registerFactories();
    try {
        return writeUnguarded(path, header, values, why);
    } catch (itk::ExceptionObject const& e) {
        why = e.GetDescription();
    } catch (std::exception const& e) {
        why = e.what();
    }
    return false;
}

} // namespace Velmoria::ImageFiles::Detail

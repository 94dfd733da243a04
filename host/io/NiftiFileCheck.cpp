#include "host/io/NiftiFileCheck.h"

#include "host/core/String.h"

#include <fmt/format.h>
#include <zlib.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

namespace Velmoria::IO {

namespace {

// What the check needs of a header, whatever its version.
struct NiftiHeader
{
    std::array<std::int64_t, 8> dim{};
    std::array<double, 8> pixdim{};
    std::int64_t bitpix = 0;
    double voxOffset = 0.0;
    bool singleFile = true; // "n+1"/"n+2": the voxels follow the header in the same file
};

template <class T>
T read(unsigned char const* bytes, bool swap)
{
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    if (swap) {
        auto* raw = reinterpret_cast<unsigned char*>(&value);
        for (std::size_t i = 0; i < sizeof(T) / 2; ++i)
            std::swap(raw[i], raw[sizeof(T) - 1 - i]);
    }
    return value;
}

// The header fields from the first 540 bytes of the file (fewer for a NIfTI-1 file of a
// single voxel row); nullopt when they are not a NIfTI header.
std::optional<NiftiHeader> parseHeader(unsigned char const* bytes, std::size_t size)
{
    if (size < 348)
        return std::nullopt;
    NiftiHeader header;
    auto const sizeofHdr = read<std::int32_t>(bytes, false);
    bool swap = false;
    if (sizeofHdr == 348 || read<std::int32_t>(bytes, true) == 348) {
        swap = sizeofHdr != 348;
        if (std::memcmp(bytes + 344, "n+1", 4) != 0 && std::memcmp(bytes + 344, "ni1", 4) != 0)
            return std::nullopt;
        header.singleFile = bytes[345] == '+';
        for (int i = 0; i < 8; ++i) {
            header.dim[i] = read<std::int16_t>(bytes + 40 + 2 * i, swap);
            header.pixdim[i] = read<float>(bytes + 76 + 4 * i, swap);
        }
        header.bitpix = read<std::int16_t>(bytes + 72, swap);
        header.voxOffset = read<float>(bytes + 108, swap);
        return header;
    }
    if (size < 540 || (sizeofHdr != 540 && read<std::int32_t>(bytes, true) != 540))
        return std::nullopt;
    swap = sizeofHdr != 540;
    if (std::memcmp(bytes + 4, "n+2", 3) != 0 && std::memcmp(bytes + 4, "ni2", 3) != 0)
        return std::nullopt;
    header.singleFile = bytes[5] == '+';
    header.bitpix = read<std::int16_t>(bytes + 14, swap);
    for (int i = 0; i < 8; ++i) {
        header.dim[i] = read<std::int64_t>(bytes + 16 + 8 * i, swap);
        header.pixdim[i] = read<double>(bytes + 104 + 8 * i, swap);
    }
    header.voxOffset = static_cast<double>(read<std::int64_t>(bytes + 168, swap));
    return header;
}

// The bytes of voxel data the header announces; nullopt for dimensions that make no sense
// (the reader refuses those itself).
std::optional<std::uint64_t> dataBytes(NiftiHeader const& header)
{
    if (header.dim[0] < 1 || header.dim[0] > 7 || header.bitpix <= 0 || header.bitpix % 8 != 0)
        return std::nullopt;
    std::uint64_t values = 1;
    for (std::int64_t i = 1; i <= header.dim[0]; ++i) {
        if (header.dim[i] < 1)
            return std::nullopt;
        values *= static_cast<std::uint64_t>(header.dim[i]);
    }
    return values * static_cast<std::uint64_t>(header.bitpix / 8);
}

// The uncompressed length of a gzip file: quickly from the trailer when it agrees with
// `expected`, else by decompressing it. nullopt when the file cannot be opened.
std::optional<std::uint64_t> gzipLength(std::string const& path, std::uint64_t expected)
{
    {
        std::ifstream file(path, std::ios::binary | std::ios::ate);
        if (!file)
            return std::nullopt;
        auto const size = static_cast<std::streamoff>(file.tellg());
        if (size >= 18) {
            std::array<unsigned char, 4> trailer{};
            file.seekg(size - 4);
            file.read(reinterpret_cast<char*>(trailer.data()), 4);
            std::uint32_t const length =
                read<std::uint32_t>(trailer.data(), std::endian::native != std::endian::little);
            if (file && length == static_cast<std::uint32_t>(expected))
                return expected;
        }
    }
    gzFile gz = gzopen(path.c_str(), "rb");
    if (!gz)
        return std::nullopt;
    std::vector<char> buffer(1 << 20);
    std::uint64_t total = 0;
    int got = 0;
    while ((got = gzread(gz, buffer.data(), static_cast<unsigned>(buffer.size()))) > 0)
        total += static_cast<std::uint64_t>(got);
    gzclose(gz);
    return total;
}

// The first bytes of the file, decompressed when it is gzip.
std::vector<unsigned char> headBytes(std::string const& path, std::size_t count)
{
    std::vector<unsigned char> bytes(count);
    gzFile gz = gzopen(path.c_str(), "rb"); // reads plain files as they are
    if (!gz)
        return {};
    int const got = gzread(gz, bytes.data(), static_cast<unsigned>(count));
    gzclose(gz);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

} // namespace

bool isNiftiFileName(std::string const& path)
{
    std::string const lower = String::toLowerCopy(path);
    for (char const* suffix : {".nii", ".nii.gz", ".hdr", ".img"})
        if (String::endsWith(lower, suffix))
            return true;
    return false;
}

std::optional<std::string> niftiFileProblem(std::string const& path)
{
    std::string const lower = String::toLowerCopy(path);
    std::string headerPath = path;
    if (String::endsWith(lower, ".img"))
        headerPath = path.substr(0, path.size() - 4) + ".hdr";
    std::vector<unsigned char> const head = headBytes(headerPath, 540);
    auto const header = parseHeader(head.data(), head.size());
    if (!header)
        return std::nullopt;

    std::int64_t const spatial = std::min<std::int64_t>(header->dim[0], 3);
    for (std::int64_t axis = 1; axis <= spatial; ++axis) {
        double const spacing = header->pixdim[static_cast<std::size_t>(axis)];
        if (spacing == 0.0 || !std::isfinite(spacing))
            return fmt::format(
                "the voxel spacing of axis {} (pixdim[{}]) is {}; it must be a finite number other "
                "than 0, and would otherwise be read as 1 mm",
                "xyz"[axis - 1], axis, spacing);
    }

    auto const bytes = dataBytes(*header);
    if (!bytes)
        return std::nullopt;
    std::string dataPath = path;
    std::uint64_t offset = 0;
    if (header->singleFile) {
        offset = header->voxOffset > 0 ? static_cast<std::uint64_t>(header->voxOffset) : 352;
    } else if (String::endsWith(lower, ".hdr")) {
        dataPath = path.substr(0, path.size() - 4) + ".img";
    }
    std::uint64_t const expected = offset + *bytes;
    std::error_code error;
    std::optional<std::uint64_t> length;
    if (String::endsWith(String::toLowerCopy(dataPath), ".gz"))
        length = gzipLength(dataPath, expected);
    else if (auto const size = std::filesystem::file_size(dataPath, error); !error)
        length = size;
    if (length && *length < expected)
        return fmt::format(
            "it holds {} bytes{} but its header describes {} ({} bytes of voxels after {} bytes of "
            "header): the file is cut off",
            *length, dataPath != path ? " in '" + dataPath + "'" : std::string(), expected, *bytes, offset);
    return std::nullopt;
}

} // namespace Velmoria::IO

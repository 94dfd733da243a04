#pragma once

// ItkImageIO: the only code that touches ITK. It moves a file's header and raw buffer in and out
// of plain structures, nothing else.
//
// Why a separate translation unit with no Eigen in sight: ITK 5.2 carries its own copy of Eigen
// (itkeigen) whose macros clash with the system Eigen that the image classes use, so ITK and
// the image headers must never meet in one .cpp. ImageFiles.cpp does the conversion to images.
//
// Any exception from ITK is caught here and turned into `why`; nothing throws.

#include "host/image/PixelType.h"

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace Velmoria::ImageFiles::Detail {

struct FileHeader
{
    unsigned dimensions = 3;                     // 1 to 4
    std::array<std::size_t, 4> size{1, 1, 1, 1}; // unused axes are 1
    std::array<double, 3> spacing{1.0, 1.0, 1.0};
    std::array<double, 3> origin{0.0, 0.0, 0.0};
    // Direction cosines, column-major: direction[3 · axis + row].
    std::array<double, 9> direction{1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0};
    PixelType pixelType = PixelType::Float;
    int components = 1;
    // Bytes of the whole buffer, as ITK computes them (read only).
    std::size_t byteSize = 0;
};

// Reads the header of `path`; then asks `buffer` for memory of header.byteSize bytes and reads
// the pixels into it. `buffer` may return null to stop (having set `why`). False with `why` on
// any failure, 64-bit integer components included.
bool readFile(std::string const& path,
              std::function<void*(FileHeader const&, std::string& why)> const& buffer, std::string& why);

// Writes `values` (interleaved, x fastest, then y, z, and the fourth axis) with `header`.
bool writeFile(std::string const& path, FileHeader const& header, void const* values, std::string& why);

} // namespace Velmoria::ImageFiles::Detail

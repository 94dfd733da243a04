#pragma once

// ItkImageIO: the only code that touches ITK. It moves a file's header and raw buffer in and out
// of plain structures, nothing else.
//
// Why a separate translation unit with no Eigen in sight: ITK 5.2 carries its own copy of Eigen
// (itkeigen) whose macros clash with the system Eigen that the image classes use, so ITK and
// the image headers must never meet in one .cpp. ImageFiles.cpp does the conversion to images.
//
// Any exception from ITK is caught here and turned into `why`; nothing throws.
//
// DICOM goes through ITK's GDCM IO. GDCM applies each file's rescale slope and intercept, so
// pixels are real intensities (CT in HU); where that needs a fractional type GDCM gives double,
// which we narrow to float: stored DICOM values have at most 32 bits, and float keeps their
// rescaled value to 7 digits at half the memory. A series folder is read slice by slice into one
// buffer; see readDicomSeries for how its geometry is built.

#include "host/image/PixelType.h"

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

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
    // Bytes of the whole buffer (read only).
    std::size_t byteSize = 0;
    // DICOM's Modality (0008,0060), "CT", "MR", ...; empty for other formats (read only).
    std::string modality;
};

using BufferFunction = std::function<void*(FileHeader const&, std::string& why)>;

// Reads the header of `path`; then asks `buffer` for memory of header.byteSize bytes and reads
// the pixels into it. `buffer` may return null to stop (having set `why`). False with `why` on
// any failure, 64-bit integer components included.
bool readFile(std::string const& path, BufferFunction const& buffer, std::string& why);

// Writes `values` (interleaved, x fastest, then y, z, and the fourth axis) with `header`.
bool writeFile(std::string const& path, FileHeader const& header, void const* values, std::string& why);

// The DICOM series of `folder` (its files, not its sub-folders), by their identifiers (the
// series instance UID, followed by details that split a series with several orientations or
// sizes), sorted. Empty, with `why`, when there is none or GDCM fails.
std::vector<std::string> dicomSeries(std::string const& folder, std::string& why);

// Reads series `series` of `folder` as one volume (like readFile). The slices are sorted by
// their position along the normal of their plane; the volume starts at the first, its third
// axis points to the last, and its slice spacing is their distance / (slices − 1), so that the
// first and last slices lie exactly where their files say. Slices whose gaps differ by more than
// 1 % from that spacing are read all the same, with `note` saying so; slices of different sizes
// or orientations, and two slices at one position, are refused. Slices with different pixel
// types (a rescale that differs between files) are converted to float.
bool readDicomSeries(std::string const& folder, std::string const& series, BufferFunction const& buffer,
                     std::string& why, std::string& note);

} // namespace Velmoria::ImageFiles::Detail

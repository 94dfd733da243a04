#pragma once

// ImageFormat: the image file formats the host reads and writes, what their file names look
// like, and what each can hold when we write it.
//
// One table, so that the writer's checks, the IO algorithms' glob patterns and the names of
// the formats in messages cannot drift apart. The limits are those of ITK's writers (and of
// the formats themselves); checking them here, before ITK is called, turns what would be an ITK
// exception or, worse, a silently converted file into an error that names the file and the
// value at fault:
//
//   format     extensions            frames  axes   pixel types                channels
//   NIfTI      .nii .nii.gz          any     1-3    all eight                  any
//   NRRD       .nrrd .nhdr           any     1-3    all eight                  any
//   MetaImage  .mha .mhd             any     1-3    all eight                  any
//   PNG        .png                  1       2      uint8, uint16              1-4
//   TIFF       .tif .tiff            1       2-3    see kTiffTypes (.cpp)      1, 3, 4
//   JPEG       .jpg .jpeg            1       2      uint8                      1, 3
//   DICOM      .dcm (and folders)    1       2-3    see kDicomTypes (.cpp)     1, 3 (3: uint8)
//
// (Several frames are written as a fourth axis, which only the first three formats know.)
// JPEG is lossy: what comes back is close to, not equal to, what was written.

#include "host/image/PixelType.h"

#include <optional>
#include <string>
#include <vector>

namespace Velmoria::ImageFiles {

enum class ImageFormat : int
{
    Nifti,
    Nrrd,
    MetaImage,
    Png,
    Tiff,
    Jpeg,
    Dicom,
};

// Every format, in the order above.
std::vector<ImageFormat> allImageFormats();
// "NIfTI", "NRRD", "MetaImage", "PNG", "TIFF", "JPEG", "DICOM".
std::string formatName(ImageFormat format);
// Glob patterns of file names ("*.nii", "*.nii.gz"), lower case; the first is the usual one.
std::vector<std::string> filePatterns(ImageFormat format);
// The format whose pattern matches the file name of `path` (case-insensitive); none for other
// names. A folder is not recognised here (see ImageFiles::isDicomFolder).
std::optional<ImageFormat> formatFromPath(std::string const& path);
// The file name of `path` without its folder and without a known extension ("scan.nii.gz"
// gives "scan"); the file name itself when no extension is known.
std::string fileStem(std::string const& path);

// Empty when an image of this shape can be written in `format`; otherwise the reason, naming
// the value at fault ("pixel type 'float' cannot be stored in JPEG (uint8 only)").
// `slices` is the size of the third axis, `frames` the number of frames in the set.
std::string whyNotWritable(ImageFormat format, PixelType type, int channels, int slices, int frames);

} // namespace Velmoria::ImageFiles

#pragma once

// A look at a NIfTI file's own header before the image library reads it, for two faults that
// the NIfTI reader lets through without a word:
//   - a voxel spacing (pixdim of a spatial axis) of 0, NaN or infinity is replaced by 1 mm;
//   - a file shorter than its header says (a download or copy cut off) is read with zeros or
//     garbage for the missing voxels.
// Both are refused instead, with a reason that names the field and the values.
//
// NIfTI-1 (.nii, .nii.gz, and the .hdr/.img pair) and NIfTI-2 headers are read in either byte
// order. For a .nii.gz, the gzip trailer's length of the uncompressed data is compared first;
// only when it disagrees with the header is the file decompressed once more to count its bytes
// (a gzip file may hold several members, whose trailers each count only their own part).

#include <optional>
#include <string>

namespace Velmoria::IO {

// True for the names NIfTI files have: .nii, .nii.gz, .hdr, .img (any case).
bool isNiftiFileName(std::string const& path);

// Why the NIfTI file at `path` cannot be read faithfully, or nullopt when its header is sound
// (or it is no NIfTI file this check understands: the reader then speaks for itself).
std::optional<std::string> niftiFileProblem(std::string const& path);

} // namespace Velmoria::IO

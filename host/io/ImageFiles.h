#pragma once

// ImageFiles: reading and writing image files (NIfTI .nii/.nii.gz, NRRD .nrrd/.nhdr, MetaImage
// .mha/.mhd, PNG, TIFF, JPEG, DICOM files and series folders) through ITK's ImageIO layer (see
// ImageFormat.h for what each format holds). ITK stays behind this interface: no ITK type
// appears here, and the host links ITK privately.
//
// We go through itk::ImageIOBase rather than the templated itk::ImageFileReader<itk::Image<..>>
// because the pixel type and channel count are only known at run time; the IO object reads the
// raw, interleaved buffer straight into a MemImage of the matching PixelType.
//
// Reading
//   - component types int8 .. uint32, float, double map to the eight PixelTypes; 64-bit integers
//     (and long double) are refused with an error naming the file and the type;
//   - channels = the file's number of components (interleaved, as ours);
//   - 1D/2D/3D files give one frame; a 4D file gives one frame per 3D volume (the fourth axis is
//     time or a batch), all with the same geometry;
//   - the set is named after the file (its name without folder and extension);
//   - DICOM: pixels are real intensities (rescale slope and intercept applied: CT in HU; float
//     when the rescale is fractional), a multi-frame file is one volume, the set's modality
//     follows the file's Modality tag (CT, MR, US, PT, NM, CR/DX/XA/RF as X-ray). A folder is
//     read as a DICOM series: its files (not sub-folders) are grouped by series; with several,
//     the first series identifier in sorted order is read and a warning names the folder and
//     every series found. Slices are sorted by position; see Detail::readDicomSeries for the
//     geometry. A file named DICOMDIR (a media directory) is refused: read its folder instead.
//
// Writing
//   - a set of one frame is written as a 2D (slices == 1) or 3D file; a set of several frames
//     with the same size, channels and geometry as one 4D file (frames along the fourth axis);
//   - files hold original intensities: frames with shift 0 and scale 1 are written as stored,
//     others are converted to float (original = stored / scale − shift) first, so that other
//     programs read the values we show;
//   - a 2D frame whose placement leaves the xy plane (rotation out of plane or a z offset) is
//     written as a volume of one slice, so that its placement survives.
//
// Geometry: our image coordinates have their origin at the image centre, ITK's physical point of
// index p is origin + direction · (p ∘ spacing). geometryFromItk / itkFromGeometry are the one
// place where the two are converted (see there).
//
// Writing checks the format's limits first (ImageFormat.h: JPEG takes uint8 gray or RGB only,
// PNG and JPEG 2D only, DICOM and TIFF one 2D or 3D image): a set that does not fit is refused
// with the file and the value at fault named, never converted behind the user's back. DICOM is
// written as one file (a 3D image as a multi-frame file).
//
// Failures never throw: read gives null and write false, with an error in "Host.ImageFiles"
// that names the file and the reason.

#include <Eigen/Core>
#include <memory>
#include <string>

namespace Velmoria {

class SharedImageSet;

namespace ImageFiles {

// A file's grid in ITK's terms: the physical point of the first voxel, the direction cosines of
// the axes (columns) and the spacing.
struct FileGeometry
{
    Eigen::Vector3d origin = Eigen::Vector3d::Zero();
    Eigen::Matrix3d direction = Eigen::Matrix3d::Identity();
    Eigen::Vector3d spacing = Eigen::Vector3d::Ones();
};

// matrixToWorld = [direction, origin + direction · (((dimensions − 1) / 2) ∘ spacing)].
Eigen::Matrix4d geometryFromItk(FileGeometry const& geometry, Eigen::Vector3i const& dimensions);
// The inverse of geometryFromItk. The rotation part of matrixToWorld is taken as the direction
// as it is (a reflection stays a reflection).
FileGeometry itkFromGeometry(Eigen::Matrix4d const& matrixToWorld, Eigen::Vector3d const& spacing,
                             Eigen::Vector3i const& dimensions);

// True for a file named *.dcm or one with the DICOM magic "DICM" at byte 128.
bool isDicomFile(std::string const& path);
// True for a folder holding at least one DICOM file (isDicomFile) directly.
bool isDicomFolder(std::string const& path);

// The image in `path` (a file, or a DICOM series folder); null with an error log when it
// cannot be read.
std::unique_ptr<SharedImageSet> read(std::string const& path);
// Writes `images` to `path`, the format chosen by the extension; false with an error log when
// the set is empty, its frames cannot share one file or ITK fails.
bool write(SharedImageSet const& images, std::string const& path);

} // namespace ImageFiles
} // namespace Velmoria

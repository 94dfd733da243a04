#pragma once

// ImageFileIoAlgorithm: the IoAlgorithm that reads and writes one image file format through
// ImageFiles, so that the host's general loader (IO::FileLoader) and the algorithm registry find
// image files like any other data. One instance handles one format (ImageFormat.h); DICOM has
// two: one for single files and one for series folders.
//
// Registered ids (see IoAlgorithms.h): "IO.NiftiIo", "IO.NrrdIo", "IO.MetaImageIo",
// "IO.PngIo", "IO.TiffIo", "IO.JpegIo", "DICOM.DicomIOAlgorithmFile",
// "DICOM.DicomIOAlgorithmFolder".
//
// - Loading: created for an empty DataList; compute() reads location() and takeOutput() hands
//   the SharedImageSet over (once).
// - Saving (all but the folder loader, saveCount 1): created for a DataList holding one
//   SharedImageSet, which it keeps a pointer to (the caller keeps it alive); compute() writes it
//   to location(), whose file name must match the format's patterns, so that an id always
//   means the format on disk.
// - canLoad: the format's glob patterns (supportedLocations()); the DICOM file loader also takes
//   any file with the DICOM magic and the file name DICOMDIR (which its compute() refuses with
//   a clear error rather than leaving it to no loader at all); the folder loader takes a folder
//   holding at least one DICOM file.
// - Failures: status through fail() (InvalidInput for a location of the wrong kind, Error for
//   a read or write that fails) and an error log naming the file and the reason, in
//   "Host.ImageFiles" (the reader's and writer's own lines) or "Host.ImageFileIoAlgorithm".

#include "host/algorithm/IoAlgorithm.h"
#include "host/io/ImageFormat.h"

#include <memory>
#include <string>
#include <vector>

namespace Velmoria {

class SharedImageSet;

class ImageFileIoAlgorithm : public IoAlgorithm
{
public:
    // `seriesFolder` selects the DICOM folder loader (only with ImageFormat::Dicom).
    explicit ImageFileIoAlgorithm(ImageFiles::ImageFormat format, bool seriesFolder = false);
    ~ImageFileIoAlgorithm() override;

    // The registered id of the algorithm for `format` (and the folder loader).
    static std::string algorithmId(ImageFiles::ImageFormat format, bool seriesFolder = false);
    // True when an algorithm of this kind can run on `data`: empty (load), or one image set
    // (save; not the folder loader). With `algorithm` not null it also creates one there.
    static bool createCompatible(ImageFiles::ImageFormat format, bool seriesFolder, DataList const& data,
                                 Algorithm** algorithm);

    ImageFiles::ImageFormat format() const { return m_format; }
    bool seriesFolder() const { return m_seriesFolder; }
    // The set to write; null turns this algorithm back into a loader.
    void setInput(SharedImageSet const* images) { m_input = images; }

    std::vector<std::string> supportedLocations() const override;
    bool canLoad(std::string const& path) const override;
    void compute() override;
    OwningDataList takeOutput() override;

private:
    bool load();
    bool save();

    ImageFiles::ImageFormat m_format;
    bool m_seriesFolder;
    SharedImageSet const* m_input = nullptr;
    std::unique_ptr<SharedImageSet> m_output;
};

} // namespace Velmoria

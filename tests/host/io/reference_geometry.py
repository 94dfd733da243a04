#!/usr/bin/python3
"""What Debian's reference readers see in an image file, as JSON, for the image file tests.

The C++ tests compare our reader with these independent ones: nibabel for NIfTI, pydicom for
DICOM. Run it with /usr/bin/python3 (Debian's python3-nibabel and python3-pydicom).

  reference_geometry.py check              versions of nibabel and pydicom
  reference_geometry.py data-dirs          folders of the packages' test files
  reference_geometry.py nifti FILE         shape and voxel-to-world affine in LPS
  reference_geometry.py dicom FILE         Rows, Columns, PixelSpacing, ImagePositionPatient,
                                           ImageOrientationPatient, NumberOfFrames, the rescale and
                                           a few rescaled pixel values
  reference_geometry.py make-series DIR    writes two CT series of int16 slices into DIR (file
                                           names shuffled) and prints what they hold

Exit status 2 with a message on standard error when a package is missing.
"""

import json
import os
import sys


def fail(message):
    sys.stderr.write(message + "\n")
    sys.exit(2)


def import_readers():
    try:
        import nibabel  # noqa: F401
        import numpy  # noqa: F401
        import pydicom  # noqa: F401
    except ImportError as error:
        fail(f"{error}: install python3-nibabel and python3-pydicom (scripts/bootstrap installs them)")


def check():
    import nibabel
    import pydicom
    return {"nibabel": nibabel.__version__, "pydicom": pydicom.__version__}


def data_dirs():
    import nibabel
    import pydicom
    return {
        "nibabel": os.path.join(os.path.dirname(nibabel.__file__), "tests", "data"),
        "pydicom": os.path.join(os.path.dirname(pydicom.__file__), "data", "test_files"),
    }


def nifti(path):
    import nibabel
    import numpy
    image = nibabel.load(path)
    # nibabel speaks RAS; our world (like ITK's and DICOM's) is LPS: x and y change sign.
    affine = numpy.diag([-1.0, -1.0, 1.0, 1.0]) @ image.affine
    return {"shape": [int(n) for n in image.shape], "affine_lps": affine.tolist()}


def dicom(path):
    import numpy
    import pydicom
    ds = pydicom.dcmread(path)

    def floats(name):
        return [float(v) for v in ds[name].value] if name in ds else None

    result = {
        "rows": int(ds.Rows),
        "columns": int(ds.Columns),
        "frames": int(ds.get("NumberOfFrames", 1) or 1),
        "samples_per_pixel": int(ds.get("SamplesPerPixel", 1)),
        "pixel_spacing": floats("PixelSpacing"),
        "position": floats("ImagePositionPatient"),
        "orientation": floats("ImageOrientationPatient"),
        "grid_frame_offsets": floats("GridFrameOffsetVector"),
        "rescale_slope": float(ds.get("RescaleSlope", 1.0)),
        "rescale_intercept": float(ds.get("RescaleIntercept", 0.0)),
        "modality": str(ds.get("Modality", "")),
    }
    # A few rescaled values of the first frame, as [row, column, value].
    try:
        pixels = ds.pixel_array
    except Exception:  # a transfer syntax pydicom cannot decode without extra packages
        return result
    if result["frames"] > 1:
        pixels = pixels[0]
    if result["samples_per_pixel"] == 1:
        rows, columns = result["rows"], result["columns"]
        places = [(0, 0), (rows - 1, columns - 1), (rows // 2, columns // 2), (rows // 3, columns // 4),
                  (rows - 1, 0), (0, columns - 1)]
        values = pixels.astype(numpy.float64) * result["rescale_slope"] + result["rescale_intercept"]
        result["samples"] = [[r, c, float(values[r, c])] for r, c in places]
    return result


def make_series(folder):
    import numpy
    import pydicom
    from pydicom.dataset import Dataset, FileMetaDataset
    from pydicom.uid import ExplicitVRLittleEndian

    os.makedirs(folder, exist_ok=True)
    ct_storage = "1.2.840.10008.5.1.4.1.1.2"
    root = "1.2.826.0.1.3680043.9.7433."
    # Turned about x and then about z, so that no axis is a world axis.
    a, b = 0.3, 0.5
    row = [numpy.cos(b), numpy.sin(b), 0.0]
    column = [-numpy.sin(b) * numpy.cos(a), numpy.cos(b) * numpy.cos(a), numpy.sin(a)]
    normal = numpy.cross(row, column)
    rows, columns = 6, 5
    spacing = [0.8, 0.6]  # between rows, between columns
    slice_spacing = 2.5
    origin = numpy.array([-30.0, 12.5, 100.0])
    slope, intercept = 0.5, -100.0

    series = {
        # Identifiers chosen so that "first" sorts first.
        "first": {"uid": root + "1", "slices": 5},
        "second": {"uid": root + "2", "slices": 2},
    }
    order = [3, 0, 4, 1, 2]  # file numbers shuffled against slice positions
    written = {}
    for name, spec in series.items():
        positions = []
        for k in range(spec["slices"]):
            position = origin + k * slice_spacing * normal
            positions.append(position.tolist())
            stored = numpy.fromfunction(lambda j, i: (i * 7 + j * 3 + k * 11) % 200 - 50, (rows, columns),
                                        dtype=numpy.int64).astype(numpy.int16)
            meta = FileMetaDataset()
            meta.MediaStorageSOPClassUID = ct_storage
            meta.MediaStorageSOPInstanceUID = f"{spec['uid']}.{k + 1}"
            meta.TransferSyntaxUID = ExplicitVRLittleEndian
            ds = Dataset()
            ds.file_meta = meta
            ds.is_little_endian = True
            ds.is_implicit_VR = False
            ds.SOPClassUID = ct_storage
            ds.SOPInstanceUID = meta.MediaStorageSOPInstanceUID
            ds.StudyInstanceUID = root + "100"
            ds.SeriesInstanceUID = spec["uid"]
            ds.FrameOfReferenceUID = root + "200"
            ds.Modality = "CT"
            ds.PatientName = "Test^Series"
            ds.PatientID = "0"
            ds.InstanceNumber = k + 1
            ds.ImagePositionPatient = [f"{v:.6f}" for v in position]
            ds.ImageOrientationPatient = [f"{v:.8f}" for v in row + column]
            ds.PixelSpacing = [f"{v}" for v in spacing]
            ds.SliceThickness = f"{slice_spacing}"
            ds.Rows, ds.Columns = rows, columns
            ds.SamplesPerPixel = 1
            ds.PhotometricInterpretation = "MONOCHROME2"
            ds.BitsAllocated, ds.BitsStored, ds.HighBit = 16, 16, 15
            ds.PixelRepresentation = 1
            ds.RescaleSlope = f"{slope}"
            ds.RescaleIntercept = f"{intercept}"
            ds.PixelData = stored.tobytes()
            number = order[k] if spec["slices"] == len(order) else k
            ds.save_as(os.path.join(folder, f"{name}_{number:02d}.dcm"), write_like_original=False)
        written[name] = {"uid": spec["uid"], "positions": positions}
    return {
        "rows": rows,
        "columns": columns,
        "pixel_spacing": spacing,
        "slice_spacing": slice_spacing,
        "orientation": row + column,
        "rescale_slope": slope,
        "rescale_intercept": intercept,
        "value": "((i * 7 + j * 3 + k * 11) % 200 - 50) * slope + intercept; i column, j row, k slice",
        "series": written,
    }


def main(arguments):
    if not arguments:
        fail(__doc__)
    import_readers()
    command, rest = arguments[0], arguments[1:]
    commands = {"check": check, "data-dirs": data_dirs, "nifti": nifti, "dicom": dicom,
                "make-series": make_series}
    if command not in commands:
        fail(f"unknown command '{command}'\n{__doc__}")
    print(json.dumps(commands[command](*rest)))


if __name__ == "__main__":
    main(sys.argv[1:])

// Our reader against independent ones: nibabel for NIfTI and pydicom for DICOM (Debian's
// python3-nibabel and python3-pydicom, through reference_geometry.py and /usr/bin/python3).
// World positions are compared, not only sizes: a voxel must land where the other reader puts
// it. Without the interpreter or its packages these tests fail and say what to install.

#include "tests/host/io/IoTestHelpers.h"

#include "host/core/Log.h"
#include "host/data/Data.h"
#include "host/image/SharedImageSet.h"
#include "host/io/FileLoader.h"
#include "host/io/ImageFiles.h"

#include <gtest/gtest.h>

#include <cmath>

namespace Velmoria {
namespace {

using IoTest::TempFolder;
using nlohmann::json;

Eigen::Matrix4d matrixFromJson(json const& rows)
{
    Eigen::Matrix4d m;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            m(r, c) = rows.at(static_cast<std::size_t>(r)).at(static_cast<std::size_t>(c)).get<double>();
    return m;
}

Eigen::Vector3d vectorFromJson(json const& values, std::size_t first = 0)
{
    return {values.at(first).get<double>(), values.at(first + 1).get<double>(),
            values.at(first + 2).get<double>()};
}

class ReferenceReaders : protected TempFolder
{
protected:
    // The reference script's answer; fails the test (with what to install) when it cannot run.
    json reference(std::string const& arguments)
    {
        std::string why;
        json result = IoTest::runReference(arguments, why);
        if (result.is_null())
            ADD_FAILURE() << why;
        return result;
    }
    std::string dataDir(std::string const& package)
    {
        json const dirs = reference("data-dirs");
        return dirs.is_object() ? dirs.at(package).get<std::string>() : std::string();
    }

    // Every corner of `frame` lies where `affine` (voxel to LPS world) puts it.
    static void expectSamePlacement(SharedImage const& frame, Eigen::Matrix4d const& affine, double tolerance)
    {
        for (Eigen::Vector3d const& p : IoTest::corners(frame.dimensions())) {
            Eigen::Vector3d const expected = (affine * p.homogeneous()).head<3>();
            EXPECT_LT((frame.pixelToWorld(p) - expected).norm(), tolerance)
                << "voxel " << p.transpose() << ": ours " << frame.pixelToWorld(p).transpose()
                << ", reference " << expected.transpose();
        }
    }
};

// ---------------------------------------------------------------------------------------------
// NIfTI

class NiftiReference : public ::testing::Test, protected ReferenceReaders
{};

TEST_F(NiftiReference, AnObliqueVolumeWeWriteIsPlacedAlikeByNibabelAndAfterAReadAndWrite)
{
    // Turned about two axes, anisotropic spacing, moved.
    Eigen::Affine3d const placement = Eigen::Translation3d(21.0, -13.5, 48.25) *
                                      Eigen::AngleAxisd(0.35, Eigen::Vector3d::UnitX()) *
                                      Eigen::AngleAxisd(-0.6, Eigen::Vector3d::UnitZ());
    auto frame = IoTest::patternFrame<float>({9, 7, 5}, 1, placement.matrix(), {0.8, 1.25, 3.0});
    Eigen::Matrix4d voxelToWorld = Eigen::Matrix4d::Identity();
    for (int i = 0; i < 4; ++i)
        voxelToWorld.col(i).head<3>() = i < 3 ? frame->pixelToWorld(Eigen::Vector3d::Unit(i)) -
                                                    frame->pixelToWorld(Eigen::Vector3d::Zero())
                                              : frame->pixelToWorld(Eigen::Vector3d::Zero());

    std::string const first = file("oblique.nii.gz");
    ASSERT_TRUE(ImageFiles::write(SharedImageSet(frame), first));
    json const nibabel = reference("nifti '" + first + "'");
    ASSERT_TRUE(nibabel.is_object());
    EXPECT_EQ((std::vector<int>{9, 7, 5}), nibabel.at("shape").get<std::vector<int>>());
    EXPECT_TRUE(matrixFromJson(nibabel.at("affine_lps")).isApprox(voxelToWorld, 1e-5))
        << matrixFromJson(nibabel.at("affine_lps")) << "\nexpected\n"
        << voxelToWorld;

    auto read = ImageFiles::read(first);
    ASSERT_TRUE(read);
    expectSamePlacement(*read->get(0), voxelToWorld, 1e-4);

    std::string const second = file("again.nii");
    ASSERT_TRUE(ImageFiles::write(*read, second));
    json const again = reference("nifti '" + second + "'");
    ASSERT_TRUE(again.is_object());
    EXPECT_TRUE(matrixFromJson(again.at("affine_lps")).isApprox(voxelToWorld, 1e-5));
}

class NibabelFiles : public ::testing::TestWithParam<std::string>, protected ReferenceReaders
{};

TEST_P(NibabelFiles, SizesFramesAndPlacementAgree)
{
    std::string const dir = dataDir("nibabel");
    ASSERT_FALSE(dir.empty());
    std::string const path = dir + "/" + GetParam();
    json const nibabel = reference("nifti '" + path + "'");
    ASSERT_TRUE(nibabel.is_object());
    std::vector<int> shape = nibabel.at("shape").get<std::vector<int>>();
    shape.resize(4, 1);

    auto read = ImageFiles::read(path);
    ASSERT_TRUE(read);
    ASSERT_EQ(shape[3], read->size());
    SharedImage const& frame = *read->get(0);
    EXPECT_EQ(Eigen::Vector3i(shape[0], shape[1], shape[2]), frame.dimensions());
    // nibabel's affine is kept in single precision in the header.
    expectSamePlacement(frame, matrixFromJson(nibabel.at("affine_lps")), 1e-3);
    expectSamePlacement(*read->get(read->size() - 1), matrixFromJson(nibabel.at("affine_lps")), 1e-3);
}

INSTANTIATE_TEST_SUITE_P(Files, NibabelFiles,
                         ::testing::Values("anatomical.nii", "example4d.nii.gz", "functional.nii",
                                           "standard.nii.gz", "reoriented_anat_moved.nii",
                                           "resampled_anat_moved.nii"),
                         [](auto const& info) {
                             std::string name = info.param.substr(0, info.param.find('.'));
                             std::erase(name, '_');
                             return name;
                         });

// ---------------------------------------------------------------------------------------------
// DICOM files

class PydicomFiles : public ::testing::TestWithParam<std::string>, protected ReferenceReaders
{};

TEST_P(PydicomFiles, SizesPlacementAndRescaledValuesAgree)
{
    std::string const dir = dataDir("pydicom");
    ASSERT_FALSE(dir.empty());
    std::string const path = dir + "/" + GetParam();
    json const pydicom = reference("dicom '" + path + "'");
    ASSERT_TRUE(pydicom.is_object());

    auto read = ImageFiles::read(path);
    ASSERT_TRUE(read);
    ASSERT_EQ(1, read->size());
    SharedImage const& frame = *read->get(0);
    int const frames = pydicom.at("frames").get<int>();
    ASSERT_EQ(Eigen::Vector3i(pydicom.at("columns").get<int>(), pydicom.at("rows").get<int>(), frames),
              frame.dimensions());

    // PixelSpacing is (between rows, between columns); the first voxel sits at the position;
    // the orientation gives the directions of columns (x) and rows (y).
    Eigen::Vector3d const position = vectorFromJson(pydicom.at("position"));
    Eigen::Vector3d const xAxis = vectorFromJson(pydicom.at("orientation"), 0);
    Eigen::Vector3d const yAxis = vectorFromJson(pydicom.at("orientation"), 3);
    double const dx = pydicom.at("pixel_spacing").at(1).get<double>();
    double const dy = pydicom.at("pixel_spacing").at(0).get<double>();
    EXPECT_LT((frame.pixelToWorld({0, 0, 0}) - position).norm(), 1e-4);
    EXPECT_LT((frame.pixelToWorld({1, 0, 0}) - (position + dx * xAxis)).norm(), 1e-4);
    EXPECT_LT((frame.pixelToWorld({0, 1, 0}) - (position + dy * yAxis)).norm(), 1e-4);
    if (frames > 1 && pydicom.at("grid_frame_offsets").is_array()) {
        json const& offsets = pydicom.at("grid_frame_offsets");
        double const last = offsets.at(offsets.size() - 1).get<double>();
        Eigen::Vector3d const expected = position + last * xAxis.cross(yAxis);
        EXPECT_LT((frame.pixelToWorld({0, 0, double(frames - 1)}) - expected).norm(), 1e-4);
    }

    // CT comes in Hounsfield units (the intercept of CT_small needs a signed type).
    if (pydicom.at("modality").get<std::string>() == "CT") {
        EXPECT_EQ(Data::Modality::CT, read->modality());
    }
    ASSERT_TRUE(pydicom.contains("samples")) << "pydicom could not decode " << path;
    for (json const& sample : pydicom.at("samples")) {
        int const row = sample.at(0).get<int>();
        int const column = sample.at(1).get<int>();
        double const expected = sample.at(2).get<double>();
        double const ours = visitPixelType(frame.pixelType(), [&](auto tag) {
            using T = decltype(tag);
            auto const* values = static_cast<T const*>(frame.mem()->data());
            return static_cast<double>(
                values[static_cast<std::size_t>(row) * frame.dimensions().x() + column]);
        });
        EXPECT_NEAR(expected, ours, 1e-3 * std::max(1.0, std::abs(expected)))
            << "row " << row << ", column " << column;
    }
}

INSTANTIATE_TEST_SUITE_P(Files, PydicomFiles,
                         ::testing::Values("CT_small.dcm", "MR_small.dcm", "MR_small_bigendian.dcm",
                                           "MR_small_RLE.dcm", "MR_small_implicit.dcm", "rtdose.dcm",
                                           "MR_small_expb.dcm"),
                         [](auto const& info) {
                             std::string name = info.param.substr(0, info.param.find('.'));
                             std::erase(name, '_');
                             return name;
                         });

// ---------------------------------------------------------------------------------------------
// A DICOM series folder written by pydicom

class DicomSeries : public ::testing::Test, protected ReferenceReaders
{};

TEST_F(DicomSeries, SlicesAreSortedAndPlacedAndTheFirstOfTwoSeriesIsTakenWithAWarning)
{
    std::string const series = file("series");
    json const written = reference("make-series '" + series + "'");
    ASSERT_TRUE(written.is_object());

    Log::Capture capture;
    OwningDataList loaded = IO::FileLoader::load(series);
    ASSERT_EQ(1, loaded.size()) << ::testing::PrintToString(capture.messages());
    std::unique_ptr<SharedImageSet> images = loaded.extractFirstImage();
    ASSERT_TRUE(images);
    std::string const first = written.at("series").at("first").at("uid").get<std::string>();
    std::string const second = written.at("series").at("second").at("uid").get<std::string>();
    bool warned = false;
    for (std::string const& m : capture.messages(Log::Warning))
        warned = warned || (m.find("Folder '" + series + "' holds 2 DICOM series") != std::string::npos &&
                            m.find(first) != std::string::npos && m.find(second) != std::string::npos);
    EXPECT_TRUE(warned) << ::testing::PrintToString(capture.messages());

    ASSERT_EQ(1, images->size());
    SharedImage const& volume = *images->get(0);
    json const positions = written.at("series").at("first").at("positions");
    int const columns = written.at("columns").get<int>();
    int const rows = written.at("rows").get<int>();
    ASSERT_EQ(Eigen::Vector3i(columns, rows, int(positions.size())), volume.dimensions());
    EXPECT_EQ(PixelType::Float, volume.pixelType()) << "a slope of 0.5 needs fractions";
    EXPECT_EQ(Data::Modality::CT, images->modality());
    EXPECT_EQ("series", images->name());

    Eigen::Vector3d const xAxis = vectorFromJson(written.at("orientation"), 0);
    Eigen::Vector3d const yAxis = vectorFromJson(written.at("orientation"), 3);
    double const dx = written.at("pixel_spacing").at(1).get<double>();
    double const dy = written.at("pixel_spacing").at(0).get<double>();
    EXPECT_NEAR(written.at("slice_spacing").get<double>(), volume.spacing().z(), 1e-4);
    for (std::size_t k = 0; k < positions.size(); ++k) {
        Eigen::Vector3d const origin = vectorFromJson(positions.at(k));
        double const z = static_cast<double>(k);
        EXPECT_LT((volume.pixelToWorld({0, 0, z}) - origin).norm(), 1e-4) << "slice " << k;
        EXPECT_LT((volume.pixelToWorld({columns - 1.0, rows - 1.0, z}) -
                   (origin + (columns - 1) * dx * xAxis + (rows - 1) * dy * yAxis))
                      .norm(),
                  1e-4)
            << "slice " << k;
    }

    double const slope = written.at("rescale_slope").get<double>();
    double const intercept = written.at("rescale_intercept").get<double>();
    auto const* values = static_cast<float const*>(volume.mem()->data());
    for (int k = 0; k < volume.dimensions().z(); ++k)
        for (int j = 0; j < rows; ++j)
            for (int i = 0; i < columns; ++i) {
                double const stored = (i * 7 + j * 3 + k * 11) % 200 - 50;
                ASSERT_FLOAT_EQ(static_cast<float>(stored * slope + intercept),
                                values[(static_cast<std::size_t>(k) * rows + j) * columns + i])
                    << i << " " << j << " " << k;
            }
}

} // namespace
} // namespace Velmoria

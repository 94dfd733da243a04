// Image files through ITK: pixel values and the voxel-to-world mapping survive a write and a
// read for every pixel type and format, the centre-origin convention matches ITK's first-voxel
// origin, 4D files become frames, and bad files give null with a log line naming the file.

#include "host/io/ImageFiles.h"

#include "tests/host/io/IoTestHelpers.h"

#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"
#include "host/io/FileLoader.h"
#include "host/io/IoAlgorithms.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

namespace Velmoria {
namespace {

using IoTest::TempFolder;

// ---------------------------------------------------------------------------------------------
// Round trips, every pixel type through every format, one frame or several (a 4D file).

template <class T>
class ImageFilesRoundTrip : public ::testing::Test, protected TempFolder
{};
using PixelTypes =
    ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;
TYPED_TEST_SUITE(ImageFilesRoundTrip, PixelTypes);

TYPED_TEST(ImageFilesRoundTrip, ValuesAndPlacementOfEveryFrameSurviveEveryFormat)
{
    for (std::string const extension : {".nii.gz", ".nrrd", ".mha"}) {
        for (int const frames : {1, 3}) {
            SCOPED_TRACE(extension + ", " + std::to_string(frames) + " frame(s)");
            SharedImageSet original;
            for (int f = 0; f < frames; ++f)
                ASSERT_TRUE(original.add(IoTest::patternFrame<TypeParam>(
                    {5, 4, 3}, frames == 1 ? 3 : 2, IoTest::obliqueMatrix(), {0.7, 1.1, 2.5}, 13 * f)));
            std::string const path = this->file("volume" + std::to_string(frames) + extension);
            ASSERT_TRUE(ImageFiles::write(original, path));
            auto read = ImageFiles::read(path);
            ASSERT_TRUE(read);
            ASSERT_EQ(frames, read->size());
            EXPECT_EQ("volume" + std::to_string(frames), read->name());
            for (int f = 0; f < frames; ++f)
                IoTest::expectSameFrame(*original.get(f), *read->get(f));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// The conversion between our centre-origin matrices and ITK's first-voxel origin.

struct GeometryCase
{
    Eigen::Vector3i dimensions;
    Eigen::Vector3d spacing;
    Eigen::Matrix4d matrix;
};

class ImageFilesGeometry : public ::testing::TestWithParam<GeometryCase>
{};

TEST_P(ImageFilesGeometry, FirstVoxelLiesAtTheFileOriginAndTheConversionInverts)
{
    GeometryCase const& c = GetParam();
    ImageFiles::FileGeometry const file = ImageFiles::itkFromGeometry(c.matrix, c.spacing, c.dimensions);
    Eigen::Matrix4d const back = ImageFiles::geometryFromItk(file, c.dimensions);
    EXPECT_TRUE(back.isApprox(c.matrix, 1e-12)) << back;

    SharedImage frame(ImageDescriptor(PixelType::Float, c.dimensions, 1));
    frame.setSpacing(c.spacing);
    frame.setMatrixToWorld(c.matrix);
    // ITK: physical point of index p = origin + direction · (p ∘ spacing).
    for (Eigen::Vector3d const& p : IoTest::corners(c.dimensions)) {
        Eigen::Vector3d const itkPoint =
            file.origin + file.direction * (p.array() * c.spacing.array()).matrix();
        EXPECT_LT((frame.pixelToWorld(p) - itkPoint).norm(), 1e-9) << p.transpose();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Grids, ImageFilesGeometry,
    ::testing::Values(GeometryCase{{5, 4, 3}, {0.7, 1.1, 2.5}, IoTest::obliqueMatrix()},
                      GeometryCase{{1, 1, 1}, {1.0, 1.0, 1.0}, Eigen::Matrix4d::Identity()},
                      GeometryCase{{256, 1, 1}, {0.25, 3.0, 1.0}, IoTest::obliqueMatrix()},
                      GeometryCase{{8, 9, 1}, {2.0, 0.5, 4.0}, Eigen::Matrix4d::Identity()}));

// ---------------------------------------------------------------------------------------------
// Files written by hand, so that the expected world positions do not come from our own writer.

class ImageFilesHandWritten : public ::testing::Test, protected TempFolder
{
protected:
    // A MetaImage with an inline header and 4 × 3 × 2 values 0, 1, 2, ... (zeros when wider).
    std::string writeMetaImage(std::string const& name, std::string const& elementType, int bytesPerValue)
    {
        std::string bytes =
            "ObjectType = Image\nNDims = 3\nBinaryData = True\nBinaryDataByteOrderMSB = False\n"
            "Offset = 10 -20 30\nTransformMatrix = 0 1 0 1 0 0 0 0 -1\n"
            "ElementSpacing = 0.5 2 3\nDimSize = 4 3 2\nElementType = " +
            elementType + "\nElementDataFile = LOCAL\n";
        for (int i = 0; i < 24 * bytesPerValue; ++i)
            bytes.push_back(static_cast<char>(bytesPerValue == 1 ? i : 0));
        return writeBytes(name, bytes);
    }
};

TEST_F(ImageFilesHandWritten, FirstVoxelIsAtTheFileOriginAndAxesFollowTheDirection)
{
    auto read = ImageFiles::read(writeMetaImage("known.mha", "MET_UCHAR", 1));
    ASSERT_TRUE(read);
    SharedImage const& frame = *read->get(0);
    ASSERT_EQ(Eigen::Vector3i(4, 3, 2), frame.dimensions());
    ASSERT_EQ(PixelType::UChar, frame.pixelType());
    EXPECT_LT((frame.pixelToWorld({0, 0, 0}) - Eigen::Vector3d(10, -20, 30)).norm(), 1e-9);
    // The direction is symmetric, so its rows and columns agree: x runs along world y.
    EXPECT_LT((frame.pixelToWorld({1, 0, 0}) - Eigen::Vector3d(10, -19.5, 30)).norm(), 1e-9);
    EXPECT_LT((frame.pixelToWorld({0, 1, 0}) - Eigen::Vector3d(12, -20, 30)).norm(), 1e-9);
    EXPECT_LT((frame.pixelToWorld({0, 0, 1}) - Eigen::Vector3d(10, -20, 27)).norm(), 1e-9);
    auto const* values = static_cast<unsigned char const*>(frame.mem()->data());
    EXPECT_EQ(0, values[0]);
    EXPECT_EQ(23, values[23]);
}

// ---------------------------------------------------------------------------------------------
// Failures name the file, in ImageFiles and in the FileLoader above it.

struct BadFile
{
    std::string name;
    std::string content;      // empty: the file is not created
    std::string readReason;   // what ImageFiles::read says
    std::string loaderReason; // what IO::FileLoader::load says
};

class ImageFilesBadInput : public ::testing::TestWithParam<BadFile>, protected TempFolder
{};

TEST_P(ImageFilesBadInput, ReadGivesNullLoadAnEmptyListAndBothNameFileAndReason)
{
    BadFile const& c = GetParam();
    ImageFiles::registerIoAlgorithms();
    std::string const path = c.content.empty() ? file(c.name) : writeBytes(c.name, c.content);
    Log::Capture capture;
    EXPECT_EQ(nullptr, ImageFiles::read(path));
    EXPECT_TRUE(capture.containsFragment("Could not read image file '" + path + "': " + c.readReason));
    EXPECT_TRUE(IO::FileLoader::load(path).empty());
    EXPECT_TRUE(capture.contains("Could not load '" + path + "': " + c.loaderReason, "Host.FileLoader"))
        << ::testing::PrintToString(capture.messages());
}

INSTANTIATE_TEST_SUITE_P(
    Files, ImageFilesBadInput,
    ::testing::Values(
        BadFile{"missing.nii.gz", "", "the file does not exist", "the path does not exist"},
        BadFile{"garbage.txt", "this is not an image", "no image reader recognises the file",
                "no IO algorithm can load it"},
        BadFile{"garbage.nrrd", "NRRD0004\ntype: float\n", "", "IO.NrrdIo failed with status Error"},
        BadFile{"broken.dcm", "not really", "", "DICOM.DicomIOAlgorithmFile failed with status Error"},
        BadFile{"wide.mha",
                "ObjectType = Image\nNDims = 3\nBinaryData = True\nBinaryDataByteOrderMSB = False\n"
                "DimSize = 4 3 2\nElementType = MET_LONG_LONG\nElementDataFile = LOCAL\n" +
                    std::string(192, '\0'),
                "unsupported pixel component type", "IO.MetaImageIo failed with status Error"}),
    [](auto const& info) {
        std::string name = info.param.name;
        std::replace(name.begin(), name.end(), '.', '_');
        return name;
    });

// A NIfTI file the reader would read wrongly without a word is refused: cut off (plain, gzip,
// the .img of a pair) or with a voxel spacing of 0 or NaN (which the reader makes 1 mm).
class NiftiDamage : public ::testing::Test, protected TempFolder
{
protected:
    std::string bytesOf(std::string const& path) const
    {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    // Writes a sound 8x6x4 float volume as `name` and gives the bytes of the file (of the .img
    // for a pair).
    std::string writeSound(std::string const& name)
    {
        auto const frame = IoTest::patternFrame<float>({8, 6, 4}, 1, IoTest::obliqueMatrix());
        EXPECT_TRUE(ImageFiles::write(SharedImageSet(frame), file(name)));
        EXPECT_TRUE(ImageFiles::read(file(name))) << name << " must read before it is damaged";
        return bytesOf(file(name));
    }

    void expectRefused(std::string const& name, std::string const& reason)
    {
        Log::Capture capture;
        EXPECT_EQ(nullptr, ImageFiles::read(file(name)));
        EXPECT_TRUE(capture.containsFragment("Could not read image file '" + file(name) + "': "));
        EXPECT_TRUE(capture.containsFragment(reason)) << ::testing::PrintToString(capture.messages());
    }
};

TEST_F(NiftiDamage, CutOffFilesAndSpacingsOfZeroOrNaNAreRefused)
{
    std::string const plain = writeSound("cut.nii");
    writeBytes("cut.nii", plain.substr(0, plain.size() - 10));
    expectRefused("cut.nii", "it holds " + std::to_string(plain.size() - 10) +
                                 " bytes but its header describes " + std::to_string(plain.size()) +
                                 " (768 bytes of voxels after 352 bytes of header)");

    std::string const packed = writeSound("cut.nii.gz");
    writeBytes("cut.nii.gz", packed.substr(0, packed.size() / 2));
    expectRefused("cut.nii.gz", "bytes but its header describes 1120");

    writeSound("pair.hdr");
    std::string const voxels = bytesOf(file("pair.img"));
    ASSERT_EQ(voxels.size(), 768U);
    writeBytes("pair.img", voxels.substr(0, 700));
    expectRefused("pair.hdr", "it holds 700 bytes in '" + file("pair.img") + "'");

    // pixdim[2] (y) is the float at byte 84 of a NIfTI-1 header.
    for (float const spacing : {0.0F, std::numeric_limits<float>::quiet_NaN()}) {
        std::string damaged = plain;
        std::memcpy(damaged.data() + 84, &spacing, sizeof spacing);
        writeBytes("spacing.nii", damaged);
        expectRefused("spacing.nii", "the voxel spacing of axis y (pixdim[2]) is " +
                                         std::string(spacing == 0.0F ? "0" : "nan"));
    }
}

// ---------------------------------------------------------------------------------------------

class ImageFilesWrite : public ::testing::Test, protected TempFolder
{};

TEST_F(ImageFilesWrite, ShiftAndScaleAreAppliedSoTheFileHoldsOriginalIntensities)
{
    auto frame = IoTest::patternFrame<unsigned char>({3, 2, 2}, 1, IoTest::obliqueMatrix());
    frame->mem()->setShiftScale(10.0, 2.0);
    std::string const path = file("scaled.nrrd");
    ASSERT_TRUE(ImageFiles::write(SharedImageSet(frame), path));
    auto read = ImageFiles::read(path);
    ASSERT_TRUE(read);
    ASSERT_EQ(PixelType::Float, read->get(0)->pixelType());
    auto const* stored = static_cast<unsigned char const*>(frame->mem()->data());
    auto const* written = static_cast<float const*>(read->get(0)->mem()->data());
    for (std::size_t i = 0; i < frame->mem()->valueCount(); ++i)
        EXPECT_FLOAT_EQ(static_cast<float>(stored[i] / 2.0 - 10.0), written[i]) << i;
}

// A write that cannot succeed says why, naming the path, and leaves what was there (a folder of
// the target's name stays a folder; no temporary file stays behind).
TEST_F(ImageFilesWrite, UnusableTargetsAreRefusedNamingTheReason)
{
    SharedImageSet const set(IoTest::patternFrame<float>({3, 2, 2}, 1, IoTest::obliqueMatrix()));
    writeBytes("plain.txt", "a file, not a folder");
    std::filesystem::create_directory(file("taken.nii"));
    struct Case
    {
        std::string path;
        std::string reason;
    };
    Case const cases[] = {
        {file("absent/out.nii"), "the folder '" + file("absent") + "' does not exist"},
        {file("plain.txt/out.nrrd"), "'" + file("plain.txt") + "' is not a folder"},
        {file("taken.nii"), "a folder of that name exists"},
        {file("absent/pair.mhd"), "the folder '" + file("absent") + "' does not exist"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.path);
        Log::Capture capture;
        EXPECT_FALSE(ImageFiles::write(set, c.path));
        EXPECT_TRUE(capture.containsFragment("Could not write image file '" + c.path + "': " + c.reason))
            << ::testing::PrintToString(capture.messages());
    }
    EXPECT_TRUE(std::filesystem::is_directory(file("taken.nii")));
    for (auto const& entry : std::filesystem::directory_iterator(file("")))
        EXPECT_EQ(entry.path().filename().string().find(".writing-"), std::string::npos) << entry.path();
}

TEST_F(ImageFilesWrite, RefusesEmptySetsAndFramesOnDifferentGrids)
{
    Log::Capture capture;
    EXPECT_FALSE(ImageFiles::write(SharedImageSet(), file("empty.nrrd")));
    EXPECT_TRUE(capture.containsFragment("Could not write image file '" + file("empty.nrrd") +
                                         "': the image set has no frames"));

    SharedImageSet mixed(IoTest::patternFrame<float>({4, 3, 2}, 1, IoTest::obliqueMatrix()));
    ASSERT_TRUE(mixed.add(IoTest::patternFrame<float>({4, 3, 2}, 1, Eigen::Matrix4d::Identity())));
    EXPECT_FALSE(ImageFiles::write(mixed, file("mixed.nrrd")));
    EXPECT_TRUE(capture.containsFragment("'" + file("mixed.nrrd") + "': frame 1 differs from frame 0"));
    EXPECT_FALSE(IoTest::fs::exists(file("mixed.nrrd")));
}

TEST_F(ImageFilesWrite, PlanarImagesStayTwoDimensionalAndTiltedOnesKeepTheirPlacement)
{
    for (bool const tilted : {false, true}) {
        SCOPED_TRACE(tilted);
        Eigen::Affine3d const inPlane =
            Eigen::Translation3d(3.0, -2.0, 0.0) * Eigen::AngleAxisd(0.3, Eigen::Vector3d::UnitZ());
        auto frame =
            IoTest::patternFrame<short>({6, 5, 1}, 1, tilted ? IoTest::obliqueMatrix() : inPlane.matrix());
        std::string const path = file(tilted ? "tilted.nrrd" : "planar.nrrd");
        ASSERT_TRUE(ImageFiles::write(SharedImageSet(frame), path));
        std::ifstream in(path);
        std::string const header((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_NE(std::string::npos, header.find(tilted ? "dimension: 3" : "dimension: 2"));
        auto read = ImageFiles::read(path);
        ASSERT_TRUE(read);
        IoTest::expectSameFrame(*frame, *read->get(0));
    }
}

} // namespace
} // namespace Velmoria

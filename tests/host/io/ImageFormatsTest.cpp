// PNG, TIFF, JPEG and DICOM files: every shape the format table says a format holds is written
// and read back with its values (and, for DICOM, its placement); every shape it refuses is
// refused with the file and the value named and no file left behind. DICOM recognition by name
// and by magic, and file names.

#include "tests/host/io/IoTestHelpers.h"

#include "host/core/Log.h"
#include "host/data/Data.h"
#include "host/image/SharedImageSet.h"
#include "host/io/ImageFiles.h"
#include "host/io/ImageFormat.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

namespace Velmoria {
namespace {

using ImageFiles::ImageFormat;
using IoTest::TempFolder;

struct FormatCase
{
    ImageFormat format;
    std::string extension;
    bool lossy;          // JPEG: values come back close, not equal
    bool keepsPlacement; // origin and direction survive (DICOM)
};

std::string caseName(FormatCase const& c)
{
    return ImageFiles::formatName(c.format);
}

class ImageFormatShapes : public ::testing::TestWithParam<FormatCase>, protected TempFolder
{
protected:
    // Writes a frame of this shape; checks that the file and the table agree.
    void roundTrip(PixelType type, int channels, int slices)
    {
        FormatCase const& c = GetParam();
        SCOPED_TRACE(std::string(pixelTypeName(type)) + " x" + std::to_string(channels) + ", " +
                     std::to_string(slices) + " slice(s)");
        Eigen::Vector3i const size(7, 5, slices);
        std::shared_ptr<SharedImage> frame = visitPixelType(type, [&](auto tag) {
            return IoTest::patternFrame<decltype(tag)>(size, channels, IoTest::obliqueMatrix());
        });
        if (c.lossy && type == PixelType::UChar) {
            // JPEG keeps smooth pictures, not noise: a gradient per channel, each its own, so
            // that swapped channels would show.
            auto* values = static_cast<unsigned char*>(frame->mem()->data());
            for (int y = 0; y < size.y(); ++y)
                for (int x = 0; x < size.x(); ++x)
                    for (int ch = 0; ch < channels; ++ch)
                        values[(y * size.x() + x) * channels + ch] =
                            static_cast<unsigned char>(40 + 60 * ch + 8 * x + 5 * y);
        }
        std::string const path = file("image_" + std::string(pixelTypeName(type)) + "_" +
                                      std::to_string(channels) + "_" + std::to_string(slices) + c.extension);
        std::string const why = ImageFiles::whyNotWritable(c.format, type, channels, slices, 1);

        Log::Capture capture;
        bool const written = ImageFiles::write(SharedImageSet(frame), path);
        if (!why.empty()) {
            EXPECT_FALSE(written);
            EXPECT_TRUE(
                capture.contains("Could not write image file '" + path + "': " + why, "Host.ImageFiles"))
                << ::testing::PrintToString(capture.messages());
            EXPECT_FALSE(IoTest::fs::exists(path));
            return;
        }
        ASSERT_TRUE(written) << ::testing::PrintToString(capture.messages());
        auto read = ImageFiles::read(path);
        ASSERT_TRUE(read) << ::testing::PrintToString(capture.messages());
        ASSERT_EQ(1, read->size());
        SharedImage const& back = *read->get(0);
        ASSERT_EQ(type, back.pixelType());
        ASSERT_EQ(size, back.dimensions());
        ASSERT_EQ(channels, back.channels());
        if (c.lossy) {
            auto const* a = static_cast<unsigned char const*>(frame->mem()->data());
            auto const* b = static_cast<unsigned char const*>(back.mem()->data());
            double error = 0.0;
            for (std::size_t i = 0; i < frame->mem()->valueCount(); ++i)
                error += std::abs(double(a[i]) - double(b[i]));
            // A JPEG of a smooth picture stays within a few grey levels on average.
            EXPECT_LT(error / static_cast<double>(frame->mem()->valueCount()), 4.0);
        } else {
            EXPECT_EQ(0, std::memcmp(frame->mem()->data(), back.mem()->data(), frame->mem()->byteSize()));
        }
        if (c.keepsPlacement) {
            for (Eigen::Vector3d const& p : IoTest::corners(size))
                EXPECT_LT((frame->pixelToWorld(p) - back.pixelToWorld(p)).norm(), 1e-4) << p.transpose();
        } else {
            for (int axis = 0; axis < 2; ++axis)
                EXPECT_NEAR(frame->spacing()[axis], back.spacing()[axis], 1e-2) << "axis " << axis;
        }
    }
};

TEST_P(ImageFormatShapes, WhatTheTableAllowsSurvivesAndTheRestIsRefusedByName)
{
    for (PixelType type : {PixelType::Char, PixelType::UChar, PixelType::Short, PixelType::UShort,
                           PixelType::Int, PixelType::UInt, PixelType::Float, PixelType::Double})
        for (int channels : {1, 3, 4})
            for (int slices : {1, 3})
                roundTrip(type, channels, slices);
}

TEST_P(ImageFormatShapes, SeveralFramesAreRefused)
{
    FormatCase const& c = GetParam();
    SharedImageSet set;
    for (int f = 0; f < 2; ++f)
        ASSERT_TRUE(set.add(IoTest::patternFrame<unsigned char>({4, 4, 1}, 1, Eigen::Matrix4d::Identity())));
    std::string const path = file("frames" + c.extension);
    Log::Capture capture;
    EXPECT_FALSE(ImageFiles::write(set, path));
    EXPECT_TRUE(capture.contains("Could not write image file '" + path + "': " +
                                 ImageFiles::formatName(c.format) + " holds one image, not 2 frames"));
}

INSTANTIATE_TEST_SUITE_P(Formats, ImageFormatShapes,
                         ::testing::Values(FormatCase{ImageFormat::Png, ".png", false, false},
                                           FormatCase{ImageFormat::Tiff, ".tif", false, false},
                                           FormatCase{ImageFormat::Jpeg, ".jpg", true, false},
                                           FormatCase{ImageFormat::Dicom, ".dcm", false, true}),
                         [](auto const& info) { return caseName(info.param); });

// ---------------------------------------------------------------------------------------------
// The table itself: names, patterns and the messages callers see.

struct PathCase
{
    std::string path;
    std::optional<ImageFormat> format;
    std::string stem;
};

class ImageFormatPaths : public ::testing::TestWithParam<PathCase>
{};

TEST_P(ImageFormatPaths, FormatAndStemFollowTheFileName)
{
    EXPECT_EQ(GetParam().format, ImageFiles::formatFromPath(GetParam().path));
    EXPECT_EQ(GetParam().stem, ImageFiles::fileStem(GetParam().path));
}

INSTANTIATE_TEST_SUITE_P(Names, ImageFormatPaths,
                         ::testing::Values(PathCase{"/data/scan.nii.gz", ImageFormat::Nifti, "scan"},
                                           PathCase{"scan.NII", ImageFormat::Nifti, "scan"},
                                           PathCase{"a/b.nhdr", ImageFormat::Nrrd, "b"},
                                           PathCase{"x.mhd", ImageFormat::MetaImage, "x"},
                                           PathCase{"photo.JPEG", ImageFormat::Jpeg, "photo"},
                                           PathCase{"slide.tiff", ImageFormat::Tiff, "slide"},
                                           PathCase{"ct.dcm", ImageFormat::Dicom, "ct"},
                                           PathCase{"notes.txt", std::nullopt, "notes.txt"},
                                           PathCase{"DICOMDIR", std::nullopt, "DICOMDIR"}));

TEST(ImageFormatLimits, MessagesNameTheValueAtFault)
{
    EXPECT_EQ("pixel type 'float' cannot be stored in JPEG (uint8 only)",
              ImageFiles::whyNotWritable(ImageFormat::Jpeg, PixelType::Float, 1, 1, 1));
    EXPECT_EQ("JPEG holds 2D images only, not 4 slices",
              ImageFiles::whyNotWritable(ImageFormat::Jpeg, PixelType::UChar, 1, 4, 1));
    EXPECT_EQ("2 channels cannot be stored in JPEG",
              ImageFiles::whyNotWritable(ImageFormat::Jpeg, PixelType::UChar, 2, 1, 1));
    EXPECT_EQ("", ImageFiles::whyNotWritable(ImageFormat::Nifti, PixelType::Double, 7, 9, 3));
}

// ---------------------------------------------------------------------------------------------
// DICOM specifics.

class DicomFiles : public ::testing::Test, protected TempFolder
{};

TEST_F(DicomFiles, RecognisedByExtensionOrByTheMagicAfterThePreamble)
{
    std::string const magic = std::string(128, '\0') + "DICM" + std::string(16, 'x');
    EXPECT_TRUE(ImageFiles::isDicomFile(writeBytes("IM0001", magic)));
    EXPECT_TRUE(ImageFiles::isDicomFile(writeBytes("named.dcm", "anything")));
    EXPECT_FALSE(ImageFiles::isDicomFile(writeBytes("early", "DICM" + std::string(200, '\0'))));
    EXPECT_FALSE(ImageFiles::isDicomFile(writeBytes("short", std::string(130, '\0'))));
    EXPECT_FALSE(ImageFiles::isDicomFile(file("absent.dcm")));
    IoTest::fs::create_directories(file("series"));
    EXPECT_FALSE(ImageFiles::isDicomFolder(file("series")));
    writeBytes("series/slice", magic);
    EXPECT_TRUE(ImageFiles::isDicomFolder(file("series")));
    EXPECT_FALSE(ImageFiles::isDicomFolder(file("series/slice")));
}

TEST_F(DicomFiles, AFolderWithoutDicomFilesIsNoSeries)
{
    writeBytes("readme.txt", "no images here");
    Log::Capture capture;
    EXPECT_FALSE(ImageFiles::read(folder()));
    EXPECT_TRUE(capture.contains("Could not read image file '" + folder() +
                                 "': no DICOM image series in the folder"));
}

TEST_F(DicomFiles, AVolumeIsWrittenAsOneMultiFrameFile)
{
    auto frame = IoTest::patternFrame<short>({6, 5, 4}, 1, IoTest::obliqueMatrix(), {0.5, 0.75, 3.0});
    std::string const path = file("volume.dcm");
    ASSERT_TRUE(ImageFiles::write(SharedImageSet(frame), path));
    EXPECT_TRUE(ImageFiles::isDicomFile(path));
    auto read = ImageFiles::read(path);
    ASSERT_TRUE(read);
    EXPECT_EQ("volume", read->name());
    ASSERT_EQ(Eigen::Vector3i(6, 5, 4), read->get(0)->dimensions());
    EXPECT_NEAR(3.0, read->get(0)->spacing().z(), 1e-4);
    EXPECT_EQ(1, std::distance(IoTest::fs::directory_iterator(folder()), IoTest::fs::directory_iterator()));
}

} // namespace
} // namespace Velmoria

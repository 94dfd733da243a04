// Image files through ITK: pixel values and the voxel-to-world mapping survive a write and a
// read for every pixel type and format, the centre-origin convention matches ITK's first-voxel
// origin, 4D files become frames, and bad files give null with a log line naming the file.

#include "host/io/ImageFiles.h"

#include "host/core/Log.h"
#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <Eigen/Geometry>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

namespace Velmoria {
namespace {

namespace fs = std::filesystem;

// A folder of its own per test, removed afterwards.
class ImageFilesFixture
{
protected:
    ImageFilesFixture()
        : m_folder(fs::temp_directory_path() /
                   ("velmoria_io_" + std::to_string(::getpid()) + "_" +
                    ::testing::UnitTest::GetInstance()->current_test_info()->name()))
    {
        fs::remove_all(m_folder);
        fs::create_directories(m_folder);
    }
    ~ImageFilesFixture() { fs::remove_all(m_folder); }
    std::string file(std::string const& name) const { return (m_folder / name).string(); }

    fs::path m_folder;
};

// Oblique: turned about a skew axis, then moved away from the origin.
Eigen::Matrix4d obliqueMatrix()
{
    Eigen::Affine3d const t = Eigen::Translation3d(-12.5, 40.25, 7.0) *
                              Eigen::AngleAxisd(0.4, Eigen::Vector3d(1.0, 2.0, 3.0).normalized());
    return t.matrix();
}

// Values that use the type's range: negatives for signed types, the extremes included.
template <class T>
std::shared_ptr<SharedImage> obliqueFrame(Eigen::Vector3i const& size, int channels, int seed = 0)
{
    auto pixels = TypedImage<T>::zeros(size, channels);
    T* values = pixels->pointer();
    for (std::size_t i = 0; i < pixels->valueCount(); ++i)
        values[i] = static_cast<T>(static_cast<double>((static_cast<int>(i) * 7 + seed) % 101) -
                                   50.0 * (std::numeric_limits<T>::is_signed ? 1 : 0));
    values[0] = std::numeric_limits<T>::lowest();
    values[1] = std::numeric_limits<T>::max();
    pixels->setSpacing(Eigen::Vector3d(0.7, 1.1, 2.5), true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(obliqueMatrix());
    return frame;
}

std::vector<Eigen::Vector3d> corners(Eigen::Vector3i const& size)
{
    std::vector<Eigen::Vector3d> result;
    for (int i = 0; i < 8; ++i)
        result.emplace_back((i & 1) ? size.x() - 1 : 0, (i & 2) ? size.y() - 1 : 0,
                            (i & 4) ? size.z() - 1 : 0);
    return result;
}

void expectSameFrame(SharedImage const& expected, SharedImage const& actual)
{
    ASSERT_EQ(expected.pixelType(), actual.pixelType());
    ASSERT_EQ(expected.dimensions(), actual.dimensions());
    ASSERT_EQ(expected.channels(), actual.channels());
    // A 2D file has no spacing across its plane; only axes with pixels along them count.
    for (int axis = 0; axis < 3; ++axis) {
        if (expected.dimensions()[axis] > 1) {
            EXPECT_NEAR(expected.spacing()[axis], actual.spacing()[axis], 1e-6) << "axis " << axis;
        }
    }
    EXPECT_EQ(0, std::memcmp(expected.mem()->data(), actual.mem()->data(), expected.mem()->byteSize()));
    for (Eigen::Vector3d const& corner : corners(expected.dimensions()))
        EXPECT_LT((expected.pixelToWorld(corner) - actual.pixelToWorld(corner)).norm(), 1e-5)
            << "corner " << corner.transpose();
}

// ---------------------------------------------------------------------------------------------
// Round trips, every pixel type through every format.

template <class T>
class ImageFilesRoundTrip : public ::testing::Test, protected ImageFilesFixture
{};
using PixelTypes =
    ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;
TYPED_TEST_SUITE(ImageFilesRoundTrip, PixelTypes);

TYPED_TEST(ImageFilesRoundTrip, ValuesAndPlacementSurviveEveryFormat)
{
    for (std::string const extension : {".nii.gz", ".nrrd", ".mha"}) {
        SCOPED_TRACE(extension);
        SharedImageSet original(obliqueFrame<TypeParam>({5, 4, 3}, 3));
        std::string const path = this->file("volume" + extension);
        ASSERT_TRUE(ImageFiles::write(original, path));
        auto read = ImageFiles::read(path);
        ASSERT_TRUE(read);
        ASSERT_EQ(1, read->size());
        EXPECT_EQ("volume", read->name());
        expectSameFrame(*original.get(0), *read->get(0));
    }
}

TYPED_TEST(ImageFilesRoundTrip, SeveralFramesBecomeOneFourDimensionalFileAndComeBackAsFrames)
{
    for (std::string const extension : {".nii.gz", ".nrrd", ".mha"}) {
        SCOPED_TRACE(extension);
        SharedImageSet original;
        for (int f = 0; f < 3; ++f)
            ASSERT_TRUE(original.add(obliqueFrame<TypeParam>({4, 3, 2}, 2, f * 13)));
        std::string const path = this->file("series" + extension);
        ASSERT_TRUE(ImageFiles::write(original, path));
        auto read = ImageFiles::read(path);
        ASSERT_TRUE(read);
        ASSERT_EQ(3, read->size());
        for (int f = 0; f < 3; ++f) {
            SCOPED_TRACE(f);
            expectSameFrame(*original.get(f), *read->get(f));
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

    auto frame =
        std::make_shared<SharedImage>(std::shared_ptr<Image>(TypedImage<float>::zeros(c.dimensions, 1)));
    frame->setSpacing(c.spacing);
    frame->setMatrixToWorld(c.matrix);
    // ITK: physical point of index p = origin + direction · (p ∘ spacing).
    for (Eigen::Vector3d const& p : corners(c.dimensions)) {
        Eigen::Vector3d const itkPoint =
            file.origin + file.direction * (p.array() * c.spacing.array()).matrix();
        EXPECT_LT((frame->pixelToWorld(p) - itkPoint).norm(), 1e-9) << p.transpose();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Grids, ImageFilesGeometry,
    ::testing::Values(GeometryCase{{5, 4, 3}, {0.7, 1.1, 2.5}, obliqueMatrix()},
                      GeometryCase{{1, 1, 1}, {1.0, 1.0, 1.0}, Eigen::Matrix4d::Identity()},
                      GeometryCase{{256, 1, 1}, {0.25, 3.0, 1.0}, obliqueMatrix()},
                      GeometryCase{{8, 9, 1}, {2.0, 0.5, 4.0}, Eigen::Matrix4d::Identity()}));

// ---------------------------------------------------------------------------------------------
// Files written by hand, so that the expected world positions do not come from our own writer.

class ImageFilesHandWritten : public ::testing::Test, protected ImageFilesFixture
{
protected:
    // A MetaImage with an inline header and 4 × 3 × 2 bytes 0, 1, 2, ...
    std::string writeMetaImage(std::string const& name, std::string const& elementType, int bytesPerValue)
    {
        std::string const path = file(name);
        std::ofstream out(path, std::ios::binary);
        out << "ObjectType = Image\nNDims = 3\nBinaryData = True\nBinaryDataByteOrderMSB = False\n"
               "Offset = 10 -20 30\nTransformMatrix = 0 1 0 1 0 0 0 0 -1\n"
               "ElementSpacing = 0.5 2 3\nDimSize = 4 3 2\nElementType = "
            << elementType << "\nElementDataFile = LOCAL\n";
        for (int i = 0; i < 24 * bytesPerValue; ++i)
            out.put(static_cast<char>(bytesPerValue == 1 ? i : 0));
        return path;
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

TEST_F(ImageFilesHandWritten, SixtyFourBitIntegersAreRefusedWithTheTypeNamed)
{
    std::string const path = writeMetaImage("wide.mha", "MET_LONG_LONG", 8);
    Log::Capture capture;
    EXPECT_FALSE(ImageFiles::read(path));
    EXPECT_TRUE(capture.containsFragment("Could not read image file '" + path +
                                         "': unsupported pixel component type"));
}

// ---------------------------------------------------------------------------------------------
// Failures name the file.

struct BadFile
{
    std::string name;
    std::string content; // empty: the file is not created
    std::string reason;
};

class ImageFilesBadInput : public ::testing::TestWithParam<BadFile>, protected ImageFilesFixture
{};

TEST_P(ImageFilesBadInput, ReadGivesNullAndLogsFileAndReason)
{
    std::string const path = file(GetParam().name);
    if (!GetParam().content.empty())
        std::ofstream(path, std::ios::binary) << GetParam().content;
    Log::Capture capture;
    EXPECT_EQ(nullptr, ImageFiles::read(path));
    EXPECT_TRUE(capture.containsFragment("Could not read image file '" + path + "': " + GetParam().reason));
}

INSTANTIATE_TEST_SUITE_P(Files, ImageFilesBadInput,
                         ::testing::Values(BadFile{"missing.nii.gz", "", "the file does not exist"},
                                           BadFile{"garbage.xyz", "this is not an image",
                                                   "no image reader recognises the file"},
                                           BadFile{"garbage.nrrd", "NRRD0004\ntype: float\n", ""}),
                         [](auto const& info) {
                             return info.param.name.substr(0, info.param.name.find('.')) +
                                    std::to_string(info.index);
                         });

class ImageFilesWrite : public ::testing::Test, protected ImageFilesFixture
{};

TEST_F(ImageFilesWrite, ShiftAndScaleAreAppliedSoTheFileHoldsOriginalIntensities)
{
    auto frame = obliqueFrame<unsigned char>({3, 2, 2}, 1);
    frame->mem()->setShiftScale(10.0, 2.0);
    SharedImageSet original(frame);
    std::string const path = file("scaled.nrrd");
    ASSERT_TRUE(ImageFiles::write(original, path));
    auto read = ImageFiles::read(path);
    ASSERT_TRUE(read);
    ASSERT_EQ(PixelType::Float, read->get(0)->pixelType());
    auto const* stored = static_cast<unsigned char const*>(frame->mem()->data());
    auto const* written = static_cast<float const*>(read->get(0)->mem()->data());
    for (std::size_t i = 0; i < frame->mem()->valueCount(); ++i)
        EXPECT_FLOAT_EQ(static_cast<float>(stored[i] / 2.0 - 10.0), written[i]) << i;
}

TEST_F(ImageFilesWrite, RefusesEmptySetsAndFramesOnDifferentGrids)
{
    Log::Capture capture;
    EXPECT_FALSE(ImageFiles::write(SharedImageSet(), file("empty.nrrd")));
    EXPECT_TRUE(capture.containsFragment("Could not write image file '" + file("empty.nrrd") +
                                         "': the image set has no frames"));

    SharedImageSet mixed(obliqueFrame<float>({4, 3, 2}, 1));
    auto moved = obliqueFrame<float>({4, 3, 2}, 1);
    moved->setMatrixToWorld(Eigen::Matrix4d::Identity());
    ASSERT_TRUE(mixed.add(moved));
    EXPECT_FALSE(ImageFiles::write(mixed, file("mixed.nrrd")));
    EXPECT_TRUE(capture.containsFragment("'" + file("mixed.nrrd") + "': frame 1 differs from frame 0"));
    EXPECT_FALSE(fs::exists(file("mixed.nrrd")));
}

TEST_F(ImageFilesWrite, PlanarImagesStayTwoDimensionalAndTiltedOnesKeepTheirPlacement)
{
    for (bool const tilted : {false, true}) {
        SCOPED_TRACE(tilted);
        auto frame = obliqueFrame<short>({6, 5, 1}, 1);
        Eigen::Affine3d const inPlane =
            Eigen::Translation3d(3.0, -2.0, 0.0) * Eigen::AngleAxisd(0.3, Eigen::Vector3d::UnitZ());
        frame->setMatrixToWorld(tilted ? obliqueMatrix() : inPlane.matrix());
        std::string const path = file(tilted ? "tilted.nrrd" : "planar.nrrd");
        ASSERT_TRUE(ImageFiles::write(SharedImageSet(frame), path));
        std::ifstream in(path);
        std::string const header((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_NE(std::string::npos, header.find(tilted ? "dimension: 3" : "dimension: 2"));
        auto read = ImageFiles::read(path);
        ASSERT_TRUE(read);
        expectSameFrame(*frame, *read->get(0));
    }
}

} // namespace
} // namespace Velmoria

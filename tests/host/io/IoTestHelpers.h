#pragma once

// Helpers shared by the image file tests: a scratch folder per test, frames with known values
// and placement, and the reference reader script (reference_geometry.py beside this file) run
// through Debian's /usr/bin/python3.

#include "host/image/SharedImage.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <Eigen/Geometry>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string>

namespace Velmoria::IoTest {

namespace fs = std::filesystem;

// A folder of its own per test, removed afterwards.
class TempFolder
{
public:
    TempFolder()
        : m_folder(fs::temp_directory_path() /
                   ("velmoria_io_" + std::to_string(::getpid()) + "_" +
                    ::testing::UnitTest::GetInstance()->current_test_info()->test_suite_name() + "_" +
                    ::testing::UnitTest::GetInstance()->current_test_info()->name()))
    {
        // Parametrised names hold '/'; keep one level.
        std::string name = m_folder.filename().string();
        for (char& c : name)
            if (c == '/')
                c = '_';
        m_folder = m_folder.parent_path() / name;
        fs::remove_all(m_folder);
        fs::create_directories(m_folder);
    }
    ~TempFolder() { fs::remove_all(m_folder); }
    std::string file(std::string const& name) const { return (m_folder / name).string(); }
    std::string folder() const { return m_folder.string(); }
    // Writes `bytes` into the file `name` of the folder; its path.
    std::string writeBytes(std::string const& name, std::string const& bytes) const
    {
        std::ofstream(file(name), std::ios::binary) << bytes;
        return file(name);
    }

private:
    fs::path m_folder;
};

// Turned about a skew axis, then moved away from the origin.
inline Eigen::Matrix4d obliqueMatrix()
{
    Eigen::Affine3d const t = Eigen::Translation3d(-12.5, 40.25, 7.0) *
                              Eigen::AngleAxisd(0.4, Eigen::Vector3d(1.0, 2.0, 3.0).normalized());
    return t.matrix();
}

// Values spread over the type's range (negative ones for signed types), the extremes included;
// frames of another `seed` hold other values.
template <class T>
std::shared_ptr<SharedImage> patternFrame(Eigen::Vector3i const& size, int channels,
                                          Eigen::Matrix4d const& matrix,
                                          Eigen::Vector3d const& spacing = {0.7, 1.1, 2.5}, int seed = 0)
{
    auto pixels = TypedImage<T>::zeros(size, channels);
    T* values = pixels->pointer();
    for (std::size_t i = 0; i < pixels->valueCount(); ++i)
        values[i] = static_cast<T>(static_cast<double>((static_cast<int>(i) * 37 + seed) % 251) -
                                   100.0 * (std::numeric_limits<T>::is_signed ? 1 : 0));
    if (pixels->valueCount() > 2) {
        values[0] = std::numeric_limits<T>::lowest();
        values[1] = std::numeric_limits<T>::max();
    }
    pixels->setSpacing(spacing, true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(matrix);
    return frame;
}

inline std::array<Eigen::Vector3d, 8> corners(Eigen::Vector3i const& size)
{
    std::array<Eigen::Vector3d, 8> result;
    for (int i = 0; i < 8; ++i)
        result[static_cast<std::size_t>(i)] = Eigen::Vector3d(
            (i & 1) ? size.x() - 1 : 0, (i & 2) ? size.y() - 1 : 0, (i & 4) ? size.z() - 1 : 0);
    return result;
}

// Same type, size, channels and values, the same spacing along every axis with pixels along it
// (a 2D file has none across its plane), and every corner at the same world position.
inline void expectSameFrame(SharedImage const& expected, SharedImage const& actual)
{
    ASSERT_EQ(expected.pixelType(), actual.pixelType());
    ASSERT_EQ(expected.dimensions(), actual.dimensions());
    ASSERT_EQ(expected.channels(), actual.channels());
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

// The interpreter with Debian's nibabel and pydicom (the `python3` on PATH may be another).
constexpr char const* kPython = "/usr/bin/python3";

inline std::string referenceScript()
{
    return (fs::path(__FILE__).parent_path() / "reference_geometry.py").string();
}

// Runs the reference script with `arguments`; the JSON it prints, or a null value with the
// reason in `why`.
inline nlohmann::json runReference(std::string const& arguments, std::string& why)
{
    if (!fs::exists(kPython)) {
        why = std::string(kPython) + " is missing: install python3, python3-nibabel and python3-pydicom "
                                     "(scripts/bootstrap installs them)";
        return nullptr;
    }
    std::string const command = std::string(kPython) + " '" + referenceScript() + "' " + arguments + " 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) {
        why = "cannot run " + command;
        return nullptr;
    }
    std::string output;
    std::array<char, 4096> chunk{};
    while (std::size_t const n = std::fread(chunk.data(), 1, chunk.size(), pipe))
        output.append(chunk.data(), n);
    int const status = ::pclose(pipe);
    if (status != 0) {
        why = command + " failed: " + output;
        return nullptr;
    }
    nlohmann::json result = nlohmann::json::parse(output, nullptr, false);
    if (result.is_discarded())
        why = command + " printed no JSON: " + output;
    return result;
}

} // namespace Velmoria::IoTest

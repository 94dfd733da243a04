#pragma once

// Builders shared by the patch splitting and recombination tests: typed frames on an obliquely
// turned, moved grid with anisotropic spacing (so that every geometry mistake shows in world
// positions), reproducible random contents, and the world position of a voxel computed from the
// convention (pixel p at (p - (dim - 1) / 2) * spacing in image millimetres, then matrixToWorld)
// rather than by the code under test.

#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <Eigen/Geometry>
#include <cstddef>
#include <memory>
#include <random>

namespace Velmoria::MLTest {

inline Eigen::Vector3d const kPatchSpacing(0.7, 1.3, 2.5);

inline Eigen::Matrix4d patchTestMatrix()
{
    Eigen::Affine3d const t = Eigen::Translation3d(-4.0, 7.5, 12.0) *
                              Eigen::AngleAxisd(0.6, Eigen::Vector3d(1.0, 2.0, 3.0).normalized());
    return t.matrix();
}

// A frame of type T whose value i (interleaved) is value(i).
template <class T, class Function>
std::shared_ptr<SharedImage> patchTestFrame(Eigen::Vector3i const& dims, int channels, Function value)
{
    auto pixels = TypedImage<T>::zeros(dims, channels);
    for (std::size_t i = 0; i < pixels->valueCount(); ++i)
        pixels->setValue(static_cast<T>(value(i)), i);
    pixels->setSpacing(kPatchSpacing, true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(patchTestMatrix());
    return frame;
}

// Random integers in [low, high] (exact in every pixel type that holds them), fixed seed.
template <class T>
std::shared_ptr<SharedImage> randomFrame(Eigen::Vector3i const& dims, int channels, int low, int high,
                                         unsigned seed = 7)
{
    std::mt19937 engine(seed);
    std::uniform_int_distribution<int> draw(low, high);
    return patchTestFrame<T>(dims, channels, [&](std::size_t) { return draw(engine); });
}

inline std::shared_ptr<SharedImageSet> setWith(std::shared_ptr<SharedImage> frame)
{
    return std::make_shared<SharedImageSet>(std::move(frame));
}

// World position of voxel p of a grid, from the convention.
inline Eigen::Vector3d analyticWorld(ImageDescriptorWorld const& grid, Eigen::Vector3d const& p)
{
    Eigen::Vector3d const dims = grid.descriptor().dimensions().cast<double>();
    Eigen::Vector3d const image =
        (p - (dims - Eigen::Vector3d::Ones()) / 2.0).cwiseProduct(grid.descriptor().spacing);
    return (grid.matrixToWorld() * image.homogeneous()).head<3>();
}

template <class T>
T valueOf(SharedImage const& frame, int x, int y, int z, int channel = 0)
{
    return static_cast<TypedImage<T> const&>(*frame.mem()).value(x, y, z, channel);
}

} // namespace Velmoria::MLTest

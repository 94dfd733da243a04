#pragma once

// Builders of small image sets for the data item and element tests: frames of known size,
// spacing, placement and pixel values, so that tests can compute world positions and compare
// pixels by hand.

#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Core>
#include <memory>
#include <vector>

namespace Velmoria::MLTest {

struct FrameLayout
{
    Eigen::Vector3i size{3, 3, 3};
    int channels = 1;
    Eigen::Vector3d spacing{1.0, 2.0, 3.0};
    Eigen::Vector3d translation{0.0, 0.0, 0.0};
    float value = 0.0F;
};

// A float frame filled with value + the flat index of each value, so frames differ in content.
inline std::shared_ptr<SharedImage> makeFrame(FrameLayout const& layout)
{
    auto pixels = TypedImage<float>::zeros(layout.size, layout.channels);
    for (std::size_t i = 0; i < pixels->valueCount(); ++i)
        pixels->setValue(layout.value + static_cast<float>(i), i);
    pixels->setSpacing(layout.spacing, true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    Eigen::Matrix4d matrix = Eigen::Matrix4d::Identity();
    matrix.topRightCorner<3, 1>() = layout.translation;
    frame->setMatrixToWorld(matrix);
    return frame;
}

// `count` frames of `layout`, frame i translated by i * 100 mm along x and valued from 1000 * i.
inline std::shared_ptr<SharedImageSet> makeSet(int count, FrameLayout layout = {})
{
    auto set = std::make_shared<SharedImageSet>();
    Eigen::Vector3d const base = layout.translation;
    for (int i = 0; i < count; ++i) {
        layout.translation = base + Eigen::Vector3d(100.0 * i, 0.0, 0.0);
        layout.value = 1000.0F * static_cast<float>(i);
        set->add(makeFrame(layout));
    }
    return set;
}

// `count` frames of 1x1x1 pixels with `channels` channels: a batch of vectors.
inline std::shared_ptr<SharedImageSet> makeVectorSet(int count, int channels = 4)
{
    FrameLayout layout;
    layout.size = Eigen::Vector3i(1, 1, 1);
    layout.channels = channels;
    layout.spacing = Eigen::Vector3d::Ones();
    return makeSet(count, layout);
}

inline float firstValue(SharedImage const& frame)
{
    return static_cast<float const*>(frame.mem()->data())[0];
}

// Expects the corner and centre voxels of a 3x3x3 frame of makeSet (spacing 1, 2, 3) centred at
// (x, 0, 0) where they belong in world coordinates: (p - 1) * spacing + (x, 0, 0).
inline void expectFrameAt(SharedImage const& frame, double x)
{
    EXPECT_TRUE(frame.pixelToWorld({0, 0, 0}).isApprox(Eigen::Vector3d(x - 1.0, -2.0, -3.0)));
    EXPECT_TRUE(frame.pixelToWorld({2, 2, 2}).isApprox(Eigen::Vector3d(x + 1.0, 2.0, 3.0)));
    EXPECT_TRUE(frame.pixelToWorld({1, 1, 1}).isApprox(Eigen::Vector3d(x, 0.0, 0.0)));
}

} // namespace Velmoria::MLTest

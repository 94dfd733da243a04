#pragma once

// Helpers shared by the ML library's test suites.

#include "host/image/SharedImage.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <memory>
#include <string>
#include <vector>

namespace Velmoria::MLTest {

// Runs `function` and expects an exception of type Exception whose text is exactly `message`.
template <class Exception, class Function>
void expectThrowWithMessage(Function&& function, std::string const& message)
{
    try {
        function();
        ADD_FAILURE() << "expected an exception with: " << message;
    } catch (Exception const& e) {
        EXPECT_EQ(std::string(e.what()), message);
    }
}

// The placement of placedFrame: turned by 0.5 rad about z and moved to (-4, 7, 12).
inline Eigen::Matrix4d placedFrameMatrix()
{
    Eigen::Affine3d const t =
        Eigen::Translation3d(-4.0, 7.0, 12.0) * Eigen::AngleAxisd(0.5, Eigen::Vector3d::UnitZ());
    return t.matrix();
}

// A frame of pixel type T with `channels` channels holding `stored` (interleaved) values, spacing
// (0.7, 1.1, 2.5) and placedFrameMatrix(), so that tests can check that geometry survives.
template <class T>
std::shared_ptr<SharedImage> placedFrame(Eigen::Vector3i const& size, int channels,
                                         std::vector<double> const& stored, double shift = 0.0,
                                         double scale = 1.0)
{
    auto pixels = TypedImage<T>::zeros(size, channels);
    for (std::size_t i = 0; i < stored.size(); ++i)
        pixels->setValue(static_cast<T>(stored[i]), i);
    pixels->setSpacing(Eigen::Vector3d(0.7, 1.1, 2.5), true);
    pixels->setShiftScale(shift, scale);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(placedFrameMatrix());
    return frame;
}

} // namespace Velmoria::MLTest

namespace Velmoria::MLTest {

// Runs `function` and expects an exception of type Exception whose text contains `fragment`.
template <class Exception, class Function>
void expectThrowContaining(Function&& function, std::string const& fragment)
{
    try {
        function();
        ADD_FAILURE() << "expected an exception containing: " << fragment;
    } catch (Exception const& e) {
        EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
    }
}

} // namespace Velmoria::MLTest

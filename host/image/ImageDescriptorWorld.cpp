#include "host/image/ImageDescriptorWorld.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <Eigen/LU>
#include <cmath>

namespace Velmoria {

namespace {
constexpr char const* g_category = "Host.ImageDescriptorWorld";

bool isUsableMatrix(Eigen::Matrix4d const& m)
{
    return m.allFinite() && m.row(3) == Eigen::RowVector4d(0, 0, 0, 1) &&
           std::abs(m.topLeftCorner<3, 3>().determinant()) > 1e-12;
}
} // namespace

ImageDescriptorWorld::ImageDescriptorWorld(ImageDescriptor const& descriptor,
                                           Eigen::Matrix4d const& matrixToWorld)
    : m_descriptor(descriptor)
    , m_matrixToWorld(matrixToWorld)
{}

Eigen::Matrix4d ImageDescriptorWorld::matrixFromWorld() const
{
    return m_matrixToWorld.inverse();
}

void ImageDescriptorWorld::setMatrixFromWorld(Eigen::Matrix4d const& matrix)
{
    m_matrixToWorld = matrix.inverse();
}

Eigen::Vector3d ImageDescriptorWorld::centreIndex() const
{
    return (m_descriptor.dimensions().cast<double>().array() - 1.0) * 0.5;
}

Eigen::Vector3d ImageDescriptorWorld::pixelToImage(Eigen::Vector3d const& pixel) const
{
    return (pixel - centreIndex()).cwiseProduct(m_descriptor.spacing);
}

Eigen::Vector3d ImageDescriptorWorld::imageToPixel(Eigen::Vector3d const& image) const
{
    return image.cwiseQuotient(m_descriptor.spacing) + centreIndex();
}

Eigen::Vector3d ImageDescriptorWorld::pixelToWorld(Eigen::Vector3d const& pixel) const
{
    return m_matrixToWorld.topLeftCorner<3, 3>() * pixelToImage(pixel) +
           m_matrixToWorld.topRightCorner<3, 1>();
}

Eigen::Vector3d ImageDescriptorWorld::worldToPixel(Eigen::Vector3d const& world) const
{
    Eigen::Matrix4d const from = matrixFromWorld();
    return imageToPixel(from.topLeftCorner<3, 3>() * world + from.topRightCorner<3, 1>());
}

Eigen::Matrix4d ImageDescriptorWorld::pixelToWorldMatrix() const
{
    Eigen::Matrix4d shiftScale = Eigen::Matrix4d::Identity();
    shiftScale.diagonal().head<3>() = m_descriptor.spacing;
    shiftScale.topRightCorner<3, 1>() = -centreIndex().cwiseProduct(m_descriptor.spacing);
    return m_matrixToWorld * shiftScale;
}

Eigen::Matrix4d ImageDescriptorWorld::worldToPixelMatrix() const
{
    return pixelToWorldMatrix().inverse();
}

bool ImageDescriptorWorld::isApprox(ImageDescriptorWorld const& other, int flags) const
{
    using ImageDescriptorDetail::approxEqual;
    if (!m_descriptor.isApprox(other.m_descriptor, flags))
        return false;
    if ((flags & ImageDescriptor::CompareOrientation) &&
        !approxEqual(m_matrixToWorld.topLeftCorner<3, 3>(), other.m_matrixToWorld.topLeftCorner<3, 3>()))
        return false;
    if ((flags & ImageDescriptor::ComparePosition) &&
        !approxEqual(m_matrixToWorld.topRightCorner<3, 1>(), other.m_matrixToWorld.topRightCorner<3, 1>()))
        return false;
    return true;
}

bool ImageDescriptorWorld::isSpatiallyCompatible(ImageDescriptorWorld const& other) const
{
    return isApprox(other, ImageDescriptor::CompareDimensions | ImageDescriptor::CompareSpacing |
                               ImageDescriptor::CompareOrientation | ImageDescriptor::ComparePosition);
}

bool ImageDescriptorWorld::configure(Properties const* properties)
{
    if (!properties) {
        VELMORIA_LOG_ERROR(g_category, "Cannot configure an image descriptor from null properties");
        return false;
    }
    Eigen::Matrix4d matrix = m_matrixToWorld;
    bool matrixOk = true;
    if (properties->contains("matrixToWorld")) {
        if (!properties->param("matrixToWorld", matrix) || !isUsableMatrix(matrix)) {
            VELMORIA_LOG_ERROR(g_category,
                               "Invalid value '{}' for 'matrixToWorld' in image descriptor '{}': expected an "
                               "invertible affine 4x4 matrix",
                               properties->paramValueText("matrixToWorld"), properties->name());
            matrixOk = false;
        }
    }
    // Check the descriptor keys too, so that every bad key is reported at once.
    ImageDescriptor descriptor = m_descriptor;
    bool const descriptorOk = descriptor.configure(properties);
    if (!matrixOk || !descriptorOk)
        return false;
    m_descriptor = descriptor;
    m_matrixToWorld = matrix;
    return true;
}

void ImageDescriptorWorld::configuration(Properties* properties) const
{
    if (!properties)
        return;
    m_descriptor.configuration(properties);
    properties->setParam("matrixToWorld", m_matrixToWorld);
}

bool ImageDescriptorWorld::operator==(ImageDescriptorWorld const& other) const
{
    return m_descriptor == other.m_descriptor && m_matrixToWorld == other.m_matrixToWorld;
}

} // namespace Velmoria

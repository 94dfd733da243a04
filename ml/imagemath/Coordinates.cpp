#include "ml/imagemath/Coordinates.h"

#include <fmt/format.h>

#include <Eigen/Core>

namespace Velmoria::ImageMath {

std::string_view coordinateTypeName(CoordinateType type)
{
    switch (type) {
    case CoordinateType::Pixel:
        return "pixel";
    case CoordinateType::Normalized:
        return "normalized";
    case CoordinateType::Image:
        return "image";
    case CoordinateType::World:
        return "world";
    }
    return "invalid";
}

Coordinates::Coordinates(SharedImageSet const& set, CoordinateType type)
    : m_set(&set)
    , m_type(type)
{}

Coordinates::Coordinates(SharedImage const& image, CoordinateType type)
    : m_image(&image)
    , m_type(type)
{}

SharedImage const* Coordinates::frame(int image) const
{
    if (m_image != nullptr)
        return m_image;
    return image >= 0 && image < m_set->size() ? m_set->get(image) : nullptr;
}

int Coordinates::numImgs() const
{
    return m_image != nullptr ? 1 : m_set->size();
}

std::optional<ImageDescriptor> Coordinates::imgDesc(int image) const
{
    SharedImage const* source = frame(image < numImgs() ? image : 0);
    if (source == nullptr || !source->hasMem())
        return std::nullopt;
    ImageDescriptor desc = source->descriptor();
    desc.pixelType = PixelType::Float;
    desc.channels = 3;
    desc.setShiftScale(0.0, 1.0);
    return desc;
}

bool Coordinates::checkOperands(int image, PixelType, ImageDescriptor const& shape, std::string& why) const
{
    SharedImage const* source = frame(image);
    if (source == nullptr || !source->hasMem()) {
        why = fmt::format("coordinates have no frame {} in CPU memory", image);
        return false;
    }
    if (static_cast<int>(m_type) < 0 || static_cast<int>(m_type) > 3) {
        why =
            fmt::format("coordinate type {} is not one of 0 (pixel) to 3 (world)", static_cast<int>(m_type));
        return false;
    }
    ImageDescriptor const& desc = source->descriptor();
    if (desc.dimensions() != shape.dimensions() || shape.channels != 3) {
        why = fmt::format("coordinates are {}x{}x{} with 3 channels, target is {}x{}x{} with {} channels",
                          desc.width, desc.height, desc.slices, shape.width, shape.height, shape.slices,
                          shape.channels);
        return false;
    }
    return true;
}

void Coordinates::bindFrame(int image)
{
    SharedImage const* source = frame(image);
    Eigen::Matrix<double, 3, 4> map = Eigen::Matrix<double, 3, 4>::Zero();
    ImageDescriptor const& desc = source->descriptor();
    Eigen::Vector3d const dims = desc.dimensions().cast<double>();
    switch (m_type) {
    case CoordinateType::Pixel:
        map.leftCols<3>().setIdentity();
        break;
    case CoordinateType::Normalized:
        map.leftCols<3>().diagonal() = dims.cwiseInverse();
        map.col(3) = dims.cwiseInverse() * 0.5;
        break;
    case CoordinateType::Image:
        map.leftCols<3>().diagonal() = desc.spacing;
        map.col(3) = -((dims.array() - 1.0) * 0.5 * desc.spacing.array()).matrix();
        break;
    case CoordinateType::World:
        map = source->pixelToWorldMatrix().topRows<3>();
        break;
    }
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            m_map[static_cast<std::size_t>(4 * r + c)] = map(r, c);
}

} // namespace Velmoria::ImageMath

#include "ml/imagemath/Noise.h"

#include <fmt/format.h>

namespace Velmoria::ImageMath {

Noise::Noise(SharedImageSet const& set, NoiseType type, float a, float b, int seed)
    : m_set(&set)
    , m_type(type)
    , m_a(a)
    , m_b(b)
    , m_seed(seed)
    , m_seedKey(Detail::splitMix64(static_cast<std::uint64_t>(static_cast<std::uint32_t>(seed))))
{}

std::optional<ImageDescriptor> Noise::imgDesc(int image) const
{
    SharedImage const* frame = m_set->get(image < m_set->size() ? image : 0);
    if (m_set->size() == 0 || frame == nullptr || !frame->hasMem())
        return std::nullopt;
    ImageDescriptor desc = frame->descriptor();
    desc.pixelType = PixelType::Float;
    desc.setShiftScale(0.0, 1.0);
    return desc;
}

int Noise::numChannels() const
{
    auto const desc = imgDesc(0);
    return desc ? desc->channels : -1;
}

bool Noise::checkOperands(int image, PixelType, ImageDescriptor const& shape, std::string& why) const
{
    if (m_type != NoiseType::Uniform && m_type != NoiseType::Gaussian) {
        why = fmt::format("noise type {} is not 0 (uniform) or 1 (gaussian)", static_cast<int>(m_type));
        return false;
    }
    if (!std::isfinite(m_a) || !std::isfinite(m_b) || (m_type == NoiseType::Gaussian && m_b < 0.0)) {
        why = m_type == NoiseType::Uniform
                  ? fmt::format("uniform noise needs finite bounds, got {} and {}", m_a, m_b)
                  : fmt::format("gaussian noise needs a finite mean and stddev >= 0, got mean {} stddev {}",
                                m_a, m_b);
        return false;
    }
    SharedImage const* frame = image >= 0 && image < m_set->size() ? m_set->get(image) : nullptr;
    if (frame == nullptr || !frame->hasMem()) {
        why = fmt::format("noise has no frame {} in CPU memory", image);
        return false;
    }
    ImageDescriptor const& desc = frame->descriptor();
    if (desc.dimensions() != shape.dimensions() || desc.channels != shape.channels) {
        why = fmt::format("noise is {}x{}x{} with {} channels, target is {}x{}x{} with {} channels",
                          desc.width, desc.height, desc.slices, desc.channels, shape.width, shape.height,
                          shape.slices, shape.channels);
        return false;
    }
    return true;
}

} // namespace Velmoria::ImageMath

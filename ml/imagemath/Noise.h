#pragma once

// Noise: a random float per pixel and channel, made by makeNoise(set, NoiseType, a, b, seed).
//
//   NoiseType      a      b        value
//   0 Uniform      low    high     in [low, high) (the bounds may be given in either order)
//   1 Gaussian     mean   stddev   normal; stddev >= 0
//
// The result has the frames' dimensions and channel count, pixel type float; frame i of the
// tree gives the noise of frame i. Non-finite parameters or a negative stddev are refused when
// the tree is checked (assign returns false and logs), never drawn from.
//
// Determinism. Each value is a pure function of (seed, frame, pixel, channel): a counter-based
// hash (three rounds of the splitmix64 finaliser) turns that key into 64 random bits, and the
// bits into the value (uniform: the top 24 bits as a float in [0, 1); Gaussian: Box-Muller on
// two 32-bit halves). A shared sequential generator (std::mt19937, the host's PCG64) would hand
// out numbers in the order that threads happen to reach the pixels, so the image would change
// with OMP_NUM_THREADS and from run to run; one generator per thread would depend on how the
// slices are split. Hashing the position gives the same image for a seed on any thread count,
// any evaluation order, and inside a block (where the position is that of the block's domain).
// The hash is hand-written: it is four lines, and no library we use offers a stateless one.
//
// Device strategy: CpuOnly. The GPU code generator has no form for it yet, and the GPU path
// would have to reproduce these exact bits to keep results independent of the device.

#include "ml/imagemath/ExprBase.h"

#include "host/image/SharedImageSet.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <string>

namespace Velmoria::ImageMath {

enum class NoiseType : int
{
    Uniform = 0,
    Gaussian = 1,
};

namespace Detail {

// The splitmix64 finaliser (Steele, Lea, Flood 2014): a bijective 64-bit mixer whose outputs
// for consecutive inputs pass BigCrush.
constexpr std::uint64_t splitMix64(std::uint64_t x)
{
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

} // namespace Detail

class Noise : public ExprBaseTpl<Noise>
{
public:
    Noise(SharedImageSet const& set, NoiseType type, float a, float b, int seed);
    Noise(Noise const&) = default;

    int numImgs() const override { return m_set->size(); }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override;
    DeviceStrategy deviceStrategy() const override { return DeviceStrategy::CpuOnly; }
    int numChannels() const override;
    std::vector<ExprBase const*> children() const override { return {}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const;
    template <class P>
    Noise convertToMemImgExpr(int image) const
    {
        Noise bound = *this;
        bound.m_frameKey = Detail::splitMix64(m_seedKey ^ static_cast<std::uint64_t>(image));
        bound.m_channels = static_cast<std::uint64_t>(std::max(1, numChannels()));
        return bound;
    }
    float value(Position const& position, Index, int channel) const
    {
        std::uint64_t const counter =
            static_cast<std::uint64_t>(position.pixel) * m_channels + static_cast<std::uint64_t>(channel);
        std::uint64_t const bits = Detail::splitMix64(m_frameKey ^ Detail::splitMix64(counter));
        if (m_type == NoiseType::Uniform) {
            double const u = static_cast<double>(bits >> 40) * 0x1.0p-24;
            return static_cast<float>(m_a + (m_b - m_a) * u);
        }
        // Box-Muller: u1 in (0, 1] so that the logarithm is finite.
        double const u1 = (static_cast<double>(bits >> 32) + 1.0) * 0x1.0p-32;
        double const u2 = static_cast<double>(bits & 0xffffffffULL) * 0x1.0p-32;
        return static_cast<float>(m_a + m_b * std::sqrt(-2.0 * std::log(u1)) *
                                            std::cos(2.0 * std::numbers::pi * u2));
    }

    NoiseType type() const { return m_type; }
    int seed() const { return m_seed; }

private:
    SharedImageSet const* m_set;
    NoiseType m_type;
    double m_a;
    double m_b;
    int m_seed;
    std::uint64_t m_seedKey;
    // Set in the converted form.
    std::uint64_t m_frameKey = 0;
    std::uint64_t m_channels = 1;
};

inline Noise makeNoise(SharedImageSet const& set, NoiseType type, float a, float b, int seed)
{
    return Noise(set, type, a, b, seed);
}

} // namespace Velmoria::ImageMath

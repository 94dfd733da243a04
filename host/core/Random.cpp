#include "host/core/Random.h"

#include "host/core/Log.h"

#include <pcg_random.hpp>

#include <cmath>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

namespace Velmoria::Random {

namespace {

constexpr char const* kCategory = "Host.Random";

using Pcg128 = pcg_extras::pcg128_t;

// The opaque storage of Pcg64Engine holds exactly one pcg64; copying it as an object keeps the
// state and the stream.
static_assert(sizeof(pcg64) <= 32, "Pcg64Engine storage too small for pcg64");
static_assert(alignof(pcg64) <= 16, "Pcg64Engine storage alignment too small for pcg64");
static_assert(std::is_trivially_copyable_v<pcg64> && std::is_trivially_destructible_v<pcg64>,
              "Pcg64Engine relies on pcg64 being a plain value");

pcg64& impl(std::byte* storage)
{
    return *std::launder(reinterpret_cast<pcg64*>(storage));
}

pcg64 const& impl(std::byte const* storage)
{
    return *std::launder(reinterpret_cast<pcg64 const*>(storage));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Pcg64Engine

Pcg64Engine::Pcg64Engine(std::uint64_t seed)
{
    new (m_storage) pcg64(Pcg128(seed));
}

Pcg64Engine::Pcg64Engine(std::uint64_t seed, std::uint64_t stream)
{
    new (m_storage) pcg64(Pcg128(seed), Pcg128(stream));
}

Pcg64Engine::Pcg64Engine(Pcg64Engine const& other)
{
    new (m_storage) pcg64(impl(other.m_storage));
}

Pcg64Engine& Pcg64Engine::operator=(Pcg64Engine const& other)
{
    impl(m_storage) = impl(other.m_storage);
    return *this;
}

void Pcg64Engine::seed(std::uint64_t seed)
{
    impl(m_storage) = pcg64(Pcg128(seed));
}

void Pcg64Engine::seed(std::uint64_t seed, std::uint64_t stream)
{
    impl(m_storage) = pcg64(Pcg128(seed), Pcg128(stream));
}

Pcg64Engine::result_type Pcg64Engine::operator()()
{
    return impl(m_storage)();
}

void Pcg64Engine::discard(std::uint64_t count)
{
    impl(m_storage).discard(Pcg128(count));
}

bool Pcg64Engine::operator==(Pcg64Engine const& other) const
{
    return impl(m_storage) == impl(other.m_storage);
}

// ---------------------------------------------------------------------------------------------
// Generator

namespace {

// A uniform integer in [0, span] (span + 1 values) by Lemire's multiply-shift: the high half of
// x * n is the value; the low half tells whether x fell into the small biased part of the
// range, which is rejected so that every value is equally likely.
std::uint64_t boundedUint64(Pcg64Engine& engine, std::uint64_t span)
{
    if (span == std::numeric_limits<std::uint64_t>::max())
        return engine();
    std::uint64_t const n = span + 1;
    Pcg128 product = Pcg128(engine()) * n;
    auto low = static_cast<std::uint64_t>(product);
    if (low < n) {
        std::uint64_t const threshold = (0 - n) % n; // 2^64 mod n
        while (low < threshold) {
            product = Pcg128(engine()) * n;
            low = static_cast<std::uint64_t>(product);
        }
    }
    return static_cast<std::uint64_t>(product >> 64);
}

} // namespace

Generator::Generator(std::uint64_t seed)
    : m_engine(seed)
{}

void Generator::reseed(std::uint64_t seed)
{
    m_engine.seed(seed);
    m_hasSpareNormal = false;
    m_spareNormal = 0.0;
}

double Generator::uniformDouble()
{
    return static_cast<double>(m_engine() >> 11) * 0x1.0p-53;
}

double Generator::uniformOpen01()
{
    // The centre of one of 2^53 equal cells: never 0 and never 1.
    return (static_cast<double>(m_engine() >> 11) + 0.5) * 0x1.0p-53;
}

double Generator::standardNormal()
{
    if (m_hasSpareNormal) {
        m_hasSpareNormal = false;
        return m_spareNormal;
    }
    double u = 0.0;
    double v = 0.0;
    double s = 0.0;
    do {
        u = 2.0 * uniformDouble() - 1.0;
        v = 2.0 * uniformDouble() - 1.0;
        s = u * u + v * v;
    } while (s >= 1.0 || s == 0.0);
    double const factor = std::sqrt(-2.0 * std::log(s) / s);
    m_spareNormal = v * factor;
    m_hasSpareNormal = true;
    return u * factor;
}

double Generator::logGamma(double shape)
{
    if (shape < 1.0) {
        // Gamma(a) = Gamma(a + 1) * U^(1/a); in log space so that tiny shapes do not underflow.
        double const boosted = logGamma(shape + 1.0);
        return boosted + std::log(uniformOpen01()) / shape;
    }
    // Marsaglia & Tsang (2000), "A simple method for generating gamma variables".
    double const d = shape - 1.0 / 3.0;
    double const c = 1.0 / std::sqrt(9.0 * d);
    for (;;) {
        double x = 0.0;
        double v = 0.0;
        do {
            x = standardNormal();
            v = 1.0 + c * x;
        } while (v <= 0.0);
        v = v * v * v;
        double const u = uniformOpen01();
        double const x2 = x * x;
        if (u < 1.0 - 0.0331 * x2 * x2)
            return std::log(d * v);
        if (std::log(u) < 0.5 * x2 + d * (1.0 - v + std::log(v)))
            return std::log(d * v);
    }
}

template <UniformRealType T>
T Generator::getUniformReal(T lo, T hi)
{
    if (!std::isfinite(lo) || !std::isfinite(hi)) {
        VELMORIA_LOG_ERROR(kCategory, "getUniformReal: bounds must be finite, got lo = {} and hi = {}", lo,
                           hi);
        return std::numeric_limits<T>::quiet_NaN();
    }
    if (hi < lo)
        std::swap(lo, hi);
    if (lo == hi)
        return lo;

    T u;
    if constexpr (std::is_same_v<T, float>)
        u = static_cast<float>(m_engine() >> 40) * 0x1.0p-24f;
    else
        u = static_cast<double>(m_engine() >> 11) * 0x1.0p-53;

    T const span = hi - lo;
    // A span beyond the largest finite value (lo = -max, hi = max) is interpolated instead;
    // 1 - u is exact for both types.
    T result = std::isfinite(span) ? lo + span * u : lo * (T(1) - u) + hi * u;
    if (result >= hi) // rounding can reach hi, which is outside the half-open range
        result = std::nextafter(hi, lo);
    if (result < lo)
        result = lo;
    return result;
}

template <UniformIntegerType T>
T Generator::getUniformInteger(T lo, T hi)
{
    if (hi < lo)
        std::swap(lo, hi);
    using Unsigned = std::make_unsigned_t<T>;
    // Unsigned arithmetic wraps, so the span of a signed range is right even across zero.
    auto const span = static_cast<std::uint64_t>(
        static_cast<Unsigned>(static_cast<Unsigned>(hi) - static_cast<Unsigned>(lo)));
    std::uint64_t const offset = boundedUint64(m_engine, span);
    return static_cast<T>(static_cast<Unsigned>(static_cast<Unsigned>(lo) + static_cast<Unsigned>(offset)));
}

template <UniformRealType T>
T Generator::getNormal(T mean, T sigma)
{
    if (!std::isfinite(mean) || !std::isfinite(sigma) || sigma < 0) {
        VELMORIA_LOG_ERROR(
            kCategory,
            "getNormal: mean must be finite and sigma finite and >= 0, got mean = {} and sigma = {}", mean,
            sigma);
        return std::numeric_limits<T>::quiet_NaN();
    }
    return static_cast<T>(static_cast<double>(mean) + static_cast<double>(sigma) * standardNormal());
}

template <UniformRealType T>
T Generator::getBeta(T a, T b)
{
    if (!std::isfinite(a) || !std::isfinite(b) || !(a > 0) || !(b > 0)) {
        VELMORIA_LOG_ERROR(kCategory, "getBeta: shapes must be finite and > 0, got a = {} and b = {}", a, b);
        return std::numeric_limits<T>::quiet_NaN();
    }
    double const logX = logGamma(static_cast<double>(a));
    double const logY = logGamma(static_cast<double>(b));
    // X / (X + Y) = 1 / (1 + Y / X); the difference of logarithms cannot overflow into 0 / 0.
    double const difference = logY - logX;
    if (std::isnan(difference)) {
        // Both variates underflowed even in log space (shapes near the smallest doubles):
        // the distribution is then a coin toss between 0 and 1 with P(1) = a / (a + b).
        double const pOne = static_cast<double>(a) / (static_cast<double>(a) + static_cast<double>(b));
        return uniformDouble() < pOne ? T(1) : T(0);
    }
    return static_cast<T>(1.0 / (1.0 + std::exp(difference)));
}

template float Generator::getUniformReal<float>(float, float);
template double Generator::getUniformReal<double>(double, double);
template int Generator::getUniformInteger<int>(int, int);
template long Generator::getUniformInteger<long>(long, long);
template long long Generator::getUniformInteger<long long>(long long, long long);
template unsigned int Generator::getUniformInteger<unsigned int>(unsigned int, unsigned int);
template unsigned long Generator::getUniformInteger<unsigned long>(unsigned long, unsigned long);
template unsigned long long Generator::getUniformInteger<unsigned long long>(unsigned long long,
                                                                             unsigned long long);
template float Generator::getNormal<float>(float, float);
template double Generator::getNormal<double>(double, double);
template float Generator::getBeta<float>(float, float);
template double Generator::getBeta<double>(double, double);

// ---------------------------------------------------------------------------------------------

SynchronizedGenerator& globalGenerator()
{
    static SynchronizedGenerator generator(kDefaultSeed);
    return generator;
}

} // namespace Velmoria::Random

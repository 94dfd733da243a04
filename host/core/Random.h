#pragma once

// Random numbers that repeat exactly on every machine.
//
// Training runs, augmentations and samplers must draw the same numbers for the same seed on any
// compiler, standard library and operating system, so that an experiment can be repeated and a
// failing test reproduced. The engine is PCG64 (pcg-cpp's `pcg64`: a 128-bit LCG with the
// XSL-RR output function), whose output is fully defined by its published algorithm. The
// distributions on top of it are written by hand ON PURPOSE: the std:: distributions
// (uniform_real_distribution, normal_distribution, ...) are implementation-defined and give
// different numbers with libstdc++, libc++ and MSVC.
//
// How each distribution turns engine outputs into values (part of the contract; changing it
// changes every seeded result of the system):
//  - getUniformReal<double>(lo, hi): u = (x >> 11) * 2^-53, result = lo + (hi - lo) * u, so
//    the result lies in [lo, hi). For float: u = (x >> 40) * 2^-24, and a result that rounds
//    up to hi is replaced by the largest float below hi. One engine output per value.
//  - getUniformInteger<T>(lo, hi): BOTH bounds included. Lemire's multiply-shift with
//    rejection on the 64-bit output, so every value is exactly equally likely; the full 64-bit
//    range is supported. Usually one engine output per value, rarely more.
//  - getNormal(mean, sigma): Marsaglia's polar method. Each accepted pair gives two values; the
//    second is kept (in standard units) and returned by the next call. reseed() drops it.
//  - getBeta(a, b): X / (X + Y) with X ~ Gamma(a), Y ~ Gamma(b) from Marsaglia-Tsang (for a
//    shape below 1, Gamma(shape + 1) * U^(1 / shape)), computed in log space so that tiny
//    shapes give 0 or 1 instead of 0 / 0.
//
// Bounds may be given in either order: (lo, hi) and (hi, lo) draw the same numbers. lo == hi
// gives lo. Invalid parameters never hang: non-finite real bounds or parameters, sigma < 0,
// a <= 0 or b <= 0 give NaN with an error logged under "Host.Random", and no engine output is
// consumed. Integer draws have no invalid input.
//
// Exactness: raw outputs, uniform reals and integers are bit-identical everywhere. Normal and
// beta values also go through log/sqrt/exp of the C math library; glibc and the other common
// libraries round these (nearly) correctly, so results agree, but an unusual math library may
// differ in the last bit.
//
// Threads: a Generator is not synchronized; give each thread its own (seeded from a base seed
// plus the worker index, or with its own PCG stream). globalGenerator() is the process-wide
// generator: every call on it takes an internal lock.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace Velmoria::Random {

// The seed of a default-constructed Generator and of globalGenerator() before any reseed.
inline constexpr std::uint64_t kDefaultSeed = 42;

template <typename T>
concept UniformRealType = std::same_as<T, float> || std::same_as<T, double>;

template <typename T>
concept UniformIntegerType = std::same_as<T, int> || std::same_as<T, long> || std::same_as<T, long long> ||
    std::same_as<T, unsigned int> || std::same_as<T, unsigned long> || std::same_as<T, unsigned long long>;

// PCG64 engine; a UniformRandomBitGenerator, so it also drives <random> when the exact numbers
// do not matter. The pcg-cpp header stays out of this one (it is large and this header is
// included widely): the engine lives in opaque storage and copies copy its state exactly.
class Pcg64Engine
{
public:
    using result_type = std::uint64_t;

    // Same as pcg-cpp's `pcg64 engine(seed)`: the default stream.
    explicit Pcg64Engine(std::uint64_t seed = kDefaultSeed);
    // Same as pcg-cpp's `pcg64 engine(seed, stream)`: engines on different streams give
    // unrelated sequences even for the same seed (one stream per worker, for example).
    Pcg64Engine(std::uint64_t seed, std::uint64_t stream);
    Pcg64Engine(Pcg64Engine const& other);
    Pcg64Engine& operator=(Pcg64Engine const& other);
    ~Pcg64Engine() = default;

    // Restarts the sequence of the default stream for this seed.
    void seed(std::uint64_t seed);
    void seed(std::uint64_t seed, std::uint64_t stream);

    result_type operator()();
    // Skips `count` outputs in O(log count) steps.
    void discard(std::uint64_t count);

    static constexpr result_type min() { return 0; }
    static constexpr result_type max() { return ~result_type(0); }

    // Equal when both will produce the same sequence from here on.
    bool operator==(Pcg64Engine const& other) const;

private:
    static constexpr std::size_t kStorageSize = 32;
    static constexpr std::size_t kStorageAlign = 16;
    alignas(kStorageAlign) std::byte m_storage[kStorageSize];
};

// Draws values of the distributions above from its own engine. Not synchronized.
class Generator
{
public:
    explicit Generator(std::uint64_t seed = kDefaultSeed);

    // After reseed(s) the generator draws exactly what a new Generator(s) would draw,
    // whatever was drawn before.
    void reseed(std::uint64_t seed);

    // A value in [lo, hi) (see the header comment for details and invalid input).
    template <UniformRealType T>
    T getUniformReal(T lo, T hi);

    // A value in [lo, hi], both bounds included.
    template <UniformIntegerType T>
    T getUniformInteger(T lo, T hi);

    template <UniformRealType T>
    T getNormal(T mean, T sigma);

    // A value in [0, 1] from Beta(a, b); its mean is a / (a + b).
    template <UniformRealType T>
    T getBeta(T a, T b);

    Pcg64Engine& engine() { return m_engine; }
    Pcg64Engine const& engine() const { return m_engine; }

private:
    double uniformDouble();  // [0, 1)
    double uniformOpen01();  // (0, 1): for logarithms
    double standardNormal(); // uses and refills the spare value
    double logGamma(double shape);

    Pcg64Engine m_engine;
    double m_spareNormal = 0.0;
    bool m_hasSpareNormal = false;
};

// A Generator behind a mutex: the type of globalGenerator(). Each call is atomic; a caller
// that needs several draws in a row without other threads drawing in between (to keep a
// seeded sequence reproducible) uses withLock().
class SynchronizedGenerator
{
public:
    explicit SynchronizedGenerator(std::uint64_t seed = kDefaultSeed)
        : m_generator(seed)
    {}
    SynchronizedGenerator(SynchronizedGenerator const&) = delete;
    SynchronizedGenerator& operator=(SynchronizedGenerator const&) = delete;

    void reseed(std::uint64_t seed)
    {
        std::lock_guard lock(m_mutex);
        m_generator.reseed(seed);
    }

    template <UniformRealType T>
    T getUniformReal(T lo, T hi)
    {
        std::lock_guard lock(m_mutex);
        return m_generator.getUniformReal(lo, hi);
    }

    template <UniformIntegerType T>
    T getUniformInteger(T lo, T hi)
    {
        std::lock_guard lock(m_mutex);
        return m_generator.getUniformInteger(lo, hi);
    }

    template <UniformRealType T>
    T getNormal(T mean, T sigma)
    {
        std::lock_guard lock(m_mutex);
        return m_generator.getNormal(mean, sigma);
    }

    template <UniformRealType T>
    T getBeta(T a, T b)
    {
        std::lock_guard lock(m_mutex);
        return m_generator.getBeta(a, b);
    }

    // Calls function(Generator&) while holding the lock and returns its result. The generator
    // must not escape the call.
    template <typename Function>
    decltype(auto) withLock(Function&& function)
    {
        std::lock_guard lock(m_mutex);
        return function(m_generator);
    }

private:
    std::mutex m_mutex;
    Generator m_generator;
};

// The process-wide generator, seeded with kDefaultSeed until someone reseeds it.
SynchronizedGenerator& globalGenerator();

} // namespace Velmoria::Random

// ImageMath's CPU evaluator against the loops it replaces, on a 256³ float volume with two
// threads: `img = (img - a) / b` through ImageMath, the same formula as a hand-written OpenMP
// loop over the same buffer, and memcpy of the same bytes; a sum through ImageMath against a
// hand-written OpenMP reduction. Baselines are measured in the same process and each ImageMath
// run reports its time relative to them as counters ("vs_hand_loop", "vs_memcpy"), so results
// can be compared across noisy machines. Targets: vs_hand_loop <= 1.25, vs_memcpy <= 2.

#include "ml/imagemath/ImageMath.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

using namespace Velmoria;

namespace {

constexpr int kSize = 256;
constexpr int kThreads = 2;
// Chosen so that repeated application keeps the values finite over any number of iterations.
float volatile g_a = 0.25f;
float volatile g_b = 1.0f;

SharedImageSet& volume()
{
    static std::unique_ptr<SharedImageSet> const set = [] {
        omp_set_num_threads(kThreads);
        auto result = std::make_unique<SharedImageSet>();
        auto frame = std::make_shared<SharedImage>(ImageDescriptor(PixelType::Float, kSize, kSize, kSize, 1));
        auto& typed = static_cast<TypedImage<float>&>(*frame->mem());
        for (std::size_t j = 0; j < typed.valueCount(); ++j)
            typed.setValue(static_cast<float>(j % 1000) * 0.001f, j);
        result->add(frame);
        return result;
    }();
    return *set;
}

float* voxels()
{
    return static_cast<TypedImage<float>&>(*volume().mem(0)).pointer();
}
std::size_t voxelCount()
{
    return volume().mem(0)->valueCount();
}

void handAffine(float a, float b)
{
    float* data = voxels();
    auto const count = static_cast<std::ptrdiff_t>(voxelCount());
#pragma omp parallel for num_threads(kThreads) schedule(static)
    for (std::ptrdiff_t i = 0; i < count; ++i)
        data[i] = (data[i] - a) / b;
}

double handSum()
{
    float const* data = voxels();
    auto const count = static_cast<std::ptrdiff_t>(voxelCount());
    double total = 0.0;
#pragma omp parallel for num_threads(kThreads) schedule(static) reduction(+ : total)
    for (std::ptrdiff_t i = 0; i < count; ++i)
        total += static_cast<double>(data[i]);
    return total;
}

template <class F>
double secondsPerRun(F&& run)
{
    run(); // warm-up: pages touched, threads started
    constexpr int repetitions = 10;
    auto const start = std::chrono::steady_clock::now();
    for (int i = 0; i < repetitions; ++i)
        run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / repetitions;
}

double handAffineSeconds()
{
    static double const seconds = secondsPerRun([] {
        handAffine(g_a, g_b);
        benchmark::ClobberMemory();
    });
    return seconds;
}

double handSumSeconds()
{
    static double const seconds = secondsPerRun([] { benchmark::DoNotOptimize(handSum()); });
    return seconds;
}

double memcpySeconds()
{
    static double const seconds = [] {
        std::vector<float> target(voxelCount());
        return secondsPerRun([&] {
            std::memcpy(target.data(), voxels(), voxelCount() * sizeof(float));
            benchmark::DoNotOptimize(target.data());
            benchmark::ClobberMemory();
        });
    }();
    return seconds;
}

void BM_ImageMathAffine(benchmark::State& state)
{
    ImageMath::Array<SharedImageSet> img(volume());
    float const a = g_a, b = g_b;
    auto const start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        img = (img - a) / b;
        benchmark::ClobberMemory();
    }
    double const perRun = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() /
                          static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * voxelCount() * sizeof(float)));
    state.counters["vs_hand_loop"] = perRun / handAffineSeconds();
    state.counters["vs_memcpy"] = perRun / memcpySeconds();
}

void BM_HandLoopAffine(benchmark::State& state)
{
    for (auto _ : state) {
        handAffine(g_a, g_b);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * voxelCount() * sizeof(float)));
}

void BM_Memcpy(benchmark::State& state)
{
    std::vector<float> target(voxelCount());
    for (auto _ : state) {
        std::memcpy(target.data(), voxels(), voxelCount() * sizeof(float));
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * voxelCount() * sizeof(float)));
}

void BM_ImageMathSum(benchmark::State& state)
{
    ImageMath::Array<SharedImageSet> img(volume());
    auto const start = std::chrono::steady_clock::now();
    for (auto _ : state)
        benchmark::DoNotOptimize(ImageMath::sum(img).eval());
    double const perRun = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() /
                          static_cast<double>(state.iterations());
    state.counters["vs_hand_loop"] = perRun / handSumSeconds();
}

void BM_HandLoopSum(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(handSum());
}

} // namespace

BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_HandLoopAffine)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ImageMathAffine)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_HandLoopSum)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ImageMathSum)->Unit(benchmark::kMillisecond)->UseRealTime();

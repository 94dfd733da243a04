// Draw speed of Random::Generator, measured against the standard library's Mersenne twister with
// std::uniform_real_distribution / std::normal_distribution in the same run. Our generator
// trades nothing for repeatability across machines; this shows what it costs or gains.

#include "host/core/Random.h"

#include <benchmark/benchmark.h>

#include <random>

using namespace Velmoria;

namespace {

constexpr int kDraws = 1 << 16;

void BM_GeneratorUniformReal(benchmark::State& state)
{
    Random::Generator generator(1);
    for (auto _ : state)
        for (int i = 0; i < kDraws; ++i)
            benchmark::DoNotOptimize(generator.getUniformReal<double>(-1.0, 1.0));
    state.SetItemsProcessed(state.iterations() * kDraws);
}

void BM_StdMt19937UniformReal(benchmark::State& state)
{
    std::mt19937_64 engine(1);
    std::uniform_real_distribution<double> distribution(-1.0, 1.0);
    for (auto _ : state)
        for (int i = 0; i < kDraws; ++i)
            benchmark::DoNotOptimize(distribution(engine));
    state.SetItemsProcessed(state.iterations() * kDraws);
}

void BM_GeneratorUniformInteger(benchmark::State& state)
{
    Random::Generator generator(1);
    for (auto _ : state)
        for (int i = 0; i < kDraws; ++i)
            benchmark::DoNotOptimize(generator.getUniformInteger<int>(0, 511));
    state.SetItemsProcessed(state.iterations() * kDraws);
}

void BM_StdMt19937UniformInteger(benchmark::State& state)
{
    std::mt19937_64 engine(1);
    std::uniform_int_distribution<int> distribution(0, 511);
    for (auto _ : state)
        for (int i = 0; i < kDraws; ++i)
            benchmark::DoNotOptimize(distribution(engine));
    state.SetItemsProcessed(state.iterations() * kDraws);
}

void BM_GeneratorNormal(benchmark::State& state)
{
    Random::Generator generator(1);
    for (auto _ : state)
        for (int i = 0; i < kDraws; ++i)
            benchmark::DoNotOptimize(generator.getNormal<double>(0.0, 1.0));
    state.SetItemsProcessed(state.iterations() * kDraws);
}

void BM_StdMt19937Normal(benchmark::State& state)
{
    std::mt19937_64 engine(1);
    std::normal_distribution<double> distribution(0.0, 1.0);
    for (auto _ : state)
        for (int i = 0; i < kDraws; ++i)
            benchmark::DoNotOptimize(distribution(engine));
    state.SetItemsProcessed(state.iterations() * kDraws);
}

} // namespace

BENCHMARK(BM_GeneratorUniformReal);
BENCHMARK(BM_StdMt19937UniformReal);
BENCHMARK(BM_GeneratorUniformInteger);
BENCHMARK(BM_StdMt19937UniformInteger);
BENCHMARK(BM_GeneratorNormal);
BENCHMARK(BM_StdMt19937Normal);

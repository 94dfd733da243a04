// Clip and NormalizeNormal on a 256³ float volume, against the same computation in numpy
// (bench/reference/intensity_numpy.py, run with /usr/bin/python3 in the same process run).
// Counters: "numpy_ms" (numpy's best time) and "vs_numpy" (our time / numpy's; below 1 is faster).
// The other normalisations (NormalizeUniform, NormalizePercentile, NormalizeMAD) are timed on
// the same volume without a baseline, to follow their cost over time.

#include "ml/data/DataItem.h"
#include "ml/operations/catalogue/IntensityOperations.h"
#include "ml/operations/catalogue/NormalizationOperations.h"

#include "host/core/Random.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>

using namespace Velmoria;

namespace {

constexpr int kSize = 256;

std::shared_ptr<SharedImageSet> makeVolume()
{
    auto pixels = TypedImage<float>::zeros(Eigen::Vector3i(kSize, kSize, kSize), 1);
    Random::Generator random(1);
    for (std::size_t i = 0; i < pixels->valueCount(); ++i)
        pixels->pointer()[i] = static_cast<float>(random.getNormal<double>(100.0, 30.0));
    auto set = std::make_shared<SharedImageSet>();
    set->add(std::shared_ptr<Image>(std::move(pixels)));
    return set;
}

// numpy's best times in milliseconds, by operation name; empty when python or numpy is missing.
std::map<std::string, double> const& numpyTimes()
{
    static std::map<std::string, double> const times = [] {
        std::map<std::string, double> result;
        std::string command = std::string("/usr/bin/python3 '") + VELMORIA_BENCH_REFERENCE_DIR +
                              "/intensity_numpy.py' " + std::to_string(kSize) + " 5";
        std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
        if (!pipe)
            return result;
        std::array<char, 256> line{};
        while (std::fgets(line.data(), static_cast<int>(line.size()), pipe.get())) {
            char name[64] = {};
            double ms = 0.0;
            if (std::sscanf(line.data(), "%63s %lf", name, &ms) == 2)
                result[name] = ms;
        }
        return result;
    }();
    return times;
}

template <class MakeOperation>
void runOperation(benchmark::State& state, std::string const& name, MakeOperation make)
{
    auto const original = makeVolume();
    auto operation = make();
    double total = 0.0;
    for (auto _ : state) {
        state.PauseTiming();
        auto volume = original->clone();
        state.ResumeTiming();
        auto start = std::chrono::steady_clock::now();
        auto result = operation->process(std::shared_ptr<SharedImageSet>(std::move(volume)));
        total += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        benchmark::DoNotOptimize(result);
    }
    double ours = total / static_cast<double>(state.iterations());
    if (name.empty())
        return; // no baseline for this one
    auto const& numpy = numpyTimes();
    if (auto it = numpy.find(name); it != numpy.end()) {
        state.counters["numpy_ms"] = it->second;
        state.counters["vs_numpy"] = ours / it->second;
    } else
        state.SetLabel("numpy baseline unavailable (install python3-numpy: scripts/bootstrap --with-bench)");
}

void BM_Clip(benchmark::State& state)
{
    runOperation(state, "Clip", [] { return std::make_unique<ML::ClipOperation>(50.0F, 150.0F); });
}

void BM_NormalizeNormal(benchmark::State& state)
{
    runOperation(state, "NormalizeNormal", [] { return std::make_unique<ML::NormalizeNormalOperation>(); });
}

void BM_NormalizeUniform(benchmark::State& state)
{
    runOperation(state, "", [] { return std::make_unique<ML::NormalizeUniformOperation>(); });
}

void BM_NormalizePercentile(benchmark::State& state)
{
    runOperation(state, "", [] { return std::make_unique<ML::NormalizePercentileOperation>(0.01F, 0.99F); });
}

void BM_NormalizeMAD(benchmark::State& state)
{
    runOperation(state, "", [] { return std::make_unique<ML::NormalizeMADOperation>(); });
}

} // namespace

BENCHMARK(BM_Clip)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NormalizeNormal)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NormalizeUniform)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NormalizePercentile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NormalizeMAD)->Unit(benchmark::kMillisecond)->UseRealTime();

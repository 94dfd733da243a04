// The "torch" engine on one 96³ patch of the demo network (a 3-level 3D U-Net), prepared for
// inference (frozen, then optimised: convolutions fused with their activations and run through
// oneDNN) against the same network as loaded, in the same run. Both engines are warmed up first:
// TorchScript's profiling executor specialises the graph during the first calls, and that cost
// belongs to neither.
//
// Counters: "prepared_ms" and "as_loaded_ms" per patch, and "speedup" = as_loaded / prepared
// (the target is >= 1.8 on two threads). VELMORIA_BENCH_MODEL names another TorchScript file
// taking [1, 1, 96, 96, 96]; VELMORIA_BENCH_THREADS sets LibTorch's threads (default 2).

#include "engines/torch/TorchEngine.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"

#include "host/core/Timer.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

constexpr int kPatch = 96;
constexpr int kWarmUpRuns = 3;

std::string modelFile()
{
    if (char const* chosen = std::getenv("VELMORIA_BENCH_MODEL"))
        return chosen;
    return std::string(VELMORIA_SOURCE_DIR) + "/examples/demo/demo-segmenter.pt";
}

int threads()
{
    char const* chosen = std::getenv("VELMORIA_BENCH_THREADS");
    return chosen ? std::atoi(chosen) : 2;
}

std::unique_ptr<TorchEngine> makeEngine(bool optimise)
{
    Properties properties;
    properties.setParam("ModelFile", modelFile());
    properties.setParam("InputFields", std::vector<std::string>{"image"});
    properties.setParam("OutputFields", std::vector<std::string>{"prediction"});
    properties.setParam("NumThreads", threads());
    properties.setParam("OptimizeForInference", optimise);
    auto engine = makeInitializedEngine<TorchEngine>(properties);
    if (!engine || !engine->isLoaded())
        throw std::runtime_error("Could not load the network '" + modelFile() + "'");
    return engine;
}

// A normalised-looking patch: smooth structures plus a little texture, values around 0.
DataItem makePatch()
{
    auto image = std::make_shared<TypedImage<float>>(Eigen::Vector3i(kPatch, kPatch, kPatch), 1);
    float* values = image->pointer();
    for (int z = 0; z < kPatch; ++z)
        for (int y = 0; y < kPatch; ++y)
            for (int x = 0; x < kPatch; ++x)
                values[(z * kPatch + y) * kPatch + x] =
                    std::sin(0.11F * x) * std::cos(0.07F * y) + 0.3F * std::sin(0.23F * (x + y + z));
    auto sis = std::make_shared<SharedImageSet>();
    sis->add(std::make_shared<SharedImage>(image));
    DataItem item;
    item.set("image", sis);
    return item;
}

double runMs(TorchEngine& engine, DataItem const& patch)
{
    Timer timer;
    DataItem const prediction = engine.predict(patch);
    benchmark::DoNotOptimize(prediction.get("prediction"));
    return timer.getPassedMs();
}

void BM_PreparedAgainstAsLoaded(benchmark::State& state)
{
    auto prepared = makeEngine(true);
    auto asLoaded = makeEngine(false);
    DataItem const patch = makePatch();
    for (int i = 0; i < kWarmUpRuns; ++i) {
        runMs(*prepared, patch);
        runMs(*asLoaded, patch);
    }
    double preparedMs = 0.0;
    double asLoadedMs = 0.0;
    for (auto _ : state) {
        preparedMs += runMs(*prepared, patch);
        asLoadedMs += runMs(*asLoaded, patch);
    }
    auto const runs = static_cast<double>(state.iterations());
    state.counters["prepared_ms"] = preparedMs / runs;
    state.counters["as_loaded_ms"] = asLoadedMs / runs;
    state.counters["speedup"] = asLoadedMs / preparedMs;
}

} // namespace

BENCHMARK(BM_PreparedAgainstAsLoaded)->Unit(benchmark::kMillisecond)->Iterations(5);

// Incremental Weighted recombination (RecombinePatchesOperation::setupRecombinationOutput,
// recombineSinglePatch per patch, finalizeRecombinationOutput) of all 128³ patches of a
// 512 × 512 × 256 one-channel float prediction at patch_step_size 0.5 (7 × 7 × 3 = 147 patches),
// against a plain loop that only adds each patch into one float accumulator at its region, both
// with OpenMP over the slices of a patch, in the same run.
//
// Counters:
//   "plain_ms"      the plain adding loop over all patches (best of the iterations);
//   "weighted_ms"   the recombineSinglePatch calls for all patches (best), window, weights and
//                   bounds checks included;
//   "ratio"         weighted_ms / plain_ms; the target is <= 1.5. The weighted loop writes a
//                   second (weight) accumulator, so it moves 20 bytes per voxel where the plain
//                   loop moves 12: a memory-bound machine cannot go much below 1.67;
//   "finalize_ms"   the normalisation (division by the weights, in place for float);
//   "growth_MiB"    how much the peak resident memory grew during the first setup → patches →
//                   finalize run (getrusage maxrss); "budget_MiB" is the target, the two
//                   accumulators plus two patches (the patches themselves exist before).
// Setup (allocating and zeroing the accumulators) is timed neither here nor in the plain loop.

#include "ml/data/DataItem.h"
#include "ml/operations/catalogue/RecombinePatchesOperation.h"
#include "ml/sampling/SplitROISampler.h"

#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

Eigen::Vector3i const kImage(512, 512, 256);
Eigen::Vector3i const kPatch(128, 128, 128);
constexpr double kStep = 0.5;
constexpr double kMiB = 1024.0 * 1024.0;

double maxRssMiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) * 1024.0 / kMiB; // ru_maxrss is in KiB on Linux
}

std::shared_ptr<SharedImage> patchImage(float base)
{
    auto pixels = TypedImage<float>::create(kPatch, 1);
    float* p = pixels->pointer();
    for (std::size_t i = 0; i < pixels->valueCount(); ++i)
        p[i] = base + static_cast<float>(i % 97);
    return std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
}

// The plain baseline: add the patch's values into the accumulator at its region.
void plainAdd(SharedImage const& patch, RegionOfInterest const& roi, float* accumulator)
{
    float const* source = static_cast<float const*>(patch.mem()->data());
    std::ptrdiff_t const w = kImage.x(), h = kImage.y(), pw = kPatch.x(), ph = kPatch.y();
#pragma omp parallel for schedule(static)
    for (int z = 0; z < kPatch.z(); ++z)
        for (int y = 0; y < kPatch.y(); ++y) {
            float const* src = source + (static_cast<std::ptrdiff_t>(z) * ph + y) * pw;
            float* dst = accumulator +
                         ((static_cast<std::ptrdiff_t>(roi.offset.z()) + z) * h + roi.offset.y() + y) * w +
                         roi.offset.x();
            for (std::ptrdiff_t x = 0; x < pw; ++x)
                dst[x] += src[x];
        }
}

void BM_WeightedRecombinationVsPlainAdd(benchmark::State& state)
{
    // Two distinct patch images stand for the network's outputs, alternating over the layout.
    std::shared_ptr<SharedImage> const patches[2] = {patchImage(1.0F), patchImage(2.0F)};
    DataItem items[2];
    for (int i = 0; i < 2; ++i)
        items[i].set("prediction", std::make_shared<SharedImageSet>(patches[i]));

    // The layout of SplitROISampler, from its per-axis origins.
    std::vector<RegionOfInterest> rois;
    for (int x : patchOrigins(kImage.x(), kPatch.x(), kPatch.x() * kStep))
        for (int y : patchOrigins(kImage.y(), kPatch.y(), kPatch.y() * kStep))
            for (int z : patchOrigins(kImage.z(), kPatch.z(), kPatch.z() * kStep))
                rois.push_back({Eigen::Vector3i(x, y, z), kPatch});
    // The reference stands for the input image, which exists anyway while its prediction is
    // recombined; only its geometry is read.
    ImageDescriptorWorld const grid(ImageDescriptor(PixelType::Float, kImage, 1));
    auto reference = std::make_shared<SharedImageSet>(RecombinePatchesOperation::createAccumulator(grid, 1));

    RecombinePatchesOperation operation(RecombineMode::Weighted);
    double bestPlain = std::numeric_limits<double>::max();
    double bestWeighted = bestPlain, bestFinalize = bestPlain;
    double growth = 0.0;
    bool first = true;
    using Clock = std::chrono::steady_clock;
    auto ms = [](Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); };

    for (auto _ : state) {
        // Weighted first, so that the peak memory it adds is measured before the baseline's
        // accumulator exists.
        double const rssBefore = maxRssMiB();
        {
            operation.setupRecombinationOutput(items[0], reference.get());
            auto const t0 = Clock::now();
            for (std::size_t k = 0; k < rois.size(); ++k)
                operation.recombineSinglePatch(items[k % 2], rois[k]);
            auto const t1 = Clock::now();
            DataItem result = operation.finalizeRecombinationOutput();
            auto const t2 = Clock::now();
            benchmark::DoNotOptimize(result.get("prediction"));
            bestWeighted = std::min(bestWeighted, ms(t1 - t0));
            bestFinalize = std::min(bestFinalize, ms(t2 - t1));
            if (first)
                growth = maxRssMiB() - rssBefore;
        }
        {
            std::unique_ptr<MemImage> accumulator =
                MemImage::zeros(ImageDescriptor(PixelType::Float, kImage, 1));
            auto* values = static_cast<float*>(accumulator->data());
            auto const t0 = Clock::now();
            for (std::size_t k = 0; k < rois.size(); ++k)
                plainAdd(*patches[k % 2], rois[k], values);
            auto const t1 = Clock::now();
            benchmark::DoNotOptimize(values[12345]);
            bestPlain = std::min(bestPlain, ms(t1 - t0));
        }
        first = false;
    }
    double const accumulatorsMiB = 2.0 * static_cast<double>(grid.descriptor().byteSize()) / kMiB;
    double const patchMiB = static_cast<double>(patches[0]->descriptor().byteSize()) / kMiB;
    state.counters["patches"] = static_cast<double>(rois.size());
    state.counters["plain_ms"] = bestPlain;
    state.counters["weighted_ms"] = bestWeighted;
    state.counters["ratio"] = bestWeighted / bestPlain;
    state.counters["finalize_ms"] = bestFinalize;
    state.counters["growth_MiB"] = growth;
    state.counters["budget_MiB"] = accumulatorsMiB + 2.0 * patchMiB;
}

BENCHMARK(BM_WeightedRecombinationVsPlainAdd)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

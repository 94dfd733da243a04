// ImageResamplingAlgorithm (trilinear) on a 256³ float volume, against PyTorch's
// torch.nn.functional.grid_sample on the same values and grids (bench/reference/resample_torch.py,
// run with /usr/bin/python3 in the same process run), both with kThreads threads:
//   Spacing  to 1.5× the spacing (171³ voxels, centre kept);
//   Rotated  onto the same grid turned by 20° about z (256³ voxels).
// Counters: "torch_ms" (torch's best time), "vs_torch" (our time / torch's; the target is <= 0.5),
// "mean" and "torch_mean" (means of the two results, a guard against timing a wrong answer; they
// differ slightly on the rotated grid, where we replicate the edge within half a voxel of the
// border and torch fades to zero there). Debian's torch 1.13 runs the 3D grid_sample of a
// single volume on one thread whatever set_num_threads says (it parallelises over the batch), so
// the ratio compares our two threads with its one; both are given the same thread count.

#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/processing/ImageResamplingAlgorithm.h"

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <Eigen/Geometry>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

using namespace Velmoria;

namespace {

constexpr int kSize = 256;
constexpr int kThreads = 2;
constexpr int kTorchRepeats = 5;

// The benchmark links the host library only; its OpenMP runtime is already loaded with it, so
// the thread count is set through that runtime's own entry point rather than by linking OpenMP
// here as well. OMP_NUM_THREADS cannot be used: the runtime reads it before main().
bool setOpenMpThreads(int threads)
{
    using SetThreads = void (*)(int);
    auto set = reinterpret_cast<SetThreads>(dlsym(RTLD_DEFAULT, "omp_set_num_threads"));
    if (!set)
        return false;
    set(threads);
    return true;
}

std::shared_ptr<SharedImageSet> makeVolume()
{
    auto pixels = TypedImage<float>::zeros(Eigen::Vector3i(kSize, kSize, kSize), 1);
    float* p = pixels->pointer();
    for (int z = 0; z < kSize; ++z)
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x)
                *p++ = static_cast<float>((7 * x + 13 * y + 3 * z) % 251);
    auto set = std::make_shared<SharedImageSet>();
    set->add(std::shared_ptr<Image>(std::move(pixels)));
    return set;
}

struct TorchResult
{
    double ms = 0.0;
    double mean = 0.0;
};

// torch's results by grid name; empty when python or torch is missing.
std::map<std::string, TorchResult> const& torchResults()
{
    static std::map<std::string, TorchResult> const results = [] {
        std::map<std::string, TorchResult> result;
        std::filesystem::path const script =
            std::filesystem::path(__FILE__).parent_path() / "reference" / "resample_torch.py";
        std::string const command = "/usr/bin/python3 '" + script.string() + "' " + std::to_string(kSize) +
                                    " " + std::to_string(kTorchRepeats) + " " + std::to_string(kThreads) +
                                    " 2>/dev/null";
        std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
        if (!pipe)
            return result;
        std::array<char, 256> line{};
        while (std::fgets(line.data(), static_cast<int>(line.size()), pipe.get())) {
            char name[64] = {};
            TorchResult r;
            if (std::sscanf(line.data(), "%63s %lf %lf", name, &r.ms, &r.mean) == 3)
                result[name] = r;
        }
        return result;
    }();
    return results;
}

double meanOf(SharedImageSet const& set)
{
    auto const& image = static_cast<TypedImage<float> const&>(*set.mem(0));
    double sum = 0.0;
    for (std::size_t i = 0; i < image.valueCount(); ++i)
        sum += image.value(i);
    return sum / static_cast<double>(image.valueCount());
}

template <class Configure>
void runResampling(benchmark::State& state, std::string const& name, Configure configure)
{
    auto const& torch = torchResults(); // before our timing, so python does not compete for cores
    if (!setOpenMpThreads(kThreads))
        state.SetLabel("could not set the OpenMP thread count");
    auto const volume = makeVolume();
    ImageResamplingAlgorithm algorithm(volume.get());
    configure(algorithm);
    double total = 0.0;
    std::unique_ptr<SharedImageSet> output;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        algorithm.compute();
        output = algorithm.takeOutputSet();
        total += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        benchmark::DoNotOptimize(output.get());
        state.PauseTiming();
        output.reset(); // freeing the previous result is not part of the next measurement
        state.ResumeTiming();
    }
    double const ours = total / static_cast<double>(state.iterations());
    algorithm.compute();
    output = algorithm.takeOutputSet();
    if (!output) {
        state.SkipWithError("resampling failed");
        return;
    }
    state.counters["mean"] = meanOf(*output);
    if (auto it = torch.find(name); it != torch.end()) {
        state.counters["torch_ms"] = it->second.ms;
        state.counters["torch_mean"] = it->second.mean;
        state.counters["vs_torch"] = ours / it->second.ms;
        std::printf("%s: ours %.1f ms, torch grid_sample %.1f ms, ours/torch %.3f (%.1fx faster)\n",
                    name.c_str(), ours, it->second.ms, ours / it->second.ms, it->second.ms / ours);
    } else
        state.SetLabel("torch baseline unavailable (install python3-torch: scripts/bootstrap --with-bench)");
}

void BM_ResampleSpacing(benchmark::State& state)
{
    runResampling(state, "Spacing", [](ImageResamplingAlgorithm& algorithm) {
        algorithm.setInterpolation(ImageResamplingAlgorithm::InterpolationMode::Linear);
        algorithm.setTargetSpacing(1.5);
    });
}

void BM_ResampleRotated(benchmark::State& state)
{
    runResampling(state, "Rotated", [](ImageResamplingAlgorithm& algorithm) {
        Eigen::Matrix4d turn = Eigen::Matrix4d::Identity();
        turn.topLeftCorner<3, 3>() =
            Eigen::AngleAxisd(20.0 * M_PI / 180.0, Eigen::Vector3d::UnitZ()).toRotationMatrix();
        ImageDescriptorWorld target(ImageDescriptor(PixelType::Float, Eigen::Vector3i(kSize, kSize, kSize)),
                                    turn);
        algorithm.setInterpolation(ImageResamplingAlgorithm::InterpolationMode::Linear);
        algorithm.setTargetDescriptorWorlds({target});
    });
}

} // namespace

BENCHMARK(BM_ResampleSpacing)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ResampleRotated)->Unit(benchmark::kMillisecond)->UseRealTime();

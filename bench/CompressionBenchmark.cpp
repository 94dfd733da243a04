// zstd throughput on image-like data, measured against memcpy of the same bytes in the same run.
//
// The data imitate a 16-bit CT slab: a smooth body with a little noise, as the pipeline's caches
// will store. Counters: bytes per second, the compression ratio, and for each compress or
// decompress run the time relative to memcpy ("vs_memcpy"), so results can be compared across
// noisy machines.

#include "host/core/ByteBuffer.h"
#include "host/core/Compression.h"
#include "host/core/Random.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>

using namespace Velmoria;

namespace {

constexpr int kWidth = 256;
constexpr int kHeight = 256;
constexpr int kSlices = 32;

ByteBuffer makeCtLikeVolume()
{
    ByteBuffer buffer(sizeof(std::int16_t) * kWidth * kHeight * kSlices);
    auto* voxels = reinterpret_cast<std::int16_t*>(buffer.data());
    Random::Generator random(7);
    for (int z = 0; z < kSlices; ++z)
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                double dx = (x - kWidth / 2.0) / (kWidth / 2.5), dy = (y - kHeight / 2.0) / (kHeight / 3.0);
                double inside = dx * dx + dy * dy < 1.0 ? 1.0 : 0.0;
                double value = -1000.0 + inside * (1040.0 + 30.0 * std::sin(0.05 * x + 0.1 * z)) +
                               random.getNormal<double>(0.0, 8.0);
                voxels[(z * kHeight + y) * kWidth + x] = static_cast<std::int16_t>(std::lround(value));
            }
    return buffer;
}

ByteBuffer const& volume()
{
    static ByteBuffer const data = makeCtLikeVolume();
    return data;
}

double memcpySeconds()
{
    static double const seconds = [] {
        ByteBuffer target(volume().size());
        auto start = std::chrono::steady_clock::now();
        constexpr int repetitions = 20;
        for (int i = 0; i < repetitions; ++i) {
            std::memcpy(target.data(), volume().data(), volume().size());
            benchmark::DoNotOptimize(target.data());
            benchmark::ClobberMemory();
        }
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / repetitions;
    }();
    return seconds;
}

void BM_Memcpy(benchmark::State& state)
{
    ByteBuffer target(volume().size());
    for (auto _ : state) {
        std::memcpy(target.data(), volume().data(), volume().size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * volume().size()));
}

void BM_ZstdCompress(benchmark::State& state)
{
    Compression::zstd::Context context;
    int level = static_cast<int>(state.range(0));
    std::size_t compressedSize = 0;
    auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        ByteBuffer compressed = context.compress(volume(), level);
        compressedSize = compressed.size();
        benchmark::DoNotOptimize(compressed.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * volume().size()));
    state.counters["ratio"] = static_cast<double>(volume().size()) / static_cast<double>(compressedSize);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["vs_memcpy"] = seconds / static_cast<double>(state.iterations()) / memcpySeconds();
}

void BM_ZstdDecompress(benchmark::State& state)
{
    Compression::zstd::Context context;
    ByteBuffer compressed = context.compress(volume(), static_cast<int>(state.range(0)));
    auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        ByteBuffer restored = context.decompress(compressed);
        benchmark::DoNotOptimize(restored.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * volume().size()));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["vs_memcpy"] = seconds / static_cast<double>(state.iterations()) / memcpySeconds();
}

} // namespace

BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ZstdCompress)->Arg(1)->Arg(3)->Arg(9)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ZstdDecompress)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond)->UseRealTime();

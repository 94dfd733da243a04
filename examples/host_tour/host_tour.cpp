// A walk through the host framework's core services on the bundled study.xml.
// See README.md beside this file for what each step shows.

#include "host/core/ByteBuffer.h"
#include "host/core/Compression.h"
#include "host/core/Configurable.h"
#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/Parameter.h"
#include "host/core/Progress.h"
#include "host/core/Properties.h"
#include "host/core/PropertiesIO.h"
#include "host/core/Random.h"
#include "host/core/ThreadPool.h"
#include "host/core/Timer.h"
#include "host/core/ValueText.h"

#include <fmt/core.h>

#include <Eigen/Core>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <future>
#include <vector>

using namespace Velmoria;

namespace {

constexpr char const* kCategory = "Host.Tour";

// The settings of a small preparation step: what a developer would put in a processing list.
class StudyPreparation : public Configurable
{
public:
    StudyPreparation() { p_width.addDeprecatedName("window_width"); }

    Parameter<double> p_level{"level", 0.0, this};
    Parameter<double> p_width{"width", 1.0, this};
    Parameter<Eigen::Vector3d> p_targetSpacing{"target_spacing", Eigen::Vector3d(1, 1, 1), this};
    Parameter<Eigen::Vector3i> p_patchSize{"patch_size", Eigen::Vector3i(64, 64, 64), this};
    Parameter<std::vector<std::string>> p_applyTo{"apply_to", {}, this};
    Parameter<int> p_seed{"seed", 0, this};
    Parameter<int> p_patches{"patches", 1, this};
};

struct Volume
{
    Eigen::Vector3i dimensions;
    std::vector<std::int16_t> voxels;
};

// A CT-like slab: air around an elliptic body with soft-tissue texture, one slice per task.
Volume makeVolume(Eigen::Vector3i const& dimensions, Threading::ThreadPool& pool, Progress& progress)
{
    Volume volume{dimensions, std::vector<std::int16_t>(static_cast<std::size_t>(dimensions.prod()))};
    auto task = progress.addTask(dimensions.z(), "Building volume");
    std::vector<std::future<void>> slices;
    for (int z = 0; z < dimensions.z(); ++z)
        slices.push_back(pool.submit([&volume, z] {
            auto const& d = volume.dimensions;
            for (int y = 0; y < d.y(); ++y)
                for (int x = 0; x < d.x(); ++x) {
                    double dx = (x - d.x() / 2.0) / (d.x() / 2.4), dy = (y - d.y() / 2.0) / (d.y() / 3.2);
                    bool inside = dx * dx + dy * dy < 1.0;
                    double value =
                        inside ? 40.0 + 25.0 * std::sin(0.2 * x) * std::cos(0.15 * y + 0.3 * z) : -1000.0;
                    volume.voxels[(static_cast<std::size_t>(z) * d.y() + y) * d.x() + x] =
                        static_cast<std::int16_t>(std::lround(value));
                }
        }));
    for (auto& slice : slices) {
        slice.get();
        task.incrementStep();
    }
    return volume;
}

int run(std::string const& settingsPath)
{
    Timer timer;

    // 1. Settings from XML into a Configurable.
    auto settings = PropertiesIO::loadFromXML(settingsPath);
    if (!settings)
        return 1; // the loader has logged what is wrong with which file
    StudyPreparation preparation;
    preparation.configure(settings.get());
    fmt::print("1. Configured '{}' from {}: level {}, width {}, target spacing [{}], patch size [{}]\n",
               settings->name(), settingsPath, preparation.p_level.value(), preparation.p_width.value(),
               ValueText::toText(preparation.p_targetSpacing.value()),
               ValueText::toText(preparation.p_patchSize.value()));

    // 2. Repeatable random patch origins.
    Random::Generator random(static_cast<std::uint64_t>(preparation.p_seed.value()));
    Eigen::Vector3i const dimensions(256, 192, 64);
    fmt::print("2. {} patch origins from seed {}:", preparation.p_patches.value(),
               preparation.p_seed.value());
    for (int i = 0; i < preparation.p_patches.value(); ++i) {
        Eigen::Vector3i origin;
        for (int axis = 0; axis < 3; ++axis)
            origin[axis] = random.getUniformInteger<int>(
                0, std::max(0, dimensions[axis] - preparation.p_patchSize.value()[axis]));
        fmt::print(" ({})", ValueText::toText(origin));
    }
    fmt::print("\n");

    // 3. Parallel work with progress.
    Threading::ThreadPool pool(0, "Tour");
    TextProgress progress;
    Volume volume = makeVolume(dimensions, pool, progress);
    fmt::print("3. Built a {} volume on {} threads\n", ValueText::toText(volume.dimensions), pool.size());

    // 4. Compression round trip.
    int level = 3;
    if (auto const* output = settings->findSubProperties("Output"))
        output->param("compression_level", level);
    ByteBufferView raw(volume.voxels.data(), volume.voxels.size() * sizeof(std::int16_t));
    Compression::zstd::Context zstd;
    ByteBuffer compressed = zstd.compress(raw, level);
    if (!(zstd.decompress(compressed) == raw)) {
        VELMORIA_LOG_ERROR(kCategory, "The zstd round trip changed the volume");
        return 1;
    }
    fmt::print("4. zstd level {}: {} bytes -> {} bytes (ratio {:.2f}), round trip exact\n", level, raw.size(),
               compressed.size(), static_cast<double>(raw.size()) / static_cast<double>(compressed.size()));

    // 5. Effective configuration written next to the data, read back and compared.
    Filesystem::TemporaryDirectory folder("velmoria-tour");
    Filesystem::Path dataPath = folder.path() / "volume.zst";
    Filesystem::Path configPath = folder.path() / "effective.xml";
    Properties effective("StudyPreparation");
    preparation.configuration(&effective);
    if (!Filesystem::File(dataPath).writeBinary(compressed) ||
        !PropertiesIO::saveToXML(effective, configPath.str()))
        return 1;
    auto reloaded = PropertiesIO::loadFromXML(configPath.str());
    if (!reloaded || !reloaded->compareWith(effective, 255)) {
        VELMORIA_LOG_ERROR(kCategory, "The configuration read back from {} differs from the one written",
                           configPath.str());
        return 1;
    }
    fmt::print("5. Wrote and re-read {} ({} parameters, identical)\n", configPath.fileName(),
               reloaded->params().size());
    fmt::print("{}", PropertiesIO::saveToXMLString(effective));
    fmt::print("Done in {}\n", timer.formatPassed());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    // Line-buffered, so that results and the progress lines on standard error keep their order.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string settingsPath = argc > 1 ? argv[1] : VELMORIA_TOUR_DEFAULT_SETTINGS;
    try {
        return run(settingsPath);
    } catch (std::exception const& error) {
        VELMORIA_LOG_ERROR(kCategory, "Failed on {}: {}", settingsPath, error.what());
        return 1;
    }
}

// The whole `velmoria predict` job on a 256 × 256 × 160 CT-like volume with a 3D segmentation
// network in 96³ patches at patch_step_size 0.5 (5 × 5 × 3 = 75 patches), Weighted
// recombination, Softmax and ArgMax: read the NIfTI file, predict, write the label map. The
// baseline is the time inside the engine (LibTorch running the network, tensor conversion
// included), measured in the same run; the target is that everything else together stays
// within 10 % of it.
//
// Counters (milliseconds unless said otherwise):
//   "read_ms", "preprocessing_ms", "splitting_ms", "engine_ms", "recombination_ms",
//   "postprocessing_ms", "write_ms"  the stages (MachineLearningModel::lastTimings and the
//                                     file reads and writes around it);
//   "outside_ms"     everything but the engine: reading, the model's own stages and bookkeeping,
//                    writing;
//   "outside_pct"    outside_ms as a percentage of engine_ms; the target is <= 10;
//   "engine_runs"    the number of engine calls (one per patch).
//
// The network is the demo's (examples/demo); set VELMORIA_BENCH_MODEL to a TorchScript file to
// measure another one taking [n, 1, D, H, W] and giving [n, K, D, H, W].

#include "engines/torch/TorchEngine.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/model/Engine.h"
#include "ml/model/MachineLearningModel.h"
#include "ml/plugin/Registrations.h"

#include "host/core/Filesystem.h"
#include "host/core/Timer.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/io/ImageFiles.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

Eigen::Vector3i const kImage(256, 256, 160);

std::string modelFile()
{
    if (char const* chosen = std::getenv("VELMORIA_BENCH_MODEL"))
        return chosen;
    return std::string(VELMORIA_SOURCE_DIR) + "/examples/demo/demo-segmenter.pt";
}

std::string modelYaml(std::string const& network)
{
    return "Version: 8\n"
           "Name: Prediction benchmark\n"
           "Type: NeuralNetwork\n"
           "MaxBatchSize: 1\n"
           "PreprocessingInputFields: [image]\n"
           "PredictionOutput: [Image]\n"
           "PredictionType: [Classification]\n"
           "Engine:\n"
           "  Name: torch\n"
           "  ModelFile: " +
           network +
           "\n"
           "  InputFields: [image]\n"
           "  OutputFields: [Prediction]\n"
           "PreProcessing:\n"
           "  - MakeFloat: {}\n"
           "  - NormalizeNormal: {}\n"
           "  - SplitIntoPatches: {patch_size: [96, 96, 96], patch_step_size: 0.5, padding_mode: Mirror}\n"
           "PostProcessing:\n"
           "  - RecombinePatches: {mode: Weighted}\n"
           "  - Softmax: {}\n"
           "  - ArgMax: {}\n";
}

// A body-like ellipsoid of soft tissue around -1000 HU air, with a few bright blobs and a
// deterministic texture, stored as int16 with a 0.8 × 0.8 × 1.5 mm grid.
std::unique_ptr<SharedImageSet> syntheticVolume()
{
    auto pixels = TypedImage<short>::create(kImage, 1);
    short* p = pixels->pointer();
    Eigen::Vector3d const centre = (kImage.cast<double>() - Eigen::Vector3d::Ones()) / 2.0;
#pragma omp parallel for
    for (int z = 0; z < kImage.z(); ++z)
        for (int y = 0; y < kImage.y(); ++y)
            for (int x = 0; x < kImage.x(); ++x) {
                Eigen::Vector3d const d =
                    (Eigen::Vector3d(x, y, z) - centre).cwiseQuotient(Eigen::Vector3d(110, 90, 70));
                double value = d.squaredNorm() < 1.0 ? 40.0 : -1000.0;
                if ((Eigen::Vector3d(x, y, z) - Eigen::Vector3d(150, 120, 80)).norm() < 18)
                    value = 250.0;
                value += 15.0 * std::sin(0.37 * x + 0.21 * y) * std::cos(0.29 * z);
                p[(static_cast<std::size_t>(z) * kImage.y() + y) * kImage.x() + x] =
                    static_cast<short>(value);
            }
    auto image = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    image->setSpacing(Eigen::Vector3d(0.8, 0.8, 1.5));
    auto set = std::make_unique<SharedImageSet>();
    set->add(image);
    return set;
}

void BM_PredictWholeJob(benchmark::State& state)
{
    registerOperations();
    EngineFactory& engines = getCppEngineFactory();
    if (!engines.hasType("torch"))
        engines.registerType<TorchEngine>("torch", makeInitializedEngine<TorchEngine>);

    std::string const network = modelFile();
    if (!Filesystem::File(Filesystem::Path(network)).exists()) {
        state.SkipWithError(("no network at " + network + " (set VELMORIA_BENCH_MODEL)").c_str());
        return;
    }
    Filesystem::TemporaryDirectory folder("predict-bench");
    std::string const yamlPath = (folder.path().stdPath() / "model.yaml").string();
    std::string const inputPath = (folder.path().stdPath() / "input.nii.gz").string();
    std::string const outputPath = (folder.path().stdPath() / "prediction.nii.gz").string();
    std::ofstream(yamlPath) << modelYaml(network);
    if (!ImageFiles::write(*syntheticVolume(), inputPath)) {
        state.SkipWithError("could not write the input volume");
        return;
    }
    auto model = MachineLearningModel::create(yamlPath, PredictionOutput::Image);
    if (!model) {
        state.SkipWithError("could not load the model");
        return;
    }

    PredictionTimings timings;
    double readMs = 0;
    double writeMs = 0;
    for (auto _ : state) {
        Timer reading;
        std::shared_ptr<SharedImageSet> input = ImageFiles::read(inputPath);
        readMs = reading.getPassedMs();
        DataItem item;
        item.set("image", input);
        DataItem const prediction = model->predict(item);
        auto const* labels = prediction.get<ImageElement>("Prediction");
        if (!labels) {
            state.SkipWithError("the model gave no prediction");
            return;
        }
        Timer writing;
        if (!ImageFiles::write(*labels->sis(), outputPath)) {
            state.SkipWithError("could not write the prediction");
            return;
        }
        writeMs = writing.getPassedMs();
        timings = model->lastTimings();
    }
    double const outside = readMs + timings.outsideEngineMs() + writeMs;
    state.counters["read_ms"] = readMs;
    state.counters["preprocessing_ms"] = timings.preprocessingMs;
    state.counters["splitting_ms"] = timings.splittingMs;
    state.counters["engine_ms"] = timings.engineMs;
    state.counters["recombination_ms"] = timings.recombinationMs;
    state.counters["postprocessing_ms"] = timings.postprocessingMs;
    state.counters["write_ms"] = writeMs;
    state.counters["outside_ms"] = outside;
    state.counters["outside_pct"] = timings.engineMs > 0 ? 100.0 * outside / timings.engineMs : 0.0;
    state.counters["engine_runs"] = static_cast<double>(timings.engineRuns);
}

// One iteration: a run takes minutes on a small machine, and the ratio is what matters.
BENCHMARK(BM_PredictWholeJob)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

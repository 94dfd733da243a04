// velmoria-demo-dice: Dice overlap per label between a predicted and a reference label map.
//
//   velmoria-demo-dice PREDICTION REFERENCE [--model MODEL.yaml | --labels a,b,c] [--min-dice D]
//
// Prints one line per label value present in either image: the value, its name and the Dice
// coefficient 2·|P ∩ R| / (|P| + |R|), with the voxel counts. Names come from the model file's
// LabelNames (the first output field's list when it is a block) or from --labels; entry i names
// label value i. Exit codes: 0 success, 1 a file that cannot be read, images whose frame count,
// size or channel count differ (the message names both files), or with --min-dice a label
// other than 0 that scores below D; 2 usage. Images on different world grids (spacing or
// placement) are still scored, voxel by voxel, with a warning: a prediction that lost its
// geometry is a fault worth seeing, but its overlap still says something.
//
// The demo needs a score before the library's metrics exist; this stays a small stand-alone
// program on purpose, so that it checks the prediction without sharing code with what made it.
// Label values are compared after rounding to the nearest integer, so a label map stored as
// float scores the same as one stored as uint8.

#include "host/image/MemImage.h"
#include "host/image/PixelType.h"
#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/io/ImageFiles.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <yaml-cpp/yaml.h>

#include <Eigen/Core>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Counts
{
    std::size_t prediction = 0;
    std::size_t reference = 0;
    std::size_t both = 0;
};

// The label values of one single-channel frame, rounded to integers.
std::vector<std::int64_t> labelValues(Velmoria::MemImage const& image)
{
    std::vector<std::int64_t> values(image.valueCount());
    Velmoria::visitPixelType(image.type(), [&](auto tag) {
        using T = decltype(tag);
        auto const* pixels = static_cast<Velmoria::TypedImage<T> const&>(image).pointer();
        for (std::size_t i = 0; i < values.size(); ++i)
            values[i] = static_cast<std::int64_t>(std::llround(static_cast<double>(pixels[i])));
    });
    return values;
}

// LabelNames of a model file: a flat list, or a block of lists per output field (the first is
// taken: the demo model has one output). Empty with a message when the file has none.
bool readLabelNames(std::string const& modelPath, std::vector<std::string>& names)
{
    try {
        YAML::Node const labels = YAML::LoadFile(modelPath)["LabelNames"];
        YAML::Node list = labels;
        if (labels && labels.IsMap() && labels.size() > 0)
            list = labels.begin()->second;
        if (!list || !list.IsSequence()) {
            std::cerr << "Model file '" << modelPath
                      << "' has no LabelNames list; labels are shown by value\n";
            return true;
        }
        for (auto const& entry : list)
            names.push_back(entry.as<std::string>());
        return true;
    } catch (YAML::Exception const& e) {
        std::cerr << "Could not read LabelNames from model file '" << modelPath << "': " << e.what() << "\n";
        return false;
    }
}

bool sameGrid(Velmoria::SharedImage const& a, Velmoria::SharedImage const& b)
{
    constexpr double tolerance = 1e-4; // mm: far below any real spacing, above float round trips
    return (a.spacing() - b.spacing()).cwiseAbs().maxCoeff() < tolerance &&
           (a.matrixToWorld() - b.matrixToWorld()).cwiseAbs().maxCoeff() < tolerance;
}

std::string frameShape(Velmoria::MemImage const& image)
{
    return std::to_string(image.width()) + "x" + std::to_string(image.height()) + "x" +
           std::to_string(image.slices()) + " (" + std::to_string(image.channels()) + " channel(s))";
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Dice overlap per label between a predicted and a reference label map",
                 "velmoria-demo-dice"};
    std::string predictionPath, referencePath, modelPath;
    std::vector<std::string> names;
    double minDice = -1.0;
    app.add_option("prediction", predictionPath, "predicted label map")->required();
    app.add_option("reference", referencePath, "reference (ground-truth) label map")->required();
    auto* model = app.add_option("--model", modelPath, "model file whose LabelNames name the labels");
    app.add_option("--labels", names, "label names, entry i naming value i")->delimiter(',')->excludes(model);
    app.add_option("--min-dice", minDice, "fail (exit 1) when a label other than 0 scores below this")
        ->check(CLI::Range(0.0, 1.0));
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    if (!modelPath.empty() && !readLabelNames(modelPath, names))
        return 1;

    auto const prediction = Velmoria::ImageFiles::read(predictionPath);
    auto const reference = Velmoria::ImageFiles::read(referencePath);
    if (!prediction || !reference) {
        for (auto const* path :
             {prediction ? nullptr : &predictionPath, reference ? nullptr : &referencePath})
            if (path)
                std::cerr << "Could not read '" << *path << "'\n";
        return 1;
    }
    if (prediction->size() != reference->size()) {
        std::cerr << "'" << predictionPath << "' has " << prediction->size() << " frame(s) but '"
                  << referencePath << "' has " << reference->size() << "\n";
        return 1;
    }

    std::map<std::int64_t, Counts> counts;
    for (int frame = 0; frame < prediction->size(); ++frame) {
        auto const* p = prediction->mem(frame);
        auto const* r = reference->mem(frame);
        if (!p || !r || p->dimensions() != r->dimensions() || p->channels() != 1 || r->channels() != 1) {
            std::cerr << "Sizes differ: '" << predictionPath << "' is "
                      << (p ? frameShape(*p) : "not in memory") << ", '" << referencePath << "' is "
                      << (r ? frameShape(*r) : "not in memory")
                      << "; both must be single-channel label maps of one size\n";
            return 1;
        }
        if (!sameGrid(*prediction->get(frame), *reference->get(frame)))
            std::cerr << "Warning: '" << predictionPath << "' and '" << referencePath
                      << "' differ in spacing or placement; comparing voxel by voxel\n";
        auto const predicted = labelValues(*p);
        auto const truth = labelValues(*r);
        for (std::size_t i = 0; i < predicted.size(); ++i) {
            ++counts[predicted[i]].prediction;
            ++counts[truth[i]].reference;
            if (predicted[i] == truth[i])
                ++counts[truth[i]].both;
        }
    }

    bool belowMinimum = false;
    for (auto const& [value, c] : counts) {
        bool const named = value >= 0 && static_cast<std::size_t>(value) < names.size();
        std::string const name =
            named ? names[static_cast<std::size_t>(value)] : "label " + std::to_string(value);
        // Present in either image, so the denominator is never 0.
        double const dice =
            2.0 * static_cast<double>(c.both) / static_cast<double>(c.prediction + c.reference);
        std::printf("%4lld  %-16s Dice %.4f  (prediction %zu voxels, reference %zu)\n",
                    static_cast<long long>(value), name.c_str(), dice, c.prediction, c.reference);
        if (value != 0 && dice < minDice) {
            std::fprintf(stderr, "Label %lld (%s) scores Dice %.4f, below the minimum %.4f\n",
                         static_cast<long long>(value), name.c_str(), dice, minDice);
            belowMinimum = true;
        }
    }
    return belowMinimum ? 1 : 0;
}

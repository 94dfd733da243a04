// velmoria-consumer: a program of its own that uses the installed Velmoria package.
//
//   velmoria-consumer <image> <model.yaml> <output>
//
// It loads the plug-ins that ship with the package, reads an image, runs a processing list built
// from YAML text in code (the same list a file would hold), then runs a model on the original
// image and writes the model's first output field. Exit code 0 on success, 1 on failure; the
// library's log says why.

#include "ml/data/DataItem.h"
#include "ml/data/SISBasedElement.h"
#include "ml/model/MachineLearningModel.h"
#include "ml/operations/OperationsSequence.h"
#include "ml/operations/ProcessingSpecs.h"
#include "ml/operations/PropertiesYAML.h"

#include "host/image/SharedImageSet.h"
#include "host/io/FileLoader.h"
#include "host/io/ImageFiles.h"
#include "host/plugin/PluginManager.h"

#include <iostream>
#include <memory>

namespace {

// Any processing list of the docs works here; this one makes a float copy and scales it to
// [0, 1] (the kind of step a training pipeline would run).
constexpr char const* kProcessingList = R"(
- MakeFloat: {}
- NormalizeUniform:
    min: 0
    max: 1
)";

} // namespace

int main(int argc, char** argv)
{
    using namespace Velmoria;
    if (argc != 4) {
        std::cerr << "usage: velmoria-consumer <image> <model.yaml> <output>\n";
        return 1;
    }

    // 1. The plug-ins that ship with the package: the ML library's operations and the engines.
    PluginManager plugins;
    if (!plugins.load(PluginManager::searchFolders({}, PluginManager::bundledFolder())).ok())
        return 1;

    // 2. An image file, through the host's loader (any format it reads, DICOM folders included).
    std::shared_ptr<SharedImageSet> image = IO::FileLoader::load(argv[1]).extractFirstImage();
    if (!image)
        return 1;

    // 3. A processing list from YAML text.
    auto const tree = ML::PropertiesYAML::createFromString(kProcessingList);
    if (!tree)
        return 1;
    ML::OperationsSequence sequence(ML::propertyToProcessingSpecs(*tree));
    if (sequence.error()) {
        std::cerr << "processing list: " << sequence.error()->message << '\n';
        return 1;
    }
    ML::DataItem processed;
    processed.set("image", image->clone());
    if (auto const error = sequence.process(processed, ML::Phase::Inference)) {
        std::cerr << "processing: " << error->message << '\n';
        return 1;
    }
    std::cout << "processed: " << processed.get<ML::SISBasedElement>("image")->sis()->size()
              << " frame(s) scaled to [0, 1]\n";

    // 4. A model file and a prediction on the original image.
    auto model = ML::MachineLearningModel::create(argv[2], ML::PredictionOutput::Image);
    if (!model)
        return 1;
    ML::DataItem input;
    input.set(model->config()->preprocessingInputFields().front(), image);
    ML::DataItem const prediction = model->predict(input);
    if (prediction.empty())
        return 1;
    auto const& field = model->config()->engineOutputFields().front();
    auto const* output = prediction.get<ML::SISBasedElement>(field);
    if (!output || !ImageFiles::write(*output->sis(), argv[3]))
        return 1;
    std::cout << "wrote field '" << field << "' to " << argv[3] << '\n';
    return 0;
}

#include "host/io/IoAlgorithms.h"

#include "host/algorithm/AlgorithmFactory.h"
#include "host/algorithm/FactoryRegistry.h"
#include "host/io/ImageFileIoAlgorithm.h"

namespace Velmoria::ImageFiles {

namespace {

// A hand-made descriptor rather than registerAlgorithm<T>: one class serves every format, so
// the format travels in the lambdas instead of in a static member of a class per format.
AlgorithmFactory::Descriptor descriptorFor(ImageFormat format, bool seriesFolder)
{
    AlgorithmFactory::Descriptor d;
    d.id = ImageFileIoAlgorithm::algorithmId(format, seriesFolder);
    d.menuPath = "File;" + formatName(format) + (seriesFolder ? " folder" : "");
    d.attributes = AlgorithmFactory::Descriptor::AlgorithmAttributes::NoInputRequired;
    d.isIo = true;
    d.isCompatible = [format, seriesFolder](DataList const& data) {
        return ImageFileIoAlgorithm::createCompatible(format, seriesFolder, data, nullptr);
    };
    d.creator = [format, seriesFolder](DataList const& data) -> std::unique_ptr<Algorithm> {
        Algorithm* algorithm = nullptr;
        ImageFileIoAlgorithm::createCompatible(format, seriesFolder, data, &algorithm);
        return std::unique_ptr<Algorithm>(algorithm);
    };
    return d;
}

AlgorithmFactory& createFactory()
{
    // The registry is created first so that it outlives the factory, whose destructor removes
    // itself from it at exit.
    FactoryRegistry::get();
    static AlgorithmFactory factory("IO");
    for (ImageFormat const format : allImageFormats())
        factory.addDescriptor(descriptorFor(format, false));
    factory.addDescriptor(descriptorFor(ImageFormat::Dicom, true));
    return factory;
}

} // namespace

AlgorithmFactory& ioAlgorithmFactory()
{
    static AlgorithmFactory& factory = createFactory(); // thread-safe initialisation
    // Adding is idempotent: a factory already in the registry stays where it is.
    FactoryRegistry::get().addFactory(&factory);
    return factory;
}

void registerIoAlgorithms()
{
    ioAlgorithmFactory();
}

} // namespace Velmoria::ImageFiles

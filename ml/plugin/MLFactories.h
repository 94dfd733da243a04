#pragma once

// The three factories through which the host learns what the library offers: algorithms (with
// their menu paths), the controllers that show them, and descriptions, icons and copies of the
// library's data classes (KeypointSet, BoundingBoxSet, TensorSet, DataItem).

#include "host/algorithm/AlgorithmFactory.h"
#include "host/algorithm/Controller.h"
#include "host/plugin/DataAnnotationFactory.h"

namespace Velmoria {

// Registers the library's algorithms under the category "ML". It has no algorithm yet: the rows
// arrive with the model, metric and sequence algorithms.
class MLAlgorithmFactory : public AlgorithmFactory
{
public:
    MLAlgorithmFactory();
};

// Picks the controller of an algorithm by its class; null for algorithms it does not know.
class MLAlgorithmControllerFactory : public AlgorithmControllerFactory
{
public:
    std::unique_ptr<AlgorithmController> create(Algorithm* algorithm) const override;
};

class MLAnnotationFactory : public DataAnnotationFactory
{
public:
    MLAnnotationFactory();

    // This library creates no annotations: null and an empty list.
    std::unique_ptr<Data> createDataAnnotation(std::string const& name, Data& data) const override;
    std::vector<std::string> compatibleDataAnnotations(Data& data) const override;
    // "KeypointSet", "BoundingBoxSet", "TensorSet", "DataItem"; empty for other data.
    std::string dataDescription(Data const& data) const override;
    // ":/KeypointSet.svg", ":/BoundingBoxSet.svg", ":/TensorSet.svg", "IconImageSet.png".
    std::string dataIconPath(Data const& data) const override;
    // A deep copy of the four classes (a data item by clone); null for anything else.
    std::unique_ptr<Data> cloneData(Data const* data) const override;
};

} // namespace Velmoria

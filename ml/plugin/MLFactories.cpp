#include "ml/plugin/MLFactories.h"

#include "ml/data/BoundingBoxSet.h"
#include "ml/data/DataItem.h"
#include "ml/data/KeypointSet.h"
#include "ml/data/TensorSet.h"

namespace Velmoria {

using ML::BoundingBoxSet;
using ML::DataItem;
using ML::KeypointSet;
using ML::TensorSet;

MLAlgorithmFactory::MLAlgorithmFactory()
    : AlgorithmFactory("ML", true)
{}

std::unique_ptr<AlgorithmController> MLAlgorithmControllerFactory::create(Algorithm* /*algorithm*/) const
{
    return nullptr;
}

MLAnnotationFactory::MLAnnotationFactory()
    : DataAnnotationFactory("DataAnnotation")
{}

std::unique_ptr<Data> MLAnnotationFactory::createDataAnnotation(std::string const& /*name*/,
                                                                Data& /*data*/) const
{
    return nullptr;
}

std::vector<std::string> MLAnnotationFactory::compatibleDataAnnotations(Data& /*data*/) const
{
    return {};
}

std::string MLAnnotationFactory::dataDescription(Data const& data) const
{
    if (dynamic_cast<KeypointSet const*>(&data))
        return "KeypointSet";
    if (dynamic_cast<BoundingBoxSet const*>(&data))
        return "BoundingBoxSet";
    if (dynamic_cast<TensorSet const*>(&data))
        return "TensorSet";
    if (dynamic_cast<DataItem const*>(&data))
        return "DataItem";
    return {};
}

std::string MLAnnotationFactory::dataIconPath(Data const& data) const
{
    if (dynamic_cast<KeypointSet const*>(&data))
        return ":/KeypointSet.svg";
    if (dynamic_cast<BoundingBoxSet const*>(&data))
        return ":/BoundingBoxSet.svg";
    if (dynamic_cast<TensorSet const*>(&data))
        return ":/TensorSet.svg";
    if (dynamic_cast<DataItem const*>(&data))
        return "IconImageSet.png";
    return {};
}

std::unique_ptr<Data> MLAnnotationFactory::cloneData(Data const* data) const
{
    if (auto const* keypoints = dynamic_cast<KeypointSet const*>(data))
        return keypoints->clone();
    if (auto const* boxes = dynamic_cast<BoundingBoxSet const*>(data))
        return boxes->clone();
    if (auto const* tensors = dynamic_cast<TensorSet const*>(data))
        return tensors->clone(true);
    if (auto const* item = dynamic_cast<DataItem const*>(data))
        return std::make_unique<DataItem>(item->clone(ML::DataElement::CloneOptions::Deep));
    return nullptr;
}

} // namespace Velmoria

#pragma once

// Small concrete operations and a data item with one field of every element kind, shared by the
// tests of the operation framework. The operations do trivial, checkable work (add to pixels,
// move points) so that tests can see exactly which elements were processed.

#include "ml/data/BoundingBoxSet.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/data/KeypointSet.h"
#include "ml/data/Tensor.h"
#include "ml/data/TensorSet.h"
#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <memory>
#include <string>
#include <vector>

namespace Velmoria::MLTest {

using ML::AdvancedParameter;
using ML::Operation;
using ML::ParamRequired;

// Adds `amount` to every float pixel of image and vector elements, in place.
class AddOneOperation : public Operation
{
public:
    AddOneOperation()
        : Operation("AddOne", ProcessingPolicy::EverythingButLabels)
    {}

    AdvancedParameter<double, Operation> p_amount = {"amount", 1.0, this, ParamRequired::No, "value"};
    AdvancedParameter<ML::ParamUnit, Operation> p_unit = {"unit",
                                                          ML::ParamUnit::MM,
                                                          this,
                                                          ParamRequired::No,
                                                          ML::paramUnitToString,
                                                          ML::stringToParamUnit,
                                                          {"MM", "Fraction", "Voxel"}};

    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override
    {
        if (inputIsEmptyOrNull(sis.get()))
            return sis;
        prepareInputForDevice(*sis);
        for (auto const& frame : sis->images()) {
            auto* pixels = static_cast<float*>(frame->mem()->data());
            for (std::size_t i = 0; i < frame->mem()->valueCount(); ++i)
                pixels[i] += static_cast<float>(p_amount.value());
        }
        return sis;
    }
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> sis) const override
    {
        return processImages(std::move(sis));
    }

    // The protected helpers, for the tests.
    using Operation::configureOnly;
    using Operation::prepareInputForDevice;
    using Operation::randomGenerator;
    using Operation::setManuallyConfiguredParameters;
    using Operation::setRequiredItemsTypes;
    using Operation::useGPU;
};

// Implements only processPoints: moves every keypoint by +1 along x.
class ShiftPointsOperation : public Operation
{
public:
    ShiftPointsOperation()
        : Operation("ShiftPoints", ProcessingPolicy::Everything)
    {}

    std::shared_ptr<ML::KeypointSet> processPoints(std::shared_ptr<ML::KeypointSet> keypoints) const override
    {
        for (auto& frame : keypoints->keypoints())
            for (auto& channel : frame)
                for (auto& point : channel)
                    point.x() += 1.0;
        return keypoints;
    }
};

// Implements nothing: every element reaches a base version.
class NothingOperation : public Operation
{
public:
    NothingOperation()
        : Operation("Nothing", ProcessingPolicy::Everything)
    {}
};

// Returns every content unchanged; used to watch selection through hooks.
class PassOperation : public Operation
{
public:
    explicit PassOperation(ProcessingPolicy policy = ProcessingPolicy::Everything)
        : Operation("Pass", policy)
    {}

    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override
    {
        return sis;
    }
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> sis) const override
    {
        return sis;
    }
    std::shared_ptr<ML::BoundingBoxSet> processBoxes(std::shared_ptr<ML::BoundingBoxSet> boxes) const override
    {
        return boxes;
    }
    std::shared_ptr<ML::KeypointSet> processPoints(std::shared_ptr<ML::KeypointSet> keypoints) const override
    {
        return keypoints;
    }
    std::shared_ptr<ML::TensorSet> processTensors(std::shared_ptr<ML::TensorSet> tensors) const override
    {
        return tensors;
    }
};

inline std::shared_ptr<ML::KeypointSet> makeKeypoints()
{
    return std::make_shared<ML::KeypointSet>(
        ML::KeypointSet::Keypoints{{{Eigen::Vector3d(1, 2, 3), Eigen::Vector3d(4, 5, 6)}}});
}

inline std::shared_ptr<ML::BoundingBoxSet> makeBoxes()
{
    return std::make_shared<ML::BoundingBoxSet>(
        ML::BoundingBoxSet::Boxes{{{ML::Box{Eigen::Vector3d(1, 1, 1), Eigen::Vector3d(2, 2, 2)}}}});
}

inline std::shared_ptr<ML::TensorSet> makeTensors()
{
    float const values[] = {1.0F, 2.0F};
    return std::make_shared<ML::TensorSet>(std::make_shared<ML::Tensor>(ML::Tensor::Shape{2}, values));
}

// Fields in this order: "image", "vector", "label" (a target image), "kpts", "boxes", "tensor",
// "label_kpts" (target keypoints). Every field holds one sample.
inline ML::DataItem makeFullItem()
{
    ML::DataItem item;
    item.set("image", makeSet(1));
    item.set("vector", makeVectorSet(1));
    item.set("label", makeSet(1));
    item.get("label")->tagAsTarget();
    item.set("kpts", makeKeypoints());
    item.set("boxes", makeBoxes());
    item.set("tensor", makeTensors());
    item.set("label_kpts", makeKeypoints());
    item.get("label_kpts")->tagAsTarget();
    return item;
}

// A one-frame set of `type` with `channels` channels and the given size.
template <class T>
std::shared_ptr<SharedImageSet> makeTypedSet(Eigen::Vector3i const& size, int channels)
{
    auto image = TypedImage<T>::zeros(size, channels);
    return std::make_shared<SharedImageSet>(
        std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(image))));
}

} // namespace Velmoria::MLTest

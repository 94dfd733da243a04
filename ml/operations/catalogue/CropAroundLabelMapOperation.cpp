#include "ml/operations/catalogue/CropAroundLabelMapOperation.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/LabelMap.h"
#include "ml/operations/catalogue/ImageResampler.h"

#include "host/algorithm/AlgorithmUtils.h"
#include "host/image/SharedImageSet.h"
#include "host/processing/CropLabelMapAlgorithm.h"

#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace Velmoria::ML {

namespace {

bool sameFrameSizes(SharedImageSet const& a, SharedImageSet const& b)
{
    if (a.size() != b.size())
        return false;
    for (int i = 0; i < a.size(); ++i)
        if (a.get(i)->dimensions() != b.get(i)->dimensions())
            return false;
    return true;
}

} // namespace

CropAroundLabelMapOperation::CropAroundLabelMapOperation(std::vector<int> labelValues, int margin,
                                                         bool reorder)
    : Operation("CropAroundLabelMap", ProcessingPolicy::Everything)
{
    p_labelValues.setValue(std::move(labelValues));
    p_margin.setValue(margin);
    p_reorder.setValue(reorder);
}

void CropAroundLabelMapOperation::process(DataItem& item)
{
    std::optional<FieldSet> const selected = selectedFields(item);
    std::vector<ImageElement*> images;
    for (auto const& [name, element] : item.elements()) {
        if (!element || (selected && !selected->contains(name)))
            continue;
        if (auto* image = dynamic_cast<ImageElement*>(element.get()); image && image->sis())
            images.push_back(image);
    }

    int labelIndex = -1;
    for (int i = 0; i < static_cast<int>(images.size()); ++i) {
        if (isSemanticSegmentationMap(images[static_cast<std::size_t>(i)]->sis().get())) {
            labelIndex = i;
            break;
        }
    }
    if (labelIndex < 0)
        throwOperationError("No label map (an image element of modality Label) among the selected fields");

    std::shared_ptr<SharedImageSet> const labelMap = images[static_cast<std::size_t>(labelIndex)]->sis();
    std::vector<SharedImageSet const*> further;
    for (int i = 0; i < static_cast<int>(images.size()); ++i) {
        if (i == labelIndex)
            continue;
        SharedImageSet const& other = *images[static_cast<std::size_t>(i)]->sis();
        if (!sameFrameSizes(other, *labelMap))
            throwOperationError("Image size must match label size");
        further.push_back(&other);
    }

    CropLabelMapAlgorithm crop(labelMap.get());
    crop.setFurtherInputs(further);
    crop.setLabelMapPosition(labelIndex);
    crop.setLabelValues(p_labelValues.value());
    crop.setMargin(p_margin.value());
    crop.setReorder(p_reorder.value());
    if (!AlgorithmUtils::execute(crop))
        throwOperationError("CropLabelMapAlgorithm failed");
    std::vector<std::unique_ptr<SharedImageSet>> outputs = crop.takeOutputSets();
    if (outputs.size() != images.size())
        throwOperationError("CropLabelMapAlgorithm failed");

    // An image element cannot hold a single pixel (that is a vector element); refused here, before
    // any element changes, rather than by the first element that would take it.
    for (auto const& output : outputs)
        for (auto const& frame : output->images())
            if (frame->dimensions().maxCoeff() < 2)
                throwOperationError(
                    "The box around the labels is a single pixel, which an image element cannot "
                    "hold; give a margin");

    // Back to input order: with reorder the label map comes first, the others follow in order.
    if (p_reorder.value() && labelIndex > 0) {
        std::unique_ptr<SharedImageSet> label = std::move(outputs.front());
        outputs.erase(outputs.begin());
        outputs.insert(outputs.begin() + labelIndex, std::move(label));
    }
    for (std::size_t i = 0; i < images.size(); ++i) {
        applyPreProcessHooks(images[i]);
        images[i]->setContent(std::shared_ptr<SharedImageSet>(std::move(outputs[i])));
        applyPostProcessHooks(images[i]);
    }
    oneShotPreProcessHooks().clear();
    oneShotPostProcessHooks().clear();
}

} // namespace Velmoria::ML

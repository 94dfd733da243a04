#include "ml/operations/catalogue/SetSpacingOperation.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"

#include "host/image/ImageDescriptor.h"
#include "host/image/SharedImageSet.h"

#include <cmath>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace Velmoria::ML {

namespace {

// Same dimensions, spacing, orientation and position: the images cover the same voxels.
constexpr int kSameGrid = ImageDescriptor::CompareOrientation | ImageDescriptor::CompareDimensions |
                          ImageDescriptor::ComparePosition | ImageDescriptor::CompareSpacing;
static_assert(kSameGrid == 113);

// Ratios this close to 1 count as 1 (the z spacing of a 2D image may have been written and read
// back as text).
constexpr double kRatioTolerance = 1e-9;

} // namespace

SetSpacingOperation::SetSpacingOperation(Eigen::Vector3d const& spacing)
    : Operation("SetSpacing", ProcessingPolicy::Everything)
{
    p_spacing.setValue(spacing);
}

void SetSpacingOperation::process(DataItem& item)
{
    std::optional<FieldSet> const selected = selectedFields(item);
    std::vector<std::shared_ptr<DataElement>> elements;
    std::vector<ImageElement*> images;
    for (auto const& [name, element] : item.elements()) {
        if (!element || (selected && !selected->contains(name)))
            continue;
        elements.push_back(element);
        if (auto* image = dynamic_cast<ImageElement*>(element.get()))
            images.push_back(image);
    }

    if (images.empty())
        throwOperationError("SetSpacingOperation requires at least one image element");
    for (auto const& element : elements)
        if (element->batchSize() != elements.front()->batchSize())
            throwOperationError(
                "SetSpacingOperation requires all active data elements to have the same batch size");
    if (images.front()->batchSize() != 1)
        throwOperationError("SetSpacingOperation requires batch size 1 for image element");
    ImageDescriptorWorld const grid = images.front()->sis()->get(0)->descriptorWorld();
    for (ImageElement const* image : images)
        if (!image->sis()->get(0)->descriptorWorld().isApprox(grid, kSameGrid))
            throwOperationError(
                "SetSpacingOperation requires all image elements to have the same descriptor world");

    Eigen::Vector3d const spacing = p_spacing.value();
    Eigen::Vector3d const ratio = spacing.cwiseQuotient(grid.descriptor().spacing);
    if (grid.descriptor().slices == 1 && std::abs(ratio.z() - 1.0) > kRatioTolerance)
        throwOperationError("SetSpacingOperation requires z scaling of 1 for 2D images.");
    if (!(spacing.array() > 0.0).all() || !spacing.allFinite())
        throwOperationError("'spacing' must be positive");

    for (ImageElement* image : images) {
        applyPreProcessHooks(image);
        SharedImage* frame = image->sis()->get(0);
        // Centred image coordinates: the old matrix keeps the centre in place for every ratio
        // (see the header), so the matrix stays and only the spacing moves the pixels.
        frame->setSpacing(spacing);
        applyPostProcessHooks(image);
    }
    oneShotPreProcessHooks().clear();
    oneShotPostProcessHooks().clear();
}

} // namespace Velmoria::ML

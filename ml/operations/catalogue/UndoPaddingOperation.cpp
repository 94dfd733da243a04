#include "ml/operations/catalogue/UndoPaddingOperation.h"

#include "ml/data/components/InversionComponent.h"
#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/operations/catalogue/PadOperations.h"

#include "host/image/SharedImageSet.h"

#include <fmt/format.h>

namespace Velmoria::ML {

UndoPaddingOperation::UndoPaddingOperation(std::string const& targetIdentifier)
    : Operation("UndoPadding", ProcessingPolicy::Everything)
{
    p_targetIdentifier.setValue(targetIdentifier);
}

std::shared_ptr<SharedImageSet> UndoPaddingOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    std::string const& identifier = p_targetIdentifier.value();
    if (identifier.empty()) {
        warnOperationUnexpectedBehaviour("No target identifier specified. Skipping UndoPadding.");
        return sis;
    }
    auto const* inversion = sis->components().get<InversionComponent>();
    if (!inversion) {
        warnOperationUnexpectedBehaviour(
            "Input has no Inversion data component. No padding was performed on this "
            "image.");
        return sis;
    }
    auto const* record = inversion->getInversionInfo(identifier);
    if (!record) {
        warnOperationUnexpectedBehaviour(
            fmt::format("InversionComponent has no info associated with the identifier `{}`", identifier));
        return sis;
    }
    if (!record->context) {
        warnOperationUnexpectedBehaviour(
            "InversionComponent has an associated info with no context properties");
        return sis;
    }

    PaddingDoneDataComponent padding;
    padding.configure(&*record->context);
    PaddingDoneInfo const recorded = padding.infos.empty() ? PaddingDoneInfo{} : padding.infos.back();
    if (static_cast<int>(recorded.size()) != sis->size())
        throwOperationError(fmt::format(
            "Padding was performed on an image with {} frames. Cannot undo it on image with {} frames.",
            recorded.size(), sis->size()));

    // The recorded sizes are those applied, so every axis is undone as recorded; the mode does
    // not matter for pure removal.
    PadOperation crop;
    crop.p_allowDimensionChange.setValue(true);
    crop.p_paddingMode.setValue(ImageProcessing::PaddingMode::Zero);
    crop.setErrorOnUnexpectedBehaviour(errorOnUnexpectedBehaviour());
    crop.checkParams();
    std::vector<PaddingDoneInfo::PadSize> negated = recorded.padSizes;
    for (auto& size : negated)
        for (auto& [low, high] : size) {
            low = -low;
            high = -high;
        }
    PaddingDoneInfo undone;
    std::shared_ptr<SharedImageSet> output = crop.padFrames(*sis, negated, undone);

    for (int i = 0; i < output->size(); ++i) {
        ImageDescriptorWorld const& original = recorded.originalDescriptorWorlds[static_cast<std::size_t>(i)];
        SharedImage& frame = *output->get(i);
        if (frame.descriptorWorld().isApprox(
                original, ImageDescriptor::CompareDimensions | ImageDescriptor::CompareSpacing |
                              ImageDescriptor::CompareOrientation | ImageDescriptor::ComparePosition))
            frame.setMatrixToWorld(original.matrixToWorld());
        else
            warnOperationUnexpectedBehaviour(
                fmt::format("Frame {} does not match the geometry recorded before the padding; its computed "
                            "placement is kept.",
                            i));
    }
    return output;
}

} // namespace Velmoria::ML

#include "ml/operations/catalogue/PadOperations.h"

#include "ml/data/LabelMap.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/operations/OperationException.h"

#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"

#include <fmt/format.h>

#include <stdexcept>

namespace Velmoria::ML {

namespace {

using ImageProcessing::PaddingMode;

PaddingMode paddingModeFromText(std::string const& text)
{
    std::optional<PaddingMode> const mode = ImageProcessing::stringToPaddingMode(text);
    if (!mode)
        throw std::runtime_error("Unknown padding mode '" + text +
                                 "', supported are ['Zero', 'Mirror', 'Clamp']");
    return *mode;
}

bool isZero(std::optional<std::string> const& modeText)
{
    return modeText && ImageProcessing::stringToPaddingMode(*modeText) == PaddingMode::Zero;
}

} // namespace

// ---- PaddingOperationBase -----------------------------------------------------------------------

PaddingOperationBase::PaddingOperationBase(std::string name)
    : InvertibleOperation(std::move(name), ProcessingPolicy::Everything)
    , p_paddingMode("padding_mode", kDefaultPaddingMode, this, ParamRequired::No,
                    ImageProcessing::paddingModeToString, paddingModeFromText, {"Zero", "Mirror", "Clamp"})
{}

bool PaddingOperationBase::configure(Properties const& properties)
{
    if (!Operation::configure(properties))
        return false;
    std::optional<std::string> const& labelMode = p_labelPaddingMode.value();
    if (labelMode && !ImageProcessing::stringToPaddingMode(*labelMode)) {
        configFailed("label_padding_mode");
        return false;
    }
    // With "error_on_unexpected_behaviour" a warning throws; configure reports it as a failure.
    try {
        checkParams();
    } catch (OperationException const& e) {
        VELMORIA_LOG_ERROR(logCategory(), "Could not configure operation: {}", e.what());
        return false;
    }
    return true;
}

void PaddingOperationBase::checkParams() const
{
    bool const zero = p_paddingMode.value() == PaddingMode::Zero;
    std::optional<std::string> const& labelMode = p_labelPaddingMode.value();
    bool const hasValue = p_paddingValue.value().has_value();
    bool const hasLabelValue = p_labelPaddingValue.value().has_value();
    if (hasValue && !zero)
        warnOperationUnexpectedBehaviour(
            "PaddingValue is used only when the specified PaddingMode is 'Zero' (i.e. "
            "Constant padding), otherwise ignored");
    if (hasLabelValue && labelMode && !isZero(labelMode))
        warnOperationUnexpectedBehaviour(
            "Label PaddingValue is used only when the specified Label PaddingMode is "
            "'Zero' (i.e. Constant padding), otherwise ignored");
    if (hasLabelValue && !labelMode && zero)
        warnOperationUnexpectedBehaviour(
            "Label PaddingValue is used only if either PaddingMode is not 'Zero' or if "
            "Label PaddingMode is specified and its value is 'Zero'.");
    if (hasValue && !zero && isZero(labelMode) && !hasLabelValue)
        warnOperationUnexpectedBehaviour("PaddingValue is not used with Label PaddingMode. In case you "
                                         "wanted to specify a padding value for "
                                         "labelmaps, set `label_padding_value` instead.");
}

std::shared_ptr<SharedImageSet> PaddingOperationBase::padFrames(SharedImageSet& input,
                                                                std::vector<PadSize> const& sizes,
                                                                PaddingDoneInfo& info) const
{
    PaddingMode mode = p_paddingMode.value();
    std::optional<double> value = p_paddingValue.value();
    if (isSemanticSegmentationMap(input) && p_labelPaddingMode.value()) {
        mode = *ImageProcessing::stringToPaddingMode(*p_labelPaddingMode.value());
        if (p_labelPaddingValue.value())
            value = p_labelPaddingValue.value();
    }

    std::shared_ptr<SharedImageSet> output = input.clone(SharedImageSet::CloneOption::NoFrames);
    prepareInputForDevice(input);
    for (int i = 0; i < input.size(); ++i) {
        SharedImage const& frame = *input.get(i);
        PadSize size = sizes.size() == 1 ? sizes.front() : sizes.at(static_cast<std::size_t>(i));
        Eigen::Vector3i const dims = frame.dimensions();
        if (!p_allowDimensionChange.value())
            for (int axis = 0; axis < 3; ++axis)
                if (dims[axis] == 1)
                    size[static_cast<std::size_t>(axis)] = {0, 0};
        Eigen::Vector3i const low(size[0].first, size[1].first, size[2].first);
        Eigen::Vector3i const high(size[0].second, size[1].second, size[2].second);
        if (((low + dims + high).array() < 1).any())
            throwOperationError(fmt::format(
                "Negative padding is larger than image size. Got padding [({}, {}), "
                "({}, {}), ({}, {})] for image size [{}, {}, {}]",
                low.x(), high.x(), low.y(), high.y(), low.z(), high.z(), dims.x(), dims.y(), dims.z()));
        // The fill value is an original intensity; computePadded wants the stored one (it rounds
        // and clamps for integer types).
        double const stored = frame.descriptor().originalToStorage(value.value_or(0.0));
        // createPadded places the frame with boxMatrixToWorld and copies the modality, so every
        // old pixel keeps its world position.
        std::unique_ptr<SharedImage> padded = ImageProcessing::createPadded(frame, mode, low, high, stored);
        if (!padded)
            throwOperationError("Could not compute padded image");
        output->add(std::shared_ptr<SharedImage>(std::move(padded)));
        info.add(frame.descriptorWorld(), size);
    }
    return output;
}

void PaddingOperationBase::storePaddingContext(SharedImageSet& output, PaddingDoneInfo const& info) const
{
    if (recordIdentifier().empty())
        return;
    auto* inversion = output.components().get<InversionComponent>();
    InversionComponent::InversionInfo* record =
        inversion ? inversion->getInversionInfo(recordIdentifier()) : nullptr;
    if (!record)
        return;
    Properties context;
    PaddingDoneDataComponent({info}).configuration(&context);
    record->context = std::move(context);
}

Operation::Specs PaddingOperationBase::undoPaddingSpecs() const
{
    Properties properties;
    properties.setParam("target_identifier", recordIdentifier());
    return {"UndoPadding", std::move(properties), Phase::Always};
}

// ---- Pad ------------------------------------------------------------------------------------------

PadOperation::PadOperation(Eigen::Vector2i padX, Eigen::Vector2i padY, Eigen::Vector2i padZ, PaddingMode mode)
    : PaddingOperationBase("Pad")
{
    p_padSizeX.setValue(padX);
    p_padSizeY.setValue(padY);
    p_padSizeZ.setValue(padZ);
    p_paddingMode.setValue(mode);
}

std::shared_ptr<SharedImageSet> PadOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    Eigen::Vector2i const x = p_padSizeX.value(), y = p_padSizeY.value(), z = p_padSizeZ.value();
    if (x.isZero() && y.isZero() && z.isZero())
        return sis;
    PaddingDoneInfo info;
    auto output = padFrames(*sis, {PadSize{{{x[0], x[1]}, {y[0], y[1]}, {z[0], z[1]}}}}, info);
    storePaddingContext(*output, info);
    return output;
}

Operation::Specs PadOperation::getInverseSpecsImpl() const
{
    Properties properties = configuration();
    properties.removeParam("record_identifier");
    properties.setParam("pad_size_x", Eigen::Vector2i(-p_padSizeX.value()));
    properties.setParam("pad_size_y", Eigen::Vector2i(-p_padSizeY.value()));
    properties.setParam("pad_size_z", Eigen::Vector2i(-p_padSizeZ.value()));
    return {"Pad", std::move(properties), Phase::Always};
}

// ---- PadDims ----------------------------------------------------------------------------------

PadDimsOperation::PadDimsOperation(Eigen::Vector3i targetDims)
    : PaddingOperationBase("PadDims")
{
    p_targetDims.setValue(targetDims);
}

PadDimsOperation::PadSize PadDimsOperation::padSizeFor(Eigen::Vector3i const& dims,
                                                       Eigen::Vector3i const& target)
{
    PadSize size;
    for (int axis = 0; axis < 3; ++axis) {
        int const d = target[axis] - dims[axis];
        int const low = d / 2; // C++ division truncates toward zero: 7 -> 4 gives -1 and -2
        size[static_cast<std::size_t>(axis)] = {low, d - low};
    }
    return size;
}

std::shared_ptr<SharedImageSet> PadDimsOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    if ((p_targetDims.value().array() <= 0).any())
        throwOperationError("Target dimensions must be strictly positive.");
    std::vector<PadSize> sizes;
    for (auto const& frame : sis->images())
        sizes.push_back(padSizeFor(frame->dimensions(), p_targetDims.value()));
    PaddingDoneInfo info;
    auto output = padFrames(*sis, sizes, info);
    storePaddingContext(*output, info);
    return output;
}

// ---- PadDimsToNextMultiple ------------------------------------------------------------------------

PadDimsToNextMultipleOperation::PadDimsToNextMultipleOperation(Eigen::Vector3i divisor)
    : PaddingOperationBase("PadDimsToNextMultiple")
{
    p_dimensionDivisor.setValue(divisor);
}

Eigen::Vector3i PadDimsToNextMultipleOperation::calculateTargetDims(Eigen::Vector3i const& dims) const
{
    Eigen::Vector3i const d = p_dimensionDivisor.value();
    Eigen::Vector3i target;
    for (int axis = 0; axis < 3; ++axis)
        target[axis] = ((dims[axis] + d[axis] - 1) / d[axis]) * d[axis];
    return target;
}

std::shared_ptr<SharedImageSet>
PadDimsToNextMultipleOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    if ((p_dimensionDivisor.value().array() <= 0).any())
        throwOperationError("Dimension divisors must be strictly positive.");
    std::vector<PadSize> sizes;
    for (auto const& frame : sis->images())
        sizes.push_back(
            PadDimsOperation::padSizeFor(frame->dimensions(), calculateTargetDims(frame->dimensions())));
    PaddingDoneInfo info;
    auto output = padFrames(*sis, sizes, info);
    storePaddingContext(*output, info);
    return output;
}

} // namespace Velmoria::ML

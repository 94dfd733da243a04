#include "ml/sampling/ImageROISampler.h"

#include "ml/data/BoundingBoxElement.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/TargetTag.h"
#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/operations/ParamException.h"
#include "ml/operations/catalogue/PadOperations.h"

#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"
#include "host/processing/Cropping.h"

#include <fmt/format.h>

#include <utility>
#include <vector>

namespace Velmoria::ML {

namespace {

std::string sizeText(Eigen::Vector3i const& v)
{
    return fmt::format("{}x{}x{}", v.x(), v.y(), v.z());
}

std::string listText(Eigen::Vector3i const& v)
{
    return fmt::format("[{}, {}, {}]", v.x(), v.y(), v.z());
}

} // namespace

ImageProcessing::PaddingMode samplerPaddingModeFromText(std::string const& text)
{
    std::optional<ImageProcessing::PaddingMode> const mode = ImageProcessing::stringToPaddingMode(text);
    if (!mode)
        throw ParamException("Unknown padding mode '" + text +
                             "', supported are ['Zero', 'Mirror', 'Clamp']");
    return *mode;
}

ImageROISampler::ImageROISampler(std::string name, PaddingMode paddingMode,
                                 std::optional<PaddingMode> labelPaddingMode)
    : Operation(std::move(name), ProcessingPolicy::Everything)
    , p_paddingMode("padding_mode", paddingMode, this, ParamRequired::No,
                    ImageProcessing::paddingModeToString, samplerPaddingModeFromText,
                    {"Zero", "Mirror", "Clamp"})
    , p_labelPaddingMode("label_padding_mode", labelPaddingMode.value_or(paddingMode), this,
                         ParamRequired::No, ImageProcessing::paddingModeToString, samplerPaddingModeFromText,
                         {"Zero", "Mirror", "Clamp"})
    , m_labelFollowsPadding(!labelPaddingMode.has_value())
{}

// ---- Configuration ------------------------------------------------------------------------------

bool ImageROISampler::configure(Properties const& properties)
{
    bool const ok = Operation::configure(properties);
    if (properties.contains("label_padding_mode"))
        m_labelFollowsPadding = false;
    else if (m_labelFollowsPadding)
        p_labelPaddingMode.setValue(p_paddingMode.value());
    return ok;
}

void ImageROISampler::setPaddingMode(PaddingMode mode)
{
    p_paddingMode.setValue(mode);
    if (m_labelFollowsPadding)
        p_labelPaddingMode.setValue(mode);
}

void ImageROISampler::setLabelPaddingMode(PaddingMode mode)
{
    m_labelFollowsPadding = false;
    p_labelPaddingMode.setValue(mode);
}

ImageROISampler::PaddingMode ImageROISampler::paddingModeFor(SharedImageSet const* image) const
{
    bool const target = image && image->components().get<TargetTag>() != nullptr;
    return target ? p_labelPaddingMode.value() : p_paddingMode.value();
}

// ---- Static helpers -----------------------------------------------------------------------------

Eigen::Vector3i ImageROISampler::preprocessRoiSize(Eigen::Vector3i roi, Eigen::Vector3i const& dims)
{
    for (int axis = 0; axis < 3; ++axis)
        if (roi[axis] == -1)
            roi[axis] = dims[axis];
    return roi;
}

void ImageROISampler::checkRoiSize(SharedImageSet const* image, Eigen::Vector3i const& roi)
{
    if (!image || image->empty())
        throw ImageSamplersException("Got empty image.");
    Eigen::Vector3i const dims = image->get()->dimensions();
    if (dims.z() == 1 && roi.z() != 1)
        throw ImageSamplersException(
            fmt::format("ROI size {} is invalid for image of size {}", sizeText(roi), sizeText(dims)));
    if (roi.minCoeff() <= 0)
        throw ImageSamplersException(fmt::format("ROI size {} must be positive.", sizeText(roi)));
}

std::unique_ptr<SharedImageSet> ImageROISampler::padImageToDimensions(SharedImageSet const* image,
                                                                      Eigen::Vector3i const& dims,
                                                                      PaddingMode mode)
{
    if (!image)
        return nullptr;
    // Only axes that are too short grow; a longer axis is left whole (PadDims alone would cut it
    // around the centre, which would hide voxels from the sampler's choice).
    std::vector<PadDimsOperation::PadSize> sizes;
    bool anyPadding = false;
    for (auto const& frame : image->images()) {
        Eigen::Vector3i const frameDims = frame->dimensions();
        Eigen::Vector3i const target = frameDims.cwiseMax(dims);
        anyPadding = anyPadding || target != frameDims;
        sizes.push_back(PadDimsOperation::padSizeFor(frameDims, target));
    }
    if (!anyPadding)
        return nullptr;

    // The PadDims operation's frame padding (one allocation per frame, geometry of the box, the
    // fill value converted to stored intensities), without running it as a processing step:
    // the sampler records itself, the padding is part of it.
    PadDimsOperation padding;
    padding.p_paddingMode.setValue(mode);
    // The extent was checked against single-slice images already, so a length-1 axis that is
    // shorter than the region really has to grow (a 1-pixel-wide x axis, for example).
    padding.p_allowDimensionChange.setValue(true);
    std::unique_ptr<SharedImageSet> input = image->clone(SharedImageSet::CloneOption::ShareFrames);
    PaddingDoneInfo info;
    std::shared_ptr<SharedImageSet> padded = padding.padFrames(*input, sizes, info);
    return padded->clone(SharedImageSet::CloneOption::ShareFrames);
}

std::unique_ptr<SharedImageSet> ImageROISampler::cropImage(SharedImageSet const* image,
                                                           RegionOfInterest const& roi,
                                                           ComputingDevice /*device*/)
{
    if (!image)
        return nullptr;
    std::unique_ptr<SharedImageSet> result = image->clone(SharedImageSet::CloneOption::NoFrames);
    for (auto const& frame : image->images()) {
        std::unique_ptr<SharedImage> cropped = ImageProcessing::createCropped(*frame, roi.offset, roi.extent);
        if (!cropped)
            throw ImageSamplersException(
                fmt::format("Cannot cut region with offset {} and size {} from an image "
                            "of size {}",
                            listText(roi.offset), listText(roi.extent), listText(frame->dimensions())));
        result->add(std::shared_ptr<SharedImage>(std::move(cropped)));
    }
    return result;
}

// ---- Extraction ---------------------------------------------------------------------------------

void ImageROISampler::recordOn(SharedImageSet& result) const
{
    auto* record = result.components().get<ProcessingRecordComponent>();
    if (!record)
        record = result.components().add(std::make_unique<ProcessingRecordComponent>(
            std::vector<ProcessingRecordComponent::Entries>(static_cast<std::size_t>(result.size()))));
    record->recordProcessing(*this);
}

std::unique_ptr<SharedImageSet> ImageROISampler::emptyResult() const
{
    VELMORIA_LOG_WARNING(logCategory(), "extractROI function received an empty ROI - will return an empty "
                                        "SharedImageSet");
    return std::make_unique<SharedImageSet>();
}

std::unique_ptr<SharedImageSet> ImageROISampler::extractROI(SharedImageSet const* image,
                                                            std::optional<RegionOfInterest> roi) const
{
    if (!image)
        throw ImageSamplersException("ML." + name() + ".extractROI: Got empty image.");
    if (!roi) {
        roi = computeROI(image);
        if (!roi)
            return emptyResult();
    }
    if (roi->extent.minCoeff() == 0)
        throw ImageSamplersException("ML." + name() +
                                     ".extractROI: Got empty ROI. Did you forget to call "
                                     "computeROI?");
    checkRoiSize(image, roi->extent);

    std::unique_ptr<SharedImageSet> padded = padImageToDimensions(image, roi->extent, paddingModeFor(image));
    std::unique_ptr<SharedImageSet> result =
        cropImage(padded ? padded.get() : image, *roi, computingDevice());
    recordOn(*result);
    return result;
}

// ---- Typed work ---------------------------------------------------------------------------------

std::shared_ptr<SharedImageSet> ImageROISampler::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    if (sis->size() > 1)
        throwOperationError("Samplers only work for single-frame image sets, please split the image set "
                            "beforehand.");
    return extractROI(sis.get(), computeROI(sis.get()));
}

std::shared_ptr<BoundingBoxSet> ImageROISampler::processBoxes(std::shared_ptr<BoundingBoxSet> boxes) const
{
    warnOperationUnexpectedBehaviour(
        "BoundingBoxSet are not properly supported by samplers (they are not cropped)");
    return boxes;
}

std::shared_ptr<KeypointSet> ImageROISampler::processPoints(std::shared_ptr<KeypointSet> keypoints) const
{
    warnOperationUnexpectedBehaviour(
        "KeypointSet are not properly supported by samplers (they are not cropped)");
    return keypoints;
}

std::shared_ptr<SharedImageSet> ImageROISampler::processVectors(std::shared_ptr<SharedImageSet> vectors) const
{
    return vectors;
}

// ---- The item -----------------------------------------------------------------------------------

void ImageROISampler::process(DataItem& item)
{
    std::optional<std::size_t> const batch = item.batchSize();
    if (batch && *batch > 1)
        throwOperationError("Samplers only work for single-frame image sets, please split the data item "
                            "beforehand.");

    std::optional<FieldSet> const selected = selectedFields(item);
    auto isSelected = [&](std::string const& name) { return !selected || selected->contains(name); };

    // A snapshot: hooks may change the item's map while we walk it.
    std::vector<std::pair<std::string, std::shared_ptr<DataElement>>> const elements(item.elements().begin(),
                                                                                     item.elements().end());

    // One region for the whole item, from the first field that may decide it.
    std::optional<RegionOfInterest> region;
    bool decided = false;
    for (auto const& [name, element] : elements) {
        auto* image = dynamic_cast<ImageElement*>(element.get());
        if (!image || !isSelected(name))
            continue;
        if (image->isTarget() || !requiresLabel()) {
            region = computeROI(image->sis().get());
            decided = true;
            break;
        }
    }
    bool const noRegionForLabels = decided && !region && requiresLabel();

    RecordHookFunction const recorder = processingRecordHook();
    for (auto const& [name, element] : elements) {
        if (!element || !isSelected(name))
            continue;
        applyPreProcessHooks(element.get());
        if (auto* image = dynamic_cast<ImageElement*>(element.get())) {
            std::unique_ptr<SharedImageSet> result =
                noRegionForLabels ? emptyResult() : extractROI(image->sis().get(), region);
            image->setSis(std::shared_ptr<SharedImageSet>(std::move(result)));
        } else if (auto* boxes = dynamic_cast<BoundingBoxElement*>(element.get())) {
            processBoxes(boxes->boxes());
        } else if (auto* points = dynamic_cast<KeypointsElement*>(element.get())) {
            processPoints(points->keypoints());
        }
        // extractROI recorded the sampler already; the installed recorder would add it twice.
        for (Hook const& hook : postProcessHooks()) {
            auto const* function = hook.target<RecordHookFunction>();
            if (function && *function == recorder)
                continue;
            hook(*this, element.get());
        }
        for (Hook const& hook : oneShotPostProcessHooks())
            hook(*this, element.get());
    }

    oneShotPreProcessHooks().clear();
    oneShotPostProcessHooks().clear();
}

} // namespace Velmoria::ML

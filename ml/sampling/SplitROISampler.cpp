#include "ml/sampling/SplitROISampler.h"

#include "ml/data/ImageElement.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/operations/OperationException.h"

#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"
#include "host/processing/Padding.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <string>

namespace Velmoria::ML {

namespace {

constexpr char kName[] = "SplitROISampler";

std::string roiText(Eigen::Vector3i const& v)
{
    return fmt::format("{}x{}x{}", v.x(), v.y(), v.z());
}

} // namespace

std::vector<int> patchOrigins(int length, int size, double step)
{
    double const span = std::max(static_cast<double>(length) - static_cast<double>(size), 0.0);
    auto const gaps = static_cast<std::int32_t>(std::ceil(span / step));
    if (gaps <= 0)
        return {0};
    double const spacing = span / gaps;
    std::vector<int> origins;
    origins.reserve(static_cast<std::size_t>(gaps) + 1);
    for (std::int32_t k = 0; k <= gaps; ++k)
        origins.push_back(static_cast<int>(std::round(k * spacing))); // std::round: halves away from 0
    return origins;
}

SplitROISampler::SplitROISampler(double patchStepSize, bool extractAllPatches, bool allowDimensionChange)
    : ImageROISampler(kName, PaddingMode::Clamp, PaddingMode::Clamp)
{
    p_patchStepSize.setValue(patchStepSize);
    p_extractAllPatches.setValue(extractAllPatches);
    p_allowDimensionChange.setValue(allowDimensionChange);
    checkParams();
}

SplitROISampler::SplitROISampler(Eigen::Vector3i const& roiSize, double patchStepSize, bool extractAllPatches,
                                 bool allowDimensionChange)
    : SplitROISampler(patchStepSize, extractAllPatches, allowDimensionChange)
{
    p_roiSize.setValue(roiSize);
}

SplitROISampler::SplitROISampler(Eigen::Vector2i const& roiSize, double patchStepSize, bool extractAllPatches,
                                 bool allowDimensionChange)
    : SplitROISampler(Eigen::Vector3i(roiSize.x(), roiSize.y(), 1), patchStepSize, extractAllPatches,
                      allowDimensionChange)
{}

bool SplitROISampler::configure(Properties const& properties)
{
    if (!ImageROISampler::configure(properties))
        return false;
    try {
        checkParams();
    } catch (OperationException const& e) {
        VELMORIA_LOG_ERROR(logCategory(), "Could not configure operation: {} (got {})", e.what(),
                           p_patchStepSize.value());
        return false;
    }
    return true;
}

void SplitROISampler::checkParams() const
{
    double const step = p_patchStepSize.value();
    // Written so that NaN fails too.
    if (!(step > 0.0 && step <= 1.0))
        throwOperationError("`patch_step_size` value must be in range (0, 1].");
}

std::vector<RegionOfInterest> SplitROISampler::computeROIs(SharedImageSet const* image) const
{
    if (!image || image->empty())
        throw ImageSamplersException("Got empty image.");
    Eigen::Vector3i const dims = image->get()->dimensions();
    Eigen::Vector3i size = p_roiSize.value();
    // The nominal step follows the configured size, before a flat axis shrinks the patch.
    Eigen::Vector3d const step = size.cast<double>() * p_patchStepSize.value();
    if (!p_allowDimensionChange.value())
        for (int axis = 0; axis < 3; ++axis)
            if (dims[axis] == 1)
                size[axis] = 1;
    checkRoiSize(image, size);

    std::vector<int> const xs = patchOrigins(dims.x(), size.x(), step.x());
    std::vector<int> const ys = patchOrigins(dims.y(), size.y(), step.y());
    std::vector<int> const zs = patchOrigins(dims.z(), size.z(), step.z());
    std::vector<RegionOfInterest> rois;
    rois.reserve(xs.size() * ys.size() * zs.size());
    for (int x : xs)
        for (int y : ys)
            for (int z : zs)
                rois.push_back(RegionOfInterest{Eigen::Vector3i(x, y, z), size});
    return rois;
}

std::optional<RegionOfInterest> SplitROISampler::computeROI(SharedImageSet const* image) const
{
    std::vector<RegionOfInterest> const rois = computeROIs(image);
    if (rois.empty())
        return std::nullopt;
    auto const index = randomGenerator().getUniformInteger<std::size_t>(0, rois.size() - 1);
    return rois[index];
}

RegionOfInterest SplitROISampler::regionInImage(RegionOfInterest const& roi, Eigen::Vector3i const& imageDims)
{
    Eigen::Vector3i const shortBy = (roi.extent - imageDims).cwiseMax(Eigen::Vector3i::Zero());
    return RegionOfInterest{roi.offset - shortBy / 2, roi.extent};
}

std::unique_ptr<SharedImageSet> SplitROISampler::extractROI(SharedImageSet const* image,
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
                                     ".extractROI: Got empty ROI. Did you forget to call computeROI?");
    checkRoiSize(image, roi->extent);

    PaddingMode const mode = paddingModeFor(image);
    std::unique_ptr<SharedImageSet> result = image->clone(SharedImageSet::CloneOption::NoFrames);
    result->components().remove<PatchesFromImageDataComponent>();
    std::vector<PatchInfo> infos;
    for (int i = 0; i < image->size(); ++i) {
        SharedImage const& frame = *image->get(i);
        Eigen::Vector3i const dims = frame.dimensions();
        // The region is counted in the grid padded centrally up to the extent (as
        // padImageToDimensions pads); in the original grid it starts `low` voxels earlier.
        Eigen::Vector3i const shortBy = (roi->extent - dims).cwiseMax(Eigen::Vector3i::Zero());
        Eigen::Vector3i const offset = regionInImage(*roi, dims).offset;
        Eigen::Vector3i const high = offset + roi->extent - dims;
        if ((offset.array() < 0 && shortBy.array() == 0).any() ||
            (high.array() > 0 && shortBy.array() == 0).any())
            throw ImageSamplersException(
                fmt::format("ML.{}.extractROI: ROI at offset {} {} {} of size {} leaves the "
                            "image of size {}",
                            name(), roi->offset.x(), roi->offset.y(), roi->offset.z(), roiText(roi->extent),
                            roiText(dims)));
        // A negative pad crops: one pass copies the box, padding only where it leaves the image.
        std::unique_ptr<SharedImage> patch = ImageProcessing::createPadded(frame, mode, -offset, high);
        if (!patch)
            throw ImageSamplersException(fmt::format("ML.{}.extractROI: could not cut the ROI of size {} at "
                                                     "offset {} {} {}",
                                                     name(), roiText(roi->extent), offset.x(), offset.y(),
                                                     offset.z()));
        result->add(std::shared_ptr<SharedImage>(std::move(patch)));
        infos.push_back(PatchInfo{frame.descriptorWorld(), offset, roi->extent});
    }
    recordOn(*result);
    result->components().add(std::make_unique<PatchesFromImageDataComponent>(std::move(infos)));
    return result;
}

DataItem SplitROISampler::sampleFromROI(DataItem const& item, RegionOfInterest const& roi) const
{
    DataItem result = item.clone(DataElement::CloneOptions::Shell);
    for (auto const& [key, element] : item.elements()) {
        if (auto const* image = dynamic_cast<ImageElement const*>(element.get()))
            result.set(key, std::shared_ptr<SharedImageSet>(extractROI(image->sis().get(), roi)));
        else
            result.set(key, std::shared_ptr<DataElement>(element->clone(DataElement::CloneOptions::Deep)));
    }
    return result;
}

std::shared_ptr<SharedImageSet> SplitROISampler::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    if (sis->size() > 1)
        throwOperationError("Samplers only work for single-frame image sets, please split the image set "
                            "beforehand.");
    std::vector<RegionOfInterest> rois = computeROIs(sis.get());
    if (rois.empty())
        return nullptr;
    if (!p_extractAllPatches.value()) {
        auto const index = randomGenerator().getUniformInteger<std::size_t>(0, rois.size() - 1);
        rois = {rois[index]};
    }

    std::shared_ptr<SharedImageSet> output = sis->clone(SharedImageSet::CloneOption::NoFrames);
    output->components().remove<PatchesFromImageDataComponent>();
    output->components().remove<ProcessingRecordComponent>();
    PatchesFromImageDataComponent patches;
    ProcessingRecordComponent records;
    for (RegionOfInterest const& roi : rois) {
        std::unique_ptr<SharedImageSet> patch = extractROI(sis.get(), roi);
        output->add(patch->getShared(0));
        if (auto const* info = patch->components().get<PatchesFromImageDataComponent>())
            patches.add(info->patches);
        if (auto const* record = patch->components().get<ProcessingRecordComponent>())
            records += *record;
    }
    output->components().add(std::make_unique<ProcessingRecordComponent>(std::move(records)));
    output->components().add(std::make_unique<PatchesFromImageDataComponent>(std::move(patches)));
    return output;
}

void SplitROISampler::process(DataItem& item)
{
    std::optional<std::size_t> const batch = item.batchSize();
    if (!batch)
        throw ImageSamplersException("SplitROISampler needs an input item with consistent batch size.");
    if (*batch > 1)
        throw ImageSamplersException(
            "Samplers only work for single-frame image sets, please split the data item "
            "beforehand.");
    if (!p_extractAllPatches.value()) {
        ImageROISampler::process(item);
        return;
    }

    // Every image must lie on one grid, or the patches of one index would not belong together.
    int const sameGrid = ImageDescriptor::CompareDimensions | ImageDescriptor::CompareSpacing |
                         ImageDescriptor::CompareOrientation;
    SharedImageSet const* first = nullptr;
    for (auto const& [key, element] : item.elements()) {
        auto const* image = dynamic_cast<ImageElement const*>(element.get());
        if (!image || !image->sis())
            continue;
        SharedImageSet const* sis = image->sis().get();
        if (!first) {
            first = sis;
            continue;
        }
        if (sis == first)
            continue;
        bool compatible = sis->size() == first->size();
        for (int i = 0; compatible && i < sis->size(); ++i)
            compatible = sis->get(i)->descriptorWorld().isApprox(first->get(i)->descriptorWorld(), sameGrid);
        if (!compatible)
            throw ImageSamplersException(
                "Input item contains image elements with spatially incompatible images");
    }

    std::optional<FieldSet> const selected = selectedFields(item);
    std::vector<std::string> others;
    std::size_t patchCount = 0;
    bool processed = false;
    for (auto const& [key, element] : item.elements()) {
        auto* image = dynamic_cast<ImageElement*>(element.get());
        if (!image) {
            others.push_back(key);
            continue;
        }
        if (selected && !selected->contains(key))
            continue;
        std::shared_ptr<SharedImageSet> result = processImages(image->sis());
        if (!result)
            continue;
        patchCount = static_cast<std::size_t>(result->size());
        image->setSis(std::move(result));
        processed = true;
    }
    if (!processed || item.batchSize())
        return;
    // Vectors, keypoints, boxes and tensors follow the images to the new batch size.
    for (std::string const& key : others) {
        std::shared_ptr<DataElement> const element = item.elements()[key];
        std::vector<std::shared_ptr<DataElement>> copies;
        copies.reserve(patchCount);
        for (std::size_t i = 0; i < patchCount; ++i)
            copies.emplace_back(element->clone(DataElement::CloneOptions::Deep));
        std::unique_ptr<DataElement> stacked = DataElement::stack(copies);
        if (stacked)
            item.set(key, std::shared_ptr<DataElement>(std::move(stacked)));
    }
}

} // namespace Velmoria::ML

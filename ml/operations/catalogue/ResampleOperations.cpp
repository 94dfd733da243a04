#include "ml/operations/catalogue/ResampleOperations.h"

#include "ml/data/components/ReferenceImageDataComponent.h"
#include "ml/operations/OperationException.h"

#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cmath>

namespace Velmoria::ML {

namespace {

// The three axes in the order of the keys and of the messages.
constexpr char const* kAxisNames[3] = {"x", "y", "z"};

bool allFrames2D(SharedImageSet const& sis)
{
    return std::all_of(sis.images().begin(), sis.images().end(),
                       [](auto const& frame) { return frame->slices() == 1; });
}

} // namespace

// ---------------------------------------------------------------------------------------------

ResampleOperationBase::ResampleOperationBase(std::string name)
    : Operation(std::move(name), ProcessingPolicy::Everything)
{}

std::shared_ptr<SharedImageSet> ResampleOperationBase::resampleOrThrow(SharedImageSet const* input,
                                                                       SharedImageSet const* reference,
                                                                       bool forceCPU) const
{
    std::unique_ptr<SharedImageSet> result = m_resampler.resample(input, reference, forceCPU);
    if (!result)
        throwOperationError("Could not resample the input images");
    return result;
}

// ---------------------------------------------------------------------------------------------

ResampleOperation::ResampleOperation(Eigen::Vector3d const& resolution, bool preserveExtent)
    : ResampleOperationBase("Resample")
{
    p_resolution.setValue(resolution);
    p_preserveExtent.setValue(preserveExtent);
}

ResampleOperation::ResampleOperation(double resolution, bool preserveExtent)
    : ResampleOperation(Eigen::Vector3d::Constant(resolution), preserveExtent)
{}

bool ResampleOperation::configure(Properties const& properties)
{
    // "resolution: 2" means 2 mm on every axis; the parameter itself reads exactly three numbers.
    double single = 0.0;
    if (!properties.paramIsList("resolution") && properties.param("resolution", single)) {
        Properties expanded = properties;
        expanded.setParam("resolution", Eigen::Vector3d::Constant(single).eval());
        return Operation::configure(expanded);
    }
    return Operation::configure(properties);
}

std::shared_ptr<SharedImageSet> ResampleOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    Eigen::Vector3d resolution = p_resolution.value();
    if (allFrames2D(*sis))
        resolution.z() = 1.0;
    if ((resolution.array() <= 0.0).any()) {
        warnOperationUnexpectedBehaviour(
            "Target resolution is 0 in one dimensions. Returning image without resampling.");
        return sis;
    }
    auto [image, label] = resampler().algorithms();
    for (ImageResamplingAlgorithm* algorithm : {image, label}) {
        algorithm->setTargetSpacing(resolution);
        algorithm->setPreserveExtent(p_preserveExtent.value());
    }
    return resampleOrThrow(sis.get(), nullptr, forceCPU(sis.get()));
}

// ---------------------------------------------------------------------------------------------

ResampleDimsOperation::ResampleDimsOperation(Eigen::Vector3i const& targetDims)
    : ResampleOperationBase("ResampleDims")
{
    p_targetDims.setValue(targetDims);
}

std::shared_ptr<SharedImageSet>
ResampleDimsOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    Eigen::Vector3i const dims = p_targetDims.value();
    if ((dims.array() < 1).any())
        throwOperationError("Incorrect 'target_dims' parameter");
    auto [image, label] = resampler().algorithms();
    image->setTargetDimensions(dims);
    label->setTargetDimensions(dims);

    bool cpu = forceCPU(sis.get());
    if (!cpu && !allFrames2D(*sis) && dims.z() == 1) {
        warnOperationUnexpectedBehaviour(
            "Changing the image dimensionality (resampling a 3D image to a single "
            "slice) is not supported on the GPU - falling back to the CPU");
        cpu = true;
    }
    return resampleOrThrow(sis.get(), nullptr, cpu);
}

// ---------------------------------------------------------------------------------------------

ResampleKeepingAspectRatioOperation::ResampleKeepingAspectRatioOperation()
    : ResampleOperationBase("ResampleKeepingAspectRatio")
{}

bool ResampleKeepingAspectRatioOperation::configure(Properties const& properties)
{
    if (!Operation::configure(properties))
        return false;
    try {
        checkParams();
    } catch (OperationException const& e) {
        VELMORIA_LOG_ERROR(logCategory(), "{}", e.what());
        return false;
    }
    return true;
}

std::string ResampleKeepingAspectRatioOperation::determineKeepAspectRatioWrt() const
{
    std::optional<int> const dims[3] = {p_targetDimX.value(), p_targetDimY.value(), p_targetDimZ.value()};
    int given = 0;
    int last = 0;
    for (int axis = 0; axis < 3; ++axis) {
        if (dims[axis]) {
            ++given;
            last = axis;
        }
    }
    if (given == 1)
        return kAxisNames[last];
    if (given == 3)
        return "x";
    return p_keepAspectRatioWrt.value().value_or("");
}

void ResampleKeepingAspectRatioOperation::checkParams() const
{
    std::optional<int> const dims[3] = {p_targetDimX.value(), p_targetDimY.value(), p_targetDimZ.value()};
    auto const given =
        std::count_if(std::begin(dims), std::end(dims), [](auto const& d) { return d.has_value(); });
    std::optional<std::string> const& wrt = p_keepAspectRatioWrt.value();

    if (given == 0)
        throwOperationError("At least one of target_dim_x, target_dim_y and target_dim_z must be given.");
    if (given == 2 && !wrt)
        throwOperationError("keep_aspect_ratio_wrt is required, accepted values are x, y or z.");
    if (!wrt)
        return;
    auto const* axis = std::find(std::begin(kAxisNames), std::end(kAxisNames), *wrt);
    if (axis == std::end(kAxisNames))
        throwOperationError(
            fmt::format("keep_aspect_ratio_wrt {} specified, but accepted values are x, y or z.", *wrt));
    if (!dims[axis - std::begin(kAxisNames)])
        throwOperationError(fmt::format(
            "Requested to keep aspect ratio with respect to {}, but dimension for {} was not specified", *wrt,
            *wrt));
    if (given == 3)
        warnOperationUnexpectedBehaviour(fmt::format(
            "keep_aspect_ratio_wrt {} was not needed since all of the target dimensions are specified. "
            "Please consider using ResampleDims directly for better performance",
            *wrt));
}

Eigen::Vector3i ResampleKeepingAspectRatioOperation::targetDimsFor(Eigen::Vector3i const& dims) const
{
    std::optional<int> const targets[3] = {p_targetDimX.value(), p_targetDimY.value(), p_targetDimZ.value()};
    std::string const wrt = determineKeepAspectRatioWrt();
    auto const reference = static_cast<int>(std::find(std::begin(kAxisNames), std::end(kAxisNames), wrt) -
                                            std::begin(kAxisNames));
    if (reference > 2 || !targets[reference])
        throwOperationError(
            fmt::format("keep_aspect_ratio_wrt {} specified, but accepted values are x, y or z.", wrt));
    double const factor = static_cast<double>(*targets[reference]) / static_cast<double>(dims[reference]);
    Eigen::Vector3i result;
    for (int axis = 0; axis < 3; ++axis) {
        if (targets[axis])
            result[axis] = *targets[axis];
        else if (dims[axis] == 1)
            result[axis] = 1;
        else
            result[axis] = std::max(1, static_cast<int>(static_cast<double>(dims[axis]) * factor));
    }
    return result;
}

std::shared_ptr<SharedImageSet>
ResampleKeepingAspectRatioOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    checkParams();
    if (p_targetDimX.value() && p_targetDimY.value() && p_targetDimZ.value()) {
        static std::atomic<bool> warned{false};
        if (!warned.exchange(true))
            VELMORIA_LOG_WARNING(
                logCategory(), "All of x, y and z are specified: please use ResampleDims directly for better "
                               "performance.");
    }

    m_resampleDims.setComputingDevice(computingDevice());
    m_resampleDims.setErrorOnUnexpectedBehaviour(errorOnUnexpectedBehaviour());
    // Frames may differ in size, so each gets its own target, through a one-frame set that
    // carries the set's modality (label maps keep nearest-neighbour interpolation).
    std::shared_ptr<SharedImageSet> result = sis->clone(SharedImageSet::CloneOption::NoFrames);
    for (auto const& frame : sis->images()) {
        m_resampleDims.p_targetDims.setValue(targetDimsFor(frame->dimensions()));
        auto single = sis->clone(SharedImageSet::CloneOptions(SharedImageSet::CloneOption::NoFrames) |
                                 SharedImageSet::CloneOption::NoComponents);
        single->add(frame);
        std::shared_ptr<SharedImageSet> resampled = m_resampleDims.processImages(std::move(single));
        if (!result->add(resampled->getShared(0)))
            throwOperationError("Could not gather the resampled frames");
    }
    return result;
}

// ---------------------------------------------------------------------------------------------

ResampleToInputOperation::ResampleToInputOperation()
    : ResampleOperationBase("ResampleToInput")
{}

std::shared_ptr<SharedImageSet>
ResampleToInputOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    auto const* component = sis->components().get<ReferenceImageDataComponent>();
    if (!component)
        throwOperationError("no ReferenceImageDataComponent found");
    if (!component->reference || component->reference->empty())
        throwOperationError("no valid reference in ReferenceImageDataComponent");
    return resampleOrThrow(sis.get(), component->reference.get(), forceCPU(sis.get()));
}

// ---------------------------------------------------------------------------------------------

ResolutionReductionOperation::ResolutionReductionOperation(Eigen::Vector3d const& targetSpacing)
    : ResampleOperationBase("ResolutionReduction")
{
    p_targetSpacing.setValue(targetSpacing);
}

std::shared_ptr<SharedImageSet>
ResolutionReductionOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    Eigen::Vector3d const spacing = p_targetSpacing.value();
    if (!(spacing.array() > 0.0).all())
        throwOperationError("'target_spacing' must be positive");
    bool const cpu = forceCPU(sis.get());
    auto [image, label] = resampler().algorithms();
    image->setTargetSpacing(spacing);
    label->setTargetSpacing(spacing);
    // The resampler only reads its input, so the coarse copy is made from the input itself (no
    // deep clone first); the input's grids are then the targets of the way back.
    std::shared_ptr<SharedImageSet> coarse = resampleOrThrow(sis.get(), nullptr, cpu);
    return resampleOrThrow(coarse.get(), sis.get(), cpu);
}

} // namespace Velmoria::ML

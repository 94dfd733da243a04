#include "ml/plugin/Registrations.h"

#include "ml/data/TargetTag.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/data/components/ReferenceImageDataComponent.h"
#include "ml/operations/OperationFactory.h"
#include "ml/operations/catalogue/ChannelOperations.h"
#include "ml/operations/catalogue/CropAroundLabelMapOperation.h"
#include "ml/operations/catalogue/CropOperations.h"
#include "ml/operations/catalogue/FilterOperations.h"
#include "ml/operations/catalogue/IntensityOperations.h"
#include "ml/operations/catalogue/InverseOperation.h"
#include "ml/operations/catalogue/ItemStructureOperations.h"
#include "ml/operations/catalogue/LabelOperations.h"
#include "ml/operations/catalogue/NormalizationOperations.h"
#include "ml/operations/catalogue/PadOperations.h"
#include "ml/operations/catalogue/RecombinePatchesOperation.h"
#include "ml/operations/catalogue/ResampleOperations.h"
#include "ml/operations/catalogue/SetSpacingOperation.h"
#include "ml/operations/catalogue/SplitIntoPatchesOperation.h"
#include "ml/operations/catalogue/UndoPaddingOperation.h"
#include "ml/sampling/CenterROISampler.h"
#include "ml/sampling/DefaultROISampler.h"
#include "ml/sampling/LabelROISampler.h"
#include "ml/sampling/RandomROISampler.h"
#include "ml/sampling/SplitROISampler.h"

#include "host/data/DataComponentFactory.h"

#include <functional>

namespace Velmoria::ML {

namespace {

struct OperationRow
{
    char const* name;
    std::function<void(char const*)> registerUnder;
};

template <class T>
OperationRow row(char const* name)
{
    return {name, [](char const* n) { getCppOperationFactory().registerType<T>(n, makeUniqueOperation<T>); }};
}

// The operations of the catalogue, in the order of registration. UnmarkAsTarget is left out on
// purpose: it cannot be named in a processing list.
std::vector<OperationRow> const& operationRows()
{
    static std::vector<OperationRow> const rows = {
        row<AdjustShiftScaleOperation>("AdjustShiftScale"),
        row<ArgMaxOperation>("ArgMax"),
        row<BakePhotometricInterpretationOperation>("BakePhotometricInterpretation"),
        row<ClipOperation>("Clip"),
        row<ConvertToGrayOperation>("ConvertToGray"),
        row<CopyOperation>("Copy"),
        row<CropOperation>("Crop"),
        row<CropAroundLabelMapOperation>("CropAroundLabelMap"),
        row<CutOutOperation>("CutOut"),
        row<GammaCorrectionOperation>("GammaCorrection"),
        row<HighPassOperation>("HighPass"),
        row<InverseOperation>("Inverse"),
        row<InvertOperation>("Invert"),
        row<LinearIntensityMappingOperation>("LinearIntensityMapping"),
        row<MakeFloatOperation>("MakeFloat"),
        row<MarkAsTargetOperation>("MarkAsTarget"),
        row<NormalizeMADOperation>("NormalizeMAD"),
        row<NormalizeNormalOperation>("NormalizeNormal"),
        row<NormalizePercentileOperation>("NormalizePercentile"),
        row<NormalizeUniformOperation>("NormalizeUniform"),
        row<OneHotOperation>("OneHot"),
        row<PadOperation>("Pad"),
        row<PadDimsOperation>("PadDims"),
        row<PadDimsToNextMultipleOperation>("PadDimsToNextMultiple"),
        row<PolyCropOperation>("PolyCrop"),
        row<RecombinePatchesOperation>("RecombinePatches"),
        row<RemoveOperation>("Remove"),
        row<RenameOperation>("Rename"),
        row<ResampleOperation>("Resample"),
        row<ResampleDimsOperation>("ResampleDims"),
        row<ResampleKeepingAspectRatioOperation>("ResampleKeepingAspectRatio"),
        row<ResampleToInputOperation>("ResampleToInput"),
        row<ResolutionReductionOperation>("ResolutionReduction"),
        row<SetLabelModalityOperation>("SetLabelModality"),
        row<SetSpacingOperation>("SetSpacing"),
        row<SigmoidOperation>("Sigmoid"),
        row<SmoothOperation>("Smooth"),
        row<SoftmaxOperation>("Softmax"),
        row<SplitIntoPatchesOperation>("SplitIntoPatches"),
        row<TanhOperation>("Tanh"),
        row<ThresholdOperation>("Threshold"),
        row<UndoPaddingOperation>("UndoPadding"),
    };
    return rows;
}

// The samplers, in the same factory, registered after the operations in this order (the order in
// which tools list them).
std::vector<OperationRow> const& samplerRows()
{
    // One sampler per line, like the operation table.
    // clang-format off
    static std::vector<OperationRow> const rows = {
        row<DefaultROISampler>("DefaultROISampler"),
        row<RandomROISampler>("RandomROISampler"),
        row<CenterROISampler>("CenterROISampler"),
        row<SplitROISampler>("SplitROISampler"),
        row<LabelROISampler>("LabelROISampler"),
    };
    // clang-format on
    return rows;
}

} // namespace

void registerOperations()
{
    for (auto const& operation : operationRows())
        operation.registerUnder(operation.name);
    for (auto const& sampler : samplerRows())
        sampler.registerUnder(sampler.name);
}

std::vector<std::string> registeredOperationNames()
{
    std::vector<std::string> names;
    for (auto const& operation : operationRows())
        names.emplace_back(operation.name);
    for (auto const& sampler : samplerRows())
        names.emplace_back(sampler.name);
    return names;
}

void registerDataComponents()
{
    auto& factory = DataComponentFactory::get();
    factory.registerComponent("TargetTag", [] { return std::make_unique<TargetTag>(); });
    factory.registerComponent("ReferenceImageDataComponent",
                              [] { return std::make_unique<ReferenceImageDataComponent>(); });
    factory.registerComponent("ProcessingRecordComponent",
                              [] { return std::make_unique<ProcessingRecordComponent>(); });
    factory.registerComponent("InversionComponent", [] { return std::make_unique<InversionComponent>(); });
    factory.registerComponent("PaddingDoneDataComponent",
                              [] { return std::make_unique<PaddingDoneDataComponent>(); });
    factory.registerComponent("PatchesFromImageDataComponent",
                              [] { return std::make_unique<PatchesFromImageDataComponent>(); });
    // The processing record arrives with its component: from here on every operation constructed
    // records itself on the elements it processes.
    ProcessingRecordComponent::installProcessingRecordHook();
}

} // namespace Velmoria::ML

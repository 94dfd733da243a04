#include "ml/plugin/Registrations.h"

#include "ml/data/TargetTag.h"
#include "ml/operations/OperationFactory.h"
#include "ml/operations/catalogue/IntensityOperations.h"
#include "ml/operations/catalogue/ItemStructureOperations.h"
#include "ml/operations/catalogue/LabelOperations.h"

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
        row<ClipOperation>("Clip"),
        row<CopyOperation>("Copy"),
        row<InvertOperation>("Invert"),
        row<LinearIntensityMappingOperation>("LinearIntensityMapping"),
        row<MakeFloatOperation>("MakeFloat"),
        row<MarkAsTargetOperation>("MarkAsTarget"),
        row<NormalizeNormalOperation>("NormalizeNormal"),
        row<OneHotOperation>("OneHot"),
        row<RemoveOperation>("Remove"),
        row<RenameOperation>("Rename"),
        row<SetLabelModalityOperation>("SetLabelModality"),
        row<SigmoidOperation>("Sigmoid"),
        row<TanhOperation>("Tanh"),
        row<ThresholdOperation>("Threshold"),
    };
    return rows;
}

} // namespace

void registerOperations()
{
    for (auto const& operation : operationRows())
        operation.registerUnder(operation.name);
}

std::vector<std::string> registeredOperationNames()
{
    std::vector<std::string> names;
    for (auto const& operation : operationRows())
        names.emplace_back(operation.name);
    return names;
}

void registerDataComponents()
{
    auto& factory = DataComponentFactory::get();
    factory.registerComponent("TargetTag", [] { return std::make_unique<TargetTag>(); });
}

} // namespace Velmoria::ML

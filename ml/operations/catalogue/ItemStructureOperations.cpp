#include "ml/operations/catalogue/ItemStructureOperations.h"

#include "ml/data/DataItem.h"

#include "host/core/String.h"
#include "host/image/LabelDataComponent.h"
#include "host/image/SharedImageSet.h"

#include <fmt/core.h>

#include <algorithm>

namespace Velmoria::ML {

std::vector<std::string> ItemStructureOperation::existingFields(DataItem const& item,
                                                                std::vector<std::string> const& names) const
{
    std::vector<std::string> present;
    std::vector<std::string> missing;
    for (auto const& name : names)
        (item.contains(name) ? present : missing).push_back(name);
    if (!missing.empty()) {
        std::vector<std::string> fields(item.fields().begin(), item.fields().end());
        std::sort(fields.begin(), fields.end());
        warnOperationUnexpectedBehaviour(
            fmt::format("Fields '{}' do not exist in the input data item. Input fields are [{}].",
                        String::join(missing, ","), String::join(fields, ",")));
    }
    return present;
}

std::vector<std::string> ItemStructureOperation::applyToList() const
{
    std::vector<std::string> names;
    if (applyTo())
        names.assign(applyTo()->begin(), applyTo()->end());
    std::sort(names.begin(), names.end());
    return names;
}

void ItemStructureOperation::checkSameLength(std::vector<std::string> const& source,
                                             std::vector<std::string> const& target) const
{
    if (source.size() != target.size())
        throwOperationError(fmt::format("'source' has {} names but 'target' has {}; they must pair up",
                                        source.size(), target.size()));
}

// ---------------------------------------------------------------------------------------------

TargetTagOperation::TargetTagOperation(std::string name, bool tag)
    : ItemStructureOperation(std::move(name), ProcessingPolicy::Everything)
    , m_tag(tag)
{}

void TargetTagOperation::process(DataItem& item)
{
    if (!applyTo()) {
        warnOperationUnexpectedBehaviour("No field given in 'apply_to': nothing to do.");
        return;
    }
    for (auto const& name : existingFields(item, applyToList())) {
        DataElement* element = item.get(name);
        applyPreProcessHooks(element);
        if (m_tag)
            element->tagAsTarget();
        else
            element->untagAsTarget();
        applyPostProcessHooks(element);
    }
    oneShotPreProcessHooks().clear();
    oneShotPostProcessHooks().clear();
}

MarkAsTargetOperation::MarkAsTargetOperation()
    : TargetTagOperation("MarkAsTarget", true)
{}

UnmarkAsTargetOperation::UnmarkAsTargetOperation()
    : TargetTagOperation("UnmarkAsTarget", false)
{}

// ---------------------------------------------------------------------------------------------

RenameOperation::RenameOperation()
    : ItemStructureOperation("Rename", ProcessingPolicy::Everything)
{}

void RenameOperation::process(DataItem& item)
{
    auto const& source = p_source.value();
    auto const& target = p_target.value();
    checkSameLength(source, target);
    for (std::size_t i = 0; i < source.size(); ++i) {
        if (source[i] == target[i])
            continue;
        auto it = item.elements().find(source[i]);
        if (it == item.elements().end()) {
            existingFields(item, {source[i]});
            continue;
        }
        if (item.contains(target[i]))
            throwOperationError(fmt::format("Cannot rename '{}' to '{}': a field of that name exists already",
                                            source[i], target[i]));
        it->first = target[i];
    }
}

// ---------------------------------------------------------------------------------------------

RemoveOperation::RemoveOperation()
    : ItemStructureOperation("Remove", ProcessingPolicy::Everything)
{}

void RemoveOperation::process(DataItem& item)
{
    if (!applyTo()) {
        warnOperationUnexpectedBehaviour("No field given in 'apply_to': nothing to do.");
        return;
    }
    for (auto const& name : existingFields(item, applyToList()))
        item.pop(name);
}

// ---------------------------------------------------------------------------------------------

CopyOperation::CopyOperation()
    : ItemStructureOperation("Copy", ProcessingPolicy::Everything)
{}

void CopyOperation::process(DataItem& item)
{
    auto const& source = p_source.value();
    auto const& target = p_target.value();
    checkSameLength(source, target);
    for (std::size_t i = 0; i < source.size(); ++i) {
        DataElement const* element = item.get(source[i]);
        if (!element) {
            existingFields(item, {source[i]});
            continue;
        }
        if (item.contains(target[i]))
            throwOperationError(fmt::format("Cannot copy '{}' to '{}': a field of that name exists already",
                                            source[i], target[i]));
        item.set(target[i], std::shared_ptr<DataElement>(element->clone(DataElement::CloneOptions::Deep)));
    }
}

// ---------------------------------------------------------------------------------------------

SetLabelModalityOperation::SetLabelModalityOperation()
    : Operation("SetLabelModality", ProcessingPolicy::OnlyLabels)
{}

std::shared_ptr<SharedImageSet>
SetLabelModalityOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    sis->setModality(Data::Modality::Label);
    nameLabels(*sis);
    return sis;
}

std::shared_ptr<SharedImageSet>
SetLabelModalityOperation::processVectors(std::shared_ptr<SharedImageSet> vectors) const
{
    if (inputIsEmptyOrNull(vectors.get()))
        return vectors;
    nameLabels(*vectors);
    return vectors;
}

void SetLabelModalityOperation::nameLabels(SharedImageSet& sis) const
{
    auto const& names = p_labelNames.value();
    if (names.empty())
        return;
    auto* labels = sis.components().getOrCreate<LabelDataComponent>();
    for (std::size_t value = 0; value < names.size(); ++value)
        labels->setLabel(static_cast<int>(value), names[value]);
}

} // namespace Velmoria::ML

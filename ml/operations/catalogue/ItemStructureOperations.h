#pragma once

// Item-structure operations: they change which fields a data item has and what they are, not
// pixel values. Every processing list uses them to prepare fields for a model.
//
//   MarkAsTarget      tags the fields named in "apply_to" as targets (ground truth), so that
//                     operations with the default policy leave them alone.
//   UnmarkAsTarget    removes that tag. Not registered: it cannot be named in a processing list.
//   Rename            "source" and "target", lists of equal length: field source[i] is renamed to
//                     target[i], in place (the field keeps its position).
//   Remove            removes the fields named in "apply_to".
//   Copy              "source" and "target", lists of equal length: field target[i] becomes a deep
//                     copy of field source[i] (content, components and target tag), appended.
//   SetLabelModality  marks the selected images as label maps (modality 8); "label_names", a list,
//                     names the label values in order (the first name is value 0) in the images'
//                     LabelDataComponent. By default it selects the target fields. On a vector
//                     field (a classifier's scores) it names the classes: channel c gets name c,
//                     and the scores stay scores (the modality is left alone).
//
// A named field that is missing is an unexpected-behaviour warning (or an error with
// "error_on_unexpected_behaviour"); a target name that exists already, or source and target
// lists of different lengths, are errors.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

#include <string>
#include <vector>

namespace Velmoria::ML {

// The base of the operations that work on the item's fields rather than element contents.
class ItemStructureOperation : public Operation
{
public:
    using Operation::Operation;
    bool doesNotModifyInput() const override { return false; }

protected:
    // The names of `names` that `item` holds, in the given order; the missing ones are reported
    // once as unexpected behaviour.
    std::vector<std::string> existingFields(DataItem const& item,
                                            std::vector<std::string> const& names) const;
    // "apply_to" in a stable (sorted) order; empty when it was not given.
    std::vector<std::string> applyToList() const;
    // Throws when "source" and "target" do not pair up.
    void checkSameLength(std::vector<std::string> const& source,
                         std::vector<std::string> const& target) const;
};

// Shared by MarkAsTarget and UnmarkAsTarget: the fields of "apply_to", which must be given.
class TargetTagOperation : public ItemStructureOperation
{
public:
    TargetTagOperation(std::string name, bool tag);
    void process(DataItem& item) override;

private:
    bool m_tag;
};

class MarkAsTargetOperation : public TargetTagOperation
{
public:
    MarkAsTargetOperation();
};

class UnmarkAsTargetOperation : public TargetTagOperation
{
public:
    UnmarkAsTargetOperation();
};

class RenameOperation : public ItemStructureOperation
{
public:
    RenameOperation();
    void process(DataItem& item) override;

    AdvancedParameter<std::vector<std::string>, Operation> p_source = {
        "source", {}, this, ParamRequired::Yes};
    AdvancedParameter<std::vector<std::string>, Operation> p_target = {
        "target", {}, this, ParamRequired::Yes};
};

class RemoveOperation : public ItemStructureOperation
{
public:
    RemoveOperation();
    void process(DataItem& item) override;
};

class CopyOperation : public ItemStructureOperation
{
public:
    CopyOperation();
    void process(DataItem& item) override;

    AdvancedParameter<std::vector<std::string>, Operation> p_source = {
        "source", {}, this, ParamRequired::Yes};
    AdvancedParameter<std::vector<std::string>, Operation> p_target = {
        "target", {}, this, ParamRequired::Yes};
};

class SetLabelModalityOperation : public Operation
{
public:
    SetLabelModalityOperation();

    AdvancedParameter<std::vector<std::string>, Operation> p_labelNames = {
        "label_names", {}, this, ParamRequired::No};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const override;

private:
    void nameLabels(SharedImageSet& sis) const;
};

} // namespace Velmoria::ML

#pragma once

// Inverse: undoes an earlier invertible step on the elements that recorded it.
//
//   target_identifier  (string, required, not empty) the "record_identifier" the step ran with.
//
// For each item it looks, among the selected elements, for those whose InversionComponent holds
// a record of the identifier, builds the inverse operation from the first one's latest record
// (Operation::createFromFactories), runs it on the item and then removes the latest record of
// the identifier from each element it processed. Records form a stack: a step run twice with one
// identifier is undone last first by two Inverse steps.
//
// What the inner operation inherits: device, policy, "error_on_unexpected_behaviour", and the
// fields. With "apply_to" set here the inner operation gets that list; otherwise it gets exactly
// the selected fields that hold the record, so that fields the forward step never touched (labels
// left alone by its policy, say) are not "undone" too.
//
// No element holding the record is an error: "No InversionComponent found with record identifier
// '<id>' in any processed elements" at error level, and process throws OperationException
// "[ML.Inverse] Failed to find operation with record identifier '<id>' to invert". A record that
// could not be removed afterwards is only a warning.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

#include <memory>
#include <string>
#include <vector>

namespace Velmoria::ML {

class InversionComponent;

class InverseOperation : public Operation
{
public:
    explicit InverseOperation(std::string const& targetIdentifier = {});

    // Operation::configure, then an empty target_identifier fails (configFailed).
    bool configure(Properties const& properties) override;

    using Operation::process;
    void process(DataItem& item) override;

    // Finds the records and builds the inner operation (see the file comment); false, with an
    // error line, when no selected element holds a record of `identifier` or the inverse cannot
    // be created.
    bool setupInverseOperationByIdentifier(DataItem& item, std::string const& identifier);

    // Also passed on to the inner operation when there is one.
    void setComputingDevice(ComputingDevice device) override;
    bool doesNotModifyInput() const override { return false; }

    // The inner operation of the last item (null before the first).
    std::shared_ptr<Operation> operationToInvert() const { return m_operationToInvert; }
    // The components holding the record, of the last item's selected elements.
    std::vector<InversionComponent*> const& inversionComponents() const { return m_inversionComponents; }

    AdvancedParameter<std::string, Operation> p_targetIdentifier = {"target_identifier", std::string(), this,
                                                                    ParamRequired::Yes};

private:
    std::shared_ptr<Operation> m_operationToInvert;
    std::vector<InversionComponent*> m_inversionComponents;
};

} // namespace Velmoria::ML

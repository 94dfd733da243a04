#pragma once

// UndoPadding: crops every frame back by the padding that PadDims or PadDimsToNextMultiple
// recorded, so that a prediction made on the padded image lands on the input's grid.
//
//   target_identifier  (string) the "record_identifier" the padding ran with.
//
// The padding is read from the context of the latest InversionInfo of that identifier on the
// set's InversionComponent (a PaddingDoneDataComponent configuration, see PadOperations.h); its
// last PaddingDoneInfo must hold one entry per frame. Each frame is then padded by the negated
// amounts through PadOperation (its checkParams runs on the derived settings), and, when the
// result matches the recorded descriptor up to rounding, it takes the recorded matrix exactly,
// so that pad-then-undo gives the input's geometry bit for bit. A result that does not match
// (the image was resampled in between, say) keeps its computed geometry, with a warning.
//
// Having no work is not an error: no identifier, no InversionComponent, no info of the
// identifier, or an info without context are warnings (warnOperationUnexpectedBehaviour) and the
// input is returned as it is. A frame count that differs from the record fails with "Padding was
// performed on an image with {} frames. Cannot undo it on image with {} frames.". The record
// itself is left in place: InverseOperation pops it.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

#include <memory>
#include <string>

namespace Velmoria::ML {

class UndoPaddingOperation : public Operation
{
public:
    explicit UndoPaddingOperation(std::string const& targetIdentifier = {});

    bool doesNotModifyInput() const override { return true; }

    AdvancedParameter<std::string, Operation> p_targetIdentifier = {"target_identifier", std::string(), this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

} // namespace Velmoria::ML

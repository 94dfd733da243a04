#pragma once

// InvertibleOperation: an operation that can be undone (padding, flipping, resampling, ...), so
// that a prediction made on its output can be brought back onto its input.
//
// A subclass says how to undo itself with getInverseSpecsImpl(): the Specs (registered name and
// configuration) of the operation that undoes this one with its current parameter values, which
// for random operations are the values just drawn. Run with "record_identifier", the operation
// records those specs on every element it processes, in the element's InversionComponent under
// that identifier; InverseOperation ("Inverse") with the same "target_identifier" later finds
// them, runs the inverse and removes the record.
//
// Recording happens in a pre-process hook, added by this constructor: before the element is
// changed, so that the operation (through the hook's info, see InversionComponent) can still add
// what the input looked like. Without an identifier nothing is recorded and nothing is built.
// The record lives in the components of the element's content: an operation that returns a new
// content must carry the input's components over (as the host's clone does), or the record, like
// the processing record, is lost with the old content.

#include "ml/operations/Operation.h"

#include <string>

namespace Velmoria::ML {

class InvertibleOperation : public Operation
{
public:
    InvertibleOperation(std::string name, ProcessingPolicy policy);

    bool supportsInversion() const final { return true; }

    // The specs of the operation that undoes this one, with the current parameter values.
    Specs inverseSpecs() const { return getInverseSpecsImpl(); }

protected:
    virtual Specs getInverseSpecsImpl() const = 0;
};

} // namespace Velmoria::ML

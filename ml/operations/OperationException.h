#pragma once

// OperationException: a failure while an operation processes data (an item that lacks a
// required field, an element class the operation has no code for, a surprise raised as an error
// because "error_on_unexpected_behaviour" is set). Operations throw it through
// Operation::throwOperationError, which prefixes the text with "[ML.<name>] " so that the
// message names the operation at fault. Failures of a parameter's value are ParamException.

#include <stdexcept>

namespace Velmoria::ML {

class OperationException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace Velmoria::ML

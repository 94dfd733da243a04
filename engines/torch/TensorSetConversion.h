#pragma once

// Conversions between a TensorSet (one Tensor per sample) and one LibTorch tensor whose first
// axis is the sample: the set's tensors are stacked into [n, ...], and a network output [n, ...]
// is cut into n tensors of shape [...].
//
// Element types map one to one (Float ↔ float32, Int64 ↔ int64, UInt8 ↔ uint8); other LibTorch
// types of an output (float16, float64, int32, bool, ...) become Float, the only type every
// consumer of a TensorSet reads. Errors throw EngineException naming the field and the shapes.

#include "ml/data/TensorSet.h"

#include <torch/types.h>

#include <memory>
#include <string>

namespace Velmoria::ML::TorchConversion {

// [n, ...] from the n tensors of `set`, which must share one shape and one type.
torch::Tensor stackTensorSet(std::string const& field, TensorSet const& set);

// n tensors of shape [...] from `tensor` [n, ...] (a 1-D tensor gives n tensors of shape [1]).
std::shared_ptr<TensorSet> splitIntoTensorSet(std::string const& field, torch::Tensor tensor);

} // namespace Velmoria::ML::TorchConversion

#include "ml/data/components/ReferenceImageDataComponent.h"

namespace Velmoria::ML {

// A pointer into this process's memory cannot be written to or read from a file; overriding both
// keeps the base class from writing registered parameters of its own.
void ReferenceImageDataComponent::configure(Properties const* /*properties*/) {}

void ReferenceImageDataComponent::configuration(Properties* /*properties*/) const {}

} // namespace Velmoria::ML

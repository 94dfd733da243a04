#pragma once

// The registration lists of the library, one function per registry, called by MLPlugin::init in
// the order of its steps. Each list is a table in Registrations.cpp: a new operation, sampler,
// loader or metric is one more row there and nowhere else.

#include <string>
#include <vector>

namespace Velmoria::ML {

// Step 2: the operations, in the native operation factory.
void registerOperations();
// Step 8: the data components of this library, in the host's DataComponentFactory; also installs
// the processing recorder (ProcessingRecordComponent::installProcessingRecordHook).
void registerDataComponents();

// The names registered by registerOperations(), in registration order.
std::vector<std::string> registeredOperationNames();

} // namespace Velmoria::ML

#include "ml/data/TargetTag.h"

namespace Velmoria::ML {

// The tag has no fields, so there is nothing to read or write; overriding both keeps that true
// even if the base class ever starts writing something of its own.
void TargetTag::configure(Properties const* /*properties*/) {}

void TargetTag::configuration(Properties* /*properties*/) const {}

} // namespace Velmoria::ML

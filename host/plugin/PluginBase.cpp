#include "host/plugin/PluginBase.h"

namespace Velmoria {

// Out of line so that the type information of PluginBase lives in libVelmoriaHost only.
PluginBase::~PluginBase() = default;

} // namespace Velmoria

#include "host/plugin/ApplicationController.h"

namespace Velmoria {

ApplicationController::~ApplicationController() = default;

} // namespace Velmoria

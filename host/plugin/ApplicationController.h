#pragma once

// ApplicationController: the application as a plug-in sees it. The plug-in manager hands it to
// every plug-in (PluginBase::setApplicationController) before init(), so that a plug-in can
// later reach the application's services without a global. It has no operations yet: the
// command-line host offers nothing a plug-in needs to call back into; a desktop host will add
// its services here (open data, show a controller, ...).

namespace Velmoria {

class ApplicationController
{
public:
    ApplicationController() = default;
    ApplicationController(ApplicationController const&) = delete;
    ApplicationController& operator=(ApplicationController const&) = delete;
    // Out of line: the vtable and type information then live in libVelmoriaHost only, so a
    // dynamic_cast inside a plug-in loaded with RTLD_LOCAL sees the same type as the host.
    virtual ~ApplicationController();
};

} // namespace Velmoria

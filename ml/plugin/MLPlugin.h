#pragma once

// MLPlugin: the door of the machine-learning library to its host.
//
// The host loads libVelmoriaML, finds the plug-in magic string in its read-only data, calls the
// exported velmoriaCreatePlugin() for an MLPlugin, asks dependencies(), and calls init() after
// the plug-ins named there. init() fills every registry of the library (see Registrations.h):
// nothing of the library is reachable by name before it has run.

#include "host/plugin/VelmoriaLibPlugin.h"

#include <string>
#include <vector>

namespace Velmoria {

class MLPlugin : public VelmoriaLibPlugin
{
public:
    MLPlugin();
    ~MLPlugin() override;

    static std::string id() { return "Velmoria.ML"; }

    std::string author() const override;
    std::string description() const override;
    std::vector<std::string> dependencies() const override;
    // Registers the factories, operations, samplers, readers, loaders, filters, metrics, data
    // components, resources, display handlers and file plug-ins, in that order. Returns 0.
    int init() override;
};

} // namespace Velmoria

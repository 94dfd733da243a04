#pragma once

// VelmoriaLibPlugin: the base of plug-ins that bring algorithms. Its init() calls
// registerFactories() once with the plug-in's three factories; from then on the plug-in owns
// them, and they live exactly as long as the plug-in object (and so as long as the library,
// whose code they are).
//
// registerFactories() adds the algorithm factory to the FactoryRegistry, where the host finds
// algorithms by id. The controller and annotation factories stay with the plug-in; a host that
// shows algorithms or data asks the loaded plug-ins for them (PluginManager::plugins()).
//
// Destruction removes everything again: an AlgorithmFactory leaves the FactoryRegistry when it
// is destroyed, so no pointer into an unloaded library remains there. Calling registerFactories()
// again replaces (and destroys) the factories given before; a null argument leaves that slot
// empty.

#include "host/plugin/PluginBase.h"

#include <memory>

namespace Velmoria {

class AlgorithmFactory;
class AlgorithmControllerFactory;
class DataAnnotationFactory;

class VelmoriaLibPlugin : public PluginBase
{
public:
    VelmoriaLibPlugin();
    ~VelmoriaLibPlugin() override;

    // Takes ownership of all three (each may be null).
    void registerFactories(AlgorithmFactory* algorithmFactory, AlgorithmControllerFactory* controllerFactory,
                           DataAnnotationFactory* annotationFactory);

    AlgorithmFactory* algorithmFactory() const { return m_algorithmFactory.get(); }
    AlgorithmControllerFactory* controllerFactory() const { return m_controllerFactory.get(); }
    DataAnnotationFactory* annotationFactory() const { return m_annotationFactory.get(); }

private:
    void releaseFactories();

    std::unique_ptr<AlgorithmFactory> m_algorithmFactory;
    std::unique_ptr<AlgorithmControllerFactory> m_controllerFactory;
    std::unique_ptr<DataAnnotationFactory> m_annotationFactory;
};

} // namespace Velmoria

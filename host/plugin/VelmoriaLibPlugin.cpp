#include "host/plugin/VelmoriaLibPlugin.h"

#include "host/algorithm/AlgorithmFactory.h"
#include "host/algorithm/Controller.h"
#include "host/algorithm/FactoryRegistry.h"
#include "host/plugin/DataAnnotationFactory.h"

namespace Velmoria {

VelmoriaLibPlugin::VelmoriaLibPlugin() = default;

VelmoriaLibPlugin::~VelmoriaLibPlugin()
{
    releaseFactories();
}

void VelmoriaLibPlugin::registerFactories(AlgorithmFactory* algorithmFactory,
                                          AlgorithmControllerFactory* controllerFactory,
                                          DataAnnotationFactory* annotationFactory)
{
    // Passing the factory a slot already holds keeps it; anything else replaces (and destroys)
    // what the slot held.
    auto adopt = [](auto& slot, auto* factory) {
        if (slot.get() != factory)
            slot.reset(factory);
    };
    adopt(m_algorithmFactory, algorithmFactory);
    adopt(m_controllerFactory, controllerFactory);
    adopt(m_annotationFactory, annotationFactory);

    if (m_algorithmFactory)
        FactoryRegistry::get().addFactory(m_algorithmFactory.get());
}

void VelmoriaLibPlugin::releaseFactories()
{
    // Annotations and controllers may refer to algorithms; the algorithm factory goes last, and
    // its destructor takes it out of the FactoryRegistry.
    m_annotationFactory.reset();
    m_controllerFactory.reset();
    m_algorithmFactory.reset();
}

} // namespace Velmoria

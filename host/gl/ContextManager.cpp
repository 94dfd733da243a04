#include "host/gl/ContextManager.h"

#include "host/core/Log.h"

namespace Velmoria::GL {

ContextManager& ContextManager::get()
{
    static ContextManager manager;
    return manager;
}

bool ContextManager::createContext()
{
    VELMORIA_LOG_ERROR(
        "Host.ContextManager",
        "Cannot create an OpenGL context: this build has no GPU backend, everything runs on the CPU");
    return false;
}

} // namespace Velmoria::GL

#pragma once

// Singleton<T>: one process-wide instance of T, created on first use.
//
// The registries of factories are filled by plug-ins while they load and read by everybody
// else, so they need one instance per process rather than one per shared library. A
// function-local static gives lazy, thread-safe construction; to keep it unique across shared
// libraries, each registry type that is shared between libraries is instantiated explicitly in
// libVelmoriaML (see the `extern template` declarations next to those types), so every other
// library calls the one exported instance() instead of emitting its own.
//
// The instance lives until the process ends; objects that use it from their own destructors
// must not outlive static destruction.

namespace Velmoria::ML {

template <class T>
class Singleton
{
public:
    static T& instance()
    {
        static T s_instance;
        return s_instance;
    }

    Singleton() = delete;
};

} // namespace Velmoria::ML

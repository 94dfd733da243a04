#pragma once

// ContextManager: the one place that knows whether GPU work can run on this thread.
//
// Code with a GPU path asks `hasCurrent()` before taking it and wraps GPU work in
// `runWithOpenGL`, so that a context is made current around the work when a backend exists.
// This build has no GPU backend: hasCurrent() is always false, createContext() fails with a
// log line, and runWithOpenGL runs its function directly on the calling thread. Every
// operation therefore takes its CPU path. A real backend (headless EGL) replaces the bodies of
// these functions and must not change any CPU result.

#include <utility>

namespace Velmoria::GL {

class ContextManager
{
public:
    static ContextManager& get();

    ContextManager(ContextManager const&) = delete;
    ContextManager& operator=(ContextManager const&) = delete;

    // True when an OpenGL context is current on the calling thread; never, without a backend.
    // Static so that callers need not fetch the manager just to ask.
    static bool hasCurrent() { return false; }

    // Creates a context and makes it current; false (with an error in "Host.ContextManager")
    // without a backend.
    bool createContext();

    // Runs `function` with a context current and returns its result. `createIfMissing` asks for
    // a context to be created first when none is current; without a backend the function simply
    // runs on this thread, without a context.
    template <class Function>
    auto runWithOpenGL(Function&& function, bool createIfMissing = false)
    {
        (void)createIfMissing;
        return std::forward<Function>(function)();
    }

private:
    ContextManager() = default;
};

} // namespace Velmoria::GL

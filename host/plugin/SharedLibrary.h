#pragma once

// SharedLibrary: one dlopen handle, closed when the object goes away. The plug-in manager's only
// contact with the dynamic loader, so that every load error carries dlerror()'s text and no
// handle leaks on an early return.
//
// Libraries are opened with RTLD_NOW (an unresolved symbol is an error at load, naming the
// symbol, rather than a crash later) and RTLD_LOCAL (two plug-ins may define the same internal
// symbols without one silently using the other's).

#include "host/core/Filesystem.h"

#include <string>

namespace Velmoria {

class SharedLibrary
{
public:
    SharedLibrary() = default;
    ~SharedLibrary();
    SharedLibrary(SharedLibrary&& other) noexcept;
    SharedLibrary& operator=(SharedLibrary&& other) noexcept;
    SharedLibrary(SharedLibrary const&) = delete;
    SharedLibrary& operator=(SharedLibrary const&) = delete;

    // Loads `file`; on failure the object stays closed and `error` receives dlerror()'s text.
    // Does not log: the caller says which plug-in it was.
    bool open(Filesystem::Path const& file, std::string* error = nullptr);
    bool isOpen() const { return m_handle != nullptr; }
    Filesystem::Path const& path() const { return m_path; }

    // The address of `name`, or null (with dlerror()'s text in `error`).
    void* symbol(char const* name, std::string* error = nullptr) const;

    // dlclose; the code of the library may be gone afterwards.
    void close();

    // True when `file` is currently loaded in this process (dlopen with RTLD_NOLOAD), whoever
    // loaded it.
    static bool isLoaded(Filesystem::Path const& file);

private:
    void* m_handle = nullptr;
    Filesystem::Path m_path;
};

} // namespace Velmoria

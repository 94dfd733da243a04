#include "host/plugin/SharedLibrary.h"

#include <dlfcn.h>

#include <utility>

namespace Velmoria {

namespace {

std::string lastError(char const* fallback)
{
    char const* text = dlerror();
    return text ? text : fallback;
}

} // namespace

SharedLibrary::~SharedLibrary()
{
    close();
}

SharedLibrary::SharedLibrary(SharedLibrary&& other) noexcept
    : m_handle(std::exchange(other.m_handle, nullptr))
    , m_path(std::move(other.m_path))
{}

SharedLibrary& SharedLibrary::operator=(SharedLibrary&& other) noexcept
{
    if (this != &other) {
        close();
        m_handle = std::exchange(other.m_handle, nullptr);
        m_path = std::move(other.m_path);
    }
    return *this;
}

bool SharedLibrary::open(Filesystem::Path const& file, std::string* error)
{
    close();
    dlerror(); // forget an earlier error
    // A path with a "/" makes dlopen take the file as given instead of searching the library
    // path, which could find another library of the same name.
    auto const path = file.makeAbsolute();
    m_handle = dlopen(path.str().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!m_handle) {
        if (error)
            *error = lastError("unknown dlopen error");
        return false;
    }
    m_path = file;
    return true;
}

void* SharedLibrary::symbol(char const* name, std::string* error) const
{
    if (!m_handle) {
        if (error)
            *error = "the library is not loaded";
        return nullptr;
    }
    dlerror();
    void* address = dlsym(m_handle, name);
    if (!address && error)
        *error = lastError("the symbol is null");
    return address;
}

void SharedLibrary::close()
{
    if (m_handle) {
        dlclose(m_handle);
        m_handle = nullptr;
    }
    m_path = Filesystem::Path();
}

bool SharedLibrary::isLoaded(Filesystem::Path const& file)
{
    void* handle = dlopen(file.makeAbsolute().str().c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    if (!handle)
        return false;
    dlclose(handle); // NOLOAD still counts a reference
    return true;
}

} // namespace Velmoria

#include "host/core/Platform.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace Velmoria::Platform {

std::string demangleTypeName(std::type_info const& type)
{
    return demangle(type.name());
}

std::string demangle(char const* mangledName)
{
    if (mangledName == nullptr)
        return {};
    // GCC marks the names of types with internal linkage (anonymous namespaces) with a leading
    // '*' so that type_info compares them by address; the demangler does not accept it.
    char const* name = mangledName[0] == '*' ? mangledName + 1 : mangledName;
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
    if (status != 0 || !demangled)
        return mangledName;
    return demangled.get();
}

} // namespace Velmoria::Platform

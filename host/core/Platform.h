#pragma once

// Platform: readable names of C++ types, for log lines, factory listings and error messages
// ("expected Velmoria::SharedImageSet, got Velmoria::PointCloud").
//
// The names are those of the compiler's ABI demangler (abi::__cxa_demangle with GCC and Clang),
// e.g. "std::vector<int, std::allocator<int> >": they are meant for people and may differ
// between compilers, so never use them as keys in files. typeid drops references and top-level
// const/volatile, and so do these functions.

#include <string>
#include <typeinfo>

namespace Velmoria::Platform {

// The readable name of a type; the mangled name when demangling fails.
std::string demangleTypeName(std::type_info const& type);

// The readable form of a mangled name as type_info::name() gives it; the input unchanged when
// it is not a valid mangled name.
std::string demangle(char const* mangledName);

template <typename T>
std::string typeName()
{
    return demangleTypeName(typeid(T));
}

} // namespace Velmoria::Platform

#pragma once

// ParamException: a parameter that cannot be read or has a value outside what it accepts. It is
// thrown by parameter parsing and by the conversions of names to enumerations; configure()
// functions catch it and report false.

#include <stdexcept>

namespace Velmoria::ML {

class ParamException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace Velmoria::ML

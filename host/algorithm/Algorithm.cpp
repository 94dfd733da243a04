#include "host/algorithm/Algorithm.h"

#include <fmt/format.h>

namespace Velmoria {

Algorithm::~Algorithm() = default;

std::string Algorithm::statusString(int status)
{
    switch (status) {
    case Unknown:
        return "Unknown";
    case Success:
        return "Success";
    case Error:
        return "Error";
    case InvalidInput:
        return "InvalidInput";
    case IncompleteInput:
        return "IncompleteInput";
    case OutOfMemory:
        return "OutOfMemory";
    case Canceled:
        return "Canceled";
    case NotImplemented:
        return "NotImplemented";
    case Unsupported:
        return "Unsupported";
    default:
        break;
    }
    if (status >= CustomStatus)
        return fmt::format("Custom status {}", status);
    return fmt::format("Status {}", status);
}

} // namespace Velmoria

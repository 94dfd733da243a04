#include "host/algorithm/IoAlgorithm.h"

#include "host/core/String.h"

#include <fnmatch.h>

#include <filesystem>

namespace Velmoria {

IoAlgorithm::IoAlgorithm(IoMode mode, int saveCount)
    : m_mode(mode)
    , m_saveCount(saveCount)
{}

IoAlgorithm::~IoAlgorithm() = default;

bool IoAlgorithm::matchesPatterns(std::string const& path, std::vector<std::string> const& patterns)
{
    std::string fileName = String::toLowerCopy(std::filesystem::path(path).filename().string());
    if (fileName.empty())
        return false;
    // fnmatch is the system's glob matcher, the same one Directory::scan uses.
    for (auto const& pattern : patterns)
        if (::fnmatch(String::toLowerCopy(pattern).c_str(), fileName.c_str(), 0) == 0)
            return true;
    return false;
}

bool IoAlgorithm::canLoad(std::string const& path) const
{
    return (m_mode & Load) != 0 && matchesPatterns(path, supportedLocations());
}

std::string IoAlgorithm::suggestedSaveFileName() const
{
    auto patterns = supportedLocations();
    if (patterns.empty())
        return {};
    std::string const& first = patterns.front();
    auto dot = first.find('.');
    return dot == std::string::npos ? std::string("data") : "data" + first.substr(dot);
}

bool IoAlgorithm::fail(int* status, int code)
{
    setStatus(code);
    if (status)
        *status = code;
    return false;
}

} // namespace Velmoria

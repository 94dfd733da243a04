#include "ml/model/CudaCapability.h"

#include "host/core/Log.h"

#include <algorithm>
#include <regex>
#include <stdexcept>

namespace Velmoria::ML {

namespace {

constexpr char const* kCategory = "ML.CudaUtils";

std::regex const& capabilityPattern()
{
    static std::regex const pattern(R"((\d+)\.(\d+)[a-zA-Z]*(\+PTX)?)");
    return pattern;
}

std::optional<CudaComputeCapability>
fromMatch(std::match_results<std::string_view::const_iterator> const& match)
{
    try {
        return CudaComputeCapability{std::stoi(match[1].str()), std::stoi(match[2].str()), match[3].matched};
    } catch (std::out_of_range const&) {
        VELMORIA_LOG_ERROR(kCategory, "CUDA compute capability '{}' has numbers out of range",
                           match[0].str());
        return std::nullopt;
    }
}

// The device's 8.9 runs 8.6 code only from CUDA 11.8 on.
bool matchesDirectly(int major, int minor, int runtimeMajor, int runtimeMinor,
                     CudaComputeCapability const& entry)
{
    if (entry.major != major || minor < entry.minor)
        return false;
    if (major == 8 && minor == 9 && entry.minor == 6)
        return runtimeMajor > 11 || (runtimeMajor == 11 && runtimeMinor > 7);
    return true;
}

} // namespace

std::optional<CudaComputeCapability> CudaComputeCapability::parse(std::string_view text)
{
    std::match_results<std::string_view::const_iterator> match;
    if (!std::regex_search(text.begin(), text.end(), match, capabilityPattern()))
        return std::nullopt;
    return fromMatch(match);
}

std::vector<CudaComputeCapability> CudaComputeCapability::parseList(std::string_view text)
{
    std::vector<CudaComputeCapability> result;
    using Iterator = std::regex_iterator<std::string_view::const_iterator>;
    for (Iterator it(text.begin(), text.end(), capabilityPattern()), end; it != end; ++it)
        if (auto capability = fromMatch(*it))
            result.push_back(*capability);
    return result;
}

std::string CudaComputeCapability::toString() const
{
    return std::to_string(major) + "." + std::to_string(minor) + (ptx ? "+PTX" : "");
}

bool isCudaComputeCapabilitySupported(int major, int minor, int runtimeMajor, int runtimeMinor,
                                      std::vector<CudaComputeCapability> const& capabilities)
{
    if (capabilities.empty())
        return false;
    for (CudaComputeCapability const& entry : capabilities)
        if (matchesDirectly(major, minor, runtimeMajor, runtimeMinor, entry))
            return true;

    int const lowestMajor =
        std::min_element(capabilities.begin(), capabilities.end(), [](auto const& a, auto const& b) {
            return a.major < b.major;
        })->major;
    if (major < lowestMajor) {
        VELMORIA_LOG_ERROR(
            kCategory,
            "GPU compute capability {}.{} is not supported by the CUDA runtime as it is lower than "
            "the lowest supported compute architecture version: {}",
            major, minor, lowestMajor);
        return false;
    }

    for (CudaComputeCapability const& entry : capabilities) {
        bool const atOrBelow = entry.major < major || (entry.major == major && entry.minor <= minor);
        if (entry.ptx && atOrBelow) {
            VELMORIA_LOG_DEBUG(kCategory,
                               "GPU compute capability {}.{} is supported by this CUDA runtime via PTX.",
                               major, minor);
            return true;
        }
    }

    bool const sameMajorListed = std::any_of(capabilities.begin(), capabilities.end(),
                                             [major](auto const& entry) { return entry.major == major; });
    if (sameMajorListed)
        VELMORIA_LOG_ERROR(
            kCategory,
            "GPU compute capability {}.{} cannot be supported as it's higher than any supported "
            "architecture versions and no compatible PTX was found.",
            major, minor);
    else
        VELMORIA_LOG_ERROR(kCategory, "GPU compute capability {}.{} is not supported by this CUDA runtime.",
                           major, minor);
    return false;
}

} // namespace Velmoria::ML

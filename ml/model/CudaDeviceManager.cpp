#include "ml/model/CudaDeviceManager.h"

#include "host/core/Log.h"
#include "host/core/String.h"

#include <fmt/format.h>

#include <utility>

namespace Velmoria::ML {

namespace {
constexpr char const* kCategory = "ML.CudaUtils";
} // namespace

int NullCudaRuntime::getDeviceCount(int& count) const
{
    count = 0;
    return 0;
}

int NullCudaRuntime::getDeviceProperties(int, CudaDeviceProperties&) const
{
    return InvalidDeviceError;
}

int NullCudaRuntime::getRuntimeVersion(int& version) const
{
    version = 0;
    return 0;
}

CudaDeviceManager::CudaDeviceManager(std::shared_ptr<CudaRuntime const> runtime)
    : m_runtime(runtime ? std::move(runtime) : std::make_shared<NullCudaRuntime const>())
{}

std::optional<int> CudaDeviceManager::getDeviceCount() const
{
    int count = 0;
    if (int const code = m_runtime->getDeviceCount(count); code != 0) {
        VELMORIA_LOG_ERROR(kCategory, "Could not get the list of CUDA devices (error code {})", code);
        return std::nullopt;
    }
    return count;
}

std::optional<CudaDeviceProperties> CudaDeviceManager::getDeviceProperties(int index) const
{
    CudaDeviceProperties properties;
    if (m_runtime->getDeviceProperties(index, properties) != 0) {
        VELMORIA_LOG_ERROR(kCategory, "Could not query CUDA info from device {}", index);
        return std::nullopt;
    }
    return properties;
}

std::optional<CudaRuntimeVersion> CudaDeviceManager::getCudaRuntimeVersion() const
{
    int version = 0;
    if (int const code = m_runtime->getRuntimeVersion(version); code != 0) {
        VELMORIA_LOG_ERROR(kCategory, "Could not query CUDA runtime version (error code {})", code);
        return std::nullopt;
    }
    return CudaRuntimeVersion{version / 1000, (version % 1000) / 10};
}

std::optional<int> CudaDeviceManager::getCompatibleCudaDevice(
    std::optional<std::vector<std::string>> const& supportedArchitectures,
    std::optional<std::vector<int>> const& deviceIndices) const
{
    if (deviceIndices) {
        for (int const index : *deviceIndices)
            if (auto device = detail::hasCompatibleCUDA(*this, index, supportedArchitectures))
                return device;
    } else if (auto device = detail::hasCompatibleCUDA(*this, std::nullopt, supportedArchitectures)) {
        return device;
    }
    VELMORIA_LOG_WARNING(kCategory, "CUDA device compatibility check failed");
    return std::nullopt;
}

std::vector<CudaComputeCapability>
detail::getSupportedComputeCapability(std::optional<std::vector<std::string>> const& texts,
                                      std::vector<std::string>* lines)
{
    std::vector<CudaComputeCapability> result;
    if (texts) {
        for (std::string const& text : *texts) {
            if (auto capability = CudaComputeCapability::parse(text))
                result.push_back(*capability);
            else
                VELMORIA_LOG_WARNING(kCategory,
                                     "Ignoring CUDA architecture '{}': not of the form 8.6 or 9.0+PTX", text);
        }
        return result;
    }
#ifdef NVCC_FLAGS_EXTRA
    (void)lines;
    return CudaComputeCapability::parseList(NVCC_FLAGS_EXTRA);
#else
    if (lines)
        lines->push_back("NVCC_FLAGS_EXTRA not defined.");
    return result;
#endif
}

detail::CudaCompatibilityResult
detail::checkCudaRuntimeCompatibility(CudaDeviceManager const& manager, std::optional<int> deviceIndex,
                                      std::optional<std::vector<std::string>> const& supportedArchitectures)
{
    CudaCompatibilityResult result;
    auto fail = [&result](std::string text) {
        result.lines.push_back(std::move(text));
        result.passed = false;
        return result;
    };

    std::optional<int> const count = manager.getDeviceCount();
    if (!count || *count <= 0)
        return fail("No CUDA device is available.");

    std::optional<CudaRuntimeVersion> const runtime = manager.getCudaRuntimeVersion();
    if (!runtime)
        return fail("Could not query CUDA runtime version.");
    result.lines.push_back(fmt::format("CUDA runtime version: {}.{}", runtime->major, runtime->minor));

    int const index = deviceIndex.value_or(0);
    if (index < 0 || index >= *count)
        return fail(
            fmt::format("Device index out of range. Device index: {}, number of devices: {}", index, *count));

    std::optional<CudaDeviceProperties> const device = manager.getDeviceProperties(index);
    if (!device)
        return fail(fmt::format("Failed to get CUDA device properties for device {}", index));
    result.lines.push_back(fmt::format("Device Number: {}", index));
    result.lines.push_back("Device name: " + device->name);
    result.lines.push_back(fmt::format("Device Compute Capability: {}.{}", device->major, device->minor));

    std::vector<CudaComputeCapability> const supported =
        getSupportedComputeCapability(supportedArchitectures, &result.lines);
    if (supported.empty()) {
        result.lines.push_back("No supported architectures defined. Skipping architecture support check.");
        result.passed = true;
        return result;
    }
    std::vector<std::string> entries;
    for (CudaComputeCapability const& capability : supported)
        entries.push_back(capability.toString());
    result.lines.push_back("Supported CUDA Compute Capability: " + String::join(entries, " "));

    if (!isCudaComputeCapabilitySupported(device->major, device->minor, runtime->major, runtime->minor,
                                          supported))
        return fail(fmt::format("GPU compute capability {}.{} is not supported by this build.", device->major,
                                device->minor));
    result.passed = true;
    return result;
}

std::optional<int>
detail::hasCompatibleCUDA(CudaDeviceManager const& manager, std::optional<int> deviceIndex,
                          std::optional<std::vector<std::string>> const& supportedArchitectures)
{
    CudaCompatibilityResult const result =
        checkCudaRuntimeCompatibility(manager, deviceIndex, supportedArchitectures);
    for (std::string const& line : result.lines)
        VELMORIA_LOG_INFO(kCategory, "{}", line);
    if (!result.passed) {
        VELMORIA_LOG_ERROR(kCategory, "CUDA compute compatibility check failed");
        return std::nullopt;
    }
    return deviceIndex.value_or(0);
}

} // namespace Velmoria::ML

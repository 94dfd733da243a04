#pragma once

// CudaDeviceManager: what an engine back end that runs on CUDA asks before it moves a network to
// a GPU: how many devices there are, what they are, and whether this build's kernels run on one.
//
// This library does not link the CUDA runtime. The manager talks to a CudaRuntime, a small
// interface over the three runtime queries it needs; a back end that links CUDA passes its own
// implementation, tests pass a fake, and the default is NullCudaRuntime, which reports no
// device, so every check ends cleanly in "No CUDA device is available." on machines (and
// builds) without CUDA.
//
// The compatibility check of a device (detail::checkCudaRuntimeCompatibility):
//   1. no device at all: fails with "No CUDA device is available.";
//   2. reads the runtime version ("CUDA runtime version: M.m");
//   3. an index outside the devices fails: "Device index out of range. Device index: i, number
//      of devices: n";
//   4. reads the device ("Device Number: ", "Device name: ", "Device Compute Capability: ");
//      a failed query fails: "Failed to get CUDA device properties for device i";
//   5. the supported architectures: the given texts, or the build's own list (the compile
//      definition NVCC_FLAGS_EXTRA holding entries such as "8.6;9.0+PTX"; without it, the line
//      "NVCC_FLAGS_EXTRA not defined." and an empty list);
//   6. an empty list passes ("No supported architectures defined. Skipping architecture support
//      check."); otherwise "Supported CUDA Compute Capability: <entries>" and
//      isCudaComputeCapabilitySupported decide; a refusal fails with "GPU compute capability
//      M.m is not supported by this build.".
// detail::hasCompatibleCUDA logs the check's lines (info) and returns the device index when it
// passes, or logs "CUDA compute compatibility check failed" (error) and returns nothing.
// Messages go to "ML.CudaUtils".

#include "ml/model/CudaCapability.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velmoria::ML {

struct CudaDeviceProperties
{
    std::string name;
    int major = 0;
    int minor = 0;
};

// The runtime queries, in the CUDA runtime's own shape: each returns an error code (0 is
// success) and fills its output only on success.
class CudaRuntime
{
public:
    virtual ~CudaRuntime() = default;
    virtual int getDeviceCount(int& count) const = 0;
    virtual int getDeviceProperties(int index, CudaDeviceProperties& properties) const = 0;
    // Encoded as the CUDA runtime does: 1000 * major + 10 * minor (11080 is 11.8).
    virtual int getRuntimeVersion(int& version) const = 0;
};

// No CUDA: zero devices, runtime version 0.0, and no device to describe.
class NullCudaRuntime : public CudaRuntime
{
public:
    // cudaErrorInvalidDevice, the runtime's answer for an index that names no device.
    static constexpr int InvalidDeviceError = 101;

    int getDeviceCount(int& count) const override;
    int getDeviceProperties(int index, CudaDeviceProperties& properties) const override;
    int getRuntimeVersion(int& version) const override;
};

struct CudaRuntimeVersion
{
    int major = 0;
    int minor = 0;
};

class CudaDeviceManager
{
public:
    // A null runtime means NullCudaRuntime.
    explicit CudaDeviceManager(std::shared_ptr<CudaRuntime const> runtime = nullptr);

    // Failures log "Could not get the list of CUDA devices (error code <c>)".
    std::optional<int> getDeviceCount() const;
    // Failures log "Could not query CUDA info from device <i>".
    std::optional<CudaDeviceProperties> getDeviceProperties(int index) const;
    // Failures log "Could not query CUDA runtime version (error code <c>)".
    std::optional<CudaRuntimeVersion> getCudaRuntimeVersion() const;

    // The first of `deviceIndices` that passes detail::hasCompatibleCUDA; without indices, the
    // check runs once for device 0. When none passes: warning "CUDA device compatibility check
    // failed" and nothing.
    std::optional<int>
    getCompatibleCudaDevice(std::optional<std::vector<std::string>> const& supportedArchitectures = {},
                            std::optional<std::vector<int>> const& deviceIndices = {}) const;

private:
    std::shared_ptr<CudaRuntime const> m_runtime;
};

namespace detail {

struct CudaCompatibilityResult
{
    bool passed = false;
    // What the check found out, one entry per log line; the failure text last when it failed.
    std::vector<std::string> lines;
};

// The build's list when `texts` is absent (see the file comment), else the parsed texts.
std::vector<CudaComputeCapability>
getSupportedComputeCapability(std::optional<std::vector<std::string>> const& texts,
                              std::vector<std::string>* lines = nullptr);

// Steps 1-6 of the file comment; a missing index means device 0.
CudaCompatibilityResult
checkCudaRuntimeCompatibility(CudaDeviceManager const& manager, std::optional<int> deviceIndex,
                              std::optional<std::vector<std::string>> const& supportedArchitectures);

std::optional<int> hasCompatibleCUDA(CudaDeviceManager const& manager, std::optional<int> deviceIndex,
                                     std::optional<std::vector<std::string>> const& supportedArchitectures);

} // namespace detail

} // namespace Velmoria::ML

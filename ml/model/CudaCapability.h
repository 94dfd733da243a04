#pragma once

// CUDA compute capabilities: the text form a build lists its kernels under ("8.6", "9.0+PTX")
// and the rule by which a device of some capability can run a build's kernels.
//
// A device runs kernels compiled for its own major version and a minor version at or below its
// own (an 8.6 device runs 8.0 code). Code compiled for 8.6 runs on an 8.9 device only with a
// CUDA runtime above 11.7, which first made that combination binary compatible. A device newer
// than every listed architecture can still run PTX (portable intermediate code) that the driver
// compiles for it, if an entry at or below the device's version was shipped as PTX.
//
// Messages go to "ML.CudaUtils".

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velmoria::ML {

struct CudaComputeCapability
{
    std::int32_t major = 0;
    std::int32_t minor = 0;
    // The build ships PTX for this architecture.
    bool ptx = false;

    // The first "<major>.<minor>[letters][+PTX]" in `text` ("8.6", "9.0a", "9.0+PTX"); nullopt
    // when there is none or the numbers do not fit an int.
    static std::optional<CudaComputeCapability> parse(std::string_view text);
    // Every such entry in `text`, in order ("8.0;8.6 9.0+PTX" gives three).
    static std::vector<CudaComputeCapability> parseList(std::string_view text);

    // "8.6", or "9.0+PTX" when flagged.
    std::string toString() const;

    bool operator==(CudaComputeCapability const&) const = default;
};

// Whether a device of capability major.minor can run code built for `capabilities` under a CUDA
// runtime runtimeMajor.runtimeMinor (see the file comment). An empty list gives false. A refusal
// logs its reason at error level; success through PTX logs a debug line.
bool isCudaComputeCapabilitySupported(int major, int minor, int runtimeMajor, int runtimeMinor,
                                      std::vector<CudaComputeCapability> const& capabilities);

} // namespace Velmoria::ML

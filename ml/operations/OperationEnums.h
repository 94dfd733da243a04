#pragma once

// The enumerations that operations and their parameters share, with their text forms.
//
// The numeric values are part of the configuration format (an integer may stand in a
// Properties tree for any of them), so they never change:
//
//   ComputingDevice   0 ForceCPU, 1 GPUIfGlImage, 2 GPUIfOpenGl, 3 ForceGPU
//   ParamUnit         0 MM, 1 Fraction, 2 Voxel
//   ParamRequired     0 Yes, 1 No (no text form)
//
// Operation::ProcessingPolicy lives in Operation.h.
//
// deviceToString / paramUnitToString give the names above. A device value outside the four
// (stringToDevice accepts any number) is written as its decimal number, which stringToDevice
// reads back unchanged; an unknown unit gives the empty text.
//
// stringToDevice reads a leading decimal integer first ("2" -> GPUIfOpenGl, "7" -> the value 7,
// with no range check: shouldRunOnGPU treats such a device as "no GPU"). Otherwise the
// lower-cased text must be one of "gpu_if_opengl"/"gpuifopengl", "gpu_if_glimage"/
// "gpuifglimage", "force_gpu"/"forcegpu", "force_cpu"/"forcecpu"; anything else throws
// ParamException "Unknown computing device '<text>', supported are ['gpu_if_opengl',
// 'gpu_if_glimage', 'force_gpu', 'force_cpu']".
//
// stringToParamUnit accepts "mm", "fraction", "voxel" in any case; anything else throws
// std::runtime_error "Unknown param unit '<text>', supported are ['MM', 'Fraction', 'Voxel']".

#include <string>

namespace Velmoria::ML {

enum class ComputingDevice : int
{
    ForceCPU = 0,
    GPUIfGlImage = 1,
    GPUIfOpenGl = 2,
    ForceGPU = 3,
};

enum class ParamUnit : int
{
    MM = 0,
    Fraction = 1,
    Voxel = 2,
};

enum class ParamRequired : int
{
    Yes = 0,
    No = 1,
};

std::string deviceToString(ComputingDevice device);
ComputingDevice stringToDevice(std::string const& text);

std::string paramUnitToString(ParamUnit unit);
ParamUnit stringToParamUnit(std::string const& text);

} // namespace Velmoria::ML

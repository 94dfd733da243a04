#include "ml/operations/OperationEnums.h"

#include "ml/operations/ParamException.h"

#include "host/core/String.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>

namespace Velmoria::ML {

namespace {

// The leading decimal integer of the text (after blanks, with an optional sign), as strtol
// reads it. std::from_chars would refuse the leading blank and '+' that configuration texts
// may carry, hence strtol.
bool leadingInteger(std::string const& text, int& out)
{
    char const* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    long const value = std::strtol(begin, &end, 10);
    if (end == begin || errno == ERANGE || value < std::numeric_limits<int>::min() ||
        value > std::numeric_limits<int>::max())
        return false;
    out = static_cast<int>(value);
    return true;
}

} // namespace

std::string deviceToString(ComputingDevice device)
{
    switch (device) {
    case ComputingDevice::ForceCPU:
        return "ForceCPU";
    case ComputingDevice::GPUIfGlImage:
        return "GPUIfGlImage";
    case ComputingDevice::GPUIfOpenGl:
        return "GPUIfOpenGl";
    case ComputingDevice::ForceGPU:
        return "ForceGPU";
    }
    return std::to_string(static_cast<int>(device));
}

ComputingDevice stringToDevice(std::string const& text)
{
    int number = 0;
    if (leadingInteger(text, number))
        return static_cast<ComputingDevice>(number);

    std::string const lower = String::toLowerCopy(text);
    if (lower == "gpu_if_opengl" || lower == "gpuifopengl")
        return ComputingDevice::GPUIfOpenGl;
    if (lower == "gpu_if_glimage" || lower == "gpuifglimage")
        return ComputingDevice::GPUIfGlImage;
    if (lower == "force_gpu" || lower == "forcegpu")
        return ComputingDevice::ForceGPU;
    if (lower == "force_cpu" || lower == "forcecpu")
        return ComputingDevice::ForceCPU;
    throw ParamException("Unknown computing device '" + text +
                         "', supported are ['gpu_if_opengl', 'gpu_if_glimage', 'force_gpu', 'force_cpu']");
}

std::string paramUnitToString(ParamUnit unit)
{
    switch (unit) {
    case ParamUnit::MM:
        return "MM";
    case ParamUnit::Fraction:
        return "Fraction";
    case ParamUnit::Voxel:
        return "Voxel";
    }
    return {};
}

ParamUnit stringToParamUnit(std::string const& text)
{
    std::string const lower = String::toLowerCopy(text);
    if (lower == "mm")
        return ParamUnit::MM;
    if (lower == "fraction")
        return ParamUnit::Fraction;
    if (lower == "voxel")
        return ParamUnit::Voxel;
    throw std::runtime_error("Unknown param unit '" + text + "', supported are ['MM', 'Fraction', 'Voxel']");
}

} // namespace Velmoria::ML

#include "ml/sampling/SamplingConfiguration.h"

#include "ml/operations/ParamException.h"

#include "host/core/Log.h"

#include <fmt/format.h>

#include <array>
#include <exception>
#include <initializer_list>
#include <optional>

namespace Velmoria::ML {

namespace {

constexpr char const* kCategory = "ML.SamplingConfiguration";

// The one table of the configuration's keys: the key, its older names (tried in order), and the
// key of the host's image-splitting algorithm that receives the value.
struct SamplingKey
{
    char const* key;
    std::array<char const*, 2> oldNames; // unused places are null
    char const* splitKey;
};

std::array<SamplingKey, 9> const kSamplingKeys = {{
    {"MaxSizeSubdivision", {"maxSize", nullptr}, "maxSize"},
    {"PixelsOverlap", {"overlap", nullptr}, "overlap"},
    {"DimensionDivisor", {"dimensionDivisor", nullptr}, "dimensionDivisor"},
    {"RecombineWeighted", {"weighted", nullptr}, "weighted"},
    {"RecombineDevice", {"recombineDevice", "device"}, "device"},
    {"PaddingMode", {"paddingMode", nullptr}, "paddingMode"},
    {"ExtendImage", {"extendImage", nullptr}, "extendImage"},
    {"SkipUnpadding", {"skipUnpadding", nullptr}, "skipUnpadding"},
    {"EnsureInputImageMultipleOfDivisor",
     {"ensureInputImageMultipleOfDivisor", nullptr},
     "ensureMultipleOfDivisor"},
}};

// From this model-file version on, padding is chosen by "PaddingMode" only, and padding is left
// in the result unless asked otherwise.
constexpr int kPaddingModeVersion = 5;

ImageProcessing::PaddingMode paddingModeFromText(std::string const& text)
{
    std::optional<ImageProcessing::PaddingMode> const mode = ImageProcessing::stringToPaddingMode(text);
    if (!mode)
        throw ParamException(
            fmt::format("Got invalid padding mode `{}`. Please choose from Mirror, Zero, Clamp. ", text));
    return *mode;
}

} // namespace

SamplingConfiguration::SamplingConfiguration(int version)
    : p_recombineDevice("RecombineDevice", ComputingDevice::GPUIfOpenGl, this, ParamRequired::No,
                        deviceToString, stringToDevice,
                        {"GPUIfOpenGl", "GPUIfGlImage", "ForceGPU", "ForceCPU"})
    , p_paddingMode("PaddingMode", ImageProcessing::PaddingMode::Mirror, this, ParamRequired::No,
                    ImageProcessing::paddingModeToString, paddingModeFromText, {"Mirror", "Zero", "Clamp"})
    , m_version(version)
{
    p_skipUnpadding.setValue(version >= kPaddingModeVersion);
    for (SamplingKey const& row : kSamplingKeys) {
        ParameterBase* parameter = this->parameter(row.key);
        for (char const* old : row.oldNames)
            if (old)
                parameter->addDeprecatedName(old);
    }
}

void SamplingConfiguration::configure(Properties const* properties)
{
    configureChecked(properties);
}

bool SamplingConfiguration::configureChecked(Properties const* properties)
{
    if (!properties)
        return true;
    if (m_version >= kPaddingModeVersion) {
        for (char const* key : {"mirrorPadding", "MirrorPadding"}) {
            if (properties->contains(key)) {
                VELMORIA_LOG_ERROR(kCategory,
                                   "`{}` is no longer supported from version 5 on. Please use `PaddingMode: "
                                   "[Mirror, Clamp, Zero]` instead.",
                                   key);
                return false;
            }
        }
    }

    // The padding mode is checked first, on a copy, so that a bad mode changes nothing and is
    // reported in its own words rather than the generic "could not be parsed".
    Properties copy = *properties;
    for (char const* key : {"paddingMode", "PaddingMode"}) {
        if (!copy.contains(key))
            continue;
        std::string const text = copy.paramValueText(key);
        std::optional<ImageProcessing::PaddingMode> mode;
        int number = 0;
        if (copy.param(key, number) && number >= 0 && number <= 2)
            mode = static_cast<ImageProcessing::PaddingMode>(number);
        else
            mode = ImageProcessing::stringToPaddingMode(text);
        if (!mode) {
            VELMORIA_LOG_ERROR(
                kCategory, "Got invalid padding mode `{}`. Please choose from Mirror, Zero, Clamp. ", text);
            return false;
        }
        copy.setParam(key, ImageProcessing::paddingModeToString(*mode));
    }

    bool ok = true;
    for (ParameterBase* parameter : parameters()) {
        try {
            parameter->configure(&copy);
        } catch (std::exception const& e) {
            // The parameter logged its own message; go on so that every bad key is reported.
            VELMORIA_LOG_DEBUG(kCategory, "{}", e.what());
            ok = false;
        }
    }
    return ok;
}

Properties SamplingConfiguration::toSplitImagesAlgorithmProperties() const
{
    Properties written;
    configuration(&written);
    Properties result;
    for (SamplingKey const& row : kSamplingKeys)
        if (ParamValue const* value = written.paramValue(row.key))
            result.setParamValue(row.splitKey, *value);
    return result;
}

} // namespace Velmoria::ML

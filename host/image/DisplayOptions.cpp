#include "host/image/DisplayOptions.h"

#include <algorithm>

namespace Velmoria {

namespace {
double ramp(double intensity, double level, double window, bool invert)
{
    double grey =
        window > 0.0 ? (intensity - (level - window / 2.0)) / window : (intensity >= level ? 1.0 : 0.0);
    grey = std::clamp(grey, 0.0, 1.0);
    return invert ? 1.0 - grey : grey;
}
} // namespace

double DisplayOptions2d::greyValue(double intensity) const
{
    return ramp(intensity, p_level.value(), p_window.value(), p_invert.value());
}

void DisplayOptions2d::setWindowFromRange(double lo, double hi)
{
    p_window.setValue(hi - lo);
    p_level.setValue((lo + hi) / 2.0);
}

bool DisplayOptions2d::operator==(DisplayOptions2d const& other) const
{
    return p_level.value() == other.p_level.value() && p_window.value() == other.p_window.value() &&
           p_invert.value() == other.p_invert.value();
}

double DisplayOptions3d::greyValue(double intensity) const
{
    return ramp(intensity, p_level.value(), p_window.value(), p_invert.value());
}

bool DisplayOptions3d::operator==(DisplayOptions3d const& other) const
{
    return p_level.value() == other.p_level.value() && p_window.value() == other.p_window.value() &&
           p_invert.value() == other.p_invert.value() && p_opacity.value() == other.p_opacity.value();
}

} // namespace Velmoria

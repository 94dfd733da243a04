#pragma once

// Display options of an image set: how a viewer maps intensities to grey values.
//
//   level, window  the grey ramp is centred on `level` and `window` wide, in original
//                  intensities: values below level − window/2 are black, above level + window/2
//                  white (CT soft tissue: level 40, window 400);
//   invert         swaps black and white.
//
// DisplayOptions2d applies to slice views, DisplayOptions3d to volume renderings, which add an
// opacity. Both are persistent components and are written with the data.

#include "host/core/Parameter.h"
#include "host/data/DataComponent.h"

namespace Velmoria {

class DisplayOptions2d : public DataComponent<DisplayOptions2d>, public PersistentDataComponent
{
public:
    std::string id() const override { return "DisplayOptions2d"; }

    // The grey value in [0, 1] of an original intensity.
    double greyValue(double intensity) const;
    // level and window from the given intensity range (window = hi − lo, level its middle).
    void setWindowFromRange(double lo, double hi);

    bool operator==(DisplayOptions2d const& other) const;

    Parameter<double> p_level{"level", 0.5, this};
    Parameter<double> p_window{"window", 1.0, this};
    Parameter<bool> p_invert{"invert", false, this};
};

class DisplayOptions3d : public DataComponent<DisplayOptions3d>, public PersistentDataComponent
{
public:
    std::string id() const override { return "DisplayOptions3d"; }

    double greyValue(double intensity) const;
    bool operator==(DisplayOptions3d const& other) const;

    Parameter<double> p_level{"level", 0.5, this};
    Parameter<double> p_window{"window", 1.0, this};
    Parameter<bool> p_invert{"invert", false, this};
    Parameter<double> p_opacity{"opacity", 1.0, this};
};

} // namespace Velmoria

#pragma once

// HistogramDataComponent: intensity histograms of an image set, one per channel over all frames,
// in original intensities (see ImageDescriptor::storageToOriginal). Views use them for windowing
// and statistics; they are recomputed from the pixels, so the component is temporary and is not
// written with the data.

#include "host/data/DataComponent.h"

#include <vector>

namespace Velmoria {

class SharedImageSet;

class HistogramDataComponent : public DataComponent<HistogramDataComponent>, public TemporaryDataComponent
{
public:
    struct Histogram
    {
        double min = 0.0; // lower edge of the first bin
        double max = 0.0; // upper edge of the last bin (the maximum value falls in it)
        std::vector<double> counts;
        double total() const;
        bool operator==(Histogram const&) const = default;
    };

    std::string id() const override { return "HistogramDataComponent"; }

    // `bins` bins per channel between the smallest and largest value of that channel over all
    // frames; NaN values are not counted. Empty for an empty set or bins < 1.
    static HistogramDataComponent compute(SharedImageSet const& images, int bins = 256);

    std::vector<Histogram> const& histograms() const { return m_histograms; }
    // The value below which `fraction` (0..1) of the counted values of `channel` lie, linear
    // inside a bin.
    double percentile(int channel, double fraction) const;

    bool operator==(HistogramDataComponent const& other) const { return m_histograms == other.m_histograms; }

private:
    std::vector<Histogram> m_histograms;
};

} // namespace Velmoria

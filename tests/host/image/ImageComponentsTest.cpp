// The components an image set carries: the persistent ones round-trip through properties, the
// histogram is computed in original intensities and never saved.

#include "host/core/Properties.h"
#include "host/data/DataComponentList.h"
#include "host/image/DataSourceComponent.h"
#include "host/image/DatasetLicenseComponent.h"
#include "host/image/DisplayOptions.h"
#include "host/image/HistogramDataComponent.h"
#include "host/image/LabelDataComponent.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace Velmoria;

namespace {

// Writes a component, reads it into a fresh one, and compares with equals().
template <class T>
void expectRoundTrip(T const& original)
{
    EXPECT_TRUE(isPersistent(original));
    Properties written;
    original.configuration(&written);
    T restored;
    restored.configure(&written);
    EXPECT_TRUE(restored.equals(original)) << written.describe();
}

} // namespace

TEST(ImageComponents, PersistentComponentsRoundTripThroughProperties)
{
    DataSourceComponent sources(
        {{"/data/a.nii.gz", "IO.Nifti", 0, "CT 512x512x100"}, {"b.nrrd", "IO.Nrrd", 3, ""}});
    expectRoundTrip(sources);
    expectRoundTrip(
        DatasetLicenseComponent({{"Abdomen", "CC-BY-4.0", "Doe et al. 2024", "https://example.org"}}));

    LabelDataComponent labels;
    labels.setLabel(1, "liver", Eigen::Vector4d(1, 0, 0, 1));
    labels.setLabel(7, "spleen, accessory");
    expectRoundTrip(labels);

    DisplayOptions2d display;
    display.p_level = 40.0;
    display.p_window = 400.0;
    display.p_invert = true;
    expectRoundTrip(display);

    DisplayOptions3d volume;
    volume.p_opacity = 0.25;
    expectRoundTrip(volume);

    EXPECT_FALSE(isPersistent(HistogramDataComponent()));
}

TEST(ImageComponents, SourcesConcatenateInFrameOrderAndLabelsNameUnknownValues)
{
    DataSourceComponent a({{"a", "", 0, ""}});
    DataSourceComponent b({{"b", "", 0, ""}, {"c", "", 1, ""}});
    a += b;
    ASSERT_EQ(a.sources().size(), 3u);
    EXPECT_EQ(a.sources()[0].filename, "a");
    EXPECT_EQ(a.sources()[2].filename, "c");
    a += a;
    EXPECT_EQ(a.sources().size(), 6u);

    LabelDataComponent labels;
    labels.setLabel(2, "kidney");
    EXPECT_EQ(labels.labelName(2), "kidney");
    EXPECT_EQ(labels.labelName(5), "Label 5");
    EXPECT_FALSE(labels.label(5).has_value());
    EXPECT_TRUE(labels.removeLabel(2));
    EXPECT_FALSE(labels.removeLabel(2));
}

TEST(DisplayOptions, GreyRampFollowsLevelWindowAndInvert)
{
    DisplayOptions2d display;
    display.p_level = 40.0;
    display.p_window = 400.0;
    EXPECT_DOUBLE_EQ(display.greyValue(-160.0), 0.0);
    EXPECT_DOUBLE_EQ(display.greyValue(40.0), 0.5);
    EXPECT_DOUBLE_EQ(display.greyValue(240.0), 1.0);
    EXPECT_DOUBLE_EQ(display.greyValue(1000.0), 1.0);
    display.p_invert = true;
    EXPECT_DOUBLE_EQ(display.greyValue(-1000.0), 1.0);
    display.setWindowFromRange(-1000.0, 1000.0);
    EXPECT_DOUBLE_EQ(display.p_level.value(), 0.0);
    EXPECT_DOUBLE_EQ(display.p_window.value(), 2000.0);

    // A zero window is a threshold at the level.
    DisplayOptions3d volume;
    volume.p_level = 10.0;
    volume.p_window = 0.0;
    EXPECT_DOUBLE_EQ(volume.greyValue(9.0), 0.0);
    EXPECT_DOUBLE_EQ(volume.greyValue(10.0), 1.0);

    // One of each kind in a component list, copied with the list.
    DataComponentList list;
    list.add(std::make_unique<DisplayOptions2d>());
    list.add(std::make_unique<DisplayOptions3d>());
    list.add(std::make_unique<DisplayOptions2d>())->p_level = 3.0;
    EXPECT_EQ(list.size(), 2);
    DataComponentList copy(list);
    EXPECT_EQ(copy.get<DisplayOptions2d>()->p_level.value(), 3.0);
    EXPECT_NE(copy.get<DisplayOptions2d>(), list.get<DisplayOptions2d>());
}

TEST(HistogramDataComponent, CountsEveryFrameInOriginalIntensitiesAndSkipsNan)
{
    SharedImageSet set;
    for (int frame = 0; frame < 2; ++frame) {
        auto pixels = TypedImage<float>::zeros(Eigen::Vector3i(4, 1, 1), 2);
        for (int x = 0; x < 4; ++x) {
            pixels->setValue(static_cast<float>(x + 4 * frame), x, 0, 0, 0); // 0..7
            pixels->setValue(x == 0 ? std::numeric_limits<float>::quiet_NaN() : 1.0f, x, 0, 0, 1);
        }
        set.add(std::shared_ptr<Image>(std::move(pixels)));
    }
    auto histogram = HistogramDataComponent::compute(set, 4);
    ASSERT_EQ(histogram.histograms().size(), 2u);
    auto const& first = histogram.histograms()[0];
    EXPECT_EQ(first.min, 0.0);
    EXPECT_EQ(first.max, 7.0);
    EXPECT_EQ(first.counts, (std::vector<double>{2, 2, 2, 2}));
    EXPECT_EQ(histogram.histograms()[1].total(), 6.0) << "NaN values must not be counted";
    EXPECT_NEAR(histogram.percentile(0, 0.5), 3.5, 1e-12);
    EXPECT_TRUE(std::isnan(histogram.percentile(5, 0.5)));
    EXPECT_TRUE(HistogramDataComponent::compute(SharedImageSet(), 8).histograms().empty());

    // Stored 0 and 2000 with original = stored - 1000.
    auto shifted = TypedImage<unsigned short>::zeros(Eigen::Vector3i(2, 1, 1), 1);
    shifted->pointer()[1] = 2000;
    shifted->setShiftScale(1000.0, 1.0);
    SharedImageSet shiftedSet;
    shiftedSet.add(std::shared_ptr<Image>(std::move(shifted)));
    auto const range = HistogramDataComponent::compute(shiftedSet, 2);
    EXPECT_EQ(range.histograms()[0].min, -1000.0);
    EXPECT_EQ(range.histograms()[0].max, 1000.0);
}

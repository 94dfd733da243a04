// Percentile windows against sorted values, masks, display options and refused input.

#include "host/processing/AutoWindowing.h"

#include "ProcessingFixtures.h"

#include "host/core/Log.h"
#include "host/image/DisplayOptions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ImageProcessing;
using namespace Velmoria::ProcessingTest;

namespace {

// The original intensities of channel `channel` of every frame, sorted; `inside` filters pixels.
template <class T, class Inside>
std::vector<double> sortedValues(SharedImageSet const& set, int channel, Inside inside)
{
    std::vector<double> values;
    for (auto const& frame : set.images()) {
        auto const& img = typed<T>(*frame);
        for (std::size_t p = 0; p < img.descriptor().pixelCount(); ++p)
            if (inside(p))
                values.push_back(img.descriptor().storageToOriginal(
                    img.value(p * static_cast<std::size_t>(img.channels()) + channel)));
    }
    std::sort(values.begin(), values.end());
    return values;
}

// The value at which the fraction f of the values is reached (the ceil(f · n)-th value).
double referencePercentile(std::vector<double> const& sorted, double f)
{
    auto const rank =
        static_cast<std::size_t>(std::max(std::ceil(f * static_cast<double>(sorted.size())), 1.0));
    return sorted[rank - 1];
}

} // namespace

template <class T>
class AutoWindowingTest : public ::testing::Test
{};
TYPED_TEST_SUITE(AutoWindowingTest, AllPixelTypes);

TYPED_TEST(AutoWindowingTest, MatchesSortedValuesToWithinOneBin)
{
    SharedImageSet set;
    set.add(randomFrame<TypeParam>({Eigen::Vector3i(20, 15, 4), 2, Eigen::Vector3d::Ones(), -7.0, 4.0, 1}));
    set.add(randomFrame<TypeParam>({Eigen::Vector3i(20, 15, 4), 2, Eigen::Vector3d::Ones(), -7.0, 4.0, 2}));
    for (int channel = 0; channel < 2; ++channel) {
        auto const sorted = sortedValues<TypeParam>(set, channel, [](std::size_t) { return true; });
        double const bin = (sorted.back() - sorted.front()) / kAutoWindowBins;
        for (auto [lo, hi] : {std::pair{0.0, 1.0}, std::pair{0.05, 0.95}, std::pair{0.3, 0.3}}) {
            auto const window = computeAutoWindowing(set, lo, hi, nullptr, channel);
            ASSERT_TRUE(window.has_value());
            EXPECT_NEAR(window->first, referencePercentile(sorted, lo), 1.5 * bin)
                << lo << " channel " << channel;
            EXPECT_NEAR(window->second, referencePercentile(sorted, hi), 1.5 * bin)
                << hi << " channel " << channel;
        }
        // The extremes are exact.
        auto const full = computeAutoWindowing(set, 0.0, 1.0, nullptr, channel);
        EXPECT_DOUBLE_EQ(full->first, sorted.front());
        EXPECT_DOUBLE_EQ(full->second, sorted.back());
    }
}

TYPED_TEST(AutoWindowingTest, CountsOnlyPixelsInsideTheMask)
{
    auto const frame =
        randomFrame<TypeParam>({Eigen::Vector3i(16, 16, 2), 1, Eigen::Vector3d::Ones(), 2.0, 0.25, 4});
    // Inside: the left half. Its values are pushed far up so that ignoring the mask shows.
    auto maskImage = TypedImage<unsigned char>::zeros(frame->dimensions(), 1);
    auto& pixels = static_cast<TypedImage<TypeParam>&>(*frame->mem());
    for (int z = 0; z < 2; ++z)
        for (int y = 0; y < 16; ++y)
            for (int x = 0; x < 8; ++x) {
                maskImage->setValue(1, x, y, z);
                pixels.setValue(static_cast<TypeParam>(pixels.value(x, y, z) / 2 + 20), x, y, z);
            }
    ExplicitMask const mask(std::shared_ptr<TypedImage<unsigned char>>(std::move(maskImage)));
    SharedImageSet set(frame);
    auto const sorted = sortedValues<TypeParam>(set, 0, [](std::size_t p) { return p % 16 < 8; });
    double const bin = (sorted.back() - sorted.front()) / kAutoWindowBins;
    auto const window = computeAutoWindowing(set, 0.1, 0.9, &mask);
    ASSERT_TRUE(window.has_value());
    EXPECT_NEAR(window->first, referencePercentile(sorted, 0.1), 1.5 * bin);
    EXPECT_NEAR(window->second, referencePercentile(sorted, 0.9), 1.5 * bin);
    auto const whole = computeAutoWindowing(set, 0.0, 1.0);
    auto const masked = computeAutoWindowing(set, 0.0, 1.0, &mask);
    EXPECT_DOUBLE_EQ(masked->first, sorted.front());
    EXPECT_LT(whole->first, masked->first);
}

TEST(AutoWindowing, HistogramOverloadReadsItsPercentiles)
{
    SharedImageSet set(randomFrame<float>());
    auto const histogram = HistogramDataComponent::compute(set, 64);
    auto const window = computeAutoWindowing(histogram, 0.2, 0.7, 1);
    ASSERT_TRUE(window.has_value());
    EXPECT_DOUBLE_EQ(window->first, histogram.percentile(1, 0.2));
    EXPECT_DOUBLE_EQ(window->second, histogram.percentile(1, 0.7));
}

TEST(AutoWindowing, AutoWindowSetsBothDisplayOptions)
{
    SharedImageSet set(randomFrame<short>());
    ASSERT_TRUE(autoWindow(set, 0.0, 1.0));
    auto const sorted = sortedValues<short>(set, 0, [](std::size_t) { return true; });
    auto const* options2d = set.components().get<DisplayOptions2d>();
    auto const* options3d = set.components().get<DisplayOptions3d>();
    ASSERT_NE(options2d, nullptr);
    ASSERT_NE(options3d, nullptr);
    EXPECT_DOUBLE_EQ(options2d->p_window.value(), sorted.back() - sorted.front());
    EXPECT_DOUBLE_EQ(options2d->p_level.value(), (sorted.back() + sorted.front()) / 2.0);
    EXPECT_DOUBLE_EQ(options3d->p_window.value(), options2d->p_window.value());
    EXPECT_DOUBLE_EQ(options3d->p_level.value(), options2d->p_level.value());
}

TEST(AutoWindowing, RefusesBadPercentilesAndChangesNothing)
{
    SharedImageSet set(randomFrame<float>());
    for (auto [min, max, message] :
         {std::tuple{-0.1, 0.5, "Percentiles must lie in [0, 1], got min -0.1 and max 0.5"},
          std::tuple{0.0, 99.0, "Percentiles must lie in [0, 1], got min 0 and max 99"},
          std::tuple{std::nan(""), 0.5, "Percentiles must lie in [0, 1], got min nan and max 0.5"},
          std::tuple{0.8, 0.2, "The min percentile 0.8 is above the max percentile 0.2"}}) {
        Log::Capture capture;
        EXPECT_FALSE(computeAutoWindowing(set, min, max).has_value());
        EXPECT_FALSE(autoWindow(set, min, max));
        EXPECT_EQ(capture.count(message, "Host.AutoWindowing"), 2) << message;
    }
    EXPECT_EQ(set.components().get<DisplayOptions2d>(), nullptr);
}

TEST(AutoWindowing, RefusesWhatHasNoValues)
{
    Log::Capture capture;
    SharedImageSet empty;
    empty.setName("nothing");
    EXPECT_FALSE(computeAutoWindowing(empty, 0.0, 1.0).has_value());
    EXPECT_TRUE(
        capture.contains("Cannot compute a window for the empty set 'nothing'", "Host.AutoWindowing"));

    auto pixels = TypedImage<float>::zeros(Eigen::Vector3i(4, 4, 1), 1);
    pixels->fill(std::nanf(""));
    SharedImageSet nan(std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels))));
    EXPECT_FALSE(computeAutoWindowing(nan, 0.0, 1.0).has_value());
    EXPECT_TRUE(capture.contains("The histogram of channel 0 counts no value", "Host.AutoWindowing"));

    SharedImageSet set(randomFrame<float>());
    EXPECT_FALSE(computeAutoWindowing(set, 0.0, 1.0, nullptr, 2).has_value());
    EXPECT_TRUE(capture.contains("No histogram for channel 2; there are 2", "Host.AutoWindowing"));

    ExplicitMask const wrongSize(Eigen::Vector3i(2, 2, 2));
    EXPECT_FALSE(computeAutoWindowing(set, 0.0, 1.0, &wrongSize).has_value());
    EXPECT_TRUE(capture.contains("The mask does not fit a frame of the set ''", "Host.AutoWindowing"));

    ExplicitMask nothingInside(std::shared_ptr<TypedImage<unsigned char>>(
        TypedImage<unsigned char>::zeros(set.get(0)->dimensions(), 1)));
    EXPECT_FALSE(computeAutoWindowing(set, 0.0, 1.0, &nothingInside).has_value());
}

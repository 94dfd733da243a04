#include "ml/sampling/LabelROISampler.h"

#include "ml/data/LabelMap.h"

#include "host/image/SharedImageSet.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace Velmoria::ML {

namespace {

// Rows per block of the candidate search. Fixed (not derived from the thread count) so that
// the blocks, and therefore the joined lists, are the same with any number of threads.
constexpr std::int64_t kRowsPerBlock = 64;

// The keys only this sampler reads; the fallback sampler is configured without them so that it
// does not report them as unknown.
constexpr std::array<char const*, 3> kLabelOnlyKeys = {"labels_values", "sample_boundaries_only",
                                                       "fallback_to_random"};

} // namespace

LabelROISampler::LabelROISampler()
    : ImageROISampler("LabelROISampler", PaddingMode::Clamp, PaddingMode::Clamp)
{}

bool LabelROISampler::configure(Properties const& properties)
{
    if (!ImageROISampler::configure(properties))
        return false;
    if (!p_fallbackToRandom.value()) {
        m_fallback.reset();
        return true;
    }
    m_fallback = std::make_unique<RandomROISampler>();
    Properties forFallback = properties;
    for (char const* key : kLabelOnlyKeys)
        forFallback.removeParam(key);
    // Same size and modes; and the same seed, which that configure applies when one is given.
    if (!m_fallback->configure(forFallback))
        return false;
    if (seed())
        m_fallback->seedRandomEngine(*seed());
    return true;
}

void LabelROISampler::seedRandomEngine(unsigned int seed)
{
    ImageROISampler::seedRandomEngine(seed);
    if (m_fallback)
        m_fallback->seedRandomEngine(seed);
}

std::vector<std::vector<std::size_t>> LabelROISampler::gatherCandidates(SharedImage const& labels,
                                                                        std::vector<int> const& values,
                                                                        bool boundariesOnly)
{
    // Which lists a value belongs to (a value listed twice goes to both).
    std::array<std::vector<int>, 256> slotsOf;
    for (std::size_t slot = 0; slot < values.size(); ++slot)
        if (values[slot] >= 0 && values[slot] <= 255)
            slotsOf[static_cast<std::size_t>(values[slot])].push_back(static_cast<int>(slot));

    Eigen::Vector3i const dims = labels.dimensions();
    std::int64_t const width = dims.x();
    std::int64_t const height = dims.y();
    std::int64_t const slices = dims.z();
    std::int64_t const channels = labels.channels();
    auto const* pixels = static_cast<std::uint8_t const*>(labels.mem()->data());
    auto at = [&](std::int64_t linear) { return pixels[linear * channels]; };

    std::int64_t const rows = height * slices;
    std::int64_t const blocks = (rows + kRowsPerBlock - 1) / kRowsPerBlock;
    std::vector<std::vector<std::vector<std::size_t>>> perBlock(static_cast<std::size_t>(blocks));

#pragma omp parallel for schedule(dynamic)
    for (std::int64_t block = 0; block < blocks; ++block) {
        std::vector<std::vector<std::size_t>> lists(values.size());
        std::int64_t const rowEnd = std::min(rows, (block + 1) * kRowsPerBlock);
        for (std::int64_t row = block * kRowsPerBlock; row < rowEnd; ++row) {
            std::int64_t const y = row % height;
            std::int64_t const z = row / height;
            for (std::int64_t x = 0; x < width; ++x) {
                std::int64_t const linear = row * width + x;
                std::uint8_t const value = at(linear);
                std::vector<int> const& slots = slotsOf[value];
                if (slots.empty())
                    continue;
                if (boundariesOnly) {
                    bool const boundary = (x > 0 && at(linear - 1) != value) ||
                                          (x + 1 < width && at(linear + 1) != value) ||
                                          (y > 0 && at(linear - width) != value) ||
                                          (y + 1 < height && at(linear + width) != value) ||
                                          (z > 0 && at(linear - width * height) != value) ||
                                          (z + 1 < slices && at(linear + width * height) != value);
                    if (!boundary)
                        continue;
                }
                for (int slot : slots)
                    lists[static_cast<std::size_t>(slot)].push_back(static_cast<std::size_t>(linear));
            }
        }
        perBlock[static_cast<std::size_t>(block)] = std::move(lists);
    }

    std::vector<std::vector<std::size_t>> joined(values.size());
    for (std::size_t slot = 0; slot < values.size(); ++slot)
        for (auto const& lists : perBlock)
            joined[slot].insert(joined[slot].end(), lists[slot].begin(), lists[slot].end());
    return joined;
}

std::optional<RegionOfInterest> LabelROISampler::computeROI(SharedImageSet const* labels) const
{
    if (!labels || labels->empty())
        throw ImageSamplersException("Got empty image in computeROI.");
    if (requiresLabel() && !isSemanticSegmentationMap(labels))
        throw ImageSamplersException(
            "Input image to be used as Label has no Modality::LABEL set. You can set "
            "itusing SetLabelModalityOperation in your processing pipeline.");
    if (labels->get()->pixelType() != PixelType::UChar)
        throw ImageSamplersException("Labels must be unsigned char in LabelROISampler.");

    Eigen::Vector3i const size = preprocessRoiSize(p_roiSize.value(), labels->get()->dimensions());
    std::unique_ptr<SharedImageSet> padded = padImageToDimensions(labels, size, PaddingMode::Zero);
    SharedImage const& frame = *(padded ? padded.get() : labels)->get();

    std::vector<std::vector<std::size_t>> lists =
        gatherCandidates(frame, p_labelsValues.value(), p_sampleBoundariesOnly.value());
    std::erase_if(lists, [](std::vector<std::size_t> const& list) { return list.empty(); });
    if (lists.empty()) {
        if (m_fallback)
            return m_fallback->computeROI(labels);
        return std::nullopt;
    }

    Random::Generator& generator = randomGenerator();
    std::vector<std::size_t> const& chosen =
        lists[generator.getUniformInteger<std::size_t>(0, lists.size() - 1)];
    std::size_t const linear = chosen[generator.getUniformInteger<std::size_t>(0, chosen.size() - 1)];

    Eigen::Vector3i const dims = frame.dimensions();
    std::size_t const planeSize = static_cast<std::size_t>(dims.x()) * static_cast<std::size_t>(dims.y());
    Eigen::Vector3i const position(
        static_cast<int>(linear % static_cast<std::size_t>(dims.x())),
        static_cast<int>(linear / static_cast<std::size_t>(dims.x()) % static_cast<std::size_t>(dims.y())),
        static_cast<int>(linear / planeSize));
    RegionOfInterest roi;
    roi.extent = size;
    roi.offset = position - size / 2;
    int const clampedAxes = dims.z() > 1 ? 3 : 2;
    for (int axis = 0; axis < clampedAxes; ++axis)
        roi.offset[axis] = std::clamp(roi.offset[axis], 0, std::max(0, dims[axis] - size[axis]));
    return roi;
}

} // namespace Velmoria::ML

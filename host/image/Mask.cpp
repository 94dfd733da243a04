#include "host/image/Mask.h"

#include "host/core/Log.h"
#include "host/image/SharedImage.h"

#include <cstdint>

namespace Velmoria {

namespace {

constexpr char const* kCategory = "Host.Mask";

std::unique_ptr<TypedImage<unsigned char>> binarize(MemImage const& image)
{
    auto mask = TypedImage<unsigned char>::zeros(image.dimensions(), 1);
    unsigned char* out = mask->pointer();
    auto const count = static_cast<std::int64_t>(image.descriptor().pixelCount());
    visitPixelType(image.type(), [&](auto tag) {
        using T = decltype(tag);
        T const* in = static_cast<TypedImage<T> const&>(image).pointer();
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < count; ++i)
            out[i] = in[i] != T(0) ? 1 : 0;
    });
    return mask;
}

} // namespace

ExplicitMask::ExplicitMask(Eigen::Vector3i const& dimensions)
    : m_mask(TypedImage<unsigned char>::zeros(dimensions, 1))
{
    m_mask->fill(1);
}

ExplicitMask::ExplicitMask(std::shared_ptr<TypedImage<unsigned char>> mask)
    : m_mask(std::move(mask))
{
    if (!m_mask || m_mask->channels() != 1)
        throw ImageError("ExplicitMask needs a one-channel uint8 image");
}

std::unique_ptr<ExplicitMask> ExplicitMask::convert(std::unique_ptr<SharedImage> labels)
{
    if (!labels || !labels->mem()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot make a mask from a null label image");
        return nullptr;
    }
    if (labels->channels() != 1) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot make a mask from a label image with {} channels; it needs one",
                           labels->channels());
        return nullptr;
    }
    return std::make_unique<ExplicitMask>(
        std::shared_ptr<TypedImage<unsigned char>>(binarize(*labels->mem())));
}

std::unique_ptr<TypedImage<unsigned char>> ExplicitMask::createExplicitMask(SharedImage const& image) const
{
    if (image.dimensions() != m_mask->dimensions()) {
        VELMORIA_LOG_ERROR(kCategory, "A mask of {}x{}x{} pixels does not fit an image of {}x{}x{}",
                           m_mask->width(), m_mask->height(), m_mask->slices(), image.width(), image.height(),
                           image.slices());
        return nullptr;
    }
    return binarize(*m_mask);
}

std::unique_ptr<Mask> ExplicitMask::clone() const
{
    return std::make_unique<ExplicitMask>(std::shared_ptr<TypedImage<unsigned char>>(m_mask->clone()));
}

std::unique_ptr<TypedImage<unsigned char>> IntensityMask::createExplicitMask(SharedImage const& image) const
{
    MemImage const* mem = image.mem();
    if (!mem)
        return nullptr;
    auto mask = TypedImage<unsigned char>::zeros(mem->dimensions(), 1);
    unsigned char* out = mask->pointer();
    auto const count = static_cast<std::int64_t>(mem->descriptor().pixelCount());
    int const channels = mem->channels();
    // Compare stored values against the range mapped into storage units: one conversion for
    // the bounds instead of one per pixel. A negative scale swaps the bounds.
    double low = mem->descriptor().originalToStorage(m_low);
    double high = mem->descriptor().originalToStorage(m_high);
    if (low > high)
        std::swap(low, high);
    visitPixelType(mem->type(), [&](auto tag) {
        using T = decltype(tag);
        T const* in = static_cast<TypedImage<T> const&>(*mem).pointer();
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < count; ++i) {
            double value = static_cast<double>(in[i * channels]);
            out[i] = value >= low && value <= high ? 1 : 0;
        }
    });
    return mask;
}

} // namespace Velmoria

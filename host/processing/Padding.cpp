#include "host/processing/Padding.h"

#include "host/core/Log.h"
#include "host/core/String.h"
#include "host/image/TypedImage.h"
#include "host/processing/Cropping.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

namespace Velmoria::ImageProcessing {

namespace {

constexpr char const* kCategory = "Host.Padding";

std::string text(Eigen::Vector3i const& v)
{
    return fmt::format("[{}, {}, {}]", v.x(), v.y(), v.z());
}

// The fill value as a stored value of T: rounded and clamped for integer types (NaN gives 0).
template <class T>
T storedFill(double value)
{
    if constexpr (std::is_integral_v<T>) {
        if (std::isnan(value))
            return T(0);
        double const rounded = std::nearbyint(value);
        double const lo = static_cast<double>(std::numeric_limits<T>::lowest());
        double const hi = static_cast<double>(std::numeric_limits<T>::max());
        return static_cast<T>(std::clamp(rounded, lo, hi));
    } else {
        return static_cast<T>(value);
    }
}

// Source index of every target index along one axis (−1: fill).
std::vector<int> axisTable(int targetSize, int sourceSize, int low, PaddingMode mode)
{
    std::vector<int> table(static_cast<std::size_t>(targetSize));
    for (int i = 0; i < targetSize; ++i)
        table[static_cast<std::size_t>(i)] = paddedSourceIndex(i - low, sourceSize, mode);
    return table;
}

template <class T>
void pad(TypedImage<T> const& source, TypedImage<T>& target, Eigen::Vector3i const& low, PaddingMode mode,
         T fill)
{
    Eigen::Vector3i const sd = source.dimensions();
    Eigen::Vector3i const td = target.dimensions();
    std::vector<int> const xs = axisTable(td.x(), sd.x(), low.x(), mode);
    std::vector<int> const ys = axisTable(td.y(), sd.y(), low.y(), mode);
    std::vector<int> const zs = axisTable(td.z(), sd.z(), low.z(), mode);
    std::int64_t const ch = source.channels();
    // The target columns that show the source row unchanged, copied with one memcpy per row.
    int const interiorBegin = std::clamp(low.x(), 0, td.x());
    int const interiorEnd = std::clamp(low.x() + sd.x(), interiorBegin, td.x());
    T const* src = source.pointer();
    T* dst = target.pointer();
    std::int64_t const rows = static_cast<std::int64_t>(td.y()) * td.z();

#pragma omp parallel for schedule(static)
    for (std::int64_t row = 0; row < rows; ++row) {
        int const ty = static_cast<int>(row % td.y());
        int const tz = static_cast<int>(row / td.y());
        T* out = dst + row * td.x() * ch;
        int const sy = ys[static_cast<std::size_t>(ty)];
        int const sz = zs[static_cast<std::size_t>(tz)];
        if (sy < 0 || sz < 0) {
            std::fill(out, out + td.x() * ch, fill);
            continue;
        }
        T const* in = src + (static_cast<std::int64_t>(sz) * sd.y() + sy) * sd.x() * ch;
        for (int x = 0; x < td.x(); ++x) {
            if (x == interiorBegin && interiorEnd > interiorBegin) {
                std::memcpy(out + x * ch, in + (x - low.x()) * ch,
                            static_cast<std::size_t>((interiorEnd - interiorBegin) * ch) * sizeof(T));
                x = interiorEnd - 1;
                continue;
            }
            int const sx = xs[static_cast<std::size_t>(x)];
            for (std::int64_t c = 0; c < ch; ++c)
                out[x * ch + c] = sx < 0 ? fill : in[sx * ch + c];
        }
    }
}

} // namespace

std::string paddingModeToString(PaddingMode mode)
{
    switch (mode) {
    case PaddingMode::Zero:
        return "Zero";
    case PaddingMode::Mirror:
        return "Mirror";
    case PaddingMode::Clamp:
        return "Clamp";
    }
    return "Unknown";
}

std::optional<PaddingMode> stringToPaddingMode(std::string_view text)
{
    std::string const name = String::toLowerCopy(String::trimView(text));
    if (name == "zero")
        return PaddingMode::Zero;
    if (name == "mirror")
        return PaddingMode::Mirror;
    if (name == "clamp")
        return PaddingMode::Clamp;
    VELMORIA_LOG_ERROR(kCategory, "Unknown padding mode '{}' (expected Zero, Mirror or Clamp)", text);
    return std::nullopt;
}

int paddedSourceIndex(int index, int size, PaddingMode mode)
{
    if (index >= 0 && index < size)
        return index;
    switch (mode) {
    case PaddingMode::Clamp:
        return index < 0 ? 0 : size - 1;
    case PaddingMode::Mirror: {
        if (size == 1)
            return 0;
        // Reflection without repeating the edge has period 2 · (n − 1).
        std::int64_t const period = 2 * (static_cast<std::int64_t>(size) - 1);
        std::int64_t r = index % period;
        if (r < 0)
            r += period;
        return static_cast<int>(r < size ? r : period - r);
    }
    case PaddingMode::Zero:
        break;
    }
    return -1;
}

bool computePadded(MemImage const& source, MemImage& target, PaddingMode mode, Eigen::Vector3i const& low,
                   Eigen::Vector3i const& high, double value)
{
    if (mode != PaddingMode::Zero && mode != PaddingMode::Mirror && mode != PaddingMode::Clamp) {
        VELMORIA_LOG_ERROR(kCategory, "Unknown padding mode {}", static_cast<int>(mode));
        return false;
    }
    Eigen::Vector3i const expected = low + source.dimensions() + high;
    if ((expected.array() < 1).any()) {
        VELMORIA_LOG_ERROR(kCategory, "Padding low {} high {} leaves no pixel of an image of size {}",
                           text(low), text(high), text(source.dimensions()));
        return false;
    }
    if (target.dimensions() != expected || target.type() != source.type() ||
        target.channels() != source.channels()) {
        VELMORIA_LOG_ERROR(kCategory,
                           "Padding target is {} with {} channels of {}, expected {} with {} channels of {} "
                           "(source {} padded by low {} high {})",
                           text(target.dimensions()), target.channels(), pixelTypeName(target.type()),
                           text(expected), source.channels(), pixelTypeName(source.type()),
                           text(source.dimensions()), text(low), text(high));
        return false;
    }
    visitPixelType(source.type(), [&](auto tag) {
        using T = decltype(tag);
        pad(static_cast<TypedImage<T> const&>(source), static_cast<TypedImage<T>&>(target), low, mode,
            storedFill<T>(value));
    });
    return true;
}

std::unique_ptr<MemImage> createPadded(MemImage const& source, PaddingMode mode, Eigen::Vector3i const& low,
                                       Eigen::Vector3i const& high, double value)
{
    Eigen::Vector3i const size = low + source.dimensions() + high;
    if ((size.array() < 1).any()) {
        VELMORIA_LOG_ERROR(kCategory, "Padding low {} high {} leaves no pixel of an image of size {}",
                           text(low), text(high), text(source.dimensions()));
        return nullptr;
    }
    ImageDescriptor descriptor = source.descriptor();
    descriptor.setDimensions(size);
    auto target = MemImage::create(descriptor);
    if (!target || !computePadded(source, *target, mode, low, high, value))
        return nullptr;
    return target;
}

std::unique_ptr<SharedImage> createPadded(SharedImage const& source, PaddingMode mode,
                                          Eigen::Vector3i const& low, Eigen::Vector3i const& high,
                                          double value)
{
    if (!source.mem()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot pad a frame without CPU pixels");
        return nullptr;
    }
    auto pixels = createPadded(*source.mem(), mode, low, high, value);
    if (!pixels)
        return nullptr;
    Eigen::Vector3i const size = pixels->dimensions();
    auto frame = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(
        boxMatrixToWorld(source.matrixToWorld(), source.dimensions(), source.spacing(), -low, size));
    frame->setModality(source.modality());
    frame->setDeformation(source.deformation());
    return frame;
}

} // namespace Velmoria::ImageProcessing

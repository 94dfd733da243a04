#include "host/processing/CropLabelMapAlgorithm.h"

#include "host/core/Log.h"
#include "host/image/TypedImage.h"
#include "host/processing/Cropping.h"

#include <algorithm>
#include <climits>
#include <cstdint>

namespace Velmoria {

namespace {

constexpr char const* kCategory = "Host.CropLabelMapAlgorithm";

std::string text(Eigen::Vector3i const& v)
{
    return fmt::format("[{}, {}, {}]", v.x(), v.y(), v.z());
}

// The box of the matching pixels as inclusive [lo, hi]; lo > hi on an axis when none matched.
template <class T>
void findBox(TypedImage<T> const& image, std::vector<int> const& labels, Eigen::Vector3i& lo,
             Eigen::Vector3i& hi)
{
    std::int64_t const w = image.width();
    std::int64_t const h = image.height();
    std::int64_t const ch = image.channels();
    std::int64_t const rows = h * image.slices();
    T const* pixels = image.pointer();
    int const* labelData = labels.data();
    std::size_t const labelCount = labels.size();
    int x0 = INT_MAX, y0 = INT_MAX, z0 = INT_MAX;
    int x1 = INT_MIN, y1 = INT_MIN, z1 = INT_MIN;

#pragma omp parallel for schedule(static) reduction(min : x0, y0, z0) reduction(max : x1, y1, z1)
    for (std::int64_t row = 0; row < rows; ++row) {
        T const* in = pixels + row * w * ch;
        int first = INT_MAX, last = INT_MIN;
        for (std::int64_t i = 0; i < w * ch; ++i) {
            T const v = in[i];
            bool match = false;
            if (labelCount == 0)
                match = v != T(0);
            else
                for (std::size_t l = 0; l < labelCount && !match; ++l)
                    match = static_cast<double>(v) == static_cast<double>(labelData[l]);
            if (match) {
                int const x = static_cast<int>(i / ch);
                first = std::min(first, x);
                last = std::max(last, x);
            }
        }
        if (first <= last) {
            int const y = static_cast<int>(row % h);
            int const z = static_cast<int>(row / h);
            x0 = std::min(x0, first);
            x1 = std::max(x1, last);
            y0 = std::min(y0, y);
            y1 = std::max(y1, y);
            z0 = std::min(z0, z);
            z1 = std::max(z1, z);
        }
    }
    lo = {x0, y0, z0};
    hi = {x1, y1, z1};
}

} // namespace

CropLabelMapAlgorithm::CropLabelMapAlgorithm(SharedImageSet const* labelMap, SharedImageSet const* further)
    : m_labelMap(labelMap)
{
    if (further)
        m_further.push_back(further);
}

CropLabelMapAlgorithm::~CropLabelMapAlgorithm() = default;

bool CropLabelMapAlgorithm::labelBox(SharedImage const& frame, Eigen::Vector3i& offset,
                                     Eigen::Vector3i& size) const
{
    Eigen::Vector3i const dims = frame.dimensions();
    Eigen::Vector3i lo, hi;
    visitPixelType(frame.pixelType(), [&](auto tag) {
        using T = decltype(tag);
        findBox(static_cast<TypedImage<T> const&>(*frame.mem()), p_labelValues.value(), lo, hi);
    });
    if (lo.x() > hi.x()) {
        offset.setZero();
        size = dims;
        return false;
    }
    int const margin = std::max(0, p_margin.value());
    for (int axis = 0; axis < 3; ++axis) {
        // In 64 bits: a huge margin must clip, not overflow.
        std::int64_t const first = std::max<std::int64_t>(0, static_cast<std::int64_t>(lo[axis]) - margin);
        std::int64_t const last =
            std::min<std::int64_t>(dims[axis] - 1, static_cast<std::int64_t>(hi[axis]) + margin);
        offset[axis] = static_cast<int>(first);
        size[axis] = static_cast<int>(last - first + 1);
    }
    return true;
}

bool CropLabelMapAlgorithm::fail(int status)
{
    m_outputs.clear();
    m_boxes.clear();
    setStatus(status);
    return false;
}

void CropLabelMapAlgorithm::compute()
{
    m_outputs.clear();
    m_boxes.clear();
    if (!m_labelMap || m_labelMap->empty()) {
        VELMORIA_LOG_ERROR(kCategory, "{}", m_labelMap ? "The label map has no frames" : "No label map set");
        fail(InvalidInput);
        return;
    }
    if (p_margin.value() < 0) {
        VELMORIA_LOG_ERROR(kCategory, "Margin {} must not be negative", p_margin.value());
        fail(InvalidInput);
        return;
    }
    if (m_labelMapPosition < 0 || m_labelMapPosition > static_cast<int>(m_further.size())) {
        VELMORIA_LOG_ERROR(kCategory, "Label map position {} is outside the {} inputs", m_labelMapPosition,
                           m_further.size() + 1);
        fail(InvalidInput);
        return;
    }
    for (int i = 0; i < m_labelMap->size(); ++i)
        if (!m_labelMap->mem(i)) {
            VELMORIA_LOG_ERROR(kCategory, "Frame {} of the label map '{}' has no CPU pixels", i,
                               m_labelMap->name());
            fail(InvalidInput);
            return;
        }
    for (std::size_t s = 0; s < m_further.size(); ++s) {
        SharedImageSet const* set = m_further[s];
        if (!set || set->size() != m_labelMap->size()) {
            VELMORIA_LOG_ERROR(kCategory, "Further input {} has {} frames, the label map '{}' has {}", s,
                               set ? set->size() : 0, m_labelMap->name(), m_labelMap->size());
            fail(InvalidInput);
            return;
        }
        for (int i = 0; i < set->size(); ++i) {
            if (!set->mem(i) || set->get(i)->dimensions() != m_labelMap->get(i)->dimensions()) {
                VELMORIA_LOG_ERROR(
                    kCategory,
                    "Frame {} of further input {} ('{}') has size {}, the label map's frame has {}", i, s,
                    set->name(), set->mem(i) ? text(set->get(i)->dimensions()) : "no CPU pixels",
                    text(m_labelMap->get(i)->dimensions()));
                fail(InvalidInput);
                return;
            }
        }
    }

    for (int i = 0; i < m_labelMap->size(); ++i) {
        Eigen::Vector3i offset, size;
        if (!labelBox(*m_labelMap->get(i), offset, size))
            VELMORIA_LOG_WARNING(kCategory,
                                 "Frame {} of the label map '{}' holds none of the labels; kept whole", i,
                                 m_labelMap->name());
        m_boxes.emplace_back(offset, size);
    }

    auto crop = [&](SharedImageSet const& set) -> std::unique_ptr<SharedImageSet> {
        std::vector<std::shared_ptr<SharedImage>> frames;
        for (int i = 0; i < set.size(); ++i) {
            auto const& [offset, size] = m_boxes[static_cast<std::size_t>(i)];
            std::shared_ptr<SharedImage> frame = ImageProcessing::createCropped(*set.get(i), offset, size);
            if (!frame)
                return nullptr;
            frames.push_back(std::move(frame));
        }
        // Sharing the frames first keeps components, timestamps and selection.
        auto result = set.clone(SharedImageSet::CloneOption::ShareFrames);
        if (!result->replaceAll(std::move(frames)))
            return nullptr;
        return result;
    };

    std::vector<SharedImageSet const*> order;
    if (p_reorder.value()) {
        order.push_back(m_labelMap);
        order.insert(order.end(), m_further.begin(), m_further.end());
    } else {
        order = m_further;
        order.insert(order.begin() + m_labelMapPosition, m_labelMap);
    }
    for (SharedImageSet const* set : order) {
        auto result = crop(*set);
        if (!result) {
            VELMORIA_LOG_ERROR(kCategory, "Could not allocate the cropped frames of '{}'", set->name());
            fail(OutOfMemory);
            return;
        }
        m_outputs.push_back(std::move(result));
    }
    setStatus(Success);
}

OwningDataList CropLabelMapAlgorithm::takeOutput()
{
    OwningDataList list;
    for (auto& set : m_outputs)
        list.add(std::move(set));
    m_outputs.clear();
    return list;
}

std::vector<std::unique_ptr<SharedImageSet>> CropLabelMapAlgorithm::takeOutputSets()
{
    return std::move(m_outputs);
}

} // namespace Velmoria

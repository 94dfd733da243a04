#include "host/image/SharedImageSet.h"

#include "host/core/Log.h"

#include <fmt/core.h>

#include <Eigen/LU>

namespace Velmoria {

namespace {
constexpr char const* kCategory = "Host.SharedImageSet";
}

SharedImageSet::SharedImageSet() = default;

SharedImageSet::SharedImageSet(std::shared_ptr<SharedImage> frame)
{
    add(std::move(frame));
}

SharedImageSet::SharedImageSet(std::vector<std::shared_ptr<SharedImage>> frames)
{
    add(frames);
}

SharedImageSet::~SharedImageSet() = default;

int SharedImageSet::resolve(int index) const
{
    if (index == -1)
        index = m_selection.focus();
    return index >= 0 && index < size() ? index : -1;
}

SharedImage* SharedImageSet::get(int index)
{
    int i = resolve(index);
    return i < 0 ? nullptr : m_frames[static_cast<std::size_t>(i)].get();
}

SharedImage const* SharedImageSet::get(int index) const
{
    return const_cast<SharedImageSet*>(this)->get(index);
}

std::shared_ptr<SharedImage> SharedImageSet::getShared(int index) const
{
    int i = resolve(index);
    return i < 0 ? nullptr : m_frames[static_cast<std::size_t>(i)];
}

Image* SharedImageSet::img(int index)
{
    SharedImage* frame = get(index);
    return frame ? frame->img() : nullptr;
}

Image const* SharedImageSet::img(int index) const
{
    SharedImage const* frame = get(index);
    return frame ? frame->img() : nullptr;
}

MemImage* SharedImageSet::mem(int index)
{
    SharedImage* frame = get(index);
    return frame ? frame->mem() : nullptr;
}

MemImage const* SharedImageSet::mem(int index) const
{
    SharedImage const* frame = get(index);
    return frame ? frame->mem() : nullptr;
}

bool SharedImageSet::hasGl(int index) const
{
    SharedImage const* frame = get(index);
    return frame && frame->hasGl();
}

std::optional<PixelType> SharedImageSet::pixelType() const
{
    if (m_frames.empty())
        return std::nullopt;
    return m_frames.front()->pixelType();
}

bool SharedImageSet::accepts(SharedImage const& frame) const
{
    auto type = pixelType();
    if (type && frame.pixelType() != *type) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot add a frame of type {} to the set '{}' of type {}",
                           pixelTypeName(frame.pixelType()), name(), pixelTypeName(*type));
        return false;
    }
    return true;
}

void SharedImageSet::appendUnchecked(std::shared_ptr<SharedImage> frame)
{
    if (modality() != Modality::Unknown)
        frame->setModality(modality());
    m_frames.push_back(std::move(frame));
    m_timestamps.emplace_back();
    m_frameComponents.append();
}

bool SharedImageSet::add(std::shared_ptr<SharedImage> frame)
{
    if (!frame || !frame->hasMem()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot add a null frame to the set '{}'", name());
        return false;
    }
    if (!accepts(*frame))
        return false;
    appendUnchecked(std::move(frame));
    return true;
}

bool SharedImageSet::add(std::shared_ptr<Image> image)
{
    if (!image || image->location() != Image::Memory) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot add {} to the set '{}'", image ? "a GPU image" : "a null image",
                           name());
        return false;
    }
    return add(std::make_shared<SharedImage>(std::move(image)));
}

bool SharedImageSet::add(std::vector<std::shared_ptr<SharedImage>> const& frames)
{
    // All or nothing: check every frame against the set and against the first new one.
    std::optional<PixelType> type = pixelType();
    for (auto const& frame : frames) {
        if (!frame || !frame->hasMem()) {
            VELMORIA_LOG_ERROR(kCategory, "Cannot add a null frame to the set '{}'", name());
            return false;
        }
        if (type && frame->pixelType() != *type) {
            VELMORIA_LOG_ERROR(kCategory, "Cannot add a frame of type {} to the set '{}' of type {}",
                               pixelTypeName(frame->pixelType()), name(), pixelTypeName(*type));
            return false;
        }
        type = frame->pixelType();
    }
    for (auto const& frame : frames)
        appendUnchecked(frame);
    return true;
}

bool SharedImageSet::replace(int index, std::shared_ptr<SharedImage> frame)
{
    int i = resolve(index);
    if (i < 0 || !frame || !frame->hasMem()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot replace frame {} of the set '{}' ({} frames){}", index, name(),
                           size(), frame ? "" : " by a null frame");
        return false;
    }
    if (size() > 1 && frame->pixelType() != *pixelType()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot put a frame of type {} into the set '{}' of type {}",
                           pixelTypeName(frame->pixelType()), name(), pixelTypeName(*pixelType()));
        return false;
    }
    m_frames[static_cast<std::size_t>(i)] = std::move(frame);
    return true;
}

bool SharedImageSet::replaceAll(std::vector<std::shared_ptr<SharedImage>> frames)
{
    if (frames.size() != m_frames.size()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot replace the {} frames of the set '{}' by {} frames", size(),
                           name(), frames.size());
        return false;
    }
    for (auto const& frame : frames) {
        if (!frame || !frame->hasMem() || frame->pixelType() != frames.front()->pixelType()) {
            VELMORIA_LOG_ERROR(kCategory, "Cannot replace the frames of the set '{}': {}", name(),
                               frame ? "the new frames differ in pixel type" : "a new frame is null");
            return false;
        }
    }
    m_frames = std::move(frames);
    return true;
}

bool SharedImageSet::remove(int index)
{
    int i = resolve(index);
    if (i < 0)
        return false;
    m_frames.erase(m_frames.begin() + i);
    m_timestamps.erase(m_timestamps.begin() + i);
    m_frameComponents.remove(i);
    // Indices after the removed frame move down by one.
    std::vector<int> indices;
    for (int selected : m_selection.indices())
        if (selected != i)
            indices.push_back(selected > i ? selected - 1 : selected);
    int focus = m_selection.focus() > i ? m_selection.focus() - 1 : m_selection.focus();
    m_selection = Selection(std::move(indices), focus);
    m_selection.clamp(size());
    return true;
}

void SharedImageSet::clear()
{
    m_frames.clear();
    m_timestamps.clear();
    m_frameComponents.clear();
    m_selection = Selection();
}

bool SharedImageSet::hasTimestamps() const
{
    if (m_timestamps.empty())
        return false;
    for (auto const& t : m_timestamps)
        if (!t)
            return false;
    return true;
}

double SharedImageSet::timestamp(int index) const
{
    int i = resolve(index);
    return i < 0 ? 0.0 : m_timestamps[static_cast<std::size_t>(i)].value_or(0.0);
}

bool SharedImageSet::setTimestamp(int index, double seconds)
{
    int i = resolve(index);
    if (i < 0)
        return false;
    m_timestamps[static_cast<std::size_t>(i)] = seconds;
    return true;
}

void SharedImageSet::setSelection(Selection const& selection)
{
    m_selection = selection;
    m_selection.clamp(size());
}

bool SharedImageSet::setFocus(int index)
{
    if (index < 0 || index >= size())
        return false;
    m_selection.setFocus(index);
    return true;
}

void SharedImageSet::setModality(Modality modality)
{
    Data::setModality(modality);
    for (auto const& frame : m_frames)
        frame->setModality(modality);
}

Eigen::Matrix4d SharedImageSet::matrix() const
{
    SharedImage const* frame = get(-1);
    return frame ? frame->matrixToWorld() : Eigen::Matrix4d::Identity();
}

void SharedImageSet::setMatrix(Eigen::Matrix4d const& matrix)
{
    // The same rigid change for every frame, so that frames keep their relative placement.
    Eigen::Matrix4d const change = matrix * this->matrix().inverse();
    for (auto const& frame : m_frames)
        frame->setMatrixToWorld(change * frame->matrixToWorld());
}

Geometry::AlignedBox SharedImageSet::bounds() const
{
    Geometry::AlignedBox box;
    for (auto const& frame : m_frames) {
        // The box around the pixel areas: corners half a pixel outside the corner centres.
        Eigen::Vector3d const high = frame->dimensions().cast<double>().array() - 0.5;
        for (int corner = 0; corner < 8; ++corner) {
            Eigen::Vector3d pixel((corner & 1) ? high.x() : -0.5, (corner & 2) ? high.y() : -0.5,
                                  (corner & 4) ? high.z() : -0.5);
            if (frame->slices() == 1)
                pixel.z() = 0.0;
            box.addPoint(frame->pixelToWorld(pixel));
        }
    }
    return box;
}

std::string SharedImageSet::describe() const
{
    if (m_frames.empty())
        return fmt::format("image set '{}' without frames", name());
    auto const& d = m_frames.front()->descriptor();
    return fmt::format("image set '{}': {} frame{} of {}x{}x{} pixels, {} channel{}, {}", name(), size(),
                       size() == 1 ? "" : "s", d.width, d.height, d.slices, d.channels,
                       d.channels == 1 ? "" : "s", pixelTypeName(d.pixelType));
}

std::unique_ptr<SharedImageSet> SharedImageSet::clone(CloneOptions options) const
{
    auto copy = std::make_unique<SharedImageSet>();
    copy->setName(name());
    copy->Data::setModality(modality());
    copy->m_properties = m_properties;
    if (!options.test(CloneOption::NoComponents))
        copy->components().assign(components());
    if (options.test(CloneOption::NoFrames))
        return copy;

    bool const share = options.test(CloneOption::ShareFrames);
    for (std::size_t i = 0; i < m_frames.size(); ++i) {
        copy->m_frames.push_back(share ? m_frames[i] : std::shared_ptr<SharedImage>(m_frames[i]->clone()));
        copy->m_timestamps.push_back(m_timestamps[i]);
        copy->m_frameComponents.append(options.test(CloneOption::NoComponents)
                                           ? DataComponentList()
                                           : m_frameComponents.get(static_cast<int>(i)));
    }
    copy->m_selection = m_selection;
    return copy;
}

} // namespace Velmoria

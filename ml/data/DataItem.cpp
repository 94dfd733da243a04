#include "ml/data/DataItem.h"

#include "ml/data/BoundingBoxElement.h"
#include "ml/data/BoundingBoxSet.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointSet.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/Tensor.h"
#include "ml/data/TensorSet.h"
#include "ml/data/TensorSetElement.h"
#include "ml/data/VectorElement.h"

#include "host/core/Log.h"

#include <Eigen/LU>
#include <algorithm>
#include <cstring>
#include <unordered_map>

namespace Velmoria::ML {

namespace {

constexpr char const* kCategory = "ML.DataItem";

// The stack step of DataItem may leave a field with a null element; every walk over the map
// treats such a field as an empty one rather than crashing on it.
std::size_t batchOf(std::shared_ptr<DataElement> const& element)
{
    return element ? element->batchSize() : 0;
}

bool equalFrames(SharedImage const& a, SharedImage const& b)
{
    ImageDescriptor const& da = a.descriptor();
    ImageDescriptor const& db = b.descriptor();
    if (da.dimensions() != db.dimensions() || da.channels != db.channels || da.pixelType != db.pixelType ||
        da.spacing != db.spacing || da.shift != db.shift || da.scale != db.scale)
        return false;
    std::size_t const bytes = da.byteSize();
    if (bytes == 0)
        return true;
    MemImage const* ma = a.mem();
    MemImage const* mb = b.mem();
    if (!ma || !mb)
        return ma == mb;
    return std::memcmp(ma->data(), mb->data(), bytes) == 0;
}

bool equalSets(SharedImageSet const* a, SharedImageSet const* b)
{
    if (!a || !b)
        return a == b;
    if (a->size() != b->size())
        return false;
    for (int i = 0; i < a->size(); ++i)
        if (!equalFrames(*a->get(i), *b->get(i)))
            return false;
    return true;
}

template <class T>
bool equalPointees(std::shared_ptr<T> const& a, std::shared_ptr<T> const& b)
{
    if (!a || !b)
        return a == b;
    return *a == *b;
}

bool equalElements(DataElement const* a, DataElement const* b)
{
    if (!a || !b)
        return a == b;
    if (a->type() != b->type())
        return false;
    switch (a->type()) {
    case ElementType::Image:
    case ElementType::Vector: {
        auto const* sa = dynamic_cast<SISBasedElement const*>(a);
        auto const* sb = dynamic_cast<SISBasedElement const*>(b);
        return sa && sb && equalSets(sa->sis().get(), sb->sis().get());
    }
    case ElementType::Keypoint: {
        auto const* ka = dynamic_cast<KeypointsElement const*>(a);
        auto const* kb = dynamic_cast<KeypointsElement const*>(b);
        return ka && kb && equalPointees(ka->keypoints(), kb->keypoints());
    }
    case ElementType::BoundingBox: {
        auto const* ba = dynamic_cast<BoundingBoxElement const*>(a);
        auto const* bb = dynamic_cast<BoundingBoxElement const*>(b);
        return ba && bb && equalPointees(ba->boxes(), bb->boxes());
    }
    case ElementType::Tensor: {
        auto const* ta = dynamic_cast<TensorSetElement const*>(a);
        auto const* tb = dynamic_cast<TensorSetElement const*>(b);
        return ta && tb && equalPointees(ta->tensorSet(), tb->tensorSet());
    }
    }
    return false;
}

} // namespace

// Construction ------------------------------------------------------------------------------------

DataItem::DataItem(Elements elements)
    : CompoundData("ML.DataItem")
{
    for (auto& [name, element] : elements)
        set(name, std::move(element));
}

DataItem::DataItem(DataItem&& other) noexcept
    : CompoundData("ML.DataItem")
{
    swapWith(other);
}

DataItem& DataItem::operator=(DataItem&& other) noexcept
{
    if (&other != this) {
        // Through a temporary, so that `other` ends up empty rather than holding our old elements.
        DataItem taken(std::move(other));
        swapWith(taken);
    }
    return *this;
}

DataItem::~DataItem() = default;

void DataItem::swapWith(DataItem& other)
{
    Data::swapWith(other);
}

void DataItem::swapContent(Data& other)
{
    std::swap(m_elements, static_cast<DataItem&>(other).m_elements);
}

// Data --------------------------------------------------------------------------------------------

void DataItem::setMatrix(Eigen::Matrix4d const& m)
{
    Eigen::Matrix4d const change = matrix().inverse() * m;
    for (auto const& [name, element] : m_elements) {
        if (!element || !element->content())
            continue;
        Data& child = *element->content();
        child.setMatrixToWorld(change * child.matrixToWorld());
    }
    Data::setMatrix(m);
}

Geometry::AlignedBox DataItem::bounds() const
{
    Geometry::AlignedBox box;
    for (Data* child : children())
        box.addBox(child->bounds());
    return box;
}

DataList DataItem::children() const
{
    DataList list;
    for (auto const& [name, element] : m_elements)
        if (element && element->content())
            list.add(element->content().get());
    return list;
}

// Access ------------------------------------------------------------------------------------------

std::unordered_set<std::string> DataItem::fields() const
{
    std::unordered_set<std::string> names;
    for (auto const& [name, element] : m_elements)
        names.insert(name);
    return names;
}

DataElement* DataItem::get(std::string const& name)
{
    auto it = m_elements.find(name);
    return it == m_elements.end() ? nullptr : it->second.get();
}

DataElement const* DataItem::get(std::string const& name) const
{
    auto it = m_elements.find(name);
    return it == m_elements.end() ? nullptr : it->second.get();
}

void DataItem::clear()
{
    Elements removed;
    std::swap(removed, m_elements);
    for (auto const& [name, element] : removed)
        if (element)
            signalChildRemoved.emitSignal(element->content().get());
}

int DataItem::dimension() const
{
    int common = 0;
    for (auto const& [name, element] : m_elements) {
        int const d = element ? element->dimension() : 0;
        if (d <= 1)
            continue;
        if (common == 0)
            common = d;
        else if (common != d)
            return 0;
    }
    return common;
}

std::optional<std::size_t> DataItem::batchSize() const
{
    if (m_elements.empty())
        return 0;
    std::size_t running = batchOf(m_elements.begin()->second);
    for (auto it = std::next(m_elements.begin()); it != m_elements.end(); ++it) {
        std::size_t const size = batchOf(it->second);
        if (size == running)
            continue;
        if (running != 0)
            return std::nullopt;
        running = size;
    }
    return running;
}

// set / pop ---------------------------------------------------------------------------------------

void DataItem::set(std::string name, std::shared_ptr<DataElement> element)
{
    if (!element || !element->content())
        throw DataItemException("Can not add invalid Element.");
    bool const replacesOnlyElement = m_elements.size() == 1 && m_elements.begin()->first == name;
    if (!m_elements.empty() && !replacesOnlyElement &&
        element->batchSize() != batchOf(m_elements.begin()->second))
        VELMORIA_LOG_WARNING(
            kCategory,
            "Adding Element '{}' with a different batch size than the present elements, which may "
            "lead to unexpected behavior.",
            name);
    Data* const content = element->content().get();
    m_elements.insertOrAssign(name, std::move(element));
    signalChildAdded.emitSignal(content);
}

void DataItem::set(std::string name, std::shared_ptr<SharedImageSet> sis)
{
    if (!sis || sis->empty()) {
        VELMORIA_LOG_ERROR("DataItem", "SharedImageSet is invalid or empty");
        return;
    }
    SharedImage const* focus = sis->get(-1);
    if (!focus)
        focus = sis->get(0);
    if (std::max({focus->width(), focus->height(), focus->slices()}) < 2)
        set(std::move(name), std::make_shared<VectorElement>(std::move(sis)));
    else
        set(std::move(name), std::make_shared<ImageElement>(std::move(sis)));
}

void DataItem::set(std::string name, std::shared_ptr<KeypointSet> keypoints)
{
    set(std::move(name), std::make_shared<KeypointsElement>(std::move(keypoints)));
}

void DataItem::set(std::string name, KeypointSet&& keypoints)
{
    set(std::move(name), std::make_shared<KeypointSet>(std::move(keypoints)));
}

void DataItem::set(std::string name, KeypointSet const& keypoints)
{
    set(std::move(name), std::make_shared<KeypointSet>(keypoints));
}

void DataItem::set(std::string name, std::shared_ptr<BoundingBoxSet> boxes)
{
    set(std::move(name), std::make_shared<BoundingBoxElement>(std::move(boxes)));
}

void DataItem::set(std::string name, BoundingBoxSet&& boxes)
{
    set(std::move(name), std::make_shared<BoundingBoxSet>(std::move(boxes)));
}

void DataItem::set(std::string name, BoundingBoxSet const& boxes)
{
    set(std::move(name), std::make_shared<BoundingBoxSet>(boxes));
}

void DataItem::set(std::string name, std::shared_ptr<TensorSet> tensors)
{
    set(std::move(name), std::make_shared<TensorSetElement>(std::move(tensors)));
}

void DataItem::set(std::string name, TensorSet&& tensors)
{
    set(std::move(name), std::make_shared<TensorSet>(std::move(tensors)));
}

void DataItem::set(std::string name, TensorSet const& tensors)
{
    // A copy of the set is a copy of its tensors: sharing them would let a change through one
    // item show in the other, which the by-value overload promises not to do.
    set(std::move(name), std::shared_ptr<TensorSet>(tensors.clone(true)));
}

void DataItem::set(std::string name, std::shared_ptr<Tensor> tensor)
{
    if (!tensor)
        throw DataItemException("Can not add invalid Element.");
    set(std::move(name), std::make_shared<TensorSet>(std::move(tensor)));
}

void DataItem::set(std::string name, Tensor&& tensor)
{
    set(std::move(name), std::make_shared<Tensor>(std::move(tensor)));
}

void DataItem::set(std::string name, Tensor const& tensor)
{
    set(std::move(name), std::make_shared<Tensor>(tensor));
}

std::shared_ptr<DataElement> DataItem::pop(std::string const& name)
{
    auto it = m_elements.find(name);
    if (it == m_elements.end())
        return nullptr;
    std::shared_ptr<DataElement> element = it->second;
    if (element)
        signalChildRemoved.emitSignal(element->content().get());
    // The signal's receivers may have changed the map; look the name up again.
    m_elements.erase(name);
    return element;
}

// Batches -----------------------------------------------------------------------------------------

bool DataItem::appendFrame(DataItem const& source, std::size_t frame)
{
    // Everything is checked before anything changes, so that a refused append leaves the item
    // as it was.
    for (auto const& [name, element] : m_elements) {
        DataElement const* other = source.get(name);
        if (!source.contains(name)) {
            VELMORIA_LOG_ERROR(kCategory, "Source item doesn't contain field `{}`", name);
            return false;
        }
        if (!element || !other || other->type() != element->type()) {
            VELMORIA_LOG_ERROR(kCategory,
                               "Source element `{}` is of type `{}`, while target element is of type `{}`",
                               name, other ? elementTypeToString(other->type()) : "null",
                               element ? elementTypeToString(element->type()) : "null");
            return false;
        }
    }
    for (auto const& [name, element] : m_elements) {
        DataElement const* other = source.get(name);
        if (frame >= other->batchSize()) {
            VELMORIA_LOG_ERROR(kCategory, "Frame index {} is greater or equal than the `{}` element size: {}",
                               frame, name, other->batchSize());
            return false;
        }
        // Frames of another pixel type would be refused by the set half-way through the append.
        if (auto const* target = dynamic_cast<SISBasedElement const*>(element.get())) {
            auto const* from = static_cast<SISBasedElement const*>(other);
            auto const type = target->sis()->pixelType();
            auto const frameType = from->sis()->get(static_cast<int>(frame))->pixelType();
            if (type && *type != frameType) {
                VELMORIA_LOG_ERROR(kCategory,
                                   "Frame {} of the source element `{}` is of pixel type {}, while the "
                                   "target element is of pixel type {}",
                                   frame, name, pixelTypeName(frameType), pixelTypeName(*type));
                return false;
            }
        }
    }

    for (auto const& [name, element] : m_elements) {
        DataElement const* other = source.get(name);
        if (auto* sisTarget = dynamic_cast<SISBasedElement*>(element.get()))
            sisTarget->appendFrameOf(*static_cast<SISBasedElement const*>(other), frame);
        else if (auto* keypoints = dynamic_cast<KeypointsElement*>(element.get()))
            keypoints->keypoints()->appendFrame(*static_cast<KeypointsElement const*>(other)->keypoints(),
                                                frame);
        else if (auto* boxes = dynamic_cast<BoundingBoxElement*>(element.get()))
            boxes->boxes()->appendFrame(*static_cast<BoundingBoxElement const*>(other)->boxes(), frame);
        else if (auto* tensors = dynamic_cast<TensorSetElement*>(element.get()))
            tensors->tensorSet()->add(
                static_cast<TensorSetElement const*>(other)->tensorSet()->getShared(frame));
    }
    return true;
}

bool DataItem::append(DataItem const& source)
{
    std::optional<std::size_t> const batch = source.batchSize();
    if (!batch) {
        VELMORIA_LOG_ERROR(kCategory, "Source item has inconsistent batch size.");
        return false;
    }
    // The count is taken first: appending an item to itself must not chase its own growth.
    for (std::size_t i = 0; i < *batch; ++i)
        if (!appendFrame(source, i))
            return false;
    return true;
}

DataItem DataItem::stack(std::vector<DataItem>&& items)
{
    if (items.empty())
        return DataItem();
    if (items.size() == 1)
        return DataItem(std::move(items.front().m_elements));

    for (auto const& item : items)
        if (!item.batchSize())
            throw DataItemException("Cannot stack items with an inconsistent batch size.");
    std::unordered_set<std::string> const fields = items.front().fields();
    for (auto const& item : items)
        if (item.fields() != fields)
            throw DataItemException("Cannot stack items with different fields");

    DataItem result;
    result.components().add(items.front().components());
    for (std::string const& field : fields) {
        std::vector<std::shared_ptr<DataElement>> column;
        column.reserve(items.size());
        for (auto const& item : items)
            column.push_back(item.m_elements.at(field));
        result.m_elements[field] = DataElement::stack(column);
    }
    return result;
}

DataItem DataItem::merge(std::vector<DataItem>&& items)
{
    if (items.empty())
        return DataItem();

    if (items.size() > 1) {
        auto inconsistent =
            std::find_if(items.begin(), items.end(), [](auto const& i) { return !i.batchSize(); });
        if (inconsistent != items.end())
            VELMORIA_LOG_WARNING(kCategory, "Merging items with an inconsistent batch sizes.");
        if (auto const first = items.front().batchSize()) {
            for (auto const& item : items) {
                auto const size = item.batchSize();
                if (size && *size != *first) {
                    VELMORIA_LOG_WARNING(kCategory, "Merging items with different batch sizes.");
                    break;
                }
            }
        }
    }

    DataItem result;
    for (auto& item : items) {
        for (auto& [name, element] : item.m_elements) {
            if (result.m_elements.contains(name))
                throw DataItemException("Key '" + name + "' already present");
            result.m_elements[name] = std::move(element);
        }
        result.components().add(item.components());
    }
    return result;
}

std::vector<DataItem> DataItem::split(DataItem&& item)
{
    std::vector<DataItem> result;
    if (item.empty())
        return result;
    std::optional<std::size_t> const batch = item.batchSize();
    if (!batch)
        throw DataItemException("Cannot split data item whose elements have an inconsistent batch size.");
    if (*batch == 1) {
        result.push_back(std::move(item));
        return result;
    }

    std::unordered_map<std::string, std::vector<std::shared_ptr<DataElement>>> parts;
    for (auto const& [name, element] : item.m_elements)
        parts[name] = element ? element->split() : std::vector<std::shared_ptr<DataElement>>{};

    result.resize(*batch);
    for (auto& [name, samples] : parts)
        // An element of size 0 in an item of batch n (the rule lets it stand before the others)
        // has no sample to give; its field is left out rather than invented.
        for (std::size_t k = 0; k < samples.size() && k < result.size(); ++k)
            result[k].set(name, samples[k]);
    for (auto& part : result)
        part.components().assign(item.components());
    return result;
}

DataItem DataItem::clone(DataElement::CloneOptions options) const
{
    DataItem copy;
    copy.setName(name());
    // The children's clones keep their world placement, so the item's own matrix must come
    // along for a later setMatrix to move them from the right place.
    copy.Data::setMatrix(matrix());
    copy.components().add(components());
    if (options != DataElement::CloneOptions::Deep)
        return copy;
    for (auto const& [name, element] : m_elements)
        copy.m_elements[name] =
            element ? std::shared_ptr<DataElement>(element->clone(DataElement::CloneOptions::Deep)) : nullptr;
    return copy;
}

bool DataItem::operator==(DataItem const& other) const
{
    if (m_elements.size() != other.m_elements.size())
        return false;
    for (auto const& [name, element] : m_elements) {
        // A name missing in `other` throws std::out_of_range from the const lookup, by design:
        // equal sizes with different keys mean the caller compares unrelated items.
        if (!equalElements(element.get(), other.m_elements[name].get()))
            return false;
    }
    return true;
}

} // namespace Velmoria::ML

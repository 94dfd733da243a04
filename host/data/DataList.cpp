#include "host/data/DataList.h"

#include "host/core/Log.h"
#include "host/data/PointCloud.h"
#include "host/image/SharedImageSet.h"

namespace Velmoria {

DataList::DataList(std::initializer_list<Data*> items)
{
    for (Data* item : items)
        add(item);
}

void DataList::add(Data* data)
{
    if (!data) {
        VELMORIA_LOG_WARNING("Host.DataList", "Ignoring a null data item");
        return;
    }
    m_items.push_back(data);
}

void DataList::add(DataList const& other)
{
    if (&other == this) {
        Items copy = m_items;
        m_items.insert(m_items.end(), copy.begin(), copy.end());
        return;
    }
    m_items.insert(m_items.end(), other.m_items.begin(), other.m_items.end());
}

Data* DataList::getItem(int index) const
{
    if (index < 0 || index >= size())
        return nullptr;
    return m_items[static_cast<std::size_t>(index)];
}

std::vector<Data*> DataList::getAll(Data::Kind kind) const
{
    std::vector<Data*> result;
    for (Data* item : m_items)
        if (Data::kindMatches(item->kind(), kind))
            result.push_back(item);
    return result;
}

std::vector<PointCloud*> DataList::getPointClouds() const
{
    std::vector<PointCloud*> result;
    for (Data* item : m_items)
        if (auto* cloud = dynamic_cast<PointCloud*>(item))
            result.push_back(cloud);
    return result;
}

OwningDataList::~OwningDataList() = default;

void OwningDataList::add(std::unique_ptr<Data> data)
{
    if (!data) {
        VELMORIA_LOG_WARNING("Host.OwningDataList", "Ignoring a null data item");
        return;
    }
    m_items.push_back(std::move(data));
}

void OwningDataList::add(OwningDataList&& other)
{
    if (&other == this)
        return;
    for (auto& item : other.m_items)
        m_items.push_back(std::move(item));
    other.m_items.clear();
}

Data* OwningDataList::getItem(int index) const
{
    if (index < 0 || index >= size())
        return nullptr;
    return m_items[static_cast<std::size_t>(index)].get();
}

DataList OwningDataList::dataListView() const
{
    DataList view;
    for (auto const& item : m_items)
        view.add(item.get());
    return view;
}

std::unique_ptr<Data> OwningDataList::extractItem(int index)
{
    if (index < 0 || index >= size())
        return nullptr;
    auto it = m_items.begin() + index;
    std::unique_ptr<Data> item = std::move(*it);
    m_items.erase(it);
    return item;
}

OwningDataList OwningDataList::extractAll(Data::Kind kind)
{
    OwningDataList extracted;
    std::vector<std::unique_ptr<Data>> kept;
    for (auto& item : m_items) {
        if (Data::kindMatches(item->kind(), kind))
            extracted.m_items.push_back(std::move(item));
        else
            kept.push_back(std::move(item));
    }
    m_items = std::move(kept);
    return extracted;
}

namespace {
bool isMatchingImage(Data const& data, Data::Kind kind, Data::Modality modality)
{
    return Data::kindMatches(data.kind(), kind) && dynamic_cast<SharedImageSet const*>(&data) != nullptr &&
           (modality == Data::Modality::Unknown || data.modality() == modality);
}
} // namespace

std::vector<SharedImageSet*> DataList::getImages(Data::Kind kind, Data::Modality modality) const
{
    std::vector<SharedImageSet*> images;
    for (Data* data : m_items)
        if (isMatchingImage(*data, kind, modality))
            images.push_back(static_cast<SharedImageSet*>(data));
    return images;
}

SharedImageSet* DataList::getImage(Data::Kind kind, Data::Modality modality) const
{
    for (Data* data : m_items)
        if (isMatchingImage(*data, kind, modality))
            return static_cast<SharedImageSet*>(data);
    return nullptr;
}

std::vector<std::unique_ptr<SharedImageSet>> OwningDataList::extractAllImages(Data::Kind kind,
                                                                              Data::Modality modality)
{
    std::vector<std::unique_ptr<SharedImageSet>> images;
    for (auto it = m_items.begin(); it != m_items.end();) {
        if (isMatchingImage(**it, kind, modality)) {
            images.emplace_back(static_cast<SharedImageSet*>(it->release()));
            it = m_items.erase(it);
        } else
            ++it;
    }
    return images;
}

std::unique_ptr<SharedImageSet> OwningDataList::extractFirstImage(Data::Kind kind, Data::Modality modality)
{
    for (auto it = m_items.begin(); it != m_items.end(); ++it) {
        if (isMatchingImage(**it, kind, modality)) {
            std::unique_ptr<SharedImageSet> image(static_cast<SharedImageSet*>(it->release()));
            m_items.erase(it);
            return image;
        }
    }
    return nullptr;
}

} // namespace Velmoria

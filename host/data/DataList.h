#pragma once

// DataList and OwningDataList: the lists in which data travel between the host, algorithms and
// the ML plug-in.
//
// DataList holds plain pointers and owns nothing: it is a view handed to algorithms
// (createCompatible, instantiate). OwningDataList owns its items (an algorithm's output) and
// hands them out by moving (extract*). Both keep insertion order. Kind queries follow
// Data::kindMatches: Kind::Unknown (0) selects everything, otherwise any matching bit.
//
// Out-of-range indices give null, never a crash; null items are refused on add with a warning.
//
// The image queries (getImage, getImages, extractAllImages, extractFirstImage) look at image
// sets only; their kind 0 and modality 0 (Unknown) select all images.

#include "host/data/Data.h"

#include <memory>
#include <vector>

namespace Velmoria {

class PointCloud;
class SharedImageSet;

class DataList
{
public:
    using Items = std::vector<Data*>;

    DataList() = default;
    DataList(std::initializer_list<Data*> items);

    // Appends `data`; a null pointer is refused with a warning.
    void add(Data* data);
    void add(DataList const& other);

    Items::const_iterator begin() const { return m_items.begin(); }
    Items::const_iterator end() const { return m_items.end(); }
    // The item at `index`, or null when out of range (same as getItem).
    Data* operator[](int index) const { return getItem(index); }
    Data* getItem(int index) const;
    int size() const { return static_cast<int>(m_items.size()); }
    bool empty() const { return m_items.empty(); }

    // The items whose kind matches `kind` (a mask; Unknown selects all), in order.
    std::vector<Data*> getAll(Data::Kind kind = Data::Kind::Unknown) const;
    std::vector<PointCloud*> getPointClouds() const;
    // The image sets of a matching kind and modality, in order (Unknown selects all).
    std::vector<SharedImageSet*> getImages(Data::Kind kind = Data::Kind::Unknown,
                                           Data::Modality modality = Data::Modality::Unknown) const;
    // The first of getImages, or null.
    SharedImageSet* getImage(Data::Kind kind = Data::Kind::Unknown,
                             Data::Modality modality = Data::Modality::Unknown) const;

private:
    Items m_items;
};

class OwningDataList
{
public:
    OwningDataList() = default;
    OwningDataList(OwningDataList&&) noexcept = default;
    OwningDataList& operator=(OwningDataList&&) noexcept = default;
    OwningDataList(OwningDataList const&) = delete;
    OwningDataList& operator=(OwningDataList const&) = delete;
    ~OwningDataList();

    // Appends `data`; null is refused with a warning.
    void add(std::unique_ptr<Data> data);
    // Moves all of other's items to the end of this list; `other` is left empty.
    void add(OwningDataList&& other);
    void clear() { m_items.clear(); }
    int size() const { return static_cast<int>(m_items.size()); }
    bool empty() const { return m_items.empty(); }
    Data* getItem(int index) const;

    // A non-owning view, valid while this list keeps the items.
    DataList dataListView() const;
    // Takes the item at `index` out; null when out of range.
    std::unique_ptr<Data> extractItem(int index);
    // Takes every item of a matching kind out, in order; the others stay.
    OwningDataList extractAll(Data::Kind kind = Data::Kind::Unknown);
    // Takes out the first item of a matching kind that is a T; the others stay. Null if none.
    template <class T>
    std::unique_ptr<T> extractFirst(Data::Kind kind = Data::Kind::Unknown)
    {
        for (auto it = m_items.begin(); it != m_items.end(); ++it) {
            if (!Data::kindMatches((*it)->kind(), kind))
                continue;
            if (auto* typed = dynamic_cast<T*>(it->get())) {
                it->release();
                m_items.erase(it);
                return std::unique_ptr<T>(typed);
            }
        }
        return nullptr;
    }

    // Takes every image set of a matching kind and modality out, in order; the others stay.
    std::vector<std::unique_ptr<SharedImageSet>>
    extractAllImages(Data::Kind kind = Data::Kind::Unknown,
                     Data::Modality modality = Data::Modality::Unknown);
    // Takes out the first such image set; null if none.
    std::unique_ptr<SharedImageSet> extractFirstImage(Data::Kind kind = Data::Kind::Unknown,
                                                      Data::Modality modality = Data::Modality::Unknown);

private:
    std::vector<std::unique_ptr<Data>> m_items;
};

} // namespace Velmoria

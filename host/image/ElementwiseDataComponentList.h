#pragma once

// ElementwiseDataComponentList: one DataComponentList per frame of a SharedImageSet, kept in
// step with the frames (the set inserts, removes and reorders entries as it does frames).
// Components that describe a single frame (where it came from, how it was processed) live
// here; components of the whole set live in Data::components().

#include "host/data/DataComponentList.h"

#include <vector>

namespace Velmoria {

class ElementwiseDataComponentList
{
public:
    int size() const { return static_cast<int>(m_lists.size()); }
    // The list of frame `index`; the index must be valid.
    DataComponentList& get(int index) { return m_lists.at(static_cast<std::size_t>(index)); }
    DataComponentList const& get(int index) const { return m_lists.at(static_cast<std::size_t>(index)); }

    void append(DataComponentList list = {}) { m_lists.push_back(std::move(list)); }
    void remove(int index) { m_lists.erase(m_lists.begin() + index); }
    void resize(int count) { m_lists.resize(static_cast<std::size_t>(count)); }
    void clear() { m_lists.clear(); }

private:
    std::vector<DataComponentList> m_lists;
};

} // namespace Velmoria

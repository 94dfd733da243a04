#include "host/image/Selection.h"

#include <algorithm>
#include <numeric>

namespace Velmoria {

Selection::Selection(std::vector<int> indices, int focus)
    : m_indices(std::move(indices))
    , m_focus(focus)
{
    std::erase_if(m_indices, [](int i) { return i < 0; });
    std::sort(m_indices.begin(), m_indices.end());
    m_indices.erase(std::unique(m_indices.begin(), m_indices.end()), m_indices.end());
}

Selection Selection::all(int count)
{
    std::vector<int> indices(static_cast<std::size_t>(std::max(count, 0)));
    std::iota(indices.begin(), indices.end(), 0);
    return Selection(std::move(indices), 0);
}

bool Selection::isSelected(int index) const
{
    return std::binary_search(m_indices.begin(), m_indices.end(), index);
}

void Selection::clamp(int count)
{
    std::erase_if(m_indices, [count](int i) { return i >= count; });
    if (m_focus < 0 || m_focus >= count)
        m_focus = 0;
}

} // namespace Velmoria

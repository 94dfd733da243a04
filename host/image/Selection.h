#pragma once

// Selection: which frames of a set are selected, and which one is in focus.
//
// The focus is the frame that index -1 stands for in SharedImageSet's accessors, and the frame
// that views and single-frame algorithms use. The selection is a sorted list of distinct
// indices; operations that work on "the selected frames" use it. Both are kept within the
// frame count by the set that owns them.

#include <vector>

namespace Velmoria {

class Selection
{
public:
    Selection() = default;
    // Sorts the indices and drops duplicates and negative ones.
    explicit Selection(std::vector<int> indices, int focus = 0);

    static Selection all(int count);
    static Selection single(int index) { return Selection({index}, index); }

    std::vector<int> const& indices() const { return m_indices; }
    bool isSelected(int index) const;
    bool empty() const { return m_indices.empty(); }
    int size() const { return static_cast<int>(m_indices.size()); }
    int first() const { return m_indices.empty() ? -1 : m_indices.front(); }

    int focus() const { return m_focus; }
    void setFocus(int focus) { m_focus = focus; }

    // Drops indices at or above `count` and moves the focus into [0, count) (0 when empty).
    void clamp(int count);

    bool operator==(Selection const&) const = default;

private:
    std::vector<int> m_indices;
    int m_focus = 0;
};

// Data whose parts (frames, samples) can be selected and focused: image sets, keypoint and box
// sets, tensor sets.
class Selectable
{
public:
    virtual ~Selectable() = default;
    virtual Selection const& selection() const = 0;
    virtual void setSelection(Selection const& selection) = 0;
    virtual int focus() const { return selection().focus(); }
};

} // namespace Velmoria

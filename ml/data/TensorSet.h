#pragma once

// TensorSet: the host Data object that holds a list of tensors. As the content of a
// TensorSetElement, tensor i is sample i of the batch.
//
// Tensors are held by shared_ptr: sets made by split, stack or appendFrame share the tensors of
// their sources (and so their data), nothing is copied. A set never holds a null tensor; add()
// and the constructors refuse them with an error line.
//
// A tensor set has no place in world space: kind() is Kind::Unknown (0), bounds() is the empty
// box. dimension() is the order of the first tensor (0 for an empty set).

#include "ml/data/Tensor.h"

#include "host/data/Data.h"
#include "host/image/Selection.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace Velmoria::ML {

class TensorSet : public Data, public Selectable
{
public:
    TensorSet();
    explicit TensorSet(std::vector<std::shared_ptr<Tensor>> tensors);
    explicit TensorSet(std::shared_ptr<Tensor> tensor);
    TensorSet(TensorSet&& other) noexcept;
    TensorSet& operator=(TensorSet&& other) noexcept;
    ~TensorSet() override;

    // A new set with this set's name, modality and components (cloned). With `deepCopy` each
    // tensor is copied, else the new set shares them.
    std::unique_ptr<TensorSet> clone(bool deepCopy = true) const;
    // Takes name, modality and (cloned) components of `other`, not its tensors.
    void copyAttributesFrom(TensorSet const& other);

    Kind kind() const override { return Kind::Unknown; }
    Geometry::AlignedBox bounds() const override { return {}; }
    std::string describe() const override { return "TensorSet"; }

    // Appends `tensor`; false (with an error line) for a null pointer.
    bool add(std::shared_ptr<Tensor> tensor);
    std::size_t size() const { return m_tensors.size(); }
    bool empty() const { return m_tensors.empty(); }
    // Null, with an error line under "ML.TensorSet", for an index at or past the end.
    std::shared_ptr<Tensor> getShared(std::size_t index) const;
    std::vector<std::shared_ptr<Tensor>> const& tensors() const { return m_tensors; }

    int dimension() const;

    // Same number of tensors and tensor i equal to tensor i (by value, not by pointer).
    bool operator==(TensorSet const& other) const;
    bool operator!=(TensorSet const& other) const { return !(*this == other); }

    Selection const& selection() const override { return m_selection; }
    // Kept within size(); see Selection::clamp.
    void setSelection(Selection const& selection) override;

protected:
    void swapContent(Data& other) override;

private:
    std::vector<std::shared_ptr<Tensor>> m_tensors;
    Selection m_selection;
};

} // namespace Velmoria::ML

#pragma once

// TensorSetElement: the DataElement whose content is a TensorSet; tensor i of the set is sample
// i of the batch, so batchSize() is the set's size() and dimension() the order of its first
// tensor (0 for an empty set).
//
// Sharing. Tensors are shared, never copied, by split (one single-tensor set per tensor), stack
// (one set holding every element's tensor) and clone(Shell) (a new set holding the same
// tensors: cheap, but writing through one element's tensor changes the other's). clone(Deep)
// copies every tensor; clone(Empty) gives a set without tensors. Every new set takes the name,
// modality and components (TargetTag among them) of its source, a stack those of the first.
//
// Errors: "Input Tensor must be valid." for a null set (constructor, setter), "Can only set
// content of type Tensor" from setContent for anything but a TensorSet, both thrown as
// DataElementException. stack refuses (null, error under "ML.TensorSet") a set holding more
// than one tensor: "Stack not possible when sets have multiple elements".

#include "ml/data/DataElement.h"
#include "ml/data/TensorSet.h"

#include <memory>
#include <vector>

namespace Velmoria::ML {

class TensorSetElement : public DataElement
{
public:
    explicit TensorSetElement(std::shared_ptr<TensorSet> tensorSet);
    ~TensorSetElement() override;

    ElementType type() const override { return ElementType::Tensor; }
    void setContent(std::shared_ptr<Data> content) override;
    int dimension() const override;
    std::size_t batchSize() const override;
    std::vector<std::shared_ptr<DataElement>> split() override;
    std::unique_ptr<DataElement> clone(CloneOptions options) const override;

    std::shared_ptr<TensorSet> tensorSet() const { return std::static_pointer_cast<TensorSet>(m_content); }
    void setTensorSet(std::shared_ptr<TensorSet> tensorSet);
    // Tensor `index` of the set; null (with the set's out-of-bounds error) past the end.
    std::shared_ptr<Tensor> tensor(std::size_t index) const;

    // One element holding the tensors of `elements`, in order; null for an empty list, a null
    // element or a set of more than one tensor (see above).
    static std::unique_ptr<TensorSetElement>
    stack(std::vector<std::shared_ptr<TensorSetElement>> const& elements);
};

} // namespace Velmoria::ML

#include "ml/data/TensorSetElement.h"

#include "host/core/Log.h"

namespace Velmoria::ML {

namespace {

constexpr char const* logCategory = "ML.TensorSet";

std::shared_ptr<TensorSet> emptyLike(TensorSet const& source)
{
    auto set = std::make_shared<TensorSet>();
    set->copyAttributesFrom(source);
    return set;
}

} // namespace

TensorSetElement::TensorSetElement(std::shared_ptr<TensorSet> tensorSet)
{
    setTensorSet(std::move(tensorSet));
}

TensorSetElement::~TensorSetElement() = default;

void TensorSetElement::setContent(std::shared_ptr<Data> content)
{
    auto set = std::dynamic_pointer_cast<TensorSet>(content);
    if (!set)
        throw DataElementException("Can only set content of type Tensor");
    m_content = std::move(set);
}

void TensorSetElement::setTensorSet(std::shared_ptr<TensorSet> tensorSet)
{
    if (!tensorSet)
        throw DataElementException("Input Tensor must be valid.");
    m_content = std::move(tensorSet);
}

int TensorSetElement::dimension() const
{
    return m_content ? tensorSet()->dimension() : 0;
}

std::size_t TensorSetElement::batchSize() const
{
    return m_content ? tensorSet()->size() : 0;
}

std::shared_ptr<Tensor> TensorSetElement::tensor(std::size_t index) const
{
    return m_content ? tensorSet()->getShared(index) : nullptr;
}

std::vector<std::shared_ptr<DataElement>> TensorSetElement::split()
{
    std::vector<std::shared_ptr<DataElement>> parts;
    if (!m_content)
        return parts;
    TensorSet const& source = *tensorSet();
    parts.reserve(source.size());
    for (auto const& tensor : source.tensors()) {
        auto part = emptyLike(source);
        part->add(tensor);
        parts.push_back(std::make_shared<TensorSetElement>(std::move(part)));
    }
    return parts;
}

std::unique_ptr<DataElement> TensorSetElement::clone(CloneOptions options) const
{
    TensorSet const& source = *tensorSet();
    switch (options) {
    case CloneOptions::Empty:
        return std::make_unique<TensorSetElement>(emptyLike(source));
    case CloneOptions::Shell:
        return std::make_unique<TensorSetElement>(std::shared_ptr<TensorSet>(source.clone(false)));
    case CloneOptions::Deep:
        break;
    }
    return std::make_unique<TensorSetElement>(std::shared_ptr<TensorSet>(source.clone(true)));
}

std::unique_ptr<TensorSetElement>
TensorSetElement::stack(std::vector<std::shared_ptr<TensorSetElement>> const& elements)
{
    if (elements.empty())
        return nullptr;
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (!elements[i] || !elements[i]->m_content) {
            VELMORIA_LOG_ERROR(logCategory, "Cannot stack TensorSet: element {} of {} is null", i,
                               elements.size());
            return nullptr;
        }
        if (elements[i]->batchSize() > 1) {
            VELMORIA_LOG_ERROR(logCategory, "Stack not possible when sets have multiple elements");
            return nullptr;
        }
    }
    auto stacked = emptyLike(*elements.front()->tensorSet());
    for (auto const& element : elements)
        for (auto const& tensor : element->tensorSet()->tensors())
            stacked->add(tensor);
    return std::make_unique<TensorSetElement>(std::move(stacked));
}

} // namespace Velmoria::ML

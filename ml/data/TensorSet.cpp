#include "ml/data/TensorSet.h"

#include "host/core/Log.h"

#include <utility>

namespace Velmoria::ML {

namespace {
constexpr char const* logCategory = "ML.TensorSet";
}

TensorSet::TensorSet() = default;

TensorSet::TensorSet(std::vector<std::shared_ptr<Tensor>> tensors)
{
    m_tensors.reserve(tensors.size());
    for (auto& tensor : tensors)
        add(std::move(tensor));
}

TensorSet::TensorSet(std::shared_ptr<Tensor> tensor)
{
    add(std::move(tensor));
}

// Data is neither copyable nor movable (it owns signals and components by identity), so the
// move is written out: the Data part goes over by its setters, the content by std::move.
TensorSet::TensorSet(TensorSet&& other) noexcept
    : Data(other.name())
    , m_tensors(std::move(other.m_tensors))
    , m_selection(other.m_selection)
{
    setModality(other.modality());
    setMatrix(other.matrix());
    components() = std::move(other.components());
    other.m_tensors.clear();
    other.m_selection = {};
}

TensorSet& TensorSet::operator=(TensorSet&& other) noexcept
{
    if (this != &other) {
        setName(other.name());
        setModality(other.modality());
        setMatrix(other.matrix());
        components() = std::move(other.components());
        m_tensors = std::move(other.m_tensors);
        m_selection = other.m_selection;
        other.m_tensors.clear();
        other.m_selection = {};
    }
    return *this;
}

TensorSet::~TensorSet() = default;

std::unique_ptr<TensorSet> TensorSet::clone(bool deepCopy) const
{
    auto copy = std::make_unique<TensorSet>();
    copy->copyAttributesFrom(*this);
    copy->m_tensors.reserve(m_tensors.size());
    for (auto const& tensor : m_tensors)
        copy->m_tensors.push_back(deepCopy ? std::make_shared<Tensor>(*tensor) : tensor);
    copy->m_selection = m_selection;
    return copy;
}

void TensorSet::copyAttributesFrom(TensorSet const& other)
{
    setName(other.name());
    setModality(other.modality());
    setMatrix(other.matrix());
    components().assign(other.components());
}

bool TensorSet::add(std::shared_ptr<Tensor> tensor)
{
    if (!tensor) {
        VELMORIA_LOG_ERROR(logCategory, "Cannot add a null Tensor to TensorSet '{}'", name());
        return false;
    }
    m_tensors.push_back(std::move(tensor));
    return true;
}

std::shared_ptr<Tensor> TensorSet::getShared(std::size_t index) const
{
    if (index >= m_tensors.size()) {
        VELMORIA_LOG_ERROR(logCategory, "Accessing TensorSet out of bounds: {}/{}", index, m_tensors.size());
        return nullptr;
    }
    return m_tensors[index];
}

int TensorSet::dimension() const
{
    return m_tensors.empty() ? 0 : static_cast<int>(m_tensors.front()->order());
}

bool TensorSet::operator==(TensorSet const& other) const
{
    if (m_tensors.size() != other.m_tensors.size())
        return false;
    for (std::size_t i = 0; i < m_tensors.size(); ++i)
        if (*m_tensors[i] != *other.m_tensors[i])
            return false;
    return true;
}

void TensorSet::setSelection(Selection const& selection)
{
    m_selection = selection;
    m_selection.clamp(static_cast<int>(m_tensors.size()));
}

void TensorSet::swapContent(Data& other)
{
    auto& set = static_cast<TensorSet&>(other);
    std::swap(m_tensors, set.m_tensors);
    std::swap(m_selection, set.m_selection);
}

} // namespace Velmoria::ML

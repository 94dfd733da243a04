#include "ml/data/DataElement.h"

#include "ml/data/BoundingBoxElement.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointsElement.h"
#include "ml/data/TargetTag.h"
#include "ml/data/TensorSetElement.h"
#include "ml/data/VectorElement.h"
#include "ml/operations/ParamException.h"

#include "host/core/Log.h"
#include "host/core/String.h"

#include <fmt/format.h>

#include <algorithm>

namespace Velmoria::ML {

namespace {

constexpr char const* kCategory = "ML.DataElement";

// Casts every element of the list down to the class of its type; false when one is not of that
// class (an element whose type() lies about its class), so that stack never dereferences null.
template <class T>
bool castAll(std::vector<std::shared_ptr<DataElement>> const& elements, std::vector<std::shared_ptr<T>>& out)
{
    out.reserve(elements.size());
    for (auto const& element : elements) {
        auto typed = std::dynamic_pointer_cast<T>(element);
        if (!typed)
            return false;
        out.push_back(std::move(typed));
    }
    return true;
}

template <class T>
std::unique_ptr<DataElement> stackAs(std::vector<std::shared_ptr<DataElement>> const& elements)
{
    std::vector<std::shared_ptr<T>> typed;
    if (!castAll(elements, typed)) {
        VELMORIA_LOG_ERROR(kCategory,
                           "Cannot stack elements of type {}: an element is not of the class of its type",
                           elementTypeToString(elements.front()->type()));
        return nullptr;
    }
    return T::stack(typed);
}

} // namespace

std::string elementTypeToString(ElementType type)
{
    switch (type) {
    case ElementType::Image:
        return "Image";
    case ElementType::BoundingBox:
        return "BoundingBox";
    case ElementType::Keypoint:
        return "Keypoint";
    case ElementType::Vector:
        return "Vector";
    case ElementType::Tensor:
        return "Tensor";
    }
    return "Unknown";
}

ElementType stringToElementType(std::string const& text)
{
    std::string const lower = String::toLowerCopy(text);
    if (lower == "vector")
        return ElementType::Vector;
    if (lower == "image")
        return ElementType::Image;
    if (lower == "keypoint")
        return ElementType::Keypoint;
    if (lower == "boundingbox")
        return ElementType::BoundingBox;
    if (lower == "tensor")
        return ElementType::Tensor;
    throw ParamException(fmt::format("Unknown prediction output '{}', supported are ['Vector', 'Image', "
                                     "'Keypoint', 'BoundingBox', 'Tensor']",
                                     text));
}

DataElement::~DataElement() = default;

DataComponentList& DataElement::components()
{
    return m_content ? m_content->components() : m_componentsWithoutContent;
}

DataComponentList const& DataElement::components() const
{
    return m_content ? m_content->components() : m_componentsWithoutContent;
}

bool DataElement::isTarget() const
{
    return components().get<TargetTag>() != nullptr;
}

void DataElement::tagAsTarget()
{
    // getOrCreate rather than add: tagging twice must not fire the list's change signal again.
    components().getOrCreate<TargetTag>();
}

void DataElement::untagAsTarget()
{
    components().remove<TargetTag>();
}

std::unique_ptr<DataElement> DataElement::stack(std::vector<std::shared_ptr<DataElement>> const& elements)
{
    if (elements.empty())
        return nullptr;
    if (std::any_of(elements.begin(), elements.end(), [](auto const& e) { return !e; })) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot stack a null element");
        return nullptr;
    }
    ElementType const type = elements.front()->type();
    if (std::any_of(elements.begin(), elements.end(), [type](auto const& e) { return e->type() != type; })) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot stack elements of different types");
        return nullptr;
    }

    switch (type) {
    case ElementType::Image:
        return stackAs<ImageElement>(elements);
    case ElementType::BoundingBox:
        return stackAs<BoundingBoxElement>(elements);
    case ElementType::Keypoint:
        return stackAs<KeypointsElement>(elements);
    case ElementType::Vector:
        return stackAs<VectorElement>(elements);
    case ElementType::Tensor:
        return stackAs<TensorSetElement>(elements);
    }
    throw DataItemException(fmt::format("Elements of type {} cannot be stacked!", static_cast<int>(type)));
}

} // namespace Velmoria::ML

#pragma once

// AnnotationElement<Derived, Set, Type>: the DataElement behaviour that KeypointsElement (Set =
// KeypointSet) and BoundingBoxElement (Set = BoundingBoxSet) share, written once (CRTP, so that
// split, clone and stack make elements of the derived class).
//
// Batch: a set holds one entry per frame, so batchSize() is the set's size(). Annotations carry
// their own world coordinates and never decide whether a sample is 2-D or 3-D, so dimension() is
// 0 and DataItem::dimension() (which ignores dimensions below 2) follows the images alone.
//
// split / stack / appendFrame copy the per-frame lists (they are small values, not shared pixel
// buffers); each new set takes the name, modality and components (TargetTag among them) of its
// source, and a stack those of the first element.
//
// clone: Empty gives a set with the attributes but no frames; Deep and Shell give a full copy
// (there is no lighter "shell" of a list of coordinates).
//
// Errors: a null set, or content of another type, throw DataElementException with
// "Input <Set> must be valid." (constructor, setter) and "Can only set content of type <Set>"
// (setContent, which also says so for a null pointer).

#include "ml/data/DataElement.h"

#include "host/core/Log.h"

#include <fmt/format.h>

#include <memory>
#include <vector>

namespace Velmoria::ML {

template <class Derived, class Set, ElementType Type>
class AnnotationElement : public DataElement
{
public:
    ElementType type() const override { return Type; }

    void setContent(std::shared_ptr<Data> content) override
    {
        auto set = std::dynamic_pointer_cast<Set>(content);
        if (!set)
            throw DataElementException(fmt::format("Can only set content of type {}", Derived::contentName));
        m_content = std::move(set);
    }

    int dimension() const override { return 0; }
    std::size_t batchSize() const override { return m_content ? set().size() : 0; }

    std::vector<std::shared_ptr<DataElement>> split() override
    {
        std::vector<std::shared_ptr<DataElement>> result;
        if (!m_content)
            return result;
        Set const& source = set();
        result.reserve(source.size());
        for (std::size_t i = 0; i < source.size(); ++i) {
            auto part = std::make_shared<Set>();
            part->copyAttributesFrom(source);
            part->appendFrame(source, i);
            result.push_back(std::make_shared<Derived>(std::move(part)));
        }
        return result;
    }

    std::unique_ptr<DataElement> clone(CloneOptions options) const override
    {
        if (options == CloneOptions::Empty) {
            auto empty = std::make_shared<Set>();
            empty->copyAttributesFrom(set());
            return std::make_unique<Derived>(std::move(empty));
        }
        return std::make_unique<Derived>(std::make_shared<Set>(set()));
    }

    // One element whose frames are those of `elements`, in order. Null for an empty list, and,
    // with an error line under "ML.DataElement", for a null element.
    static std::unique_ptr<Derived> stack(std::vector<std::shared_ptr<Derived>> const& elements)
    {
        if (elements.empty())
            return nullptr;
        for (std::size_t i = 0; i < elements.size(); ++i) {
            if (!elements[i] || !elements[i]->m_content) {
                VELMORIA_LOG_ERROR("ML.DataElement", "Cannot stack {}: element {} of {} is null",
                                   Derived::contentName, i, elements.size());
                return nullptr;
            }
        }
        auto stacked = std::make_shared<Set>();
        stacked->copyAttributesFrom(elements.front()->set());
        for (auto const& element : elements)
            stacked->append(element->set());
        return std::make_unique<Derived>(std::move(stacked));
    }

protected:
    explicit AnnotationElement(std::shared_ptr<Set> set) { assignSet(std::move(set)); }

    Set& set() const { return *static_cast<Set*>(m_content.get()); }
    std::shared_ptr<Set> sharedSet() const { return std::static_pointer_cast<Set>(m_content); }

    void assignSet(std::shared_ptr<Set> set)
    {
        if (!set)
            throw DataElementException(fmt::format("Input {} must be valid.", Derived::contentName));
        m_content = std::move(set);
    }
};

} // namespace Velmoria::ML

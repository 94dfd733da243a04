#pragma once

// DataElement: one typed field of a DataItem, wrapping one piece of content (an image set, a set
// of vectors, keypoints, boxes or tensors) that holds a batch of samples.
//
// The content is a host Data object held by shared_ptr: elements share their content, and the
// data components of an element are those of its content, so they travel (and are saved) with
// it. Concrete elements keep a typed pointer to the same object next to `content`.
//
// ElementType values are fixed (they appear in files and configurations):
//   0 Image (ImageElement), 1 BoundingBox (BoundingBoxElement), 2 Keypoint (KeypointsElement),
//   3 Vector (VectorElement), 4 Tensor (TensorSetElement).

#include "host/data/Data.h"
#include "host/data/DataComponentList.h"

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Velmoria::ML {

enum class ElementType : int
{
    Image = 0,
    BoundingBox = 1,
    Keypoint = 2,
    Vector = 3,
    Tensor = 4,
};

// "Image", "BoundingBox", "Keypoint", "Vector", "Tensor"; "Unknown" for anything else.
std::string elementTypeToString(ElementType type);
// Case-insensitive; throws ParamException for an unknown text.
ElementType stringToElementType(std::string const& text);

struct ElementTypeHash
{
    std::size_t operator()(ElementType type) const noexcept { return static_cast<std::size_t>(type); }
};

class DataElementException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class DataItemException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class DataElement
{
public:
    enum class CloneOptions : int
    {
        Deep = 0,   // full copy of the content
        Empty = 1,  // same kind of content, no samples in it
        Shell = 2,  // as Empty for items and image sets; keypoint and box elements treat it as Deep
    };

    DataElement() = default;
    DataElement(DataElement const&) = delete;
    DataElement& operator=(DataElement const&) = delete;
    virtual ~DataElement();

    virtual ElementType type() const = 0;
    virtual std::shared_ptr<Data> content() const { return m_content; }
    virtual void setContent(std::shared_ptr<Data> content) = 0;
    virtual int dimension() const = 0;
    virtual std::size_t batchSize() const = 0;
    // One element per sample, sharing the content's parts (no pixel copies).
    virtual std::vector<std::shared_ptr<DataElement>> split() = 0;
    virtual std::unique_ptr<DataElement> clone(CloneOptions options) const = 0;

    // The components of the content (an empty list when there is no content).
    DataComponentList& components();
    DataComponentList const& components() const;

    // An element is a target (ground truth) exactly when its components hold a TargetTag.
    bool isTarget() const;
    void tagAsTarget();
    void untagAsTarget();

    // Elements of one type into one element whose batch is the concatenation; null (with a log
    // line) for an empty list or mixed types.
    static std::unique_ptr<DataElement> stack(std::vector<std::shared_ptr<DataElement>> const& elements);

protected:
    std::shared_ptr<Data> m_content;

private:
    // What components() hands out while there is no content, so that callers never meet a null
    // reference; such an element is never placed in an item, so nothing is lost by it.
    DataComponentList m_componentsWithoutContent;
};

}  // namespace Velmoria::ML

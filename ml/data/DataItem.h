#pragma once

// DataItem: the unit that flows through the ML library. Operations read and change it, data
// loaders pull it, engines consume and produce it, metrics compare its fields. It is a named,
// insertion-ordered collection of DataElements, each holding a batch of samples; the item as a
// whole is a batch of samples that belong together, field by field.
//
// Batch. The batch dimension of an item is the frame dimension of its image sets: an image set
// of n frames is a batch of n samples (and so are n keypoint lists, n box lists, n tensors).
// batchSize() is deliberately asymmetric: an element of size 0 before a non-zero one does no
// harm (it is taken over by the later size), one after a non-zero one makes the item
// inconsistent (no value). An inconsistent item stays usable, except for split and stack.
//
// Sharing. The item owns its elements by shared_ptr and elements share their content. split,
// stack, append and appendFrame move shared pointers to frames, keypoint lists and tensors;
// they never copy pixels. Only clone(Deep) copies. An operation that wants to keep its input
// must clone it first. The item is not synchronised: hand it between threads whole, by move.
//
// Orders. The map keeps insertion order, with three documented exceptions that callers must
// not rely on otherwise: stack walks the fields in the order of the first item's fields() set
// and split builds each part in the order of an unordered set (the order of a split batch of
// 1 is kept because that item is returned as is); merge keeps item order, then field order.
//
// Signals. set fires signalChildAdded with the element's content; pop and clear fire
// signalChildRemoved with the content before the element leaves. stack, merge and split fill
// their results directly, without set: no signal, no batch check.
//
// Geometry. matrixConvention() is 1; setMatrix moves every child rigidly with the item.
//
// Files: save and load arrive with the container file format.

#include "ml/data/DataElement.h"
#include "ml/data/OrderedMap.h"

#include "host/core/Signal.h"
#include "host/data/CompoundData.h"
#include "host/image/SharedImageSet.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace Velmoria::ML {

class KeypointSet;
class BoundingBoxSet;
class TensorSet;
class Tensor;

class DataItem : public CompoundData
{
public:
    using Elements = OrderedMap<std::string, std::shared_ptr<DataElement>>;

    // Each pair goes through set(), in order (so a null element throws DataItemException).
    explicit DataItem(Elements elements = {});
    DataItem(DataItem&& other) noexcept;
    DataItem& operator=(DataItem&& other) noexcept;
    ~DataItem() override;

    // Data ------------------------------------------------------------------------------------
    Kind kind() const override { return Kind::Unknown; }
    int matrixConvention() const override { return 1; }
    // Moves every child by inverse(matrix()) * m, then stores m.
    void setMatrix(Eigen::Matrix4d const& m) override;
    // The union of the children's bounds; empty without children.
    Geometry::AlignedBox bounds() const override;
    std::string describe() const override { return "ML.DataItem"; }
    // The contents of the elements, in order.
    DataList children() const override;

    // Access ----------------------------------------------------------------------------------
    Elements& elements() { return m_elements; }
    Elements const& elements() const { return m_elements; }
    std::unordered_set<std::string> fields() const;
    bool contains(std::string const& name) const { return m_elements.contains(name); }
    // The element of that name, or null.
    DataElement* get(std::string const& name);
    DataElement const* get(std::string const& name) const;
    template <class T>
    T* get(std::string const& name)
    {
        return dynamic_cast<T*>(get(name));
    }
    template <class T>
    T const* get(std::string const& name) const
    {
        return dynamic_cast<T const*>(get(name));
    }
    bool empty() const { return m_elements.empty(); }
    // Drops every element (signalChildRemoved for each).
    void clear();
    // Exchanges the elements and the Data parts (name, matrix, components, ...).
    void swapWith(DataItem& other);

    // 0 when no element has a dimension above 1 or two of them disagree, else that dimension.
    int dimension() const;
    // See the file comment; 0 for an empty item, no value for an inconsistent one.
    std::optional<std::size_t> batchSize() const;

    // set ---------------------------------------------------------------------------------------
    // Throws DataItemException "Can not add invalid Element." for a null element (or one
    // without content). Warns (and adds all the same) when the batch size differs from the
    // first element's. Replaces in place or appends; fires signalChildAdded.
    void set(std::string name, std::shared_ptr<DataElement> element);
    // A VectorElement when the focus frame is 1x1x1, else an ImageElement. A null or frameless
    // set logs an error and leaves the item unchanged.
    void set(std::string name, std::shared_ptr<SharedImageSet> sis);
    void set(std::string name, std::shared_ptr<KeypointSet> keypoints);
    void set(std::string name, KeypointSet&& keypoints);
    void set(std::string name, KeypointSet const& keypoints);
    void set(std::string name, std::shared_ptr<BoundingBoxSet> boxes);
    void set(std::string name, BoundingBoxSet&& boxes);
    void set(std::string name, BoundingBoxSet const& boxes);
    void set(std::string name, std::shared_ptr<TensorSet> tensors);
    void set(std::string name, TensorSet&& tensors);
    void set(std::string name, TensorSet const& tensors);
    // A TensorSetElement with a one-tensor set.
    void set(std::string name, std::shared_ptr<Tensor> tensor);
    void set(std::string name, Tensor&& tensor);
    void set(std::string name, Tensor const& tensor);

    // Takes the element out (signalChildRemoved first); null, and no signal, when absent.
    std::shared_ptr<DataElement> pop(std::string const& name);

    // Batches ---------------------------------------------------------------------------------
    // Adds sample `frame` of `source` to every field of this item, sharing content. False, with
    // an error line and nothing changed, when a field is missing in `source`, has another type,
    // or has no sample `frame`. Fields only `source` has are ignored.
    bool appendFrame(DataItem const& source, std::size_t frame);
    // appendFrame for every sample of `source`; false for an inconsistent source or at the
    // first failure.
    bool append(DataItem const& source);

    // Items of one field set into one item whose batches are the concatenations. Throws
    // DataItemException for an inconsistent batch or different fields (unless there is only
    // one item, which is returned as a new item without its name and item-level components).
    static DataItem stack(std::vector<DataItem>&& items);
    // Items with different fields into one; throws DataItemException "Key '<name>' already
    // present" for a repeated field. Warns on differing or inconsistent batch sizes.
    static DataItem merge(std::vector<DataItem>&& items);
    // One item per sample; throws DataItemException for an inconsistent batch.
    static std::vector<DataItem> split(DataItem&& item);
    // Deep: name, item-level components and deep clones of all elements. Anything else: the
    // name and item-level components only.
    DataItem clone(DataElement::CloneOptions options = DataElement::CloneOptions::Deep) const;

    // Same number of fields, and per field elements of the same type and equal content (image
    // sets: frame count, dimensions, channels, pixel type, spacing, shift/scale and pixel bytes).
    // A field of this item missing in `other` throws std::out_of_range "Key not found in
    // OrderedMap": equal sizes with different names mean unrelated items are being compared.
    bool operator==(DataItem const& other) const;
    bool operator!=(DataItem const& other) const { return !(*this == other); }

    Signal<Data*> signalChildAdded;
    Signal<Data*> signalChildRemoved;

protected:
    void swapContent(Data& other) override;

private:
    Elements m_elements;
};

} // namespace Velmoria::ML

#pragma once

// SISBasedElement: the common base of the two elements whose content is a SharedImageSet,
// ImageElement and VectorElement. The frames of the set are the batch: a set of n frames is a
// batch of n samples.
//
// Batching is cheap by construction: splitToSIS and stackToSIS make frameless clones of a set
// (name, modality, properties and set-level components come along) and add the existing frames
// to them by shared pointer, so pixels are never copied; only cloneToSIS(Deep) copies pixels.
// The per-frame records DataSourceComponent and DatasetLicenseComponent are kept in step with
// the frames: a split part gets entry i of a record that has one entry per frame (and no record
// otherwise, since a record of another length cannot be attributed to frames), a stack
// concatenates the records in element order. Per-frame (elementwise) components and timestamps
// follow their frames too.
//
// `m_sis` is a raw pointer to the same object as `m_content`, refreshed whenever the content
// changes, so that the many callers of the pixel paths pay no dynamic cast.

#include "ml/data/DataElement.h"

#include "host/image/SharedImageSet.h"

#include <memory>
#include <vector>

namespace Velmoria::ML {

class SISBasedElement : public DataElement
{
public:
    // Throws DataElementException "Input SharedImageSet must be valid." for a null set.
    explicit SISBasedElement(std::shared_ptr<SharedImageSet> sis);
    ~SISBasedElement() override;

    // Throws DataElementException "Can only set content of type SharedImageSet" unless `content`
    // is an image set (null included), and the subclass's message when a frame breaks its
    // invariant. The element is unchanged after a throw.
    void setContent(std::shared_ptr<Data> content) override;
    // 0 without a set or frame; else from the frame in focus: 3 when slices > 1, 2 when
    // height > 1, else 1.
    int dimension() const override;
    // The number of frames, 0 without a set.
    std::size_t batchSize() const override;

    std::shared_ptr<SharedImageSet> sis() const;
    // Throws as setContent, with "Input SharedImageSet must be valid." for null.
    void setSis(std::shared_ptr<SharedImageSet> sis);

    // Appends frame `frame` of `source`'s set to this set, sharing it (with its per-frame
    // components and timestamp). False, with an error line, for a frame index out of range or
    // a frame the set refuses (another pixel type).
    bool appendFrameOf(SISBasedElement const& source, std::size_t frame);

protected:
    // One set per frame, each sharing its frame with this set.
    std::vector<std::shared_ptr<SharedImageSet>> splitToSIS() const;
    // The frames of all elements, in order, in one set; null for an empty list, a null entry or
    // frames of mixed pixel types (with an error line).
    static std::shared_ptr<SharedImageSet>
    stackToSIS(std::vector<std::shared_ptr<SISBasedElement>> const& elements);
    // Deep: pixels copied; anything else: a frameless clone.
    std::shared_ptr<SharedImageSet> cloneToSIS(CloneOptions options) const;

    // Throws DataElementException when a frame of `sis` breaks the subclass's invariant.
    virtual void checkFrames(SharedImageSet const& sis) const = 0;

    SharedImageSet* m_sis = nullptr;

private:
    void assignSis(std::shared_ptr<SharedImageSet> sis);
};

} // namespace Velmoria::ML

#pragma once

// CropLabelMapAlgorithm: cuts a label map and the images that belong to it down to the box
// around the labels of interest.
//
// Inputs. A label map (a SharedImageSet) and further image sets that belong to it (the image
// the labels were drawn on, other label maps). Every further set must have as many frames as the
// label map and, frame by frame, the same width, height and slices (channels and pixel type may
// differ); frame i of each set is cut with the box found in frame i of the label map.
//
// Box. The smallest box holding every pixel whose stored value (in any channel) is one of the
// label values, or any non-zero value when the list is empty; grown by `margin` pixels on each
// side of each axis and clipped to the image (an axis of one pixel stays one pixel). A frame
// without such a pixel is kept whole, with a warning: there is nothing to crop around, and
// dropping the frame would break the pairing with the other sets.
//
// Geometry. Cropping keeps every pixel at its world position (Cropping.h), so the outputs
// stay registered to each other and to the originals. Modality, deformation, the set's and the
// frames' components, timestamps and selection are kept; masks are dropped.
//
// Order of the outputs (takeOutput): the label map counts as the input at labelMapPosition()
// among the inputs (default 0: before the further sets, which follow in the order they were
// given). With reorder off (the default) the outputs come in that input order, so a caller that
// collected its images in some order and says where the label map stood there gets them back in
// the same order. With reorder on the label map comes first, then the further sets in their
// order, whatever its position.
//
// Status: InvalidInput (2), with an error in "Host.CropLabelMapAlgorithm" naming the set, frame
// and sizes, for a missing or empty label map, a negative margin, a further set that is null or
// whose frame count or size differs, a position outside the inputs, or frames without CPU
// pixels; OutOfMemory (4) when a cropped frame cannot be allocated.
//
// Parameters (Configurable): "labelValues" (list of ints, default empty: every non-zero label),
// "margin" (pixels, default 0), "reorder" (default false).

#include "host/algorithm/Algorithm.h"
#include "host/core/Parameter.h"
#include "host/image/SharedImageSet.h"

#include <Eigen/Core>
#include <memory>
#include <vector>

namespace Velmoria {

class CropLabelMapAlgorithm : public Algorithm
{
public:
    // Not owned; all inputs must outlive compute().
    explicit CropLabelMapAlgorithm(SharedImageSet const* labelMap, SharedImageSet const* further = nullptr);
    ~CropLabelMapAlgorithm() override;

    void setLabelMap(SharedImageSet const* labelMap) { m_labelMap = labelMap; }
    // Appends a further input (null is refused at compute()).
    void addInput(SharedImageSet const* further) { m_further.push_back(further); }
    void setFurtherInputs(std::vector<SharedImageSet const*> further) { m_further = std::move(further); }
    std::vector<SharedImageSet const*> const& furtherInputs() const { return m_further; }

    void setLabelValues(std::vector<int> values) { p_labelValues.setValue(std::move(values)); }
    void setMargin(int margin) { p_margin.setValue(margin); }
    void setReorder(bool reorder) { p_reorder.setValue(reorder); }
    // Where the label map stands among the inputs, 0 ... number of further inputs.
    void setLabelMapPosition(int position) { m_labelMapPosition = position; }
    int labelMapPosition() const { return m_labelMapPosition; }

    // The box (first pixel, size) of frame `frame` of the label map with the present settings;
    // false when it has no label pixel (the box is then the whole frame).
    bool labelBox(SharedImage const& frame, Eigen::Vector3i& offset, Eigen::Vector3i& size) const;
    // The boxes of the last compute(), one per frame.
    std::vector<std::pair<Eigen::Vector3i, Eigen::Vector3i>> const& boxes() const { return m_boxes; }

    void compute() override;
    // The cropped sets in the order described in the file comment.
    OwningDataList takeOutput() override;
    std::vector<std::unique_ptr<SharedImageSet>> takeOutputSets();

    Parameter<std::vector<int>> p_labelValues{"labelValues", {}, this};
    Parameter<int> p_margin{"margin", 0, this};
    Parameter<bool> p_reorder{"reorder", false, this};

private:
    bool fail(int status);

    SharedImageSet const* m_labelMap = nullptr;
    std::vector<SharedImageSet const*> m_further;
    int m_labelMapPosition = 0;
    std::vector<std::pair<Eigen::Vector3i, Eigen::Vector3i>> m_boxes;
    std::vector<std::unique_ptr<SharedImageSet>> m_outputs;
};

} // namespace Velmoria

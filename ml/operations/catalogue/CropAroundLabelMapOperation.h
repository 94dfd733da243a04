#pragma once

// CropAroundLabelMap: cuts a sample down to the box around its labels of interest, the label
// map and every other selected image alike, so that they stay registered to each other.
//
// Keys: "label_values" (ints, default empty: every non-zero label), "margin" (pixels on every
// side, default 0), "reorder" (bool, default false).
//
// process(DataItem&): among the selected image elements, the first label map (modality Label)
// is the label map; every other selected image element must have as many frames and the same
// width, height and slices frame by frame ("Image size must match label size"). The host's
// CropLabelMapAlgorithm cuts them all (per frame, the box of the label pixels grown by the
// margin and clipped; a frame without such a pixel stays whole, with the host's warning); a
// failed run gives "CropLabelMapAlgorithm failed". Each element gets its own cropped set back:
// "reorder" is passed on to the algorithm and only changes the order in which it hands out its
// outputs, which are mapped back to their elements either way. No selected label map:
// "No label map (an image element of modality Label) among the selected fields"; a box of a
// single pixel (which an image element cannot hold): "The box around the labels is a single
// pixel, which an image element cannot hold; give a margin". Nothing is
// changed before all checks and the crop have succeeded.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

#include <vector>

namespace Velmoria::ML {

class CropAroundLabelMapOperation : public Operation
{
public:
    explicit CropAroundLabelMapOperation(std::vector<int> labelValues = {}, int margin = 0,
                                         bool reorder = false);

    void process(DataItem& item) override;
    using Operation::process;
    bool doesNotModifyInput() const override { return true; }

    AdvancedParameter<std::vector<int>, Operation> p_labelValues = {"label_values", {}, this};
    AdvancedParameter<int, Operation> p_margin = {"margin", 0, this};
    AdvancedParameter<bool, Operation> p_reorder = {"reorder", false, this};
};

} // namespace Velmoria::ML

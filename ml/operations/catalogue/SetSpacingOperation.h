#pragma once

// SetSpacing: declares another pixel spacing for the images of a sample without resampling, as
// when a file carried a wrong spacing. The pixels stay; the grid is stretched about its centre.
//
// "spacing" (three doubles, mm, each above 0). Works on the selected image elements of the item
// (process(DataItem&)), all of which must describe the same grid, so that they stay registered
// to each other afterwards. Checks, in this order, each failing with OperationException:
//   "SetSpacingOperation requires at least one image element"
//   "SetSpacingOperation requires all active data elements to have the same batch size"
//   "SetSpacingOperation requires batch size 1 for image element"
//   "SetSpacingOperation requires all image elements to have the same descriptor world"
//       (same dimensions, spacing, orientation and position, ImageDescriptor flags 113)
//   "SetSpacingOperation requires z scaling of 1 for 2D images."
//   "'spacing' must be positive" (a zero or negative spacing has no meaning).
//
// Geometry. Image coordinates are centred (pixel p at (p − (dim − 1) / 2) ∘ spacing), so the
// matrix that keeps the image centred on the same world point for every ratio
// r = new spacing / old spacing is the old matrix itself: M' = M, whose translation column is the
// world position of the centre. Pixel p then lies at M · ((p − (dim − 1) / 2) ∘ spacing ∘ r): the
// offsets from the centre scale by r along each image axis and the orientation is kept.
// Only image elements are touched; the frames are changed in place (their other users see the
// new spacing as well).

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

#include <Eigen/Core>

namespace Velmoria::ML {

class SetSpacingOperation : public Operation
{
public:
    explicit SetSpacingOperation(Eigen::Vector3d const& spacing = Eigen::Vector3d::Ones());

    void process(DataItem& item) override;
    using Operation::process;

    AdvancedParameter<Eigen::Vector3d, Operation> p_spacing = {"spacing", Eigen::Vector3d::Ones(), this};
};

} // namespace Velmoria::ML

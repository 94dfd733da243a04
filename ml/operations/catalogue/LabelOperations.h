#pragma once

// Label operations: between per-class maps (one channel per class: scores, probabilities,
// one-hot encodings) and label maps (one channel holding the class index).
//
//   ArgMax  per pixel, the index of the largest channel, as a one-channel unsigned 8-bit label
//           map (modality 8, Label). Ties go to the first of the equal channels; NaN never wins
//           (a pixel of nothing but NaN gets 0). Channels are compared in original intensities
//           (see ImageDescriptor), so a negative scale cannot turn the order around. More than
//           255 channels is an error, since the indices must fit the byte. Policy
//           EverythingButLabels: it is meant for a model's predictions, which are not targets.
//   OneHot  "num_classes" (int, required, >= 1): a one-channel label map becomes num_classes
//           float channels, 1 in the channel of the pixel's label and 0 elsewhere; the result
//           is a probability map (modality 10), since it is no longer a label map of indices.
//           Labels are read in original intensities and must be whole numbers in
//           [0, num_classes); anything else is an error that names the value and its pixel.
//           Policy OnlyLabels: it prepares the ground truth for a loss, and leaves the image.
//
// Both take image and vector elements alike: a vector of class scores becomes a one-value label
// vector, and back. Both keep every frame's geometry (matrix, spacing, mask, deformation) and the set's other
// attributes; both run on the CPU (there is nothing for a GPU to win in one pass of reads).
// OneHot(ArgMax(x)) gives x back for a one-hot x of up to 255 channels.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

namespace Velmoria::ML {

class ArgMaxOperation : public Operation
{
public:
    // The most channels whose indices fit an unsigned byte label.
    static constexpr int kMaxChannels = 255;

    ArgMaxOperation();

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    // Vectors (one pixel per frame) are treated as images of one pixel.
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const override
    {
        return processImages(std::move(vectors));
    }
};

class OneHotOperation : public Operation
{
public:
    explicit OneHotOperation(int numClasses = 0);

    AdvancedParameter<int, Operation> p_numClasses = {"num_classes", 0, this, ParamRequired::Yes};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    // Vectors (one pixel per frame) are treated as images of one pixel.
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const override
    {
        return processImages(std::move(vectors));
    }
};

} // namespace Velmoria::ML

#pragma once

// Channel operations: per-pixel work across the channels of an image, and the one that moves a
// display inversion into the pixel data. Geometry (matrix, spacing, mask, deformation) is kept.
//
//   Softmax          exp(x_c - m) / sum_k exp(x_k - m) over the channels of each pixel, with m
//                    the largest channel value but at least the smallest positive double
//                    (2.2250738585072014e-308), so an all-negative pixel uses that as its
//                    maximum. Float input only ("Input image is not float"). Policy Everything:
//                    it is the usual last step of a segmentation network, so label elements are
//                    processed too unless "apply_to"/"processing_policy" narrow it. Results are written as
//                    plain probabilities: a frame stored with shift/scale is read in original
//                    intensities and gets shift 0, scale 1. A pixel whose exponentials all
//                    underflow to 0 (every value below about -745 with m at its floor) would
//                    give 0/0; such a pixel is recomputed with its true maximum instead, which
//                    gives the same softmax without NaN. ForceGPU with more than 4 channels:
//                    "Cannot force run on GPU with image channels > 4".
//   ConvertToGray    the average of the channels, into a single-channel image of the SAME pixel
//                    type, shift and scale (an 8-bit RGB photo becomes an 8-bit grey photo,
//                    which is what a user of such images expects). Integer types round to the
//                    nearest stored value instead of truncating, so that (1 + 2) / 2 of bytes
//                    gives 2, not 1. The average is taken on stored values, which equals the
//                    average of original intensities because storage is linear. One channel is
//                    passed through. The new frames take matrix, mask, modality and deformation.
//   BakePhotometricInterpretation
//                    single-channel images only ("BakePhotometricInterpretationOperation can't
//                    be applied to multichannel images"). When the set's display options say
//                    "invert" (DisplayOptions2d and DisplayOptions3d must agree where both
//                    exist, else "DisplayOptions2d and displayOptions3D have different invert
//                    values"), writes hi - x + lo, with lo/hi the set's range, and clears the
//                    flag: the image then looks as before but the inversion is in the values
//                    (MONOCHROME1 X-rays become MONOCHROME2). Without the flag the input passes
//                    through unchanged, so baking twice equals baking once. lo and hi are the
//                    range of the whole set in original intensities; integer frames are
//                    written exactly (the result is hi - x + lo without truncation error).
//
// None of them has keys. All three take vector elements like images (a vector is a one-pixel
// image whose channels are its components).

#include "ml/operations/Operation.h"

#include <memory>

namespace Velmoria::ML {

class SoftmaxOperation : public Operation
{
public:
    // A GPU program holds at most 4 channels per texture.
    static constexpr int kMaxGpuChannels = 4;

    SoftmaxOperation();

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const override
    {
        return processImages(std::move(vectors));
    }
};

class ConvertToGrayOperation : public Operation
{
public:
    ConvertToGrayOperation();

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const override
    {
        return processImages(std::move(vectors));
    }
};

class BakePhotometricInterpretationOperation : public Operation
{
public:
    BakePhotometricInterpretationOperation();

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const override
    {
        return processImages(std::move(vectors));
    }
};

} // namespace Velmoria::ML

#pragma once

// Padding operations: add (or, with negative counts, remove) border pixels so that every pixel
// that stays keeps its world position (the box geometry of host/processing/Cropping.h).
//
//   Pad                    "pad_size_x", "pad_size_y", "pad_size_z": "low high" pixels added at
//                          the low and the high end of the axis (default "0 0"; negative removes).
//   PadDims                "target_dims" (three ints > 0): per frame and axis d = target − dim,
//                          low = d / 2 (toward zero), high = d − low; a target below the size
//                          crops around the centre (8 on 5: 1 and 2; 4 on 7: −1 and −2).
//   PadDimsToNextMultiple  "dimension_divisor" (three ints > 0): PadDims to calculateTargetDims,
//                          the next multiple of the divisor on each axis (16 on 33: 48).
//
// Settings shared by all three (PaddingOperationBase):
//   padding_mode            Zero / Mirror / Clamp (ImageProcessing::PaddingMode, read by name in
//                           any case or by number). Default Mirror (value 1): a network sees
//                           plausible anatomy at the border rather than a hard edge.
//   padding_value           optional fill value of Zero, in ORIGINAL intensities (converted to
//                           the stored value of each frame, so that a frame stored with shift
//                           and scale is filled with the same intensity that ImageMath would
//                           write); absent means 0.
//   label_padding_mode      optional mode name used for label maps (set modality Label) instead.
//   label_padding_value     optional fill value for label maps.
//   allow_dimension_change  default false: an axis of size 1 is never padded (a 2D image stays
//                           2D); with true every axis is.
// An unknown label_padding_mode fails configure (configFailed). configure then warns, in this
// order, about values that will not be used (warnOperationUnexpectedBehaviour):
//   1. "PaddingValue is used only when the specified PaddingMode is 'Zero' (i.e. Constant
//      padding), otherwise ignored"
//   2. "Label PaddingValue is used only when the specified Label PaddingMode is 'Zero' (i.e.
//      Constant padding), otherwise ignored"
//   3. "Label PaddingValue is used only if either PaddingMode is not 'Zero' or if Label
//      PaddingMode is specified and its value is 'Zero'."
//   4. "PaddingValue is not used with Label PaddingMode. In case you wanted to specify a padding
//      value for labelmaps, set `label_padding_value` instead."
//
// A new size below one pixel fails with "Negative padding is larger than image size. Got padding
// [(lx, hx), (ly, hy), (lz, hz)] for image size [w, h, s]". The result is a new set (a frameless
// clone of the input, so it keeps name, modality and components, the inversion records among
// them); Pad with all sizes 0 returns its input object itself.
//
// Inversion. Pad is undone by Pad with the negated sizes. PadDims and PadDimsToNextMultiple
// decide their sizes per frame, so their inverse is UndoPadding with "target_identifier" = the
// record identifier: when run with one, each of the three stores a PaddingDoneDataComponent (one
// PaddingDoneInfo: per frame the descriptor before padding and the pad sizes applied) as the
// context of the inversion record the pre-process hook just pushed.
//
// PadDims and PadDimsToNextMultiple pad all frames through padFrames of this base (rather than
// through an inner Pad per frame), so their messages carry their own names and one
// PaddingDoneInfo covers the batch.
//
// Devices: the host has no GPU image backend yet, so padding always runs on the CPU through
// ImageProcessing::createPadded (one allocation in the final size per frame).

#include "ml/data/components/PaddingDoneDataComponent.h"
#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/InvertibleOperation.h"

#include "host/processing/Padding.h"

#include <Eigen/Core>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velmoria::ML {

// The default mode of the padding operations (value 1).
inline constexpr ImageProcessing::PaddingMode kDefaultPaddingMode = ImageProcessing::PaddingMode::Mirror;

class PaddingOperationBase : public InvertibleOperation
{
public:
    using PadSize = PaddingDoneInfo::PadSize;

    PaddingOperationBase(std::string name);

    // Operation::configure, a check of label_padding_mode, then checkParams.
    bool configure(Properties const& properties) override;
    // The four warnings of the file comment, in order.
    virtual void checkParams() const;
    bool doesNotModifyInput() const override { return true; }

    // Pads frame i of `input` by sizes[i] (one entry per frame, or one for all) into a frameless
    // clone of `input`; appends each frame's original descriptor and applied sizes to `info`.
    // Throws OperationException on a too large negative padding or a failed copy.
    std::shared_ptr<SharedImageSet> padFrames(SharedImageSet& input, std::vector<PadSize> const& sizes,
                                              PaddingDoneInfo& info) const;

    AdvancedParameter<ImageProcessing::PaddingMode, Operation> p_paddingMode;
    AdvancedParameter<std::optional<double>, Operation> p_paddingValue = {"padding_value", std::nullopt,
                                                                          this};
    AdvancedParameter<std::optional<std::string>, Operation> p_labelPaddingMode = {"label_padding_mode",
                                                                                   std::nullopt, this};
    AdvancedParameter<std::optional<double>, Operation> p_labelPaddingValue = {"label_padding_value",
                                                                               std::nullopt, this};
    AdvancedParameter<bool, Operation> p_allowDimensionChange = {"allow_dimension_change", false, this};

protected:
    // With a record identifier whose info is on `output`'s InversionComponent: stores `info` as
    // that info's context (a PaddingDoneDataComponent configuration).
    void storePaddingContext(SharedImageSet& output, PaddingDoneInfo const& info) const;
    // The UndoPadding specs naming this operation's record identifier.
    Specs undoPaddingSpecs() const;
};

class PadOperation : public PaddingOperationBase
{
public:
    PadOperation(Eigen::Vector2i padX = Eigen::Vector2i::Zero(),
                 Eigen::Vector2i padY = Eigen::Vector2i::Zero(),
                 Eigen::Vector2i padZ = Eigen::Vector2i::Zero(),
                 ImageProcessing::PaddingMode mode = kDefaultPaddingMode);

    AdvancedParameter<Eigen::Vector2i, Operation> p_padSizeX = {"pad_size_x", Eigen::Vector2i::Zero(), this};
    AdvancedParameter<Eigen::Vector2i, Operation> p_padSizeY = {"pad_size_y", Eigen::Vector2i::Zero(), this};
    AdvancedParameter<Eigen::Vector2i, Operation> p_padSizeZ = {"pad_size_z", Eigen::Vector2i::Zero(), this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    // "Pad" with every size negated and the other settings as they are (without the record
    // identifier, so that the undoing step does not record itself under the same name).
    Specs getInverseSpecsImpl() const override;
};

class PadDimsOperation : public PaddingOperationBase
{
public:
    explicit PadDimsOperation(Eigen::Vector3i targetDims = Eigen::Vector3i::Ones());

    // The (low, high) pair per axis that brings `dims` to `target`.
    static PadSize padSizeFor(Eigen::Vector3i const& dims, Eigen::Vector3i const& target);

    AdvancedParameter<Eigen::Vector3i, Operation> p_targetDims = {"target_dims", Eigen::Vector3i::Ones(),
                                                                  this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    Specs getInverseSpecsImpl() const override { return undoPaddingSpecs(); }
};

class PadDimsToNextMultipleOperation : public PaddingOperationBase
{
public:
    explicit PadDimsToNextMultipleOperation(Eigen::Vector3i divisor = Eigen::Vector3i::Ones());

    // Per axis ((dims + d − 1) / d) · d in integer division, d the axis's divisor (> 0).
    Eigen::Vector3i calculateTargetDims(Eigen::Vector3i const& dims) const;

    AdvancedParameter<Eigen::Vector3i, Operation> p_dimensionDivisor = {"dimension_divisor",
                                                                        Eigen::Vector3i::Ones(), this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    Specs getInverseSpecsImpl() const override { return undoPaddingSpecs(); }
};

} // namespace Velmoria::ML

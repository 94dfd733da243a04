#pragma once

// RecombinePatches: puts patches (cut by SplitIntoPatches / SplitROISampler) back into whole
// images. Each patch is added into a float value accumulator at its region and a weight into a
// second accumulator; at the end the values are divided by the weights and cast back to the
// pixel type, shift and scale that the patches had.
//
// Two ways to use it:
//   - processImages: a set whose frames are patches and whose PatchesFromImageDataComponent
//     says, per frame, the original image (geometry) and the region. Patches of several
//     originals are grouped by original (first appearance order) and give one frame each. A set
//     of one frame comes back unchanged (it is a whole image already) unless its one patch was
//     padded beyond its original, which is then cut back to the original grid.
//   - incrementally (the prediction driver, one patch at a time, so that the patches of a large
//     image never have to be held at once): setupRecombinationOutput(first patch item,
//     reference set), recombineSinglePatch(patch item, region) per patch,
//     finalizeRecombinationOutput().
//
// Modes ("mode", RecombineMode, default "Default"):
//   Default (0)   plain average: the weight accumulator is an 8-bit hit counter (one byte per
//                 voxel instead of four, since this is the memory-critical case of huge images).
//                 More than 255 overlapping patches on one voxel are refused with an error rather
//                 than wrapping the counter; layouts with a step of at least 1/6 of the patch stay
//                 below (at most 6^3 = 216).
//   Weighted (1)  weighted average with a separable window w(x, y, z) = wx[x] · wy[y] · wz[z]:
//                 per axis 1 on the central half of the patch, then exp(−((d − p) / s)²) with d the
//                 physical distance of the voxel centre from the patch centre, p = extent / 4 and
//                 s = extent / 6 (extent = dimensions · spacing); about 0.105 at the rim. Seams
//                 between patches vanish because a network's output is worst near patch borders.
//                 The factors are computed in double, stored as float, once per patch size
//                 (PatchWeightWindow), so the pixel loop multiplies three floats and calls no exp.
//                 The weight accumulator is float.
//
// Regions and geometry. A region is given in voxels of the original image's grid. It may reach
// outside the image (negative offset, or offset + extent past the end): that is how a patch that
// was padded because the image is smaller than a patch is described; the part outside is not
// written (the loops clip the region to both images). A region must overlap the image. The output
// has the original image's dimensions, spacing and matrixToWorld, so every voxel is back at its
// world position.
//
// Normalisation (normalizeAndCastBack): Weighted divides by the weight (a weight below float
// epsilon 1.1920929e-7 counts as that epsilon, so a voxel no patch reached stays 0); Default
// divides by the count, and a voxel no patch covered is set to 0 with one warning that names how
// many voxels that were (dividing by a zero count would give NaN). Integer pixel types are
// rounded to nearest (halves away from zero) and clamped to the type's range, because a cast of
// an out-of-range float is undefined; double is widened; float is the accumulator itself (no copy).
// Raw stored values are added, so shift and scale of the patches are carried over unchanged.
//
// Devices. The host has no GPU image backend yet; every path runs on the CPU (OpenMP over the
// slices of a patch, serial below 8 slices where threads would cost more than they save).
//
// Errors: OperationException (through throwOperationError, "[ML.RecombinePatches] ...") for
// misuse of the incremental calls and bad patch components; the static workers throw
// OperationException with the prefix "[RecombinePatches]" as they have no operation object.
// Any failure in recombineSinglePatch leaves the accumulators as they were after the last complete
// patch of the failing element; earlier elements of the same call stay added.
//
// Threads: the incremental calls change the operation's state; call them from one thread.

#include "ml/data/DataItem.h"
#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"
#include "ml/sampling/RegionOfInterest.h"

#include "host/image/PixelType.h"
#include "host/image/SharedImage.h"

#include <Eigen/Core>
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Velmoria::ML {

enum class RecombineMode : int
{
    Default = 0,
    Weighted = 1,
};

// "Default", "Weighted"; the decimal number for a value outside the enumeration.
std::string recombineModeToString(RecombineMode mode);
// "Default" / "Weighted" in any case (surrounding blanks ignored), or "0" / "1". Throws
// std::runtime_error "Unknown recombine mode '<text>', supported are ['Default', 'Weighted']".
RecombineMode stringToRecombineMode(std::string const& text);

// The separable weight window of a patch size (see the file comment): factors[axis][index].
struct PatchWeightWindow
{
    Eigen::Vector3i dimensions = Eigen::Vector3i::Zero();
    Eigen::Vector3d spacing = Eigen::Vector3d::Ones();
    std::array<std::vector<float>, 3> factors;

    // The window of a patch of this descriptor (dimensions and spacing).
    static PatchWeightWindow forPatch(ImageDescriptor const& patch);
    // Whether this window was made for patches of that size and spacing.
    bool fits(ImageDescriptor const& patch) const;
    // w(x, y, z) as the pixel loop computes it: wx · (wy · wz) in float.
    float at(int x, int y, int z) const;
};

class RecombinePatchesOperation : public Operation
{
public:
    explicit RecombinePatchesOperation(RecombineMode mode = RecombineMode::Default,
                                       ComputingDevice device = ComputingDevice::GPUIfOpenGl);

    bool doesNotModifyInput() const override { return true; }
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;

    // ---- Incremental recombination -------------------------------------------------------------

    // Starts a run (discarding any earlier one): for every ImageElement of `item` (the result for
    // the first patch) an accumulator pair with the geometry of `reference`'s focus frame and the
    // element's channel count; the element's pixel type, shift and scale are kept for the end.
    // Other elements are copied and come out of finalizeRecombinationOutput as they went in.
    // Throws OperationException for a null or empty reference.
    void setupRecombinationOutput(DataItem const& item, SharedImageSet const* reference);
    // Adds the patch of every ImageElement of `item` at `roi` (voxels of the reference grid).
    // Throws OperationException before setup, for a key setup did not see, for an element with
    // other than one frame, and through the static worker.
    void recombineSinglePatch(DataItem const& item, RegionOfInterest const& roi);
    // Normalises every accumulator and returns the item: the image elements hold the recombined
    // images (sets cloned frameless from the reference set). The state stays until the next
    // setup; a second call throws, since the accumulators were turned into the results.
    DataItem finalizeRecombinationOutput();

    // ---- Static workers ------------------------------------------------------------------------

    // A zero float accumulator with `channels` channels on the grid of `geometry` (dimensions,
    // spacing, matrix; shift 0, scale 1).
    static std::shared_ptr<SharedImage> createAccumulator(ImageDescriptorWorld const& geometry, int channels,
                                                          PixelType type = PixelType::Float);
    // The weight accumulator of a mode: one channel, float (Weighted) or uint8 (Default).
    static std::shared_ptr<SharedImage> createWeightAccumulator(ImageDescriptorWorld const& geometry,
                                                                RecombineMode mode);
    // Adds `patch` at `roi`. In Weighted mode `window` must be given and fit the patch. Throws
    // OperationException when the patch size differs from the extent, the region does not
    // overlap the accumulator, accumulator and weights are not on one grid, accumulator and patch
    // differ in channels or spacing, or the window is missing or made for another patch size.
    static void recombineSinglePatch(SharedImage const& patch, PatchWeightWindow const* window,
                                     RegionOfInterest const& roi, SharedImage& recombination,
                                     SharedImage& weights, RecombineMode mode);
    // Divides, casts to `type` and sets shift and scale (file comment). For float the result
    // shares the accumulator's pixels, which are normalised in place. Throws OperationException
    // when the two images are not on one grid.
    static std::unique_ptr<SharedImage> normalizeAndCastBack(SharedImage& recombination,
                                                             SharedImage const& weights, PixelType type,
                                                             double shift, double scale, RecombineMode mode);

    AdvancedParameter<RecombineMode, Operation> p_mode;

private:
    struct Accumulation
    {
        std::string key;
        std::shared_ptr<SharedImageSet> emptyResultSet; // frameless clone of the reference
        std::shared_ptr<SharedImage> values;
        std::shared_ptr<SharedImage> weights;
        PixelType pixelType = PixelType::Float;
        double shift = 0.0;
        double scale = 1.0;
    };

    Accumulation* findAccumulation(std::string const& key);
    PatchWeightWindow const& windowFor(ImageDescriptor const& patch);

    std::optional<DataItem> m_shell; // name and item-level components of the run's item
    // The run's elements in order: copies of the non-image elements, null for image keys.
    std::vector<std::pair<std::string, std::shared_ptr<DataElement>>> m_layout;
    std::vector<Accumulation> m_accumulations;
    bool m_finalized = false;
    RecombineMode m_runMode = RecombineMode::Default; // the mode fixed at setup
    std::optional<PatchWeightWindow> m_window;        // cached per patch size
};

} // namespace Velmoria::ML

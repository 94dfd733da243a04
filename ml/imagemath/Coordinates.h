#pragma once

// Coordinates: the position of each pixel as a three-channel float value (channel c is the
// coordinate on axis c), made by makeCoordinates(set or image, CoordinateType).
//
//   CoordinateType     value at 0-based pixel index p of a frame of dimensions dim
//   0 Pixel            p
//   1 Normalized       (p + 0.5) / dim: texture coordinates, what a GPU sampler reads at the
//                      pixel centre (0 and 1 are the outer edges of the image)
//   2 Image            (p − (dim − 1) / 2) · spacing: millimetres in the image's own
//                      coordinates, origin at the image centre
//   3 World            pixelToWorld(p) of the frame: millimetres in world (patient LPS)
//                      coordinates, through the frame's matrixToWorld
//
// All four are affine in p, so the node is bound per frame to one 3×4 matrix and a value costs
// three multiply-adds; frames of a set each use their own dimensions, spacing and matrix.
// Axes of size 1 are no special case (a 2D image has z = 0 in Pixel, 0.5 in Normalized, 0 in
// Image coordinates).
//
// Device strategy: CpuOnly, for every type. The GPU code generator has no GLSL form for this
// node yet (it would be the sampler's texture coordinate and a uniform matrix), and a tree that
// cannot be generated must not be sent to the GPU; so a Coordinates node keeps its whole tree on
// the CPU. evalString is not defined for the same reason.
//
// The result has the frame's dimensions. Inside a block assignment take
// `makeCoordinates(img, t).block(offset, size)`: the coordinates stay those of the full image.

#include "ml/imagemath/ExprBase.h"

#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"

#include <array>
#include <string>

namespace Velmoria::ImageMath {

enum class CoordinateType : int
{
    Pixel = 0,
    Normalized = 1,
    Image = 2,
    World = 3,
};

// "pixel", "normalized", "image", "world"; "invalid" for other values.
std::string_view coordinateTypeName(CoordinateType type);

class Coordinates : public ExprBaseTpl<Coordinates>
{
public:
    // Frame i of the tree gives the coordinates of frame i of the set.
    Coordinates(SharedImageSet const& set, CoordinateType type);
    // The same image's coordinates for every frame of the tree.
    Coordinates(SharedImage const& image, CoordinateType type);
    Coordinates(Coordinates const&) = default;

    int numImgs() const override;
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override;
    DeviceStrategy deviceStrategy() const override { return DeviceStrategy::CpuOnly; }
    int numChannels() const override { return 3; }
    std::vector<ExprBase const*> children() const override { return {}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const;
    template <class P>
    Coordinates convertToMemImgExpr(int image) const
    {
        Coordinates bound = *this;
        bound.bindFrame(image);
        return bound;
    }
    float value(Position const& position, Index, int channel) const
    {
        double const* row = m_map.data() + 4 * channel;
        return static_cast<float>(row[0] * position.x + row[1] * position.y + row[2] * position.z + row[3]);
    }

    CoordinateType type() const { return m_type; }

private:
    SharedImage const* frame(int image) const;
    // Sets m_map to the pixel-to-coordinate map of frame `image`.
    void bindFrame(int image);

    SharedImageSet const* m_set = nullptr;
    SharedImage const* m_image = nullptr;
    CoordinateType m_type;
    std::array<double, 12> m_map{}; // row-major 3×4, set in the converted form
};

inline Coordinates makeCoordinates(SharedImageSet const& set, CoordinateType type)
{
    return Coordinates(set, type);
}
inline Coordinates makeCoordinates(SharedImage const& image, CoordinateType type)
{
    return Coordinates(image, type);
}

} // namespace Velmoria::ImageMath

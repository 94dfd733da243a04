#pragma once

// internal::PolyWrapper: an ImageMath expression whose tree is built at run time (from a text
// formula, a configuration), for trees whose shape the compiler cannot know.
//
//   auto x = PolyWrapper::variable("x");
//   auto f = PolyWrapper::apply(PolyOp::Max, PolyWrapper::apply(PolyOp::Multiply, x,
//                               PolyWrapper::constant(2.0)), PolyWrapper::constant(0.0));
//   f.substituteVariableWithImg("x", set);     // every "x" leaf reads the frames of `set`
//   Array<SharedImageSet>(out) = f + 1;        // usable in any compile-time tree
//
// Nodes: variables (named leaves, bound to a SharedImageSet or SharedImage by
// substituteVariableWithImg), constants, and the binary operators of PolyOp (+ − × ÷ min max).
// Variables read original values (v / scale − shift) of any pixel type, converted to double;
// the wrapper's values are doubles. All variables of one tree must have the same dimensions and
// channel count; an unbound variable, or a frame that does not fit, makes checkOperands fail
// with its name, so assign returns false and logs.
//
// Cost model. The run-time tree is a tree of PolyNode objects behind a virtual interface, but a
// virtual call never happens per pixel: the wrapper computes a whole row of the domain (width ×
// channels values) at a time. Each node fills a row buffer in one virtual call and a tight loop
// over the row (a variable copies a row of its frame with one pixel-type switch; an operator
// combines two row buffers). Per pixel the wrapper costs one compare (is this pixel's row in the
// buffer?) and one load; per row, one virtual call and one loop per node of the tree; rows are
// never computed twice in a thread. Row buffers live in the converted (per-frame) wrapper: each
// evaluation thread copies the converted tree once (see CpuEvaluator.h) and so allocates its own
// buffer of (depth + 1) rows, once per frame. Compile-time trees stay faster (no buffer traffic),
// so operations with a fixed formula should not use this.
//
// Device strategy: CpuOnly, as no GLSL form is generated for run-time trees yet.

#include "ml/imagemath/ExprBase.h"

#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Velmoria::ImageMath::internal {

enum class PolyOp : int
{
    Add = 0,
    Subtract = 1,
    Multiply = 2,
    Divide = 3,
    Min = 4,
    Max = 5,
};

// A variable bound to one frame, as a row reads it.
struct PolyVariableFrame
{
    std::string name;
    MemImage const* frame = nullptr;
    bool convert = false; // v / scale − shift
    double shift = 0.0;
    double scale = 1.0;
};

// What a node needs to compute one row: the row's place in the frame and the bound variables.
struct PolyRowContext
{
    int y = 0;
    int z = 0;
    int width = 0;
    int height = 0;
    int channels = 1;
    std::vector<PolyVariableFrame> const* variables = nullptr;
    Index count() const { return static_cast<Index>(width) * channels; }
};

// A node of a run-time tree. Immutable once built; shared between copies of wrappers.
class PolyNode
{
public:
    virtual ~PolyNode() = default;
    // Writes the row's count() values into `out`; `scratch` has room for depth() rows.
    virtual void evalRow(PolyRowContext const& row, double* out, double* scratch) const = 0;
    // Scratch rows this node needs below its own output row.
    virtual int depth() const = 0;
    virtual void collectVariables(std::vector<std::string>& names) const = 0;
};

class PolyWrapperBound;

class PolyWrapper : public ExprBaseTpl<PolyWrapper>
{
public:
    static PolyWrapper variable(std::string name);
    static PolyWrapper constant(double value);
    static PolyWrapper apply(PolyOp op, PolyWrapper const& lhs, PolyWrapper const& rhs);

    // Binds every variable leaf called `name`: frame i of the tree reads frame i of the set, or
    // the one image for every frame. False, with a log line, when no leaf has that name.
    // The set or image must outlive the evaluation.
    bool substituteVariableWithImg(std::string const& name, SharedImageSet& set);
    bool substituteVariableWithImg(std::string const& name, SharedImage& image);
    // Names of the variable leaves, sorted, each once.
    std::vector<std::string> variableNames() const;

    int numImgs() const override;
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override;
    DeviceStrategy deviceStrategy() const override { return DeviceStrategy::CpuOnly; }
    int numChannels() const override;
    std::vector<ExprBase const*> children() const override { return {}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const;
    template <class P>
    PolyWrapperBound convertToMemImgExpr(int image) const;

private:
    struct Binding
    {
        SharedImageSet* set = nullptr;
        SharedImage* image = nullptr;
    };

    explicit PolyWrapper(std::shared_ptr<PolyNode const> root);
    SharedImage* boundFrame(Binding const& binding, int image) const;
    // The first bound frame for `image` (for the descriptor), or null.
    SharedImage const* firstFrame(int image) const;
    PolyWrapperBound bind(int image) const;

    std::shared_ptr<PolyNode const> m_root;
    std::map<std::string, Binding> m_bindings; // one entry per variable name, bound or not
    std::string m_error;                       // why the tree cannot be evaluated; empty if it can
};

// The converted form: the tree, its variables bound to frame `image`, and a row buffer.
class PolyWrapperBound : public ExprBaseTpl<PolyWrapperBound>
{
public:
    // `constant`: the tree has no variables, so it has one value, computed once per row into
    // the first element of the buffer whatever the domain's size.
    PolyWrapperBound(std::shared_ptr<PolyNode const> root, std::vector<PolyVariableFrame> variables,
                     ImageDescriptor const& shape, bool constant);
    PolyWrapperBound(PolyWrapperBound const&) = default;

    int numImgs() const override { return 1; }
    std::optional<ImageDescriptor> imgDesc(int = 0) const override { return m_shape; }
    DeviceStrategy deviceStrategy() const override { return DeviceStrategy::CpuOnly; }
    int numChannels() const override { return m_shape.channels; }
    std::vector<ExprBase const*> children() const override { return {}; }

    bool checkOperands(int, PixelType, ImageDescriptor const&, std::string&) const { return true; }
    template <class P>
    PolyWrapperBound convertToMemImgExpr(int) const
    {
        return *this;
    }
    double value(Position const& position, Index, int channel) const
    {
        Index const rowStart = position.pixel - position.x;
        if (rowStart != m_rowStart) {
            fillRow(position.y, position.z);
            m_rowStart = rowStart;
        }
        return m_rows[static_cast<std::size_t>(position.x * m_xStride + channel * m_channelStride)];
    }

private:
    void fillRow(int y, int z) const;

    std::shared_ptr<PolyNode const> m_root;
    std::vector<PolyVariableFrame> m_variables;
    ImageDescriptor m_shape;
    int m_xStride;
    int m_channelStride;
    // Per-thread state: each thread evaluates its own copy (see the file comment).
    mutable std::vector<double> m_rows;
    mutable Index m_rowStart = -1;
};

template <class P>
PolyWrapperBound PolyWrapper::convertToMemImgExpr(int image) const
{
    return bind(image);
}

} // namespace Velmoria::ImageMath::internal

#include "ml/imagemath/PolyWrapper.h"

#include "ml/imagemath/Array.h"

#include "host/core/Log.h"
#include "host/image/PixelType.h"
#include "host/image/TypedImage.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

namespace Velmoria::ImageMath::internal {

namespace {

class ConstantNode final : public PolyNode
{
public:
    explicit ConstantNode(double value)
        : m_value(value)
    {}
    void evalRow(PolyRowContext const& row, double* out, double*) const override
    {
        std::fill(out, out + row.count(), m_value);
    }
    int depth() const override { return 0; }
    void collectVariables(std::vector<std::string>&) const override {}

private:
    double m_value;
};

class VariableNode final : public PolyNode
{
public:
    explicit VariableNode(std::string name)
        : m_name(std::move(name))
    {}
    // The variable is looked up by name once per row: a handful of string compares against a
    // row of pixels, and it keeps nodes immutable and shareable between wrappers.
    void evalRow(PolyRowContext const& row, double* out, double*) const override
    {
        auto const& variables = *row.variables;
        auto const it = std::find_if(variables.begin(), variables.end(),
                                     [&](PolyVariableFrame const& v) { return v.name == m_name; });
        Index const count = row.count();
        Index const start = (static_cast<Index>(row.z) * row.height + row.y) * count;
        PolyVariableFrame const& variable = *it; // checkOperands made sure that it is bound
        visitPixelType(variable.frame->descriptor().pixelType, [&](auto tag) {
            using T = decltype(tag);
            T const* data = static_cast<TypedImage<T> const&>(*variable.frame).pointer() + start;
            if (variable.convert) {
                double const inverseScale = 1.0 / variable.scale;
                for (Index i = 0; i < count; ++i)
                    out[i] = static_cast<double>(data[i]) * inverseScale - variable.shift;
            } else {
                for (Index i = 0; i < count; ++i)
                    out[i] = static_cast<double>(data[i]);
            }
        });
    }
    int depth() const override { return 0; }
    void collectVariables(std::vector<std::string>& names) const override { names.push_back(m_name); }

private:
    std::string m_name;
};

class BinaryNode final : public PolyNode
{
public:
    BinaryNode(PolyOp op, std::shared_ptr<PolyNode const> lhs, std::shared_ptr<PolyNode const> rhs)
        : m_op(op)
        , m_lhs(std::move(lhs))
        , m_rhs(std::move(rhs))
        , m_depth(std::max(m_lhs->depth(), 1 + m_rhs->depth()))
    {}
    // lhs into `out`, rhs into the first scratch row (its own scratch after it), then combine.
    void evalRow(PolyRowContext const& row, double* out, double* scratch) const override
    {
        Index const count = row.count();
        m_lhs->evalRow(row, out, scratch);
        m_rhs->evalRow(row, scratch, scratch + count);
        switch (m_op) {
        case PolyOp::Add:
            combine(out, scratch, count, [](double a, double b) { return a + b; });
            break;
        case PolyOp::Subtract:
            combine(out, scratch, count, [](double a, double b) { return a - b; });
            break;
        case PolyOp::Multiply:
            combine(out, scratch, count, [](double a, double b) { return a * b; });
            break;
        case PolyOp::Divide:
            combine(out, scratch, count, [](double a, double b) { return a / b; });
            break;
        case PolyOp::Min:
            combine(out, scratch, count, [](double a, double b) { return std::min(a, b); });
            break;
        case PolyOp::Max:
            combine(out, scratch, count, [](double a, double b) { return std::max(a, b); });
            break;
        }
    }
    int depth() const override { return m_depth; }
    void collectVariables(std::vector<std::string>& names) const override
    {
        m_lhs->collectVariables(names);
        m_rhs->collectVariables(names);
    }

private:
    template <class F>
    static void combine(double* out, double const* rhs, Index count, F f)
    {
        for (Index i = 0; i < count; ++i)
            out[i] = f(out[i], rhs[i]);
    }

    PolyOp m_op;
    std::shared_ptr<PolyNode const> m_lhs;
    std::shared_ptr<PolyNode const> m_rhs;
    int m_depth;
};

bool validOp(PolyOp op)
{
    int const value = static_cast<int>(op);
    return value >= static_cast<int>(PolyOp::Add) && value <= static_cast<int>(PolyOp::Max);
}

} // namespace

PolyWrapper::PolyWrapper(std::shared_ptr<PolyNode const> root)
    : m_root(std::move(root))
{}

PolyWrapper PolyWrapper::variable(std::string name)
{
    PolyWrapper wrapper(std::make_shared<VariableNode>(name));
    wrapper.m_bindings.emplace(std::move(name), Binding{});
    return wrapper;
}

PolyWrapper PolyWrapper::constant(double value)
{
    return PolyWrapper(std::make_shared<ConstantNode>(value));
}

PolyWrapper PolyWrapper::apply(PolyOp op, PolyWrapper const& lhs, PolyWrapper const& rhs)
{
    if (!validOp(op)) {
        // Refused here, and again by checkOperands, so that a tree with a bad operator is never
        // evaluated.
        VELMORIA_LOG_ERROR("ML.ImageMath", "Unknown run-time operator {}", static_cast<int>(op));
        PolyWrapper invalid(std::make_shared<ConstantNode>(0.0));
        invalid.m_error = fmt::format("unknown run-time operator {}", static_cast<int>(op));
        return invalid;
    }
    PolyWrapper result(std::make_shared<BinaryNode>(op, lhs.m_root, rhs.m_root));
    result.m_error = !lhs.m_error.empty() ? lhs.m_error : rhs.m_error;
    result.m_bindings = lhs.m_bindings;
    for (auto const& [name, binding] : rhs.m_bindings) {
        auto [it, inserted] = result.m_bindings.emplace(name, binding);
        if (!inserted && it->second.set == nullptr && it->second.image == nullptr)
            it->second = binding;
    }
    return result;
}

bool PolyWrapper::substituteVariableWithImg(std::string const& name, SharedImageSet& set)
{
    auto const it = m_bindings.find(name);
    if (it == m_bindings.end()) {
        VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot bind variable '{}': the expression has no such variable",
                           name);
        return false;
    }
    it->second = Binding{&set, nullptr};
    return true;
}

bool PolyWrapper::substituteVariableWithImg(std::string const& name, SharedImage& image)
{
    auto const it = m_bindings.find(name);
    if (it == m_bindings.end()) {
        VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot bind variable '{}': the expression has no such variable",
                           name);
        return false;
    }
    it->second = Binding{nullptr, &image};
    return true;
}

std::vector<std::string> PolyWrapper::variableNames() const
{
    std::vector<std::string> names;
    names.reserve(m_bindings.size());
    for (auto const& entry : m_bindings)
        names.push_back(entry.first);
    return names;
}

SharedImage* PolyWrapper::boundFrame(Binding const& binding, int image) const
{
    if (binding.image != nullptr)
        return binding.image;
    if (binding.set != nullptr && image >= 0 && image < binding.set->size())
        return binding.set->get(image);
    return nullptr;
}

SharedImage const* PolyWrapper::firstFrame(int image) const
{
    for (auto const& entry : m_bindings) {
        SharedImage const* frame = boundFrame(entry.second, image);
        if (frame != nullptr && frame->hasMem())
            return frame;
    }
    return nullptr;
}

int PolyWrapper::numImgs() const
{
    int frames = 0;
    for (auto const& entry : m_bindings) {
        if (entry.second.set != nullptr)
            frames = std::max(frames, entry.second.set->size());
        else if (entry.second.image != nullptr)
            frames = std::max(frames, 1);
    }
    return frames;
}

std::optional<ImageDescriptor> PolyWrapper::imgDesc(int image) const
{
    SharedImage const* frame = firstFrame(image < numImgs() ? image : 0);
    if (frame == nullptr)
        return std::nullopt;
    ImageDescriptor desc = frame->descriptor();
    desc.setShiftScale(0.0, 1.0);
    return desc;
}

int PolyWrapper::numChannels() const
{
    SharedImage const* frame = firstFrame(0);
    return frame != nullptr ? frame->channels() : -1;
}

bool PolyWrapper::checkOperands(int image, PixelType, ImageDescriptor const& shape, std::string& why) const
{
    if (!m_error.empty()) {
        why = m_error;
        return false;
    }
    for (auto const& [name, binding] : m_bindings) {
        if (binding.set == nullptr && binding.image == nullptr) {
            why = fmt::format("variable '{}' is not bound to an image", name);
            return false;
        }
        SharedImage const* frame = boundFrame(binding, image);
        if (frame == nullptr || !frame->hasMem()) {
            why = fmt::format("variable '{}' has no frame {} in CPU memory", name, image);
            return false;
        }
        if (!Detail::checkLeafShape(frame->descriptor(), shape, why)) {
            why = fmt::format("variable '{}': {}", name, why);
            return false;
        }
    }
    return true;
}

PolyWrapperBound PolyWrapper::bind(int image) const
{
    std::vector<PolyVariableFrame> variables;
    for (auto const& [name, binding] : m_bindings) {
        SharedImage const* frame = boundFrame(binding, image);
        ImageDescriptor const& desc = frame->descriptor();
        variables.push_back(PolyVariableFrame{name, frame->mem(), desc.shift != 0.0 || desc.scale != 1.0,
                                              desc.shift, desc.scale});
    }
    SharedImage const* first = firstFrame(image);
    if (first == nullptr) {
        // Constants only: one value, whatever the domain (see PolyWrapperBound).
        ImageDescriptor single(PixelType::Double, 1, 1, 1, 1);
        return PolyWrapperBound(m_root, std::move(variables), single, true);
    }
    return PolyWrapperBound(m_root, std::move(variables), first->descriptor(), false);
}

PolyWrapperBound::PolyWrapperBound(std::shared_ptr<PolyNode const> root,
                                   std::vector<PolyVariableFrame> variables, ImageDescriptor const& shape,
                                   bool constant)
    : m_root(std::move(root))
    , m_variables(std::move(variables))
    , m_shape(shape)
    , m_xStride(constant ? 0 : shape.channels)
    , m_channelStride(constant ? 0 : 1)
{
    m_shape.setShiftScale(0.0, 1.0);
    std::size_t const rowValues =
        static_cast<std::size_t>(m_shape.width) * static_cast<std::size_t>(m_shape.channels);
    m_rows.assign(rowValues * static_cast<std::size_t>(m_root->depth() + 1), 0.0);
}

void PolyWrapperBound::fillRow(int y, int z) const
{
    if (m_xStride == 0)
        y = z = 0; // a constant tree has one row of one value
    PolyRowContext const row{y, z, m_shape.width, m_shape.height, m_shape.channels, &m_variables};
    m_root->evalRow(row, m_rows.data(), m_rows.data() + row.count());
}

} // namespace Velmoria::ImageMath::internal

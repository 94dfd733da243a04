#include "engines/torch/TensorSetConversion.h"

#include "ml/model/Engine.h"

#include <torch/torch.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace Velmoria::ML::TorchConversion {

namespace {

std::string shapeText(Tensor::Shape const& shape)
{
    std::string text = "[";
    for (std::size_t i = 0; i < shape.size(); ++i)
        text += (i ? ", " : "") + std::to_string(shape[i]);
    return text + "]";
}

torch::ScalarType torchType(Tensor::Type type)
{
    switch (type) {
    case Tensor::Type::UInt8:
        return torch::kUInt8;
    case Tensor::Type::Int64:
        return torch::kInt64;
    case Tensor::Type::Float:
        break;
    }
    return torch::kFloat32;
}

} // namespace

torch::Tensor stackTensorSet(std::string const& field, TensorSet const& set)
{
    if (set.empty())
        throw EngineException("Input field '" + field + "' has no tensors");
    Tensor const& first = *set.tensors().front();
    if (first.numElements() == 0)
        throw EngineException("Input field '" + field + "' holds an empty tensor");
    std::vector<std::int64_t> shape = {static_cast<std::int64_t>(set.size())};
    for (std::uint64_t size : first.shape())
        shape.push_back(static_cast<std::int64_t>(size));
    torch::Tensor out = torch::empty(shape, torch::TensorOptions().dtype(torchType(first.type())));
    auto* target = static_cast<std::uint8_t*>(out.data_ptr());
    for (std::size_t i = 0; i < set.size(); ++i) {
        Tensor const& tensor = *set.tensors()[i];
        if (tensor.shape() != first.shape() || tensor.type() != first.type())
            throw EngineException("Input field '" + field + "': tensor " + std::to_string(i) + " of shape " +
                                  shapeText(tensor.shape()) + " cannot be stacked with tensor 0 of shape " +
                                  shapeText(first.shape()) + " (shapes and types must agree)");
        std::memcpy(target + i * first.byteSize(), tensor.bytePtr(), first.byteSize());
    }
    return out;
}

std::shared_ptr<TensorSet> splitIntoTensorSet(std::string const& field, torch::Tensor tensor)
{
    tensor = tensor.detach().to(torch::kCPU);
    if (tensor.dim() == 0)
        throw EngineException("Output field '" + field +
                              "' is a scalar; a tensor output needs a sample axis");
    if (tensor.dim() == 1)
        tensor = tensor.unsqueeze(1);
    Tensor::Type type = Tensor::Type::Float;
    if (tensor.scalar_type() == torch::kInt64)
        type = Tensor::Type::Int64;
    else if (tensor.scalar_type() == torch::kUInt8)
        type = Tensor::Type::UInt8;
    else
        tensor = tensor.to(torch::kFloat32);
    tensor = tensor.contiguous();

    Tensor::Shape shape;
    for (std::int64_t d = 1; d < tensor.dim(); ++d)
        shape.push_back(static_cast<std::uint64_t>(tensor.size(d)));
    auto set = std::make_shared<TensorSet>();
    auto const* source = static_cast<std::uint8_t const*>(tensor.data_ptr());
    std::size_t const samples = static_cast<std::size_t>(tensor.size(0));
    std::size_t const sampleBytes =
        samples ? static_cast<std::size_t>(tensor.numel()) / samples * tensor.element_size() : 0;
    for (std::int64_t i = 0; i < tensor.size(0); ++i)
        set->add(std::make_shared<Tensor>(shape, type, source + i * sampleBytes));
    return set;
}

} // namespace Velmoria::ML::TorchConversion

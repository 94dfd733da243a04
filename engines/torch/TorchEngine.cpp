#include "engines/torch/TorchEngine.h"

#include "engines/torch/TensorSetConversion.h"
#include "ml/data/ImageElement.h"
#include "ml/data/TensorSetElement.h"
#include "ml/data/VectorElement.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/image/PixelType.h"
#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <c10/core/InferenceMode.h>
#include <torch/script.h>
#include <torch/torch.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <thread>
#include <vector>

namespace Velmoria::ML {

namespace {

constexpr char const* kLog = "ML.TorchEngine";

std::string shapeText(at::IntArrayRef sizes)
{
    std::string text = "[";
    for (std::size_t i = 0; i < sizes.size(); ++i)
        text += (i ? ", " : "") + std::to_string(sizes[i]);
    return text + "]";
}

// The frames of one field as float32 [n, D, H, W, C] in original intensities. The conversion is
// written out rather than left to Tensor::to because this LibTorch has no uint16/uint32 dtype,
// and it folds the shift/scale into the same pass.
torch::Tensor framesToTensor(std::string const& field, SharedImageSet const& sis)
{
    if (sis.empty())
        throw EngineException("Input field '" + field + "' has no frames");
    SharedImage const& first = *sis.get(0);
    Eigen::Vector3i const dims = first.dimensions();
    int const channels = first.channels();
    auto const frameValues = static_cast<std::int64_t>(first.descriptor().valueCount());
    torch::Tensor out = torch::empty({sis.size(), dims.z(), dims.y(), dims.x(), channels}, torch::kFloat32);
    float* target = out.data_ptr<float>();
    for (int i = 0; i < sis.size(); ++i) {
        SharedImage const& frame = *sis.get(i);
        if (frame.dimensions() != dims || frame.channels() != channels)
            throw EngineException("Input field '" + field + "': frame " + std::to_string(i) +
                                  " differs in size or channels from frame 0");
        MemImage const* mem = frame.mem();
        double const scale = mem->scale();
        double const shift = mem->shift();
        float* dst = target + i * frameValues;
        visitPixelType(mem->type(), [&](auto tag) {
            using T = decltype(tag);
            T const* src = static_cast<TypedImage<T> const*>(mem)->pointer();
            for (std::int64_t v = 0; v < frameValues; ++v)
                dst[v] = static_cast<float>(static_cast<double>(src[v]) / scale - shift);
        });
    }
    return out;
}

torch::Tensor elementToTensor(std::string const& field, DataElement const* element)
{
    if (auto const* vector = dynamic_cast<VectorElement const*>(element)) {
        torch::Tensor t = framesToTensor(field, *vector->sis());
        return t.reshape({t.size(0), t.size(4)});
    }
    if (auto const* image = dynamic_cast<ImageElement const*>(element)) {
        // [n, D, H, W, C] -> [n, C, D, H, W]; a 2D image loses the depth axis.
        torch::Tensor t = framesToTensor(field, *image->sis()).permute({0, 4, 1, 2, 3});
        if (t.size(2) == 1)
            t = t.squeeze(2);
        return t.contiguous();
    }
    if (auto const* tensors = dynamic_cast<TensorSetElement const*>(element))
        return TorchConversion::stackTensorSet(field, *tensors->tensorSet());
    throw EngineException("Input field '" + field + "' is neither an image, a vector nor a tensor element");
}

// The frames of one output tensor: [n, C] / [n] vectors, [n, C, H, W] / [n, C, D, H, W] images.
std::shared_ptr<SharedImageSet> tensorToFrames(std::string const& field, torch::Tensor tensor,
                                               SharedImageSet const* reference)
{
    tensor = tensor.detach().to(torch::kCPU, torch::kFloat32);
    if (tensor.dim() == 1)
        tensor = tensor.unsqueeze(1);
    if (tensor.dim() == 2)
        tensor = tensor.unsqueeze(2).unsqueeze(2).unsqueeze(2);
    else if (tensor.dim() == 4)
        tensor = tensor.unsqueeze(2);
    else if (tensor.dim() != 5)
        throw EngineException("Output field '" + field + "' has a tensor of shape " +
                              shapeText(tensor.sizes()) +
                              "; expected [n, C], [n, C, H, W] or [n, C, D, H, W]");
    // [n, C, D, H, W] -> [n, D, H, W, C], the interleaved layout of a frame.
    tensor = tensor.permute({0, 2, 3, 4, 1}).contiguous();
    Eigen::Vector3i const dims(static_cast<int>(tensor.size(3)), static_cast<int>(tensor.size(2)),
                               static_cast<int>(tensor.size(1)));
    auto const channels = static_cast<int>(tensor.size(4));
    bool const isImage = dims != Eigen::Vector3i::Ones();

    auto sis = std::make_shared<SharedImageSet>();
    float const* source = tensor.data_ptr<float>();
    for (std::int64_t i = 0; i < tensor.size(0); ++i) {
        auto pixels = TypedImage<float>::create(dims, channels);
        if (!pixels)
            throw EngineException("Output field '" + field + "': cannot allocate a frame of shape " +
                                  shapeText(tensor.sizes()));
        std::memcpy(pixels->pointer(), source + i * static_cast<std::int64_t>(pixels->valueCount()),
                    pixels->byteSize());
        Eigen::Matrix4d matrix = Eigen::Matrix4d::Identity();
        if (isImage && reference && !reference->empty()) {
            SharedImage const& ref =
                *reference->get(std::min<int>(static_cast<int>(i), reference->size() - 1));
            // Same centre and extent: the matrix maps centred coordinates, so keeping it keeps the
            // centre; the spacing grows by the factor the grid shrank.
            Eigen::Vector3d const scaleFactor =
                ref.dimensions().cast<double>().cwiseQuotient(dims.cast<double>());
            pixels->setSpacing(ref.spacing().cwiseProduct(scaleFactor), ref.descriptor().isMetric);
            matrix = ref.matrixToWorld();
        }
        auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
        frame->setMatrixToWorld(matrix);
        sis->add(frame);
    }
    return sis;
}

// LibTorch's messages carry a C++ backtrace, and those of the TorchScript interpreter a script
// traceback before the error itself; the reader needs only the error.
std::string torchMessage(std::exception const& e)
{
    auto const* error = dynamic_cast<c10::Error const*>(&e);
    std::string const text = error ? error->what_without_backtrace() : e.what();
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        if (line.find_first_not_of(" \t\r") != std::string::npos)
            lines.push_back(line);
    if (lines.empty())
        return text;
    // The interpreter ends with "<Exception type>: <message>"; anything else leads with its point.
    bool const traceback = lines.front().find("TorchScript interpreter") != std::string::npos;
    std::string const& line = traceback ? lines.back() : lines.front();
    return line.substr(line.find_first_not_of(' '));
}

bool contains(std::vector<std::string> const& list, std::string const& value)
{
    return std::find(list.begin(), list.end(), value) != list.end();
}

} // namespace

struct TorchEngine::Impl
{
    std::optional<torch::jit::Module> module;
    torch::Device device = torch::kCPU;
    // The network's and its inputs' floating-point type: float16 only on a CUDA device.
    torch::ScalarType precision = torch::kFloat32;
    // Frozen networks hold their weights as graph constants: they cannot be moved to another
    // device, only loaded again.
    bool frozen = false;
};

TorchEngine::TorchEngine()
    : Engine("torch")
    , m_impl(std::make_unique<Impl>())
{}

TorchEngine::~TorchEngine() = default;

bool TorchEngine::init(Properties const& properties)
{
    if (!Engine::init(properties))
        return false;
    if (p_numThreads.value() < 0) {
        VELMORIA_LOG_ERROR(kLog, "NumThreads must be 0 (every core) or positive, not {}",
                           p_numThreads.value());
        return false;
    }
    applyThreadCount();
    p_numThreads.signalValueChanged.connect(this, [this](int) { applyThreadCount(); });
    return loadModel();
}

void TorchEngine::applyThreadCount() const
{
    int threads = p_numThreads.value();
    if (threads <= 0)
        threads = static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    torch::set_num_threads(threads);
}

void TorchEngine::chooseDevice()
{
    // config, not the own parameter: the hook runs before the own parameter follows.
    bool const useCuda = !config.p_forceCPU.value() && torch::cuda::is_available();
    m_impl->device = useCuda ? torch::Device(torch::kCUDA, 0) : torch::Device(torch::kCPU);
    // Half-precision convolutions on the CPU are slower than float32 (and missing for some
    // layers in LibTorch 1.13), so the CPU always runs float32.
    m_impl->precision = useCuda && p_halfPrecision.value() ? torch::kFloat16 : torch::kFloat32;
    if (p_halfPrecision.value() && !useCuda)
        VELMORIA_LOG_INFO(kLog, "HalfPrecision is ignored on the CPU: model '{}' runs in float32",
                          p_modelFile.value());
}

bool TorchEngine::loadModel()
{
    m_impl->module.reset();
    chooseDevice();

    std::string const file = p_modelFile.value();
    std::optional<ByteBuffer> bytes = loadModelArtifact();
    if (!bytes) {
        VELMORIA_LOG_ERROR(kLog, "Model file '{}' is neither a readable file nor a resource", file);
        if (!Filesystem::File(Filesystem::Path(file)).exists())
            VELMORIA_LOG_ERROR(kLog, "{}", modelFileNotFoundMessage());
        return false;
    }
    try {
        std::istringstream stream(std::string(reinterpret_cast<char const*>(bytes->data()), bytes->size()));
        m_impl->module = torch::jit::load(stream, m_impl->device);
        m_impl->module->to(m_impl->precision);
        m_impl->module->eval();
    } catch (std::exception const& e) {
        m_impl->module.reset();
        VELMORIA_LOG_ERROR(kLog, "Model file '{}' is not a TorchScript model: {}", file, torchMessage(e));
        return false;
    }
    prepareForInference();
    VELMORIA_LOG_DEBUG(kLog, "Loaded TorchScript model '{}' on {} ({}{})", file, deviceName(),
                       m_impl->precision == torch::kFloat16 ? "float16" : "float32",
                       m_impl->frozen ? ", frozen and optimised for inference" : "");
    return true;
}

void TorchEngine::prepareForInference()
{
    m_impl->frozen = false;
    if (!p_optimizeForInference.value())
        return;
    try {
        // freeze needs a module in eval mode (done above); optimize_for_inference works on the
        // frozen graph and leaves the original module untouched when it throws.
        torch::jit::Module frozen = torch::jit::freeze(*m_impl->module);
        m_impl->module = torch::jit::optimize_for_inference(frozen);
        m_impl->frozen = true;
    } catch (std::exception const& e) {
        VELMORIA_LOG_INFO(kLog, "Model '{}' runs as loaded: it cannot be optimised for inference ({})",
                          p_modelFile.value(), torchMessage(e));
    }
}

void TorchEngine::onModelFileChanged()
{
    loadModel();
}

void TorchEngine::onForceCPUChanged()
{
    if (!m_impl->module)
        return;
    if (m_impl->frozen) {
        loadModel();
        return;
    }
    chooseDevice();
    m_impl->module->to(m_impl->device, m_impl->precision);
}

std::optional<PredictionOutput> TorchEngine::declaredOutput(std::string const& field) const
{
    std::vector<std::string> const& fields = config.p_outputFields.value();
    std::vector<std::string> const& kinds = p_predictionOutput.value();
    auto const it = std::find(fields.begin(), fields.end(), field);
    auto const index = static_cast<std::size_t>(it - fields.begin());
    if (it == fields.end() || index >= kinds.size())
        return std::nullopt;
    try {
        PredictionOutput const kind = stringToPredictionOutput(kinds[index]);
        if (kind == PredictionOutput::Unknown)
            return std::nullopt;
        return kind;
    } catch (std::exception const&) {
        throw EngineException("Output field '" + field + "' has an unknown PredictionOutput '" +
                              kinds[index] + "'");
    }
}

bool TorchEngine::isLoaded() const
{
    return m_impl->module.has_value();
}

std::string TorchEngine::deviceName() const
{
    return m_impl->device.str();
}

DataItem TorchEngine::predict(DataItem const& input)
{
    checkInputFields(input);
    if (!m_impl->module)
        throw EngineException("No TorchScript model is loaded from '" + p_modelFile.value() + "'");

    c10::InferenceMode inferenceMode;
    std::vector<torch::jit::IValue> arguments;
    std::string shapes;
    SharedImageSet const* reference = nullptr;
    for (std::string const& field : config.p_inputFields.value()) {
        DataElement const* element = input.get(field);
        torch::Tensor tensor = elementToTensor(field, element);
        if (!reference)
            if (auto const* image = dynamic_cast<ImageElement const*>(element))
                reference = image->sis().get();
        shapes += (shapes.empty() ? "" : ", ") + field + " " + shapeText(tensor.sizes());
        arguments.emplace_back(tensor.to(m_impl->device, m_impl->precision));
    }

    torch::jit::IValue result;
    try {
        result = m_impl->module->forward(arguments);
    } catch (std::exception const& e) {
        throw EngineException("TorchScript model '" + p_modelFile.value() + "' failed on " + shapes + ": " +
                              torchMessage(e));
    }

    std::vector<std::string> const& outputs = config.p_outputFields.value();
    std::vector<std::string> const& ignored = config.p_outputFieldsToIgnore.value();
    DataItem prediction;
    auto take = [&](std::string const& field, torch::jit::IValue const& value) {
        if (contains(ignored, field))
            return;
        if (!value.isTensor())
            throw EngineException("Output field '" + field + "' of TorchScript model '" +
                                  p_modelFile.value() + "' is not a tensor");
        torch::Tensor const tensor = value.toTensor();
        std::optional<PredictionOutput> const kind = declaredOutput(field);
        if (kind == PredictionOutput::Tensor) {
            prediction.set(field, std::make_shared<TensorSetElement>(
                                      TorchConversion::splitIntoTensorSet(field, tensor)));
            return;
        }
        bool const imageShape = tensor.dim() == 4 || tensor.dim() == 5;
        if ((kind == PredictionOutput::Image && !imageShape) ||
            (kind == PredictionOutput::Vector && imageShape))
            throw EngineException(
                "Output field '" + field + "' of TorchScript model '" + p_modelFile.value() +
                "' is declared " + predictionOutputToString(*kind) + " but is a tensor of shape " +
                shapeText(tensor.sizes()) +
                (imageShape ? "; expected [n, C] or [n]" : "; expected [n, C, H, W] or [n, C, D, H, W]"));
        if (kind && kind != PredictionOutput::Image && kind != PredictionOutput::Vector)
            throw EngineException("Output field '" + field + "': the torch engine cannot give " +
                                  predictionOutputToString(*kind) + " outputs");
        prediction.set(field, tensorToFrames(field, tensor, reference));
    };
    if (result.isTensor()) {
        if (!outputs.empty())
            take(outputs.front(), result);
    } else if (result.isTuple() || result.isList()) {
        std::vector<torch::jit::IValue> values;
        if (result.isTuple())
            values = result.toTupleRef().elements().vec();
        else
            values = result.toList().vec();
        for (std::size_t i = 0; i < outputs.size() && i < values.size(); ++i)
            take(outputs[i], values[i]);
    } else if (result.isGenericDict()) {
        c10::Dict<torch::jit::IValue, torch::jit::IValue> dict = result.toGenericDict();
        for (std::string const& field : outputs) {
            auto it = dict.find(field);
            if (it != dict.end())
                take(field, it->value());
        }
    } else {
        throw EngineException("TorchScript model '" + p_modelFile.value() + "' returned a " +
                              result.tagKind() + "; expected a tensor, a tuple or list of tensors or a dict");
    }
    checkOutputFields(prediction);
    return prediction;
}

} // namespace Velmoria::ML

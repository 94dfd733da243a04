// The LibTorch engine with tiny TorchScript models (made by scripts/make_torch_test_models.py):
// how fields become tensors and tensors become fields again, geometry included, and the errors
// a user sees for a bad model file, a network that refuses its input and a missing output.

#include "engines/torch/TorchEngine.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/KeypointSet.h"
#include "ml/data/TensorSet.h"
#include "ml/data/TensorSetElement.h"
#include "ml/data/VectorElement.h"
#include "tests/ml/TestHelpers.h"
#include "tests/ml/data/ImageSetFixtures.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/Resource.h"
#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/plugin/PluginBase.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

extern "C" Velmoria::PluginBase* velmoriaCreatePlugin();
extern "C" char const* velmoriaPluginId();

namespace Velmoria::ML {
namespace {

std::string modelPath(std::string const& name)
{
    return std::string(VELMORIA_TORCH_MODELS_DIR) + "/" + name + ".pt";
}

using Fields = std::vector<std::string>;

Properties engineProperties(std::string const& modelFile, Fields const& inputs = {"Input"},
                            Fields const& outputs = {"Prediction"}, Fields const& ignored = {})
{
    Properties properties;
    properties.setParam("ModelFile", modelFile);
    properties.setParam("InputFields", inputs);
    properties.setParam("OutputFields", outputs);
    properties.setParam("OutputFieldsToIgnore", ignored);
    return properties;
}

// A batch of `frames` uint8 frames of `size` with `channels` channels, stored with shift 10 and
// scale 2 (original = stored / 2 - 10); frame f holds stored values f * 50 + i and is moved by
// f millimetres along x so that each output frame must take its own input frame's matrix.
std::shared_ptr<SharedImageSet> makeBatch(Eigen::Vector3i const& size, int channels, int frames)
{
    auto sis = std::make_shared<SharedImageSet>();
    std::size_t const values = static_cast<std::size_t>(size.prod() * channels);
    for (int f = 0; f < frames; ++f) {
        std::vector<double> stored(values);
        for (std::size_t i = 0; i < values; ++i)
            stored[i] = static_cast<double>(f * 50 + static_cast<int>(i));
        auto frame = MLTest::placedFrame<unsigned char>(size, channels, stored, 10.0, 2.0);
        Eigen::Matrix4d matrix = frame->matrixToWorld();
        matrix(0, 3) += f;
        frame->setMatrixToWorld(matrix);
        sis->add(frame);
    }
    return sis;
}

double originalValue(int frame, std::size_t index)
{
    return static_cast<double>(frame * 50 + static_cast<int>(index)) / 2.0 - 10.0;
}

class TorchEngineTest : public ::testing::Test
{
protected:
    static std::unique_ptr<TorchEngine> makeEngine(Properties const& properties)
    {
        return makeInitializedEngine<TorchEngine>(properties);
    }

    // The doubling network, run on one 4 x 3 frame, gives twice the first original value.
    static void expectDoublesOneFrame(TorchEngine& engine)
    {
        DataItem item;
        item.set("Input", makeBatch({4, 3, 1}, 1, 1));
        DataItem const prediction = engine.predict(item);
        auto const* output = prediction.get<ImageElement>("Prediction");
        ASSERT_NE(output, nullptr);
        EXPECT_FLOAT_EQ(MLTest::firstValue(*output->sis()->get(0)),
                        static_cast<float>(2.0 * originalValue(0, 0)));
    }
};

// ---- Shapes: 2D and 3D images, one frame and several ----------------------------------------

struct ShapeCase
{
    char const* name;
    Eigen::Vector3i size;
    int channels;
    int frames;
};

void PrintTo(ShapeCase const& shape, std::ostream* out)
{
    *out << shape.name;
}

class TorchEngineShapeTest : public TorchEngineTest, public ::testing::WithParamInterface<ShapeCase>
{};

TEST_P(TorchEngineShapeTest, DoublesOriginalIntensitiesOnTheInputGrid)
{
    ShapeCase const& shape = GetParam();
    auto engine = makeEngine(engineProperties(modelPath("double")));
    ASSERT_NE(engine, nullptr);
    EXPECT_TRUE(engine->isLoaded());
    EXPECT_EQ(engine->deviceName(), "cpu");

    auto input = makeBatch(shape.size, shape.channels, shape.frames);
    DataItem item;
    item.set("Input", input);
    DataItem const prediction = engine->predict(item);

    auto const* output = prediction.get<ImageElement>("Prediction");
    ASSERT_NE(output, nullptr);
    ASSERT_EQ(output->sis()->size(), shape.frames);
    for (int f = 0; f < shape.frames; ++f) {
        SharedImage const& in = *input->get(f);
        SharedImage const& out = *output->sis()->get(f);
        EXPECT_EQ(out.dimensions(), shape.size);
        EXPECT_EQ(out.channels(), shape.channels);
        EXPECT_EQ(out.pixelType(), PixelType::Float);
        EXPECT_TRUE(out.spacing().isApprox(in.spacing()));
        EXPECT_TRUE(out.matrixToWorld().isApprox(in.matrixToWorld())) << "frame " << f;
        EXPECT_DOUBLE_EQ(out.descriptor().shift, 0.0);
        EXPECT_DOUBLE_EQ(out.descriptor().scale, 1.0);
        auto const* pixels = dynamic_cast<TypedImage<float> const*>(out.mem());
        ASSERT_NE(pixels, nullptr);
        // Same interleaved layout in and out: index i is the same pixel and channel.
        for (std::size_t i = 0; i < pixels->valueCount(); ++i)
            ASSERT_FLOAT_EQ(pixels->value(i), static_cast<float>(2.0 * originalValue(f, i)))
                << "frame " << f << " value " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, TorchEngineShapeTest,
                         ::testing::Values(ShapeCase{"Image2D", {4, 3, 1}, 1, 1},
                                           ShapeCase{"Image2DChannelsBatch", {4, 3, 1}, 2, 3},
                                           ShapeCase{"Volume", {4, 3, 2}, 1, 1},
                                           ShapeCase{"VolumeChannelsBatch", {3, 2, 4}, 3, 2}),
                         [](auto const& info) { return std::string(info.param.name); });

// ---- Output forms -----------------------------------------------------------------------------

TEST_F(TorchEngineTest, DictOutputTakesFieldsByNameAndDropsIgnoredOnes)
{
    auto engine = makeEngine(
        engineProperties(modelPath("dict_output"), {"Input"}, {"Mask", "Score", "Debug"}, {"Debug"}));
    ASSERT_NE(engine, nullptr);
    auto input = makeBatch({4, 3, 2}, 2, 2);
    DataItem item;
    item.set("Input", input);
    DataItem const prediction = engine->predict(item);

    EXPECT_FALSE(prediction.contains("Debug"));
    auto const* mask = prediction.get<ImageElement>("Mask");
    ASSERT_NE(mask, nullptr);
    EXPECT_FLOAT_EQ(MLTest::firstValue(*mask->sis()->get(1)), static_cast<float>(originalValue(1, 0) + 1.0));

    // Score: the mean per sample and channel, a vector [n, C].
    auto const* score = prediction.get<VectorElement>("Score");
    ASSERT_NE(score, nullptr);
    ASSERT_EQ(score->sis()->size(), 2);
    for (int f = 0; f < 2; ++f) {
        auto const* pixels = dynamic_cast<TypedImage<float> const*>(score->sis()->get(f)->mem());
        ASSERT_NE(pixels, nullptr);
        ASSERT_EQ(pixels->channels(), 2);
        for (int c = 0; c < 2; ++c) {
            double sum = 0.0;
            for (std::size_t i = static_cast<std::size_t>(c); i < 24 * 2; i += 2)
                sum += originalValue(f, i);
            EXPECT_NEAR(pixels->value(0, 0, 0, c), sum / 24.0, 1e-4) << "frame " << f << " channel " << c;
        }
    }
}

TEST_F(TorchEngineTest, TupleOutputFollowsFieldOrderAndSmallerGridKeepsExtent)
{
    auto engine = makeEngine(engineProperties(modelPath("tuple_output"), {"Input"}, {"Negated", "Half"}));
    ASSERT_NE(engine, nullptr);
    auto input = makeBatch({4, 6, 1}, 1, 1);
    DataItem item;
    item.set("Input", input);
    DataItem const prediction = engine->predict(item);

    auto const* negated = prediction.get<ImageElement>("Negated");
    ASSERT_NE(negated, nullptr);
    EXPECT_FLOAT_EQ(MLTest::firstValue(*negated->sis()->get(0)), static_cast<float>(-originalValue(0, 0)));

    auto const* half = prediction.get<ImageElement>("Half");
    ASSERT_NE(half, nullptr);
    SharedImage const& in = *input->get(0);
    SharedImage const& out = *half->sis()->get(0);
    EXPECT_EQ(out.dimensions(), Eigen::Vector3i(2, 3, 1));
    // Half the pixels along x and y: twice the spacing, same centre (matrix), z untouched.
    EXPECT_TRUE(out.spacing().isApprox(Eigen::Vector3d(1.4, 2.2, 2.5))) << out.spacing().transpose();
    EXPECT_TRUE(out.matrixToWorld().isApprox(in.matrixToWorld()));
    auto const* pixels = dynamic_cast<TypedImage<float> const*>(out.mem());
    ASSERT_NE(pixels, nullptr);
    // Output pixel (1, 2) is input pixel (2, 4).
    EXPECT_FLOAT_EQ(pixels->value(1, 2, 0), static_cast<float>(originalValue(0, 4 * 4 + 2)));
}

TEST_F(TorchEngineTest, VectorInputAndOutputAreTwoDimensionalTensors)
{
    auto engine = makeEngine(engineProperties(modelPath("vector_sum"), {"Image", "Offsets"}, {"Sums"}));
    ASSERT_NE(engine, nullptr);
    auto offsets = std::make_shared<SharedImageSet>();
    for (int f = 0; f < 2; ++f) {
        auto vector = TypedImage<float>::zeros(Eigen::Vector3i(1, 1, 1), 3);
        for (int c = 0; c < 3; ++c)
            vector->setValue(static_cast<float>(100 * f + c), 0, 0, 0, c);
        offsets->add(std::shared_ptr<Image>(std::move(vector)));
    }
    DataItem item;
    item.set("Image", makeBatch({2, 2, 1}, 1, 2));
    item.set("Offsets", offsets);
    ASSERT_NE(item.get<VectorElement>("Offsets"), nullptr);

    DataItem const prediction = engine->predict(item);
    auto const* sums = prediction.get<VectorElement>("Sums");
    ASSERT_NE(sums, nullptr);
    ASSERT_EQ(sums->sis()->size(), 2);
    for (int f = 0; f < 2; ++f) {
        double imageSum = 0.0;
        for (std::size_t i = 0; i < 4; ++i)
            imageSum += originalValue(f, i);
        auto const* pixels = dynamic_cast<TypedImage<float> const*>(sums->sis()->get(f)->mem());
        ASSERT_NE(pixels, nullptr);
        for (int c = 0; c < 3; ++c)
            EXPECT_FLOAT_EQ(pixels->value(0, 0, 0, c), static_cast<float>(100 * f + c + imageSum));
    }
}

// ---- Errors -----------------------------------------------------------------------------------

TEST_F(TorchEngineTest, FileThatIsNotTorchScriptIsRefusedByName)
{
    std::filesystem::path const file = std::filesystem::temp_directory_path() / "velmoria_not_torchscript.pt";
    {
        std::ofstream out(file, std::ios::binary);
        out << "this is not a zip archive";
    }
    Log::Capture capture;
    auto engine = makeEngine(engineProperties(file.string()));
    EXPECT_EQ(engine, nullptr);
    EXPECT_TRUE(capture.containsFragment("Model file '" + file.string() + "' is not a TorchScript model: "))
        << ::testing::PrintToString(capture.messages());
    for (std::string const& message : capture.messages())
        EXPECT_EQ(message.find('\n'), std::string::npos)
            << "LibTorch's backtrace reached the log: " << message;
    EXPECT_TRUE(capture.contains("Failed to initialize engine 'torch'", "ML.Engine"));
    std::filesystem::remove(file);
}

TEST_F(TorchEngineTest, MissingModelFileIsRefusedByName)
{
    Log::Capture capture;
    EXPECT_EQ(makeEngine(engineProperties("/no/such/dir/model.pt")), nullptr);
    EXPECT_TRUE(capture.contains(
        "Model file '/no/such/dir/model.pt' is neither a readable file nor a resource", "ML.TorchEngine"));
}

TEST_F(TorchEngineTest, NetworkThatRefusesTheInputRankNamesModelAndShape)
{
    auto engine = makeEngine(engineProperties(modelPath("volume_only")));
    ASSERT_NE(engine, nullptr);
    DataItem item;
    item.set("Input", makeBatch({4, 3, 1}, 1, 1));
    try {
        engine->predict(item);
        ADD_FAILURE() << "a 2D image reached a network that takes volumes only";
    } catch (EngineException const& e) {
        std::string const what = e.what();
        EXPECT_NE(
            what.find("TorchScript model '" + modelPath("volume_only") + "' failed on Input [1, 1, 3, 4]"),
            std::string::npos)
            << what;
        EXPECT_NE(what.find("expected a tensor [n, C, D, H, W]"), std::string::npos) << what;
        EXPECT_EQ(what.find('\n'), std::string::npos) << "the script traceback should be dropped: " << what;
    }
    // A volume passes.
    DataItem volume;
    volume.set("Input", makeBatch({4, 3, 2}, 1, 1));
    EXPECT_TRUE(engine->predict(volume).contains("Prediction"));
}

struct MissingOutputCase
{
    char const* name;
    char const* model;
    Fields outputs;
    char const* missing;
};

void PrintTo(MissingOutputCase const& param, std::ostream* out)
{
    *out << param.name;
}

class TorchEngineMissingOutputTest : public TorchEngineTest,
                                     public ::testing::WithParamInterface<MissingOutputCase>
{};

TEST_P(TorchEngineMissingOutputTest, NamesTheMissingField)
{
    MissingOutputCase const& param = GetParam();
    auto engine = makeEngine(engineProperties(modelPath(param.model), {"Input"}, param.outputs));
    ASSERT_NE(engine, nullptr);
    DataItem item;
    item.set("Input", makeBatch({4, 3, 1}, 1, 1));
    MLTest::expectThrowWithMessage<EngineException>(
        [&] { engine->predict(item); },
        std::string("Prediction item does not contain required output field '") + param.missing + "'");
}

INSTANTIATE_TEST_SUITE_P(
    Outputs, TorchEngineMissingOutputTest,
    ::testing::Values(
        MissingOutputCase{"SingleTensorForTwoFields", "double", {"Prediction", "Extra"}, "Extra"},
        MissingOutputCase{"TupleTooShort", "tuple_output", {"A", "B", "C"}, "C"},
        MissingOutputCase{"DictWithoutKey", "dict_output", {"Mask", "Labels"}, "Labels"}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(TorchEngineTest, ElementThatIsNotAnImageOrVectorIsRefused)
{
    auto engine = makeEngine(engineProperties(modelPath("double")));
    ASSERT_NE(engine, nullptr);
    DataItem item;
    item.set("Input", KeypointSet());
    MLTest::expectThrowWithMessage<EngineException>(
        [&] { engine->predict(item); },
        "Input field 'Input' is neither an image, a vector nor a tensor element");
}

// ---- Tensor fields and declared output kinds ------------------------------------------------

std::shared_ptr<Tensor> floatTensor(Tensor::Shape shape, float first)
{
    std::vector<float> values(static_cast<std::size_t>(shape[0] * shape[1]));
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = first + static_cast<float>(i);
    return std::make_shared<Tensor>(std::move(shape), values.data());
}

Properties declaredProperties(Fields const& kinds)
{
    Properties properties = engineProperties(modelPath("double"));
    properties.setParam("PredictionOutput", kinds);
    return properties;
}

TEST_F(TorchEngineTest, TensorSetGoesInStackedAndComesBackPerSample)
{
    auto engine = makeEngine(declaredProperties({"Tensor"}));
    ASSERT_NE(engine, nullptr);
    auto set = std::make_shared<TensorSet>();
    set->add(floatTensor({2, 3}, 0.0F));
    set->add(floatTensor({2, 3}, 10.0F));
    DataItem item;
    item.set("Input", std::make_shared<TensorSetElement>(set));

    DataItem const prediction = engine->predict(item);
    auto const* output = prediction.get<TensorSetElement>("Prediction");
    ASSERT_NE(output, nullptr);
    ASSERT_EQ(output->tensorSet()->size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        Tensor const& tensor = *output->tensorSet()->tensors()[i];
        EXPECT_EQ(tensor.shape(), (Tensor::Shape{2, 3}));
        std::vector<float> const values = tensor.toFloatVector();
        ASSERT_EQ(values.size(), 6U);
        for (std::size_t v = 0; v < 6; ++v)
            EXPECT_FLOAT_EQ(values[v], 2.0F * (10.0F * static_cast<float>(i) + static_cast<float>(v)));
    }
}

// A declared Tensor output of an image network: one tensor [C, H, W] per frame.
TEST_F(TorchEngineTest, ImageNetworkWithTensorOutputGivesOneTensorPerFrame)
{
    auto engine = makeEngine(declaredProperties({"Tensor"}));
    ASSERT_NE(engine, nullptr);
    DataItem item;
    item.set("Input", makeBatch({4, 3, 1}, 2, 3));
    DataItem const prediction = engine->predict(item);
    auto const* output = prediction.get<TensorSetElement>("Prediction");
    ASSERT_NE(output, nullptr);
    ASSERT_EQ(output->tensorSet()->size(), 3U);
    Tensor const& last = *output->tensorSet()->tensors()[2];
    EXPECT_EQ(last.shape(), (Tensor::Shape{2, 3, 4}));
    // Channel-first now: element 1 is channel 0 of the second pixel (interleaved value 2) and
    // element 12 = 3 · 4 is channel 1 of the first pixel (interleaved value 1).
    std::vector<float> const values = last.toFloatVector();
    EXPECT_FLOAT_EQ(values[1], static_cast<float>(2.0 * originalValue(2, 2)));
    EXPECT_FLOAT_EQ(values[12], static_cast<float>(2.0 * originalValue(2, 1)));
}

struct KindErrorCase
{
    char const* name;
    char const* kind;
    bool vectorInput; // else an image
    char const* message;
};

void PrintTo(KindErrorCase const& param, std::ostream* out)
{
    *out << param.name;
}

class TorchEngineKindErrorTest : public TorchEngineTest, public ::testing::WithParamInterface<KindErrorCase>
{};

TEST_P(TorchEngineKindErrorTest, NamesFieldKindAndShape)
{
    KindErrorCase const& param = GetParam();
    auto engine = makeEngine(declaredProperties({param.kind}));
    ASSERT_NE(engine, nullptr);
    DataItem item;
    if (param.vectorInput) {
        auto vectors = std::make_shared<SharedImageSet>();
        vectors->add(std::shared_ptr<Image>(TypedImage<float>::zeros(Eigen::Vector3i(1, 1, 1), 3)));
        item.set("Input", vectors);
    } else {
        item.set("Input", makeBatch({4, 3, 1}, 1, 1));
    }
    MLTest::expectThrowWithMessage<EngineException>([&] { engine->predict(item); },
                                                    "Output field 'Prediction'" + std::string(param.message));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, TorchEngineKindErrorTest,
    ::testing::Values(KindErrorCase{"ImageDeclaredVector", "Vector", false,
                                    " of TorchScript model '" VELMORIA_TORCH_MODELS_DIR
                                    "/double.pt' is declared Vector but is a "
                                    "tensor of shape [1, 1, 3, 4]; expected [n, C] or [n]"},
                      KindErrorCase{"VectorDeclaredImage", "Image", true,
                                    " of TorchScript model '" VELMORIA_TORCH_MODELS_DIR
                                    "/double.pt' is declared Image but is a "
                                    "tensor of shape [1, 3]; expected [n, C, H, W] or [n, C, D, H, W]"},
                      KindErrorCase{"KeypointsAreNotAnOutputOfThisEngine", "Keypoints", false,
                                    ": the torch engine cannot give Keypoints outputs"},
                      KindErrorCase{"UnknownKind", "Mesh", false, " has an unknown PredictionOutput 'Mesh'"}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(TorchEngineTest, TensorsOfDifferentShapesAreNotStacked)
{
    auto engine = makeEngine(declaredProperties({"Tensor"}));
    ASSERT_NE(engine, nullptr);
    auto set = std::make_shared<TensorSet>();
    set->add(floatTensor({2, 3}, 0.0F));
    set->add(floatTensor({3, 2}, 0.0F));
    DataItem item;
    item.set("Input", std::make_shared<TensorSetElement>(set));
    MLTest::expectThrowWithMessage<EngineException>(
        [&] { engine->predict(item); },
        "Input field 'Input': tensor 1 of shape [3, 2] cannot be stacked with "
        "tensor 0 of shape [2, 3] (shapes and types must agree)");
}

TEST_F(TorchEngineTest, NegativeThreadCountIsRefused)
{
    Properties properties = engineProperties(modelPath("double"));
    properties.setParam("NumThreads", -2);
    Log::Capture capture;
    EXPECT_EQ(makeEngine(properties), nullptr);
    EXPECT_TRUE(capture.contains("NumThreads must be 0 (every core) or positive, not -2", "ML.TorchEngine"));
}

// ---- Model changes and the plug-in ------------------------------------------------------------

TEST_F(TorchEngineTest, ChangingTheModelFileReloadsTheNetwork)
{
    auto engine = makeEngine(engineProperties(modelPath("double")));
    ASSERT_NE(engine, nullptr);
    DataItem item;
    item.set("Input", makeBatch({4, 3, 1}, 1, 1));

    {
        Log::Capture capture;
        engine->p_modelFile = std::string("/no/such/model.pt");
        EXPECT_FALSE(engine->isLoaded());
        MLTest::expectThrowWithMessage<EngineException>(
            [&] { engine->predict(item); }, "No TorchScript model is loaded from '/no/such/model.pt'");
    }

    engine->p_modelFile = modelPath("tuple_output");
    EXPECT_TRUE(engine->isLoaded());
    DataItem const prediction = engine->predict(item);
    auto const* output = prediction.get<ImageElement>("Prediction");
    ASSERT_NE(output, nullptr);
    EXPECT_FLOAT_EQ(MLTest::firstValue(*output->sis()->get(0)), static_cast<float>(-originalValue(0, 0)))
        << "the first tuple element of the new network, not the doubling of the old one";
}

TEST_F(TorchEngineTest, ForceCPUKeepsAWorkingNetworkOnTheCPU)
{
    Properties properties = engineProperties(modelPath("double"));
    properties.setParam("NumThreads", 1);
    auto engine = makeEngine(properties);
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->p_numThreads.value(), 1);
    engine->p_forceCPU = true;
    EXPECT_TRUE(engine->config.p_forceCPU.value());
    EXPECT_EQ(engine->deviceName(), "cpu");
    expectDoublesOneFrame(*engine);
}

// The network's bytes may come from a resource repository (a plug-in or application shipping the
// model inside itself): the engine reads bytes, never a path of its own.
TEST_F(TorchEngineTest, LoadsTheNetworkFromAResource)
{
    std::optional<ByteBuffer> bytes = Filesystem::File(Filesystem::Path(modelPath("double"))).readBinary();
    ASSERT_TRUE(bytes.has_value());
    Resource::MemoryRepository repository("TorchEngineTestRepository");
    ASSERT_TRUE(repository.add("torch-test/double.pt", *bytes));
    Resource::addRepository(&repository);
    auto engine = makeEngine(engineProperties("torch-test/double.pt"));
    Resource::removeRepository(&repository);
    ASSERT_NE(engine, nullptr);
    ASSERT_TRUE(engine->isLoaded());

    expectDoublesOneFrame(*engine);
}

// Without a CUDA device half precision cannot apply: the network runs in float32, keeps its
// float32 results and says so once.
TEST_F(TorchEngineTest, HalfPrecisionOnTheCPURunsFloat32AndSaysSo)
{
    Properties properties = engineProperties(modelPath("double"));
    properties.setParam("HalfPrecision", true);
    properties.setParam("ForceCPU", true);
    Log::Capture capture;
    auto engine = makeEngine(properties);
    ASSERT_NE(engine, nullptr);
    EXPECT_TRUE(engine->p_halfPrecision.value());
    EXPECT_EQ(capture.count("HalfPrecision is ignored on the CPU: model '" + modelPath("double") +
                                "' runs in float32",
                            "ML.TorchEngine"),
              1);
    DataItem item;
    // 1001 is not representable in float16 (its neighbours there are 1000 and 1002): a network
    // run in half precision would not give it back doubled exactly.
    auto input = MLTest::makeSet(1, MLTest::FrameLayout{});
    static_cast<float*>(input->get(0)->mem()->data())[0] = 1001.0F;
    item.set("Input", input);
    DataItem const prediction = engine->predict(item);
    auto const* output = prediction.get<ImageElement>("Prediction");
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(MLTest::firstValue(*output->sis()->get(0)), 2002.0F);
}

// ---- Preparing the network for inference ------------------------------------------------------

// Freezing and oneDNN fusion rewrite the graph (batch norms folded into convolutions): the
// results must stay those of the network as loaded, to float rounding.
TEST_F(TorchEngineTest, OptimisedNetworkGivesTheResultsOfTheNetworkAsLoaded)
{
    auto run = [](bool optimise) {
        Properties properties = engineProperties(modelPath("conv_net"));
        properties.setParam("OptimizeForInference", optimise);
        auto engine = makeEngine(properties);
        EXPECT_NE(engine, nullptr);
        DataItem item;
        item.set("Input", makeBatch({12, 10, 8}, 1, 2));
        DataItem prediction = engine->predict(item);
        return prediction.get<ImageElement>("Prediction")->sis();
    };
    auto const optimised = run(true);
    auto const asLoaded = run(false);
    ASSERT_EQ(optimised->size(), 2);
    for (int f = 0; f < 2; ++f) {
        auto const* a = static_cast<float const*>(optimised->get(f)->mem()->data());
        auto const* b = static_cast<float const*>(asLoaded->get(f)->mem()->data());
        ASSERT_EQ(optimised->get(f)->channels(), 2);
        std::size_t const count = optimised->get(f)->mem()->valueCount();
        double maxError = 0.0;
        for (std::size_t i = 0; i < count; ++i)
            maxError =
                std::max(maxError, std::abs(double(a[i]) - b[i]) / std::max(1.0, std::abs(double(b[i]))));
        EXPECT_LT(maxError, 1e-4) << "frame " << f;
    }
}

// A module that swaps an interface-typed block while running cannot be frozen: it still runs,
// as loaded, and says why once.
TEST_F(TorchEngineTest, NetworkThatCannotBeFrozenRunsAsLoaded)
{
    Log::Capture capture;
    auto engine = makeEngine(engineProperties(modelPath("swappable")));
    ASSERT_NE(engine, nullptr);
    EXPECT_TRUE(capture.containsFragment("Model '" + modelPath("swappable") +
                                         "' runs as loaded: it cannot be optimised for inference"));
    DataItem item;
    item.set("Input", makeBatch({4, 3, 1}, 1, 1));
    DataItem const prediction = engine->predict(item);
    EXPECT_FLOAT_EQ(MLTest::firstValue(*prediction.get<ImageElement>("Prediction")->sis()->get(0)),
                    static_cast<float>(originalValue(0, 0) + 1.0));
}

TEST_F(TorchEngineTest, PluginRegistersTheEngineUnderTorch)
{
    EXPECT_STREQ(velmoriaPluginId(), "Velmoria.Torch");
    std::unique_ptr<PluginBase> plugin(velmoriaCreatePlugin());
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(plugin->dependencies(), std::vector<std::string>{"Velmoria.ML"});
    EXPECT_EQ(plugin->init(), 0);
    EXPECT_EQ(plugin->init(), 0) << "a second init finds the engine registered";

    std::unique_ptr<Engine> engine = Engine::create("torch", engineProperties(modelPath("double")));
    ASSERT_NE(engine, nullptr);
    EXPECT_NE(dynamic_cast<TorchEngine*>(engine.get()), nullptr);
    EXPECT_EQ(engine->config.p_name.value(), "torch");
}

} // namespace
} // namespace Velmoria::ML

// Engines registered from test code: the factory lookup by name, the two parameter sets kept in
// step, the field checks and reading the model artefact from a file or a resource.

#include "ml/model/Engine.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "tests/ml/TestHelpers.h"
#include "tests/ml/data/ImageSetFixtures.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/Resource.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Velmoria::ML {
namespace {

// Doubles every value of the first input field's images into the first output field. Counts the
// hook calls so that tests can see each change arrive exactly once.
class DoublingEngine : public Engine
{
public:
    DoublingEngine()
        : Engine("doubler")
    {}

    DataItem predict(DataItem const& input) override
    {
        checkInputFields(input);
        auto const* element = input.get<ImageElement>(config.p_inputFields.value().front());
        auto doubled = std::make_shared<SharedImageSet>();
        for (auto const& frame : element->sis()->images()) {
            std::unique_ptr<MemImage> copy = frame->mem()->cloneMem();
            auto* typed = dynamic_cast<TypedImage<float>*>(copy.get());
            if (!typed)
                throw std::runtime_error("DoublingEngine takes float images");
            for (std::size_t i = 0; i < typed->valueCount(); ++i)
                typed->pointer()[i] *= 2.0F;
            doubled->add(std::shared_ptr<Image>(std::move(copy)));
        }
        DataItem prediction;
        prediction.set(config.p_outputFields.value().front(), doubled);
        checkOutputFields(prediction);
        return prediction;
    }

    void onModelFileChanged() override { ++modelFileChanges; }
    void onForceCPUChanged() override { ++forceCPUChanges; }

    int modelFileChanges = 0;
    int forceCPUChanges = 0;
};

class ThrowingEngine : public Engine
{
public:
    ThrowingEngine()
        : Engine("thrower")
    {}
    DataItem predict(DataItem const&) override { throw std::runtime_error("the network failed"); }
};

// An engine of a second factory, as a scripting layer would register it.
class ScriptedEngine : public ThrowingEngine
{};

constexpr char const* kScriptFactory = "TestScriptEngineFactory";

void registerTestEngines()
{
    EngineFactory& cpp = getCppEngineFactory();
    if (!cpp.hasType("doubler"))
        cpp.registerType<DoublingEngine>("doubler", makeInitializedEngine<DoublingEngine>);
    if (!cpp.hasType("thrower"))
        cpp.registerType<ThrowingEngine>("thrower", makeInitializedEngine<ThrowingEngine>);
    EngineFactory& script = getSubEngineFactory(kScriptFactory);
    if (!script.hasType("scripted"))
        script.registerType<ScriptedEngine>("scripted", makeInitializedEngine<ScriptedEngine>);
}

Properties engineProperties(std::string const& modelFile = "/models/net.pt")
{
    Properties properties;
    properties.setParam("ModelFile", modelFile);
    properties.setParam("Version", std::string("1.2"));
    properties.setParam("HalfPrecision", true);
    return properties;
}

class EngineTest : public ::testing::Test
{
protected:
    void SetUp() override { registerTestEngines(); }

    static std::unique_ptr<DoublingEngine> makeDoubler(Properties const& properties = engineProperties())
    {
        std::unique_ptr<Engine> engine = Engine::create("doubler", properties);
        auto* doubler = dynamic_cast<DoublingEngine*>(engine.get());
        if (!doubler)
            return nullptr;
        engine.release();
        return std::unique_ptr<DoublingEngine>(doubler);
    }
};

constexpr char const* kUnknownTail =
    "]. If you are targeting a C++ engine, make sure the corresponding plugin has been loaded. If you are "
    "targeting a Python engine, make sure that your Python environment has the relevant framework (pytorch, "
    "onnxruntime, openvino, etc.) installed.";

TEST_F(EngineTest, CreatedEnginePredictsAndNamesItself)
{
    auto engine = makeDoubler();
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->name(), "doubler");
    EXPECT_EQ(engine->config.p_name.value(), "doubler");
    EXPECT_EQ(engine->p_modelFile.value(), "/models/net.pt");
    EXPECT_EQ(engine->p_version.value(), "1.2");
    EXPECT_TRUE(engine->config.engineSpecificParams.contains("HalfPrecision"));

    DataItem input;
    input.set("Input", MLTest::makeSet(2));
    DataItem const prediction = engine->predict(input);
    auto const* output = prediction.get<ImageElement>("Prediction");
    ASSERT_NE(output, nullptr);
    ASSERT_EQ(output->sis()->size(), 2);
    // Frame 1 starts at 1000 (see makeSet); doubled it starts at 2000.
    EXPECT_FLOAT_EQ(MLTest::firstValue(*output->sis()->get(0)), 0.0F);
    EXPECT_FLOAT_EQ(MLTest::firstValue(*output->sis()->get(1)), 2000.0F);
    EXPECT_EQ(engine->modelFileChanges, 0) << "init copies values without running the hooks";
}

TEST_F(EngineTest, UpperCaseNameFallsBackToLowerCaseWithWarning)
{
    Log::Capture capture;
    auto engine = Engine::create("Doubler", engineProperties());
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->config.p_name.value(), "doubler");
    EXPECT_TRUE(capture.contains("Engine name should be lowercase. Please use 'doubler' instead of 'Doubler'",
                                 "ML.Engine"));
}

TEST_F(EngineTest, EnginesOfEveryFactoryAreFound)
{
    EXPECT_TRUE(Engine::isRegistered("scripted", true));
    auto engine = Engine::create("scripted", engineProperties());
    ASSERT_NE(engine, nullptr);
    EXPECT_NE(dynamic_cast<ScriptedEngine*>(engine.get()), nullptr);
    EXPECT_EQ(registeredEngineNames(), (std::vector<std::string>{"doubler", "scripted", "thrower"}));
}

TEST_F(EngineTest, UnknownEngineGivesNullAndListsRegisteredEnginesOnce)
{
    Log::Capture capture;
    EXPECT_EQ(Engine::create("NoSuchEngine", engineProperties()), nullptr);
    std::string const message =
        std::string(
            "NoSuchEngine is not a registered engine - registered engines are: [doubler, thrower, scripted") +
        kUnknownTail;
    EXPECT_EQ(capture.count(message, "ML.Engine"), 1);
    EXPECT_FALSE(capture.containsFragment("lowercase"));
}

TEST_F(EngineTest, QuietLookupLogsNothing)
{
    Log::Capture capture;
    EXPECT_FALSE(Engine::isRegistered("missing", true));
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(EngineTest, EmptyRegistryListsNoEngines)
{
    engineFactoryRegistry().unregisterAllItems();
    {
        Log::Capture capture;
        EXPECT_EQ(Engine::create("doubler", engineProperties()), nullptr);
        EXPECT_TRUE(capture.contains(
            std::string("doubler is not a registered engine - registered engines are: [") + kUnknownTail,
            "ML.Engine"));
    }
    registerTestEngines();
    EXPECT_TRUE(Engine::isRegistered("doubler", true));
}

TEST_F(EngineTest, MissingModelFileRefusesTheEngine)
{
    Log::Capture capture;
    Properties properties;
    properties.setParam("ForceCPU", true);
    EXPECT_EQ(Engine::create("doubler", properties), nullptr);
    EXPECT_TRUE(capture.contains("Missing required configure parameter 'ModelFile'", "ML.Engine"));
    EXPECT_TRUE(capture.contains("Failed to initialize engine 'doubler'", "ML.Engine"));
}

TEST_F(EngineTest, ThrowingEnginePassesItsExceptionOn)
{
    auto engine = Engine::create("thrower", engineProperties());
    ASSERT_NE(engine, nullptr);
    DataItem input;
    MLTest::expectThrowWithMessage<std::runtime_error>([&] { (void)engine->predict(input); },
                                                       "the network failed");
}

TEST_F(EngineTest, FieldChecksNameTheMissingField)
{
    Properties properties = engineProperties();
    properties.setParam("InputFields", std::vector<std::string>{"Image", "Mask"});
    properties.setParam("OutputFields", std::vector<std::string>{"Label", "Aux"});
    properties.setParam("OutputFieldsToIgnore", std::vector<std::string>{"Aux"});
    auto engine = makeDoubler(properties);
    ASSERT_NE(engine, nullptr);

    DataItem item;
    item.set("Image", MLTest::makeSet(1));
    MLTest::expectThrowWithMessage<EngineException>(
        [&] { engine->checkInputFields(item); }, "Input item does not contain required input field 'Mask'");
    item.set("Mask", MLTest::makeSet(1));
    EXPECT_NO_THROW(engine->checkInputFields(item));

    DataItem prediction;
    MLTest::expectThrowWithMessage<EngineException>(
        [&] { engine->checkOutputFields(prediction); },
        "Prediction item does not contain required output field 'Label'");
    prediction.set("Label", MLTest::makeSet(1));
    EXPECT_NO_THROW(engine->checkOutputFields(prediction)) << "'Aux' is ignored";
}

TEST_F(EngineTest, EnginesDifferingInASpecificKeyAreNotIdentical)
{
    auto a = makeDoubler();
    auto b = makeDoubler();
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(a->isIdentical(b.get()));
    Properties other = engineProperties();
    other.setParam("HalfPrecision", false);
    auto c = makeDoubler(other);
    ASSERT_TRUE(c);
    EXPECT_FALSE(a->isIdentical(c.get()));
    EXPECT_FALSE(a->isIdentical(nullptr));
}

// ---- The twelve handlers ----------------------------------------------------------------------

struct HandlerCase
{
    std::string label;
    // Changes one side to a new value.
    std::function<void(DoublingEngine&)> change;
    // True when both sides hold the new value.
    std::function<bool(DoublingEngine const&)> inStep;
    int modelFileChanges;
    int forceCPUChanges;
};

std::vector<std::string> const kFields{"A", "B"};

std::vector<HandlerCase> handlerCases()
{
    return {
        {"ConfigModelFile", [](auto& e) { e.config.p_modelFile.setValue("/other.pt"); },
         [](auto const& e) {
             return e.p_modelFile.value() == "/other.pt" && e.config.p_modelFile.value() == "/other.pt";
         },
         1, 0},
        {"ConfigForceCPU", [](auto& e) { e.config.p_forceCPU.setValue(true); },
         [](auto const& e) { return e.p_forceCPU.value() && e.config.p_forceCPU.value(); }, 0, 1},
        {"ConfigInputFields", [](auto& e) { e.config.p_inputFields.setValue(kFields); },
         [](auto const& e) {
             return e.p_engineInputFields.value() == kFields && e.config.p_inputFields.value() == kFields;
         },
         0, 0},
        {"ConfigOutputFields", [](auto& e) { e.config.p_outputFields.setValue(kFields); },
         [](auto const& e) {
             return e.p_engineOutputFields.value() == kFields && e.config.p_outputFields.value() == kFields;
         },
         0, 0},
        {"ConfigOutputFieldsToIgnore", [](auto& e) { e.config.p_outputFieldsToIgnore.setValue(kFields); },
         [](auto const& e) {
             return e.p_engineOutputFieldsToIgnore.value() == kFields &&
                    e.config.p_outputFieldsToIgnore.value() == kFields;
         },
         0, 0},
        {"ConfigVersion", [](auto& e) { e.config.p_version.setValue("2.0"); },
         [](auto const& e) { return e.p_version.value() == "2.0" && e.config.p_version.value() == "2.0"; }, 0,
         0},
        {"OwnModelFile", [](auto& e) { e.p_modelFile.setValue("/other.pt"); },
         [](auto const& e) {
             return e.p_modelFile.value() == "/other.pt" && e.config.p_modelFile.value() == "/other.pt";
         },
         1, 0},
        {"OwnForceCPU", [](auto& e) { e.p_forceCPU.setValue(true); },
         [](auto const& e) { return e.p_forceCPU.value() && e.config.p_forceCPU.value(); }, 0, 1},
        {"OwnInputFields", [](auto& e) { e.p_engineInputFields.setValue(kFields); },
         [](auto const& e) {
             return e.p_engineInputFields.value() == kFields && e.config.p_inputFields.value() == kFields;
         },
         0, 0},
        {"OwnOutputFields", [](auto& e) { e.p_engineOutputFields.setValue(kFields); },
         [](auto const& e) {
             return e.p_engineOutputFields.value() == kFields && e.config.p_outputFields.value() == kFields;
         },
         0, 0},
        {"OwnOutputFieldsToIgnore", [](auto& e) { e.p_engineOutputFieldsToIgnore.setValue(kFields); },
         [](auto const& e) {
             return e.p_engineOutputFieldsToIgnore.value() == kFields &&
                    e.config.p_outputFieldsToIgnore.value() == kFields;
         },
         0, 0},
        {"OwnVersion", [](auto& e) { e.p_version.setValue("2.0"); },
         [](auto const& e) { return e.p_version.value() == "2.0" && e.config.p_version.value() == "2.0"; }, 0,
         0},
    };
}

class EngineHandlerTest : public EngineTest, public ::testing::WithParamInterface<HandlerCase>
{};

TEST_P(EngineHandlerTest, ChangeReachesOtherSideAndHookOnce)
{
    auto engine = makeDoubler();
    ASSERT_NE(engine, nullptr);
    HandlerCase const& c = GetParam();
    c.change(*engine);
    EXPECT_TRUE(c.inStep(*engine));
    EXPECT_EQ(engine->modelFileChanges, c.modelFileChanges);
    EXPECT_EQ(engine->forceCPUChanges, c.forceCPUChanges);

    // The same value again changes nothing and calls no hook.
    c.change(*engine);
    EXPECT_TRUE(c.inStep(*engine));
    EXPECT_EQ(engine->modelFileChanges, c.modelFileChanges);
    EXPECT_EQ(engine->forceCPUChanges, c.forceCPUChanges);
}

INSTANTIATE_TEST_SUITE_P(TwelveHandlers, EngineHandlerTest, ::testing::ValuesIn(handlerCases()),
                         [](auto const& info) { return info.param.label; });

TEST_F(EngineTest, ChangeBackToDefaultCallsNoHook)
{
    Properties properties = engineProperties();
    properties.setParam("ForceCPU", true);
    auto engine = makeDoubler(properties);
    ASSERT_NE(engine, nullptr);
    engine->p_forceCPU.setValue(false);
    EXPECT_FALSE(engine->config.p_forceCPU.value());
    EXPECT_EQ(engine->forceCPUChanges, 0);
}

// ---- EngineConfiguration ---------------------------------------------------------------------

TEST(EngineConfigurationTest, DefaultsAndRequiredModelFile)
{
    EngineConfiguration config;
    EXPECT_EQ(config.p_inputFields.value(), std::vector<std::string>{"Input"});
    EXPECT_EQ(config.p_outputFields.value(), std::vector<std::string>{"Prediction"});
    EXPECT_TRUE(config.p_outputFieldsToIgnore.value().empty());
    EXPECT_FALSE(config.p_forceCPU.value());

    Log::Capture capture;
    EXPECT_FALSE(config.configureChecked(nullptr));
    EXPECT_TRUE(capture.contains("Invalid Engine properties", "ML.Engine"));
    Properties withoutModel;
    withoutModel.setParam("Version", std::string("3"));
    EXPECT_FALSE(config.configureChecked(&withoutModel));
    EXPECT_TRUE(capture.contains("Missing required configure parameter 'ModelFile'", "ML.Engine"));
    EXPECT_EQ(config.p_version.value(), "3") << "the other keys are still read";
}

// A key's value as a list: a list value as it is, a plain value as a list of one.
std::vector<std::string> valuesOf(Properties const& properties, std::string const& key)
{
    std::vector<std::string> values;
    if (properties.paramIsList(key))
        properties.param(key, values);
    else if (std::string value; properties.param(key, value))
        values.push_back(value);
    return values;
}

struct DeprecatedKeyCase
{
    std::string oldKey;
    std::string key;
};

class EngineConfigurationDeprecatedTest : public ::testing::TestWithParam<DeprecatedKeyCase>
{};

TEST_P(EngineConfigurationDeprecatedTest, OldNameIsReadWithWarningAndKeptAsSpecific)
{
    DeprecatedKeyCase const& c = GetParam();
    Properties properties = engineProperties();
    properties.removeParam("Version");
    if (c.key == "Version")
        properties.setParam(c.oldKey, std::string("X"));
    else
        properties.setParam(c.oldKey, std::vector<std::string>{"X"});
    EngineConfiguration config;
    Log::Capture capture;
    EXPECT_TRUE(config.configureChecked(&properties));
    EXPECT_TRUE(capture.contains(
        "Using deprecated parameter '" + c.oldKey + "'. Please use: '" + c.key + "' instead.", "ML.Engine"));
    Properties written = config.toProperties();
    EXPECT_EQ(valuesOf(written, c.key), std::vector<std::string>{"X"});
    EXPECT_TRUE(config.engineSpecificParams.contains(c.oldKey));
    EXPECT_FALSE(config.engineSpecificParams.contains("ModelFile"));
}

INSTANTIATE_TEST_SUITE_P(OldNames, EngineConfigurationDeprecatedTest,
                         ::testing::Values(DeprecatedKeyCase{"EngineInputFields", "InputFields"},
                                           DeprecatedKeyCase{"EngineOutputFields", "OutputFields"},
                                           DeprecatedKeyCase{"EngineOutputFieldsToIgnore",
                                                             "OutputFieldsToIgnore"},
                                           DeprecatedKeyCase{"EngineVersion", "Version"}),
                         [](auto const& info) { return info.param.oldKey; });

TEST(EngineConfigurationTest, RelativeModelFileIsAnchoredAtYamlAndSavedRaw)
{
    Filesystem::Path const folder = Filesystem::tempDirectory() / "velmoria-engine-config-test";
    ASSERT_TRUE(Filesystem::createDirectories(folder / "weights"));
    ASSERT_TRUE(Filesystem::File(folder / "weights" / "net.pt").writeText("w"));

    Properties properties = engineProperties("weights/net.pt");
    properties.setParam("YamlConfigPath", (folder / "model.yaml").str());
    EngineConfiguration config;
    ASSERT_TRUE(config.configureChecked(&properties));
    EXPECT_EQ(Filesystem::Path(config.p_modelFile.value()), folder.makeAbsolute() / "weights" / "net.pt");
    EXPECT_EQ(config.rawModelFile, "weights/net.pt");

    Properties const written = config.toProperties();
    EXPECT_EQ(written.paramValueText("ModelFile"), "weights/net.pt");
    EXPECT_EQ(written.paramValueText("HalfPrecision"), "true");

    EngineConfiguration const copy(config);
    EXPECT_TRUE(copy.toProperties().compareWith(written, Properties::CompareAll));

    // Once code points the engine elsewhere, the raw text no longer describes it.
    config.p_modelFile.setValue("/elsewhere.pt");
    EXPECT_EQ(config.toProperties().paramValueText("ModelFile"), "/elsewhere.pt");
    Filesystem::Directory(folder).remove();
}

// ---- Model artefact --------------------------------------------------------------------------

class ModelArtifactTest : public EngineTest
{
protected:
    void SetUp() override
    {
        EngineTest::SetUp();
        m_folder =
            Filesystem::tempDirectory() /
            ("velmoria-engine-test-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
             "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        ASSERT_TRUE(Filesystem::createDirectories(m_folder));
        Resource::addRepository(&m_repository);
    }
    void TearDown() override
    {
        Resource::removeRepository(&m_repository);
        Filesystem::Directory(m_folder).remove();
    }

    Filesystem::Path m_folder;
    Resource::MemoryRepository m_repository{"EngineTestRepository"};
};

TEST_F(ModelArtifactTest, ReadsTheWholeFile)
{
    Filesystem::Path const file = m_folder / "net.pt";
    ASSERT_TRUE(Filesystem::File(file).writeText("weights"));
    auto engine = makeDoubler(engineProperties(file.str()));
    ASSERT_NE(engine, nullptr);
    auto bytes = engine->loadModelArtifact();
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(std::string(bytes->begin(), bytes->end()), "weights");
}

TEST_F(ModelArtifactTest, ReadsAResourceWithDebugLine)
{
    ByteBuffer stored;
    stored.copyFrom("abc", 3);
    ASSERT_TRUE(m_repository.add("engine-test/net.pt", stored));
    auto engine = makeDoubler(engineProperties("engine-test/net.pt"));
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->p_modelFile.value(), "engine-test/net.pt") << "a resource name stays as it is";

    int const level = Log::g_globalLevel;
    Log::g_globalLevel = 1;
    Log::Capture capture;
    auto bytes = engine->loadModelArtifact();
    Log::g_globalLevel = level;
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(bytes->size(), 3U);
    EXPECT_TRUE(capture.contains("Loading model from resource: engine-test/net.pt", "ML.Engine"));
}

TEST_F(ModelArtifactTest, NeitherFileNorResourceGivesNothingQuietly)
{
    auto engine = makeDoubler(engineProperties((m_folder / "missing.pt").str()));
    ASSERT_NE(engine, nullptr);
    Log::Capture capture;
    EXPECT_FALSE(engine->loadModelArtifact().has_value());
    EXPECT_TRUE(capture.records().empty());
}

} // namespace
} // namespace Velmoria::ML

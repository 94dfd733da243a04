// Engines registered from test code: the factory lookup by name, the two parameter sets kept in
// step, the field checks and reading the model artefact from a file or a resource.

#include "ml/model/Engine.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "tests/ml/TestHelpers.h"
#include "tests/ml/data/ImageSetFixtures.h"
#include "tests/ml/model/TestEngines.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/Resource.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Velmoria::ML {
namespace {

using MLTest::DoublingEngine;
using MLTest::ScriptedEngine;

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
    void SetUp() override { MLTest::registerTestEngines(); }

    static std::unique_ptr<DoublingEngine> makeDoubler(Properties const& properties = engineProperties())
    {
        std::unique_ptr<Engine> engine = Engine::create("doubler", properties);
        if (!dynamic_cast<DoublingEngine*>(engine.get()))
            return nullptr;
        return std::unique_ptr<DoublingEngine>(static_cast<DoublingEngine*>(engine.release()));
    }
};

TEST_F(EngineTest, CreatedEnginePredictsAndNamesItself)
{
    auto engine = makeDoubler();
    ASSERT_NE(engine, nullptr);
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
    EXPECT_FLOAT_EQ(MLTest::firstValue(*output->sis()->get(1)), 2000.0F);
    EXPECT_EQ(engine->modelFileChanges, 0) << "init copies values without running the hooks";
}

TEST_F(EngineTest, LookupCoversEveryFactoryAndExplainsAnUnknownName)
{
    auto scripted = Engine::create("scripted", engineProperties());
    EXPECT_NE(dynamic_cast<ScriptedEngine*>(scripted.get()), nullptr);
    EXPECT_EQ(registeredEngineNames(),
              (std::vector<std::string>{"broken", "doubler", "scripted", "thrower"}));
    Log::Capture capture;
    EXPECT_FALSE(Engine::isRegistered("missing", true));
    EXPECT_TRUE(capture.records().empty()) << "a quiet lookup logs nothing";

    auto upper = Engine::create("Doubler", engineProperties());
    ASSERT_NE(upper, nullptr);
    EXPECT_EQ(upper->config.p_name.value(), "doubler");
    EXPECT_TRUE(capture.contains("Engine name should be lowercase. Please use 'doubler' instead of 'Doubler'",
                                 "ML.Engine"));

    EXPECT_EQ(Engine::create("NoSuchEngine", engineProperties()), nullptr);
    // Every factory's engines are listed; their order is the order in which tests registered them.
    std::string const message = [&] {
        for (auto const& text : capture.messages())
            if (text.starts_with("NoSuchEngine is not a registered engine - registered engines are: ["))
                return text;
        return std::string();
    }();
    for (char const* name : {"doubler", "thrower", "broken", "scripted"})
        EXPECT_NE(message.find(name), std::string::npos) << name << " missing from: " << message;
    EXPECT_NE(message.find("If you are targeting a C++ engine, make sure the corresponding plugin has been "
                           "loaded. If you are targeting a Python engine, make sure that your Python "
                           "environment has the relevant framework (pytorch, onnxruntime, openvino, etc.) "
                           "installed."),
              std::string::npos)
        << message;
}

TEST_F(EngineTest, MissingModelFileRefusesTheEngineAndANetworkFailurePassesOn)
{
    Log::Capture capture;
    Properties properties;
    properties.setParam("ForceCPU", true);
    EXPECT_EQ(Engine::create("doubler", properties), nullptr);
    EXPECT_TRUE(capture.contains("Missing required configure parameter 'ModelFile'", "ML.Engine"));
    EXPECT_TRUE(capture.contains("Failed to initialize engine 'doubler'", "ML.Engine"));

    auto engine = Engine::create("thrower", engineProperties());
    ASSERT_NE(engine, nullptr);
    MLTest::expectThrowWithMessage<std::runtime_error>([&] { (void)engine->predict(DataItem()); },
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
    EXPECT_TRUE(a->isIdentical(makeDoubler().get()));
    Properties other = engineProperties();
    other.setParam("HalfPrecision", false);
    EXPECT_FALSE(a->isIdentical(makeDoubler(other).get()));
    EXPECT_FALSE(a->isIdentical(nullptr));
}

// Each of the six values lives twice, in the engine and in its configuration: a change on either
// side reaches the other, the hook of the model file or the device runs once per real change, and
// setting the same value again changes nothing.
TEST_F(EngineTest, EachSharedValueKeepsItsTwinInStepAndRunsItsHookOnce)
{
    std::vector<std::string> const fields{"A", "B"};
    for (bool fromConfig : {false, true}) {
        SCOPED_TRACE(fromConfig ? "changed in the configuration" : "changed on the engine");
        auto engine = makeDoubler();
        ASSERT_NE(engine, nullptr);
        auto check = [&](char const* what, auto& own, auto& inConfig, auto const& value, int modelFileChanges,
                         int forceCPUChanges) {
            SCOPED_TRACE(what);
            for (int time = 0; time < 2; ++time) {
                if (fromConfig)
                    inConfig.setValue(value);
                else
                    own.setValue(value);
                EXPECT_EQ(own.value(), value);
                EXPECT_EQ(inConfig.value(), value);
                EXPECT_EQ(engine->modelFileChanges, modelFileChanges);
                EXPECT_EQ(engine->forceCPUChanges, forceCPUChanges);
            }
        };
        check("ModelFile", engine->p_modelFile, engine->config.p_modelFile, std::string("/other.pt"), 1, 0);
        check("ForceCPU", engine->p_forceCPU, engine->config.p_forceCPU, true, 1, 1);
        check("InputFields", engine->p_engineInputFields, engine->config.p_inputFields, fields, 1, 1);
        check("OutputFields", engine->p_engineOutputFields, engine->config.p_outputFields, fields, 1, 1);
        check("OutputFieldsToIgnore", engine->p_engineOutputFieldsToIgnore,
              engine->config.p_outputFieldsToIgnore, fields, 1, 1);
        check("Version", engine->p_version, engine->config.p_version, std::string("2.0"), 1, 1);
        // Back to the default value is a change, but not one the hooks are told about.
        check("ForceCPU back", engine->p_forceCPU, engine->config.p_forceCPU, false, 1, 1);
    }
}

// ---- EngineConfiguration ---------------------------------------------------------------------

TEST(EngineConfigurationTest, ModelFileIsRequiredButTheOtherKeysAreStillRead)
{
    EngineConfiguration config;
    Log::Capture capture;
    EXPECT_FALSE(config.configureChecked(nullptr));
    EXPECT_TRUE(capture.contains("Invalid Engine properties", "ML.Engine"));
    Properties withoutModel;
    withoutModel.setParam("Version", std::string("3"));
    EXPECT_FALSE(config.configureChecked(&withoutModel));
    EXPECT_TRUE(capture.contains("Missing required configure parameter 'ModelFile'", "ML.Engine"));
    EXPECT_EQ(config.p_version.value(), "3");
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

TEST(EngineConfigurationTest, OldKeyNamesAreReadWithAWarningAndKeptAsSpecific)
{
    for (std::string const key : {"InputFields", "OutputFields", "OutputFieldsToIgnore", "Version"}) {
        std::string const oldKey = "Engine" + key;
        SCOPED_TRACE(oldKey);
        Properties properties = engineProperties();
        properties.removeParam("Version");
        if (key == "Version")
            properties.setParam(oldKey, std::string("X"));
        else
            properties.setParam(oldKey, std::vector<std::string>{"X"});
        EngineConfiguration config;
        Log::Capture capture;
        EXPECT_TRUE(config.configureChecked(&properties));
        EXPECT_TRUE(capture.contains(
            "Using deprecated parameter '" + oldKey + "'. Please use: '" + key + "' instead.", "ML.Engine"));
        EXPECT_EQ(valuesOf(config.toProperties(), key), std::vector<std::string>{"X"});
        EXPECT_TRUE(config.engineSpecificParams.contains(oldKey));
        EXPECT_FALSE(config.engineSpecificParams.contains("ModelFile"));
    }
}

TEST(EngineConfigurationTest, RelativeModelFileIsAnchoredAtYamlAndSavedRaw)
{
    Filesystem::TemporaryDirectory const folder("engine-config");
    ASSERT_TRUE(Filesystem::createDirectories(folder.path() / "weights"));
    ASSERT_TRUE(Filesystem::File(folder.path() / "weights" / "net.pt").writeText("w"));

    Properties properties = engineProperties("weights/net.pt");
    properties.setParam("YamlConfigPath", (folder.path() / "model.yaml").str());
    EngineConfiguration config;
    ASSERT_TRUE(config.configureChecked(&properties));
    EXPECT_EQ(Filesystem::Path(config.p_modelFile.value()),
              folder.path().makeAbsolute() / "weights" / "net.pt");

    Properties const written = config.toProperties();
    EXPECT_EQ(written.paramValueText("ModelFile"), "weights/net.pt");
    EXPECT_EQ(written.paramValueText("HalfPrecision"), "true");
    EXPECT_TRUE(EngineConfiguration(config).toProperties().compareWith(written, Properties::CompareAll));

    // Once code points the engine elsewhere, the raw text no longer describes it.
    config.p_modelFile.setValue("/elsewhere.pt");
    EXPECT_EQ(config.toProperties().paramValueText("ModelFile"), "/elsewhere.pt");
}

// ---- Model artefact --------------------------------------------------------------------------

class ModelArtifactTest : public EngineTest
{
protected:
    void SetUp() override
    {
        EngineTest::SetUp();
        Resource::addRepository(&repository);
    }
    void TearDown() override { Resource::removeRepository(&repository); }

    Resource::MemoryRepository repository{"EngineTestRepository"};
};

TEST_F(ModelArtifactTest, IsReadFromAFileOrElseFromAResource)
{
    Filesystem::TemporaryDirectory const folder("engine-artifact");
    ByteBuffer stored;
    stored.copyFrom("abc", 3);
    ASSERT_TRUE(repository.add("engine-test/net.pt", stored));
    ASSERT_TRUE(Filesystem::File(folder.path() / "net.pt").writeText("weights"));

    auto fromFile = makeDoubler(engineProperties((folder.path() / "net.pt").str()))->loadModelArtifact();
    ASSERT_TRUE(fromFile.has_value());
    EXPECT_EQ(std::string(fromFile->begin(), fromFile->end()), "weights");

    auto engine = makeDoubler(engineProperties("engine-test/net.pt"));
    EXPECT_EQ(engine->p_modelFile.value(), "engine-test/net.pt") << "a resource name stays as it is";
    int const level = Log::g_globalLevel;
    Log::g_globalLevel = 1;
    Log::Capture capture;
    auto fromResource = engine->loadModelArtifact();
    Log::g_globalLevel = level;
    ASSERT_TRUE(fromResource.has_value());
    EXPECT_EQ(fromResource->size(), 3U);
    EXPECT_TRUE(capture.contains("Loading model from resource: engine-test/net.pt", "ML.Engine"));

    capture.clear();
    auto const missing = makeDoubler(engineProperties((folder.path() / "missing.pt").str()));
    EXPECT_FALSE(missing->loadModelArtifact().has_value());
    EXPECT_TRUE(capture.records().empty()) << "neither file nor resource gives nothing, quietly";
}

} // namespace
} // namespace Velmoria::ML

#include "ml/model/ModelConfiguration.h"

#include "ml/model/ModelResources.h"
#include "ml/operations/ParamException.h"
#include "ml/operations/ProcessingSpecs.h"
#include "ml/operations/PropertiesYAML.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/String.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

namespace Velmoria::ML {

namespace {

constexpr char const* kCategory = "ML.ModelConfiguration";
constexpr char const* kUpgradeFlag = "UpgradeToMLModelV2";
// Files below this schema are upgraded to kDefaultTargetVersion unless the flag opts in.
constexpr int kLatestVersion = 8;
constexpr int kDefaultTargetVersion = 7;
constexpr char const* kLabelOperation = "SetLabelModality";

bool endsWith(std::string const& text, std::string_view suffix)
{
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void logUpgradeNotice()
{
    VELMORIA_LOG_INFO(
        kCategory, "{}{}{}{}{}{}{}",
        fmt::format("The model configuration will be upgraded to version {}, but the latest available "
                    "version is {}\n",
                    kDefaultTargetVersion, kLatestVersion),
        fmt::format(
            "\tNote that version {} is associated with changes in the splitting/recombination logic that "
            "may affect model predictions.\n",
            kLatestVersion),
        "\tWhile we do recommend to update the model because these changes contain bugfixes and "
        "improvements, "
        "note that this might change the output of the model.\n",
        fmt::format("\tTherefore, config files are not automatically updated past version {}.\n",
                    kDefaultTargetVersion),
        fmt::format(
            "\tTo update the configuration and use the new behaviour, please set the flag `{}` to true "
            "(default is false) in the YAML configuration file.\n",
            kUpgradeFlag),
        "\tIf you want to save the upgraded version of the configurationfile from C++, use the "
        "`ModelConfiguration::save` function to write it to a specified path.\n",
        "\tIf you have the `velmoria-sdk` python package, you can also use the command `python -m "
        "velmoria.machinelearning.update_model_configuration --input <path/to/config.yaml> --output "
        "<path/to/upgraded/config.yaml>`");
}

ConfigResult upgradeStep(int from, Properties& properties)
{
    switch (from) {
    case 0:
    case 1:
        return ConfigResult::success();
    case 2:
        return Elevator::V2toV3(properties);
    case 3:
        return Elevator::V3toV4(properties);
    case 4:
        return Elevator::V4toV5(properties);
    case 5:
        return Elevator::V5toV6(properties);
    case 6:
        return Elevator::V6toV7(properties);
    case 7:
        return Elevator::V7toV8(properties);
    default:
        throw std::runtime_error(
            fmt::format("Upgrade function from Version {} to Version {} not implemented.", from, from + 1));
    }
}

template <class E>
std::vector<std::string> enumTexts(std::vector<E> const& values, std::string (*toText)(E))
{
    std::vector<std::string> texts;
    for (E value : values)
        texts.push_back(toText(value));
    return texts;
}

void addProcessingList(Properties& out, char const* name, std::vector<Operation::Specs> const& specs)
{
    Properties* list = out.addSubProperties(name);
    for (auto& entry : processingSpecsToPropertyList(specs))
        list->addSubProperties(std::move(entry));
}

// ---- The written model file ----------------------------------------------------------------
// PropertiesYAML::saveToString writes any tree, but puts sub-trees under "__subProps__"; a model
// file is read and edited by people, so it is written in the form they write it: blocks as
// maps, the processing lists as sequences of one-entry maps, number vectors as [x, y, z]. The
// quoting is yaml-cpp's, and PropertiesYAML reads every form back to the same tree.

bool isProcessingList(std::string const& name)
{
    return name == "PreProcessing" || name == "PostProcessing";
}

// "64 64 16" -> its numbers, so that it can be written as a sequence; empty for other texts.
std::vector<std::string> numberTokens(std::string const& text)
{
    std::vector<std::string> tokens;
    for (std::string const& token : String::splitWhitespace(text)) {
        double number = 0.0;
        if (!ValueText::fromText(token, number))
            return {};
        tokens.push_back(token);
    }
    return tokens.size() > 1 ? tokens : std::vector<std::string>{};
}

void emitValue(YAML::Emitter& out, ParamValue const& value)
{
    std::vector<std::string> const numbers =
        value.isList() ? std::vector<std::string>{} : numberTokens(value.text);
    if (!value.isList() && numbers.empty()) {
        out << value.text;
        return;
    }
    out << YAML::Flow << YAML::BeginSeq;
    for (std::string const& item : value.isList() ? *value.list : numbers)
        out << item;
    out << YAML::EndSeq;
}

void emitParams(YAML::Emitter& out, Properties const& tree)
{
    for (Properties::Param const& param : tree.params()) {
        if (ParamType::isHidden(param.type) || ParamType::kind(param.type) == ParamType::Label)
            continue;
        out << YAML::Key << param.key << YAML::Value;
        emitValue(out, param.value);
    }
}

void emitBlock(YAML::Emitter& out, Properties const& tree)
{
    out << YAML::BeginMap;
    emitParams(out, tree);
    for (Properties const* sub : tree.subProperties()) {
        out << YAML::Key << sub->name() << YAML::Value;
        if (isProcessingList(sub->name())) {
            out << YAML::BeginSeq;
            for (Properties const* operation : sub->subProperties()) {
                out << YAML::BeginMap << YAML::Key << operation->name() << YAML::Value;
                emitBlock(out, *operation);
                out << YAML::EndMap;
            }
            out << YAML::EndSeq;
        } else {
            emitBlock(out, *sub);
        }
    }
    out << YAML::EndMap;
}

std::string modelFileText(Properties const& tree)
{
    YAML::Emitter out;
    out.SetIndent(2);
    emitBlock(out, tree);
    return std::string(out.c_str()) + "\n";
}

} // namespace

ModelConfiguration::ModelConfiguration(std::string const& configPath, PredictionOutput defaultOutput)
    : m_predictionOutputTypes{defaultOutput}
    , m_sampling(std::make_unique<SamplingConfiguration>(1))
    , m_configPath(modelPathToAbsoluteIfNotResource(configPath, ""))
{
    Properties properties;
    if (ConfigResult parsed = parseConfigFile(properties); !parsed.ok()) {
        m_status = parsed.status;
        m_errorMessage = parsed.message;
        return;
    }
    load(std::move(properties));
}

ModelConfiguration::ModelConfiguration(Properties properties, std::string const& configPath,
                                       PredictionOutput defaultOutput)
    : m_predictionOutputTypes{defaultOutput}
    , m_sampling(std::make_unique<SamplingConfiguration>(1))
    , m_configPath(configPath.empty() ? std::string() : modelPathToAbsoluteIfNotResource(configPath, ""))
{
    load(std::move(properties));
}

void ModelConfiguration::load(Properties properties)
{
    try {
        p_version.configure(&properties);
        p_upgradeToMLModelV2.configure(&properties);
    } catch (ParamException const& e) {
        fail(e.what());
        return;
    }

    int const version = p_version.value();
    int target = kLatestVersion;
    if (!p_upgradeToMLModelV2.value()) {
        if (version >= kLatestVersion)
            target = version; // no step runs; behaves as the latest schema
        else {
            target = kDefaultTargetVersion;
            logUpgradeNotice();
        }
    }
    m_upgradedVersion = std::min(target, kLatestVersion);
    for (int step = version; step < target; ++step) {
        VELMORIA_LOG_DEBUG(kCategory, "Upgrading Inference Yaml Config from Version {} to Version {}", step,
                           step + 1);
        if (ConfigResult result = upgradeStep(step, properties); !result.ok()) {
            m_status = result.status;
            m_errorMessage = result.message;
            return;
        }
    }
    configure(&properties);
}

ModelConfiguration::~ModelConfiguration() = default;

ConfigResult ModelConfiguration::parseConfigFile(Properties& out) const
{
    VELMORIA_LOG_INFO(kCategory, "Loading config file {}", m_configPath);
    if (endsWith(m_configPath, ".yaml")) {
        std::unique_ptr<Properties> parsed = PropertiesYAML::createFromResourceOrFile(m_configPath);
        if (!parsed)
            return ConfigResult::failure(fmt::format("Could not parse {} as YAML file", m_configPath));
        out = std::move(*parsed);
        return ConfigResult::success();
    }
    if (endsWith(m_configPath, ".configtxt") || endsWith(m_configPath, ".model"))
        return ConfigResult::failure("Models specified in .configtxt or .model files are not supported "
                                     "anymore, please use a .yaml based "
                                     "model.");
    return ConfigResult::failure(fmt::format(
        "Failed to open Config file: {}. Config file should have .yaml extension and corresponding format.",
        m_configPath));
}

void ModelConfiguration::fail(std::string message)
{
    m_status = 1;
    m_errorMessage = std::move(message);
}

void ModelConfiguration::configure(Properties const* properties)
{
    if (!properties) {
        fail("Invalid model configuration: no properties");
        return;
    }
    try {
        configureOrThrow(*properties);
    } catch (std::exception const& e) {
        // ParamException from parameters and lists; anything else is as much a bad file.
        fail(e.what());
    }
}

void ModelConfiguration::configureOrThrow(Properties const& properties)
{
    for (ParameterBase* parameter : parameters())
        parameter->configure(&properties);

    m_engineConfig = EngineConfiguration();
    m_engineConfig.p_verbose.setValue(p_verbose.value());
    Properties const* engineBlock = properties.findSubProperties("Engine");
    if (!engineBlock)
        return fail("Missing `Engine` configuration");
    {
        Properties engine = *engineBlock;
        engine.setParam("YamlConfigPath", m_configPath);
        // The engine block reports through its log only; its first error is the reason.
        Log::Capture capture(true);
        if (!m_engineConfig.configureChecked(&engine)) {
            std::string why = "Invalid `Engine` configuration";
            for (Log::Record const& record : capture.records()) {
                if (record.level == Log::Error && record.category == "ML." + m_engineConfig.name()) {
                    why = record.message;
                    break;
                }
            }
            return fail(why);
        }
    }

    m_sampling = std::make_unique<SamplingConfiguration>(p_version.value());
    m_samplingSource.clear();
    if (Properties const* sampling = properties.findSubProperties("Sampling")) {
        // Files of the latest schema split and recombine through operations; their prediction
        // never reads this block, which a user moving an old file by hand would not guess.
        if (p_version.value() >= kLatestVersion) {
            std::string const ignored =
                fmt::format("The 'Sampling' block of '{}' has no effect in a file of version {}: split with "
                            "SplitIntoPatches "
                            "in PreProcessing and recombine with RecombinePatches in PostProcessing",
                            m_configPath, p_version.value());
            if (Operation::strict())
                return fail(ignored);
            VELMORIA_LOG_WARNING(kCategory, "{}", ignored);
        }
        m_samplingSource.copyFrom(*sampling);
        if (ConfigResult result = Elevator::configureSampling(*m_sampling, *sampling); !result.ok())
            return fail(result.message.value_or(""));
    }

    if (auto specs = namedProcessingList(properties, "PreProcessing"))
        m_preProcessing = std::move(*specs);
    if (auto specs = namedProcessingList(properties, "PostProcessing"))
        m_postProcessing = std::move(*specs);

    std::size_t const outputCount = engineOutputFields().size();
    std::vector<std::string> texts;
    if (properties.param("PredictionType", texts)) {
        m_predictionTypes.clear();
        for (std::string const& text : texts)
            m_predictionTypes.push_back(stringToPredictionType(text));
    }
    if (!m_predictionTypes.empty() && m_predictionTypes.size() != outputCount)
        return fail(
            fmt::format("Number of 'PredictionType': {} does not match number of engine output fields: {}.",
                        m_predictionTypes.size(), outputCount));

    texts.clear();
    if (properties.param("PredictionOutput", texts)) {
        m_predictionOutputTypes.clear();
        for (std::string const& text : texts)
            m_predictionOutputTypes.push_back(stringToPredictionOutput(text));
    }
    if (m_predictionOutputTypes.empty() ||
        std::ranges::find(m_predictionOutputTypes, PredictionOutput::Unknown) !=
            m_predictionOutputTypes.end())
        return fail("'PredictionOutput' was not specified in the configuration file.");
    if (m_predictionOutputTypes.size() != outputCount)
        return fail(
            fmt::format("Number of 'PredictionOutput': {} does not match number of 'EngineOutputFields': {}.",
                        m_predictionOutputTypes.size(), outputCount));

    std::map<std::string, std::vector<std::string>> labelNames;
    texts.clear();
    if (properties.param("LabelNames", texts)) {
        labelNames[EngineConfiguration::p_defaultOutputName] = texts;
    } else if (Properties const* block = properties.findSubProperties("LabelNames")) {
        for (Properties::Param const& entry : block->params()) {
            std::vector<std::string> names;
            if (block->param(entry.key, names))
                labelNames[entry.key] = std::move(names);
        }
    }
    m_labelNames = std::move(labelNames);
    for (auto const& [field, names] : m_labelNames) {
        if (std::ranges::find(engineOutputFields(), field) == engineOutputFields().end())
            return fail(fmt::format(
                "'LabelNames' keys must be contained in 'EngineOutputFields'. Found '{}' which is not.",
                field));
    }
    for (auto const& [field, names] : m_labelNames) {
        if (names.empty())
            continue;
        VELMORIA_LOG_DEBUG(kCategory, "Adding operation to set label names to field '{}' automatically",
                           field);
        Operation::Specs spec;
        spec.name = kLabelOperation;
        spec.properties.setParam("apply_to", std::vector<std::string>{field});
        spec.properties.setParam("label_names", names);
        spec.phase = Phase::Always;
        m_postProcessing.push_back(std::move(spec));
    }

    m_acknowledgments.clear();
    if (Properties const* block = properties.findSubProperties("Acknowledgments"))
        m_acknowledgments.copyFrom(*block);

    m_status = 0;
    m_errorMessage.reset();
}

void ModelConfiguration::configuration(Properties* properties) const
{
    if (!properties)
        return;
    Configurable::configuration(properties);
    properties->setParam("PredictionType", enumTexts(m_predictionTypes, predictionTypeToString));
    properties->setParam("PredictionOutput", enumTexts(m_predictionOutputTypes, predictionOutputToString));
    if (m_labelNames.size() == 1) {
        properties->setParam("LabelNames", m_labelNames.begin()->second);
    } else if (!m_labelNames.empty()) {
        Properties* block = properties->addSubProperties("LabelNames");
        for (auto const& [field, names] : m_labelNames)
            block->setParam(field, names);
    }
    addProcessingList(*properties, "PreProcessing", m_preProcessing);
    Properties* engine = properties->addSubProperties("Engine");
    m_engineConfig.configuration(engine);
    // The path of the file this was loaded from is set on every load, never read from a file;
    // written, it would make two copies of one model differ by where they lie.
    engine->removeParam("YamlConfigPath");
    addProcessingList(*properties, "PostProcessing", m_postProcessing);
    m_sampling->Configurable::configuration(properties->addSubProperties("Sampling"));
    if (!m_acknowledgments.isEmpty()) {
        Properties* block = properties->addSubProperties("Acknowledgments");
        block->copyFrom(m_acknowledgments);
    }
}

Properties ModelConfiguration::saveTree() const
{
    Properties tree;
    configuration(&tree);
    tree.setParam("Version", std::max(p_version.value(), m_upgradedVersion));
    if (m_upgradedVersion < kLatestVersion) {
        Properties* sampling = tree.subProperties("Sampling", false);
        sampling->clear();
        sampling->copyFrom(m_samplingSource);
    }
    if (Properties* list = tree.subProperties("PostProcessing", false)) {
        for (Properties* operation : list->subProperties(kLabelOperation)) {
            std::vector<std::string> field;
            std::vector<std::string> names;
            operation->param("apply_to", field);
            operation->param("label_names", names);
            auto const entry = field.size() == 1 ? m_labelNames.find(field.front()) : m_labelNames.end();
            // configure adds this one again from "LabelNames".
            if (entry != m_labelNames.end() && entry->second == names)
                list->deleteSubProperty(operation);
        }
    }
    // Empty lists and blocks would be written as bare names, which read back as something else.
    tree.removeEmptySubProperties();
    std::vector<std::string> predictionTypes;
    if (tree.param("PredictionType", predictionTypes) && predictionTypes.empty())
        tree.removeParam("PredictionType");
    return tree;
}

bool ModelConfiguration::save(std::string const& path) const
{
    if (m_status != 0) {
        // A configuration that did not load holds defaults and half-read values, not the model.
        VELMORIA_LOG_ERROR(kCategory,
                           "Could not save ModelConfiguration to output path: {}: it did not load ({})", path,
                           m_errorMessage.value_or("no reason given"));
        return false;
    }
    Filesystem::File const file{Filesystem::Path(path)};
    if (!file.create()) {
        VELMORIA_LOG_ERROR(kCategory, "Could not save ModelConfiguration to output path: {}", path);
        return false;
    }
    Properties tree = saveTree();
    if (m_upgradedVersion < kLatestVersion) {
        tree.setParam(kUpgradeFlag, true);
        Filesystem::TemporaryFile temporary(".yaml");
        if (!temporary.isValid() || !Filesystem::File(temporary.path()).writeText(modelFileText(tree))) {
            VELMORIA_LOG_ERROR(kCategory, "Could not load temporary upgrade configuration file. {}",
                               "the temporary file could not be written");
            return false;
        }
        ModelConfiguration const upgraded(temporary.path().str(), PredictionOutput::Unknown);
        if (upgraded.status() != 0) {
            VELMORIA_LOG_ERROR(kCategory, "Could not load temporary upgrade configuration file. {}",
                               upgraded.errorMessage().value_or(""));
            return false;
        }
        tree = upgraded.saveTree();
    }
    if (!file.writeText(modelFileText(tree))) {
        VELMORIA_LOG_ERROR(kCategory, "Could not save ModelConfiguration to output path: {}", path);
        return false;
    }
    return true;
}

bool ModelConfiguration::compareWith(ModelConfiguration const& other, bool ignoreVersion) const
{
    Properties mine;
    Properties theirs;
    configuration(&mine);
    other.configuration(&theirs);
    for (Properties* tree : {&mine, &theirs}) {
        tree->removeParam(kUpgradeFlag);
        if (ignoreVersion)
            tree->removeParam("Version");
    }
    return mine.compareWith(theirs, 0);
}

bool ModelConfiguration::mustSplitImage() const
{
    bool const image =
        std::ranges::find(m_predictionOutputTypes, PredictionOutput::Image) != m_predictionOutputTypes.end();
    return image && m_sampling->p_maxSizeSubdivision.value().minCoeff() > 0;
}

Properties ModelConfiguration::getSamplingParameters() const
{
    return m_sampling->toSplitImagesAlgorithmProperties();
}

Properties ModelConfiguration::getEngineProperties() const
{
    return m_engineConfig.toProperties();
}

} // namespace Velmoria::ML

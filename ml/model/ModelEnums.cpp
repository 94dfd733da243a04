#include "ml/model/ModelEnums.h"

#include "ml/operations/ParamException.h"

#include "host/core/String.h"

#include <array>
#include <string_view>
#include <utility>

namespace Velmoria::ML {

namespace {

// One table per enumeration: the written name, whose lowered form is the accepted text.
template <class E, std::size_t N>
using NameTable = std::array<std::pair<E, std::string_view>, N>;

constexpr NameTable<ModelType, 2> kModelTypes{{
    {ModelType::RandomForest, "RandomForest"},
    {ModelType::NeuralNetwork, "NeuralNetwork"},
}};

constexpr NameTable<PredictionOutput, 6> kPredictionOutputs{{
    {PredictionOutput::Unknown, "Unknown"},
    {PredictionOutput::Vector, "Vector"},
    {PredictionOutput::Image, "Image"},
    {PredictionOutput::Keypoints, "Keypoints"},
    {PredictionOutput::BoundingBoxes, "BoundingBoxes"},
    {PredictionOutput::Tensor, "Tensor"},
}};

constexpr NameTable<PredictionType, 4> kPredictionTypes{{
    {PredictionType::Unknown, "Unknown"},
    {PredictionType::Classification, "Classification"},
    {PredictionType::Regression, "Regression"},
    {PredictionType::ObjectDetection, "ObjectDetection"},
}};

template <class E, std::size_t N>
std::string toName(NameTable<E, N> const& table, E value, std::string_view fallback)
{
    for (auto const& [entry, name] : table)
        if (entry == value)
            return std::string(name);
    return std::string(fallback);
}

template <class E, std::size_t N>
E fromName(NameTable<E, N> const& table, std::string const& text, std::string_view what)
{
    std::string const lowered = String::toLowerCopy(text);
    std::string supported;
    for (auto const& [entry, name] : table) {
        if (String::toLowerCopy(std::string(name)) == lowered)
            return entry;
        supported += (supported.empty() ? "'" : ", '") + std::string(name) + "'";
    }
    throw ParamException("Unknown " + std::string(what) + " '" + text + "', supported are [" + supported +
                         "]");
}

} // namespace

std::string modelTypeToString(ModelType type)
{
    return toName(kModelTypes, type, "unknown");
}

ModelType stringToModelType(std::string const& text)
{
    return fromName(kModelTypes, text, "model type");
}

std::string predictionOutputToString(PredictionOutput output)
{
    return toName(kPredictionOutputs, output, "Unknown");
}

PredictionOutput stringToPredictionOutput(std::string const& text)
{
    return fromName(kPredictionOutputs, text, "prediction output");
}

std::string predictionTypeToString(PredictionType type)
{
    return toName(kPredictionTypes, type, "Unknown");
}

PredictionType stringToPredictionType(std::string const& text)
{
    return fromName(kPredictionTypes, text, "prediction type");
}

} // namespace Velmoria::ML

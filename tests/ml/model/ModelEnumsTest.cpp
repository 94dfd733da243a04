// The names of the model enumerations as written in model files: every value reads back from its
// name in any case, out-of-range values are written as unknown, and a bad name is refused with
// the raw text and the accepted names.

#include "ml/model/ModelEnums.h"

#include "ml/operations/ParamException.h"
#include "tests/ml/TestHelpers.h"

#include "host/core/String.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

using namespace Velmoria::ML;
using Velmoria::MLTest::expectThrowWithMessage;
using Velmoria::String::toLowerCopy;
using Velmoria::String::toUpperCopy;

namespace {

template <class Enum>
void expectRoundTrips(std::vector<std::pair<Enum, std::string>> const& names, std::string (*toText)(Enum),
                      Enum (*fromText)(std::string const&))
{
    for (auto const& [value, name] : names) {
        SCOPED_TRACE(name);
        EXPECT_EQ(toText(value), name);
        EXPECT_EQ(fromText(name), value);
        EXPECT_EQ(fromText(toLowerCopy(name)), value);
        EXPECT_EQ(fromText(toUpperCopy(name)), value);
    }
}

TEST(ModelEnums, NamesRoundTripInAnyCase)
{
    expectRoundTrips<ModelType>(
        {{ModelType::RandomForest, "RandomForest"}, {ModelType::NeuralNetwork, "NeuralNetwork"}},
        modelTypeToString, stringToModelType);
    expectRoundTrips<PredictionOutput>({{PredictionOutput::Unknown, "Unknown"},
                                        {PredictionOutput::Vector, "Vector"},
                                        {PredictionOutput::Image, "Image"},
                                        {PredictionOutput::Keypoints, "Keypoints"},
                                        {PredictionOutput::BoundingBoxes, "BoundingBoxes"},
                                        {PredictionOutput::Tensor, "Tensor"}},
                                       predictionOutputToString, stringToPredictionOutput);
    expectRoundTrips<PredictionType>({{PredictionType::Unknown, "Unknown"},
                                      {PredictionType::Classification, "Classification"},
                                      {PredictionType::Regression, "Regression"},
                                      {PredictionType::ObjectDetection, "ObjectDetection"}},
                                     predictionTypeToString, stringToPredictionType);

    EXPECT_EQ(modelTypeToString(static_cast<ModelType>(7)), "unknown");
    EXPECT_EQ(predictionOutputToString(static_cast<PredictionOutput>(9)), "Unknown");
    EXPECT_EQ(predictionTypeToString(static_cast<PredictionType>(-5)), "Unknown");
}

TEST(ModelEnums, BadNamesThrowQuotingTheRawText)
{
    std::string const types = "supported are ['RandomForest', 'NeuralNetwork']";
    std::string const predictionTypes =
        "supported are ['Unknown', 'Classification', 'Regression', 'ObjectDetection']";
    std::pair<std::function<void()>, std::string> const cases[] = {
        {[] { stringToModelType("SVM"); }, "Unknown model type 'SVM', " + types},
        // "unknown" is no model type, although other values are written as "unknown".
        {[] { stringToModelType("unknown"); }, "Unknown model type 'unknown', " + types},
        {[] { stringToPredictionOutput("Mesh"); },
         "Unknown prediction output 'Mesh', supported are ['Unknown', 'Vector', 'Image', 'Keypoints', "
         "'BoundingBoxes', 'Tensor']"},
        {[] { stringToPredictionType("Segmentation "); },
         "Unknown prediction type 'Segmentation ', " + predictionTypes},
        {[] { stringToPredictionType(""); }, "Unknown prediction type '', " + predictionTypes},
    };
    for (auto const& [convert, message] : cases) {
        SCOPED_TRACE(message);
        expectThrowWithMessage<ParamException>(convert, message);
    }
}

} // namespace

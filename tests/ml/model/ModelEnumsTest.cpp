#include "ml/model/ModelEnums.h"

#include "ml/operations/ParamException.h"
#include "tests/ml/TestHelpers.h"

#include "host/core/String.h"

#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <string>
#include <vector>

using namespace Velmoria::ML;
using Velmoria::MLTest::expectThrowWithMessage;

namespace {

// One row per enumeration: its value and written name, and the converters as ints so that the
// three enumerations share one parametrised family.
struct EnumCase
{
    std::string family;
    int value;
    std::string name;
    std::function<std::string(int)> toText;
    std::function<int(std::string const&)> fromText;
};

EnumCase modelType(ModelType v, std::string name)
{
    return {"ModelType", static_cast<int>(v), std::move(name),
            [](int i) { return modelTypeToString(static_cast<ModelType>(i)); },
            [](std::string const& t) { return static_cast<int>(stringToModelType(t)); }};
}
EnumCase output(PredictionOutput v, std::string name)
{
    return {"PredictionOutput", static_cast<int>(v), std::move(name),
            [](int i) { return predictionOutputToString(static_cast<PredictionOutput>(i)); },
            [](std::string const& t) { return static_cast<int>(stringToPredictionOutput(t)); }};
}
EnumCase type(PredictionType v, std::string name)
{
    return {"PredictionType", static_cast<int>(v), std::move(name),
            [](int i) { return predictionTypeToString(static_cast<PredictionType>(i)); },
            [](std::string const& t) { return static_cast<int>(stringToPredictionType(t)); }};
}

class EnumRoundTrip : public testing::TestWithParam<EnumCase>
{};

TEST_P(EnumRoundTrip, WritesItsNameAndReadsItBackInAnyCase)
{
    EnumCase const& c = GetParam();
    EXPECT_EQ(c.toText(c.value), c.name);
    EXPECT_EQ(c.fromText(c.name), c.value);
    EXPECT_EQ(c.fromText(Velmoria::String::toLowerCopy(c.name)), c.value);
    std::string upper = c.name;
    for (char& ch : upper)
        ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    EXPECT_EQ(c.fromText(upper), c.value);
}

INSTANTIATE_TEST_SUITE_P(
    All, EnumRoundTrip,
    testing::Values(modelType(ModelType::RandomForest, "RandomForest"),
                    modelType(ModelType::NeuralNetwork, "NeuralNetwork"),
                    output(PredictionOutput::Unknown, "Unknown"), output(PredictionOutput::Vector, "Vector"),
                    output(PredictionOutput::Image, "Image"),
                    output(PredictionOutput::Keypoints, "Keypoints"),
                    output(PredictionOutput::BoundingBoxes, "BoundingBoxes"),
                    output(PredictionOutput::Tensor, "Tensor"), type(PredictionType::Unknown, "Unknown"),
                    type(PredictionType::Classification, "Classification"),
                    type(PredictionType::Regression, "Regression"),
                    type(PredictionType::ObjectDetection, "ObjectDetection")),
    [](testing::TestParamInfo<EnumCase> const& info) { return info.param.family + "_" + info.param.name; });

TEST(EnumValues, AreTheFileFormatNumbers)
{
    EXPECT_EQ(static_cast<int>(ModelType::NeuralNetwork), 1);
    EXPECT_EQ(static_cast<int>(PredictionOutput::Unknown), -1);
    EXPECT_EQ(static_cast<int>(PredictionOutput::Tensor), 4);
    EXPECT_EQ(static_cast<int>(PredictionType::ObjectDetection), 2);
}

TEST(EnumValues, OutOfRangeValuesAreWrittenAsUnknown)
{
    EXPECT_EQ(modelTypeToString(static_cast<ModelType>(7)), "unknown");
    EXPECT_EQ(predictionOutputToString(static_cast<PredictionOutput>(9)), "Unknown");
    EXPECT_EQ(predictionTypeToString(static_cast<PredictionType>(-5)), "Unknown");
}

struct RejectCase
{
    std::string label;
    std::function<void()> convert;
    std::string message;
};

class EnumRejects : public testing::TestWithParam<RejectCase>
{};

TEST_P(EnumRejects, ThrowsParamExceptionQuotingTheRawText)
{
    expectThrowWithMessage<ParamException>(GetParam().convert, GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    All, EnumRejects,
    testing::Values(
        RejectCase{"ModelType", [] { stringToModelType("SVM"); },
                   "Unknown model type 'SVM', supported are ['RandomForest', 'NeuralNetwork']"},
        // "unknown" is no model type, although other values are written as "unknown".
        RejectCase{"ModelTypeUnknown", [] { stringToModelType("unknown"); },
                   "Unknown model type 'unknown', supported are ['RandomForest', 'NeuralNetwork']"},
        RejectCase{"PredictionOutput", [] { stringToPredictionOutput("Mesh"); },
                   "Unknown prediction output 'Mesh', supported are ['Unknown', 'Vector', 'Image', "
                   "'Keypoints', 'BoundingBoxes', 'Tensor']"},
        RejectCase{"PredictionType", [] { stringToPredictionType("Segmentation "); },
                   "Unknown prediction type 'Segmentation ', supported are ['Unknown', 'Classification', "
                   "'Regression', 'ObjectDetection']"},
        RejectCase{"Empty", [] { stringToPredictionType(""); },
                   "Unknown prediction type '', supported are ['Unknown', 'Classification', 'Regression', "
                   "'ObjectDetection']"}),
    [](testing::TestParamInfo<RejectCase> const& info) { return info.param.label; });

} // namespace

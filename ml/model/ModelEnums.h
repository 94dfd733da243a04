#pragma once

// The enumerations of model files: what kind of model a file describes (ModelType), what each
// engine output means (PredictionType) and which data element each engine output becomes
// (PredictionOutput), with their text forms.
//
// The numeric values are part of the file format (a file may hold the integer), so they never
// change:
//
//   ModelType          0 RandomForest, 1 NeuralNetwork
//   PredictionOutput  -1 Unknown, 0 Vector, 1 Image, 2 Keypoints, 3 BoundingBoxes, 4 Tensor
//   PredictionType    -1 Unknown, 0 Classification, 1 Regression, 2 ObjectDetection
//
// The ...ToString functions write the names above; a value outside the list is written as
// "unknown" (ModelType) or "Unknown" (the other two, whose Unknown is a real value). The
// stringTo... functions lower the text and accept the names in any case; anything else throws
// ParamException with a text that quotes the raw input and lists the accepted names, e.g.
//   "Unknown model type 'svm', supported are ['RandomForest', 'NeuralNetwork']".

#include <string>

namespace Velmoria::ML {

enum class ModelType : int
{
    RandomForest = 0,
    NeuralNetwork = 1,
};

enum class PredictionOutput : int
{
    Unknown = -1,
    Vector = 0,
    Image = 1,
    Keypoints = 2,
    BoundingBoxes = 3,
    Tensor = 4,
};

enum class PredictionType : int
{
    Unknown = -1,
    Classification = 0,
    Regression = 1,
    ObjectDetection = 2,
};

std::string modelTypeToString(ModelType type);
ModelType stringToModelType(std::string const& text);

std::string predictionOutputToString(PredictionOutput output);
PredictionOutput stringToPredictionOutput(std::string const& text);

std::string predictionTypeToString(PredictionType type);
PredictionType stringToPredictionType(std::string const& text);

} // namespace Velmoria::ML

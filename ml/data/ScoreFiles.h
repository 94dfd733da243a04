#pragma once

// Score vectors as text files that people, spreadsheets and scripts read: a classifier's output
// (a VectorElement, one 1x1x1 frame per sample, one channel per class) written as
//
//   .json   {"Frontal": 0.93, "Lateral": 0.07}             one sample: an object
//           [{"Frontal": 0.93, ...}, {"Frontal": 0.12, ...}]  several: an array of objects
//   .csv    Frontal,Lateral                                 a header row, one row per sample
//           0.93,0.07
//
// The keys are the class names of the set's LabelDataComponent (channel c is named by label
// value c, as "LabelNames" of a model file sets them); a channel without a name is keyed by its
// index ("0", "1", ...). Values are written with the shortest text that reads back to the same
// double. The file is replaced atomically: a failed write leaves the old file as it was.

#include <string>
#include <string_view>

namespace Velmoria {
class SharedImageSet;
}

namespace Velmoria::ML::ScoreFiles {

// True when `path` ends in .json or .csv (any case).
bool isScoreFile(std::string_view path);

// Writes `vectors`, whose frames must be 1x1x1, to `path` in the format its extension names.
// False, with an error in "ML.ScoreFiles" naming the file and the reason, when the set is empty,
// a frame is not 1x1x1, frames disagree on the number of classes, or the file cannot be written.
bool write(SharedImageSet const& vectors, std::string const& path);

} // namespace Velmoria::ML::ScoreFiles

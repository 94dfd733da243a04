#pragma once

// Moving image files in and out of a DataItem for the commands that run on one item: each
// "[FIELD=]FILE" argument (FieldArguments.h) is one image file read into, or written from, one
// field. Failures are logged naming the file and the field, and reported as false.

#include "apps/velmoria/FieldArguments.h"
#include "ml/data/DataItem.h"

#include <vector>

namespace Velmoria::Cli {

enum class FieldRole
{
    Input,
    // Ground truth: the set gets the label-map modality and its element the target tag, so that
    // operations treat it as labels (nearest-neighbour resampling, no intensity changes).
    Target,
};

// Checked before any work is done, so that a run does not fail at its end: every output file's
// folder exists and is writable, no two outputs name the same file, and no output replaces an
// input file unless `overwrite` is set. False (logged, naming the file and the reason) else.
bool checkOutputFiles(std::vector<FieldArgument> const& outputs,
                      std::vector<std::vector<FieldArgument>> const& inputLists, bool overwrite);

// Every image set of `item` gets a reference to a copy of the field's set as it is now, so that
// ResampleToInput (and other ways back) can return to the input's grid after the processing.
void setInputAsReference(ML::DataItem& item, std::string const& field);

bool readFields(std::vector<FieldArgument> const& arguments, FieldRole role, ML::DataItem& item);

// Every field must hold an image-based element (an image or a vector batch). A vector field
// (classifier scores) may also go to a .json or .csv file, keyed by its class names
// (ml/data/ScoreFiles.h).
bool writeFields(std::vector<FieldArgument> const& arguments, ML::DataItem const& item);

} // namespace Velmoria::Cli

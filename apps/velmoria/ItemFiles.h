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

bool readFields(std::vector<FieldArgument> const& arguments, FieldRole role, ML::DataItem& item);

// Every field must hold an image-based element (an image or a vector batch).
bool writeFields(std::vector<FieldArgument> const& arguments, ML::DataItem const& item);

} // namespace Velmoria::Cli

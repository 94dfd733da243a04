#pragma once

// How the geometry records of padding and patches (PaddingDoneDataComponent,
// PatchesFromImageDataComponent) write an ImageDescriptorWorld into a Properties tree: the
// descriptor's keys in an unnamed sub-tree (the name a default-constructed tree has) and the
// parameter "matrixToWorld" beside it. Both components share this form, so reader and writer live
// here once.

#include "host/core/Properties.h"
#include "host/image/ImageDescriptorWorld.h"

#include <string>

namespace Velmoria::ML {

// Appends the descriptor sub-tree and sets "matrixToWorld" on `tree`.
void writeDescriptorWorld(ImageDescriptorWorld const& descriptorWorld, Properties& tree);

// Reads what writeDescriptorWorld wrote. On a missing or unreadable part logs an error in
// `category` that names `what` (e.g. "originalDescriptorWorld 2 of PaddingDoneInfo 1") and the
// part, and returns false with `out` untouched.
bool readDescriptorWorld(Properties const& tree, ImageDescriptorWorld& out, std::string const& category,
                         std::string const& what);

} // namespace Velmoria::ML

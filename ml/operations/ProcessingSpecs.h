#pragma once

// The list form of Operation::Specs: how a processing list in a Properties tree (read from YAML
// or XML) becomes the specs of the operations to create, and back.
//
// A processing list is a tree without a name whose sub-trees are the operations: each sub-tree's
// name is the operation's registered type name, its parameters are the configuration, and its
// parameter "phase" tells the phases in which it runs ("training", "Training Validation", a
// YAML list of words ...; see Phase.h), Always when missing. The "phase" key stays in the
// configuration, and Operation::configure accepts it without a warning.
//
// A single named tree is one operation, and there "phase" is not consulted (it runs Always): a
// phase only means something for an item of a list, which is where sequences read it.

#include "ml/operations/Operation.h"

#include "host/core/Properties.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velmoria::ML {

// One spec per tree, in order. Throws ParamException for an unknown phase word, naming the
// operation. Null entries are skipped with an error line.
std::vector<Operation::Specs> propertyListToProcessingSpecs(std::vector<Properties*> const& list);
std::vector<Operation::Specs> propertyListToProcessingSpecs(std::vector<Properties const*> const& list);

// A named tree: the one spec of that name (phase Always). A tree without a name: the list of its
// sub-trees, as above.
std::vector<Operation::Specs> propertyToProcessingSpecs(Properties const& properties);

// The processing list under `key` of `tree` (a model's "PreProcessing", a section of a processing
// file), in either form YAML gives it: a sequence of operations (sub-trees), or the short form of
// bare operation names ("- MakeFloat", or one name as a scalar), which YAML reads as a value list
// and which would otherwise be lost without a word. Each bare name is an operation with its
// defaults, run Always. nullopt when `tree` has no such key.
std::optional<std::vector<Operation::Specs>> namedProcessingList(Properties const& tree,
                                                                 std::string const& key);

// One tree per spec, named after it: its configuration plus "phase" (phaseToString).
std::vector<std::unique_ptr<Properties>>
processingSpecsToPropertyList(std::vector<Operation::Specs> const& specs);

} // namespace Velmoria::ML

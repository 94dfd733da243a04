#pragma once

// PropertiesYAML: the YAML form of a Properties tree, the format of every processing list and
// model configuration file.
//
// Reading maps YAML onto the tree like this:
//   - a sequence: every element becomes an unnamed sub-tree, named by its first key;
//   - a scalar: names the tree it lands in ("- Foo" is an operation without parameters);
//   - a map of one entry whose value is a map (or holds one): the key names the tree, or opens
//     a sub-tree of that name when the tree has a name already;
//   - any other map: each entry is a parameter, except that values that are maps open
//     sub-trees, null values store nothing, and, in a list item, the first key also names the
//     item. So these three list items are the same operation "Foo" with parameter a = 1:
//         - Foo: {a: 1}          - {Foo: ~, a: 1}          - Foo:
//                                                              a: 1
//     ("- Foo" alone is "Foo" without parameters; "- Foo: 3" is "Foo" with a parameter Foo = 3.)
//   - the key "__subProps__" never opens a sub-tree of its own: the items of its sequence go
//     into the current tree as unnamed sub-trees.
//   - a sequence value whose every scalar holds only numbers becomes one text: "1 2 3", or,
//     when its first element is a sequence, the matrix form "[1 2, 3 4]" that Properties reads
//     as a vector or a matrix. Other sequences become list values, flattened in order
//     (`[a, 1]` is the list {"a", "1"}). A sequence that mixes block and flow styles, or holds
//     maps, counts as sub-trees instead.
//
// Writing (saveToString) indents by four blanks per level: a named tree writes "Name:" and its
// contents one level deeper ("Name" alone when it has nothing to write); each parameter is
// "key: value" (an empty value as "", a list as "[a, b]", a matrix as "[[1, 0], [0, 1]]");
// sub-trees follow under "__subProps__:" as list items whose "- " takes the last two blanks of
// their indentation, so every key still starts on a multiple of four:
//
//   __subProps__:
//     - Resample:
//           resolution: 1 1 1
//     - Normalize
//
// Hidden parameters and labels are not written; a value that YAML would misread is quoted.
// Reading the written text gives the same tree, except that an unnamed tree with parameters
// comes back named by its first key, and a list whose items are all numbers comes back as one
// text.
//
// Nothing here throws: failures log an error in category "ML.PropertiesYAML" and return null
// (or false).

#include "host/core/Properties.h"

#include <memory>
#include <string>

namespace YAML {
class Node;
}

namespace Velmoria::ML {

class PropertiesYAML
{
public:
    // The key whose sequence holds the unnamed sub-trees of the current tree.
    static constexpr char const* SubPropertiesKey = "__subProps__";
    static constexpr int IndentWidth = 4;

    // Null (logged with the parser's message, line and column) when the text is not YAML.
    static std::unique_ptr<Properties> createFromString(std::string const& text);
    // Null (logged, naming the path) when the file is missing, unreadable or not YAML.
    static std::unique_ptr<Properties> createFromFile(std::string const& path);
    // A resource of Velmoria::Resource. With `reportMissing` false, a resource that no
    // repository holds gives null without any log line, for callers that only probe.
    static std::unique_ptr<Properties> createFromResource(std::string const& name, bool reportMissing = true);
    // An absolute path is a file, anything else a resource name.
    static std::unique_ptr<Properties> createFromResourceOrFile(std::string const& path);
    // Null (logged) for an undefined node, and when a part of the node cannot be mapped (a key
    // that is not a scalar): a tree without the keys after the failing one would be silently
    // wrong.
    static std::unique_ptr<Properties> createFromNode(YAML::Node const& node);

    static std::string saveToString(Properties const& properties);
    // Replaces the file atomically; false (logged by the file layer) on failure.
    static bool saveToFile(Properties const& properties, std::string const& path);
};

} // namespace Velmoria::ML

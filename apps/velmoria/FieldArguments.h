#pragma once

// "[FIELD=]FILE" command-line arguments: which data-item field a file is read into or written
// from. The commands give the field explicitly ("label=seg.nii.gz") or leave it to a default
// that depends on the command (the model's input fields in order, "image", ...).
//
// The text is cut at its first '=' only when the part before it could be a field name (not
// empty, no '/'), so that "out/a=b.nii" stays a file name. A field may not be given twice:
// two files for one field would silently overwrite each other.

#include <optional>
#include <string>
#include <vector>

namespace Velmoria::Cli {

struct FieldArgument
{
    std::string field; // empty until a default is assigned
    std::string file;
};

// Null (logged, naming the argument and the option) for an empty file part.
std::optional<FieldArgument> parseFieldArgument(std::string const& text, std::string const& option);

// Parses every argument and gives each one without a field the next of `defaults` that no
// argument names explicitly. Null (logged, naming the file or field) for a parse failure, a file
// left without a field or a field given twice.
std::optional<std::vector<FieldArgument>> resolveFieldArguments(std::vector<std::string> const& texts,
                                                                std::string const& option,
                                                                std::vector<std::string> const& defaults);

} // namespace Velmoria::Cli

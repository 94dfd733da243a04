#include "apps/velmoria/FieldArguments.h"

#include "host/core/Log.h"

#include <algorithm>
#include <set>

namespace Velmoria::Cli {

std::optional<FieldArgument> parseFieldArgument(std::string const& text, std::string const& option)
{
    FieldArgument argument{{}, text};
    auto const equals = text.find('=');
    if (equals != std::string::npos && equals > 0 && text.find('/') > equals) {
        argument.field = text.substr(0, equals);
        argument.file = text.substr(equals + 1);
    }
    if (argument.file.empty()) {
        VELMORIA_LOG_ERROR("Cli.Arguments", "Argument '{}' of {} names no file", text, option);
        return std::nullopt;
    }
    return argument;
}

std::optional<std::vector<FieldArgument>> resolveFieldArguments(std::vector<std::string> const& texts,
                                                                std::string const& option,
                                                                std::vector<std::string> const& defaults)
{
    std::vector<FieldArgument> arguments;
    std::set<std::string> named;
    for (auto const& text : texts) {
        auto argument = parseFieldArgument(text, option);
        if (!argument)
            return std::nullopt;
        if (!argument->field.empty())
            named.insert(argument->field);
        arguments.push_back(std::move(*argument));
    }

    // Defaults already named explicitly are skipped: "--input b=x.nii y.nii" puts y.nii in the
    // first default other than b.
    std::vector<std::string> free;
    std::copy_if(defaults.begin(), defaults.end(), std::back_inserter(free),
                 [&](std::string const& field) { return !named.contains(field); });
    std::size_t next = 0;
    std::set<std::string> used;
    for (auto& argument : arguments) {
        if (argument.field.empty()) {
            if (next >= free.size()) {
                VELMORIA_LOG_ERROR(
                    "Cli.Arguments",
                    "File '{}' of {} has no field: give it as FIELD={} (fields left by default: {})",
                    argument.file, option, argument.file, free.size());
                return std::nullopt;
            }
            argument.field = free[next++];
        }
        if (!used.insert(argument.field).second) {
            VELMORIA_LOG_ERROR("Cli.Arguments", "Field '{}' is given more than once in {} (file '{}')",
                               argument.field, option, argument.file);
            return std::nullopt;
        }
    }
    return arguments;
}

} // namespace Velmoria::Cli

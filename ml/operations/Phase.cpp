#include "ml/operations/Phase.h"

#include "ml/operations/ParamException.h"

#include "host/core/String.h"

namespace Velmoria::ML {

namespace detail {

Phase singleStringToPhase(std::string const& text)
{
    std::string const lower = String::toLowerCopy(text);
    if (lower == "train" || lower == "training")
        return Phase::Training;
    if (lower == "validation")
        return Phase::Validation;
    if (lower == "inference" || lower == "test")
        return Phase::Inference;
    if (lower == "always")
        return Phase::Always;
    throw ParamException("Unknown phase '" + text +
                         "', supported are ['training', 'validation', 'inference', 'always']");
}

Phase multiStringToPhase(std::vector<std::string> const& texts)
{
    Phase result = static_cast<Phase>(0);
    for (std::string const& text : texts)
        result |= singleStringToPhase(text);
    return result;
}

} // namespace detail

Phase stringToPhase(std::string const& text)
{
    // String::trim knows blanks, tabs and line breaks only; phases written by hand in YAML may
    // also carry form feeds or vertical tabs, so the set is spelled out here.
    constexpr char const* kSpace = " \t\f\v\r\n";
    std::string lower = String::toLowerCopy(text);
    std::size_t const first = lower.find_first_not_of(kSpace);
    if (first == std::string::npos) {
        lower.clear();
    } else {
        std::size_t const last = lower.find_last_not_of(kSpace);
        lower = lower.substr(first, last - first + 1);
    }
    std::erase(lower, '"');

    std::vector<std::string> const pieces = String::split(lower, ' ');
    if (pieces.size() > 1)
        return detail::multiStringToPhase(pieces);
    return detail::singleStringToPhase(pieces.empty() ? std::string() : pieces.front());
}

std::string phaseToString(Phase phase)
{
    auto const bits = static_cast<std::uint32_t>(phase) & static_cast<std::uint32_t>(Phase::Always);
    if (bits == static_cast<std::uint32_t>(Phase::Always))
        return "Always";
    std::string out;
    auto append = [&](Phase part, char const* name) {
        if ((bits & static_cast<std::uint32_t>(part)) == 0)
            return;
        if (!out.empty())
            out += ' ';
        out += name;
    };
    append(Phase::Training, "Training");
    append(Phase::Validation, "Validation");
    append(Phase::Inference, "Inference");
    return out;
}

} // namespace Velmoria::ML

#pragma once

// Phase: the stages of a model's life in which a step (an operation, a loader stage) runs.
//
// A 32-bit mask whose values are part of the configuration format (integers may stand in a
// Properties tree): Training 1, Validation 2, Inference 4, Always 7. Phases combine with |;
// `includesPhase(mask, phase)` asks whether a step configured with `mask` runs in `phase`.
//
// Text forms:
//   phaseToString  "Always" for all three bits, "Training" / "Validation" / "Inference" for
//                  one, and two names in that order joined by one blank ("Training Validation")
//                  for two. No bit set gives the empty text. Bits above the third are ignored.
//   stringToPhase  reads all of the above back: it lower-cases, trims blanks, tabs, form feeds,
//                  vertical tabs and line breaks at both ends, drops every double quote (YAML
//                  writers may quote a text holding a blank), and splits at single blanks.
//                  Accepted words: "train"/"training", "validation", "inference"/"test",
//                  "always". Anything else throws ParamException "Unknown phase '<word>',
//                  supported are ['training', 'validation', 'inference', 'always']".

#include <cstdint>
#include <string>
#include <vector>

namespace Velmoria::ML {

enum class Phase : std::uint32_t
{
    Training = 1,
    Validation = 2,
    Inference = 4,
    Always = 7,
};

constexpr Phase operator|(Phase a, Phase b)
{
    return static_cast<Phase>(static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b));
}
constexpr Phase operator&(Phase a, Phase b)
{
    return static_cast<Phase>(static_cast<std::uint32_t>(a) & static_cast<std::uint32_t>(b));
}
constexpr Phase& operator|=(Phase& a, Phase b)
{
    a = a | b;
    return a;
}
constexpr Phase& operator&=(Phase& a, Phase b)
{
    a = a & b;
    return a;
}

// True when `mask` shares a bit with `phase`: a step of mask "Training Validation" runs during
// validation.
constexpr bool includesPhase(Phase mask, Phase phase)
{
    return (static_cast<std::uint32_t>(mask) & static_cast<std::uint32_t>(phase)) != 0;
}

// Throws ParamException for an unknown word (see the file comment).
Phase stringToPhase(std::string const& text);
std::string phaseToString(Phase phase);

namespace detail {
// One word, lower-cased here; throws ParamException for an unknown word.
Phase singleStringToPhase(std::string const& text);
// The OR of the words (each read by singleStringToPhase); an empty list gives no bit.
Phase multiStringToPhase(std::vector<std::string> const& texts);
} // namespace detail

} // namespace Velmoria::ML

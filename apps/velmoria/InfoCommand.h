#pragma once

// `velmoria info [KIND]`: lists what the loaded plug-ins registered. Without KIND, every kind
// of InfoKinds.h in turn; each kind prints a heading with the count, then one entry per line,
// indented by two blanks and sorted:
//
//   Operations (2):
//     Crop
//     Pad
//
// Kinds are separated by an empty line. An empty kind prints its heading with "(0)" only.

#include "apps/velmoria/InfoKinds.h"

#include <CLI/App.hpp>

#include <ostream>
#include <string>

namespace Velmoria::Cli {

class InfoCommand
{
public:
    explicit InfoCommand(CLI::App& app);

    // True when the command line chose this command.
    bool selected() const;
    int run(PluginManager const& plugins, std::ostream& out) const;

private:
    CLI::App* m_command = nullptr;
    std::string m_kind;
};

} // namespace Velmoria::Cli

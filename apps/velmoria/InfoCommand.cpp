#include "apps/velmoria/InfoCommand.h"

#include "apps/velmoria/ExitCode.h"

#include "host/core/String.h"

#include <CLI/Validators.hpp>

namespace Velmoria::Cli {

namespace {

void print(InfoKind const& kind, PluginManager const& plugins, std::ostream& out)
{
    auto const entries = kind.list(plugins);
    out << kind.heading << " (" << entries.size() << "):\n";
    for (auto const& entry : entries)
        out << "  " << entry << '\n';
}

} // namespace

InfoCommand::InfoCommand(CLI::App& app)
{
    std::vector<std::string> names;
    for (auto const& kind : infoKinds())
        names.push_back(kind.name);
    m_command = app.add_subcommand("info", "List what the loaded plug-ins offer");
    // Global options may follow the command: "velmoria info --plugin-dir DIR".
    m_command->fallthrough();
    m_command->add_option("kind", m_kind, "What to list: " + String::join(names, ", ") + " (default: all)")
        ->check(CLI::IsMember(names));
}

bool InfoCommand::selected() const
{
    return m_command->parsed();
}

int InfoCommand::run(PluginManager const& plugins, std::ostream& out) const
{
    bool first = true;
    for (auto const& kind : infoKinds()) {
        if (!m_kind.empty() && kind.name != m_kind)
            continue;
        if (!first)
            out << '\n';
        print(kind, plugins, out);
        first = false;
    }
    return out ? Success : Failure;
}

} // namespace Velmoria::Cli

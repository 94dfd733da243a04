#pragma once

// The exit codes of the velmoria command, the same for every command so that scripts can tell
// a failed run from a mistyped command line.

namespace Velmoria::Cli {

enum ExitCode : int
{
    Success = 0,
    // The command ran and failed, or the plug-ins it needs could not be loaded.
    Failure = 1,
    // The command line itself is wrong (unknown option, bad value, missing command).
    Usage = 2,
};

} // namespace Velmoria::Cli

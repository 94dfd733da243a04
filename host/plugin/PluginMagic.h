#pragma once

// PluginMagic: the text that marks a shared library as a Velmoria plug-in, and the tools to find
// and read it without loading the library.
//
// A plug-in carries, in its read-only data, one text of the form
//
//   __VELMORIA_PLUGIN_V2_MAGIC_STRING__|hostversion=4.4.6|buildflags=...|pluginversion=
//
// a fixed marker followed by "|key=value" fields: the host interface version the plug-in was
// built against, its build flags, and its own version (may be empty). Unknown keys are kept, so
// that newer plug-ins can add fields. The host reads the text straight from the file's bytes
// (findInFile) before it dlopens anything: loading runs the library's static initialisers, and
// the host must not run code of a library that is not a plug-in or was built for another host.
//
// Only the marker followed by "|" counts: the bare marker also stands in the host library itself
// (this header's constant), which must not look like a plug-in.
//
// Compatibility: a plug-in is accepted when the major number of its hostversion equals the
// major number of kHostVersion, the interface this host implements. Build flags are reported,
// not compared: they are informative for people reading a failure.
//
// A plug-in library defines its text with VELMORIA_DEFINE_PLUGIN_MAGIC(buildFlags, version) at
// namespace scope in one of its source files.

#include "host/core/Filesystem.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#define VELMORIA_PLUGIN_MAGIC_MARKER "__VELMORIA_PLUGIN_V2_MAGIC_STRING__"
#define VELMORIA_PLUGIN_HOST_VERSION "4.4.6"

// The whole text as a string literal.
#define VELMORIA_PLUGIN_MAGIC_STRING(buildFlags, pluginVersion)                                              \
    VELMORIA_PLUGIN_MAGIC_MARKER "|hostversion=" VELMORIA_PLUGIN_HOST_VERSION "|buildflags=" buildFlags      \
                                 "|pluginversion=" pluginVersion

// A file-local array: the loader finds the text in the file's bytes, so it needs no dynamic
// symbol, and a local one keeps plug-ins loaded side by side from defining the same global
// (which AddressSanitizer reports as an ODR violation). `used` keeps the unreferenced array in
// the object file; nothing in our links discards unreferenced sections.
#define VELMORIA_DEFINE_PLUGIN_MAGIC(buildFlags, pluginVersion)                                              \
    __attribute__((used)) static char const velmoriaPluginMagic[] =                                          \
        VELMORIA_PLUGIN_MAGIC_STRING(buildFlags, pluginVersion);

namespace Velmoria::PluginMagic {

inline constexpr std::string_view kMarker = VELMORIA_PLUGIN_MAGIC_MARKER;
inline constexpr std::string_view kHostVersion = VELMORIA_PLUGIN_HOST_VERSION;
// Longest text accepted after the marker; a longer one is refused as unterminated.
inline constexpr std::size_t kMaxFieldsLength = 4096;

struct Fields
{
    // In the order of the text.
    std::vector<std::pair<std::string, std::string>> entries;

    // The value of the first field called `key`, or nullopt.
    std::optional<std::string> value(std::string_view key) const;
    std::string hostVersion() const { return value("hostversion").value_or(""); }
    std::string buildFlags() const { return value("buildflags").value_or(""); }
    std::string pluginVersion() const { return value("pluginversion").value_or(""); }
};

struct ParseResult
{
    std::optional<Fields> fields;
    // Why parsing failed; empty on success.
    std::string error;
    bool ok() const { return fields.has_value(); }
};

// Reads a whole magic text (marker included). Fails when the marker is missing, a field has no
// "=" or an empty key, or there is no hostversion field. Logs nothing: the caller knows which
// file the text came from and says so.
ParseResult parse(std::string_view text);

// True when a plug-in built against `pluginHostVersion` can run in this host (same major
// number). `why` receives the reason when it cannot.
bool isCompatibleHostVersion(std::string_view pluginHostVersion, std::string* why = nullptr);

struct ScanResult
{
    enum class Status
    {
        Found,
        NotFound,
        // The file could not be opened or read.
        Unreadable,
        // The marker is there but not its NUL-terminated end within kMaxFieldsLength bytes.
        Unterminated,
    };
    Status status = Status::NotFound;
    // The whole text, marker included, when found.
    std::string text;
    // The system's reason when unreadable.
    std::string error;
};

// Looks for the magic text in the bytes of `file`, in chunks (plug-ins with debug information
// are large), without loading or executing anything. Logs nothing; see parse().
ScanResult findInFile(Filesystem::Path const& file);

} // namespace Velmoria::PluginMagic

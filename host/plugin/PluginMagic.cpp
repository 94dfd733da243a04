#include "host/plugin/PluginMagic.h"

#include "host/core/String.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <functional>

namespace Velmoria::PluginMagic {

namespace {

constexpr std::size_t kChunkSize = std::size_t(1) << 20;

// The major number of "4.4.6" (4); nullopt when the text does not start with digits.
std::optional<unsigned> majorVersion(std::string_view version)
{
    unsigned major = 0;
    auto const* end = version.data() + version.size();
    auto [next, error] = std::from_chars(version.data(), end, major);
    if (error != std::errc() || (next != end && *next != '.'))
        return std::nullopt;
    return major;
}

// Reads up to `count` bytes at `offset` through a stream of its own, so the scan's stream keeps
// its position and end-of-file state.
std::string readAt(Filesystem::Path const& file, std::streamoff offset, std::size_t count)
{
    std::ifstream in(file.stdPath(), std::ios::binary);
    std::string bytes(count, '\0');
    in.seekg(offset);
    in.read(bytes.data(), static_cast<std::streamsize>(count));
    bytes.resize(static_cast<std::size_t>(std::max<std::streamsize>(in.gcount(), 0)));
    return bytes;
}

} // namespace

std::optional<std::string> Fields::value(std::string_view key) const
{
    for (auto const& [k, v] : entries) {
        if (k == key)
            return v;
    }
    return std::nullopt;
}

ParseResult parse(std::string_view text)
{
    ParseResult result;
    if (!String::startsWith(text, kMarker)) {
        result.error = fmt::format("the text does not start with {}", kMarker);
        return result;
    }
    std::string_view rest = text.substr(kMarker.size());
    if (rest.empty() || rest.front() != '|') {
        result.error = "the marker is not followed by '|'";
        return result;
    }
    Fields fields;
    for (auto const& field : String::split(rest.substr(1), '|')) {
        auto const equals = field.find('=');
        if (equals == std::string::npos) {
            result.error = fmt::format("the field '{}' has no '='", field);
            return result;
        }
        if (equals == 0) {
            result.error = fmt::format("the field '{}' has an empty key", field);
            return result;
        }
        fields.entries.emplace_back(field.substr(0, equals), field.substr(equals + 1));
    }
    if (!fields.value("hostversion")) {
        result.error = "there is no hostversion field";
        return result;
    }
    result.fields = std::move(fields);
    return result;
}

bool isCompatibleHostVersion(std::string_view pluginHostVersion, std::string* why)
{
    auto const plugin = majorVersion(pluginHostVersion);
    if (!plugin) {
        if (why)
            *why = fmt::format("its hostversion '{}' is not a version number", pluginHostVersion);
        return false;
    }
    // kHostVersion is ours and well formed.
    auto const host = majorVersion(kHostVersion).value_or(0);
    if (*plugin != host) {
        if (why)
            *why = fmt::format("it was built for host version {}, but this host implements version {}",
                               pluginHostVersion, kHostVersion);
        return false;
    }
    return true;
}

ScanResult findInFile(Filesystem::Path const& file)
{
    ScanResult result;
    std::ifstream in(file.stdPath(), std::ios::binary);
    if (!in) {
        result.status = ScanResult::Status::Unreadable;
        result.error = std::strerror(errno);
        return result;
    }

    // The window keeps the last marker-length-minus-one bytes of the previous chunk in front of
    // the new one, so a marker split across two reads is still found.
    std::boyer_moore_horspool_searcher const searcher(kMarker.begin(), kMarker.end());
    std::size_t const keep = kMarker.size() - 1;
    std::string window;
    std::streamoff windowStart = 0; // file offset of window[0]
    std::string chunk(kChunkSize, '\0');
    while (true) {
        in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        auto const got = static_cast<std::size_t>(std::max<std::streamsize>(in.gcount(), 0));
        if (got == 0) {
            if (in.bad()) {
                result.status = ScanResult::Status::Unreadable;
                result.error = std::strerror(errno);
            }
            return result; // NotFound unless unreadable
        }
        window.append(chunk, 0, got);

        auto from = window.begin();
        while (true) {
            auto const hit = std::search(from, window.end(), searcher);
            if (hit == window.end())
                break;
            auto const offset = windowStart + static_cast<std::streamoff>(hit - window.begin());
            std::string const tail =
                readAt(file, offset + static_cast<std::streamoff>(kMarker.size()), kMaxFieldsLength + 1);
            if (!tail.empty() && tail.front() == '|') {
                auto const end = tail.find('\0');
                if (end == std::string::npos || end > kMaxFieldsLength) {
                    result.status = ScanResult::Status::Unterminated;
                    return result;
                }
                result.status = ScanResult::Status::Found;
                result.text = std::string(kMarker) + tail.substr(0, end);
                return result;
            }
            from = hit + 1; // the bare marker (the host's own constant): keep looking
        }

        if (!in)
            return result; // end of file, nothing found
        std::size_t const drop = window.size() > keep ? window.size() - keep : 0;
        window.erase(0, drop);
        windowStart += static_cast<std::streamoff>(drop);
    }
}

} // namespace Velmoria::PluginMagic

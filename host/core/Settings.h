#pragma once

// Settings: the host's process-wide preferences (default folders, device choices, ...).
//
// One Settings object (Settings::get()) lives for the whole process; tests and tools may make
// their own. It holds a Properties tree, and the application may load it from and save it to
// an XML file of its choice (root element <settings>, see PropertiesIO); nothing is read or
// written behind its back, and no environment variable is consulted.
//
// Keys are paths: "ml/defaultModelFolder" is the parameter "defaultModelFolder" of the
// sub-tree "ml", so the file groups related settings. A key must not be empty or have empty
// segments ("a//b", "/a", "a/"); such keys are refused with a warning.
//
// Values use the ValueText forms, like any Properties. All functions are thread-safe;
// signalChanged is emitted outside the lock, on the thread that made the change, with the key
// (or "" after load() and clear()).
//
//   Setting<std::string> modelFolder{"ml/defaultModelFolder", ""};
//   modelFolder.setValue("/data/models");
//   std::string folder = modelFolder.value();

#include "host/core/Properties.h"
#include "host/core/Signal.h"

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Velmoria {

class Settings
{
public:
    static constexpr char const* RootElement = "settings";

    Settings() = default;
    Settings(Settings const&) = delete;
    Settings& operator=(Settings const&) = delete;

    // The process-wide instance.
    static Settings& get();

    // True and `out` filled when the key is set and readable as T.
    template <class T>
    bool value(std::string_view key, T& out) const
    {
        std::lock_guard lock(m_mutex);
        std::string_view name;
        Properties const* folder = findFolder(key, name);
        return folder && folder->param(name, out);
    }
    template <class T>
    T valueOr(std::string_view key, T fallback) const
    {
        value(key, fallback);
        return fallback;
    }
    // False (and a warning) for an invalid key.
    template <class T>
    bool setValue(std::string_view key, T const& value)
    {
        {
            std::lock_guard lock(m_mutex);
            std::string_view name;
            Properties* folder = createFolder(key, name);
            if (!folder)
                return false;
            folder->setParam(name, value);
        }
        signalChanged.emitSignal(std::string(key));
        return true;
    }

    bool contains(std::string_view key) const;
    // The stored text of a key ("" when missing; list items joined by ", "), for messages.
    std::string text(std::string_view key) const;
    bool remove(std::string_view key);
    void clear();

    // Replaces every setting with the file's and remembers the path. On failure (logged by
    // PropertiesIO) the settings stay as they were.
    bool load(std::string const& path);
    // Writes to the remembered path (false, with an error, when there is none).
    bool save() const;
    bool saveTo(std::string const& path) const;
    std::string path() const;
    void setPath(std::string path);

    // A copy of the whole tree.
    Properties snapshot() const;

    Signal<std::string const&> signalChanged;

private:
    template <class T>
    friend class Setting;

    // The sub-tree that holds `key` and the last segment of it; null when the key is invalid
    // (logged) or, for findFolder, when a sub-tree is missing.
    Properties const* findFolder(std::string_view key, std::string_view& name) const;
    Properties* createFolder(std::string_view key, std::string_view& name);
    static bool splitKey(std::string_view key, std::vector<std::string_view>& folders,
                         std::string_view& name);
    void warnUnreadable(std::string_view key, std::string const& typeName) const;

    mutable std::mutex m_mutex;
    Properties m_properties;
    std::string m_path;
};

// One setting with a default: value() is the stored value, or the default when the key is
// unset (or unreadable, which logs a warning).
template <class T>
class Setting
{
public:
    Setting(std::string key, T defaultValue, Settings& settings = Settings::get())
        : m_key(std::move(key))
        , m_defaultValue(std::move(defaultValue))
        , m_settings(settings)
    {}

    T value() const
    {
        T result = m_defaultValue;
        if (!m_settings.value(m_key, result) && m_settings.contains(m_key))
            m_settings.warnUnreadable(m_key, ValueText::typeName<T>());
        return result;
    }
    bool setValue(T const& value) { return m_settings.setValue(m_key, value); }
    bool isSet() const { return m_settings.contains(m_key); }
    // Removes the key, so value() gives the default again.
    void reset() { m_settings.remove(m_key); }

    std::string const& key() const { return m_key; }
    T const& defaultValue() const { return m_defaultValue; }

private:
    std::string m_key;
    T m_defaultValue;
    Settings& m_settings;
};

} // namespace Velmoria

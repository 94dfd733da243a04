#include "host/core/Settings.h"

#include "host/core/Log.h"
#include "host/core/PropertiesIO.h"
#include "host/core/String.h"

namespace Velmoria {

namespace {
constexpr char const* kCategory = "Host.Settings";
}

Settings& Settings::get()
{
    static Settings instance;
    return instance;
}

bool Settings::splitKey(std::string_view key, std::vector<std::string_view>& folders, std::string_view& name)
{
    folders.clear();
    std::size_t start = 0;
    while (true) {
        std::size_t slash = key.find('/', start);
        std::string_view segment = key.substr(start, slash == std::string_view::npos ? slash : slash - start);
        if (segment.empty())
            return false;
        if (slash == std::string_view::npos) {
            name = segment;
            return true;
        }
        folders.push_back(segment);
        start = slash + 1;
    }
}

Properties const* Settings::findFolder(std::string_view key, std::string_view& name) const
{
    std::vector<std::string_view> folders;
    if (!splitKey(key, folders, name)) {
        VELMORIA_LOG_WARNING(kCategory, "Invalid settings key '{}': keys are names separated by single '/'",
                             key);
        return nullptr;
    }
    Properties const* folder = &m_properties;
    for (std::string_view segment : folders) {
        folder = folder->findSubProperties(segment);
        if (!folder)
            return nullptr;
    }
    return folder;
}

Properties* Settings::createFolder(std::string_view key, std::string_view& name)
{
    std::vector<std::string_view> folders;
    if (!splitKey(key, folders, name)) {
        VELMORIA_LOG_WARNING(kCategory, "Invalid settings key '{}': keys are names separated by single '/'",
                             key);
        return nullptr;
    }
    Properties* folder = &m_properties;
    for (std::string_view segment : folders)
        folder = folder->subProperties(segment, true);
    return folder;
}

bool Settings::contains(std::string_view key) const
{
    std::lock_guard lock(m_mutex);
    std::string_view name;
    Properties const* folder = findFolder(key, name);
    return folder && folder->contains(name);
}

std::string Settings::text(std::string_view key) const
{
    std::lock_guard lock(m_mutex);
    std::string_view name;
    Properties const* folder = findFolder(key, name);
    ParamValue const* value = folder ? folder->paramValue(name) : nullptr;
    if (!value)
        return {};
    return value->isList() ? String::join(*value->list, ", ") : value->text;
}

bool Settings::remove(std::string_view key)
{
    {
        std::lock_guard lock(m_mutex);
        std::string_view name;
        Properties const* found = findFolder(key, name);
        // The folder is ours; findFolder only hands it out as const.
        if (!found || !const_cast<Properties*>(found)->removeParam(name))
            return false;
    }
    signalChanged.emitSignal(std::string(key));
    return true;
}

void Settings::clear()
{
    {
        std::lock_guard lock(m_mutex);
        m_properties.clear();
    }
    signalChanged.emitSignal(std::string());
}

bool Settings::load(std::string const& path)
{
    // Parse outside the lock: a slow disk must not block readers of the current settings.
    std::unique_ptr<Properties> loaded = PropertiesIO::loadFromXML(path, RootElement);
    if (!loaded)
        return false;
    {
        std::lock_guard lock(m_mutex);
        m_properties = std::move(*loaded);
        m_path = path;
    }
    signalChanged.emitSignal(std::string());
    return true;
}

bool Settings::save() const
{
    std::string const target = path();
    if (target.empty()) {
        VELMORIA_LOG_ERROR(kCategory, "Could not save the settings: no file was chosen");
        return false;
    }
    return saveTo(target);
}

bool Settings::saveTo(std::string const& path) const
{
    return PropertiesIO::saveToXML(snapshot(), path, PropertiesIO::Indented, RootElement);
}

std::string Settings::path() const
{
    std::lock_guard lock(m_mutex);
    return m_path;
}

void Settings::setPath(std::string path)
{
    std::lock_guard lock(m_mutex);
    m_path = std::move(path);
}

Properties Settings::snapshot() const
{
    std::lock_guard lock(m_mutex);
    return m_properties;
}

void Settings::warnUnreadable(std::string_view key, std::string const& typeName) const
{
    VELMORIA_LOG_WARNING(kCategory, "Setting '{}' holds '{}', which is not a valid {}; using the default",
                         key, text(key), typeName);
}

} // namespace Velmoria

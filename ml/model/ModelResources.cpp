#include "ml/model/ModelResources.h"

#include "host/core/Log.h"
#include "host/core/Settings.h"
#include "host/core/String.h"

#include <fmt/format.h>

#include <memory>
#include <utility>

namespace Velmoria::ML {

namespace {

constexpr char const* kCategory = "ML.ModelResources";
constexpr std::string_view kFileScheme = "file://";
constexpr char const* kDefaultModelFolderKey = "ml/defaultModelFolder";

bool isResource(std::string const& path)
{
    return Resource::locate(path).has_value();
}

} // namespace

std::string modelPathToAbsoluteIfNotResource(std::string const& path, std::string const& basePath)
{
    if (path.starts_with(kFileScheme))
        return modelPathToAbsoluteIfNotResource(path.substr(kFileScheme.size()), basePath);
    if (path.size() >= 2 && path.front() == '"' && path.back() == '"')
        return modelPathToAbsoluteIfNotResource(path.substr(1, path.size() - 2), basePath);

    Filesystem::Path const asPath(path);
    if (asPath.isAbsolute() || isResource(path))
        return path;

    if (!basePath.empty()) {
        Filesystem::Path const joined =
            (Filesystem::Path(basePath).makeAbsolute().parentDirectory() / asPath).lexicallyNormal();
        if (isResource(joined.str()) || joined.exists())
            return joined.str();
    }

    std::string folder;
    if (Settings::get().value(kDefaultModelFolderKey, folder) && !folder.empty()) {
        VELMORIA_LOG_INFO(kCategory, "Looking for model `{}` in default folder for ML models: {}", path,
                          folder);
        Filesystem::Path const candidate = Filesystem::Path(folder) / asPath;
        if (candidate.isFile())
            return candidate.lexicallyNormal().str();
    }

    return asPath.makeAbsolute().str();
}

std::vector<std::string> modelPathPlaces(std::string const& path, std::string const& basePath)
{
    if (path.starts_with(kFileScheme))
        return modelPathPlaces(path.substr(kFileScheme.size()), basePath);
    if (path.size() >= 2 && path.front() == '"' && path.back() == '"')
        return modelPathPlaces(path.substr(1, path.size() - 2), basePath);

    Filesystem::Path const asPath(path);
    if (asPath.isAbsolute())
        return {path};
    auto const setting = [](char const* key) {
        std::string const folder = Settings::get().valueOr<std::string>(key, "");
        return folder.empty() ? fmt::format("{} not set", key) : fmt::format("{} '{}'", key, folder);
    };
    std::vector<std::string> places = {fmt::format("resource '{}' ({}, {})", path,
                                                   setting(Repository_MLModels::SettingKey),
                                                   setting(Repository_VelmoriaML::SettingKey))};
    if (!basePath.empty())
        places.push_back(fmt::format(
            "{} (next to the YAML file)",
            (Filesystem::Path(basePath).makeAbsolute().parentDirectory() / asPath).lexicallyNormal().str()));
    std::string folder;
    if (Settings::get().value(kDefaultModelFolderKey, folder) && !folder.empty())
        places.push_back(fmt::format("{} ({})", (Filesystem::Path(folder) / asPath).lexicallyNormal().str(),
                                     kDefaultModelFolderKey));
    places.push_back(fmt::format("{} (the working folder)", asPath.makeAbsolute().str()));
    return places;
}

ModelFolderRepository::ModelFolderRepository(std::string name, Filesystem::Path root)
    : FolderRepository(std::move(name), std::move(root))
{}

bool ModelFolderRepository::contains(std::string_view path) const
{
    return !root().empty() && FolderRepository::contains(path);
}

std::optional<ByteBuffer> ModelFolderRepository::query(std::string_view path) const
{
    if (root().empty())
        return std::nullopt;
    return FolderRepository::query(path);
}

Repository_MLModels::Repository_MLModels()
    : Repository_MLModels(Settings::get().valueOr<std::string>(SettingKey, ""))
{}

Repository_MLModels::Repository_MLModels(Filesystem::Path root)
    : ModelFolderRepository("MLModels", std::move(root))
{}

Repository_VelmoriaML::Repository_VelmoriaML()
    : Repository_VelmoriaML(Settings::get().valueOr<std::string>(SettingKey, ""))
{}

Repository_VelmoriaML::Repository_VelmoriaML(Filesystem::Path root)
    : ModelFolderRepository("VelmoriaML", std::move(root))
{}

namespace {

// Owns the library's repositories and takes them out of the registry when the library is
// unloaded, so that the registry never holds a pointer into unmapped code.
struct RegisteredRepositories
{
    std::unique_ptr<Repository_MLModels> models = std::make_unique<Repository_MLModels>();
    std::unique_ptr<Repository_VelmoriaML> library = std::make_unique<Repository_VelmoriaML>();

    RegisteredRepositories()
    {
        Resource::addRepository(models.get());
        Resource::addRepository(library.get());
    }
    ~RegisteredRepositories()
    {
        Resource::removeRepository(models.get());
        Resource::removeRepository(library.get());
    }
    RegisteredRepositories(RegisteredRepositories const&) = delete;
    RegisteredRepositories& operator=(RegisteredRepositories const&) = delete;
};

} // namespace

void registerModelRepositories()
{
    static RegisteredRepositories const s_repositories;
}

} // namespace Velmoria::ML

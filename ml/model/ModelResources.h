#pragma once

// Model resources: where a model file named in a model's YAML file is found, and the two
// resource repositories of this library.
//
// modelPathToAbsoluteIfNotResource(path, basePath) tries, in this order:
//   1. "file://<rest>": <rest> resolved again. The third slash is kept as the start of the
//      absolute path ("file:///data/m.pt" is "/data/m.pt");
//   2. a path in double quotes: the text between them, resolved again;
//   3. an absolute path: as it is;
//   4. a name that a resource repository holds (Resource::locate): as it is;
//   5. with a basePath (the YAML file that names the model): the path joined to the folder of
//      basePath (made absolute first); the result when that is a resource or an existing file;
//   6. with a default folder for ML models in the host settings (key "ml/defaultModelFolder"):
//      the info line "Looking for model `<path>` in default folder for ML models: <folder>", and
//      the file of that name there when it exists;
//   7. otherwise the path made absolute against the current directory.
// Nothing here fails: a path that names nothing ends in rule 7, and the reader of the file says
// that it is missing.
//
// The repositories serve folders (Resource::FolderRepository), so that models and their YAML
// files can be shipped beside the library and read by resource name:
//   - Repository_MLModels ("MLModels"): the folder of the setting "ml/modelResourceFolder";
//   - Repository_VelmoriaML ("VelmoriaML"): the folder of the setting "ml/resourceFolder".
// The folder is read from the settings when the repository is created (MLPlugin::init); while no
// folder is set, the repository holds nothing (it never serves the current directory).

#include "host/core/ByteBuffer.h"
#include "host/core/Filesystem.h"
#include "host/core/Resource.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velmoria::ML {

// See the file comment. Logs in "ML.ModelResources".
std::string modelPathToAbsoluteIfNotResource(std::string const& path, std::string const& basePath = {});

// The places that modelPathToAbsoluteIfNotResource looks at for `path`, in its order, each with
// what it is ("/data/liver.pt (next to the YAML file)"), for the message of a model file that
// is found nowhere.
std::vector<std::string> modelPathPlaces(std::string const& path, std::string const& basePath = {});

// A folder repository that holds nothing while its folder is empty.
class ModelFolderRepository : public Resource::FolderRepository
{
public:
    ModelFolderRepository(std::string name, Filesystem::Path root);

    bool contains(std::string_view path) const override;
    std::optional<ByteBuffer> query(std::string_view path) const override;
};

class Repository_MLModels : public ModelFolderRepository
{
public:
    static constexpr char const* SettingKey = "ml/modelResourceFolder";
    // The folder of the setting.
    Repository_MLModels();
    explicit Repository_MLModels(Filesystem::Path root);
};

class Repository_VelmoriaML : public ModelFolderRepository
{
public:
    static constexpr char const* SettingKey = "ml/resourceFolder";
    // The folder of the setting.
    Repository_VelmoriaML();
    explicit Repository_VelmoriaML(Filesystem::Path root);
};

// Registers one instance of each repository with Resource (once; later calls do nothing). The
// instances live until the process ends.
void registerModelRepositories();

} // namespace Velmoria::ML

#include "host/io/FileLoader.h"

#include "host/algorithm/AlgorithmUtils.h"
#include "host/algorithm/FactoryRegistry.h"
#include "host/core/Log.h"
#include "host/io/IoAlgorithms.h"

#include <filesystem>

namespace Velmoria::IO {

namespace {

constexpr char const* Category = "Host.FileLoader";

OwningDataList failure(std::string const& path, std::string const& why)
{
    VELMORIA_LOG_ERROR(Category, "Could not load '{}': {}", path, why);
    return {};
}

} // namespace

OwningDataList FileLoader::load(std::string const& path, LoadFlags flags)
{
    try {
        std::error_code error;
        if (path.empty() || !std::filesystem::exists(path, error))
            return failure(path, "the path does not exist");

        ImageFiles::registerIoAlgorithms();
        FactoryRegistry const& registry = FactoryRegistry::get();
        auto const descriptors = registry.compatibleIoDescriptors(path);
        if (descriptors.empty())
            return failure(path, "no IO algorithm can load it");
        std::string const& id = descriptors.front()->id;
        if (descriptors.size() > 1 && !flags.test(LoadFlag::QuietChoice)) {
            std::string list;
            for (auto const* d : descriptors)
                list += (list.empty() ? "" : ", ") + d->id;
            VELMORIA_LOG_WARNING(Category, "Several IO algorithms can load '{}' ({}); using the first, {}",
                                 path, list, id);
        }

        std::unique_ptr<IoAlgorithm> algorithm = registry.instantiateIoAlgorithm(id, DataList());
        if (!algorithm)
            return failure(path, "IO algorithm " + id + " could not be created");
        algorithm->setLocation(path);
        if (!AlgorithmUtils::execute(*algorithm, nullptr))
            return failure(path, id + " failed with status " + Algorithm::statusString(algorithm->status()));
        OwningDataList data = algorithm->takeOutput();
        if (data.empty())
            return failure(path, id + " gave no data");
        return data;
    } catch (std::exception const& e) // allocation failures; the algorithms themselves do not throw
    {
        return failure(path, e.what());
    }
}

} // namespace Velmoria::IO

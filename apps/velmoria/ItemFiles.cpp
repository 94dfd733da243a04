#include "apps/velmoria/ItemFiles.h"

#include "ml/data/ImageElement.h"
#include "ml/data/SISBasedElement.h"
#include "ml/data/ScoreFiles.h"
#include "ml/data/components/ReferenceImageDataComponent.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/String.h"
#include "host/image/SharedImageSet.h"
#include "host/io/FileLoader.h"
#include "host/io/ImageFiles.h"

#include <unistd.h>

#include <exception>
#include <filesystem>
#include <memory>

namespace Velmoria::Cli {

namespace {

using Filesystem::Path;

// Two names of one file: equal after making them absolute and resolving links where the file
// exists (std::filesystem::weakly_canonical resolves the existing part of a path).
bool sameFile(std::string const& a, std::string const& b)
{
    std::error_code error;
    auto const left = std::filesystem::weakly_canonical(std::filesystem::absolute(a, error), error);
    auto const right = std::filesystem::weakly_canonical(std::filesystem::absolute(b, error), error);
    return !error && left == right;
}

} // namespace

bool checkOutputFiles(std::vector<FieldArgument> const& outputs,
                      std::vector<std::vector<FieldArgument>> const& inputLists, bool overwrite)
{
    for (std::size_t o = 0; o < outputs.size(); ++o) {
        auto const& output = outputs[o];
        Path folder = Path(output.file).parentDirectory();
        if (folder.str().empty())
            folder = Path(".");
        char const* problem = nullptr;
        if (!folder.exists())
            problem = "does not exist";
        else if (!folder.isDirectory())
            problem = "is not a folder";
        else if (::access(folder.str().c_str(), W_OK | X_OK) != 0)
            problem = "is not writable";
        if (problem) {
            VELMORIA_LOG_ERROR("Cli.Files", "Cannot write field '{}' to '{}': the folder '{}' {}",
                               output.field, output.file, folder.str(), problem);
            return false;
        }
        if (Path(output.file).isDirectory()) {
            VELMORIA_LOG_ERROR("Cli.Files", "Cannot write field '{}' to '{}': it is a folder", output.field,
                               output.file);
            return false;
        }
        for (std::size_t other = 0; other < o; ++other) {
            if (sameFile(outputs[other].file, output.file)) {
                VELMORIA_LOG_ERROR("Cli.Files", "Fields '{}' and '{}' are both written to '{}'",
                                   outputs[other].field, output.field, output.file);
                return false;
            }
        }
        for (auto const& inputs : inputLists) {
            for (auto const& input : inputs) {
                if (!overwrite && sameFile(input.file, output.file)) {
                    VELMORIA_LOG_ERROR(
                        "Cli.Files",
                        "Output '{}' (field '{}') is the input file of field '{}'; it would be "
                        "overwritten. Choose another output, or give --overwrite",
                        output.file, output.field, input.field);
                    return false;
                }
            }
        }
    }
    return true;
}

void setInputAsReference(ML::DataItem& item, std::string const& field)
{
    auto const* input = dynamic_cast<ML::ImageElement const*>(item.get(field));
    if (!input || !input->sis())
        return;
    // A copy: the processing may change the input's set in place.
    std::shared_ptr<SharedImageSet> reference = input->sis()->clone();
    for (auto const& [name, element] : item.elements()) {
        if (auto* image = dynamic_cast<ML::ImageElement*>(element.get()); image && image->sis()) {
            auto& components = image->sis()->components();
            if (!components.get<ML::ReferenceImageDataComponent>())
                components.add(std::make_unique<ML::ReferenceImageDataComponent>(reference));
        }
    }
}

bool readFields(std::vector<FieldArgument> const& arguments, FieldRole role, ML::DataItem& item)
{
    for (auto const& argument : arguments) {
        // Through the host's loader, so that a DICOM folder and formats that plug-ins add are
        // accepted wherever a file is.
        OwningDataList loaded = IO::FileLoader::load(argument.file);
        std::shared_ptr<SharedImageSet> images = loaded.extractFirstImage();
        if (!images) {
            // The loader has said why; this line ties the file to the field it was meant for.
            VELMORIA_LOG_ERROR("Cli.Files", "Could not read file '{}' for field '{}'", argument.file,
                               argument.field);
            return false;
        }
        if (role == FieldRole::Target)
            images->setModality(Data::Modality::Label);
        try {
            item.set(argument.field, images);
        } catch (std::exception const& e) {
            VELMORIA_LOG_ERROR("Cli.Files", "File '{}' cannot go into field '{}': {}", argument.file,
                               argument.field, e.what());
            return false;
        }
        auto* element = item.get(argument.field);
        if (!element) {
            VELMORIA_LOG_ERROR("Cli.Files", "File '{}' holds no image for field '{}'", argument.file,
                               argument.field);
            return false;
        }
        if (role == FieldRole::Target)
            element->tagAsTarget();
    }
    return true;
}

namespace {

// The set a field writes, or null (logged, naming the field and the file) when it cannot go to
// that file.
SharedImageSet const* writableSet(FieldArgument const& argument, ML::DataItem const& item)
{
    auto const* element = item.get(argument.field);
    if (!element) {
        std::vector<std::string> fields;
        for (auto const& [name, _] : item.elements())
            fields.push_back(name);
        VELMORIA_LOG_ERROR("Cli.Files", "No field '{}' to write to '{}'; the result has: {}", argument.field,
                           argument.file,
                           fields.empty() ? std::string("nothing") : String::join(fields, ", "));
        return nullptr;
    }
    auto const* images = dynamic_cast<ML::SISBasedElement const*>(element);
    if (!images || !images->sis()) {
        VELMORIA_LOG_ERROR("Cli.Files",
                           "Field '{}' holds a {} element, which cannot be written to the image file '{}'",
                           argument.field, ML::elementTypeToString(element->type()), argument.file);
        return nullptr;
    }
    if (ML::ScoreFiles::isScoreFile(argument.file) && element->type() != ML::ElementType::Vector) {
        VELMORIA_LOG_ERROR("Cli.Files",
                           "Field '{}' holds a {} element; '{}' is a score file (.json, .csv), which takes a "
                           "vector field (the scores of a classifier)",
                           argument.field, ML::elementTypeToString(element->type()), argument.file);
        return nullptr;
    }
    return images->sis().get();
}

// Formats whose header names a second file (.mhd/.raw, .hdr/.img, .nhdr): renaming the header
// would break that link, so they are written in place, after every other output is ready.
bool isPairedFormat(std::string const& path)
{
    std::string const lower = String::toLowerCopy(path);
    for (char const* suffix : {".mhd", ".hdr", ".img", ".nhdr"})
        if (String::endsWith(lower, suffix))
            return true;
    return false;
}

bool writeOne(SharedImageSet const& set, std::string const& path)
{
    return ML::ScoreFiles::isScoreFile(path) ? ML::ScoreFiles::write(set, path)
                                             : ImageFiles::write(set, path);
}

} // namespace

bool writeFields(std::vector<FieldArgument> const& arguments, ML::DataItem const& item)
{
    // All or none: every field is checked first, then every single-file output is written under a
    // temporary name beside its target, and only when all of them (and the paired formats) are
    // written do the temporary files take their names. A failure leaves no new file behind.
    std::vector<SharedImageSet const*> sets;
    for (auto const& argument : arguments) {
        sets.push_back(writableSet(argument, item));
        if (!sets.back())
            return false;
    }
    std::vector<std::pair<std::string, std::string>> staged; // temporary, target
    auto const discard = [&staged] {
        std::error_code ignored;
        for (auto const& [temporary, target] : staged)
            std::filesystem::remove(temporary, ignored);
    };
    auto const failed = [&](FieldArgument const& argument) {
        VELMORIA_LOG_ERROR("Cli.Files", "Could not write field '{}' to file '{}'", argument.field,
                           argument.file);
        discard();
        return false;
    };
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        auto const& argument = arguments[i];
        if (isPairedFormat(argument.file))
            continue;
        Path const target(argument.file);
        std::string const temporary =
            (target.parentDirectory() /
             (".velmoria-" + std::to_string(::getpid()) + "-" + std::to_string(i) + "-" + target.fileName()))
                .str();
        staged.emplace_back(temporary, argument.file);
        if (!writeOne(*sets[i], temporary))
            return failed(argument);
    }
    for (std::size_t i = 0; i < arguments.size(); ++i)
        if (isPairedFormat(arguments[i].file) && !writeOne(*sets[i], arguments[i].file))
            return failed(arguments[i]);
    for (auto const& [temporary, target] : staged) {
        std::error_code error;
        std::filesystem::rename(temporary, target, error);
        if (error) {
            VELMORIA_LOG_ERROR("Cli.Files", "Could not move the written file '{}' to '{}': {}", temporary,
                               target, error.message());
            discard();
            return false;
        }
    }
    return true;
}

} // namespace Velmoria::Cli

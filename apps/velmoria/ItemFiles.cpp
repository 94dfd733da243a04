#include "apps/velmoria/ItemFiles.h"

#include "ml/data/SISBasedElement.h"

#include "host/core/Log.h"
#include "host/core/String.h"
#include "host/image/SharedImageSet.h"
#include "host/io/FileLoader.h"
#include "host/io/ImageFiles.h"

#include <exception>
#include <memory>

namespace Velmoria::Cli {

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

bool writeFields(std::vector<FieldArgument> const& arguments, ML::DataItem const& item)
{
    for (auto const& argument : arguments) {
        auto const* element = item.get(argument.field);
        if (!element) {
            std::vector<std::string> fields;
            for (auto const& [name, _] : item.elements())
                fields.push_back(name);
            VELMORIA_LOG_ERROR("Cli.Files", "No field '{}' to write to '{}'; the result has: {}",
                               argument.field, argument.file,
                               fields.empty() ? std::string("nothing") : String::join(fields, ", "));
            return false;
        }
        auto const* images = dynamic_cast<ML::SISBasedElement const*>(element);
        if (!images || !images->sis()) {
            VELMORIA_LOG_ERROR(
                "Cli.Files", "Field '{}' holds a {} element, which cannot be written to the image file '{}'",
                argument.field, ML::elementTypeToString(element->type()), argument.file);
            return false;
        }
        if (!ImageFiles::write(*images->sis(), argument.file)) {
            VELMORIA_LOG_ERROR("Cli.Files", "Could not write field '{}' to file '{}'", argument.field,
                               argument.file);
            return false;
        }
    }
    return true;
}

} // namespace Velmoria::Cli

#include "host/plugin/DataAnnotationFactory.h"

#include "host/data/Data.h"

namespace Velmoria {

DataAnnotationFactory::~DataAnnotationFactory() = default;

DataAnnotationFactory::Attributes DataAnnotationFactory::dataAttributes(Data const& data) const
{
    return {{"Name", data.name()}, {"Modality", Data::modalityString(data.modality())}};
}

} // namespace Velmoria

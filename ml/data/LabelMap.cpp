#include "ml/data/LabelMap.h"

#include "host/image/SharedImageSet.h"

namespace Velmoria::ML {

bool isSemanticSegmentationMap(SharedImageSet const* sis)
{
    return sis && sis->modality() == Data::Modality::Label;
}

} // namespace Velmoria::ML

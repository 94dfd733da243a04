#pragma once

// Which image sets are semantic segmentation maps. One rule for every operation that treats label
// maps differently (nearest-neighbour resampling, label padding settings, cropping around labels):
// a set is a label map when its modality is Label. SetLabelModality, ArgMax and the loaders of label
// files set that modality, so the rule follows the data, not field names.

namespace Velmoria {
class SharedImageSet;
}

namespace Velmoria::ML {

// False for null.
bool isSemanticSegmentationMap(SharedImageSet const* sis);
inline bool isSemanticSegmentationMap(SharedImageSet const& sis)
{
    return isSemanticSegmentationMap(&sis);
}

} // namespace Velmoria::ML

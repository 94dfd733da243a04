#include "ml/data/KeypointsElement.h"

namespace Velmoria::ML {

KeypointsElement::KeypointsElement(std::shared_ptr<KeypointSet> keypoints)
    : AnnotationElement(std::move(keypoints))
{}

KeypointsElement::~KeypointsElement() = default;

} // namespace Velmoria::ML

#include "ml/data/BoundingBoxElement.h"

namespace Velmoria::ML {

BoundingBoxElement::BoundingBoxElement(std::shared_ptr<BoundingBoxSet> boxes)
    : AnnotationElement(std::move(boxes))
{}

BoundingBoxElement::~BoundingBoxElement() = default;

} // namespace Velmoria::ML

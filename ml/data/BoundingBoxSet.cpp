#include "ml/data/BoundingBoxSet.h"

#include <fmt/format.h>

namespace Velmoria::ML {

BoundingBoxSet::BoundingBoxSet() = default;

BoundingBoxSet::BoundingBoxSet(Boxes boxes)
    : AnnotationSet(std::move(boxes))
{}

BoundingBoxSet::BoundingBoxSet(BoundingBoxSet const& other) = default;
BoundingBoxSet::BoundingBoxSet(BoundingBoxSet&& other) noexcept = default;
BoundingBoxSet& BoundingBoxSet::operator=(BoundingBoxSet const& other) = default;
BoundingBoxSet& BoundingBoxSet::operator=(BoundingBoxSet&& other) noexcept = default;
BoundingBoxSet::~BoundingBoxSet() = default;

std::string BoundingBoxSet::describe() const
{
    return fmt::format("BoundingBoxSet '{}' ({} frames, {} boxes)", name(), size(), numBoxes());
}

std::size_t BoundingBoxSet::numBoxes() const
{
    return numEntries();
}

} // namespace Velmoria::ML

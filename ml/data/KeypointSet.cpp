#include "ml/data/KeypointSet.h"

#include <fmt/format.h>

namespace Velmoria::ML {

KeypointSet::KeypointSet() = default;

KeypointSet::KeypointSet(Keypoints keypoints)
    : AnnotationSet(std::move(keypoints))
{}

KeypointSet::KeypointSet(KeypointSet const& other) = default;
KeypointSet::KeypointSet(KeypointSet&& other) noexcept = default;
KeypointSet& KeypointSet::operator=(KeypointSet const& other) = default;
KeypointSet& KeypointSet::operator=(KeypointSet&& other) noexcept = default;
KeypointSet::~KeypointSet() = default;

std::string KeypointSet::describe() const
{
    return fmt::format("KeypointSet '{}' ({} frames, {} points)", name(), size(), numPoints());
}

std::size_t KeypointSet::numPoints() const
{
    return numEntries();
}

} // namespace Velmoria::ML

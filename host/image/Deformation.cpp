#include "host/image/Deformation.h"

#include <fmt/core.h>

namespace Velmoria {

std::string ConstantDeformation::describe() const
{
    return fmt::format("constant displacement ({}, {}, {}) mm", m_offset.x(), m_offset.y(), m_offset.z());
}

} // namespace Velmoria

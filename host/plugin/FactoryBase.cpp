#include "host/plugin/FactoryBase.h"

#include <utility>

namespace Velmoria {

FactoryBase::FactoryBase(std::string name)
    : m_name(std::move(name))
{}

FactoryBase::~FactoryBase() = default;

} // namespace Velmoria

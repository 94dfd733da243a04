#pragma once

// FactoryBase: the common base of the factories a plug-in hands to the host beside its
// AlgorithmFactory. It carries only a name that says what the factory makes ("DataAnnotation"),
// so that a host can list and tell apart the factories of its plug-ins.

#include <string>

namespace Velmoria {

class FactoryBase
{
public:
    explicit FactoryBase(std::string name);
    FactoryBase(FactoryBase const&) = delete;
    FactoryBase& operator=(FactoryBase const&) = delete;
    virtual ~FactoryBase();

    std::string const& name() const { return m_name; }

private:
    std::string m_name;
};

} // namespace Velmoria

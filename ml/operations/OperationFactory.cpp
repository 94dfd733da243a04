#include "ml/operations/OperationFactory.h"

#include "ml/operations/Singleton.h"

#include <cxxabi.h>

#include <cstdlib>

namespace Velmoria::ML {

template class Registry<OperationFactory>;

OperationFactoryRegistry& operationFactoryRegistry()
{
    return Singleton<OperationFactoryRegistry>::instance();
}

OperationFactory& getSubOperationFactory(std::string const& name)
{
    auto& registry = operationFactoryRegistry();
    if (!registry.hasItem(name))
        registry.registerItem(name, std::make_unique<OperationFactory>());
    return registry.getItem(name);
}

OperationFactory& getCppOperationFactory()
{
    return getSubOperationFactory(CppOperationFactoryName);
}

std::string detail::runtimeTypeName(std::type_info const& type)
{
    char const* raw = type.name();
    // GCC marks names of types with internal linkage with a leading '*'.
    if (*raw == '*')
        ++raw;
    int status = 0;
    char* demangled = abi::__cxa_demangle(raw, nullptr, nullptr, &status);
    std::string name = (status == 0 && demangled) ? demangled : raw;
    std::free(demangled);
    return name;
}

std::unique_ptr<Operation> Operation::createFromFactories(Specs const& specs)
{
    for (auto const& [factoryName, factory] : operationFactoryRegistry().getAllItems())
        if (factory->hasType(specs.name))
            return factory->create(specs.name, std::optional<Properties const>(specs.properties));
    VELMORIA_LOG_ERROR("ML.Operation", "{} is not a registered operation", specs.name);
    return nullptr;
}

bool Operation::isRegistered(std::string const& name)
{
    for (auto const& [factoryName, factory] : operationFactoryRegistry().getAllItems())
        if (factory->hasType(name))
            return true;
    return false;
}

} // namespace Velmoria::ML

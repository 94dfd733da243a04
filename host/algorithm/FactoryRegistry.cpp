#include "host/algorithm/FactoryRegistry.h"

#include "host/core/Log.h"

#include <algorithm>
#include <mutex>

namespace Velmoria {

FactoryRegistry& FactoryRegistry::get()
{
    static FactoryRegistry registry;
    return registry;
}

void FactoryRegistry::addFactory(AlgorithmFactory* factory, bool toFront)
{
    if (!factory)
        return;
    std::unique_lock lock(m_mutex);
    auto it = std::find(m_factories.begin(), m_factories.end(), factory);
    if (it != m_factories.end()) {
        if (!toFront)
            return;
        m_factories.erase(it);
    }
    if (toFront)
        m_factories.insert(m_factories.begin(), factory);
    else
        m_factories.push_back(factory);
}

bool FactoryRegistry::removeFactory(AlgorithmFactory const* factory)
{
    std::unique_lock lock(m_mutex);
    return std::erase(m_factories, factory) > 0;
}

std::vector<AlgorithmFactory*> FactoryRegistry::factories() const
{
    std::shared_lock lock(m_mutex);
    return m_factories;
}

AlgorithmFactory* FactoryRegistry::findFactory(std::string const& id, bool io) const
{
    std::shared_lock lock(m_mutex);
    for (AlgorithmFactory* factory : m_factories)
        if (factory->hasAlgorithm(id, io))
            return factory;
    return nullptr;
}

std::unique_ptr<Algorithm> FactoryRegistry::instantiateAlgorithm(std::string const& id,
                                                                 DataList const& data) const
{
    AlgorithmFactory* factory = findFactory(id, false);
    if (!factory) {
        VELMORIA_LOG_ERROR("Host.FactoryRegistry", "No factory offers algorithm '{}'", id);
        return nullptr;
    }
    return factory->instantiateAlgorithm(id, data);
}

std::unique_ptr<IoAlgorithm> FactoryRegistry::instantiateIoAlgorithm(std::string const& id,
                                                                     DataList const& data) const
{
    AlgorithmFactory* factory = findFactory(id, true);
    if (!factory) {
        VELMORIA_LOG_ERROR("Host.FactoryRegistry", "No factory offers IO algorithm '{}'", id);
        return nullptr;
    }
    return factory->instantiateIoAlgorithm(id, data);
}

std::vector<AlgorithmFactory::Descriptor const*>
FactoryRegistry::compatibleDescriptors(DataList const& data) const
{
    std::vector<AlgorithmFactory::Descriptor const*> result;
    for (AlgorithmFactory* factory : factories()) {
        auto part = factory->compatibleDescriptors(data);
        result.insert(result.end(), part.begin(), part.end());
    }
    return result;
}

std::vector<AlgorithmFactory::Descriptor const*>
FactoryRegistry::compatibleIoDescriptors(std::string const& path) const
{
    std::vector<AlgorithmFactory::Descriptor const*> result;
    for (AlgorithmFactory* factory : factories()) {
        auto part = factory->compatibleIoDescriptors(path);
        result.insert(result.end(), part.begin(), part.end());
    }
    return result;
}

} // namespace Velmoria

#pragma once

// FactoryRegistry: the process-wide, ordered list of AlgorithmFactory objects. Lookups ask the
// factories in order, so the first factory that registers an id wins: a plug-in that must
// override an algorithm of another puts its factory first (addAlgorithmFactoryToFront).
//
// The registry does not own its factories: a plug-in keeps its factory alive while loaded, and
// a factory removes itself from the registry when destroyed, so no dangling pointer remains.
// All functions are thread-safe; lookups take a shared lock only.

#include "host/algorithm/AlgorithmFactory.h"

#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

namespace Velmoria {

class FactoryRegistry
{
public:
    static FactoryRegistry& get();

    // Appends `factory` (or, with `toFront`, puts it first). A factory already present is moved
    // to the front when `toFront`, otherwise left where it is. Null is ignored.
    void addFactory(AlgorithmFactory* factory, bool toFront = false);
    bool removeFactory(AlgorithmFactory const* factory);
    std::vector<AlgorithmFactory*> factories() const;

    // From the first factory that registers `id`; null with an error line when none does (or
    // that factory refuses the data).
    std::unique_ptr<Algorithm> instantiateAlgorithm(std::string const& id, DataList const& data) const;
    std::unique_ptr<IoAlgorithm> instantiateIoAlgorithm(std::string const& id, DataList const& data) const;
    // The union over all factories, in factory order.
    std::vector<AlgorithmFactory::Descriptor const*> compatibleDescriptors(DataList const& data) const;
    std::vector<AlgorithmFactory::Descriptor const*> compatibleIoDescriptors(std::string const& path) const;

private:
    AlgorithmFactory* findFactory(std::string const& id, bool io) const;

    mutable std::shared_mutex m_mutex;
    std::vector<AlgorithmFactory*> m_factories;
};

} // namespace Velmoria

#include "host/algorithm/AlgorithmFactory.h"

#include "host/algorithm/FactoryRegistry.h"
#include "host/core/Log.h"
#include "host/core/String.h"

#include <algorithm>
#include <exception>
#include <mutex>

namespace Velmoria {

namespace {

// Runs a user callback (createCompatible) without letting an exception escape a lookup.
template <class F>
auto guarded(std::string const& id, F&& f) -> decltype(f())
{
    try {
        return f();
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR("Host.AlgorithmFactory", "Algorithm '{}' threw while checking its input: {}", id,
                           e.what());
    } catch (...) {
        VELMORIA_LOG_ERROR("Host.AlgorithmFactory", "Algorithm '{}' threw while checking its input", id);
    }
    return {};
}

} // namespace

AlgorithmFactory::AlgorithmFactory(std::string category, bool visibleInMenus)
    : m_category(std::move(category))
    , m_visibleInMenus(visibleInMenus)
{}

AlgorithmFactory::~AlgorithmFactory()
{
    FactoryRegistry::get().removeFactory(this);
}

std::vector<std::string> AlgorithmFactory::splitMenuPath(std::string const& menuPath)
{
    std::vector<std::string> levels;
    for (auto const& level : String::split(menuPath, ';')) {
        std::string trimmed = String::trimCopy(level);
        if (!trimmed.empty())
            levels.push_back(std::move(trimmed));
    }
    return levels;
}

bool AlgorithmFactory::addDescriptor(Descriptor descriptor)
{
    if (descriptor.id.empty() || !descriptor.creator || !descriptor.isCompatible) {
        VELMORIA_LOG_ERROR(
            "Host.AlgorithmFactory", "Cannot register algorithm '{}' in factory '{}': {}", descriptor.id,
            m_category, descriptor.id.empty() ? "the id is empty" : "creator or compatibility check missing");
        return false;
    }
    descriptor.menuLevels = splitMenuPath(descriptor.menuPath);
    std::unique_lock lock(m_mutex);
    auto it = std::find_if(m_descriptors.begin(), m_descriptors.end(), [&](auto const& d) {
        return d->id == descriptor.id && d->isIo == descriptor.isIo;
    });
    if (it != m_descriptors.end()) {
        VELMORIA_LOG_WARNING("Host.AlgorithmFactory", "Replacing algorithm '{}' in factory '{}'",
                             descriptor.id, m_category);
        **it = std::move(descriptor);
    } else
        m_descriptors.push_back(std::make_unique<Descriptor>(std::move(descriptor)));
    return true;
}

bool AlgorithmFactory::unregisterAlgorithm(std::string const& id)
{
    std::unique_lock lock(m_mutex);
    return std::erase_if(m_descriptors, [&](auto const& d) { return d->id == id; }) > 0;
}

AlgorithmFactory::Descriptor const* AlgorithmFactory::algorithmDescriptor(std::string const& id,
                                                                          bool io) const
{
    std::shared_lock lock(m_mutex);
    for (auto const& d : m_descriptors)
        if (d->id == id && d->isIo == io)
            return d.get();
    return nullptr;
}

bool AlgorithmFactory::hasAlgorithm(std::string const& id, bool io) const
{
    return algorithmDescriptor(id, io) != nullptr;
}

std::unique_ptr<Algorithm> AlgorithmFactory::instantiateAlgorithm(std::string const& id,
                                                                  DataList const& data) const
{
    Descriptor const* d = algorithmDescriptor(id, false);
    if (!d) {
        VELMORIA_LOG_ERROR("Host.AlgorithmFactory", "Unknown algorithm '{}' in factory '{}'", id, m_category);
        return nullptr;
    }
    if (!guarded(id, [&] { return d->isCompatible(data); })) {
        VELMORIA_LOG_ERROR("Host.AlgorithmFactory", "Algorithm '{}' cannot run on the given data ({} items)",
                           id, data.size());
        return nullptr;
    }
    std::unique_ptr<Algorithm> algorithm = guarded(id, [&] { return d->creator(data); });
    if (!algorithm)
        VELMORIA_LOG_ERROR("Host.AlgorithmFactory", "Algorithm '{}' could not be created", id);
    return algorithm;
}

std::unique_ptr<IoAlgorithm> AlgorithmFactory::instantiateIoAlgorithm(std::string const& id,
                                                                      DataList const& data) const
{
    Descriptor const* d = algorithmDescriptor(id, true);
    if (!d) {
        VELMORIA_LOG_ERROR("Host.AlgorithmFactory", "Unknown IO algorithm '{}' in factory '{}'", id,
                           m_category);
        return nullptr;
    }
    if (!guarded(id, [&] { return d->isCompatible(data); })) {
        VELMORIA_LOG_ERROR("Host.AlgorithmFactory",
                           "IO algorithm '{}' cannot run on the given data ({} items)", id, data.size());
        return nullptr;
    }
    std::unique_ptr<Algorithm> algorithm = guarded(id, [&] { return d->creator(data); });
    auto* io = dynamic_cast<IoAlgorithm*>(algorithm.get());
    if (!io) {
        VELMORIA_LOG_ERROR("Host.AlgorithmFactory", "IO algorithm '{}' could not be created", id);
        return nullptr;
    }
    algorithm.release();
    return std::unique_ptr<IoAlgorithm>(io);
}

std::vector<AlgorithmFactory::Descriptor const*>
AlgorithmFactory::select(bool io, std::function<bool(Descriptor const&)> const& keep) const
{
    std::vector<Descriptor const*> all;
    {
        std::shared_lock lock(m_mutex);
        for (auto const& d : m_descriptors)
            if (d->isIo == io)
                all.push_back(d.get());
    }
    // The checks run outside the lock: they call into plug-in code.
    std::vector<Descriptor const*> result;
    for (Descriptor const* d : all)
        if (!keep || keep(*d))
            result.push_back(d);
    return result;
}

std::vector<AlgorithmFactory::Descriptor const*> AlgorithmFactory::algorithmDescriptors() const
{
    return select(false, {});
}

std::vector<AlgorithmFactory::Descriptor const*> AlgorithmFactory::ioAlgorithmDescriptors() const
{
    return select(true, {});
}

std::vector<AlgorithmFactory::Descriptor const*>
AlgorithmFactory::compatibleDescriptors(DataList const& data) const
{
    return select(false,
                  [&](Descriptor const& d) { return guarded(d.id, [&] { return d.isCompatible(data); }); });
}

std::vector<AlgorithmFactory::Descriptor const*>
AlgorithmFactory::compatibleIoDescriptors(DataList const& data) const
{
    return select(true,
                  [&](Descriptor const& d) { return guarded(d.id, [&] { return d.isCompatible(data); }); });
}

std::vector<AlgorithmFactory::Descriptor const*>
AlgorithmFactory::compatibleIoDescriptors(std::string const& path) const
{
    return select(true, [&](Descriptor const& d) {
        return guarded(d.id, [&] {
            DataList none;
            if (!d.isCompatible(none))
                return false;
            std::unique_ptr<Algorithm> algorithm = d.creator(none);
            auto* io = dynamic_cast<IoAlgorithm*>(algorithm.get());
            return io && io->canLoad(path);
        });
    });
}

void AlgorithmFactory::addAlgorithmFactoryToFront()
{
    FactoryRegistry::get().addFactory(this, true);
}

} // namespace Velmoria

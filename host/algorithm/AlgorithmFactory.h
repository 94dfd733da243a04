#pragma once

// AlgorithmFactory: the catalogue of algorithms one plug-in (or the host) offers, under a
// category name. The application finds algorithms through the FactoryRegistry, which asks its
// factories in order.
//
// registerAlgorithm<T>(id, menuPath, attributes, properties) records a Descriptor whose
// compatibility check and creator both go through T::createCompatible (see Algorithm.h); an
// algorithm derived from IoAlgorithm is recorded as an IO algorithm and is only reachable
// through the *Io* functions. The menu path lists levels separated by ";" ("Machine Learning;
// Run Model" gives menuLevels {"Machine Learning", "Run Model"}, blanks around levels trimmed).
// Registering an id again replaces the descriptor in place (with a warning).
//
// Descriptor::AlgorithmAttributes (bits; stored as numbers):
//   1 Batch            - takes any number of inputs and processes them one after another
//   2 NoInputRequired  - offered even when nothing is selected (generators, loaders)
//   4 CustomController - has its own controller (from an AlgorithmControllerFactory) rather
//                        than the default parameter form
//
// The constructor's bool is `visibleInMenus`: false for factories whose algorithms are run from
// code or scripts only. A factory is not owned by the FactoryRegistry; its destructor removes
// it from there. Registration is meant for plug-in loading; lookups are thread-safe.

#include "host/algorithm/Algorithm.h"
#include "host/algorithm/IoAlgorithm.h"
#include "host/core/Flags.h"
#include "host/core/Properties.h"
#include "host/data/DataList.h"

#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <type_traits>
#include <vector>

namespace Velmoria {

class AlgorithmFactory
{
public:
    struct Descriptor
    {
        enum class AlgorithmAttributes : unsigned
        {
            None = 0,
            Batch = 1,
            NoInputRequired = 2,
            CustomController = 4,
        };

        std::string id;
        std::string menuPath;
        std::vector<std::string> menuLevels;
        Flags<AlgorithmAttributes> attributes;
        Properties properties;
        bool isIo = false;
        // Null when the data do not fit.
        std::function<std::unique_ptr<Algorithm>(DataList const&)> creator;
        std::function<bool(DataList const&)> isCompatible;
    };
    using Attributes = Flags<Descriptor::AlgorithmAttributes>;

    explicit AlgorithmFactory(std::string category, bool visibleInMenus = true);
    AlgorithmFactory(AlgorithmFactory const&) = delete;
    AlgorithmFactory& operator=(AlgorithmFactory const&) = delete;
    virtual ~AlgorithmFactory();

    std::string const& category() const { return m_category; }
    bool visibleInMenus() const { return m_visibleInMenus; }

    template <class T>
    void registerAlgorithm(std::string id, std::string menuPath, Attributes attributes = {},
                           Properties properties = {})
    {
        static_assert(std::is_base_of_v<Algorithm, T>, "registerAlgorithm<T> needs an Algorithm");
        Descriptor d;
        d.id = std::move(id);
        d.menuPath = std::move(menuPath);
        d.attributes = attributes;
        d.properties = std::move(properties);
        d.isIo = std::is_base_of_v<IoAlgorithm, T>;
        d.isCompatible = [](DataList const& data) { return T::createCompatible(data, nullptr); };
        d.creator = [](DataList const& data) -> std::unique_ptr<Algorithm> {
            Algorithm* algorithm = nullptr;
            bool ok = T::createCompatible(data, &algorithm);
            std::unique_ptr<Algorithm> owned(algorithm);
            return ok ? std::move(owned) : nullptr;
        };
        addDescriptor(std::move(d));
    }
    // Registers a hand-made descriptor (menuLevels are derived from menuPath). False, logged,
    // when the id is empty or the creator or compatibility check is missing.
    bool addDescriptor(Descriptor descriptor);
    bool unregisterAlgorithm(std::string const& id);

    // Null with an error line when the id is unknown (or IO), the data do not fit, or the
    // creation fails.
    std::unique_ptr<Algorithm> instantiateAlgorithm(std::string const& id, DataList const& data) const;
    std::unique_ptr<IoAlgorithm> instantiateIoAlgorithm(std::string const& id, DataList const& data) const;
    // True when this factory registers `id` (among IO algorithms when `io`).
    bool hasAlgorithm(std::string const& id, bool io) const;

    // The descriptor of `id` among the IO (`io` true) or the other algorithms; null if none.
    // Pointers stay valid while the factory lives and the id is not unregistered.
    Descriptor const* algorithmDescriptor(std::string const& id, bool io = false) const;
    std::vector<Descriptor const*> algorithmDescriptors() const;
    std::vector<Descriptor const*> ioAlgorithmDescriptors() const;
    std::vector<Descriptor const*> compatibleDescriptors(DataList const& data) const;
    std::vector<Descriptor const*> compatibleIoDescriptors(DataList const& data) const;
    // IO algorithms able to load `path`: each loader is created for an empty DataList and asked
    // canLoad(path).
    std::vector<Descriptor const*> compatibleIoDescriptors(std::string const& path) const;

    // Puts this factory first in the FactoryRegistry (adding it when absent).
    void addAlgorithmFactoryToFront();

    static std::vector<std::string> splitMenuPath(std::string const& menuPath);

private:
    std::vector<Descriptor const*> select(bool io, std::function<bool(Descriptor const&)> const& keep) const;

    std::string m_category;
    bool m_visibleInMenus;
    mutable std::shared_mutex m_mutex;
    std::vector<std::unique_ptr<Descriptor>> m_descriptors;
};

} // namespace Velmoria

#pragma once

// DataDisplayHandler and DataDisplayHandlerFactory: how a plug-in tells a host that it knows
// how to show a Data class of its own (key points, boxes, data items).
//
// The core has no GUI: a handler here only answers whether it can show a Data; a desktop host
// derives richer handlers and casts. The factory is a process-wide registry of named creators,
// filled by plug-ins in init() and emptied by them when they unload (a creator is code of the
// plug-in library, so it must not outlive it).
//
// Registering a name that exists replaces its creator (logged at information level), as the
// other registries of the host do. Names keep their registration order, so handlerFor() asks the
// earliest registered handler first. All functions are thread-safe.

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Velmoria {

class Data;

class DataDisplayHandler
{
public:
    virtual ~DataDisplayHandler();
    virtual bool canDisplay(Data const& data) const = 0;
};

class DataDisplayHandlerFactory
{
public:
    using Creator = std::function<std::unique_ptr<DataDisplayHandler>()>;

    // True when `name` was new; false when an existing creator was replaced or the arguments
    // were unusable (empty name or creator: logged, nothing registered).
    static bool registerHandler(std::string name, Creator creator);
    static bool unregisterHandler(std::string const& name);
    static bool isRegistered(std::string const& name);
    // A new handler, or null with an error line when `name` is unknown or its creator fails.
    static std::unique_ptr<DataDisplayHandler> create(std::string const& name);
    // The first registered handler that can display `data`, or null.
    static std::unique_ptr<DataDisplayHandler> handlerFor(Data const& data);
    // In registration order.
    static std::vector<std::string> registeredNames();
};

} // namespace Velmoria

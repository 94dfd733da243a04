#pragma once

// The factories of operations: the registry that holds them, the native factory, and the
// builder registered for every plain operation.
//
// Operations are created by name through Operation::createFromFactories(specs), which asks every
// factory of operationFactoryRegistry() in registration order; the first that knows the name
// creates the operation. The native factory, "CppOperationFactory", holds all operations of this
// library and is registered first; a scripting layer may add its own factory under another name
// with getSubOperationFactory("...").
//
// Registering an operation class:
//
//   getCppOperationFactory().registerType<AddCenterBoxOperation>(
//       "AddCenterBox", makeUniqueOperation<AddCenterBoxOperation>);
//
// The registered name is the class name without its "Operation" suffix.

#include "ml/operations/Factory.h"
#include "ml/operations/Operation.h"
#include "ml/operations/Registry.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>

namespace Velmoria::ML {

// A builder receives the operation's configuration, or nullopt for a default-configured one.
using OperationFactory = Factory<Operation, std::optional<Properties const>>;
using OperationFactoryRegistry = Registry<OperationFactory>;

// Instantiated once, in libVelmoriaML, so that plug-ins and scripting layers share the one
// registry of this library.
extern template class Registry<OperationFactory>;

inline constexpr char const* CppOperationFactoryName = "CppOperationFactory";

// The process-wide registry of operation factories (Singleton<OperationFactoryRegistry>).
OperationFactoryRegistry& operationFactoryRegistry();

// The operation factory registered under `name`; an empty one is created and registered when
// there is none yet, so two calls with one name give the same factory.
OperationFactory& getSubOperationFactory(std::string const& name);
// getSubOperationFactory(CppOperationFactoryName).
OperationFactory& getCppOperationFactory();

namespace detail {
// The readable name of a type for log categories: the demangled compiler name
// ("Velmoria::ML::AddCenterBoxOperation"), the raw one (without a leading '*') when demangling
// fails.
std::string runtimeTypeName(std::type_info const& type);
} // namespace detail

// The builder of every plain operation: default-constructs T and, when `properties` holds a
// tree, configures it. A configuration that fails gives null and an error line "Failed to
// configure operation with the given properties." in the category named after T; the operation's
// own messages have said what was wrong.
template <class T>
requires std::derived_from<T, Operation> && std::default_initializable<T> std::unique_ptr<T>
makeUniqueOperation(std::optional<Properties const> properties)
{
    auto operation = std::make_unique<T>();
    if (properties && !operation->configure(*properties)) {
        VELMORIA_LOG_ERROR(detail::runtimeTypeName(typeid(T)),
                           "Failed to configure operation with the given properties.");
        return nullptr;
    }
    return operation;
}

} // namespace Velmoria::ML

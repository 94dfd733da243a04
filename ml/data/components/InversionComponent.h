#pragma once

// InversionComponent: the stack of steps that can be undone on an element's content. An
// invertible operation run with a "record_identifier" pushes an InversionInfo here (see
// InvertibleOperation); InverseOperation later finds the latest info of that identifier, builds
// the operation it names and pops the info once that ran. What is needed to undo a step thus
// travels with the data, not in the operation.
//
// Identifiers may repeat: the same step run twice is undone last first, because lookups and pops
// search from the end. An empty identifier is never recorded (recordInversion ignores it).
//
// InversionInfo:
//   operationName  the registered name of the operation that undoes the step;
//   identifier     the id of the step to undo;
//   config         the configuration of that inverse operation;
//   context        data of the particular run that the inverse needs (what the input looked
//                  like, e.g. the padding that was added); absent when none. An operation that
//                  needs one fills it in on the info its record hook just pushed
//                  (getInversionInfo(recordIdentifier())->context), because the hook runs before
//                  the element is changed and knows nothing of the run.
// Infos compare by the strings, the config trees (Properties::compareWith, mode 0: keys, values
// and sub-trees) and the context (both absent, or both present and equal alike).
//
// Persistence (id "InversionComponent"): per info, in order, a sub-tree named by the identifier
// holding the parameter "operation_name", a sub-tree "config" (left out when the config is
// empty) and a sub-tree "context" (left out when absent or empty). configure replaces the stack
// with what it reads; an info without "operation_name" is skipped with an error in
// "ML.InversionComponent". A present but empty context therefore reads back as absent.

#include "ml/operations/Operation.h"

#include "host/core/Properties.h"
#include "host/data/DataComponent.h"

#include <optional>
#include <string>
#include <vector>

namespace Velmoria::ML {

class InversionComponent : public DataComponent<InversionComponent>
{
public:
    struct InversionInfo
    {
        std::string operationName;
        std::string identifier;
        Properties config;
        std::optional<Properties> context;

        // Specs of the inverse operation: its name and config, for all phases.
        Operation::Specs toSpecs() const;
        // An info without context.
        static InversionInfo fromSpecs(std::string const& identifier, Operation::Specs const& specs);

        bool operator==(InversionInfo const& other) const;
    };

    InversionComponent() = default;
    explicit InversionComponent(std::vector<InversionInfo> infos);

    std::string id() const override { return "InversionComponent"; }
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    std::vector<InversionInfo> const& infos() const { return m_infos; }

    // Push an info; nothing happens for an empty identifier.
    void recordInversion(InversionInfo const& info);
    void recordInversion(std::string const& identifier, Operation::Specs const& specs);
    void recordInversion(std::string const& identifier, Operation::Specs const& specs,
                         Properties const& context);
    // The operation's recordIdentifier() with its inverse specs. False (nothing recorded) when
    // the operation does not support inversion or has no identifier.
    bool recordInversion(Operation const& operation);

    bool hasInversion(std::string const& identifier) const;
    // The latest info of the identifier, or null.
    InversionInfo const* getInversionInfo(std::string const& identifier) const;
    InversionInfo* getInversionInfo(std::string const& identifier);
    // All infos of the identifier, oldest first.
    std::vector<InversionInfo const*> getAllInversionInfos(std::string const& identifier) const;
    std::vector<InversionInfo*> getAllInversionInfos(std::string const& identifier);
    // Specs of the latest info of the identifier.
    std::optional<Operation::Specs> inverseSpecs(std::string const& identifier) const;
    // Takes out the latest info of the identifier; the others keep their order.
    std::optional<InversionInfo> popInversionInfo(std::string const& identifier);

    bool operator==(InversionComponent const& other) const { return m_infos == other.m_infos; }
    bool operator!=(InversionComponent const& other) const { return !(*this == other); }
    // Appends other's infos after this one's.
    InversionComponent& operator+=(InversionComponent const& other);
    InversionComponent operator+(InversionComponent const& other) const;

private:
    std::vector<InversionInfo> m_infos;
};

} // namespace Velmoria::ML

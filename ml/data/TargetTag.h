#pragma once

// TargetTag: the data component that marks a DataElement as a target, i.e. the ground truth of
// a sample rather than an input. It carries no data: its presence in the component list of the
// element's content is the whole message, so it travels with the content through split, stack
// and clone like any other component, and an element is a target exactly when it holds one.
//
// Persistence: id "TargetTag"; configure reads nothing and configuration writes nothing (the
// container file records the component by its id alone).

#include "host/data/DataComponent.h"

#include <string>

namespace Velmoria::ML {

class TargetTag : public DataComponent<TargetTag>
{
public:
    std::string id() const override { return "TargetTag"; }
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    // All tags are alike.
    bool operator==(TargetTag const&) const { return true; }
};

} // namespace Velmoria::ML

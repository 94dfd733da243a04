#pragma once

// DataAnnotationFactory: what a plug-in tells the host about the Data classes it brings, so
// that a host can show and copy data it does not know: a one-word description, an icon, a few
// attributes for a data tree, a deep copy, and the annotations (markers, boxes) it can attach.
//
// A host asks each plug-in's factory in turn; a factory answers only for its own classes and
// gives an empty text / empty list / null for anything else, so the first non-empty answer wins.
// Icon paths are opaque to the host's core: ":/..." names a resource of the plug-in, anything
// else a file the application resolves.

#include "host/plugin/FactoryBase.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Velmoria {

class Data;

class DataAnnotationFactory : public FactoryBase
{
public:
    // Attributes as (label, value) pairs, in the order a host shows them.
    using Attributes = std::vector<std::pair<std::string, std::string>>;

    using FactoryBase::FactoryBase;
    ~DataAnnotationFactory() override;

    // A new annotation called `name` attached to `data`, or null when this factory has none.
    virtual std::unique_ptr<Data> createDataAnnotation(std::string const& name, Data& data) const = 0;
    // The names createDataAnnotation accepts for `data`.
    virtual std::vector<std::string> compatibleDataAnnotations(Data& data) const = 0;
    // Empty for data this factory does not know.
    virtual std::string dataDescription(Data const& data) const = 0;
    virtual std::string dataIconPath(Data const& data) const = 0;
    // By default the name and modality every Data has; factories add what their classes know.
    virtual Attributes dataAttributes(Data const& data) const;
    // A deep copy, or null for null and for data this factory does not know.
    virtual std::unique_ptr<Data> cloneData(Data const* data) const = 0;
};

} // namespace Velmoria

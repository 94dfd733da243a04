#pragma once

// ProcessingRecordComponent: the log of what processing ran on each frame of an element's
// content, oldest first, so that a result can tell how it was made (and a training sample how
// it was prepared).
//
// Frames. The record keeps one list of entries per frame (sample) of the content. recordProcessing
// appends to every frame's list and therefore does nothing on a record without frames; whoever
// creates the record decides how many frames it has. The recorder that every operation runs
// after an element was processed (recordProcessingHook, installed while the plug-in loads) gives
// a new record one empty list per sample of the element's batch (DataElement::batchSize()), so
// that records start with the content; a record whose frames were set already is used as it is.
// Stacking contents stacks their records with operator+= / operator+.
//
// Entries. An entry is the operation's (or sampler's) name and its configuration at the time it
// ran. Two entries are equal when their names are equal and their trees are equal in every
// respect (Properties::CompareAll: order, types, attributes, names).
//
// Persistence (id "ProcessingRecordComponent"): one sub-tree per frame, named by its decimal
// index ("0", "1", ...); in it one sub-tree per entry, in order, named by the entry's name and
// holding a copy of its configuration. configure reads the frame sub-trees in order, whatever
// their names, and takes the names of the entry sub-trees as the entries' names. A record with no
// frames writes nothing.

#include "host/core/Properties.h"
#include "host/data/DataComponent.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Velmoria::ML {

class DataElement;
class Operation;

class ProcessingRecordComponent : public DataComponent<ProcessingRecordComponent>
{
public:
    struct Entry
    {
        std::string name;
        Properties config;

        bool operator==(Entry const& other) const
        {
            return name == other.name && config.compareWith(other.config, Properties::CompareAll);
        }
    };
    using Entries = std::vector<Entry>;

    ProcessingRecordComponent() = default;
    explicit ProcessingRecordComponent(std::vector<Entries> records);

    std::string id() const override { return "ProcessingRecordComponent"; }
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    std::vector<Entries> const& records() const { return m_records; }
    std::size_t frameCount() const { return m_records.size(); }
    // A copy of the frame's list; empty for a frame that does not exist.
    Entries operator[](std::size_t frame) const;

    // Appends one entry (a copy of `properties` without its root name) to every frame's list.
    void recordProcessing(std::string const& name, Properties const& properties);
    // The operation's name and current configuration().
    void recordProcessing(Operation const& operation);

    // Appends other's frames after this one's (contents stacked in this order).
    ProcessingRecordComponent& operator+=(ProcessingRecordComponent const& other);
    // Appends one frame with this list.
    ProcessingRecordComponent& operator+=(Entries const& frame);
    ProcessingRecordComponent operator+(ProcessingRecordComponent const& other) const;
    ProcessingRecordComponent operator+(Entries const& frame) const;

    bool operator==(ProcessingRecordComponent const& other) const { return m_records == other.m_records; }

    // The recorder that Operation puts first in postProcessHooks: gets or creates the element's
    // record (a new one with one empty list per sample of the batch) and records the operation.
    // Does nothing for a null element.
    static void recordProcessingHook(Operation& operation, DataElement* element);
    // Installs recordProcessingHook with Operation::setProcessingRecordHook; operations
    // constructed afterwards record themselves.
    static void installProcessingRecordHook();

private:
    std::vector<Entries> m_records;
};

} // namespace Velmoria::ML

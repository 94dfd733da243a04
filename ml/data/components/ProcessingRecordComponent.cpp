#include "ml/data/components/ProcessingRecordComponent.h"

#include "ml/data/DataElement.h"
#include "ml/operations/Operation.h"

#include <string>

namespace Velmoria::ML {

namespace {
// The entry keeps the values, types, attributes and sub-trees, but not the root's name: the
// name of a tree read back from a file is the entry's name, and keeping it would make a record
// differ from itself after a round trip.
Properties copyWithoutName(Properties const& properties)
{
    Properties copy;
    copy.copyFrom(properties, Properties::CopyDefault);
    return copy;
}
} // namespace

ProcessingRecordComponent::ProcessingRecordComponent(std::vector<Entries> records)
    : m_records(std::move(records))
{}

ProcessingRecordComponent::Entries ProcessingRecordComponent::operator[](std::size_t frame) const
{
    return frame < m_records.size() ? m_records[frame] : Entries{};
}

void ProcessingRecordComponent::recordProcessing(std::string const& name, Properties const& properties)
{
    if (m_records.empty())
        return;
    Entry const entry{name, copyWithoutName(properties)};
    for (Entries& frame : m_records)
        frame.push_back(entry);
}

void ProcessingRecordComponent::recordProcessing(Operation const& operation)
{
    // Nothing to append to: spare building the configuration.
    if (m_records.empty())
        return;
    recordProcessing(operation.name(), operation.configuration());
}

ProcessingRecordComponent& ProcessingRecordComponent::operator+=(ProcessingRecordComponent const& other)
{
    // A copy first: `other` may be this record.
    std::vector<Entries> const frames = other.m_records;
    m_records.insert(m_records.end(), frames.begin(), frames.end());
    return *this;
}

ProcessingRecordComponent& ProcessingRecordComponent::operator+=(Entries const& frame)
{
    m_records.push_back(frame);
    return *this;
}

ProcessingRecordComponent ProcessingRecordComponent::operator+(ProcessingRecordComponent const& other) const
{
    ProcessingRecordComponent sum(*this);
    sum += other;
    return sum;
}

ProcessingRecordComponent ProcessingRecordComponent::operator+(Entries const& frame) const
{
    ProcessingRecordComponent sum(*this);
    sum += frame;
    return sum;
}

void ProcessingRecordComponent::configure(Properties const* properties)
{
    if (!properties)
        return;
    m_records.clear();
    for (Properties const* frameTree : properties->subProperties()) {
        Entries frame;
        for (Properties const* entryTree : frameTree->subProperties())
            frame.push_back({entryTree->name(), copyWithoutName(*entryTree)});
        m_records.push_back(std::move(frame));
    }
}

void ProcessingRecordComponent::configuration(Properties* properties) const
{
    if (!properties)
        return;
    for (std::size_t i = 0; i < m_records.size(); ++i) {
        Properties* frameTree = properties->addSubProperties(std::to_string(i));
        for (Entry const& entry : m_records[i])
            frameTree->addSubProperties(entry.name)->copyFrom(entry.config, Properties::CopyDefault);
    }
}

void ProcessingRecordComponent::recordProcessingHook(Operation& operation, DataElement* element)
{
    if (!element)
        return;
    DataComponentList& components = element->components();
    auto* record = components.get<ProcessingRecordComponent>();
    if (!record) {
        // A new record starts with the content: one empty list per sample, so that this first
        // operation is recorded on every frame.
        record = components.add(
            std::make_unique<ProcessingRecordComponent>(std::vector<Entries>(element->batchSize())));
    }
    record->recordProcessing(operation);
}

void ProcessingRecordComponent::installProcessingRecordHook()
{
    Operation::setProcessingRecordHook(&ProcessingRecordComponent::recordProcessingHook);
}

} // namespace Velmoria::ML

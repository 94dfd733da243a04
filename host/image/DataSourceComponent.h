#pragma once

// DataSourceComponent: where the frames of an image set came from, one entry per frame (file,
// the IO algorithm that read it, the frame's index inside the file, a short summary). Batching
// code keeps it in step with the frames: splitting a set gives each part its own entry, stacking
// concatenates them (operator+=).
//
// Persistence: sub-trees "Source 1", "Source 2", ... with the keys "filename", "ioAlgorithm",
// "index" and "summary".

#include "host/data/DataComponent.h"

#include <string>
#include <vector>

namespace Velmoria {

struct DataSourceInfo
{
    std::string filename;
    std::string ioAlgorithm;
    int index = 0; // the frame's index inside the file
    std::string summary;

    bool operator==(DataSourceInfo const&) const = default;
};

class DataSourceComponent : public DataComponent<DataSourceComponent>, public PersistentDataComponent
{
public:
    DataSourceComponent() = default;
    explicit DataSourceComponent(std::vector<DataSourceInfo> sources)
        : m_sources(std::move(sources))
    {}

    std::string id() const override { return "DataSourceComponent"; }
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    std::vector<DataSourceInfo> const& sources() const { return m_sources; }
    std::vector<DataSourceInfo>& sources() { return m_sources; }
    void add(DataSourceInfo info) { m_sources.push_back(std::move(info)); }

    // Appends the other's entries (the frames of a stacked set follow each other).
    DataSourceComponent& operator+=(DataSourceComponent const& other);
    bool operator==(DataSourceComponent const& other) const { return m_sources == other.m_sources; }

private:
    std::vector<DataSourceInfo> m_sources;
};

} // namespace Velmoria

#pragma once

// DatasetLicenseComponent: the dataset each frame of an image set came from, with its licence,
// so that training data built from public collections keeps its terms attached. One entry per
// frame, kept in step with the frames like DataSourceComponent.
//
// Persistence: sub-trees "Dataset 1", ... with "name", "license", "attribution" and "url".

#include "host/data/DataComponent.h"

#include <string>
#include <vector>

namespace Velmoria {

struct DatasetInfo
{
    std::string name;
    std::string license;     // e.g. "CC-BY-4.0"
    std::string attribution; // the citation the licence asks for
    std::string url;

    bool operator==(DatasetInfo const&) const = default;
};

class DatasetLicenseComponent : public DataComponent<DatasetLicenseComponent>, public PersistentDataComponent
{
public:
    DatasetLicenseComponent() = default;
    explicit DatasetLicenseComponent(std::vector<DatasetInfo> infos)
        : m_infos(std::move(infos))
    {}

    std::string id() const override { return "DatasetLicenseComponent"; }
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    std::vector<DatasetInfo> const& infos() const { return m_infos; }
    std::vector<DatasetInfo>& infos() { return m_infos; }

    bool operator==(DatasetLicenseComponent const& other) const { return m_infos == other.m_infos; }

private:
    std::vector<DatasetInfo> m_infos;
};

} // namespace Velmoria

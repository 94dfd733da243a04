#include "host/image/DatasetLicenseComponent.h"

#include "host/core/Properties.h"

#include <fmt/core.h>

namespace Velmoria {

void DatasetLicenseComponent::configure(Properties const* properties)
{
    if (!properties)
        return;
    m_infos.clear();
    for (int i = 1;; ++i) {
        Properties const* block = properties->findSubProperties(fmt::format("Dataset {}", i));
        if (!block)
            break;
        DatasetInfo info;
        block->param("name", info.name);
        block->param("license", info.license);
        block->param("attribution", info.attribution);
        block->param("url", info.url);
        m_infos.push_back(std::move(info));
    }
}

void DatasetLicenseComponent::configuration(Properties* properties) const
{
    if (!properties)
        return;
    for (std::size_t i = 0; i < m_infos.size(); ++i) {
        Properties* block = properties->addSubProperties(fmt::format("Dataset {}", i + 1));
        block->setParam("name", m_infos[i].name);
        block->setParam("license", m_infos[i].license);
        block->setParam("attribution", m_infos[i].attribution);
        block->setParam("url", m_infos[i].url);
    }
}

} // namespace Velmoria

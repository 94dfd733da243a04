#include "host/image/DataSourceComponent.h"

#include "host/core/Properties.h"

#include <fmt/core.h>

namespace Velmoria {

void DataSourceComponent::configure(Properties const* properties)
{
    if (!properties)
        return;
    m_sources.clear();
    for (int i = 1;; ++i) {
        Properties const* block = properties->findSubProperties(fmt::format("Source {}", i));
        if (!block)
            break;
        DataSourceInfo info;
        block->param("filename", info.filename);
        block->param("ioAlgorithm", info.ioAlgorithm);
        block->param("index", info.index);
        block->param("summary", info.summary);
        m_sources.push_back(std::move(info));
    }
}

void DataSourceComponent::configuration(Properties* properties) const
{
    if (!properties)
        return;
    for (std::size_t i = 0; i < m_sources.size(); ++i) {
        Properties* block = properties->addSubProperties(fmt::format("Source {}", i + 1));
        block->setParam("filename", m_sources[i].filename);
        block->setParam("ioAlgorithm", m_sources[i].ioAlgorithm);
        block->setParam("index", m_sources[i].index);
        block->setParam("summary", m_sources[i].summary);
    }
}

DataSourceComponent& DataSourceComponent::operator+=(DataSourceComponent const& other)
{
    if (&other == this) {
        auto copy = other.m_sources;
        m_sources.insert(m_sources.end(), copy.begin(), copy.end());
    } else
        m_sources.insert(m_sources.end(), other.m_sources.begin(), other.m_sources.end());
    return *this;
}

} // namespace Velmoria

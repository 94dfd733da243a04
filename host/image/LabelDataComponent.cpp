#include "host/image/LabelDataComponent.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <fmt/core.h>

namespace Velmoria {

void LabelDataComponent::configure(Properties const* properties)
{
    if (!properties)
        return;
    m_labels.clear();
    for (Properties const* block : properties->subProperties()) {
        int value = 0;
        if (!block->param("value", value)) {
            VELMORIA_LOG_WARNING("Host.LabelDataComponent",
                                 "Skipping the label block '{}': it has no integer 'value'", block->name());
            continue;
        }
        Label label;
        block->param("name", label.name);
        block->param("color", label.color);
        m_labels[value] = std::move(label);
    }
}

void LabelDataComponent::configuration(Properties* properties) const
{
    if (!properties)
        return;
    for (auto const& [value, label] : m_labels) {
        Properties* block = properties->addSubProperties(fmt::format("Label {}", value));
        block->setParam("value", value);
        block->setParam("name", label.name);
        block->setParam("color", label.color);
    }
}

void LabelDataComponent::setLabel(int value, std::string name, Eigen::Vector4d const& color)
{
    m_labels[value] = Label{std::move(name), color};
}

std::optional<LabelDataComponent::Label> LabelDataComponent::label(int value) const
{
    auto it = m_labels.find(value);
    if (it == m_labels.end())
        return std::nullopt;
    return it->second;
}

std::string LabelDataComponent::labelName(int value) const
{
    auto it = m_labels.find(value);
    return it == m_labels.end() || it->second.name.empty() ? fmt::format("Label {}", value) : it->second.name;
}

} // namespace Velmoria

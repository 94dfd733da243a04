#pragma once

// LabelDataComponent: the names and colours of the values of a label map ("1: liver, red").
// Segmentation models attach it to their output so that viewers and metrics can name classes.
//
// Persistence: one sub-tree "Label <value>" per label with "value", "name" and "color" (RGBA,
// 0 to 1).

#include "host/data/DataComponent.h"

#include <Eigen/Core>
#include <map>
#include <optional>
#include <string>

namespace Velmoria {

class LabelDataComponent : public DataComponent<LabelDataComponent>, public PersistentDataComponent
{
public:
    struct Label
    {
        std::string name;
        Eigen::Vector4d color = Eigen::Vector4d(1, 1, 1, 1);
        bool operator==(Label const& other) const { return name == other.name && color == other.color; }
    };

    std::string id() const override { return "LabelDataComponent"; }
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    void setLabel(int value, std::string name, Eigen::Vector4d const& color = Eigen::Vector4d(1, 1, 1, 1));
    bool removeLabel(int value) { return m_labels.erase(value) > 0; }
    std::optional<Label> label(int value) const;
    // The name of a value, or "Label <value>" when it has none.
    std::string labelName(int value) const;
    std::map<int, Label> const& labels() const { return m_labels; }

    bool operator==(LabelDataComponent const& other) const { return m_labels == other.m_labels; }

private:
    std::map<int, Label> m_labels;
};

} // namespace Velmoria

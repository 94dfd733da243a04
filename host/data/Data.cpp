#include "host/data/Data.h"

#include "host/core/Log.h"
#include "host/core/Platform.h"
#include "host/core/String.h"

#include <fmt/format.h>

#include <Eigen/LU>
#include <array>
#include <charconv>

namespace Velmoria {

namespace {

constexpr std::array<std::string_view, 11> modalityNames = {
    "Unknown", "Ultrasound", "Xray",  "MRI",           "CT",         "NuclearMedicine",
    "PET",     "Photograph", "Label", "DistanceField", "Probability"};

std::string_view kindName(Data::Kind kind)
{
    switch (kind) {
    case Data::Kind::Image:
        return "Image";
    case Data::Kind::PointCloud:
        return "PointCloud";
    case Data::Kind::Mesh:
        return "Mesh";
    case Data::Kind::Compound:
        return "Compound";
    case Data::Kind::Graph:
        return "Graph";
    case Data::Kind::Annotation:
        return "Annotation";
    case Data::Kind::Other:
        return "Other";
    default:
        return "Data";
    }
}

} // namespace

Data::Data() = default;

Data::Data(std::string name)
    : m_name(std::move(name))
{}

Data::~Data() = default;

std::string Data::modalityString(Modality modality)
{
    auto index = static_cast<int>(modality);
    if (index < 0 || index >= static_cast<int>(modalityNames.size()))
        return "Unknown";
    return std::string(modalityNames[static_cast<std::size_t>(index)]);
}

std::optional<Data::Modality> Data::modalityFromString(std::string_view text)
{
    std::string_view trimmed = String::trimView(text);
    for (std::size_t i = 0; i < modalityNames.size(); ++i)
        if (String::equalsIgnoreCase(trimmed, modalityNames[i]))
            return static_cast<Modality>(i);
    int number = -1;
    auto [end, error] = std::from_chars(trimmed.data(), trimmed.data() + trimmed.size(), number);
    if (error == std::errc() && end == trimmed.data() + trimmed.size() && number >= 0 &&
        number < static_cast<int>(modalityNames.size()))
        return static_cast<Modality>(number);
    VELMORIA_LOG_WARNING("Host.Data", "Unknown modality '{}'", text);
    return std::nullopt;
}

Data::Kind Data::kindMask(std::initializer_list<Kind> kinds)
{
    Kind mask = Kind::Unknown;
    for (Kind k : kinds)
        mask = mask | k;
    return mask;
}

bool Data::kindMatches(Kind kind, Kind query)
{
    return query == Kind::Unknown || (static_cast<int>(kind) & static_cast<int>(query)) != 0;
}

Eigen::Matrix4d Data::matrixToWorld() const
{
    return matrixConvention() == 0 ? matrix() : Eigen::Matrix4d(matrix().inverse());
}

Eigen::Matrix4d Data::matrixFromWorld() const
{
    return matrixConvention() == 0 ? Eigen::Matrix4d(matrix().inverse()) : matrix();
}

void Data::setMatrixToWorld(Eigen::Matrix4d const& matrix)
{
    setMatrix(matrixConvention() == 0 ? matrix : Eigen::Matrix4d(matrix.inverse()));
}

void Data::setMatrixFromWorld(Eigen::Matrix4d const& matrix)
{
    setMatrix(matrixConvention() == 0 ? Eigen::Matrix4d(matrix.inverse()) : matrix);
}

std::string Data::describe() const
{
    return fmt::format("{} '{}' ({})", kindName(kind()), m_name, modalityString(modality()));
}

bool Data::swapWith(Data& other)
{
    if (&other == this)
        return true;
    if (typeid(*this) != typeid(other)) {
        VELMORIA_LOG_ERROR("Host.Data", "Cannot swap a {} with a {}",
                           Platform::demangleTypeName(typeid(*this)),
                           Platform::demangleTypeName(typeid(other)));
        return false;
    }
    std::swap(m_name, other.m_name);
    std::swap(m_modality, other.m_modality);
    std::swap(m_matrix, other.m_matrix);
    DataComponentList mine(std::move(m_components));
    m_components = std::move(other.m_components);
    other.m_components = std::move(mine);
    swapContent(other);
    return true;
}

} // namespace Velmoria

#include "host/data/PointCloud.h"

#include "host/core/Log.h"

#include <fmt/format.h>

#include <Eigen/Geometry>

namespace Velmoria {

PointCloud::PointCloud(std::size_t count, bool withNormals, std::string name)
    : PointCloud(std::vector<Eigen::Vector3d>(count, Eigen::Vector3d::Zero()), withNormals, false,
                 std::move(name))
{}

PointCloud::PointCloud(std::vector<Eigen::Vector3d> points, bool withNormals, bool withColors,
                       std::string name)
    : Data(std::move(name))
{
    m_content.points = std::move(points);
    if (withNormals)
        m_content.normals.assign(m_content.points.size(), Eigen::Vector3d::Zero());
    if (withColors)
        m_content.colors.assign(m_content.points.size(), Eigen::Vector4f(0.f, 0.f, 0.f, 1.f));
}

Geometry::AlignedBox PointCloud::bounds() const
{
    Geometry::AlignedBox box;
    Eigen::Matrix4d toWorld = matrixToWorld();
    for (auto const& p : m_content.points)
        box.addPoint((toWorld * p.homogeneous()).head<3>());
    return box;
}

std::string PointCloud::describe() const
{
    return fmt::format("PointCloud '{}' ({} points{}{}{})", name(), size(), hasNormals() ? ", normals" : "",
                       hasColors() ? ", colors" : "", hasLabels() ? ", labels" : "");
}

std::unique_ptr<PointCloud> PointCloud::clone() const
{
    auto copy = std::make_unique<PointCloud>(m_content.points, false, false, name());
    copy->m_content = m_content;
    copy->setModality(modality());
    copy->setMatrix(matrix());
    copy->components().assign(components());
    return copy;
}

bool PointCloud::checkSize(std::size_t count, char const* what) const
{
    if (count == 0 || count == size())
        return true;
    VELMORIA_LOG_ERROR("Host.PointCloud", "Cannot set {} of point cloud '{}': {} values for {} points", what,
                       name(), count, size());
    return false;
}

bool PointCloud::setPoint(std::size_t index, Eigen::Vector3d const& point)
{
    if (index >= size()) {
        VELMORIA_LOG_ERROR("Host.PointCloud", "Point index {} out of range in point cloud '{}' of {} points",
                           index, name(), size());
        return false;
    }
    m_content.points[index] = point;
    return true;
}

bool PointCloud::setNormals(std::vector<Eigen::Vector3d> normals)
{
    if (!checkSize(normals.size(), "normals"))
        return false;
    m_content.normals = std::move(normals);
    return true;
}

bool PointCloud::setColors(std::vector<Eigen::Vector4f> colors)
{
    if (!checkSize(colors.size(), "colors"))
        return false;
    m_content.colors = std::move(colors);
    return true;
}

bool PointCloud::setLabels(std::vector<int>&& labels)
{
    if (!checkSize(labels.size(), "labels"))
        return false;
    m_content.labels = std::move(labels);
    return true;
}

PointCloud::Content PointCloud::takeData()
{
    Content content = std::move(m_content);
    m_content = Content{};
    return content;
}

void PointCloud::swapContent(Data& other)
{
    std::swap(m_content, static_cast<PointCloud&>(other).m_content);
}

} // namespace Velmoria

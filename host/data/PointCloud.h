#pragma once

// PointCloud: a set of 3-D points in the cloud's own coordinates, with optional per-point
// normals, colours and integer labels. matrix() places the cloud in the world (Data's
// convention 0), and bounds() is in world coordinates.
//
// The two constructor flags are, in order, `withNormals` and `withColors`: when set, a normal
// (zero) and a colour (opaque black) per point are allocated, to be filled by setNormals /
// setColors or per point. Colours are RGBA floats in [0, 1]; labels are ints (0 = unlabelled),
// wide enough for any label map value.
//
// Invariant: each attribute is either absent (empty) or has one entry per point. Setters that
// would break it return false, log the sizes and leave the cloud unchanged.

#include "host/data/Data.h"

#include <Eigen/Core>
#include <string>
#include <vector>

namespace Velmoria {

class PointCloud : public Data
{
public:
    // Everything a cloud holds per point, as handed out by takeData().
    struct Content
    {
        std::vector<Eigen::Vector3d> points;
        std::vector<Eigen::Vector3d> normals;
        std::vector<Eigen::Vector4f> colors;
        std::vector<int> labels;
    };

    // `count` points at the origin.
    PointCloud(std::size_t count = 0, bool withNormals = false, std::string name = {});
    PointCloud(std::vector<Eigen::Vector3d> points, bool withNormals, bool withColors, std::string name = {});

    Kind kind() const override { return Kind::PointCloud; }
    Geometry::AlignedBox bounds() const override;
    std::string describe() const override;
    std::unique_ptr<PointCloud> clone() const;

    std::size_t size() const { return m_content.points.size(); }
    std::vector<Eigen::Vector3d> const& points() const { return m_content.points; }
    std::vector<Eigen::Vector3d> const& normals() const { return m_content.normals; }
    std::vector<Eigen::Vector4f> const& colors() const { return m_content.colors; }
    std::vector<int> const& labels() const { return m_content.labels; }
    bool hasNormals() const { return !m_content.normals.empty(); }
    bool hasColors() const { return !m_content.colors.empty(); }
    bool hasLabels() const { return !m_content.labels.empty(); }

    // Changes one point; false (with a log line) when `index` is out of range.
    bool setPoint(std::size_t index, Eigen::Vector3d const& point);
    // Replace one attribute; the size must equal size() (an empty vector removes it).
    bool setNormals(std::vector<Eigen::Vector3d> normals);
    bool setColors(std::vector<Eigen::Vector4f> colors);
    bool setLabels(std::vector<int>&& labels);

    // Moves everything out; the cloud is left without points.
    Content takeData();

protected:
    void swapContent(Data& other) override;

private:
    bool checkSize(std::size_t size, char const* what) const;

    Content m_content;
};

} // namespace Velmoria

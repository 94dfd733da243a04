#include "host/data/Mesh.h"

#include "host/core/Log.h"

#include <fmt/format.h>

#include <Eigen/Geometry>
#include <algorithm>

namespace Velmoria {

Mesh::Mesh(std::string name)
    : Data(std::move(name))
{}

Mesh::Mesh(std::vector<Eigen::Vector3d> vertices, std::vector<Eigen::Vector3i> faces, std::string name)
    : Data(std::move(name))
    , m_vertices(std::move(vertices))
{
    beginUpdate();
    for (auto const& face : faces)
        addFace(face);
    endUpdate();
}

Geometry::AlignedBox Mesh::bounds() const
{
    Geometry::AlignedBox box;
    Eigen::Matrix4d toWorld = matrixToWorld();
    for (auto const& v : m_vertices)
        box.addPoint((toWorld * v.homogeneous()).head<3>());
    return box;
}

std::string Mesh::describe() const
{
    return fmt::format("Mesh '{}' ({} vertices, {} faces)", name(), numberOfVertices(), numberOfFaces());
}

bool Mesh::validVertex(int i, char const* action) const
{
    if (i >= 0 && i < numberOfVertices())
        return true;
    VELMORIA_LOG_ERROR("Host.Mesh", "Cannot {} vertex {} of mesh '{}' with {} vertices", action, i, name(),
                       numberOfVertices());
    return false;
}

bool Mesh::validFace(int i, char const* action) const
{
    if (i >= 0 && i < numberOfFaces())
        return true;
    VELMORIA_LOG_ERROR("Host.Mesh", "Cannot {} face {} of mesh '{}' with {} faces", action, i, name(),
                       numberOfFaces());
    return false;
}

Eigen::Vector3d Mesh::vertex(int i) const
{
    return validVertex(i, "read") ? m_vertices[static_cast<std::size_t>(i)] : Eigen::Vector3d::Zero();
}

bool Mesh::setVertex(int i, Eigen::Vector3d const& v)
{
    if (!validVertex(i, "set"))
        return false;
    m_vertices[static_cast<std::size_t>(i)] = v;
    changed();
    return true;
}

Eigen::Vector3i Mesh::faceVertices(int i) const
{
    return validFace(i, "read") ? m_faces[static_cast<std::size_t>(i)] : Eigen::Vector3i(-1, -1, -1);
}

int Mesh::addVertex(Eigen::Vector3d const& v)
{
    m_vertices.push_back(v);
    if (hasVertexLabels())
        m_vertexLabels.push_back(0);
    changed();
    return numberOfVertices() - 1;
}

int Mesh::addFace(Eigen::Vector3i const& face)
{
    if ((face.array() < 0).any() || (face.array() >= numberOfVertices()).any()) {
        VELMORIA_LOG_ERROR("Host.Mesh", "Cannot add face ({} {} {}) to mesh '{}' with {} vertices", face.x(),
                           face.y(), face.z(), name(), numberOfVertices());
        return -1;
    }
    m_faces.push_back(face);
    if (hasFaceLabels())
        m_faceLabels.push_back(0);
    changed();
    return numberOfFaces() - 1;
}

void Mesh::ensureCaches() const
{
    // Called with m_cacheMutex held.
    if (m_cacheValid)
        return;
    m_normals.assign(m_vertices.size(), Eigen::Vector3d::Zero());
    m_vertexFaces.assign(m_vertices.size(), {});
    for (std::size_t f = 0; f < m_faces.size(); ++f) {
        Eigen::Vector3i const& face = m_faces[f];
        Eigen::Vector3d const& a = m_vertices[static_cast<std::size_t>(face[0])];
        // The cross product's length is twice the triangle's area: that is the area weighting.
        Eigen::Vector3d weighted = (m_vertices[static_cast<std::size_t>(face[1])] - a)
                                       .cross(m_vertices[static_cast<std::size_t>(face[2])] - a);
        for (int k = 0; k < 3; ++k) {
            auto v = static_cast<std::size_t>(face[k]);
            m_normals[v] += weighted;
            m_vertexFaces[v].push_back(static_cast<int>(f));
        }
    }
    for (auto& n : m_normals) {
        double length = n.norm();
        n = length > 0.0 ? Eigen::Vector3d(n / length) : Eigen::Vector3d::Zero();
    }
    m_cacheValid = true;
}

Eigen::Vector3d Mesh::vertexNormal(int i) const
{
    if (!validVertex(i, "compute the normal of"))
        return Eigen::Vector3d::Zero();
    std::lock_guard lock(m_cacheMutex);
    ensureCaches();
    return m_normals[static_cast<std::size_t>(i)];
}

std::vector<int> Mesh::vertexFaces(int i, bool sorted) const
{
    if (!validVertex(i, "list the faces of"))
        return {};
    std::vector<int> faces;
    {
        std::lock_guard lock(m_cacheMutex);
        ensureCaches();
        faces = m_vertexFaces[static_cast<std::size_t>(i)];
    }
    if (!sorted || faces.size() < 2)
        return faces;

    // For each face, the vertex after i and the one before it (counter-clockwise). The face
    // following face f around i is the one whose "after" vertex is f's "before" vertex.
    auto neighbours = [&](int f) {
        Eigen::Vector3i const& face = m_faces[static_cast<std::size_t>(f)];
        int k = face[0] == i ? 0 : (face[1] == i ? 1 : 2);
        return std::pair<int, int>(face[(k + 1) % 3], face[(k + 2) % 3]);
    };
    std::vector<bool> used(faces.size(), false);
    // Start at a border face: one whose "after" vertex is no other face's "before" vertex.
    std::size_t start = 0;
    for (std::size_t a = 0; a < faces.size(); ++a) {
        int after = neighbours(faces[a]).first;
        bool hasPredecessor = false;
        for (std::size_t b = 0; b < faces.size() && !hasPredecessor; ++b)
            hasPredecessor = b != a && neighbours(faces[b]).second == after;
        if (!hasPredecessor) {
            start = a;
            break;
        }
    }
    std::vector<int> ordered;
    ordered.reserve(faces.size());
    std::size_t current = start;
    while (true) {
        used[current] = true;
        ordered.push_back(faces[current]);
        int before = neighbours(faces[current]).second;
        std::size_t next = faces.size();
        for (std::size_t b = 0; b < faces.size(); ++b)
            if (!used[b] && neighbours(faces[b]).first == before) {
                next = b;
                break;
            }
        if (next == faces.size())
            break;
        current = next;
    }
    for (std::size_t b = 0; b < faces.size(); ++b)
        if (!used[b])
            ordered.push_back(faces[b]);
    return ordered;
}

void Mesh::requestVertexLabels()
{
    if (!hasVertexLabels())
        m_vertexLabels.assign(m_vertices.size(), 0);
}

int Mesh::vertexLabel(int i) const
{
    if (!validVertex(i, "read the label of"))
        return 0;
    return hasVertexLabels() ? m_vertexLabels[static_cast<std::size_t>(i)] : 0;
}

bool Mesh::setVertexLabel(int i, int label)
{
    if (!validVertex(i, "label"))
        return false;
    requestVertexLabels();
    m_vertexLabels[static_cast<std::size_t>(i)] = label;
    return true;
}

void Mesh::requestFaceLabels()
{
    if (!hasFaceLabels())
        m_faceLabels.assign(m_faces.size(), 0);
}

int Mesh::faceLabel(int i) const
{
    if (!validFace(i, "read the label of"))
        return 0;
    return hasFaceLabels() ? m_faceLabels[static_cast<std::size_t>(i)] : 0;
}

bool Mesh::setFaceLabel(int i, int label, bool propagateToVertices)
{
    if (!validFace(i, "label"))
        return false;
    requestFaceLabels();
    m_faceLabels[static_cast<std::size_t>(i)] = label;
    if (propagateToVertices) {
        requestVertexLabels();
        for (int k = 0; k < 3; ++k)
            m_vertexLabels[static_cast<std::size_t>(m_faces[static_cast<std::size_t>(i)][k])] = label;
    }
    return true;
}

void Mesh::beginUpdate()
{
    ++m_updateDepth;
}

void Mesh::endUpdate()
{
    if (m_updateDepth == 0) {
        VELMORIA_LOG_WARNING("Host.Mesh", "endUpdate() without beginUpdate() on mesh '{}'", name());
        return;
    }
    if (--m_updateDepth == 0 && m_changedDuringUpdate) {
        m_changedDuringUpdate = false;
        signalGeometryChanged.emitSignal();
    }
}

void Mesh::changed()
{
    {
        std::lock_guard lock(m_cacheMutex);
        m_cacheValid = false;
    }
    if (m_updateDepth > 0)
        m_changedDuringUpdate = true;
    else
        signalGeometryChanged.emitSignal();
}

void Mesh::swapContent(Data& other)
{
    auto& o = static_cast<Mesh&>(other);
    std::swap(m_vertices, o.m_vertices);
    std::swap(m_faces, o.m_faces);
    std::swap(m_vertexLabels, o.m_vertexLabels);
    std::swap(m_faceLabels, o.m_faceLabels);
    changed();
    o.changed();
}

} // namespace Velmoria

#pragma once

// Mesh: a triangle surface: vertices (in the mesh's own coordinates, placed in the world by
// matrix()), faces as three vertex indices in counter-clockwise order seen from outside, and
// optional integer labels per vertex and per face (0 = unlabelled).
//
// Derived data are computed on demand and cached: area-weighted vertex normals (each face adds
// its unnormalised cross product, whose length is twice its area, to its three vertices; an
// unused vertex has a zero normal) and the vertex-to-face adjacency. Any change invalidates the
// caches. Changes made between beginUpdate() and endUpdate() (which nest) are announced once,
// by signalGeometryChanged at the outermost endUpdate(); outside such a bracket each change is
// announced at once. The caches are guarded by a mutex, so const queries may run on several
// threads; changes may not run alongside anything.
//
// The bool arguments:
// - vertexFaces(i, sorted): false lists the faces using vertex i by ascending face index; true
//   orders them around the vertex (each face shares an edge with the next, counter-clockwise,
//   starting at a border face when the vertex is on the border). Faces that the walk cannot
//   reach (non-manifold vertices) follow in index order.
// - setFaceLabel(i, label, propagateToVertices): true also gives the face's three vertices the
//   label (creating vertex labels when there were none).
//
// Bad indices never crash: queries give zero/empty and log, setters return false and log.

#include "host/core/Signal.h"
#include "host/data/Data.h"

#include <Eigen/Core>
#include <mutex>
#include <string>
#include <vector>

namespace Velmoria {

class Mesh : public Data
{
public:
    explicit Mesh(std::string name = {});
    Mesh(std::vector<Eigen::Vector3d> vertices, std::vector<Eigen::Vector3i> faces, std::string name = {});

    Kind kind() const override { return Kind::Mesh; }
    Geometry::AlignedBox bounds() const override;
    std::string describe() const override;

    int numberOfVertices() const { return static_cast<int>(m_vertices.size()); }
    int numberOfFaces() const { return static_cast<int>(m_faces.size()); }

    Eigen::Vector3d vertex(int i) const;
    bool setVertex(int i, Eigen::Vector3d const& v);
    // Unit length (zero for a vertex no face uses).
    Eigen::Vector3d vertexNormal(int i) const;
    Eigen::Vector3i faceVertices(int i) const;
    std::vector<int> vertexFaces(int i, bool sorted = false) const;

    // Building: return the new index, or -1 (logged) for a face naming a missing vertex.
    int addVertex(Eigen::Vector3d const& v);
    int addFace(Eigen::Vector3i const& face);

    bool hasVertexLabels() const { return !m_vertexLabels.empty(); }
    void requestVertexLabels();
    int vertexLabel(int i) const;
    bool setVertexLabel(int i, int label);
    bool hasFaceLabels() const { return !m_faceLabels.empty(); }
    // Creates face labels (all 0) when there are none.
    void requestFaceLabels();
    int faceLabel(int i) const;
    bool setFaceLabel(int i, int label, bool propagateToVertices = false);

    void beginUpdate();
    void endUpdate();

    Signal<> signalGeometryChanged;

protected:
    void swapContent(Data& other) override;

private:
    bool validVertex(int i, char const* action) const;
    bool validFace(int i, char const* action) const;
    void changed();
    void ensureCaches() const;

    std::vector<Eigen::Vector3d> m_vertices;
    std::vector<Eigen::Vector3i> m_faces;
    std::vector<int> m_vertexLabels;
    std::vector<int> m_faceLabels;
    int m_updateDepth = 0;
    bool m_changedDuringUpdate = false;

    mutable std::mutex m_cacheMutex;
    mutable bool m_cacheValid = false;
    mutable std::vector<Eigen::Vector3d> m_normals;
    mutable std::vector<std::vector<int>> m_vertexFaces;
};

} // namespace Velmoria

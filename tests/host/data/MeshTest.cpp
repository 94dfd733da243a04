// Meshes: area-weighted vertex normals kept up to date, faces around a vertex, labels, refusals.

#include "host/data/Mesh.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

using namespace Velmoria;
using Eigen::Vector3d;
using Eigen::Vector3i;

namespace {

// A regular tetrahedron on alternate cube corners, faces counter-clockwise seen from outside:
// by symmetry each vertex normal points from the centre (the origin) to the vertex.
Mesh tetrahedron()
{
    return Mesh({Vector3d(1, 1, 1), Vector3d(1, -1, -1), Vector3d(-1, 1, -1), Vector3d(-1, -1, 1)},
                {Vector3i(0, 1, 2), Vector3i(0, 3, 1), Vector3i(0, 2, 3), Vector3i(1, 3, 2)}, "tetra");
}

// A fan of four triangles around vertex 0, listed out of order.
Mesh fan()
{
    return Mesh(
        {Vector3d(0, 0, 0), Vector3d(1, 0, 0), Vector3d(0, 1, 0), Vector3d(-1, 0, 0), Vector3d(0, -1, 0)},
        {Vector3i(0, 3, 4), Vector3i(0, 1, 2), Vector3i(0, 4, 1), Vector3i(0, 2, 3)}, "fan");
}

} // namespace

TEST(Mesh, NormalsAreAreaWeightedPointOutwardAndFollowChanges)
{
    Mesh tetra = tetrahedron();
    for (int i = 0; i < tetra.numberOfVertices(); ++i)
        EXPECT_TRUE(tetra.vertexNormal(i).isApprox(tetra.vertex(i).normalized(), 1e-12)) << "vertex " << i;

    // Vertex 0 is shared by a triangle of area 2 in the xy-plane (normal +z) and one of area 0.5
    // in the xz-plane (normal +y): the normal is (0, 0.5, 2) normalised.
    Mesh mesh({Vector3d(0, 0, 0), Vector3d(2, 0, 0), Vector3d(0, 2, 0), Vector3d(0, 0, 1), Vector3d(1, 0, 0)},
              {Vector3i(0, 1, 2), Vector3i(0, 3, 4)});
    EXPECT_TRUE(mesh.vertexNormal(0).isApprox(Vector3d(0, 0.5, 2).normalized(), 1e-12));
    EXPECT_TRUE(mesh.vertexNormal(1).isApprox(Vector3d::UnitZ()));
    mesh.addVertex(Vector3d(5, 5, 5));
    EXPECT_EQ(mesh.vertexNormal(5), Vector3d::Zero()) << "an unused vertex has no normal";

    // Doubling the height of the second triangle doubles its weight; the cached normals and the
    // bounds must notice, and one signal comes at the end of the update.
    int signals = 0;
    mesh.signalGeometryChanged.connect([&] { ++signals; });
    mesh.beginUpdate();
    mesh.setVertex(3, Vector3d(0, 0, 2));
    mesh.setVertex(5, Vector3d(0, 0, 6));
    EXPECT_EQ(signals, 0);
    mesh.endUpdate();
    EXPECT_EQ(signals, 1);
    EXPECT_TRUE(mesh.vertexNormal(0).isApprox(Vector3d(0, 1, 2).normalized(), 1e-12));
    EXPECT_TRUE(mesh.bounds().max().isApprox(Vector3d(2, 2, 6)));
}

TEST(Mesh, VertexFacesInIndexOrderOrAroundTheVertex)
{
    Mesh mesh = fan();
    EXPECT_EQ(mesh.vertexFaces(0, false), (std::vector<int>{0, 1, 2, 3}));
    std::vector<int> ring = mesh.vertexFaces(0, true);
    ASSERT_EQ(ring.size(), 4u);
    // Consecutive faces share an edge: the "before" vertex of one is the "after" of the next.
    for (std::size_t k = 0; k + 1 < ring.size(); ++k) {
        Vector3i a = mesh.faceVertices(ring[k]);
        Vector3i b = mesh.faceVertices(ring[k + 1]);
        EXPECT_EQ(a[2], b[1]) << "faces " << ring[k] << " and " << ring[k + 1];
    }
    EXPECT_EQ(mesh.vertexFaces(1, false), (std::vector<int>{1, 2}));

    // Removing one triangle opens the fan: the walk must start at the border face.
    Mesh open(
        {Vector3d(0, 0, 0), Vector3d(1, 0, 0), Vector3d(0, 1, 0), Vector3d(-1, 0, 0), Vector3d(0, -1, 0)},
        {Vector3i(0, 3, 4), Vector3i(0, 1, 2), Vector3i(0, 2, 3)});
    EXPECT_EQ(open.vertexFaces(0, true), (std::vector<int>{1, 2, 0}));
}

TEST(Mesh, FaceLabelsAndPropagation)
{
    Mesh mesh = tetrahedron();
    EXPECT_FALSE(mesh.hasFaceLabels());
    mesh.requestFaceLabels();
    EXPECT_TRUE(mesh.hasFaceLabels());
    EXPECT_EQ(mesh.faceLabel(2), 0);
    EXPECT_TRUE(mesh.setFaceLabel(2, 7, false));
    EXPECT_EQ(mesh.faceLabel(2), 7);
    EXPECT_FALSE(mesh.hasVertexLabels());
    EXPECT_TRUE(mesh.setFaceLabel(3, 9, true));
    ASSERT_TRUE(mesh.hasVertexLabels());
    EXPECT_EQ(mesh.vertexLabel(0), 0);
    EXPECT_EQ(mesh.vertexLabel(1), 9);
    EXPECT_EQ(mesh.vertexLabel(2), 9);
    EXPECT_EQ(mesh.vertexLabel(3), 9);
    mesh.addVertex(Vector3d::Zero());
    EXPECT_EQ(mesh.vertexLabel(4), 0);
}

TEST(Mesh, BadIndicesAreRefusedWithALogLine)
{
    Mesh mesh = tetrahedron();
    Log::Capture capture;
    EXPECT_EQ(mesh.addFace(Vector3i(0, 1, 4)), -1);
    EXPECT_TRUE(capture.contains("Cannot add face (0 1 4) to mesh 'tetra' with 4 vertices", "Host.Mesh"));
    EXPECT_EQ(mesh.numberOfFaces(), 4);
    EXPECT_FALSE(mesh.setVertex(-1, Vector3d::Zero()));
    EXPECT_TRUE(capture.contains("Cannot set vertex -1 of mesh 'tetra' with 4 vertices", "Host.Mesh"));
    EXPECT_EQ(mesh.vertexNormal(4), Vector3d::Zero());
    EXPECT_TRUE(mesh.vertexFaces(9).empty());
    EXPECT_FALSE(mesh.setFaceLabel(4, 1));
    EXPECT_EQ(mesh.faceVertices(4), Vector3i(-1, -1, -1));
}

#pragma once

#include <cstdint>

namespace Project {

// A map from the vertices of the sphere mesh (OctaMap, N x N vertices,
// vertex (i, j) = column i, row j) onto the flat output plane. Every consumer
// (renderer, constraint display, editor) reads warps through this interface
// only: closed-form projections and the mesh solver alike.
//
// Output-plane units are radians of the unit sphere (scale 1 at the centre of
// the view for the closed forms); x grows to the right, like the photo's
// longitude, and y grows with the latitude, that is downwards in the photo
// (the stereographic form gives y = k sin phi). The renderer turns y over
// for its own upward plane.
class SphereWarp {
public:
    virtual ~SphereWarp() = default;

    // Vertex (i, j) may be used: its direction sees the source picture.
    virtual bool IsVertexValid(int32_t i, int32_t j) const = 0;
    // The quad whose lowest corner is (i, j) may be drawn (all four corners valid).
    virtual bool IsQuadValid(int32_t i, int32_t j) const = 0;
    // Output-plane position of vertex (i, j); meaningful only for valid vertices.
    virtual void GetVertexPosition(int32_t i, int32_t j, float& x, float& y) const = 0;
    // Bring the warp up to date.
    virtual void Solve() = 0;
    // The warp holds a usable result; positions must not be read otherwise.
    virtual bool IsSolved() const { return true; }
    // Discard what was assembled and rebuild it.
    virtual void ResetSystem() {}

    // Number of vertices along each side of the mesh (N).
    virtual int32_t MeshSize() const = 0;

protected:
    SphereWarp() = default;
    SphereWarp(const SphereWarp&) = default;
    SphereWarp& operator=(const SphereWarp&) = default;
};

}  // namespace Project

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Project {

class SphereWarp;
class OctaMap;
class PhotoToSphere;

// A rectangle of texture coordinates, [u0, u1] x [v0, v1].
struct TextureBox {
    float u0 = 0.0f;
    float v0 = 0.0f;
    float u1 = 1.0f;
    float v1 = 1.0f;

    bool Contains(float u, float v) const { return u >= u0 && u <= u1 && v >= v0 && v <= v1; }
    friend bool operator==(const TextureBox&, const TextureBox&) = default;
};

// What the renderer needs of a solved warp, copied out once per mesh change:
// for each of the N x N vertices (vertex (i, j) at index i + j * N) its
// output-plane position (SphereWarp units, with y turned over: x right, y
// up in the picture) and its texture
// coordinate in the source ((u, v) = (0, 0) top-left, (1, 1) bottom-right, as
// PhotoToSphere::ToTexture gives it), and for each of the (N - 1)^2 quads
// (quad (i, j), lowest corner (i, j), at index i + j * (N - 1)) whether it may
// be drawn. Positions and texture coordinates of vertices that belong to no
// valid quad are unspecified (zero).
//
// The content box is the part of the source the picture shows: the whole
// photograph, or less when the warp keeps to a range of angles (a full
// spherical photo within its latitude and longitude ranges, which are
// straight lines of the source). Every triangle is clipped to it exactly
// (RenderPlan), so the picture ends where the content ends, with a smooth
// edge, wherever the mesh's quads happen to fall.
struct RenderMesh {
    int32_t n = 0;                   // vertices per side, N
    std::vector<float> positions;    // 2 per vertex: x, y
    std::vector<float> texcoords;    // 2 per vertex: u, v
    std::vector<uint8_t> quadValid;  // 1 per quad
    TextureBox content;

    int32_t QuadsPerSide() const { return n > 1 ? n - 1 : 0; }
    int32_t VertexIndex(int32_t i, int32_t j) const { return i + j * n; }
    int32_t QuadIndex(int32_t i, int32_t j) const { return i + j * QuadsPerSide(); }
    bool IsQuadValid(int32_t quad) const { return quadValid[static_cast<size_t>(quad)] != 0; }
    int32_t ValidQuadCount() const;
};

// The bounding box of quad (i, j)'s four corners in one of the mesh's
// per-vertex pairs (positions or texcoords).
struct QuadBox {
    double minX, maxX, minY, maxY;
};
QuadBox QuadBounds(const RenderMesh& mesh, const std::vector<float>& pairs, int32_t i, int32_t j);

// The texture coordinate of mesh vertex (i, j).
using TexCoordFunction = std::function<void(int32_t i, int32_t j, float& u, float& v)>;

// Copies a warp into a RenderMesh: quad validity from SphereWarp::IsQuadValid,
// positions from GetVertexPosition, texture coordinates from texCoord, both
// for the corners of valid quads only; quads whose texture coordinates lie
// wholly beside the content box are not drawn. An unsolved warp (IsSolved
// false) gives a mesh without valid quads: nothing is drawn.
RenderMesh BuildRenderMesh(const SphereWarp& warp, const TexCoordFunction& texCoord,
                           const TextureBox& content = {});

// The texture coordinates of the session's mesh under its projection: vertex
// (i, j) gets photo.ToTexture of the mesh's unrotated angles (the same
// direction the warp's validity test sees), moved by half a texel along a
// side of even length so that the GPU samples a pixel's centre where the
// projection puts it. Both objects are captured by
// reference and must outlive the function.
TexCoordFunction MeshTextureCoordinates(const OctaMap& mesh, const PhotoToSphere& photo);
// The texture coordinate of one direction, as MeshTextureCoordinates gives it.
void PhotoTexture(const PhotoToSphere& photo, float lambda, float phi, float& u, float& v);

}  // namespace Project

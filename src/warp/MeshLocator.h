#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "core/Vector3.h"
#include "geometry/PhotoToSphere.h"
#include "warp/OctaMap.h"
#include "warp/SphereWarp.h"

namespace Project {

// Where a sphere direction falls in the mesh: the quad whose lowest corner is
// (i, j), and the bilinear weights of its corners in the order
// (i, j), (i+1, j), (i, j+1), (i+1, j+1) (they sum to 1).
struct QuadLocation {
    int32_t i = -1;
    int32_t j = -1;
    std::array<float, 4> weights{};
};

// Finds the mesh quad that holds a sphere direction (the constraint samples'
// "quad finder"). Built once per mesh; every query is const, allocation-free
// and safe to run on many threads at once.
//
// Method: a quad is the spherical patch spanned by its four unrotated vertex
// directions. Each quad is entered into the cells of a uniform 3-D grid over
// [-1, 1]^3 that its bounding cube meets (the cube around the normalised mean
// of the corners with half side the largest chord to a corner, which holds the
// whole patch). A query looks at the quads of its own cell: for each it maps
// the corners and the query by the gnomonic projection about the quad's centre
// (great circles become straight lines) and inverts the bilinear map there;
// the quad whose parameters (s, t) lie in [0, 1]^2 (to 1e-4) and furthest
// inside wins. The weights are the bilinear weights of (s, t).
class MeshLocator {
public:
    explicit MeshLocator(std::shared_ptr<const OctaMap> mesh);

    // The quad that holds the direction (photo angles: longitude, latitude),
    // or nothing for a non-finite direction or, in theory, a direction that
    // falls through a crack between quads.
    std::optional<QuadLocation> Locate(SphereDirection direction) const;

    const OctaMap& Mesh() const { return *mesh_; }
    const std::shared_ptr<const OctaMap>& MeshRef() const { return mesh_; }
    int32_t Size() const { return n_; }

private:
    struct QuadFrame {
        std::array<float, 3> centre;  // normalised mean of the corners
        std::array<float, 3> e1;      // tangent basis at the centre
        std::array<float, 3> e2;
    };
    bool TryQuad(int32_t quad, const Vec3d& q, double& s, double& t) const;
    int32_t CellOf(double x, double y, double z) const;

    std::shared_ptr<const OctaMap> mesh_;
    int32_t n_ = 0;
    int32_t grid_ = 0;                 // cells per axis
    std::vector<QuadFrame> frames_;    // per quad i + j * (N - 1)
    std::vector<uint32_t> cellStart_;  // grid^3 + 1 offsets into cellQuads_
    std::vector<uint32_t> cellQuads_;  // quad indices, cell by cell
};

// Finds the quad of a warp under a point of the output plane: the inverse of
// the display mapping, for presses on the warped preview. Built from a solved
// warp's valid quads (IsQuadValid) and their output positions, then
// independent of the warp; const queries are thread-safe.
//
// Method: a uniform 2-D grid over the valid quads' extent, about one quad per
// cell, each quad entered into the cells its bounding box meets; a query
// inverts the bilinear map of the candidate quads of its cell. Where the warp
// folds over itself the quad with the point furthest inside wins.
class OutputLocator {
public:
    explicit OutputLocator(const SphereWarp& warp);

    // The valid quad under (x, y) and the bilinear weights of its corners, or
    // nothing outside the valid part of the warp.
    std::optional<QuadLocation> Locate(float x, float y) const;
    // Number of valid quads.
    size_t QuadCount() const { return quads_.size(); }

private:
    struct Quad {
        int32_t i = 0, j = 0;
        float x[4] = {}, y[4] = {};
    };
    int32_t CellX(double x) const;
    int32_t CellY(double y) const;

    std::vector<Quad> quads_;
    double minX_ = 0.0, maxX_ = 0.0, minY_ = 0.0, maxY_ = 0.0;
    double scaleX_ = 1.0, scaleY_ = 1.0;
    int32_t grid_ = 1;
    std::vector<uint32_t> cellStart_;
    std::vector<uint32_t> cellQuads_;
};

}  // namespace Project

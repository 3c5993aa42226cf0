#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace Project {

// Fill-reducing orderings for the mesh warp's normal equations.
//
// The mesh terms couple each vertex with its 3 x 3 neighbourhood and with the
// vertices two steps along its row and column (the smoothness triangles), all
// through the border fold. A nested-dissection ordering of that vertex graph
// depends on the mesh size only, so it is computed once per N (METIS
// NodeND) and cached for the life of the process; a system over a subset of
// the vertices (those the photo sees) restricts it, which keeps every
// separator a separator. Each vertex then contributes its two unknowns (x, y)
// next to each other, and the unknowns of lines and planes, which couple with
// many vertices, go last.
//
// Thread-safe.
class MeshOrdering {
public:
    // The nested-dissection order of the canonical (unfolded) vertices of an
    // N x N mesh: order[k] = the vertex index (i + j * N) placed k-th.
    // Duplicate border vertices are not listed.
    static std::shared_ptr<const std::vector<int32_t>> VertexOrder(int32_t n);

    // The permutation (new to old) of a system whose unknowns are, in this
    // order: two per vertex of `systemVertexOf` (system vertex s owns unknowns
    // 2s and 2s + 1; systemVertexOf[k] is vertex k's system vertex or -1),
    // then `extraCount` further unknowns.
    static std::vector<int> SystemPermutation(int32_t n, std::span<const int32_t> systemVertexOf,
                                              int32_t extraCount);
};

}  // namespace Project

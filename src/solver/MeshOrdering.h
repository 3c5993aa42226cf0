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
// through the border fold. A nested-dissection ordering (METIS NodeND) of that
// stencil graph over the vertices in the system depends only on the mesh size
// and on which vertices the photo sees, not on the constraints, so it is
// computed once per mesh size and visible area and cached; constraints come
// and go without a new ordering. Each vertex then contributes its two
// unknowns (x, y) next to each other, and the unknowns of lines and planes,
// which couple with many vertices, go last.
//
// Measured on the normal matrix of a level-6 solve with 20 lines (3000 x 2000
// fisheye, 16,130 mesh unknowns; bench/solver_bench, BM_Factorize; 2 shared
// cores, so CPU time is the steadier figure):
//   ordering                            nnz(L)   analysis   CPU, analysis + factor
//   this one (cached, given to CHOLMOD)  1.88 M    10 ms       64 ms
//   the library's default                2.06 M    36 ms      123 ms
//   AMD                                  2.06 M    23 ms      121 ms
//   METIS on the scalar matrix           1.86 M   141 ms      153 ms
// An ordering of the whole N x N square restricted to the visible vertices
// was tried first: its fill was 10 % above AMD's. The corners of each line's
// first-sample quad, which couple with the whole line, are moved to the end
// by the solver (see IterativeWarpSolver); left in place they doubled the fill.
//
// Thread-safe.
class MeshOrdering {
public:
    // The nested-dissection order of the canonical (unfolded) vertices of an
    // N x N mesh with active[i + j * N] set: order[k] = the vertex index
    // placed k-th. Duplicate border vertices and inactive ones are not listed.
    static std::shared_ptr<const std::vector<int32_t>> VertexOrder(int32_t n,
                                                                   std::span<const uint8_t> active);

    // The permutation (new to old) of a system whose unknowns are, in this
    // order: two per vertex of `systemVertexOf` (system vertex s owns unknowns
    // 2s and 2s + 1; systemVertexOf[k] is vertex k's system vertex or -1),
    // then `extraCount` further unknowns.
    static std::vector<int> SystemPermutation(int32_t n, std::span<const int32_t> systemVertexOf,
                                              int32_t extraCount);
};

}  // namespace Project

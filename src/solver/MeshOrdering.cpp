#include "solver/MeshOrdering.h"

#include "warp/OctaMap.h"

#include <metis.h>

#include <algorithm>
#include <mutex>
#include <numeric>

namespace Project {
namespace {

// The vertex graph of the mesh terms over canonical vertices, as METIS
// adjacency arrays (compressed rows, no self loops), in a compact numbering.
struct VertexGraph {
    std::vector<idx_t> xadj;
    std::vector<idx_t> adjncy;
    std::vector<int32_t> vertexOf;  // compact -> canonical vertex index
};

VertexGraph BuildStencilGraph(int32_t n, std::span<const uint8_t> active) {
    std::vector<int32_t> compactOf(static_cast<size_t>(n) * n, -1);
    VertexGraph g;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            const int32_t k = i + j * n;
            if (OctaMap::Fold(n, i, j) == MeshVertex{i, j} && active[static_cast<size_t>(k)] != 0) {
                compactOf[static_cast<size_t>(k)] = static_cast<int32_t>(g.vertexOf.size());
                g.vertexOf.push_back(k);
            }
        }
    }
    auto compact = [&](int32_t i, int32_t j) {
        const MeshVertex v = OctaMap::Fold(n, i, j);
        return compactOf[static_cast<size_t>(v.i + v.j * n)];
    };
    std::vector<std::vector<idx_t>> adjacency(g.vertexOf.size());
    auto link = [&](int32_t a, int32_t b) {
        if (a != b && a >= 0 && b >= 0) {
            adjacency[static_cast<size_t>(a)].push_back(b);
            adjacency[static_cast<size_t>(b)].push_back(a);
        }
    };
    for (int32_t j = 0; j + 1 < n; ++j) {
        for (int32_t i = 0; i + 1 < n; ++i) {
            const int32_t c[4] = {compact(i, j), compact(i + 1, j), compact(i, j + 1),
                                  compact(i + 1, j + 1)};
            for (int a = 0; a < 4; ++a) {
                for (int b = a + 1; b < 4; ++b) {
                    link(c[a], c[b]);
                }
            }
        }
    }
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            if (i >= 1 && i + 1 < n) {
                link(compact(i - 1, j), compact(i + 1, j));
            }
            if (j >= 1 && j + 1 < n) {
                link(compact(i, j - 1), compact(i, j + 1));
            }
        }
    }
    g.xadj.push_back(0);
    for (auto& row : adjacency) {
        std::sort(row.begin(), row.end());
        row.erase(std::unique(row.begin(), row.end()), row.end());
        g.adjncy.insert(g.adjncy.end(), row.begin(), row.end());
        g.xadj.push_back(static_cast<idx_t>(g.adjncy.size()));
    }
    return g;
}

std::vector<int32_t> ComputeVertexOrder(int32_t n, std::span<const uint8_t> active) {
    VertexGraph g = BuildStencilGraph(n, active);
    idx_t count = static_cast<idx_t>(g.vertexOf.size());
    std::vector<idx_t> perm(g.vertexOf.size());
    std::vector<idx_t> iperm(g.vertexOf.size());
    idx_t options[METIS_NOPTIONS];
    METIS_SetDefaultOptions(options);
    options[METIS_OPTION_SEED] = 1;  // the same order on every run
    std::vector<int32_t> order(g.vertexOf.size());
    if (count > 1 && METIS_NodeND(&count, g.xadj.data(), g.adjncy.data(), nullptr, options,
                                  perm.data(), iperm.data()) == METIS_OK) {
        for (size_t k = 0; k < order.size(); ++k) {
            order[k] = g.vertexOf[static_cast<size_t>(perm[k])];
        }
    } else {
        order = g.vertexOf;  // a tiny mesh, or METIS refused: natural order
    }
    return order;
}

}  // namespace

std::shared_ptr<const std::vector<int32_t>> MeshOrdering::VertexOrder(
    int32_t n, std::span<const uint8_t> active) {
    // The last few masks: a session alternates between very few (one per
    // projection and focal length), while constraints come and go freely.
    struct Entry {
        int32_t n;
        std::vector<uint8_t> active;
        std::shared_ptr<const std::vector<int32_t>> order;
    };
    constexpr size_t kKept = 4;
    static std::mutex mutex;
    static std::vector<Entry> cache;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        for (const Entry& e : cache) {
            if (e.n == n &&
                std::equal(e.active.begin(), e.active.end(), active.begin(), active.end())) {
                return e.order;
            }
        }
    }
    auto order = std::make_shared<const std::vector<int32_t>>(ComputeVertexOrder(n, active));
    const std::lock_guard<std::mutex> lock(mutex);
    if (cache.size() == kKept) {
        cache.erase(cache.begin());
    }
    cache.push_back({n, std::vector<uint8_t>(active.begin(), active.end()), order});
    return order;
}

std::vector<int> MeshOrdering::SystemPermutation(int32_t n, std::span<const int32_t> systemVertexOf,
                                                 int32_t extraCount) {
    std::vector<uint8_t> active(systemVertexOf.size(), 0);
    for (size_t k = 0; k < active.size(); ++k) {
        active[k] = systemVertexOf[k] >= 0 ? 1 : 0;
    }
    const auto order = VertexOrder(n, active);
    std::vector<int> permutation;
    for (int32_t vertex : *order) {
        const int32_t s = systemVertexOf[static_cast<size_t>(vertex)];
        if (s >= 0) {
            permutation.push_back(2 * s);
            permutation.push_back(2 * s + 1);
        }
    }
    const int first = static_cast<int>(permutation.size());
    permutation.resize(permutation.size() + static_cast<size_t>(extraCount));
    std::iota(permutation.begin() + first, permutation.end(), first);
    return permutation;
}

}  // namespace Project

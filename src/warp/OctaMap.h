#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "geometry/PhotoToSphere.h"

namespace Project {

// A unit direction of the mesh frame, single precision (x, y, z).
using MeshVector = std::array<float, 3>;

// A 3x3 rotation, single precision, row-major: R[3 * row + column].
using MeshRotation = std::array<float, 9>;

// The local tangent frame of a vertex (double precision, for the solver).
struct MeshFrame {
    std::array<double, 3> east{};   // (-sin lambda, cos lambda, 0)
    std::array<double, 3> north{};  // (-sin phi cos lambda, -sin phi sin lambda, cos phi)
};

// A vertex of the mesh: column i, row j.
struct MeshVertex {
    int32_t i = 0;
    int32_t j = 0;
    friend bool operator==(const MeshVertex&, const MeshVertex&) = default;
};

// The square sphere mesh: N x N vertices, N = 2^(L+1) + 1 for
// mesh level L, each with a unit direction on the view sphere. Shared, by
// std::shared_ptr, between the filter session and every warp built on it.
//
// Frames and angles. A mesh direction d = (x, y, z) has the angles
//   phi    = pi/2 - acos(z)   (acos in float, the subtraction in double, rounded to float)
//   lambda = atan2(y, x)      (float; lambda = 0 when |x| < 1e-8 and |y| < 1e-8)
// so d = (cos lambda cos phi, sin lambda cos phi, sin phi). These angles are
// handed to PhotoToSphere unchanged, longitude first: IsVisible(lambda, phi),
// ToImagePoint(lambda, phi). Hence the mesh's +x axis is the photo's optical
// axis, +y points to increasing image x (right) and +z to increasing image
// row (down); the centre vertex (c, c), which looks along (1, 0, 0), lands on
// the photo's centre (lambda = 0, phi = -4.4e-8, the float rounding of acos(0)).
//
// Layout (the octahedral parametrisation). c = 2^L is the centre index and
// M = 2^L the triangle size. The square is cut at row and column c into four
// quadrants and each quadrant by its anti-diagonal into an inner triangle
// (right angle at (c, c)) and an outer triangle (right angle at a corner of
// the square): eight triangles, one per octant of the sphere. With p = |i - c|
// and q = |j - c| (integer offsets from the centre), a vertex has three
// integer barycentric weights, summing to M, on the octant's corners:
//   inner (p + q <= M): pole +x: M - p - q,   +-y: p,       +-z: q
//   outer (p + q >  M): pole -x: p + q - M,   +-y: M - q,   +-z: M - p
// Each weight w becomes the tangent-spaced value g(t) = tau / (1 + tau) with
// t = w / M and tau = tan(pi/4 * t); the direction is the normalised vector
// (+-g(t_pole), sy g(t_y), sz g(t_z)), signs sy = sign(i - c) and
// sz = sign(j - c) when the layout flag is false, sz = -sign(j - c) when it is
// true (the mesh's rows then run towards -z, upwards in the picture). This
// spacing puts equal index steps at exactly equal angles (pi/2 / M) along
// every triangle edge, the row j = c, the column i = c and the diamond rim
// included; cell areas vary by less than 1.5 : 1 over the sphere.
//
// Consequences the solver and the closed forms rely on:
//   - the inner diamond |i - c| + |j - c| <= c is the closed hemisphere x >= 0
//     (x is exactly 0 on its rim);
//   - the outer border folds onto itself: (N-1, j) and (N-1, 2c - j),
//     (0, j) and (0, 2c - j), (i, 0) and (2c - i, 0), (i, N-1) and
//     (2c - i, N-1) are the same sphere point (bit for bit), and all four
//     corners are (-1, 0, 0). No other two vertices coincide. Fold() gives
//     the canonical representative.
//
// Thread safety: every const query may run on many threads at once. The
// rotation setters are for the owner, while no warp built on the mesh is read.
class OctaMap {
public:
    static constexpr int32_t kMaxLevel = 12;

    // Builds the N x N directions. Throws std::invalid_argument for a level
    // outside [0, kMaxLevel].
    OctaMap(int32_t level, bool layoutFlag);

    int32_t Width() const { return n_; }   // N
    int32_t Height() const { return n_; }  // N
    int32_t Size() const { return n_; }    // N
    int32_t Level() const { return level_; }
    int32_t Centre() const { return n_ / 2; }  // c = 2^L
    bool LayoutFlag() const { return layoutFlag_; }
    int32_t VertexCount() const { return n_ * n_; }
    // Row-major vertex index: i + j * N.
    int32_t Index(int32_t i, int32_t j) const { return i + j * n_; }

    // The stored (unrotated) direction of vertex (i, j).
    const MeshVector& StoredDirection(int32_t i, int32_t j) const { return dirs_[Index(i, j)]; }
    // All stored directions, index i + j * N (contiguous float triples).
    const std::vector<MeshVector>& StoredDirections() const { return dirs_; }
    // The direction of (i, j): R * d (float arithmetic, rows of R) when the
    // rotation is enabled, else the stored d.
    MeshVector Direction(int32_t i, int32_t j) const;

    // Angles of the stored direction: what the photo's visibility test sees.
    SphereDirection UnrotatedAngles(int32_t i, int32_t j) const;
    // Angles of the rotated direction (Direction above): what the closed
    // forms project.
    SphereDirection Angles(int32_t i, int32_t j) const;
    // The local frame from the rotated angles.
    MeshFrame LocalFrame(int32_t i, int32_t j) const;

    // The view rotation: identity and disabled when built.
    void SetRotation(const MeshRotation& rowMajor) { rotation_ = rowMajor; }
    void SetRotationEnabled(bool enabled) { rotationEnabled_ = enabled; }
    const MeshRotation& Rotation() const { return rotation_; }
    bool RotationEnabled() const { return rotationEnabled_; }

    // Border fold, rules applied in this order, each to the
    // result of the previous one: i = N-1 and j > c: j = 2c - j; j = N-1 and
    // i > c: i = 2c - i; j = 0 and i > c: i = 2c - i; i = 0 and j > c:
    // j = 2c - j. Idempotent; all four corners fold to (0, 0); vertices off
    // the border are their own representative. For 0 <= i, j < n.
    static MeshVertex Fold(int32_t n, int32_t i, int32_t j);
    MeshVertex Fold(int32_t i, int32_t j) const { return Fold(n_, i, j); }
    // Index (i + j * N) of the folded vertex: the one shared unknown slot.
    int32_t CanonicalIndex(int32_t i, int32_t j) const {
        const MeshVertex v = Fold(n_, i, j);
        return Index(v.i, v.j);
    }

    // The angle rules above for any direction (exposed for tests and callers
    // that rotate directions themselves).
    static SphereDirection AnglesOf(const MeshVector& d);

private:
    int32_t level_;
    int32_t n_;
    bool layoutFlag_;
    std::vector<MeshVector> dirs_;
    MeshRotation rotation_{1.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 0.0f, 1.0f};
    bool rotationEnabled_ = false;
};

}  // namespace Project

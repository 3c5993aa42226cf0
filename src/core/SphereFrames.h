#pragma once

#include "core/Vector3.h"

namespace Project {

// A direction on the view sphere in radians: longitude lambda and latitude
// phi; lambda = phi = 0 is the optical axis. Positive lambda goes towards
// increasing image x, positive phi towards increasing image row (downwards in
// the picture).
struct SphereDirection {
    float lambda = 0.0f;
    float phi = 0.0f;
};

// The same direction as a unit vector, in one of two frames:
//
//   mesh frame   (cos lambda cos phi, sin lambda cos phi, sin phi)
//                x the optical axis, y towards image x, z towards image rows.
//                The sphere mesh (OctaMap) stores its directions in it, so
//                the quad search works in it.
//   photo frame  (sin lambda cos phi, sin phi, cos lambda cos phi)
//                x towards image x, y towards image rows, z the optical axis:
//                the camera's own axes. Fitted great circles and plane
//                constraints keep their vectors in it.
//
// One frame is a cyclic permutation of the other, so the conversion is exact
// and both vectors of a direction come from the same products.
constexpr Vec3d PhotoFromMesh(const Vec3d& mesh) {
    return {mesh[1], mesh[2], mesh[0]};
}
constexpr Vec3d MeshFromPhoto(const Vec3d& photo) {
    return {photo[2], photo[0], photo[1]};
}

inline Vec3d MeshFrameVector(SphereDirection d) {
    const double cl = std::cos(static_cast<double>(d.lambda));
    const double sl = std::sin(static_cast<double>(d.lambda));
    const double cp = std::cos(static_cast<double>(d.phi));
    const double sp = std::sin(static_cast<double>(d.phi));
    return {cl * cp, sl * cp, sp};
}
inline Vec3d PhotoFrameVector(SphereDirection d) {
    return PhotoFromMesh(MeshFrameVector(d));
}

}  // namespace Project

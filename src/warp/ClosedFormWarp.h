#pragma once

#include <cstdint>
#include <memory>

#include "core/Models.h"
#include "geometry/PhotoToSphere.h"
#include "warp/OctaMap.h"
#include "warp/SphereWarp.h"

namespace Project {

// A warp given by a closed formula of the vertex angles.
// Immutable after construction and always solved; Solve and ResetSystem do
// nothing. Holds shared references to the mesh and the photo.
//
// Validity is the photo's: vertex (i, j) is valid exactly when
// photo->IsVisible(lambda, phi) holds for the mesh's UNROTATED angles of the
// vertex (longitude first; see OctaMap.h for the frame convention). Positions
// come from the ROTATED angles, so a rotation set on the mesh turns the output
// while validity stays in the picture's own frame.
//
// Output units are radians of the unit sphere, scale 1 at the centre of the
// view; no scaling or offset is applied here. Positions outside the
// projection's domain (InDomain false) are reported as (0, 0).
//
// The mesh must not be null (std::invalid_argument). A null photo makes no
// vertex valid (the session may hold no projection).
class ClosedFormWarp : public SphereWarp {
public:
    ClosedFormWarp(std::shared_ptr<const OctaMap> mesh, std::shared_ptr<const PhotoToSphere> photo);

    // Slots 1 to 6 of SphereWarp.
    bool IsVertexValid(int32_t i, int32_t j) const override;
    // (i, j), (i+1, j), (i, j+1), (i+1, j+1), in that order, stopping at the
    // first invalid corner.
    bool IsQuadValid(int32_t i, int32_t j) const override;
    // (0, 0) when !InDomain(i, j), else ProjectVertex(i, j, x, y).
    void GetVertexPosition(int32_t i, int32_t j, float& x, float& y) const override;
    void Solve() override {}
    bool IsSolved() const override { return true; }
    void ResetSystem() override {}
    int32_t MeshSize() const override { return n_; }

    // Slot 7: vertex (i, j) lies inside this projection's domain. Accepts
    // every vertex here.
    virtual bool InDomain(int32_t i, int32_t j) const;
    // Slot 8: the closed-form output position from the rotated angles.
    virtual void ProjectVertex(int32_t i, int32_t j, float& x, float& y) const = 0;

    const std::shared_ptr<const OctaMap>& Mesh() const { return mesh_; }
    const std::shared_ptr<const PhotoToSphere>& Photo() const { return photo_; }

protected:
    int32_t n_;
    std::shared_ptr<const OctaMap> mesh_;
    std::shared_ptr<const PhotoToSphere> photo_;
};

// x = k cos(phi) sin(lambda), y = k sin(phi), k = 2 / (1 + cos(phi) cos(lambda)),
// float. Domain: the inner diamond |i - N/2| + |j - N/2| <= N/2 (integer halves),
// the hemisphere around the view axis, so the far point never divides by zero.
class StereographicClosedForm final : public ClosedFormWarp {
public:
    using ClosedFormWarp::ClosedFormWarp;
    bool InDomain(int32_t i, int32_t j) const override;
    void ProjectVertex(int32_t i, int32_t j, float& x, float& y) const override;
};

// x = lambda, y = ln(tan(pi/4 + phi/2)): phi/2 in float, pi/4 added, tan and
// ln taken in double, rounded to float. Domain: rows 1 ... N-2 (the first and
// last rows are refused; columns are not tested).
class MercatorClosedForm final : public ClosedFormWarp {
public:
    using ClosedFormWarp::ClosedFormWarp;
    bool InDomain(int32_t i, int32_t j) const override;
    void ProjectVertex(int32_t i, int32_t j, float& x, float& y) const override;
};

// General Panini with distance d = 1.001f: x = m sin(lambda), y = m tan(phi),
// m = 2.001f / (1.001f + cos(lambda)), float. Every vertex is in the domain
// (finite at lambda = +-pi: the denominator is 0.001).
class PaniniProjection final : public ClosedFormWarp {
public:
    using ClosedFormWarp::ClosedFormWarp;
    void ProjectVertex(int32_t i, int32_t j, float& x, float& y) const override;
};

// x = lambda, y = phi. Every vertex is in the domain.
class EquirectangularClosedForm final : public ClosedFormWarp {
public:
    using ClosedFormWarp::ClosedFormWarp;
    void ProjectVertex(int32_t i, int32_t j, float& x, float& y) const override;
};

// The closed form of a regulariser model: Stereographic, Mercator, Panini or
// Equirectangular; any other value (Auto included) gives stereographic.
// Never null.
std::shared_ptr<ClosedFormWarp> MakeClosedForm(RegularizerModel model,
                                               std::shared_ptr<const OctaMap> mesh,
                                               std::shared_ptr<const PhotoToSphere> photo);

}  // namespace Project

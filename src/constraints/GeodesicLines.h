#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "constraints/ConstraintTypes.h"
#include "core/Vector3.h"
#include "geometry/PhotoToSphere.h"
#include "warp/MeshLocator.h"
#include "warp/OctaMap.h"
#include "warp/SphereWarp.h"

namespace Project {

class Constraint;
class ConstraintSet;
class LineConstraint;
class PlaneConstraint;

// A point of a constraint on the view sphere, with the mesh quad it falls in.
// The quad location is filled by GeodesicLines when a mesh is known (and may
// be refilled by the solver's quad finder); it lets a warp place the sample.
struct SphereSample {
    SphereDirection direction;  // photo angles (longitude, latitude), radians
    QuadLocation quad;          // i = j = -1 while not located

    bool Located() const { return quad.i >= 0; }
    // The output-plane position of the sample under `warp`: the bilinear
    // combination of the quad's four vertex positions. False when the sample
    // is not located or the quad is not valid in the warp; with allowPartial
    // the valid corners alone are used (weights renormalised), so that only a
    // quad without any valid corner fails.
    bool Interpolate(const SphereWarp& warp, float& x, float& y, bool allowPartial = false) const;
};

// A line fitted on the sphere: the arc of the great circle through the sphere
// directions of its two endpoints. Entry of the solver's line lists.
struct GeodesicLine {
    int32_t id = -1;    // the constraint's identifier
    int32_t edge = -1;  // for a polygon edge, its index (see PlaneVertex); -1 for a line
    Orientation orientation = Orientation::Unfixed;
    // The line takes part in the solve (owns an angle unknown). A line
    // constraint is active when its fit succeeded; a polygon edge when its fit
    // succeeded and it is marked Horizontal or Vertical (an unmarked edge is
    // already kept straight by its polygon's projective map).
    bool active = false;
    // The fit succeeded (both endpoints have sphere directions and are
    // neither equal nor opposite).
    bool fitted = false;
    // The source pixels the arc was fitted between; a display update compares
    // them with the constraint's current endpoints and fits afresh when they
    // differ (an edit not yet re-fitted).
    PointF first;
    PointF second;
    // Normal angle alpha of the line in the output plane (x right, y up),
    // radians, n = (cos alpha, sin alpha): pi/2 for Horizontal, 0 for Vertical,
    // the line's angle + 90 degrees for Arbitrary; 0 and unused for Unfixed.
    double fixedNormal = 0.0;
    // The fitted great circle's unit normal in the photo frame (see
    // core/SphereFrames.h), and the arc's angle in radians.
    Vec3d circleNormal{};
    double arcAngle = 0.0;
    // Samples from the first endpoint (front) to the second (back), spaced by
    // at most GeodesicLines::SampleSpacing(); the first and last samples are
    // the endpoints' own directions.
    std::vector<SphereSample> samples;

    bool HasFixedNormal() const { return orientation != Orientation::Unfixed; }
};

// A plane sample: a mesh vertex inside a polygon and its plane coordinates.
struct PlaneSample {
    int32_t i = 0;
    int32_t j = 0;
    float u = 0.0f;
    float v = 0.0f;
};

// A polygon set up for the solver.
//
// Plane coordinates: the polygon's corners are taken to the sphere, and every
// direction d is given the gnomonic coordinates (u, v) = (d.e1, d.e2) / (d.m)
// about the normalised mean m of the corner directions (e1 towards increasing
// image x, e2 = m x e1 towards increasing image row). A flat surface of the
// scene seen from the centre of the sphere maps to this plane by a projective
// map, and great circles map to straight lines, so the polygon's straight
// edges bound a plain polygon there; the solver's projective map from (u, v)
// to the output plane then holds the surface's shape.
// Samples: every mesh vertex that sees the photo, is not a duplicate of the
// folded border, lies in the front half about m and whose (u, v) is inside
// the outline (even-odd rule).
struct GeodesicPlane {
    int32_t id = -1;
    // Set up: at least 3 corners, each with a sphere direction, all within
    // the open hemisphere about their mean.
    bool valid = false;
    // Takes part in the solve (owns eight unknowns): valid with at least four
    // samples, so that its projective map is determined.
    bool active = false;
    Vec3d mean{};  // m, photo frame
    Vec3d e1{};
    Vec3d e2{};
    std::vector<std::array<float, 2>> outline;  // (u, v) of the corners
    std::vector<PlaneSample> samples;
};

// Constraints of a set that FitAll could not fit: lines whose arc does not
// fit under the projection, polygons whose plane cannot be set up.
struct FitFailures {
    uint32_t lines = 0;
    uint32_t planes = 0;
};

// The solver's view of the constraints: the fitted lines keyed by identifier
// (first list), the fitted edges of polygons (second list) and the polygons'
// plane set-ups, all under the session's current PhotoToSphere; and, once a
// warp is handed over, the mapping of constraint geometry into the warped
// output for display.
//
// Lifecycle: the session creates it with the photo and the mesh, fits each
// constraint when it is added, loaded or adjusted (Fit / FitAll), re-fits all
// after the projection changes (SetPhoto + FitAll), removes entries of deleted
// constraints, and hands over each finished warp (SetWarp). Not thread-safe
// for writing; const queries may run concurrently.
class GeodesicLines {
public:
    // photo may be null (no projection: every fit fails); mesh must not be.
    // Building the mesh's quad finder takes about 20 ms at mesh level 6 (and
    // grows with the level); the second form shares one already built.
    GeodesicLines(std::shared_ptr<const PhotoToSphere> photo, std::shared_ptr<const OctaMap> mesh);
    GeodesicLines(std::shared_ptr<const PhotoToSphere> photo,
                  std::shared_ptr<const MeshLocator> locator);

    // Replaces the projection. Entries are not re-fitted here: call FitAll.
    void SetPhoto(std::shared_ptr<const PhotoToSphere> photo) { photo_ = std::move(photo); }
    const PhotoToSphere* Photo() const { return photo_.get(); }
    const std::shared_ptr<const PhotoToSphere>& PhotoRef() const { return photo_; }
    const OctaMap& Mesh() const { return locator_->Mesh(); }
    const MeshLocator& Locator() const { return *locator_; }
    const std::shared_ptr<const MeshLocator>& LocatorRef() const { return locator_; }

    // The warp that display mapping goes through (null: none yet). A solved
    // warp also gets its inverse (OutputLocator) built here, about as costly
    // as the quad finder.
    void SetWarp(std::shared_ptr<const SphereWarp> warp);
    const SphereWarp* Warp() const { return warp_.get(); }

    // Angular spacing of samples along an arc, radians: a twelfth of the
    // mesh's angle per index step ((pi / 2) / 2^level). Every mesh cell that
    // an arc crosses holds samples, and since each sample adds its own
    // residual, the density sets how firmly the solver holds a line against
    // the mesh's shape terms: at a third of a step the most bent edges of a
    // fisheye room bowed by 1.8 pixels at their far end (3000 x 2000), at a
    // twelfth by 1.2. The sparsity pattern does not grow with it.
    double SampleSpacing() const { return spacing_; }

    // --- Fitting, without storing anything.
    // The image point (from the centre) of a source pixel (from the top-left
    // corner), and back. Without a projection the point is passed unchanged.
    ImagePoint ToImagePoint(PointF sourcePixel) const;
    PointF ToSourcePixel(ImagePoint p) const;
    // The sphere direction of a source pixel; false without a projection or
    // outside its domain.
    bool SourceToSphere(PointF sourcePixel, SphereDirection& out) const;
    // Fits the arc between two source pixels (id, orientation and normal left
    // at their defaults; fitted and active say whether it worked).
    GeodesicLine FitArc(PointF first, PointF second) const;

    // --- The stored entries.
    // Fits a line constraint (or a polygon: its plane and its edges) and
    // stores the result under the constraint's identifier, replacing an
    // earlier entry. Returns whether the fit succeeded (for a polygon: the
    // plane's set-up). A constraint with identifier -1 is fitted but not
    // stored (false is returned only for a failed fit).
    bool FitLine(const LineConstraint& line);
    bool SetUpPlane(const PlaneConstraint& plane);
    bool Fit(const Constraint& constraint);
    // Clears every entry and fits each constraint of the set in list order;
    // returns how many could not be fitted.
    FitFailures FitAll(const ConstraintSet& set);
    void Remove(int32_t id);
    void Clear();

    const std::vector<GeodesicLine>& Lines() const { return lines_; }          // first list
    const std::vector<GeodesicLine>& EdgeLines() const { return edgeLines_; }  // second list
    const std::vector<GeodesicPlane>& Planes() const { return planes_; }
    // For the solver's quad finder, which may refill sample locations.
    std::vector<GeodesicLine>& MutableLines() { return lines_; }
    std::vector<GeodesicLine>& MutableEdgeLines() { return edgeLines_; }
    const GeodesicLine* FindLine(int32_t id) const;
    const GeodesicPlane* FindPlane(int32_t id) const;
    // The fitted edges of polygon `id`, in edge order (empty when none).
    std::vector<const GeodesicLine*> FindEdges(int32_t id) const;

    // Number of active entries: lines, edges and planes.
    int32_t ActiveLineCount() const;
    int32_t ActiveEdgeCount() const;
    int32_t ActivePlaneCount() const;

    // --- Display mapping.
    // A source pixel in `space` (see DisplaySpace). False when the point
    // cannot be placed (no direction, not in a valid part of the mesh, or no
    // solved warp); `out` is then untouched.
    bool SourceToDisplay(PointF sourcePixel, const DisplaySpace& space, PointF& out) const;
    // A sample in `space`: through the warp, or back to source pixels by the
    // projection's forward mapping when unwarped.
    bool SampleToDisplay(const SphereSample& sample, const DisplaySpace& space, PointF& out) const;
    // A direction's position in the output plane under the current warp.
    bool DirectionToOutput(SphereDirection direction, float& x, float& y) const;

    // --- The inverse: from the display back to the source picture.
    // The source pixel under an output-plane point: the valid warp quad under
    // it, the sphere direction interpolated between its corners, and that
    // direction's image point. False outside the valid part of the warp, or
    // where the direction does not see the photo.
    bool OutputToSource(float x, float y, PointF& sourcePixel) const;
    // The source pixel under a display point in `space` (through the
    // transform's inverse, then OutputToSource when warped).
    bool DisplayToSource(PointF display, const DisplaySpace& space, PointF& sourcePixel) const;
    // The display point lies on the valid part of the warped output (always
    // true unwarped with an invertible transform).
    bool IsInValidArea(PointF display, const DisplaySpace& space) const {
        PointF unused;
        return DisplayToSource(display, space, unused);
    }

private:
    void Locate(SphereSample& sample) const;
    GeodesicLine FitArcBetween(PointF first, PointF second, const SphereDirection* d1,
                               const SphereDirection* d2) const;
    static void SetFixedNormal(GeodesicLine& line, Orientation orientation, float angleDegrees);

    std::shared_ptr<const PhotoToSphere> photo_;
    std::shared_ptr<const MeshLocator> locator_;
    std::shared_ptr<const SphereWarp> warp_;
    std::shared_ptr<const OutputLocator> outputLocator_;
    double spacing_ = 0.0;
    std::vector<GeodesicLine> lines_;
    std::vector<GeodesicLine> edgeLines_;
    std::vector<GeodesicPlane> planes_;
};

}  // namespace Project

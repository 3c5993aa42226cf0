#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "core/Vector3.h"
#include "geometry/PhotoToSphere.h"

// Suggested lines: the straight scene edges of a photograph, found so that
// they can be offered as line constraints.
//
// A straight edge in the scene lies in a plane through the camera, so on the
// view sphere it is a great circle whatever the lens. The search therefore
// works on the sphere: line segments found in the picture (OpenCV's line
// segment detector on a downscaled grey copy) are mapped through the
// session's PhotoToSphere; segments whose great circles agree form one scene
// line; the longest well-supported arcs are kept; and each gets an
// orientation from the vertical vanishing direction that the lines
// themselves vote for.
//
// Thresholds, and why (px are pixels of the working copy, whose long side is
// SuggestOptions::workingSide; angles scale with each segment's own pixel
// size on the sphere, so the same rules hold at the centre and at the rim of
// a fisheye):
// - kMinSegmentPx = 10: shorter detections are mostly texture; their great
//   circle is too uncertain to group by (the normal's error grows as 1 / length).
// - kChordFitPx = 2.0: the detector reports a bent edge as straight chords,
//   which lie off the edge's great circle by up to two thirds of their
//   sagitta (3 px over a long chord of a fisheye's steep side edge). Each
//   chord gets the great circle that fits five of its points; it is kept
//   when none lies further than 2 px from it. A straight picture line that
//   is no great circle bends away further.
// - kOnCirclePx = 1.5: a segment joins a scene line when both its ends lie
//   within 1.5 px of the line's great circle. The detector localises edges
//   to about half a pixel, so a real continuation passes easily, while the
//   two sides of a strip 4 px wide stay two lines.
// - normal agreement 2 x kOnCirclePx / length (radians): the same rule in
//   terms of the great-circle normals, so a short segment crossing a long
//   line at a shallow angle does not join it.
// - kMaxGapPx = 12: pieces of one great circle further apart than this are
//   separate arcs (a door frame and the wall edge beyond it are not one edge).
// - kMinSupport = 0.6: at least 60 % of an arc must be covered by segments;
//   a great circle that merely touches scattered edges is not a line.
// - kDuplicateDeg = 1.5: lines whose circles lie this close and whose arcs
//   overlap are the two sides of one narrow thing (a painted strip, a bar, a
//   frame): one line along their middle is offered, over both arcs. The
//   middles of two such things meet where the scene's edges meet.
// - Ends: a detected edge stops short of the edge it runs into, whose own
//   gradient and width hide the last pixels, and the warp leaves a line's
//   unconstrained end free to bend right there. So each end is carried on
//   to the nearest crossing with another line's arc within kMaxGapPx beyond
//   it, when the two cross at kMinCrossingDeg = 15 degrees or more (a
//   shallower crossing is located too loosely along the line).
// - minLengthFraction = 0.06 of the working long side: only long edges are
//   worth a constraint; short ones barely bend and fit badly.
// - Vertical: the great circle passes within kVerticalToleranceDeg = 1.0
//   degree (plus the line's own normal uncertainty) of the vertical
//   vanishing direction. Wider would pull leaning edges upright.
// - The vertical direction is looked for within kMaxTiltDeg = 40 degrees of
//   the picture's own vertical (rows), by consensus over every pair of the
//   longest lines' normals (each pair's cross product is a candidate
//   vanishing direction), scored by the support of the lines through it, and
//   refined by least squares over those lines. It needs at least
//   kMinVerticalLines = 3 lines agreeing, so two crossing edges do not make
//   a vertical.
// - Horizontal (only when asked): the line's level direction (its normal
//   crossed with the vertical) lies within kHorizontalToleranceDeg = 2
//   degrees of the levelled view's left-right axis.

namespace Project {

// A detected segment in source pixels from the top-left corner of the
// photo, y downwards.
struct ImageSegment {
    double x1 = 0, y1 = 0, x2 = 0, y2 = 0;
    // The size of one working-copy pixel in source pixels (the downscale
    // factor): sets the pixel tolerances above for this segment.
    double pixelSize = 1.0;
};

enum class SuggestedKind { Unfixed, Horizontal, Vertical };

// One suggested scene line: its endpoints in source pixels from the
// top-left corner (they lie on the fitted great circle), the kind, and the
// evidence behind it.
struct SuggestedLine {
    double x1 = 0, y1 = 0, x2 = 0, y2 = 0;
    SuggestedKind kind = SuggestedKind::Unfixed;
    Vec3d normal{};           // the great circle's unit normal, photo frame
    double arcRadians = 0;    // the arc's extent on the sphere
    double radiansPerPx = 0;  // sphere radians per working-copy pixel along it
    double supportPx = 0;     // working-copy pixels of segments along it
    int32_t segments = 0;     // how many segments make it
};

struct SuggestOptions {
    int32_t maxLines = 20;       // at most this many lines, longest support first
    bool verticalsOnly = false;  // only Vertical lines
    bool horizontals = false;    // mark level lines Horizontal
    int32_t workingSide = 1600;  // long side of the working copy, px
    double minLengthFraction = 0.06;
};

struct LineSuggestion {
    std::vector<SuggestedLine> lines;
    // The vertical vanishing direction (unit, photo frame, pointing down the
    // picture), when enough lines agreed on one.
    std::optional<Vec3d> vertical;
};

// An 8-bit grey picture, rows of rowBytes bytes, not owned.
struct GreyView {
    int32_t width = 0;
    int32_t height = 0;
    const uint8_t* pixels = nullptr;
    ptrdiff_t rowBytes = 0;
    // Source pixels per pixel of this picture, when it is a reduced copy
    // whose size is not exactly the source's divided by it (a block mean
    // with a partial last block); 0: the sizes' ratio.
    double sourcePerPixel = 0;
};

// The whole suggestion on a grey copy of the source (any size; its pixel
// grid covers the source's width x height as photo.Raster() gives them).
LineSuggestion SuggestLines(const GreyView& grey, const PhotoToSphere& photo,
                            const SuggestOptions& options);

// Line segments of a grey picture in source pixels (photo of sourceWidth x
// sourceHeight), found on a copy downscaled to at most workingSide.
std::vector<ImageSegment> DetectSegments(const GreyView& grey, int32_t sourceWidth,
                                         int32_t sourceHeight, int32_t workingSide);

// The scene lines that given segments make: grouped by great circle, cut
// into arcs, the well-supported arcs of at least minLengthPx (working px)
// kept, all Unfixed, in no particular order.
std::vector<SuggestedLine> FindSceneLines(const std::vector<ImageSegment>& segments,
                                          const PhotoToSphere& photo, double minLengthPx);

// Scene lines, orientation and selection of given segments (what
// SuggestLines does after detection).
LineSuggestion SuggestFromSegments(const std::vector<ImageSegment>& segments,
                                   const PhotoToSphere& photo, const SuggestOptions& options,
                                   double minLengthPx);

// The vertical vanishing direction that the great circles of `lines` vote
// for, weighted by support; nullopt when too few agree.
std::optional<Vec3d> EstimateVertical(const std::vector<SuggestedLine>& lines);

}  // namespace Project

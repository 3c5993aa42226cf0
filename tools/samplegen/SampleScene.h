// A synthetic photograph for the demo and for tests: a box room seen through
// a fisheye (equisolid, r = 2 f sin(theta / 2)) or rectilinear (r = f tan theta)
// lens from inside, with walls, floor and ceiling in distinct colours, coloured
// strips along every straight edge, a door and a window. Besides the pixels it
// reports the scene's straight 3-D edges and where they fall in the image, so
// that solver tests know which curves must come out straight.
//
// Camera frame: x right, y down, z forward (the optical axis); the image
// centre is pixel (floor(width / 2), floor(height / 2)). Image points are in
// pixels from the top-left corner, pixel i at coordinate i.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Curvana::SampleGen {

enum class Lens { Equisolid, Rectilinear };

// The camera the sample photograph's EXIF names.
inline constexpr const char* kSampleMake = "Curvana";
inline constexpr const char* kSampleModel = "Sample Room Camera";
inline const char* sampleLensName(Lens lens) {
    return lens == Lens::Equisolid ? "Sample Fisheye" : "Sample Rectilinear";
}

struct SceneOptions {
    int32_t width = 3000;
    int32_t height = 2000;
    double focalMm = 15.0;    // physical focal length
    double cropFactor = 1.0;  // the frame's long side is 36 / cropFactor mm
    Lens lens = Lens::Equisolid;
    double yawDeg = 0;    // camera turned right
    double pitchDeg = 0;  // camera tilted down
    int samples = 2;      // supersampling per axis (samples^2 rays per pixel)
};

using Vec3 = std::array<double, 3>;

struct Point {
    double x, y;
};

struct SceneEdge {
    Vec3 a, b;                   // end points in the room (metres, camera at the origin)
    std::array<uint8_t, 3> rgb;  // the strip's colour
    // Samples along the edge, a to b, that fall inside the image.
    std::vector<Point> points;
};

struct RenderedScene {
    int32_t width = 0, height = 0;
    std::vector<uint8_t> rgb;  // interleaved, rows top to bottom, no padding
    std::vector<SceneEdge> edges;
    double focalPixels = 0;
};

// Focal length in pixels: crop x focal mm x max(width, height) / 36.
double focalPixels(const SceneOptions& options);

// Where a direction in the room lands in the image; nullopt when the lens
// cannot show it (behind a rectilinear lens, or beyond 180 degrees).
std::optional<Point> project(const SceneOptions& options, const Vec3& roomDirection);
// The room direction (unit length) seen at an image point; nullopt outside the lens's circle.
std::optional<Vec3> unproject(const SceneOptions& options, Point image);

// How far (metres) the room point seen at an image point lies from the
// nearest straight line drawn in the scene: the room's edges and the
// borders of their strips, the outlines of the door and the window, and the
// floor's board joints. nullopt outside
// the lens's circle. A line found in the picture that is straight in the
// scene keeps this small all along.
std::optional<double> distanceToStraightFeature(const SceneOptions& options, Point image);

RenderedScene renderRoom(const SceneOptions& options, int samplesPerEdge = 64);
// Renders the pixels of [left, left + w) x [top, top + h) only (for images
// too large to hold), RGB interleaved with stride rowBytes.
void renderRoomRegion(const SceneOptions& options, int32_t left, int32_t top, int32_t w, int32_t h,
                      uint8_t* rgb, ptrdiff_t rowBytes);
std::vector<SceneEdge> roomEdges(const SceneOptions& options, int samplesPerEdge = 64);

}  // namespace Curvana::SampleGen

#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "render/RenderMesh.h"
#include "render/RenderTypes.h"
#include "render/gpu/GpuResampler.h"

namespace Project {

// ---- Output framing ------------------------------------------------------------------
//
// The output picture of W x H pixels shows a rectangle of the warp's output
// plane, the *view frame*: view extent (width, height) in plane units and
// view origin, its top-left corner (left = smallest x, top = largest y; the
// plane's y grows upwards, output rows grow downwards). Square pixels: the
// frame always has the aspect W : H, so one pixel is extent.width / W =
// extent.height / H plane units wide and high.
//
// The frame follows from the *mesh extent* (the bounding box of everything
// drawn: the triangles of the valid quads clipped to the mesh's content box,
// so exactly the photograph's own area) and the settings' scale and offsets
// (scripting keys "imgS", "imgX", "imgY"):
//  - Scale 100 % is the fit: the smallest W : H frame that holds the whole
//    mesh extent. The extent then touches the frame on one axis and is
//    centred on the other (with offsets 0.5).
//  - A scale of S % magnifies the picture by S / 100 about the chosen point:
//    the frame is the fit frame divided by S / 100. The default 120 crops the
//    outer sixth of the fit (the rim of a fisheye's circle and the stretched
//    corners of a stereographic map). Below 100 the picture is smaller than
//    the output and the border stays empty (zero). Scales below 1 count as 1.
//  - Offsets x, y in 0 ... 1 place the frame within the travel that the scale
//    leaves: left = extent.minX + x * (extent.width - frame.width) and
//    top = extent.maxY - y * (extent.height - frame.height). 0.5 centres the
//    frame on the extent; x = 0 shows the extent's left edge, y = 0 its top
//    edge, 1 the right and bottom edges. (When the frame is larger than the
//    extent along an axis, the same formula moves the picture within the
//    frame the opposite way.) Values outside 0 ... 1 are taken as given.
//  - Crop to content replaces the scale: the frame is the largest W : H
//    rectangle that holds no empty pixel (every point of it shows content),
//    placed as near as it can go to where the offsets put a frame of that
//    size (CropToContent).

struct ViewFraming {
    int32_t scalePercent = 120;  // "imgS"
    float offsetX = 0.5f;        // "imgX"
    float offsetY = 0.5f;        // "imgY"
    bool cropToContent = false;
};

// The bounding box of the valid quads' corners in plane units.
struct MeshExtent {
    float minX = 0.0f;
    float minY = 0.0f;
    float maxX = 0.0f;
    float maxY = 0.0f;
    bool empty = true;

    float Width() const { return maxX - minX; }
    float Height() const { return maxY - minY; }
};

// The view frame: the view origin (left, top) and the view extent
// (width, height).
struct ViewFrame {
    float left = 0.0f;
    float top = 0.0f;
    float width = 1.0f;
    float height = 1.0f;
};

// A part of the picture for a reduced render (the preview's zoom and
// scroll). The picture is the whole output of pictureWidth x pictureHeight
// pixels, framed by the rules above; the render shows its rectangle of
// width x height picture pixels from (left, top), stretched over the render's
// own output (which should have the aspect width : height, for square
// pixels). Whole() (no picture size): the output is the whole picture.
struct PictureWindow {
    int32_t pictureWidth = 0;
    int32_t pictureHeight = 0;
    double left = 0.0;
    double top = 0.0;
    double width = 0.0;
    double height = 0.0;

    bool Whole() const {
        return pictureWidth <= 0 || pictureHeight <= 0 || width <= 0.0 || height <= 0.0;
    }
};

// One corner of a drawn triangle: its plane position and texture coordinate.
struct PlanVertex {
    float x = 0.0f;
    float y = 0.0f;
    float u = 0.0f;
    float v = 0.0f;
};

// The triangles that quad (i, j) of a mesh draws, three corners each,
// appended to `out`: the two triangles of TriangulateQuad when the quad's
// texture coordinates lie in the content box; otherwise those two clipped to
// the box (exact: inside a triangle the texture coordinate is an affine
// function of the plane position) and fanned into triangles again, possibly
// none. Returns true when the quad needed no clipping.
bool QuadTriangles(const RenderMesh& mesh, int32_t i, int32_t j, std::vector<PlanVertex>& out);

MeshExtent ComputeMeshExtent(const RenderMesh& mesh);
// The frame for an output of width x height pixels (rules above). An empty or
// degenerate extent gets a frame of at least 1e-6 plane units. With a window,
// the part of the picture's frame that the window shows.
ViewFrame FitViewFrame(const MeshExtent& extent, int32_t width, int32_t height,
                       const ViewFraming& framing, const PictureWindow& window = {});
// The crop-to-content frame for an output of width x height pixels: the
// largest frame of that aspect inside the union of the mesh's drawn
// triangles, found on a grid of about `cells` cells along the extent's longer
// side (a cell counts as content only when the triangles cover all of it, so
// the frame never takes in an empty pixel; it may fall short of the true
// largest by about a cell). Among the positions of the largest size, the one
// nearest to where the offsets place a frame of that size. Nullopt when the
// mesh draws nothing.
std::optional<ViewFrame> CropToContent(const RenderMesh& mesh, int32_t width, int32_t height,
                                       const ViewFraming& framing, int32_t cells = 1024);
// The frame of a whole picture of width x height pixels by the rules above:
// the crop to content when the framing asks for it and the mesh draws
// anything, otherwise the fit (FitViewFrame of the mesh's extent).
ViewFrame PictureFrame(const RenderMesh& mesh, int32_t width, int32_t height,
                       const ViewFraming& framing);

// ---- Triangulation -----------------------------------------------------------------------

// The six GPU indices of quad (i, j) whose lowest corner has GPU index k, for
// rows of m vertices: corners k = (i, j), k + 1 = (i + 1, j), k + m = (i, j + 1),
// k + m + 1 = (i + 1, j + 1) with plane positions p00, p10, p01, p11. Cut along
// the shorter diagonal: when |p10 - p01|^2 < |p00 - p11|^2, (k, k+m, k+1) and
// (k+m, k+m+1, k+1); otherwise, ties included, (k, k+m, k+m+1) and
// (k, k+1, k+m+1).
std::array<uint32_t, 6> TriangulateQuad(uint32_t k, uint32_t m, const float p00[2],
                                        const float p10[2], const float p01[2], const float p11[2]);

// ---- The plan ------------------------------------------------------------------------------

// One source tile: column tx and row ty of the source's 1024-pixel grid.
struct SourceTile {
    int32_t tx = 0;
    int32_t ty = 0;
    friend bool operator==(const SourceTile&, const SourceTile&) = default;
};

// The vertex rectangle that the GPU receives: columns c0 ... c1, rows
// r0 ... r1 (inclusive), row-major, vertex (i, j) at GPU index
// (j - r0) * m + (i - c0), m = c1 - c0 + 1. Chosen as the smallest rectangle
// holding every corner of every valid quad; empty (c1 < c0) when no quad is
// valid.
struct VertexRect {
    int32_t c0 = 0;
    int32_t c1 = -1;
    int32_t r0 = 0;
    int32_t r1 = -1;

    int32_t Columns() const { return c1 - c0 + 1; }
    int32_t Rows() const { return r1 - r0 + 1; }
    bool Empty() const { return c1 < c0 || r1 < r0; }
};

// Everything of the render that is decided on the CPU when the mesh changes:
// the view frame, the output tile grid, the tile buckets, the source-tile
// lists, the vertex rectangle, the triangulation and the tile matrices.
// Immutable once built; shares the mesh.
//
// The output has outputWidth x outputHeight pixels in 1024 x 1024 tiles; the
// source has sourceWidth x sourceHeight pixels, also cut into 1024-pixel
// tiles for the source-tile lists (PResult: the same size; PResultScaled: a
// reduced output).
class RenderPlan {
public:
    static constexpr int32_t kTileSize = 1024;

    RenderPlan(std::shared_ptr<const RenderMesh> mesh, int32_t outputWidth, int32_t outputHeight,
               int32_t sourceWidth, int32_t sourceHeight, const ViewFraming& framing,
               const PictureWindow& window = {});

    const RenderMesh& Mesh() const { return *mesh_; }
    int32_t OutputWidth() const { return outputWidth_; }
    int32_t OutputHeight() const { return outputHeight_; }
    int32_t SourceWidth() const { return sourceWidth_; }
    int32_t SourceHeight() const { return sourceHeight_; }

    const MeshExtent& Extent() const { return extent_; }
    const ViewFrame& Frame() const { return frame_; }

    // ceil(W / 1024), ceil(H / 1024).
    int32_t TileColumns() const { return tileColumns_; }
    int32_t TileRows() const { return tileRows_; }
    int32_t TileCount() const { return tileColumns_ * tileRows_; }
    // The output pixels of tile (column, row), clipped to the output.
    PixelRect TileRect(int32_t column, int32_t row) const;
    // The quads (RenderMesh quad indices, ascending) that touch the tile.
    std::span<const int32_t> Bucket(int32_t column, int32_t row) const;

    // Source tiles of the source grid (ceil(sourceWidth / 1024) columns).
    int32_t SourceTileColumns() const { return sourceTileColumns_; }
    int32_t SourceTileRows() const { return sourceTileRows_; }
    // The source tiles that a valid quad's texture coordinates touch (empty
    // for invalid quads and for quads whose texture box has no area).
    std::span<const SourceTile> SourceTiles(int32_t quad) const;

    const VertexRect& Vertices() const { return vertexRect_; }
    // GPU index of mesh vertex (i, j); (i, j) must lie in the vertex rectangle.
    uint32_t GpuIndex(int32_t i, int32_t j) const {
        return static_cast<uint32_t>((j - vertexRect_.r0) * vertexRect_.Columns() +
                                     (i - vertexRect_.c0));
    }
    // The triangles a quad draws (QuadTriangles), appended to `out`.
    void AppendQuadTriangles(int32_t quad, std::vector<PlanVertex>& out) const;
    // The vertex buffer: the rectangle's vertices (positions and texture
    // coordinates as in the mesh), then the corners of the clipped quads'
    // triangles, three per triangle.
    std::vector<Gpu::GpuVertex> RectangleVertices() const;
    // The index list of a tile, in bucket order: six per quad that needs no
    // clipping (TriangulateQuad on the rectangle), three per triangle of a
    // clipped one (into the clipped corners after the rectangle's).
    std::vector<uint32_t> TileIndices(int32_t column, int32_t row) const;

    // The matrix of tile (column, row), row-major, for column vectors
    // (x, y, 0, 1) in plane units. Composition, right to left:
    //   translate the frame's centre to the origin;
    //   orthographic scale s = 2 / max(frame width, frame height);
    //   turn y over (plane y up, target rows down) and divide by the aspect
    //   factors min(1, W / H), min(1, H / W), so the frame spans [-1, 1]^2;
    //   place the whole output onto tile (column, row) of the 1024 target:
    //   ndc = (q + 1) * (W or H) / 1024 - 1 - 2 * (column or row).
    std::array<float, 16> TileMatrix(int32_t column, int32_t row) const;
    // Output pixel coordinates of a plane point (pixel (x, y) covers
    // [x, x + 1) x [y, y + 1)), the same mapping the matrices make, in double.
    void PlaneToPixel(double x, double y, double& px, double& py) const;

private:
    // The framing transform, written once for the GPU matrices and the CPU
    // mapping: pixel x = scaleX x + offsetX, pixel y = scaleY y + offsetY.
    struct PixelFraming {
        double scaleX, offsetX, scaleY, offsetY;
    };
    PixelFraming Framing() const;

    void BuildPieces();
    void BuildBuckets();
    void BuildSourceTiles();
    // The bounding box of what a valid quad draws, in plane units (positions)
    // or texture units; empty (false) when it draws nothing.
    bool QuadBox(int32_t quad, bool texture, double box[4]) const;

    std::shared_ptr<const RenderMesh> mesh_;
    int32_t outputWidth_;
    int32_t outputHeight_;
    int32_t sourceWidth_;
    int32_t sourceHeight_;
    MeshExtent extent_;
    ViewFrame frame_;
    int32_t tileColumns_ = 0;
    int32_t tileRows_ = 0;
    int32_t sourceTileColumns_ = 0;
    int32_t sourceTileRows_ = 0;
    VertexRect vertexRect_;
    // Buckets and source-tile lists in compressed form: offsets then items.
    std::vector<int32_t> bucketOffsets_;
    std::vector<int32_t> bucketQuads_;
    std::vector<int32_t> sourceTileOffsets_;
    std::vector<SourceTile> sourceTiles_;
    // The clipped quads' triangles: quad q owns pieces_[pieceOffsets_[q] ...
    // pieceOffsets_[q + 1]) when clipped_[q] is set.
    std::vector<uint8_t> clipped_;
    std::vector<int32_t> pieceOffsets_;
    std::vector<PlanVertex> pieces_;
};

}  // namespace Project

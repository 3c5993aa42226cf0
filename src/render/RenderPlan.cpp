#include "render/RenderPlan.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Project {

namespace {

int32_t CeilDiv(int32_t a, int32_t b) {
    return (a + b - 1) / b;
}

int32_t FloorToInt(double value) {
    // Clamp first so that far-away quads do not overflow the conversion; a
    // broken (non-finite) position counts as 0 rather than being undefined.
    if (!std::isfinite(value)) {
        return 0;
    }
    return static_cast<int32_t>(std::floor(std::clamp(value, -1.0e9, 1.0e9)));
}

}  // namespace

namespace {

// Clips a convex polygon to one side of an axis-aligned line of texture
// space: keeps the points whose coordinate (u when onU, else v) times sign is
// at most bound times sign. Plane positions are interpolated along the cut
// edges like the texture coordinates: both are affine in a triangle.
void ClipSide(std::vector<PlanVertex>& poly, std::vector<PlanVertex>& scratch, bool onU,
              float bound, float sign) {
    scratch.clear();
    const size_t count = poly.size();
    for (size_t k = 0; k < count; ++k) {
        const PlanVertex& a = poly[k];
        const PlanVertex& b = poly[(k + 1) % count];
        const double da = sign * (static_cast<double>(onU ? a.u : a.v) - bound);
        const double db = sign * (static_cast<double>(onU ? b.u : b.v) - bound);
        if (da <= 0.0) {
            scratch.push_back(a);
        }
        if ((da < 0.0 && db > 0.0) || (da > 0.0 && db < 0.0)) {
            const double t = da / (da - db);
            auto lerp = [t](float p, float q) {
                return static_cast<float>(p + t * (static_cast<double>(q) - p));
            };
            PlanVertex cut{lerp(a.x, b.x), lerp(a.y, b.y), lerp(a.u, b.u), lerp(a.v, b.v)};
            // The cut lies on the line exactly, whatever the rounding.
            (onU ? cut.u : cut.v) = bound;
            scratch.push_back(cut);
        }
    }
    poly.swap(scratch);
}

void ClipTriangle(const PlanVertex* triangle, const TextureBox& box, std::vector<PlanVertex>& out) {
    thread_local std::vector<PlanVertex> poly, scratch;
    poly.assign(triangle, triangle + 3);
    ClipSide(poly, scratch, true, box.u0, -1.0f);
    ClipSide(poly, scratch, true, box.u1, 1.0f);
    ClipSide(poly, scratch, false, box.v0, -1.0f);
    ClipSide(poly, scratch, false, box.v1, 1.0f);
    for (size_t k = 2; k < poly.size(); ++k) {
        out.push_back(poly[0]);
        out.push_back(poly[k - 1]);
        out.push_back(poly[k]);
    }
}

void Grow(MeshExtent& extent, float x, float y) {
    if (extent.empty) {
        extent = {x, y, x, y, false};
        return;
    }
    extent.minX = std::min(extent.minX, x);
    extent.maxX = std::max(extent.maxX, x);
    extent.minY = std::min(extent.minY, y);
    extent.maxY = std::max(extent.maxY, y);
}

// The part of a picture's frame that a window of it shows.
ViewFrame WindowPart(const ViewFrame& picture, const PictureWindow& window) {
    const double unit = static_cast<double>(picture.width) / window.pictureWidth;
    ViewFrame part;
    part.left = static_cast<float>(picture.left + window.left * unit);
    part.top = static_cast<float>(picture.top - window.top * unit);
    part.width = static_cast<float>(window.width * unit);
    part.height = static_cast<float>(window.height * unit);
    return part;
}

}  // namespace

bool QuadTriangles(const RenderMesh& mesh, int32_t i, int32_t j, std::vector<PlanVertex>& out) {
    PlanVertex corners[4];
    bool inside = true;
    for (int32_t c = 0; c < 4; ++c) {
        const auto k = static_cast<size_t>(mesh.VertexIndex(i + (c & 1), j + (c >> 1)));
        corners[c] = {mesh.positions[2 * k], mesh.positions[2 * k + 1], mesh.texcoords[2 * k],
                      mesh.texcoords[2 * k + 1]};
        inside = inside && mesh.content.Contains(corners[c].u, corners[c].v);
    }
    // Corner numbers 0 (i, j), 1 (i + 1, j), 2 (i, j + 1), 3 (i + 1, j + 1)
    // are GPU indices with k = 0 and m = 2.
    const float p00[2] = {corners[0].x, corners[0].y};
    const float p10[2] = {corners[1].x, corners[1].y};
    const float p01[2] = {corners[2].x, corners[2].y};
    const float p11[2] = {corners[3].x, corners[3].y};
    const auto six = TriangulateQuad(0, 2, p00, p10, p01, p11);
    for (int32_t t = 0; t < 2; ++t) {
        const PlanVertex triangle[3] = {corners[six[3 * t]], corners[six[3 * t + 1]],
                                        corners[six[3 * t + 2]]};
        if (inside) {
            out.insert(out.end(), triangle, triangle + 3);
        } else {
            ClipTriangle(triangle, mesh.content, out);
        }
    }
    return inside;
}

// Hands `use` the content-clipped triangles (three vertices each) of every
// valid quad, quad by quad.
template <typename Use>
void ForEachQuadTriangles(const RenderMesh& mesh, Use&& use) {
    std::vector<PlanVertex> triangles;
    const int32_t quads = mesh.QuadsPerSide();
    for (int32_t j = 0; j < quads; ++j) {
        for (int32_t i = 0; i < quads; ++i) {
            if (!mesh.IsQuadValid(mesh.QuadIndex(i, j))) {
                continue;
            }
            triangles.clear();
            QuadTriangles(mesh, i, j, triangles);
            use(triangles);
        }
    }
}

MeshExtent ComputeMeshExtent(const RenderMesh& mesh) {
    MeshExtent extent;
    ForEachQuadTriangles(mesh, [&](const std::vector<PlanVertex>& triangles) {
        for (const PlanVertex& p : triangles) {
            Grow(extent, p.x, p.y);
        }
    });
    return extent;
}

std::optional<ViewFrame> CropToContent(const RenderMesh& mesh, int32_t width, int32_t height,
                                       const ViewFraming& framing, int32_t cells) {
    const MeshExtent extent = ComputeMeshExtent(mesh);
    if (extent.empty || extent.Width() <= 0.0f || extent.Height() <= 0.0f) {
        return std::nullopt;
    }
    // Coverage at the corners of square cells over the extent; a cell is
    // content when its four corners are covered.
    const double cell = std::max<double>(extent.Width(), extent.Height()) / std::max(cells, 1);
    const int32_t columns = std::max(1, static_cast<int32_t>(std::ceil(extent.Width() / cell)));
    const int32_t rows = std::max(1, static_cast<int32_t>(std::ceil(extent.Height() / cell)));
    const int32_t stride = columns + 1;
    std::vector<uint8_t> corner(static_cast<size_t>(stride) * (rows + 1), 0);
    ForEachQuadTriangles(mesh, [&](const std::vector<PlanVertex>& triangles) {
        for (size_t t = 0; t + 2 < triangles.size(); t += 3) {
            // Sample space: column = (x - minX) / cell, row = (maxY - y) / cell.
            double px[3], py[3];
            for (int32_t k = 0; k < 3; ++k) {
                px[k] = (triangles[t + k].x - extent.minX) / cell;
                py[k] = (extent.maxY - triangles[t + k].y) / cell;
            }
            const double area =
                (px[1] - px[0]) * (py[2] - py[0]) - (px[2] - px[0]) * (py[1] - py[0]);
            if (std::abs(area) < 1e-12) {
                continue;
            }
            const int32_t c0 = std::max(
                0, static_cast<int32_t>(std::ceil(std::min({px[0], px[1], px[2]}) - 1e-9)));
            const int32_t c1 = std::min(
                columns, static_cast<int32_t>(std::floor(std::max({px[0], px[1], px[2]}) + 1e-9)));
            const int32_t r0 = std::max(
                0, static_cast<int32_t>(std::ceil(std::min({py[0], py[1], py[2]}) - 1e-9)));
            const int32_t r1 = std::min(
                rows, static_cast<int32_t>(std::floor(std::max({py[0], py[1], py[2]}) + 1e-9)));
            for (int32_t r = r0; r <= r1; ++r) {
                for (int32_t c = c0; c <= c1; ++c) {
                    const double w0 =
                        ((px[1] - c) * (py[2] - r) - (px[2] - c) * (py[1] - r)) / area;
                    const double w1 =
                        ((px[2] - c) * (py[0] - r) - (px[0] - c) * (py[2] - r)) / area;
                    const double w2 = 1.0 - w0 - w1;
                    // Edges shared by two triangles cover their points.
                    if (w0 >= -1e-9 && w1 >= -1e-9 && w2 >= -1e-9) {
                        corner[static_cast<size_t>(r) * stride + c] = 1;
                    }
                }
            }
        }
    });
    // Prefix sums of empty cells: a block of cells is content when it holds none.
    std::vector<int32_t> empty(static_cast<size_t>(stride) * (rows + 1), 0);
    auto at = [&](int32_t r, int32_t c) -> int32_t& {
        return empty[static_cast<size_t>(r) * stride + c];
    };
    auto covered = [&](int32_t r, int32_t c) {
        return corner[static_cast<size_t>(r) * stride + c] != 0;
    };
    for (int32_t r = 0; r < rows; ++r) {
        for (int32_t c = 0; c < columns; ++c) {
            const bool full =
                covered(r, c) && covered(r, c + 1) && covered(r + 1, c) && covered(r + 1, c + 1);
            at(r + 1, c + 1) = (full ? 0 : 1) + at(r, c + 1) + at(r + 1, c) - at(r, c);
        }
    }
    auto emptyIn = [&](int32_t r, int32_t c, int32_t h, int32_t w) {
        return at(r + h, c + w) - at(r, c + w) - at(r + h, c) + at(r, c);
    };
    const double aspect = static_cast<double>(std::max(width, 1)) / std::max(height, 1);
    auto widthFor = [&](int32_t h) { return static_cast<int32_t>(std::ceil(h * aspect - 1e-9)); };
    // The placement the offsets ask for, in cells, for a block of h x w.
    auto wanted = [&](int32_t h, int32_t w, double& c, double& r) {
        c = framing.offsetX * static_cast<double>(columns - w);
        r = framing.offsetY * static_cast<double>(rows - h);
    };
    struct Place {
        int32_t r = -1, c = -1;
    };
    auto best = [&](int32_t h) {
        Place place;
        const int32_t w = widthFor(h);
        if (h > rows || w > columns || w < 1) {
            return place;
        }
        double wc, wr;
        wanted(h, w, wc, wr);
        double bestDistance = std::numeric_limits<double>::max();
        for (int32_t r = 0; r + h <= rows; ++r) {
            for (int32_t c = 0; c + w <= columns; ++c) {
                if (emptyIn(r, c, h, w) != 0) {
                    continue;
                }
                const double d = (c - wc) * (c - wc) + (r - wr) * (r - wr);
                if (d < bestDistance) {
                    bestDistance = d;
                    place = {r, c};
                }
            }
        }
        return place;
    };
    // Whether some block of height h fits (monotone in h).
    auto fits = [&](int32_t h) {
        const int32_t w = widthFor(h);
        if (h > rows || w > columns || w < 1) {
            return false;
        }
        for (int32_t r = 0; r + h <= rows; ++r) {
            for (int32_t c = 0; c + w <= columns; ++c) {
                if (emptyIn(r, c, h, w) == 0) {
                    return true;
                }
            }
        }
        return false;
    };
    int32_t lo = 0, hi = rows;
    while (lo < hi) {
        const int32_t mid = (lo + hi + 1) / 2;
        if (fits(mid)) {
            lo = mid;
        } else {
            hi = mid - 1;
        }
    }
    if (lo < 1) {
        return std::nullopt;
    }
    const Place place = best(lo);
    const int32_t w = widthFor(lo);
    // The frame of aspect width : height, lo cells high, centred in the
    // block (whose width was rounded up), kept a hair inside the content.
    const double inset = 1e-3 * cell;
    const double fh = lo * cell - 2.0 * inset;
    const double fw = fh * aspect;
    ViewFrame frame;
    frame.width = static_cast<float>(fw);
    frame.height = static_cast<float>(fh);
    frame.left = static_cast<float>(extent.minX + place.c * cell + 0.5 * (w * cell - fw));
    frame.top = static_cast<float>(extent.maxY - place.r * cell - inset);
    return frame;
}

ViewFrame PictureFrame(const RenderMesh& mesh, int32_t width, int32_t height,
                       const ViewFraming& framing) {
    if (framing.cropToContent) {
        // Cells of about a pixel for small pictures; about 1024 along the
        // longer side for large ones (within a cell of the largest crop).
        const int32_t cells = std::clamp(std::max(width, height), 1, 1024);
        if (const auto crop = CropToContent(mesh, width, height, framing, cells)) {
            return *crop;
        }
    }
    return FitViewFrame(ComputeMeshExtent(mesh), width, height, framing);
}

ViewFrame FitViewFrame(const MeshExtent& extent, int32_t width, int32_t height,
                       const ViewFraming& framing, const PictureWindow& window) {
    if (!window.Whole()) {
        return WindowPart(FitViewFrame(extent, window.pictureWidth, window.pictureHeight, framing),
                          window);
    }
    constexpr double kMinSize = 1e-6;
    const double aspect = static_cast<double>(std::max(width, 1)) / std::max(height, 1);
    double minX = 0.0;
    double maxY = 0.0;
    double ew = 0.0;
    double eh = 0.0;
    if (!extent.empty) {
        minX = extent.minX;
        maxY = extent.maxY;
        ew = static_cast<double>(extent.maxX) - extent.minX;
        eh = static_cast<double>(extent.maxY) - extent.minY;
    }
    // The fit: the smallest W : H frame that holds the extent.
    double fw = std::max(ew, eh * aspect);
    if (fw < kMinSize) {
        fw = kMinSize;
    }
    const double scale = std::max(framing.scalePercent, 1) / 100.0;
    fw /= scale;
    const double fh = fw / aspect;
    ViewFrame frame;
    frame.width = static_cast<float>(fw);
    frame.height = static_cast<float>(fh);
    frame.left = static_cast<float>(minX + framing.offsetX * (ew - fw));
    frame.top = static_cast<float>(maxY - framing.offsetY * (eh - fh));
    return frame;
}

std::array<uint32_t, 6> TriangulateQuad(uint32_t k, uint32_t m, const float p00[2],
                                        const float p10[2], const float p01[2],
                                        const float p11[2]) {
    const float ax = p10[0] - p01[0];
    const float ay = p10[1] - p01[1];
    const float bx = p00[0] - p11[0];
    const float by = p00[1] - p11[1];
    if (ax * ax + ay * ay < bx * bx + by * by) {
        // Along (i + 1, j) - (i, j + 1).
        return {k, k + m, k + 1, k + m, k + m + 1, k + 1};
    }
    // Along (i, j) - (i + 1, j + 1), ties included.
    return {k, k + m, k + m + 1, k, k + 1, k + m + 1};
}

RenderPlan::RenderPlan(std::shared_ptr<const RenderMesh> mesh, int32_t outputWidth,
                       int32_t outputHeight, int32_t sourceWidth, int32_t sourceHeight,
                       const ViewFraming& framing, const PictureWindow& window)
    : mesh_(std::move(mesh)),
      outputWidth_(std::max(outputWidth, 0)),
      outputHeight_(std::max(outputHeight, 0)),
      sourceWidth_(std::max(sourceWidth, 0)),
      sourceHeight_(std::max(sourceHeight, 0)) {
    if (!mesh_) {
        mesh_ = std::make_shared<RenderMesh>();
    }
    tileColumns_ = CeilDiv(outputWidth_, kTileSize);
    tileRows_ = CeilDiv(outputHeight_, kTileSize);
    sourceTileColumns_ = CeilDiv(sourceWidth_, kTileSize);
    sourceTileRows_ = CeilDiv(sourceHeight_, kTileSize);
    extent_ = ComputeMeshExtent(*mesh_);
    const int32_t pictureWidth = window.Whole() ? outputWidth_ : window.pictureWidth;
    const int32_t pictureHeight = window.Whole() ? outputHeight_ : window.pictureHeight;
    const ViewFrame picture = framing.cropToContent
                                  ? PictureFrame(*mesh_, pictureWidth, pictureHeight, framing)
                                  : FitViewFrame(extent_, pictureWidth, pictureHeight, framing);
    frame_ = window.Whole() ? picture : WindowPart(picture, window);

    const int32_t quads = mesh_->QuadsPerSide();
    for (int32_t j = 0; j < quads; ++j) {
        for (int32_t i = 0; i < quads; ++i) {
            if (!mesh_->IsQuadValid(mesh_->QuadIndex(i, j))) {
                continue;
            }
            if (vertexRect_.Empty()) {
                vertexRect_ = {i, i + 1, j, j + 1};
            } else {
                vertexRect_.c0 = std::min(vertexRect_.c0, i);
                vertexRect_.c1 = std::max(vertexRect_.c1, i + 1);
                vertexRect_.r0 = std::min(vertexRect_.r0, j);
                vertexRect_.r1 = std::max(vertexRect_.r1, j + 1);
            }
        }
    }
    BuildPieces();
    BuildBuckets();
    BuildSourceTiles();
}

void RenderPlan::BuildPieces() {
    const RenderMesh& mesh = *mesh_;
    const int32_t n = mesh.QuadsPerSide();
    const size_t quadCount = static_cast<size_t>(n) * static_cast<size_t>(n);
    clipped_.assign(quadCount, 0);
    pieceOffsets_.assign(quadCount + 1, 0);
    pieces_.clear();
    std::vector<PlanVertex> triangles;
    for (int32_t quad = 0; quad < static_cast<int32_t>(quadCount); ++quad) {
        if (mesh.IsQuadValid(quad)) {
            triangles.clear();
            if (!QuadTriangles(mesh, quad % n, quad / n, triangles)) {
                clipped_[static_cast<size_t>(quad)] = 1;
                pieces_.insert(pieces_.end(), triangles.begin(), triangles.end());
            }
        }
        pieceOffsets_[static_cast<size_t>(quad) + 1] = static_cast<int32_t>(pieces_.size());
    }
}

bool RenderPlan::QuadBox(int32_t quad, bool texture, double box[4]) const {
    const RenderMesh& mesh = *mesh_;
    const int32_t n = mesh.QuadsPerSide();
    if (clipped_[static_cast<size_t>(quad)] == 0) {
        const Project::QuadBox b =
            QuadBounds(mesh, texture ? mesh.texcoords : mesh.positions, quad % n, quad / n);
        box[0] = b.minX, box[1] = b.maxX, box[2] = b.minY, box[3] = b.maxY;
        return true;
    }
    const auto begin = static_cast<size_t>(pieceOffsets_[static_cast<size_t>(quad)]);
    const auto end = static_cast<size_t>(pieceOffsets_[static_cast<size_t>(quad) + 1]);
    if (begin == end) {
        return false;
    }
    for (size_t k = begin; k < end; ++k) {
        const double x = texture ? pieces_[k].u : pieces_[k].x;
        const double y = texture ? pieces_[k].v : pieces_[k].y;
        box[0] = k == begin ? x : std::min(box[0], x);
        box[1] = k == begin ? x : std::max(box[1], x);
        box[2] = k == begin ? y : std::min(box[2], y);
        box[3] = k == begin ? y : std::max(box[3], y);
    }
    return true;
}

void RenderPlan::BuildBuckets() {
    const RenderMesh& mesh = *mesh_;
    const int32_t tiles = TileCount();
    std::vector<std::vector<int32_t>> buckets(static_cast<size_t>(tiles));
    const int32_t n = mesh.QuadsPerSide();
    if (tiles > 0 && n > 0 && !extent_.empty) {
        // Tile size in plane units, and a margin of 1/100 of a mesh cell.
        const double sx = static_cast<double>(kTileSize) / outputWidth_ * frame_.width;
        const double sy = static_cast<double>(kTileSize) / outputHeight_ * frame_.height;
        const double mx = static_cast<double>(extent_.Width()) / n * 0.01;
        const double my = static_cast<double>(extent_.Height()) / n * 0.01;
        for (int32_t j = 0; j < n; ++j) {
            for (int32_t i = 0; i < n; ++i) {
                const int32_t quad = mesh.QuadIndex(i, j);
                double box[4];
                if (!mesh.IsQuadValid(quad) || !QuadBox(quad, false, box)) {
                    continue;
                }
                const double minX = box[0] - mx;
                const double maxX = box[1] + mx;
                const double minY = box[2] - my;
                const double maxY = box[3] + my;
                // Both ends are clamped into the grid, so that a quad beside
                // the frame still lands in the border column or row; the
                // viewport clips what lies outside.
                const int32_t col0 =
                    std::clamp(FloorToInt((minX - frame_.left) / sx), 0, tileColumns_ - 1);
                const int32_t col1 =
                    std::clamp(FloorToInt((maxX - frame_.left) / sx), 0, tileColumns_ - 1);
                const int32_t row0 =
                    std::clamp(FloorToInt((frame_.top - maxY) / sy), 0, tileRows_ - 1);
                const int32_t row1 =
                    std::clamp(FloorToInt((frame_.top - minY) / sy), 0, tileRows_ - 1);
                for (int32_t row = row0; row <= row1; ++row) {
                    for (int32_t col = col0; col <= col1; ++col) {
                        buckets[static_cast<size_t>(row * tileColumns_ + col)].push_back(quad);
                    }
                }
            }
        }
    }
    bucketOffsets_.assign(static_cast<size_t>(tiles) + 1, 0);
    bucketQuads_.clear();
    for (int32_t t = 0; t < tiles; ++t) {
        // Quads were visited in ascending index order: the buckets are ordered sets.
        const auto& bucket = buckets[static_cast<size_t>(t)];
        bucketQuads_.insert(bucketQuads_.end(), bucket.begin(), bucket.end());
        bucketOffsets_[static_cast<size_t>(t) + 1] = static_cast<int32_t>(bucketQuads_.size());
    }
}

void RenderPlan::BuildSourceTiles() {
    const RenderMesh& mesh = *mesh_;
    const int32_t n = mesh.QuadsPerSide();
    const size_t quadCount = static_cast<size_t>(n) * static_cast<size_t>(n);
    sourceTileOffsets_.assign(quadCount + 1, 0);
    sourceTiles_.clear();
    const double width = sourceWidth_;
    const double height = sourceHeight_;
    for (int32_t quad = 0; quad < static_cast<int32_t>(quadCount); ++quad) {
        double box[4];
        if (mesh.IsQuadValid(quad) && sourceTileColumns_ > 0 && sourceTileRows_ > 0 &&
            QuadBox(quad, true, box)) {
            const double u0 = box[0], u1 = box[1], v0 = box[2], v1 = box[3];
            // Texture coordinates are PhotoToSphere::ToTexture's, whose v
            // grows downwards like the source rows and tile rows, so v needs
            // no turning over (1 - v) here: tile row ty covers v in
            // [ty * 1024 / H, (ty + 1) * 1024 / H).
            const int32_t tx0 =
                std::clamp(FloorToInt(u0 * width / kTileSize), 0, sourceTileColumns_ - 1);
            const int32_t tx1 =
                std::clamp(FloorToInt(u1 * width / kTileSize), 0, sourceTileColumns_ - 1);
            const int32_t ty0 =
                std::clamp(FloorToInt(v0 * height / kTileSize), 0, sourceTileRows_ - 1);
            const int32_t ty1 =
                std::clamp(FloorToInt(v1 * height / kTileSize), 0, sourceTileRows_ - 1);
            for (int32_t ty = ty0; ty <= ty1; ++ty) {
                const double b0 = ty * kTileSize / height;
                const double b1 = std::min((ty + 1) * kTileSize / height, 1.0);
                if (!(std::max(v0, b0) < std::min(v1, b1))) {
                    continue;
                }
                for (int32_t tx = tx0; tx <= tx1; ++tx) {
                    const double a0 = tx * kTileSize / width;
                    const double a1 = std::min((tx + 1) * kTileSize / width, 1.0);
                    if (std::max(u0, a0) < std::min(u1, a1)) {
                        sourceTiles_.push_back({tx, ty});
                    }
                }
            }
        }
        sourceTileOffsets_[static_cast<size_t>(quad) + 1] =
            static_cast<int32_t>(sourceTiles_.size());
    }
}

PixelRect RenderPlan::TileRect(int32_t column, int32_t row) const {
    return {column * kTileSize, row * kTileSize, std::min((column + 1) * kTileSize, outputWidth_),
            std::min((row + 1) * kTileSize, outputHeight_)};
}

std::span<const int32_t> RenderPlan::Bucket(int32_t column, int32_t row) const {
    const auto t = static_cast<size_t>(row * tileColumns_ + column);
    const auto begin = static_cast<size_t>(bucketOffsets_[t]);
    const auto end = static_cast<size_t>(bucketOffsets_[t + 1]);
    return std::span<const int32_t>(bucketQuads_).subspan(begin, end - begin);
}

std::span<const SourceTile> RenderPlan::SourceTiles(int32_t quad) const {
    const auto q = static_cast<size_t>(quad);
    const auto begin = static_cast<size_t>(sourceTileOffsets_[q]);
    const auto end = static_cast<size_t>(sourceTileOffsets_[q + 1]);
    return std::span<const SourceTile>(sourceTiles_).subspan(begin, end - begin);
}

void RenderPlan::AppendQuadTriangles(int32_t quad, std::vector<PlanVertex>& out) const {
    if (clipped_[static_cast<size_t>(quad)] != 0) {
        out.insert(out.end(), pieces_.begin() + pieceOffsets_[static_cast<size_t>(quad)],
                   pieces_.begin() + pieceOffsets_[static_cast<size_t>(quad) + 1]);
        return;
    }
    const int32_t n = mesh_->QuadsPerSide();
    QuadTriangles(*mesh_, quad % n, quad / n, out);
}

std::vector<Gpu::GpuVertex> RenderPlan::RectangleVertices() const {
    std::vector<Gpu::GpuVertex> vertices;
    if (vertexRect_.Empty()) {
        return vertices;
    }
    const RenderMesh& mesh = *mesh_;
    vertices.reserve(static_cast<size_t>(vertexRect_.Columns()) *
                         static_cast<size_t>(vertexRect_.Rows()) +
                     pieces_.size());
    for (int32_t j = vertexRect_.r0; j <= vertexRect_.r1; ++j) {
        for (int32_t i = vertexRect_.c0; i <= vertexRect_.c1; ++i) {
            const auto k = static_cast<size_t>(mesh.VertexIndex(i, j));
            Gpu::GpuVertex vertex;
            vertex.x = mesh.positions[2 * k];
            vertex.y = mesh.positions[2 * k + 1];
            vertex.u = mesh.texcoords[2 * k];
            vertex.v = mesh.texcoords[2 * k + 1];
            vertices.push_back(vertex);
        }
    }
    for (const PlanVertex& p : pieces_) {
        Gpu::GpuVertex vertex;
        vertex.x = p.x;
        vertex.y = p.y;
        vertex.u = p.u;
        vertex.v = p.v;
        vertices.push_back(vertex);
    }
    return vertices;
}

std::vector<uint32_t> RenderPlan::TileIndices(int32_t column, int32_t row) const {
    std::vector<uint32_t> indices;
    const auto bucket = Bucket(column, row);
    indices.reserve(bucket.size() * 6);
    const RenderMesh& mesh = *mesh_;
    const int32_t n = mesh.QuadsPerSide();
    const auto rectangle =
        static_cast<uint32_t>(vertexRect_.Columns()) * static_cast<uint32_t>(vertexRect_.Rows());
    const float* p = mesh.positions.data();
    for (int32_t quad : bucket) {
        const auto q = static_cast<size_t>(quad);
        if (clipped_[q] != 0) {
            for (int32_t k = pieceOffsets_[q]; k < pieceOffsets_[q + 1]; ++k) {
                indices.push_back(rectangle + static_cast<uint32_t>(k));
            }
            continue;
        }
        const int32_t i = quad % n;
        const int32_t j = quad / n;
        const auto six = TriangulateQuad(
            GpuIndex(i, j), static_cast<uint32_t>(vertexRect_.Columns()),
            p + 2 * mesh.VertexIndex(i, j), p + 2 * mesh.VertexIndex(i + 1, j),
            p + 2 * mesh.VertexIndex(i, j + 1), p + 2 * mesh.VertexIndex(i + 1, j + 1));
        indices.insert(indices.end(), six.begin(), six.end());
    }
    return indices;
}

RenderPlan::PixelFraming RenderPlan::Framing() const {
    const double w = std::max(outputWidth_, 1);
    const double h = std::max(outputHeight_, 1);
    const double fw = frame_.width;
    const double fh = frame_.height;
    const double cx = frame_.left + 0.5 * fw;
    const double cy = frame_.top - 0.5 * fh;
    const double s = 2.0 / std::max(fw, fh);
    const double ax = std::min(1.0, w / h);
    const double ay = std::min(1.0, h / w);
    // px = (s (x - cx) / ax + 1) W / 2, py = (-s (y - cy) / ay + 1) H / 2
    const double kx = s / ax * 0.5 * w;
    const double ky = -s / ay * 0.5 * h;
    return {kx, -kx * cx + 0.5 * w, ky, -ky * cy + 0.5 * h};
}

std::array<float, 16> RenderPlan::TileMatrix(int32_t column, int32_t row) const {
    // A tile's 1024 pixels span [-1, 1]: ndc = 2 pixel / 1024 - 1 - 2 column
    // (rows alike). Powers of two only, so the scaling is exact.
    const PixelFraming f = Framing();
    const double toNdc = 2.0 / kTileSize;
    std::array<float, 16> m{};
    m[0] = static_cast<float>(f.scaleX * toNdc);
    m[3] = static_cast<float>(f.offsetX * toNdc - 1.0 - 2.0 * column);
    m[5] = static_cast<float>(f.scaleY * toNdc);
    m[7] = static_cast<float>(f.offsetY * toNdc - 1.0 - 2.0 * row);
    m[10] = 1.0f;
    m[15] = 1.0f;
    return m;
}

void RenderPlan::PlaneToPixel(double x, double y, double& px, double& py) const {
    const PixelFraming f = Framing();
    px = f.scaleX * x + f.offsetX;
    py = f.scaleY * y + f.offsetY;
}

}  // namespace Project

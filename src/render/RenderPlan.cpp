#include "render/RenderPlan.h"

#include <algorithm>
#include <cmath>

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

// A corner of the quad samples the photograph itself, not the area around it
// that a fisheye or perspective projection also maps.
bool QuadShowsPhoto(const RenderMesh& mesh, int32_t i, int32_t j) {
    for (int32_t dj = 0; dj < 2; ++dj) {
        for (int32_t di = 0; di < 2; ++di) {
            const auto k = static_cast<size_t>(mesh.VertexIndex(i + di, j + dj));
            const float u = mesh.texcoords[2 * k];
            const float v = mesh.texcoords[2 * k + 1];
            if (u >= 0.0f && u <= 1.0f && v >= 0.0f && v <= 1.0f) {
                return true;
            }
        }
    }
    return false;
}

MeshExtent ExtentOf(const RenderMesh& mesh, bool photoOnly) {
    MeshExtent extent;
    const int32_t quads = mesh.QuadsPerSide();
    for (int32_t j = 0; j < quads; ++j) {
        for (int32_t i = 0; i < quads; ++i) {
            if (!mesh.IsQuadValid(mesh.QuadIndex(i, j)) ||
                (photoOnly && !QuadShowsPhoto(mesh, i, j))) {
                continue;
            }
            const QuadBox b = QuadBounds(mesh, mesh.positions, i, j);
            const auto minX = static_cast<float>(b.minX), maxX = static_cast<float>(b.maxX);
            const auto minY = static_cast<float>(b.minY), maxY = static_cast<float>(b.maxY);
            if (extent.empty) {
                extent = {minX, minY, maxX, maxY, false};
            } else {
                extent.minX = std::min(extent.minX, minX);
                extent.maxX = std::max(extent.maxX, maxX);
                extent.minY = std::min(extent.minY, minY);
                extent.maxY = std::max(extent.maxY, maxY);
            }
        }
    }
    return extent;
}

}  // namespace

MeshExtent ComputeMeshExtent(const RenderMesh& mesh) {
    // The frame fits the photograph's own content: the valid mesh of a
    // fisheye or perspective photo spans its whole front hemisphere, most of
    // which lies outside the picture.
    const MeshExtent photo = ExtentOf(mesh, true);
    return photo.empty ? ExtentOf(mesh, false) : photo;
}

ViewFrame FitViewFrame(const MeshExtent& extent, int32_t width, int32_t height,
                       const ViewFraming& framing, const PictureWindow& window) {
    if (!window.Whole()) {
        const ViewFrame picture =
            FitViewFrame(extent, window.pictureWidth, window.pictureHeight, framing);
        const double unit = static_cast<double>(picture.width) / window.pictureWidth;
        ViewFrame part;
        part.left = static_cast<float>(picture.left + window.left * unit);
        part.top = static_cast<float>(picture.top - window.top * unit);
        part.width = static_cast<float>(window.width * unit);
        part.height = static_cast<float>(window.height * unit);
        return part;
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
    frame_ = FitViewFrame(extent_, outputWidth_, outputHeight_, framing, window);

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
    BuildBuckets();
    BuildSourceTiles();
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
                if (!mesh.IsQuadValid(quad)) {
                    continue;
                }
                const QuadBox box = QuadBounds(mesh, mesh.positions, i, j);
                const double minX = box.minX - mx;
                const double maxX = box.maxX + mx;
                const double minY = box.minY - my;
                const double maxY = box.maxY + my;
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
        if (mesh.IsQuadValid(quad) && sourceTileColumns_ > 0 && sourceTileRows_ > 0) {
            const int32_t i = quad % n;
            const int32_t j = quad / n;
            const QuadBox box = QuadBounds(mesh, mesh.texcoords, i, j);
            const double u0 = box.minX, u1 = box.maxX, v0 = box.minY, v1 = box.maxY;
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

std::array<uint32_t, 6> RenderPlan::QuadIndices(int32_t quad) const {
    const RenderMesh& mesh = *mesh_;
    const int32_t n = mesh.QuadsPerSide();
    const int32_t i = quad % n;
    const int32_t j = quad / n;
    const float* p = mesh.positions.data();
    return TriangulateQuad(GpuIndex(i, j), static_cast<uint32_t>(vertexRect_.Columns()),
                           p + 2 * mesh.VertexIndex(i, j), p + 2 * mesh.VertexIndex(i + 1, j),
                           p + 2 * mesh.VertexIndex(i, j + 1),
                           p + 2 * mesh.VertexIndex(i + 1, j + 1));
}

std::vector<Gpu::GpuVertex> RenderPlan::RectangleVertices() const {
    std::vector<Gpu::GpuVertex> vertices;
    if (vertexRect_.Empty()) {
        return vertices;
    }
    const RenderMesh& mesh = *mesh_;
    vertices.reserve(static_cast<size_t>(vertexRect_.Columns()) *
                     static_cast<size_t>(vertexRect_.Rows()));
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
    return vertices;
}

std::vector<uint32_t> RenderPlan::TileIndices(int32_t column, int32_t row) const {
    std::vector<uint32_t> indices;
    const auto bucket = Bucket(column, row);
    indices.reserve(bucket.size() * 6);
    for (int32_t quad : bucket) {
        const auto six = QuadIndices(quad);
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

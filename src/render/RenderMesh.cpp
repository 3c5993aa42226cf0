#include "render/RenderMesh.h"

#include <algorithm>

#include "geometry/PhotoToSphere.h"
#include "warp/OctaMap.h"
#include "warp/SphereWarp.h"

namespace Project {

int32_t RenderMesh::ValidQuadCount() const {
    return static_cast<int32_t>(std::count(quadValid.begin(), quadValid.end(), uint8_t{1}));
}

RenderMesh BuildRenderMesh(const SphereWarp& warp, const TexCoordFunction& texCoord,
                           const TextureBox& content) {
    RenderMesh mesh;
    mesh.content = content;
    const int32_t n = warp.MeshSize();
    if (n < 2) {
        return mesh;
    }
    mesh.n = n;
    const size_t vertices = static_cast<size_t>(n) * static_cast<size_t>(n);
    const int32_t quads = n - 1;
    mesh.positions.assign(2 * vertices, 0.0f);
    mesh.texcoords.assign(2 * vertices, 0.0f);
    mesh.quadValid.assign(static_cast<size_t>(quads) * static_cast<size_t>(quads), 0);
    if (!warp.IsSolved()) {
        return mesh;
    }
    std::vector<uint8_t> used(vertices, 0);
    for (int32_t j = 0; j < quads; ++j) {
        for (int32_t i = 0; i < quads; ++i) {
            if (!warp.IsQuadValid(i, j)) {
                continue;
            }
            mesh.quadValid[static_cast<size_t>(mesh.QuadIndex(i, j))] = 1;
            used[static_cast<size_t>(mesh.VertexIndex(i, j))] = 1;
            used[static_cast<size_t>(mesh.VertexIndex(i + 1, j))] = 1;
            used[static_cast<size_t>(mesh.VertexIndex(i, j + 1))] = 1;
            used[static_cast<size_t>(mesh.VertexIndex(i + 1, j + 1))] = 1;
        }
    }
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            const auto k = static_cast<size_t>(mesh.VertexIndex(i, j));
            if (used[k] == 0) {
                continue;
            }
            float y = 0.0f;
            warp.GetVertexPosition(i, j, mesh.positions[2 * k], y);
            // A warp's y grows downwards in the photo; the render plane's y
            // grows upwards (output row 0 shows the frame's largest y).
            mesh.positions[2 * k + 1] = -y;
            texCoord(i, j, mesh.texcoords[2 * k], mesh.texcoords[2 * k + 1]);
        }
    }
    // A quad whose texture coordinates lie wholly beside the content shows
    // none of it: it is not drawn at all.
    for (int32_t j = 0; j < quads; ++j) {
        for (int32_t i = 0; i < quads; ++i) {
            auto& valid = mesh.quadValid[static_cast<size_t>(mesh.QuadIndex(i, j))];
            if (valid == 0) {
                continue;
            }
            const QuadBox t = QuadBounds(mesh, mesh.texcoords, i, j);
            if (t.maxX < content.u0 || t.minX > content.u1 || t.maxY < content.v0 ||
                t.minY > content.v1) {
                valid = 0;
            }
        }
    }
    return mesh;
}

QuadBox QuadBounds(const RenderMesh& mesh, const std::vector<float>& pairs, int32_t i, int32_t j) {
    QuadBox box{};
    for (int32_t c = 0; c < 4; ++c) {
        const auto k = static_cast<size_t>(mesh.VertexIndex(i + (c & 1), j + (c >> 1)));
        const double x = pairs[2 * k];
        const double y = pairs[2 * k + 1];
        box.minX = c == 0 ? x : std::min(box.minX, x);
        box.maxX = c == 0 ? x : std::max(box.maxX, x);
        box.minY = c == 0 ? y : std::min(box.minY, y);
        box.maxY = c == 0 ? y : std::max(box.maxY, y);
    }
    return box;
}

void PhotoTexture(const PhotoToSphere& photo, float lambda, float phi, float& u, float& v) {
    // ToTexture puts image point (0, 0), the centre of pixel
    // (floor(W / 2), floor(H / 2)), at (0.5, 0.5): for an even side that is
    // the corner between two texels, where the GPU's sampler (texel k centred
    // at (k + 0.5) / W) would blend the two. Half a texel more lands on the
    // pixel's centre, as the sampling of the projections does.
    const SourceRaster& raster = photo.Raster();
    u = 0.0f;
    v = 0.0f;
    photo.ToTexture(lambda, phi, u, v);
    if (raster.width > 0 && raster.width % 2 == 0) {
        u += 0.5f / static_cast<float>(raster.width);
    }
    if (raster.height > 0 && raster.height % 2 == 0) {
        v += 0.5f / static_cast<float>(raster.height);
    }
}

TexCoordFunction MeshTextureCoordinates(const OctaMap& mesh, const PhotoToSphere& photo) {
    return [&mesh, &photo](int32_t i, int32_t j, float& u, float& v) {
        const SphereDirection angles = mesh.UnrotatedAngles(i, j);
        PhotoTexture(photo, angles.lambda, angles.phi, u, v);
    };
}

}  // namespace Project

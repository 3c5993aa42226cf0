#include "RenderTestSupport.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>

namespace Project::Testing {

Gpu::LogSink CapturedLog::Sink() {
    return [this](Gpu::LogLevel, std::string_view line) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.emplace_back(line);
    };
}

bool CapturedLog::Contains(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
}

void KeepVulkanDriverLoaded() {
    setenv("MESA_SHADER_CACHE_DISABLE", "true", 0);
    // Reachable for the whole process on purpose (not a leak).
    static const auto* const keeper = [] {
        Gpu::GpuOptions options;
        options.log = [](Gpu::LogLevel, std::string_view) {};
        auto device = Gpu::GpuDevice::Create(options);
        return new std::shared_ptr<Gpu::GpuDevice>(device ? std::move(device).value() : nullptr);
    }();
    (void)keeper;
}

std::shared_ptr<Gpu::GpuDevice> MakeTestDevice(uint32_t maxTextureDimension, CapturedLog* log,
                                               bool mappedSource) {
    KeepVulkanDriverLoaded();
    Gpu::GpuOptions options;
    options.enableValidation = true;
    options.onValidationError = [](std::string_view message) {
        ADD_FAILURE() << "Vulkan validation error: " << message;
    };
    options.maxTextureDimension = maxTextureDimension;
    options.mappedSource = mappedSource;
    if (log != nullptr) {
        options.log = log->Sink();
    } else {
        // Keep the test output quiet: only warnings and errors.
        options.log = [](Gpu::LogLevel level, std::string_view line) {
            if (level != Gpu::LogLevel::Info) {
                std::fprintf(stderr, "Curvana GPU: %.*s\n", static_cast<int>(line.size()),
                             line.data());
            }
        };
    }
    auto device = Gpu::GpuDevice::Create(options);
    if (!device) {
        ADD_FAILURE() << "no GPU device: " << device.error().message;
        return nullptr;
    }
    return std::move(device).value();
}

RenderMesh DistortedGridMesh(int32_t n, int32_t width, int32_t height, float wobble) {
    RenderMesh mesh;
    mesh.n = n;
    const size_t count = static_cast<size_t>(n) * static_cast<size_t>(n);
    mesh.positions.resize(2 * count);
    mesh.texcoords.resize(2 * count);
    mesh.quadValid.assign(static_cast<size_t>(n - 1) * static_cast<size_t>(n - 1), 1);
    const double aspect = static_cast<double>(width) / height;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            const double s = static_cast<double>(i) / (n - 1);
            const double t = static_cast<double>(j) / (n - 1);
            const auto k = static_cast<size_t>(mesh.VertexIndex(i, j));
            mesh.positions[2 * k] = static_cast<float>(s * aspect);
            mesh.positions[2 * k + 1] = static_cast<float>(-t);
            mesh.texcoords[2 * k] =
                static_cast<float>(s + wobble * std::sin(6.0 * t + 1.0) * std::sin(3.14159 * s));
            mesh.texcoords[2 * k + 1] =
                static_cast<float>(t + wobble * std::sin(5.0 * s) * std::sin(3.14159 * t));
        }
    }
    return mesh;
}

MemoryImage SyntheticImage(int32_t width, int32_t height, PixelFormat format, uint32_t seed) {
    MemoryImage image(width, height, format);
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> phase(0.0, 6.28);
    const int32_t maxValue = format.depth > 8 ? 32768 : 255;
    const int32_t minValue = format.depth > 8 ? 2 : 1;
    for (int32_t p = 0; p < format.planes; ++p) {
        const double a = phase(random);
        const double b = phase(random);
        for (int32_t y = 0; y < height; ++y) {
            for (int32_t x = 0; x < width; ++x) {
                // Smooth waves, plus a checker of 37-pixel cells that adds
                // sharp edges.
                double v = 0.5 + 0.25 * std::sin(0.043 * x + a) * std::cos(0.031 * y + b) +
                           0.15 * std::sin(0.007 * (x + 2 * y) + p);
                if (((x / 37) + (y / 37) + p) % 2 == 0) {
                    v += 0.08;
                }
                const auto value = static_cast<int32_t>(std::lround(v * maxValue));
                image.Set(p, x, y, static_cast<uint32_t>(std::clamp(value, minValue, maxValue)));
            }
        }
    }
    return image;
}

namespace {

// The source value of plane p at texel (x, y) on the GPU's scale.
double GpuScaleValue(const MemoryImage& source, int32_t p, int32_t x, int32_t y) {
    const uint32_t v = source.At(p, x, y);
    if (source.Format().depth > 8) {
        return HostToGpu16(static_cast<uint16_t>(v));
    }
    return v;
}

double SampleBilinear(const MemoryImage& source, int32_t p, double u, double v) {
    const int32_t w = source.Width();
    const int32_t h = source.Height();
    const double tx = u * w - 0.5;
    const double ty = v * h - 0.5;
    const double fx = std::floor(tx);
    const double fy = std::floor(ty);
    const double a = tx - fx;
    const double b = ty - fy;
    // Beyond the source the sampler repeats its edge texels.
    auto texel = [&](double x, double y) {
        return GpuScaleValue(source, p, static_cast<int32_t>(std::clamp(x, 0.0, w - 1.0)),
                             static_cast<int32_t>(std::clamp(y, 0.0, h - 1.0)));
    };
    return (1 - a) * (1 - b) * texel(fx, fy) + a * (1 - b) * texel(fx + 1, fy) +
           (1 - a) * b * texel(fx, fy + 1) + a * b * texel(fx + 1, fy + 1);
}

}  // namespace

ReferenceImage RenderReference(const RenderPlan& plan, const MemoryImage& source) {
    ReferenceImage out;
    out.width = plan.OutputWidth();
    out.height = plan.OutputHeight();
    out.planes = source.Format().planes;
    out.values.assign(static_cast<size_t>(out.width) * out.height * out.planes, 0.0);
    out.coverage.assign(static_cast<size_t>(out.width) * out.height, 0);
    const RenderMesh& mesh = plan.Mesh();
    const int32_t n = mesh.QuadsPerSide();
    std::vector<PlanVertex> triangles;
    for (int32_t quad = 0; quad < n * n; ++quad) {
        if (!mesh.IsQuadValid(quad)) {
            continue;
        }
        struct Corner {
            double px, py, u, v;
        };
        // The quad's triangles as the plan draws them, clipped to the content.
        triangles.clear();
        plan.AppendQuadTriangles(quad, triangles);
        for (size_t t = 0; t + 2 < triangles.size(); t += 3) {
            Corner c[3];
            for (int32_t k = 0; k < 3; ++k) {
                const PlanVertex& q = triangles[t + static_cast<size_t>(k)];
                plan.PlaneToPixel(q.x, q.y, c[k].px, c[k].py);
                c[k].u = q.u;
                c[k].v = q.v;
            }
            const Corner& A = c[0];
            const Corner& B = c[1];
            const Corner& C = c[2];
            const double area = (B.px - A.px) * (C.py - A.py) - (C.px - A.px) * (B.py - A.py);
            if (std::abs(area) < 1e-12) {
                continue;
            }
            const double lengths[3] = {std::hypot(C.px - B.px, C.py - B.py),
                                       std::hypot(A.px - C.px, A.py - C.py),
                                       std::hypot(B.px - A.px, B.py - A.py)};
            const int32_t x0 =
                std::max(0, static_cast<int32_t>(std::floor(std::min({A.px, B.px, C.px}) - 1)));
            const int32_t x1 = std::min(
                out.width - 1, static_cast<int32_t>(std::ceil(std::max({A.px, B.px, C.px}) + 1)));
            const int32_t y0 =
                std::max(0, static_cast<int32_t>(std::floor(std::min({A.py, B.py, C.py}) - 1)));
            const int32_t y1 = std::min(
                out.height - 1, static_cast<int32_t>(std::ceil(std::max({A.py, B.py, C.py}) + 1)));
            for (int32_t y = y0; y <= y1; ++y) {
                for (int32_t x = x0; x <= x1; ++x) {
                    const double cx = x + 0.5;
                    const double cy = y + 0.5;
                    const double wa =
                        ((B.px - cx) * (C.py - cy) - (C.px - cx) * (B.py - cy)) / area;
                    const double wb =
                        ((C.px - cx) * (A.py - cy) - (A.px - cx) * (C.py - cy)) / area;
                    const double wc = 1.0 - wa - wb;
                    // Signed distances to the three edges, in pixels.
                    const double da = wa * std::abs(area) / lengths[0];
                    const double db = wb * std::abs(area) / lengths[1];
                    const double dc = wc * std::abs(area) / lengths[2];
                    const double inside = std::min({da, db, dc});
                    if (inside < -0.01) {
                        continue;
                    }
                    const size_t pixel = static_cast<size_t>(y) * out.width + x;
                    const uint8_t coverage = inside > 0.01 ? 2 : 1;
                    // Keep a strict pixel of an earlier triangle against an
                    // edge touch of a later one.
                    if (out.coverage[pixel] == 2 && coverage == 1) {
                        continue;
                    }
                    out.coverage[pixel] = coverage;
                    const double u = wa * A.u + wb * B.u + wc * C.u;
                    const double v = wa * A.v + wb * B.v + wc * C.v;
                    for (int32_t plane = 0; plane < out.planes; ++plane) {
                        out.values[pixel * out.planes + plane] =
                            SampleBilinear(source, plane, u, v);
                    }
                }
            }
        }
    }
    return out;
}

Comparison CompareWithReference(const MemoryImage& gpu, const ReferenceImage& reference,
                                int64_t tolerance) {
    Comparison result;
    const bool sixteen = gpu.Format().depth > 8;
    for (int32_t y = 0; y < reference.height; ++y) {
        for (int32_t x = 0; x < reference.width; ++x) {
            const size_t pixel = static_cast<size_t>(y) * reference.width + x;
            bool written = false;
            for (int32_t p = 0; p < reference.planes; ++p) {
                written = written || gpu.At(p, x, y) != 0;
            }
            const uint8_t coverage = reference.coverage[pixel];
            if (!written) {
                // A covered pixel may be empty where it samples the border
                // beyond the source; only a reference value says it must not.
                bool referenceEmpty = true;
                for (int32_t p = 0; p < reference.planes; ++p) {
                    const double ref = reference.values[pixel * reference.planes + p];
                    referenceEmpty = referenceEmpty && (sixteen ? ref / 2 : ref) <= tolerance;
                }
                result.strictUncovered += coverage == 2 && !referenceEmpty ? 1 : 0;
                continue;
            }
            if (coverage == 0) {
                ++result.spuriousCovered;
                continue;
            }
            ++result.compared;
            bool within = true;
            for (int32_t p = 0; p < reference.planes; ++p) {
                const double ref = reference.values[pixel * reference.planes + p];
                int64_t expected = 0;
                if (sixteen) {
                    const auto unorm =
                        static_cast<uint16_t>(std::clamp(std::lround(ref), 0L, 65535L));
                    expected = GpuToHost16(unorm);
                } else {
                    expected = std::lround(ref);
                }
                const int64_t difference =
                    std::llabs(static_cast<int64_t>(gpu.At(p, x, y)) - expected);
                result.maxDifference = std::max(result.maxDifference, difference);
                within = within && difference <= tolerance;
            }
            result.withinTolerance += within ? 1 : 0;
        }
    }
    return result;
}

Difference CompareImages(const MemoryImage& a, const MemoryImage& b) {
    Difference result;
    for (int32_t p = 0; p < a.Format().planes; ++p) {
        for (int32_t y = 0; y < a.Height(); ++y) {
            for (int32_t x = 0; x < a.Width(); ++x) {
                const int64_t d = std::llabs(static_cast<int64_t>(a.At(p, x, y)) - b.At(p, x, y));
                if (d != 0) {
                    ++result.differing;
                    result.maxDifference = std::max(result.maxDifference, d);
                }
            }
        }
    }
    return result;
}

}  // namespace Project::Testing

// Building the sphere mesh, and projecting every vertex through each closed form.
#include <benchmark/benchmark.h>

#include <memory>

#include "warp/ClosedFormWarp.h"

namespace {

using Project::OctaMap;

class AllVisiblePhoto final : public Project::PhotoToSphere {
public:
    AllVisiblePhoto() : PhotoToSphere(std::make_shared<Project::SourceRaster>(16, 16)) {}
    std::array<float, 3> SampleColor(float, float) const override { return {}; }
    bool IsVisible(float, float) const override { return true; }
    bool QueryFlag3() const override { return true; }
    Project::ImagePoint ToImagePoint(float lambda, float phi) const override {
        return {lambda, phi};
    }
    bool ToSphere(Project::ImagePoint, Project::SphereDirection&) const override { return false; }
};

void BuildOctaMap(benchmark::State& state) {
    const auto level = static_cast<int32_t>(state.range(0));
    for (auto _ : state) {
        OctaMap mesh(level, false);
        benchmark::DoNotOptimize(mesh.StoredDirections().data());
    }
    const int64_t n = (int64_t{1} << (level + 1)) + 1;
    state.SetItemsProcessed(state.iterations() * n * n);
}
BENCHMARK(BuildOctaMap)->Arg(5)->Arg(6)->Arg(7)->Unit(benchmark::kMicrosecond);

// range(0): mesh level; range(1): regulariser code; range(2): rotation on.
void ProjectAllVertices(benchmark::State& state) {
    auto mesh = std::make_shared<OctaMap>(static_cast<int32_t>(state.range(0)), false);
    if (state.range(2) != 0) {
        mesh->SetRotation({0.8f, -0.6f, 0.0f, 0.6f, 0.8f, 0.0f, 0.0f, 0.0f, 1.0f});
        mesh->SetRotationEnabled(true);
    }
    const auto warp =
        Project::MakeClosedForm(static_cast<Project::RegularizerModel>(state.range(1)), mesh,
                                std::make_shared<AllVisiblePhoto>());
    const int32_t n = warp->MeshSize();
    for (auto _ : state) {
        float sum = 0.0f;
        for (int32_t j = 0; j < n; ++j) {
            for (int32_t i = 0; i < n; ++i) {
                float x = 0.0f;
                float y = 0.0f;
                warp->GetVertexPosition(i, j, x, y);
                sum += x + y;
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * n * n);
}
BENCHMARK(ProjectAllVertices)
    ->ArgsProduct({{5, 6, 7}, {1, 2, 3, 1000}, {0}})
    ->Args({6, 1, 1})
    ->Unit(benchmark::kMicrosecond);

}  // namespace

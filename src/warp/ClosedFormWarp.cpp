#include "warp/ClosedFormWarp.h"

#include <cmath>
#include <cstdlib>
#include <numbers>
#include <stdexcept>
#include <utility>

namespace Project {

namespace {

int32_t MeshWidth(const std::shared_ptr<const OctaMap>& mesh) {
    if (!mesh) {
        throw std::invalid_argument("ClosedFormWarp: no mesh");
    }
    return mesh->Width();
}

}  // namespace

ClosedFormWarp::ClosedFormWarp(std::shared_ptr<const OctaMap> mesh,
                               std::shared_ptr<const PhotoToSphere> photo)
    : n_(MeshWidth(mesh)), mesh_(std::move(mesh)), photo_(std::move(photo)) {}

bool ClosedFormWarp::IsVertexValid(int32_t i, int32_t j) const {
    if (!photo_) {
        return false;
    }
    const SphereDirection a = mesh_->UnrotatedAngles(i, j);
    return photo_->IsVisible(a.lambda, a.phi);
}

bool ClosedFormWarp::IsQuadValid(int32_t i, int32_t j) const {
    return IsVertexValid(i, j) && IsVertexValid(i + 1, j) && IsVertexValid(i, j + 1) &&
           IsVertexValid(i + 1, j + 1);
}

void ClosedFormWarp::GetVertexPosition(int32_t i, int32_t j, float& x, float& y) const {
    if (!InDomain(i, j)) {
        x = 0.0f;
        y = 0.0f;
        return;
    }
    ProjectVertex(i, j, x, y);
}

bool ClosedFormWarp::InDomain(int32_t i, int32_t j) const {
    (void)i;
    (void)j;
    return true;
}

bool StereographicClosedForm::InDomain(int32_t i, int32_t j) const {
    const int32_t h = n_ / 2;
    return std::abs(i - h) + std::abs(j - h) <= h;
}

void StereographicClosedForm::ProjectVertex(int32_t i, int32_t j, float& x, float& y) const {
    const SphereDirection a = mesh_->Angles(i, j);
    const float cosPhi = std::cos(a.phi);
    const float k = 2.0f / (1.0f + cosPhi * std::cos(a.lambda));
    x = k * cosPhi * std::sin(a.lambda);
    y = k * std::sin(a.phi);
}

bool MercatorClosedForm::InDomain(int32_t i, int32_t j) const {
    (void)i;
    return j >= 1 && j <= n_ - 2;
}

void MercatorClosedForm::ProjectVertex(int32_t i, int32_t j, float& x, float& y) const {
    const SphereDirection a = mesh_->Angles(i, j);
    const float halfPhi = a.phi / 2.0f;
    x = a.lambda;
    y = static_cast<float>(
        std::log(std::tan(std::numbers::pi / 4.0 + static_cast<double>(halfPhi))));
}

void PaniniProjection::ProjectVertex(int32_t i, int32_t j, float& x, float& y) const {
    // d = 1.001 rather than 1: the lambda = +-pi column stays finite.
    constexpr float kDistance = 1.001f;
    constexpr float kNumerator = 2.001f;
    const SphereDirection a = mesh_->Angles(i, j);
    const float m = kNumerator / (kDistance + std::cos(a.lambda));
    x = m * std::sin(a.lambda);
    y = m * std::tan(a.phi);
}

void EquirectangularClosedForm::ProjectVertex(int32_t i, int32_t j, float& x, float& y) const {
    const SphereDirection a = mesh_->Angles(i, j);
    x = a.lambda;
    y = a.phi;
}

std::shared_ptr<ClosedFormWarp> MakeClosedForm(RegularizerModel model,
                                               std::shared_ptr<const OctaMap> mesh,
                                               std::shared_ptr<const PhotoToSphere> photo) {
    switch (model) {
        case RegularizerModel::Mercator:
            return std::make_shared<MercatorClosedForm>(std::move(mesh), std::move(photo));
        case RegularizerModel::Panini:
            return std::make_shared<PaniniProjection>(std::move(mesh), std::move(photo));
        case RegularizerModel::Equirectangular:
            return std::make_shared<EquirectangularClosedForm>(std::move(mesh), std::move(photo));
        default:
            return std::make_shared<StereographicClosedForm>(std::move(mesh), std::move(photo));
    }
}

}  // namespace Project

#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/SphereFrames.h"

namespace Project {

// A point of the source picture in pixels from the image centre
// (floor(width / 2), floor(height / 2)); x to the right, y downwards.
struct ImagePoint {
    float x = 0.0f;
    float y = 0.0f;
};

// The sampled source picture: 3 bytes per pixel (channels 0, 1, 2), rows packed
// without padding. The renderer fills the pixels; the projections only need
// the size for their mappings. Shared between a projection and its creator.
struct SourceRaster {
    int32_t width = 0;
    int32_t height = 0;
    int32_t halfWidth = 0;   // width / 2, truncated
    int32_t halfHeight = 0;  // height / 2, truncated
    std::vector<uint8_t> pixels;

    SourceRaster() = default;
    SourceRaster(int32_t w, int32_t h) : width(w), height(h), halfWidth(w / 2), halfHeight(h / 2) {}
};

// Relates sphere directions to the source picture under one projection model.
// Immutable after construction; every query is const, allocation-free and safe
// to call from many threads at once.
class PhotoToSphere {
public:
    explicit PhotoToSphere(std::shared_ptr<const SourceRaster> raster)
        : raster_(std::move(raster)) {}
    virtual ~PhotoToSphere() = default;
    PhotoToSphere(const PhotoToSphere&) = delete;
    PhotoToSphere& operator=(const PhotoToSphere&) = delete;

    // Colour of the source at the direction, bilinear, channels as 0 ... 255.
    // Only for directions where IsVisible holds.
    virtual std::array<float, 3> SampleColor(float lambda, float phi) const = 0;
    // The direction lands on usable source picture.
    virtual bool IsVisible(float lambda, float phi) const = 0;
    // Every concrete model answers true.
    virtual bool QueryFlag3() const = 0;
    // Normalised texture coordinate (u, v) of the direction: (0, 0) is the
    // top-left corner of the source, (1, 1) the bottom-right. The base leaves
    // u and v untouched.
    virtual void ToTexture(float lambda, float phi, float& u, float& v) const {
        (void)lambda;
        (void)phi;
        (void)u;
        (void)v;
    }
    // False only for the lens-profile perspective model.
    virtual bool QueryFlag5() const { return true; }
    // False for the cylindrical and spherical models.
    virtual bool QueryFlag6() const { return true; }

    // Image point of a direction (the forward mapping every query above uses).
    virtual ImagePoint ToImagePoint(float lambda, float phi) const = 0;
    // The inverse mapping: the direction that lands on an image point. False
    // when no direction does (outside the model's domain, or an iterative
    // inversion that did not converge); out is then unspecified.
    virtual bool ToSphere(ImagePoint point, SphereDirection& out) const = 0;

    const SourceRaster& Raster() const { return *raster_; }
    const std::shared_ptr<const SourceRaster>& RasterRef() const { return raster_; }

private:
    std::shared_ptr<const SourceRaster> raster_;
};

}  // namespace Project

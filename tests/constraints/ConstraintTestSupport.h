#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "constraints/ConstraintFile.h"
#include "constraints/ConstraintSet.h"

namespace Project::testing {

// The context used by the file tests and the fuzz seeds: a 4000 x 3000 photo
// from "Kestrix" "K1" with the lens "Lens 15mm".
inline SimpleConstraintFileContext MakeContext() {
    SimpleConstraintFileContext c;
    c.width = 4000, c.height = 3000;
    c.make = "Kestrix", c.model = "K1", c.lens = "Lens 15mm";
    ConstraintFileSettings& s = c.settings;
    s.physicalFocal = 15.0f, s.cropFactor = 1.0f, s.focalLength = 1666.6666f;
    s.projectionModel = ProjectionModel::Fisheye;
    s.regularizerModel = RegularizerModel::Auto;
    s.scale = 120, s.offsetX = 0.5f, s.offsetY = 0.5f;
    return c;
}

// Lines of every orientation and polygons with every edge code, added to the
// set (identifiers assigned by it).
inline void FillSample(ConstraintSet& set) {
    set.Add(std::make_unique<LineConstraint>(100.0f, 200.0f, 1500.0f, 250.0f, Orientation::Unfixed,
                                             0.0f));
    set.Add(std::make_unique<LineConstraint>(300.0f, 2800.0f, 3700.0f, 2700.0f,
                                             Orientation::Horizontal, 0.0f));
    set.Add(std::make_unique<LineConstraint>(3900.0f, 100.0f, 3800.0f, 2900.0f,
                                             Orientation::Vertical, 12.5f));
    set.Add(std::make_unique<LineConstraint>(1000.0f, 1000.0f, 2000.0f, 1400.0f,
                                             Orientation::Arbitrary, -33.25f));
    auto plane = std::make_unique<PlaneConstraint>();
    plane->AddVertex({1200.0f, 900.0f}, 1);
    plane->AddVertex({2600.0f, 950.0f}, 2);
    plane->AddVertex({2700.0f, 2100.0f}, 3);
    plane->AddVertex({1100.0f, 2000.0f}, 2);
    set.Add(std::move(plane));
    auto triangle = std::make_unique<PlaneConstraint>();
    triangle->AddVertex({500.0f, 500.0f}, 3);
    triangle->AddVertex({900.0f, 520.0f}, 1);
    triangle->AddVertex({700.0f, 800.0f}, 1);
    set.Add(std::move(triangle));
    set.SetStateWord(0xA5C3'0F01u);
}

}  // namespace Project::testing

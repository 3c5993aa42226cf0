#pragma once

#include <cstdint>
#include <string_view>

namespace Velmo {

// Every view, tool, control and command is named by a string path such as
// "Project/Dialog/OKButton". Where a fixed-size value is needed (an undo task
// remembers which control made a change) the path is reduced to this 32-bit
// code: FNV-1a over the path's bytes, so the same path gives the same code in
// every process and every module without a shared table. 0 means "no view".
using CViewId = uint32_t;

inline constexpr CViewId kNoView = 0;

constexpr CViewId ViewIdOf(std::string_view path) {
    if (path.empty())
        return kNoView;
    uint32_t hash = 2166136261u;
    for (const char c : path) {
        hash ^= static_cast<uint8_t>(c);
        hash *= 16777619u;
    }
    return hash == kNoView ? 1u : hash;
}

}  // namespace Velmo

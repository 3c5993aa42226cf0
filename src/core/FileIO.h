#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

namespace Project {

// The whole content of a file; empty when it is missing, unreadable or
// larger than maxBytes.
std::optional<std::vector<uint8_t>> ReadFileBytes(const std::filesystem::path& file,
                                                  size_t maxBytes);

// Writes the bytes to a temporary file beside the target (creating the
// folder), flushes it to disk and renames it into place, so a reader sees the
// old file or the new one, never half of one. False when any step fails; the
// temporary file is then removed.
bool WriteFileAtomically(const std::filesystem::path& file, std::span<const uint8_t> bytes);

}  // namespace Project

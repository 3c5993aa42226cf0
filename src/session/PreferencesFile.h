#pragma once

#include <bit>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "session/PSettings.h"

namespace Project {

// The preferences file "Curvana Prefs.cvp".
//
// Every number is in the writer's byte order; the reader tells the order from
// the mark and reads either. Header and chunk fields are 32-bit words.
//
//   header  'Vlmo' (byte-order mark), 'CVCo', 0, 0, payload length (file - 20)
//   chunk   owner 'CVCo', id, 0, version, payload length, payload
//   chunks  'DFlg' v0 flags word; 'DLoc' v0 dialog placement; 'BSet' v1 settings
//   end     a single 0 word where the next owner would stand
//
// Settings block: S1 u8, S2 u16, S3 S4 S5 u8, S6 S7 u32, colours 1 2 3 5 4 6
// (the fourth and fifth swapped, and swapped back on reading), S8 S9 u8,
// iteration count u16, focal length, physical focal length, crop factor (f32),
// projection model u32 (1, 2, 4 as they are, anything else as 3), S10 S11 u8,
// S12 S13 u8, the path string, show loupe u8, loupe size u32. The regulariser,
// scale, offsets and solver settings are not stored.
//
// Encodings chosen for this file (self-describing, so that fields can be
// added without a version bump):
//   string     u32 byte count n; when n > 0 a u32 encoding code ('utf8') and
//              n bytes of text without terminator (n == 0: nothing follows).
//              This is also the constraint file's string layout.
//   placement  u32 entry count, then per entry a u32 tag and an i32 value;
//              tags 'Pt1X', 'Pt1Y', 'Pt2X', 'Pt2Y'. Unknown tags are skipped,
//              missing ones keep their defaults.

// The bytes of a preferences file, in the given byte order.
std::vector<uint8_t> SerializePreferences(const PPreferences& prefs,
                                          std::endian order = std::endian::native);

// Reads a preferences file's bytes into prefs. A file that is 20 bytes or
// shorter, or whose header is foreign (mark, type, word 3 not 0, a payload
// length below 5), leaves prefs untouched and returns false: the defaults
// stay in force. Otherwise the chunks are read from offset 20 until the end
// word or the end of the file (the header's payload length is not used to
// bound them); chunks of other owners and unknown ids are skipped, and a
// chunk or settings block that ends early gives the fields it holds, the
// others keeping their values.
bool ParsePreferences(std::span<const uint8_t> bytes, PPreferences& prefs);

// The preferences folder under the host's preferences base folder: three
// levels, "Kestrix/Kestrix Pictora 2026/Kestrix Pictora 2026 Settings".
std::filesystem::path PreferencesFolder(const std::filesystem::path& base);
// The file's name inside that folder ("Curvana Prefs.cvp", localisable).
std::filesystem::path PreferencesFileName();

// Loads the file into prefs; false (prefs untouched) when it is missing,
// unreadable, larger than any file this writer makes, or foreign.
bool LoadPreferencesFile(const std::filesystem::path& file, PPreferences& prefs);
// Writes the file in the native byte order, creating its folder: the bytes go
// to a temporary file beside it, which is then renamed into place, so a
// reader never sees half a file. False when any step fails.
bool SavePreferencesFile(const std::filesystem::path& file, const PPreferences& prefs);

}  // namespace Project

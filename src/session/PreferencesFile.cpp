#include "session/PreferencesFile.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <type_traits>

#include "core/ByteIO.h"
#include "core/FileIO.h"
#include "core/FourCC.h"
#include "core/LocalizedString.h"

namespace Project {

namespace {

constexpr uint32_t kMark = FourCC("Vlmo");
constexpr uint32_t kOwner = FourCC("CVCo");
constexpr uint32_t kFlagsChunk = FourCC("DFlg");
constexpr uint32_t kPlacementChunk = FourCC("DLoc");
constexpr uint32_t kSettingsChunk = FourCC("BSet");
constexpr uint32_t kSettingsVersion = 1;
constexpr uint32_t kUtf8 = FourCC("utf8");
constexpr uint32_t kPoint1X = FourCC("Pt1X");
constexpr uint32_t kPoint1Y = FourCC("Pt1Y");
constexpr uint32_t kPoint2X = FourCC("Pt2X");
constexpr uint32_t kPoint2Y = FourCC("Pt2Y");
constexpr size_t kHeaderSize = 20;
constexpr size_t kChunkHeaderSize = 20;
// No file this writer makes comes near this; anything larger is not ours.
constexpr size_t kMaxFileSize = 1u << 20;

constexpr std::string_view kHostYear = "2026";

// File position of each colour: the fourth and fifth are stored swapped.
constexpr std::array<size_t, 6> kColorFileOrder = {0, 1, 2, 4, 3, 5};

uint32_t StoredProjection(ProjectionModel model) {
    switch (model) {
        case ProjectionModel::Fisheye:
        case ProjectionModel::Perspective:
        case ProjectionModel::FullSpherical:
            return static_cast<uint32_t>(model);
        default:
            return static_cast<uint32_t>(ProjectionModel::Auto);
    }
}

void WriteChunk(ByteWriter& w, uint32_t id, uint32_t version, auto&& payload) {
    w.U32(kOwner);
    w.U32(id);
    w.U32(0);
    w.U32(version);
    const size_t lengthAt = w.Size();
    w.U32(0);
    const size_t start = w.Size();
    payload(w);
    w.PatchU32(lengthAt, static_cast<uint32_t>(w.Size() - start));
}

void WritePlacement(ByteWriter& w, const DialogPlacement& p) {
    w.U32(4);
    w.U32(kPoint1X);
    w.I32(p.x1);
    w.U32(kPoint1Y);
    w.I32(p.y1);
    w.U32(kPoint2X);
    w.I32(p.x2);
    w.U32(kPoint2Y);
    w.I32(p.y2);
}

bool ReadPlacement(ByteReader& r, DialogPlacement& p) {
    const uint32_t count = r.U32();
    for (uint32_t i = 0; i < count && r.Ok(); ++i) {
        const uint32_t tag = r.U32();
        const int32_t value = r.I32();
        if (tag == kPoint1X)
            p.x1 = value;
        if (tag == kPoint1Y)
            p.y1 = value;
        if (tag == kPoint2X)
            p.x2 = value;
        if (tag == kPoint2Y)
            p.y2 = value;
    }
    return r.Ok();
}

void WriteSettings(ByteWriter& w, const PSettings& s) {
    w.U8(s.s1);
    w.U16(s.s2);
    w.U8(s.s3);
    w.U8(s.s4);
    w.U8(s.s5);
    w.U32(s.s6);
    w.U32(s.s7);
    for (size_t i : kColorFileOrder)
        w.U32(s.colors[i]);
    w.U8(s.s8);
    w.U8(s.s9);
    w.U16(s.iterationCount);
    w.F32(s.focalLength);
    w.F32(s.physicalFocalLength);
    w.F32(s.cropFactor);
    w.U32(StoredProjection(s.projectionModel));
    w.U8(s.s10);
    w.U8(s.s11);
    w.U8(s.s12);
    w.U8(s.s13);
    w.String(s.path, kUtf8);
    w.U8(s.showLoupeWhenDragging);
    w.I32(s.loupeSize);
}

// Reads the fields that the block holds, in order; a block that ends early
// leaves the fields after its end as they were.
void ReadSettings(ByteReader& r, PSettings& s) {
    auto take = [&r](auto& field, auto value) {
        if (r.Ok())
            field = static_cast<std::remove_reference_t<decltype(field)>>(value);
    };
    take(s.s1, r.U8());
    take(s.s2, r.U16());
    take(s.s3, r.U8());
    take(s.s4, r.U8());
    take(s.s5, r.U8());
    take(s.s6, r.U32());
    take(s.s7, r.U32());
    for (size_t i : kColorFileOrder)
        take(s.colors[i], r.U32());
    take(s.s8, r.U8());
    take(s.s9, r.U8());
    take(s.iterationCount, r.U16());
    take(s.focalLength, r.F32());
    take(s.physicalFocalLength, r.F32());
    take(s.cropFactor, r.F32());
    take(s.projectionModel, StoredProjection(ProjectionModel{r.U32()}));
    take(s.s10, r.U8());
    take(s.s11, r.U8());
    take(s.s12, r.U8());
    take(s.s13, r.U8());
    take(s.path, r.String());
    take(s.showLoupeWhenDragging, r.U8());
    take(s.loupeSize, r.I32());
}

}  // namespace

std::vector<uint8_t> SerializePreferences(const PPreferences& prefs, std::endian order) {
    std::vector<uint8_t> bytes;
    ByteWriter w(bytes, order);
    w.U32(kMark);
    w.U32(kOwner);
    w.U32(0);
    w.U32(0);
    w.U32(0);  // payload length, patched below
    WriteChunk(w, kFlagsChunk, 0, [&](ByteWriter& c) { c.U32(prefs.flags); });
    WriteChunk(w, kPlacementChunk, 0,
               [&](ByteWriter& c) { WritePlacement(c, prefs.dialogPlacement); });
    WriteChunk(w, kSettingsChunk, kSettingsVersion,
               [&](ByteWriter& c) { WriteSettings(c, prefs.settings); });
    w.U32(0);
    w.PatchU32(16, static_cast<uint32_t>(w.Size() - kHeaderSize));
    return bytes;
}

bool ParsePreferences(std::span<const uint8_t> bytes, PPreferences& prefs) {
    if (bytes.size() <= kHeaderSize)
        return false;
    // The mark's bytes spell "Vlmo" for a big-endian writer, "omlV" for a
    // little-endian one.
    std::endian order;
    if (ByteReader(bytes, std::endian::big).U32() == kMark) {
        order = std::endian::big;
    } else if (ByteReader(bytes, std::endian::little).U32() == kMark) {
        order = std::endian::little;
    } else {
        return false;
    }
    ByteReader header(bytes.subspan(4, kHeaderSize - 4), order);
    const uint32_t type = header.U32();
    (void)header.U32();
    const uint32_t reserved = header.U32();
    const uint32_t payloadLength = header.U32();
    if (type != kOwner || reserved != 0 || payloadLength < 5)
        return false;

    // The chunks run from the header to the end word or to the end of the
    // file, whatever the header's length says; a chunk cut short by the end
    // of the file gives what it holds.
    const std::span<const uint8_t> payload = bytes.subspan(kHeaderSize);
    size_t pos = 0;
    while (payload.size() - pos >= kChunkHeaderSize) {
        ByteReader chunk(payload.subspan(pos, kChunkHeaderSize), order);
        const uint32_t owner = chunk.U32();
        if (owner == 0)
            break;
        const uint32_t id = chunk.U32();
        (void)chunk.U32();
        const uint32_t version = chunk.U32();
        const uint32_t length = chunk.U32();
        const size_t start = pos + kChunkHeaderSize;
        ByteReader body(payload.subspan(start, std::min<size_t>(length, payload.size() - start)),
                        order);
        if (owner == kOwner) {
            if (id == kFlagsChunk && version == 0) {
                const uint32_t flags = body.U32();
                if (body.Ok())
                    prefs.flags = flags;
            } else if (id == kPlacementChunk && version == 0) {
                DialogPlacement placement = prefs.dialogPlacement;
                if (ReadPlacement(body, placement))
                    prefs.dialogPlacement = placement;
            } else if (id == kSettingsChunk) {
                prefs.settings.settingsVersion = version;
                ReadSettings(body, prefs.settings);
            }
        }
        if (length > payload.size() - start)
            break;
        pos = start + length;
    }
    return true;
}

std::filesystem::path PreferencesFolder(const std::filesystem::path& base) {
    const std::string year(kHostYear);
    return base / Localize("$$$/private/Prefs/Directory/Kestrix=Kestrix") /
           (Localize("$$$/private/Prefs/Directory/SubDir=Kestrix Pictora ") + year) /
           (Localize("$$$/private/Prefs/Directory/Pictora=Kestrix Pictora ") + year + " Settings");
}

std::filesystem::path PreferencesFileName() {
    return Localize("$$$/Curvana/Prefs/FileName=Curvana Prefs.cvp");
}

bool LoadPreferencesFile(const std::filesystem::path& file, PPreferences& prefs) {
    const auto bytes = ReadFileBytes(file, kMaxFileSize);
    return bytes && ParsePreferences(*bytes, prefs);
}

bool SavePreferencesFile(const std::filesystem::path& file, const PPreferences& prefs) {
    return WriteFileAtomically(file, SerializePreferences(prefs));
}

}  // namespace Project

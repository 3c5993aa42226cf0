#include "session/PreferencesFile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <span>
#include <tuple>

#include "FakeHost.h"
#include "core/ByteIO.h"
#include "core/FourCC.h"

namespace Project {
namespace {

// Preferences whose every stored field differs from its default.
PPreferences DistinctPrefs() {
    PPreferences p(640);
    p.flags = 0x12345678;
    p.dialogPlacement = {10, 20, 800, 600};
    PSettings& s = p.settings;
    s.s1 = 7, s.s2 = 0xBEEF, s.s3 = 3, s.s4 = 4, s.s5 = 5, s.s6 = 0xA0B0C0D0, s.s7 = 77;
    s.colors = {0x01010101, 0x02020202, 0x03030303, 0x44444444, 0x55555555, 0x06060606};
    s.s8 = 8, s.s9 = 9, s.iterationCount = 12;
    s.focalLength = 1234.5f, s.physicalFocalLength = 10.5f, s.cropFactor = 1.5f;
    s.projectionModel = ProjectionModel::Perspective;
    s.s10 = 0, s.s11 = 2, s.s12 = 0, s.s13 = 1;
    s.path = "/photos/Constraints.cvc";
    s.showLoupeWhenDragging = 0;
    s.loupeSize = 250;
    return p;
}

// Every field the file stores, for comparisons.
auto Stored(const PPreferences& p) {
    const PSettings& s = p.settings;
    return std::tie(p.flags, p.dialogPlacement, s.s1, s.s2, s.s3, s.s4, s.s5, s.s6, s.s7, s.colors,
                    s.s8, s.s9, s.iterationCount, s.focalLength, s.physicalFocalLength,
                    s.cropFactor, s.projectionModel, s.s10, s.s11, s.s12, s.s13, s.path,
                    s.showLoupeWhenDragging, s.loupeSize);
}

uint32_t WordAt(const std::vector<uint8_t>& b, size_t at, std::endian order) {
    return ByteReader(std::span(b).subspan(at), order).U32();
}

class PreferencesByteOrder : public ::testing::TestWithParam<std::endian> {};

TEST_P(PreferencesByteOrder, RoundTripsEveryStoredField) {
    const PPreferences written = DistinctPrefs();
    const std::vector<uint8_t> bytes = SerializePreferences(written, GetParam());
    PPreferences read(100);
    ASSERT_TRUE(ParsePreferences(bytes, read));
    EXPECT_EQ(Stored(read), Stored(written));
    EXPECT_EQ(read.settings.settingsVersion, 1u);
}

TEST_P(PreferencesByteOrder, HeaderAndChunkLayout) {
    const std::endian order = GetParam();
    const std::vector<uint8_t> b = SerializePreferences(DistinctPrefs(), order);
    // The mark's bytes spell "Vlmo" in the writer's order.
    EXPECT_EQ(std::memcmp(b.data(), order == std::endian::big ? "Vlmo" : "omlV", 4), 0);
    EXPECT_EQ(WordAt(b, 4, order), FourCC("CVCo"));
    EXPECT_EQ(WordAt(b, 8, order), 0u);
    EXPECT_EQ(WordAt(b, 12, order), 0u);
    EXPECT_EQ(WordAt(b, 16, order), b.size() - 20);
    // DFlg, then DLoc (a count and four tagged values), then BSet version 1.
    EXPECT_EQ(WordAt(b, 20, order), FourCC("CVCo"));
    EXPECT_EQ(WordAt(b, 24, order), FourCC("DFlg"));
    EXPECT_EQ(WordAt(b, 32, order), 0u);
    EXPECT_EQ(WordAt(b, 36, order), 4u);
    EXPECT_EQ(WordAt(b, 40, order), 0x12345678u);
    EXPECT_EQ(WordAt(b, 48, order), FourCC("DLoc"));
    EXPECT_EQ(WordAt(b, 60, order), 36u);
    EXPECT_EQ(WordAt(b, 64, order), 4u);
    EXPECT_EQ(WordAt(b, 68, order), FourCC("Pt1X"));
    EXPECT_EQ(WordAt(b, 104, order), FourCC("BSet"));
    EXPECT_EQ(WordAt(b, 112, order), 1u);
    // Colours 1, 2, 3, 5, 4, 6 after S1 ... S7 (14 bytes into the block).
    EXPECT_EQ(WordAt(b, 134, order), 0x01010101u);
    EXPECT_EQ(WordAt(b, 146, order), 0x55555555u);
    EXPECT_EQ(WordAt(b, 150, order), 0x44444444u);
    // The list ends with a single 0 word.
    EXPECT_EQ(WordAt(b, b.size() - 4, order), 0u);
}

INSTANTIATE_TEST_SUITE_P(BothOrders, PreferencesByteOrder,
                         ::testing::Values(std::endian::little, std::endian::big));

TEST(PreferencesFile, ProjectionModelsOtherThanOneTwoFourAreStoredAndReadAsAuto) {
    for (uint32_t model : {0u, 1u, 2u, 3u, 4u, 5u, 7u, 1000u}) {
        PPreferences p;
        p.settings.projectionModel = static_cast<ProjectionModel>(model);
        PPreferences read;
        ASSERT_TRUE(ParsePreferences(SerializePreferences(p), read));
        const bool kept = model == 1 || model == 2 || model == 4;
        EXPECT_EQ(read.settings.projectionModel,
                  kept ? static_cast<ProjectionModel>(model) : ProjectionModel::Auto)
            << model;
    }
}

TEST(PreferencesFile, SettingsThatAreNotStoredKeepTheReadersValues) {
    PPreferences written = DistinctPrefs();
    written.settings.regularizerModel = RegularizerModel::Panini;
    written.settings.scale = 300;
    written.settings.offsetX = 0.1f;
    written.settings.meshLevel = 4;
    PPreferences read;
    ASSERT_TRUE(ParsePreferences(SerializePreferences(written), read));
    EXPECT_EQ(read.settings.regularizerModel, RegularizerModel::Auto);
    EXPECT_EQ(read.settings.scale, 120);
    EXPECT_EQ(read.settings.offsetX, 0.5f);
    EXPECT_EQ(read.settings.meshLevel, 6);
}

// A file cut anywhere after its header keeps what it holds: every stored
// field is either the written value or the reader's own, never garbage.
TEST(PreferencesFile, ATruncatedFileKeepsWhatItHolds) {
    const PPreferences written = DistinctPrefs();
    const PPreferences defaults(640);
    const std::vector<uint8_t> full = SerializePreferences(written);
    for (size_t n = 0; n < full.size(); ++n) {
        PPreferences read(640);
        const std::vector<uint8_t> cut(full.begin(), full.begin() + static_cast<ptrdiff_t>(n));
        EXPECT_EQ(ParsePreferences(cut, read), n > 20) << n;
        const PSettings& s = read.settings;
        EXPECT_TRUE(read.flags == written.flags || read.flags == defaults.flags) << n;
        EXPECT_TRUE(s.focalLength == written.settings.focalLength ||
                    s.focalLength == defaults.settings.focalLength)
            << n;
        EXPECT_TRUE(s.path == written.settings.path || s.path.empty()) << n;
        EXPECT_TRUE(s.loupeSize == written.settings.loupeSize ||
                    s.loupeSize == defaults.settings.loupeSize)
            << n;
    }
    // Only the end word missing: everything is there.
    PPreferences read(640);
    ASSERT_TRUE(ParsePreferences(std::span(full).first(full.size() - 4), read));
    EXPECT_EQ(Stored(read), Stored(written));
}

// A foreign mark, type or word 3, or a payload too short for a chunk, is
// refused and keeps the defaults. The header's payload length and word 2 are
// not the reader's business, and a chunk that runs past the end gives what
// lies inside the file.
TEST(PreferencesFile, TheHeaderDecidesWhatIsRead) {
    const std::vector<uint8_t> good = SerializePreferences(DistinctPrefs(), std::endian::little);
    static_assert(std::endian::native == std::endian::little);  // patched in place
    struct Patch {
        size_t at;
        uint32_t value;
        bool read;
    };
    for (const Patch& p :
         {Patch{0, FourCC("Xlmo"), false}, Patch{4, FourCC("CVCx"), false}, Patch{12, 1, false},
          Patch{16, 4, false}, Patch{8, 99, true}, Patch{16, 5, true}, Patch{16, 1u << 30, true}}) {
        std::vector<uint8_t> bytes = good;
        std::memcpy(bytes.data() + p.at, &p.value, 4);
        PPreferences read;
        ASSERT_EQ(ParsePreferences(bytes, read), p.read) << p.at << " " << p.value;
        EXPECT_EQ(Stored(read), Stored(p.read ? DistinctPrefs() : PPreferences()));
    }
    std::vector<uint8_t> bytes = good;
    const uint32_t flagsLength = 1000;
    std::memcpy(bytes.data() + 36, &flagsLength, 4);
    PPreferences read;
    ASSERT_TRUE(ParsePreferences(bytes, read));
    EXPECT_EQ(read.flags, DistinctPrefs().flags);
    EXPECT_EQ(read.dialogPlacement, PPreferences().dialogPlacement);
}

// Little-endian building blocks of hand-made files.
std::vector<uint8_t> Words(std::initializer_list<uint32_t> words) {
    std::vector<uint8_t> b;
    ByteWriter w(b);
    for (uint32_t word : words)
        w.U32(word);
    return b;
}

std::vector<uint8_t> Chunk(uint32_t owner, uint32_t id, uint32_t version,
                           const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> b = Words({owner, id, 0u, version, static_cast<uint32_t>(payload.size())});
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

// A file of the given chunk bytes, with header and end word.
std::vector<uint8_t> FileOf(const std::vector<uint8_t>& chunks) {
    std::vector<uint8_t> b =
        Words({FourCC("Vlmo"), FourCC("CVCo"), 0u, 0u, static_cast<uint32_t>(chunks.size() + 4)});
    b.insert(b.end(), chunks.begin(), chunks.end());
    const std::vector<uint8_t> end = Words({0u});
    b.insert(b.end(), end.begin(), end.end());
    return b;
}

// The chunks a writer makes for prefs, without header and end word.
std::vector<uint8_t> ChunksOf(const PPreferences& prefs) {
    const std::vector<uint8_t> file = SerializePreferences(prefs, std::endian::little);
    return std::vector<uint8_t>(file.begin() + 20, file.end() - 4);
}

TEST(PreferencesFile, ChunksOfOtherOwnersAndIdsAreSkipped) {
    const PPreferences written = DistinctPrefs();
    std::vector<uint8_t> chunks;
    for (const auto& c : {Chunk(FourCC("Othr"), FourCC("BSet"), 1, std::vector<uint8_t>(9, 0xEE)),
                          Chunk(FourCC("CVCo"), FourCC("Zzzz"), 0, std::vector<uint8_t>(3, 0x77)),
                          Chunk(FourCC("CVCo"), FourCC("DFlg"), 5, {1, 2, 3, 4}),  // other version
                          Chunk(FourCC("CVCo"), FourCC("Empt"), 0, {}), ChunksOf(written)})
        chunks.insert(chunks.end(), c.begin(), c.end());
    PPreferences read;
    ASSERT_TRUE(ParsePreferences(FileOf(chunks), read));
    EXPECT_EQ(Stored(read), Stored(written));
}

TEST(PreferencesFile, PlacementTagsAreSelfDescribing) {
    // An unknown tag is skipped; Pt2Y is missing and keeps its value.
    const std::vector<uint8_t> placement =
        Words({3u, FourCC("Pt1X"), 5u, FourCC("Wide"), 9u, FourCC("Pt2X"), 7u});
    PPreferences read;
    read.dialogPlacement = {1, 2, 3, 4};
    ASSERT_TRUE(
        ParsePreferences(FileOf(Chunk(FourCC("CVCo"), FourCC("DLoc"), 0, placement)), read));
    EXPECT_EQ(read.dialogPlacement, (DialogPlacement{5, 2, 7, 4}));
    // A count that runs past the chunk leaves the placement as it was.
    PPreferences cut;
    EXPECT_TRUE(ParsePreferences(
        FileOf(Chunk(FourCC("CVCo"), FourCC("DLoc"), 0, Words({9u, FourCC("Pt1X"), 5u}))), cut));
    EXPECT_EQ(cut.dialogPlacement, PPreferences().dialogPlacement);
}

TEST(PreferencesFile, FolderHasThreeLevelsUnderTheBase) {
    EXPECT_EQ(
        PreferencesFolder("/base"),
        std::filesystem::path("/base/Kestrix/Kestrix Pictora 2026/Kestrix Pictora 2026 Settings"));
    EXPECT_EQ(PreferencesFileName(), std::filesystem::path("Curvana Prefs.cvp"));
}

TEST(PreferencesFile, SaveCreatesTheFolderReplacesAtomicallyAndLoads) {
    test::TempFolder base;
    const auto file = PreferencesFolder(base.Path()) / PreferencesFileName();
    PPreferences read;
    EXPECT_FALSE(LoadPreferencesFile(file, read));  // missing

    ASSERT_TRUE(SavePreferencesFile(file, DistinctPrefs()));
    ASSERT_TRUE(SavePreferencesFile(file, DistinctPrefs()));  // replaces
    ASSERT_TRUE(LoadPreferencesFile(file, read));
    EXPECT_EQ(Stored(read), Stored(DistinctPrefs()));
    // Nothing but the file is left in the folder.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 1);

    std::ofstream(file, std::ios::binary | std::ios::trunc) << "short";
    PPreferences defaults;
    EXPECT_FALSE(LoadPreferencesFile(file, defaults));
    EXPECT_EQ(Stored(defaults), Stored(PPreferences()));

    // A file where the first folder should be: the save fails cleanly.
    test::TempFolder blocked;
    std::ofstream(blocked.Path() / "Kestrix") << "a file where the folder should be";
    EXPECT_FALSE(SavePreferencesFile(PreferencesFolder(blocked.Path()) / PreferencesFileName(),
                                     DistinctPrefs()));
}

}  // namespace
}  // namespace Project

#include "core/LocalizedString.h"

#include <gtest/gtest.h>

#include <fstream>

#include "FakeHost.h"

namespace Project {
namespace {

// Restores English after a test that installs a table.
struct EnglishAfter {
    ~EnglishAfter() { SetTranslationTable({}); }
};

TEST(LocalizedString, YieldsTheEnglishTextOfAKey) {
    EXPECT_EQ(Localize("$$$/Curvana/Warning/SolveFailed=Solve failed"), "Solve failed");
    EXPECT_EQ(KeyPath("$$$/Curvana/Warning/SolveFailed=Solve failed"),
              "$$$/Curvana/Warning/SolveFailed");
    // Only the first '=' separates: the text may hold more.
    EXPECT_EQ(Localize("$$$/Curvana/X=a=b"), "a=b");
    // Without '=' a key is its own text.
    EXPECT_EQ(Localize("plain text"), "plain text");
}

TEST(LocalizedString, FillsPlaceholders) {
    EXPECT_EQ(Localize("$$$/Curvana/T=Value in the loaded file: ^0 of ^1", {"64x48", "x"}),
              "Value in the loaded file: 64x48 of x");
    EXPECT_EQ(Localize("$$$/Curvana/T=^1 before ^0", {"a", "b"}), "b before a");
    // A placeholder without an argument and other "^" sequences stay.
    EXPECT_EQ(Localize("$$$/Curvana/T=^0 and ^1", {"a"}), "a and ^1");
    EXPECT_EQ(Localize("$$$/Curvana/Prefs/RegPath/Pictora=Software^LKestrix^LCurvana^L"),
              "Software^LKestrix^LCurvana^L");
    EXPECT_EQ(Localize("$$$/Curvana/T=ends with ^"), "ends with ^");
}

TEST(LocalizedString, TranslationTableOverridesEnglishExceptPrivateKeys) {
    EnglishAfter restore;
    SetTranslationTable(
        TranslationTable::Parse("# comment\n"
                                "\n"
                                "$$$/Curvana/Warning/SolveFailed=Échec\\nde la résolution\r\n"
                                "$$$/Curvana/T=^0 puis ^1\n"
                                "$$$/private/Prefs/Directory/Kestrix=Autre\n"
                                "=no path\n"
                                "no equals sign\n"));
    EXPECT_EQ(Localize("$$$/Curvana/Warning/SolveFailed=Solve failed"), "Échec\nde la résolution");
    EXPECT_EQ(Localize("$$$/Curvana/T=^0 then ^1", {"a", "b"}), "a puis b");
    EXPECT_EQ(Localize("$$$/private/Prefs/Directory/Kestrix=Kestrix"), "Kestrix");
    EXPECT_EQ(Localize("$$$/Curvana/Other=Other"), "Other");
}

TEST(LocalizedString, LoadsATableFromAFileAndToleratesAMissingOne) {
    test::TempFolder folder;
    EXPECT_TRUE(TranslationTable::LoadFile(folder.Path() / "missing.txt").empty());
    const auto file = folder.Path() / std::string(kTranslationFileName);
    std::ofstream(file) << "\xEF\xBB\xBF$$$/Curvana/A=Eins\n$$$/Curvana/A=Zwei\n";
    const TranslationTable table = TranslationTable::LoadFile(file);
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(*table.Find("$$$/Curvana/A"), "Zwei");
}

}  // namespace
}  // namespace Project

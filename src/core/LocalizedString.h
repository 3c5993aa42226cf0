#pragma once

#include <filesystem>
#include <initializer_list>
#include <map>
#include <span>
#include <string>
#include <string_view>

namespace Project {

// User-facing texts are named by keys of the form
//   "$$$/Curvana/Warning/SolveFailed=Solve failed"
// : a path, an equals sign and the English text. Localize() yields the text of
// the active translation table for the path when there is one, otherwise the
// English text, with the placeholders "^0" ... "^9" replaced by the arguments
// (a placeholder without an argument stays as written; other "^" sequences,
// such as the "^L" level separator of registry paths, are left alone). Keys
// under "$$$/private/" are never translated. A key without '=' is its own
// text.
std::string Localize(std::string_view key);
std::string Localize(std::string_view key, std::initializer_list<std::string_view> args);

// The path of a key (everything before the first '='), and its English text
// (everything after it; the whole key when it has no '=').
std::string_view KeyPath(std::string_view key);
std::string_view EnglishText(std::string_view key);

// Replaces "^0" ... "^9" by args[0] ... args[9] where present.
std::string FillPlaceholders(std::string_view text, std::span<const std::string_view> args);

// Translations by key path. The file format is UTF-8 text, one entry a line:
//   $$$/Curvana/Warning/SolveFailed=Échec de la résolution
// Blank lines and lines starting with '#' are ignored; in the text, "\n"
// stands for a line break and "\\" for a backslash. A later entry for the
// same path replaces an earlier one.
class TranslationTable {
public:
    static TranslationTable Parse(std::string_view text);
    // A missing or unreadable file gives an empty table.
    static TranslationTable LoadFile(const std::filesystem::path& file);

    // The translated text for a key path, or null.
    const std::string* Find(std::string_view path) const;
    bool empty() const { return entries_.empty(); }
    size_t size() const { return entries_.size(); }

private:
    std::map<std::string, std::string, std::less<>> entries_;
};

// Name of the optional translation file in the preferences folder.
inline constexpr std::string_view kTranslationFileName = "Curvana Strings.txt";

// Installs the process-wide table that Localize consults (empty by default:
// English). Safe to call while other threads localise.
void SetTranslationTable(TranslationTable table);

}  // namespace Project

#include "core/LocalizedString.h"

#include <memory>
#include <mutex>
#include <utility>

#include "core/FileIO.h"

namespace Project {

namespace {

constexpr std::string_view kPrivatePrefix = "$$$/private/";
constexpr size_t kMaxTranslationFile = 4u << 20;

struct ActiveTable {
    std::mutex mutex;
    std::shared_ptr<const TranslationTable> table = std::make_shared<TranslationTable>();
};

ActiveTable& Active() {
    static ActiveTable active;
    return active;
}

std::shared_ptr<const TranslationTable> CurrentTable() {
    ActiveTable& active = Active();
    std::lock_guard lock(active.mutex);
    return active.table;
}

std::string Unescape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            if (text[i + 1] == 'n') {
                out += '\n';
                ++i;
                continue;
            }
            if (text[i + 1] == '\\') {
                out += '\\';
                ++i;
                continue;
            }
        }
        out += text[i];
    }
    return out;
}

std::string_view TrimLineEnd(std::string_view line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
        line.remove_suffix(1);
    return line;
}

}  // namespace

std::string_view KeyPath(std::string_view key) {
    const size_t eq = key.find('=');
    return eq == std::string_view::npos ? key : key.substr(0, eq);
}

std::string_view EnglishText(std::string_view key) {
    const size_t eq = key.find('=');
    return eq == std::string_view::npos ? key : key.substr(eq + 1);
}

std::string FillPlaceholders(std::string_view text, std::span<const std::string_view> args) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '^' && i + 1 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '9') {
            const auto index = static_cast<size_t>(text[i + 1] - '0');
            if (index < args.size()) {
                out += args[index];
                ++i;
                continue;
            }
        }
        out += text[i];
    }
    return out;
}

std::string Localize(std::string_view key) {
    return Localize(key, {});
}

std::string Localize(std::string_view key, std::initializer_list<std::string_view> args) {
    const std::span<const std::string_view> argSpan(args.begin(), args.size());
    const std::string_view path = KeyPath(key);
    if (path.size() != key.size() && !path.starts_with(kPrivatePrefix)) {
        const auto table = CurrentTable();
        if (const std::string* translated = table->Find(path))
            return FillPlaceholders(*translated, argSpan);
    }
    return FillPlaceholders(EnglishText(key), argSpan);
}

TranslationTable TranslationTable::Parse(std::string_view text) {
    TranslationTable table;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        line = TrimLineEnd(line);
        if (line.starts_with("\xEF\xBB\xBF"))
            line.remove_prefix(3);  // a byte-order mark
        if (line.empty() || line.front() == '#')
            continue;
        const size_t eq = line.find('=');
        if (eq == 0 || eq == std::string_view::npos)
            continue;
        table.entries_.insert_or_assign(std::string(line.substr(0, eq)),
                                        Unescape(line.substr(eq + 1)));
    }
    return table;
}

TranslationTable TranslationTable::LoadFile(const std::filesystem::path& file) {
    const auto bytes = ReadFileBytes(file, kMaxTranslationFile);
    if (!bytes)
        return {};
    return Parse(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
}

const std::string* TranslationTable::Find(std::string_view path) const {
    const auto it = entries_.find(path);
    return it == entries_.end() ? nullptr : &it->second;
}

void SetTranslationTable(TranslationTable table) {
    auto fresh = std::make_shared<const TranslationTable>(std::move(table));
    ActiveTable& active = Active();
    std::lock_guard lock(active.mutex);
    active.table = std::move(fresh);
}

}  // namespace Project

// Feeds arbitrary text to the Zel layout parser and, for what it accepts,
// the layout checker. Whatever parses must be written back to text that
// parses to the same tree; a refusal must say where, inside the text.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "framework/ZelDocument.h"
#include "framework/ZelSchema.h"

namespace {

bool InsideText(const Velmo::CZelPosition& at, std::string_view text) {
    int lines = 1;
    for (const char c : text)
        lines += c == '\n';
    return at.line >= 1 && at.line <= lines && at.column >= 1 &&
           static_cast<size_t>(at.column) <= text.size() + 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Velmo::CZelError error;
    const std::optional<Velmo::CZelNode> tree = Velmo::ParseZel(text, error);
    if (!tree) {
        if (error.message.empty() || !InsideText(error.position, text))
            __builtin_trap();
        return 0;
    }
    if (const std::optional<Velmo::CZelError> invalid = Velmo::ValidateZel(*tree))
        if (invalid->message.empty() || !InsideText(invalid->position, text))
            __builtin_trap();
    const std::string written = Velmo::WriteZel(*tree);
    // Canonical indentation can push a text near the size limit over it.
    if (written.size() > Velmo::kZelMaxBytes)
        return 0;
    Velmo::CZelError again;
    const std::optional<Velmo::CZelNode> reread = Velmo::ParseZel(written, again);
    if (!reread || !Velmo::SameZel(*tree, *reread))
        __builtin_trap();
    return 0;
}

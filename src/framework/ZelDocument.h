#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Zel: the declarative layout format of the framework (see ZelFormat.md for
// the grammar). This part is the syntax only, without Qt: the parser, the
// document tree and a writer whose output parses back to the same tree.

namespace Velmo {

// A place in the text: 1-based line, and 1-based column counted in
// characters (UTF-8 sequences count once).
struct CZelPosition {
    int line = 1;
    int column = 1;
    friend bool operator==(const CZelPosition&, const CZelPosition&) = default;
};

// A value: a string, a number, true/false, a bare name, or a list of those
// (lists do not nest).
struct CZelValue {
    enum class Type { String, Number, Bool, Name, List };
    Type type = Type::String;
    std::string text;  // String and Name
    double number = 0.0;
    bool flag = false;
    std::vector<CZelValue> items;  // List
    CZelPosition position;
};

struct CZelProperty {
    std::string name;
    CZelValue value;
    CZelPosition position;
};

// An element: its kind, its view id (empty when it has none), its properties
// in the order written and its child elements.
struct CZelNode {
    std::string kind;
    std::string viewId;
    std::vector<CZelProperty> properties;
    std::vector<CZelNode> children;
    CZelPosition position;

    const CZelProperty* Find(std::string_view name) const;
};

// An error with the place it was found.
struct CZelError {
    CZelPosition position;
    std::string message;
    // "line L, column C: message".
    std::string ToString() const;
};

// Limits that keep a hostile text from exhausting the stack or memory.
inline constexpr int kZelMaxDepth = 64;
inline constexpr size_t kZelMaxBytes = 1u << 20;

// Parses a whole document (one root element). On failure returns nothing and
// fills `error` with the first problem found.
std::optional<CZelNode> ParseZel(std::string_view text, CZelError& error);

// Writes a tree in the canonical form (two-space indentation, one property or
// element a line). ParseZel(WriteZel(n)) gives back n apart from positions.
std::string WriteZel(const CZelNode& node);

// Equality of two trees ignoring positions.
bool SameZel(const CZelNode& a, const CZelNode& b);

}  // namespace Velmo

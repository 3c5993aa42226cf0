#include "framework/ZelDocument.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace Velmo {

namespace {

enum class Tok {
    End,
    Ident,
    String,
    Number,
    LBrace,
    RBrace,
    LBracket,
    RBracket,
    Comma,
    Equals,
    Bad
};

struct Token {
    Tok kind = Tok::End;
    std::string text;  // identifier, decoded string
    double number = 0.0;
    CZelPosition position;
};

bool IsIdentStart(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
bool IsIdentChar(char c) {
    return IsIdentStart(c) || (c >= '0' && c <= '9');
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string Describe(char c) {
    const auto byte = static_cast<unsigned char>(c);
    char buffer[32];
    if (byte >= 0x21 && byte < 0x7F)
        std::snprintf(buffer, sizeof buffer, "'%c'", c);
    else
        std::snprintf(buffer, sizeof buffer, "byte 0x%02X", byte);
    return buffer;
}

std::string DescribeToken(const Token& t) {
    switch (t.kind) {
        case Tok::End:
            return "the end of the text";
        case Tok::Ident:
            return "\"" + t.text + "\"";
        case Tok::String:
            return "a string";
        case Tok::Number:
            return "a number";
        case Tok::LBrace:
            return "'{'";
        case Tok::RBrace:
            return "'}'";
        case Tok::LBracket:
            return "'['";
        case Tok::RBracket:
            return "']'";
        case Tok::Comma:
            return "','";
        case Tok::Equals:
            return "'='";
        case Tok::Bad:
            return "a bad token";
    }
    return "?";
}

class Lexer {
public:
    Lexer(std::string_view text, CZelError& error) : text_(text), error_(error) {}

    struct State {
        size_t pos;
        CZelPosition at;
    };
    State Save() const { return {pos_, at_}; }
    void Restore(State s) { pos_ = s.pos, at_ = s.at; }

    bool Failed() const { return failed_; }
    bool Fail(CZelPosition at, std::string message) {
        if (!failed_) {
            failed_ = true;
            error_.position = at;
            error_.message = std::move(message);
        }
        return false;
    }

    Token Next() {
        SkipSpace();
        Token t;
        t.position = at_;
        if (pos_ >= text_.size())
            return t;
        const char c = text_[pos_];
        switch (c) {
            case '{':
                Advance();
                t.kind = Tok::LBrace;
                return t;
            case '}':
                Advance();
                t.kind = Tok::RBrace;
                return t;
            case '[':
                Advance();
                t.kind = Tok::LBracket;
                return t;
            case ']':
                Advance();
                t.kind = Tok::RBracket;
                return t;
            case ',':
                Advance();
                t.kind = Tok::Comma;
                return t;
            case '=':
                Advance();
                t.kind = Tok::Equals;
                return t;
            case '"':
                return LexString(t);
            default:
                break;
        }
        if (IsIdentStart(c)) {
            const size_t start = pos_;
            while (pos_ < text_.size() && IsIdentChar(text_[pos_]))
                Advance();
            t.kind = Tok::Ident;
            t.text = std::string(text_.substr(start, pos_ - start));
            return t;
        }
        if (IsDigit(c) || c == '-')
            return LexNumber(t);
        Fail(at_, "unexpected " + Describe(c));
        t.kind = Tok::Bad;
        return t;
    }

private:
    void Advance() {
        const char c = text_[pos_++];
        if (c == '\n') {
            ++at_.line;
            at_.column = 1;
        } else if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) {
            // Continuation bytes of a UTF-8 sequence do not start a column.
            ++at_.column;
        }
    }

    void SkipSpace() {
        while (pos_ < text_.size()) {
            const char c = text_[pos_];
            if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
                Advance();
            } else if (c == '#') {
                while (pos_ < text_.size() && text_[pos_] != '\n')
                    Advance();
            } else {
                break;
            }
        }
    }

    Token& LexString(Token& t) {
        Advance();  // the opening quote
        std::string out;
        while (true) {
            if (pos_ >= text_.size()) {
                Fail(t.position, "string not closed before the end of the text");
                t.kind = Tok::Bad;
                return t;
            }
            const char c = text_[pos_];
            if (c == '"') {
                Advance();
                break;
            }
            if (c == '\n' || c == '\r') {
                Fail(at_, "line break inside a string (write \\n)");
                t.kind = Tok::Bad;
                return t;
            }
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                Fail(at_, "control character " + Describe(c) + " inside a string");
                t.kind = Tok::Bad;
                return t;
            }
            if (c == '\\') {
                const CZelPosition escapeAt = at_;
                Advance();
                if (pos_ >= text_.size())
                    continue;  // reported as not closed
                const char e = text_[pos_];
                switch (e) {
                    case '"':
                        out += '"';
                        break;
                    case '\\':
                        out += '\\';
                        break;
                    case 'n':
                        out += '\n';
                        break;
                    case 't':
                        out += '\t';
                        break;
                    default:
                        Fail(escapeAt, "unknown escape: backslash and " + Describe(e) +
                                           " (use \\\", \\\\, \\n or \\t)");
                        t.kind = Tok::Bad;
                        return t;
                }
                Advance();
                continue;
            }
            out += c;
            Advance();
        }
        t.kind = Tok::String;
        t.text = std::move(out);
        return t;
    }

    Token& LexNumber(Token& t) {
        const size_t start = pos_;
        if (text_[pos_] == '-')
            Advance();
        const auto digits = [this] {
            size_t n = 0;
            while (pos_ < text_.size() && IsDigit(text_[pos_]))
                Advance(), ++n;
            return n;
        };
        if (digits() == 0) {
            Fail(t.position, "a number needs digits after '-'");
            t.kind = Tok::Bad;
            return t;
        }
        if (pos_ < text_.size() && text_[pos_] == '.') {
            Advance();
            if (digits() == 0) {
                Fail(at_, "a number needs digits after '.'");
                t.kind = Tok::Bad;
                return t;
            }
        }
        if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
            Advance();
            if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-'))
                Advance();
            if (digits() == 0) {
                Fail(at_, "a number needs digits in its exponent");
                t.kind = Tok::Bad;
                return t;
            }
        }
        if (pos_ < text_.size() && (IsIdentChar(text_[pos_]) || text_[pos_] == '.')) {
            Fail(at_, "unexpected " + Describe(text_[pos_]) + " after a number");
            t.kind = Tok::Bad;
            return t;
        }
        const std::string_view literal = text_.substr(start, pos_ - start);
        double value = 0.0;
        const auto [end, ec] =
            std::from_chars(literal.data(), literal.data() + literal.size(), value);
        if (ec != std::errc() || end != literal.data() + literal.size() || !std::isfinite(value)) {
            Fail(t.position, "number " + std::string(literal.substr(0, 40)) + " is out of range");
            t.kind = Tok::Bad;
            return t;
        }
        t.kind = Tok::Number;
        t.number = value;
        return t;
    }

    std::string_view text_;
    CZelError& error_;
    size_t pos_ = 0;
    CZelPosition at_;
    bool failed_ = false;
};

class Parser {
public:
    Parser(std::string_view text, CZelError& error) : lexer_(text, error) {}

    std::optional<CZelNode> Document() {
        Token first = lexer_.Next();
        CZelNode root;
        if (!Element(first, 1, root))
            return std::nullopt;
        const Token end = lexer_.Next();
        if (end.kind != Tok::End) {
            if (end.kind != Tok::Bad)
                lexer_.Fail(end.position,
                            "expected the end of the text after the root element, found " +
                                DescribeToken(end));
            return std::nullopt;
        }
        return root;
    }

private:
    bool Expected(const Token& found, const std::string& what) {
        if (found.kind == Tok::Bad)
            return false;  // already reported
        return lexer_.Fail(found.position, "expected " + what + ", found " + DescribeToken(found));
    }

    bool Element(const Token& kind, int depth, CZelNode& node) {
        if (kind.kind != Tok::Ident)
            return Expected(kind, "an element kind");
        if (depth > kZelMaxDepth)
            return lexer_.Fail(kind.position,
                               "elements nested deeper than " + std::to_string(kZelMaxDepth));
        node.kind = kind.text;
        node.position = kind.position;
        // Optional view id, then an optional block.
        Lexer::State state = lexer_.Save();
        Token t = lexer_.Next();
        if (t.kind == Tok::String) {
            if (t.text.empty())
                return lexer_.Fail(t.position, "a view id must not be empty");
            node.viewId = t.text;
            state = lexer_.Save();
            t = lexer_.Next();
        }
        if (t.kind != Tok::LBrace) {
            if (t.kind == Tok::Bad)
                return false;
            lexer_.Restore(state);
            return true;
        }
        const CZelPosition open = t.position;
        while (true) {
            const Token item = lexer_.Next();
            if (item.kind == Tok::RBrace)
                return true;
            if (item.kind == Tok::End)
                return lexer_.Fail(item.position, "'}' missing for \"" + node.kind +
                                                      "\" opened at line " +
                                                      std::to_string(open.line) + ", column " +
                                                      std::to_string(open.column));
            if (item.kind != Tok::Ident)
                return Expected(item, "a property, an element or '}'");
            // A name followed by '=' is a property; anything else an element.
            const Lexer::State afterName = lexer_.Save();
            const Token next = lexer_.Next();
            if (next.kind == Tok::Bad)
                return false;
            if (next.kind == Tok::Equals) {
                CZelProperty property;
                property.name = item.text;
                property.position = item.position;
                if (node.Find(property.name))
                    return lexer_.Fail(item.position, "property \"" + item.text + "\" given twice");
                if (!Value(lexer_.Next(), property.value, true))
                    return false;
                node.properties.push_back(std::move(property));
            } else {
                lexer_.Restore(afterName);
                CZelNode child;
                if (!Element(item, depth + 1, child))
                    return false;
                node.children.push_back(std::move(child));
            }
        }
    }

    bool Value(const Token& t, CZelValue& value, bool listAllowed) {
        value.position = t.position;
        switch (t.kind) {
            case Tok::String:
                value.type = CZelValue::Type::String;
                value.text = t.text;
                return true;
            case Tok::Number:
                value.type = CZelValue::Type::Number;
                value.number = t.number;
                return true;
            case Tok::Ident:
                if (t.text == "true" || t.text == "false") {
                    value.type = CZelValue::Type::Bool;
                    value.flag = t.text == "true";
                } else {
                    value.type = CZelValue::Type::Name;
                    value.text = t.text;
                }
                return true;
            case Tok::LBracket:
                if (!listAllowed)
                    return lexer_.Fail(t.position, "lists do not nest");
                return List(value);
            default:
                return Expected(t, "a value");
        }
    }

    bool List(CZelValue& list) {
        list.type = CZelValue::Type::List;
        Token t = lexer_.Next();
        while (t.kind != Tok::RBracket) {
            CZelValue item;
            if (!Value(t, item, false))
                return false;
            list.items.push_back(std::move(item));
            t = lexer_.Next();
            if (t.kind == Tok::Comma) {
                t = lexer_.Next();
            } else if (t.kind != Tok::RBracket) {
                return Expected(t, "',' or ']'");
            }
        }
        return true;
    }

    Lexer lexer_;
};

void WriteString(std::string& out, const std::string& s) {
    out += '"';
    for (const char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += c;
        }
    }
    out += '"';
}

void WriteNumber(std::string& out, double v) {
    char buffer[64];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, v);
    out.append(buffer, ec == std::errc() ? end : buffer);
}

void WriteValue(std::string& out, const CZelValue& v) {
    switch (v.type) {
        case CZelValue::Type::String:
            WriteString(out, v.text);
            break;
        case CZelValue::Type::Number:
            WriteNumber(out, v.number);
            break;
        case CZelValue::Type::Bool:
            out += v.flag ? "true" : "false";
            break;
        case CZelValue::Type::Name:
            out += v.text;
            break;
        case CZelValue::Type::List:
            out += '[';
            for (size_t k = 0; k < v.items.size(); ++k) {
                if (k > 0)
                    out += ", ";
                WriteValue(out, v.items[k]);
            }
            out += ']';
            break;
    }
}

void WriteNode(std::string& out, const CZelNode& node, int indent) {
    out.append(static_cast<size_t>(indent) * 2, ' ');
    out += node.kind;
    if (!node.viewId.empty()) {
        out += ' ';
        WriteString(out, node.viewId);
    }
    if (node.properties.empty() && node.children.empty()) {
        out += '\n';
        return;
    }
    out += " {\n";
    for (const CZelProperty& p : node.properties) {
        out.append(static_cast<size_t>(indent + 1) * 2, ' ');
        out += p.name;
        out += " = ";
        WriteValue(out, p.value);
        out += '\n';
    }
    for (const CZelNode& child : node.children)
        WriteNode(out, child, indent + 1);
    out.append(static_cast<size_t>(indent) * 2, ' ');
    out += "}\n";
}

bool SameValue(const CZelValue& a, const CZelValue& b) {
    if (a.type != b.type)
        return false;
    switch (a.type) {
        case CZelValue::Type::String:
        case CZelValue::Type::Name:
            return a.text == b.text;
        case CZelValue::Type::Number:
            return a.number == b.number;
        case CZelValue::Type::Bool:
            return a.flag == b.flag;
        case CZelValue::Type::List:
            if (a.items.size() != b.items.size())
                return false;
            for (size_t k = 0; k < a.items.size(); ++k)
                if (!SameValue(a.items[k], b.items[k]))
                    return false;
            return true;
    }
    return false;
}

}  // namespace

const CZelProperty* CZelNode::Find(std::string_view name) const {
    for (const CZelProperty& p : properties)
        if (p.name == name)
            return &p;
    return nullptr;
}

std::string CZelError::ToString() const {
    return "line " + std::to_string(position.line) + ", column " + std::to_string(position.column) +
           ": " + message;
}

std::optional<CZelNode> ParseZel(std::string_view text, CZelError& error) {
    if (text.size() > kZelMaxBytes) {
        error = {{1, 1}, "the text is larger than " + std::to_string(kZelMaxBytes) + " bytes"};
        return std::nullopt;
    }
    return Parser(text, error).Document();
}

std::string WriteZel(const CZelNode& node) {
    std::string out;
    WriteNode(out, node, 0);
    return out;
}

bool SameZel(const CZelNode& a, const CZelNode& b) {
    if (a.kind != b.kind || a.viewId != b.viewId || a.properties.size() != b.properties.size() ||
        a.children.size() != b.children.size())
        return false;
    for (size_t k = 0; k < a.properties.size(); ++k)
        if (a.properties[k].name != b.properties[k].name ||
            !SameValue(a.properties[k].value, b.properties[k].value))
            return false;
    for (size_t k = 0; k < a.children.size(); ++k)
        if (!SameZel(a.children[k], b.children[k]))
            return false;
    return true;
}

}  // namespace Velmo

#include "framework/ZelSchema.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <span>
#include <string>

namespace Velmo {

namespace {

enum class Type { String, Number, Integer, Bool, Name, IntPair, NumberPair, StringList };

struct PropertySpec {
    std::string_view name;
    Type type;
    double minimum = -1e9;
    double maximum = 1e9;
    std::span<const std::string_view> names = {};  // for Type::Name; empty: any name
};

struct KindSpec {
    std::string_view kind;
    bool container;
    std::span<const PropertySpec> properties;
};

constexpr std::array<std::string_view, 4> kFonts = {"small", "medium", "mediumBold", "large"};
constexpr std::array<std::string_view, 2> kLayouts = {"row", "column"};
constexpr std::array<std::string_view, 3> kAligns = {"left", "center", "right"};

constexpr double kMaxPixels = 100000;

// Properties every element takes.
constexpr PropertySpec kCommon[] = {
    {"tip", Type::String},
    {"help", Type::String},
    {"width", Type::Integer, 0, kMaxPixels},
    {"height", Type::Integer, 0, kMaxPixels},
    {"minWidth", Type::Integer, 0, kMaxPixels},
    {"minHeight", Type::Integer, 0, kMaxPixels},
    {"size", Type::IntPair, 0, kMaxPixels},
    {"minSize", Type::IntPair, 0, kMaxPixels},
    {"font", Type::Name, 0, 0, kFonts},
    {"hidden", Type::Bool},
    {"enabled", Type::Bool},
    {"stretch", Type::Integer, 0, 100},
};

constexpr PropertySpec kBoxProps[] = {
    {"spacing", Type::Integer, 0, 1000},
    {"margins", Type::Integer, 0, 1000},
};
constexpr PropertySpec kWindowProps[] = {
    {"title", Type::String},
    {"offset", Type::IntPair, -kMaxPixels, kMaxPixels},
    {"resizable", Type::Bool},
    {"layout", Type::Name, 0, 0, kLayouts},
    {"spacing", Type::Integer, 0, 1000},
    {"margins", Type::Integer, 0, 1000},
};
constexpr PropertySpec kGroupProps[] = {
    {"title", Type::String},
    {"layout", Type::Name, 0, 0, kLayouts},
    {"spacing", Type::Integer, 0, 1000},
    {"margins", Type::Integer, 0, 1000},
};
constexpr PropertySpec kTextProps[] = {
    {"text", Type::String},
    {"buddy", Type::String},
    {"align", Type::Name, 0, 0, kAligns},
};
constexpr PropertySpec kButtonProps[] = {
    {"text", Type::String},
    {"default", Type::Bool},
    {"cancel", Type::Bool},
};
constexpr PropertySpec kCheckProps[] = {
    {"text", Type::String},
    {"checked", Type::Bool},
};
constexpr PropertySpec kItemsProps[] = {
    {"items", Type::StringList},
};
constexpr PropertySpec kSliderProps[] = {
    {"range", Type::NumberPair},
    {"positions", Type::Integer, 2, 100000},
    {"digits", Type::Integer, 1, 32},
    {"decimals", Type::Integer, 0, 9},
    {"minorStep", Type::Number, 0, 1e9},
    {"majorStep", Type::Number, 0, 1e9},
    {"value", Type::Number},
};
constexpr PropertySpec kIconProps[] = {
    {"image", Type::Name},
};
constexpr PropertySpec kImagePaneProps[] = {
    {"zoomRange", Type::NumberPair, 1e-6, 1e6},
    {"cushion", Type::Integer, 0, 1000},
};
constexpr PropertySpec kToolGridProps[] = {
    {"tools", Type::StringList},
    {"columns", Type::Integer, 1, 64},
};

constexpr PropertySpec kHelpLineProps[] = {
    {"text", Type::String},
};

constexpr KindSpec kKinds[] = {
    {"window", true, kWindowProps},
    {"row", true, kBoxProps},
    {"column", true, kBoxProps},
    {"group", true, kGroupProps},
    {"scroller", true, {}},
    {"text", false, kTextProps},
    {"button", false, kButtonProps},
    {"check", false, kCheckProps},
    {"popup", false, kItemsProps},
    {"combo", false, kItemsProps},
    {"flyout", false, kItemsProps},
    {"slider", false, kSliderProps},
    {"icon", false, kIconProps},
    {"imagepane", false, kImagePaneProps},
    {"toolgrid", false, kToolGridProps},
    {"spacer", false, {}},
    {"helpline", false, kHelpLineProps},
};

const KindSpec* FindKind(std::string_view kind) {
    for (const KindSpec& spec : kKinds)
        if (spec.kind == kind)
            return &spec;
    return nullptr;
}

const PropertySpec* FindProperty(const KindSpec& kind, std::string_view name) {
    for (const PropertySpec& p : kind.properties)
        if (p.name == name)
            return &p;
    for (const PropertySpec& p : kCommon)
        if (p.name == name)
            return &p;
    return nullptr;
}

std::string Quote(std::string_view s) {
    return "\"" + std::string(s) + "\"";
}

std::string Range(const PropertySpec& spec) {
    const auto number = [](double v) {
        std::string s = std::to_string(v);
        s.erase(s.find_last_not_of('0') + 1);
        if (!s.empty() && s.back() == '.')
            s.pop_back();
        return s;
    };
    return number(spec.minimum) + " to " + number(spec.maximum);
}

class Validator {
public:
    std::optional<CZelError> Run(const CZelNode& root) {
        if (!IsZelContainer(root.kind) && FindKind(root.kind))
            return Error(root.position,
                         "the root element must hold elements (window, row, column, group or "
                         "scroller), not " +
                             Quote(root.kind));
        Node(root, true);
        return error_;
    }

private:
    bool Fail(CZelPosition at, std::string message) {
        if (!error_)
            error_ = CZelError{at, std::move(message)};
        return false;
    }
    static std::optional<CZelError> Error(CZelPosition at, std::string message) {
        return CZelError{at, std::move(message)};
    }

    bool Node(const CZelNode& node, bool isRoot) {
        const KindSpec* kind = FindKind(node.kind);
        if (!kind)
            return Fail(node.position, "unknown element kind " + Quote(node.kind));
        if (node.kind == "window" && !isRoot)
            return Fail(node.position, "a window can only be the root element");
        // A tool grid's id names its tool set, which several grids may show.
        if (!node.viewId.empty() && node.kind != "toolgrid") {
            const auto [it, fresh] = viewIds_.emplace(node.viewId, node.position);
            if (!fresh)
                return Fail(node.position, "view id " + Quote(node.viewId) +
                                               " is used twice (first at line " +
                                               std::to_string(it->second.line) + ", column " +
                                               std::to_string(it->second.column) + ")");
        }
        for (const CZelProperty& p : node.properties)
            if (!Property(*kind, p))
                return false;
        if (!kind->container && !node.children.empty())
            return Fail(node.children.front().position,
                        "a " + Quote(node.kind) + " holds no elements");
        if (!Rules(node))
            return false;
        for (const CZelNode& child : node.children)
            if (!Node(child, false))
                return false;
        return true;
    }

    bool Rules(const CZelNode& node) {
        if (node.kind == "scroller") {
            size_t panes = 0;
            for (const CZelNode& child : node.children) {
                if (child.kind == "imagepane")
                    ++panes;
                if (IsZelContainer(child.kind))
                    return Fail(child.position,
                                "a scroller holds one image pane and one control, not a " +
                                    Quote(child.kind));
            }
            if (panes != 1 || node.children.size() > 2)
                return Fail(node.position,
                            "a scroller holds exactly one imagepane and at most one other control");
        }
        if (node.kind == "toolgrid") {
            if (node.viewId.empty())
                return Fail(node.position, "a toolgrid needs the view id of its tool set");
            if (!node.Find("tools"))
                return Fail(node.position, "a toolgrid needs its \"tools\"");
        }
        if (node.kind == "slider") {
            if (const CZelProperty* range = node.Find("range");
                range && range->value.items[0].number > range->value.items[1].number)
                return Fail(range->value.position, "a slider's range must not run backwards");
        }
        if (node.kind == "imagepane") {
            if (const CZelProperty* range = node.Find("zoomRange");
                range && range->value.items[0].number > range->value.items[1].number)
                return Fail(range->value.position, "the zoom range must not run backwards");
        }
        return true;
    }

    bool Number(const PropertySpec& spec, const CZelValue& v, bool integer) {
        if (v.type != CZelValue::Type::Number)
            return Fail(v.position,
                        Quote(spec.name) + " needs " + (integer ? "a whole number" : "a number"));
        if (integer && v.number != std::floor(v.number))
            return Fail(v.position, Quote(spec.name) + " needs a whole number");
        if (v.number < spec.minimum || v.number > spec.maximum)
            return Fail(v.position, Quote(spec.name) + " must lie between " + Range(spec));
        return true;
    }

    bool Property(const KindSpec& kind, const CZelProperty& p) {
        const PropertySpec* spec = FindProperty(kind, p.name);
        if (!spec)
            return Fail(p.position, Quote(p.name) + " is not a property of " + Quote(kind.kind));
        const CZelValue& v = p.value;
        switch (spec->type) {
            case Type::String:
                if (v.type != CZelValue::Type::String)
                    return Fail(v.position, Quote(p.name) + " needs a string");
                return true;
            case Type::Bool:
                if (v.type != CZelValue::Type::Bool)
                    return Fail(v.position, Quote(p.name) + " needs true or false");
                return true;
            case Type::Number:
                return Number(*spec, v, false);
            case Type::Integer:
                return Number(*spec, v, true);
            case Type::Name: {
                if (v.type != CZelValue::Type::Name)
                    return Fail(v.position, Quote(p.name) + " needs a name");
                if (spec->names.empty() ||
                    std::find(spec->names.begin(), spec->names.end(), v.text) != spec->names.end())
                    return true;
                std::string choices;
                for (const std::string_view n : spec->names)
                    choices += (choices.empty() ? "" : ", ") + std::string(n);
                return Fail(v.position,
                            Quote(p.name) + " is one of " + choices + ", not " + Quote(v.text));
            }
            case Type::IntPair:
            case Type::NumberPair: {
                if (v.type != CZelValue::Type::List || v.items.size() != 2)
                    return Fail(v.position, Quote(p.name) + " needs a list of two numbers");
                for (const CZelValue& item : v.items)
                    if (!Number(*spec, item, spec->type == Type::IntPair))
                        return false;
                return true;
            }
            case Type::StringList: {
                if (v.type != CZelValue::Type::List)
                    return Fail(v.position, Quote(p.name) + " needs a list of strings");
                for (const CZelValue& item : v.items)
                    if (item.type != CZelValue::Type::String)
                        return Fail(item.position, Quote(p.name) + " needs a list of strings");
                return true;
            }
        }
        return true;
    }

    std::map<std::string, CZelPosition, std::less<>> viewIds_;
    std::optional<CZelError> error_;
};

}  // namespace

bool IsZelContainer(std::string_view kind) {
    const KindSpec* spec = FindKind(kind);
    return spec && spec->container;
}

std::optional<CZelError> ValidateZel(const CZelNode& root) {
    return Validator().Run(root);
}

}  // namespace Velmo

#include "Descriptor.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

#include "ImageTypes.h"
#include "curvana/CurvanaScripting.h"

namespace Curvana::Host {
namespace {

const char* typeName(uint32_t type) {
    switch (type) {
        case cvTypeInteger:
            return "integer";
        case cvTypeFloat:
            return "double";
        case cvTypeBoolean:
            return "boolean";
        case cvTypeEnumerated:
            return "enumerated";
        case cvTypeRawData:
            return "data";
    }
    return nullptr;
}

// nlohmann's messages begin with "[json.exception.parse_error.101] ".
std::string jsonMessage(const std::exception& e) {
    std::string m = e.what();
    if (!m.empty() && m[0] == '[') {
        const auto close = m.find("] ");
        if (close != std::string::npos)
            m = m.substr(close + 2);
    }
    std::replace(m.begin(), m.end(), '\n', ' ');
    return m;
}

}  // namespace

std::string fourccToString(uint32_t code) {
    char c[4] = {static_cast<char>(code >> 24), static_cast<char>(code >> 16),
                 static_cast<char>(code >> 8), static_cast<char>(code)};
    bool printable = true;
    for (char ch : c)
        printable = printable && ch >= 0x20 && ch < 0x7f;
    if (printable)
        return std::string(c, 4);
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", code);
    return hex;
}

std::optional<uint32_t> fourccFromString(const std::string& text) {
    if (text.size() == 4) {
        uint32_t code = 0;
        for (char ch : text) {
            if (ch < 0x20 || ch >= 0x7f)
                return std::nullopt;
            code = (code << 8) | static_cast<uint8_t>(ch);
        }
        return code;
    }
    if (text.size() == 10 && (text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0)) {
        uint32_t code = 0;
        for (size_t i = 2; i < 10; ++i) {
            const char ch = text[i];
            const int v = ch >= '0' && ch <= '9'   ? ch - '0'
                          : ch >= 'a' && ch <= 'f' ? ch - 'a' + 10
                          : ch >= 'A' && ch <= 'F' ? ch - 'A' + 10
                                                   : -1;
            if (v < 0)
                return std::nullopt;
            code = (code << 4) | static_cast<uint32_t>(v);
        }
        return code;
    }
    return std::nullopt;
}

static const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64Encode(const std::vector<uint8_t>& bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const uint32_t n = (uint32_t{bytes[i]} << 16) |
                           (i + 1 < bytes.size() ? uint32_t{bytes[i + 1]} << 8 : 0) |
                           (i + 2 < bytes.size() ? uint32_t{bytes[i + 2]} : 0);
        out += kBase64[(n >> 18) & 63];
        out += kBase64[(n >> 12) & 63];
        out += i + 1 < bytes.size() ? kBase64[(n >> 6) & 63] : '=';
        out += i + 2 < bytes.size() ? kBase64[n & 63] : '=';
    }
    return out;
}

std::optional<std::vector<uint8_t>> base64Decode(const std::string& text) {
    if (text.size() % 4 != 0)
        return std::nullopt;
    std::vector<uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        uint32_t n = 0;
        int pad = 0;
        for (size_t j = 0; j < 4; ++j) {
            const char ch = text[i + j];
            int v;
            if (ch == '=' && i + 4 == text.size() && j >= 2) {
                v = 0;
                ++pad;
            } else {
                if (pad)
                    return std::nullopt;  // data after padding
                const char* p = ch ? std::strchr(kBase64, ch) : nullptr;
                if (!p)
                    return std::nullopt;
                v = static_cast<int>(p - kBase64);
            }
            n = (n << 6) | static_cast<uint32_t>(v);
        }
        out.push_back(static_cast<uint8_t>(n >> 16));
        if (pad < 2)
            out.push_back(static_cast<uint8_t>(n >> 8));
        if (pad < 1)
            out.push_back(static_cast<uint8_t>(n));
    }
    return out;
}

nlohmann::json descriptorToJson(const Descriptor& descriptor) {
    nlohmann::json entries = nlohmann::json::array();
    for (const auto& e : descriptor.entries()) {
        const char* type = typeName(e.type);
        if (!type)
            continue;  // a type the JSON form has no name for
        nlohmann::json j = {{"key", fourccToString(e.key)}, {"type", type}};
        switch (e.type) {
            case cvTypeInteger:
                j["value"] = e.integer;
                break;
            case cvTypeFloat:
                j["value"] = e.number;
                break;
            case cvTypeBoolean:
                j["value"] = e.boolean;
                break;
            case cvTypeEnumerated:
                j["enumType"] = fourccToString(e.enumType);
                j["value"] = fourccToString(e.enumValue);
                break;
            case cvTypeRawData:
                j["value"] = base64Encode(e.data);
                break;
        }
        entries.push_back(std::move(j));
    }
    return {{"curvanaAction", 1},
            {"event", fourccToString(cvEventCurvana)},
            {"descriptor", std::move(entries)}};
}

std::unique_ptr<Descriptor> descriptorFromJson(const nlohmann::json& json,
                                               const std::string& where) {
    auto fail = [&](const std::string& why) { return HostError(kExitUsage, where + ": " + why); };
    if (!json.is_object())
        throw fail("an action must be a JSON object");
    const auto version = json.find("curvanaAction");
    if (version == json.end() || !version->is_number_integer() || version->get<int64_t>() != 1)
        throw fail("\"curvanaAction\": 1 is missing (not a Curvana action file?)");
    const auto list = json.find("descriptor");
    if (list == json.end() || !list->is_array())
        throw fail("\"descriptor\" must be an array of entries");
    auto d = std::make_unique<Descriptor>();
    size_t index = 0;
    for (const auto& item : *list) {
        const std::string at = "entry " + std::to_string(index++);
        if (!item.is_object())
            throw fail(at + " must be an object");
        const auto key = item.find("key");
        const auto type = item.find("type");
        const auto value = item.find("value");
        if (key == item.end() || !key->is_string())
            throw fail(at + ": \"key\" must be a string");
        const auto code = fourccFromString(key->get<std::string>());
        if (!code)
            throw fail(at + ": key \"" + key->get<std::string>() +
                       "\" is not a four-character code");
        if (type == item.end() || !type->is_string())
            throw fail(at + ": \"type\" must be a string");
        if (value == item.end())
            throw fail(at + ": \"value\" is missing");
        const std::string t = type->get<std::string>();
        DescriptorEntry e;
        e.key = *code;
        if (t == "integer") {
            if (!value->is_number_integer())
                throw fail(at + ": an integer value must be a whole number");
            // Unsigned beyond 63 bits would wrap as int64_t: compare as unsigned.
            const bool tooLarge =
                value->is_number_unsigned() &&
                value->get<uint64_t>() > uint64_t{std::numeric_limits<int32_t>::max()};
            const int64_t v = tooLarge ? 0 : value->get<int64_t>();
            if (tooLarge || v < std::numeric_limits<int32_t>::min() ||
                v > std::numeric_limits<int32_t>::max())
                throw fail(at + ": integer value out of the 32-bit range");
            e.type = cvTypeInteger;
            e.integer = static_cast<int32_t>(v);
        } else if (t == "double") {
            if (!value->is_number())
                throw fail(at + ": a double value must be a number");
            e.type = cvTypeFloat;
            e.number = value->get<double>();
            if (!std::isfinite(e.number))
                throw fail(at + ": a double value must be finite");
        } else if (t == "boolean") {
            if (!value->is_boolean())
                throw fail(at + ": a boolean value must be true or false");
            e.type = cvTypeBoolean;
            e.boolean = value->get<bool>();
        } else if (t == "enumerated") {
            const auto enumType = item.find("enumType");
            if (enumType == item.end() || !enumType->is_string() || !value->is_string())
                throw fail(at +
                           ": an enumerated entry needs \"enumType\" and \"value\" as "
                           "four-character codes");
            const auto et = fourccFromString(enumType->get<std::string>());
            const auto ev = fourccFromString(value->get<std::string>());
            if (!et || !ev)
                throw fail(at + ": enumerated type and value must be four-character codes");
            e.type = cvTypeEnumerated;
            e.enumType = *et;
            e.enumValue = *ev;
        } else if (t == "data") {
            if (!value->is_string())
                throw fail(at + ": a data value must be a base64 string");
            auto bytes = base64Decode(value->get<std::string>());
            if (!bytes)
                throw fail(at + ": the data value is not valid base64");
            e.type = cvTypeRawData;
            e.data = std::move(*bytes);
        } else {
            throw fail(at + ": unknown type \"" + t +
                       "\" (integer, double, boolean, enumerated or data)");
        }
        if (d->find(e.key))
            throw fail(at + ": key \"" + fourccToString(e.key) + "\" appears twice");
        d->put(std::move(e));
    }
    return d;
}

std::unique_ptr<Descriptor> actionFromText(std::string_view text, const std::string& where) {
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(text);
    } catch (const nlohmann::json::out_of_range& e) {
        throw HostError(kExitUsage, where + ": a number is out of range (" + jsonMessage(e) + ")");
    } catch (const nlohmann::json::exception& e) {
        throw HostError(kExitUsage, where + ": not valid JSON (" + jsonMessage(e) + ")");
    }
    return descriptorFromJson(json, where);
}

std::unique_ptr<Descriptor> loadAction(const std::filesystem::path& path) {
    const std::string where = path.string();
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec))
        throw HostError(kExitUsage, where + ": is a folder, not an action file");
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw HostError(kExitUsage, where + ": cannot open (" + std::strerror(errno) + ")");
    // Read in pieces up to the limit: the size of a device or pipe is unknown.
    std::string text;
    char chunk[65536];
    while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
        text.append(chunk, static_cast<size_t>(in.gcount()));
        if (text.size() > kMaxActionBytes)
            throw HostError(kExitUsage, where + ": too large for an action file (more than " +
                                            byteText(kMaxActionBytes) + ")");
    }
    return actionFromText(text, where);
}

void saveAction(const std::filesystem::path& path, const Descriptor& descriptor) {
    for (const DescriptorEntry& e : descriptor.entries())
        if (e.type == cvTypeFloat && !std::isfinite(e.number))
            throw HostError(kExitOutput, path.string() + ": not written, \"" +
                                             fourccToString(e.key) + "\" is not a finite number");
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    if (ec)
        throw HostError(kExitOutput, path.parent_path().string() + ": cannot create the folder (" +
                                         ec.message() + ")");
    const std::filesystem::path temp = path.string() + ".tmp";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        if (!out)
            throw writeError(temp.string(), errno);
        out << descriptorToJson(descriptor).dump(2) << '\n';
        out.close();
        if (!out)
            throw writeError(temp.string(), errno);
    }
    std::filesystem::rename(temp, path, ec);
    if (ec) {
        std::filesystem::remove(temp, ec);
        throw HostError(kExitOutput, path.string() + ": cannot write (" + ec.message() + ")");
    }
}

}  // namespace Curvana::Host

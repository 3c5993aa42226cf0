// The host's action descriptors: an ordered list of keyed values served to
// the module through the descriptor suite, and their JSON form (recorded
// actions, --params).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "curvana/CurvanaPlugin.h"

namespace Curvana::Host {

struct DescriptorEntry {
    uint32_t key = 0;
    uint32_t type =
        0;  // cvTypeInteger, cvTypeFloat, cvTypeBoolean, cvTypeEnumerated, cvTypeRawData
    int32_t integer = 0;
    double number = 0;
    bool boolean = false;
    uint32_t enumType = 0, enumValue = 0;
    std::vector<uint8_t> data;
};

class Descriptor {
public:
    Descriptor();
    ~Descriptor();
    Descriptor(const Descriptor& other);
    Descriptor& operator=(const Descriptor&) = delete;

    const std::vector<DescriptorEntry>& entries() const { return entries_; }
    const DescriptorEntry* find(uint32_t key) const;
    // Replaces an entry of the same key in place, else appends.
    void put(DescriptorEntry entry);
    void putInteger(uint32_t key, int32_t v);
    void putFloat(uint32_t key, double v);
    void putEnumerated(uint32_t key, uint32_t type, uint32_t value);
    void putBoolean(uint32_t key, bool v);
    void erase(uint32_t key);
    std::optional<double> getFloat(uint32_t key) const;

    // A descriptor the module made with the suite's make: the module owns it
    // until it hands it back through setResultDescriptor.
    bool madeByModule = false;

    CvDescriptor handle() { return reinterpret_cast<CvDescriptor>(this); }
    // The live descriptor behind a handle, or nullptr for a stale or foreign one.
    static Descriptor* fromHandle(CvDescriptor handle);

private:
    std::vector<DescriptorEntry> entries_;
};

// The suite over Descriptor; every function checks its handle.
const CvDescriptorSuite5* descriptorSuite();

std::string fourccToString(uint32_t code);
// Four printable ASCII characters, or "0x" and eight hex digits.
std::optional<uint32_t> fourccFromString(const std::string& text);

std::string base64Encode(const std::vector<uint8_t>& bytes);
std::optional<std::vector<uint8_t>> base64Decode(const std::string& text);

// JSON form of an action:
// { "curvanaAction": 1, "event": "cvnC",
//   "descriptor": [ { "key": "prjM", "type": "enumerated", "enumType": "prjM", "value": "fisP" },
//                   { "key": "focL", "type": "double", "value": 1250.0 },
//                   { "key": "imgS", "type": "integer", "value": 120 },
//                   { "key": "flag", "type": "boolean", "value": true },
//                   { "key": "cnsD", "type": "data", "value": "<base64>" } ] }
// Entries keep their order. Keys and enumerators are four-character codes.
nlohmann::json descriptorToJson(const Descriptor& descriptor);
// Throws HostError("<where>: <one-line reason>").
std::unique_ptr<Descriptor> descriptorFromJson(const nlohmann::json& json,
                                               const std::string& where);

// An action from its JSON text; where names it in messages. Any problem
// (malformed JSON, a number out of range) is a HostError (kExitUsage).
std::unique_ptr<Descriptor> actionFromText(std::string_view text, const std::string& where);
// Reads an action file of at most kMaxActionBytes; any problem is a HostError
// (kExitUsage) with a one-line message.
inline constexpr size_t kMaxActionBytes = size_t{64} << 20;
std::unique_ptr<Descriptor> loadAction(const std::filesystem::path& path);
// Writes atomically (temporary file and rename). Throws HostError
// (kExitOutput), also for a number that is not finite: nothing invalid is
// recorded.
void saveAction(const std::filesystem::path& path, const Descriptor& descriptor);

}  // namespace Curvana::Host

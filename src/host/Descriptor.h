// The host's action descriptors in their JSON form (recorded actions,
// --params).
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
#include "hostkit/ActionDescriptor.h"

namespace Curvana::Host {

using HostKit::Descriptor;
using HostKit::DescriptorEntry;
using HostKit::descriptorSuite;

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

#pragma once

#include <cstdint>
#include <string>

namespace Project {

// A four-character code: the 32-bit value whose big-endian bytes spell the
// characters, FourCC("vers") == 0x76657273.
constexpr uint32_t FourCC(const char (&code)[5]) {
    return (static_cast<uint32_t>(static_cast<uint8_t>(code[0])) << 24) |
           (static_cast<uint32_t>(static_cast<uint8_t>(code[1])) << 16) |
           (static_cast<uint32_t>(static_cast<uint8_t>(code[2])) << 8) |
           static_cast<uint32_t>(static_cast<uint8_t>(code[3]));
}

// The four characters of a code, for messages and test output.
inline std::string FourCCText(uint32_t code) {
    std::string text(4, ' ');
    for (int i = 0; i < 4; ++i)
        text[static_cast<size_t>(i)] = static_cast<char>(code >> (24 - 8 * i));
    return text;
}

}  // namespace Project

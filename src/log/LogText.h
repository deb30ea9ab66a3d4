// Small text helpers shared by the log writers.
#pragma once

#include <string>

namespace logtext {

// Widens 8-bit text unit by unit (each byte becomes one UTF-16 code unit),
// as for the ASCII prefixes and file names that the writers format.
inline std::u16string Widen(const char* text) {
    std::u16string out;
    for (; *text; ++text) out.push_back(static_cast<char16_t>(static_cast<unsigned char>(*text)));
    return out;
}

// The UTF-16 little-endian bytes of `text`, as they go into a log file.
inline std::string Utf16LeBytes(const std::u16string& text) {
    std::string bytes(text.size() * 2, '\0');
    for (size_t i = 0; i < text.size(); ++i) {
        bytes[2 * i] = static_cast<char>(text[i] & 0xFF);
        bytes[2 * i + 1] = static_cast<char>(text[i] >> 8);
    }
    return bytes;
}

}  // namespace logtext

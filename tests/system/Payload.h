// Payloads that both the tests and their peer programs can make and compare.
#ifndef TARVO_SYSTEM_PAYLOAD_H
#define TARVO_SYSTEM_PAYLOAD_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace tarvo_test {

// `size` bytes of every value, different for each seed and not repeating with any power of two.
inline std::string Fill(std::size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 7 + i / 251 + seed * 13U) & 0xFFU);
    }
    return bytes;
}

// The least, the most, and what lies about the powers of two.
constexpr std::size_t PAYLOAD_SIZES[] = {1, 2, 31, 256, 1023, 3999, 4000};

// Length and content of a payload in a word fit for one line of text (64-bit FNV-1a).
inline std::string Digest(const std::string &bytes) {
    uint64_t hash = 0xCBF29CE484222325U;
    for (const char c : bytes) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
    }
    char text[64];
    std::snprintf(text, sizeof(text), "%zu:%016llx", bytes.size(), static_cast<unsigned long long>(hash));
    return text;
}

} // namespace tarvo_test

#endif // TARVO_SYSTEM_PAYLOAD_H

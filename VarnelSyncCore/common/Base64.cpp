#include "common/Base64.hpp"

#include <array>

namespace varnel {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int, 256> makeDecodeTable() {
    std::array<int, 256> table{};
    for (auto& entry : table) entry = -1;
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int>(i);
    }
    return table;
}

constexpr auto kDecodeTable = makeDecodeTable();

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t group = (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
        text += kAlphabet[(group >> 18) & 63];
        text += kAlphabet[(group >> 12) & 63];
        text += kAlphabet[(group >> 6) & 63];
        text += kAlphabet[group & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t group = std::uint32_t{bytes[i]} << 16;
        if (rest == 2) group |= std::uint32_t{bytes[i + 1]} << 8;
        text += kAlphabet[(group >> 18) & 63];
        text += kAlphabet[(group >> 12) & 63];
        text += rest == 2 ? kAlphabet[(group >> 6) & 63] : '=';
        text += '=';
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        std::size_t padding = 0;
        if (last && text[i + 3] == '=') padding = text[i + 2] == '=' ? 2 : 1;
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            int value = 0;
            if (k < 4 - padding) {
                value = kDecodeTable[static_cast<unsigned char>(text[i + k])];
                if (value < 0) return std::nullopt;
            }
            group = (group << 6) | static_cast<std::uint32_t>(value);
        }
        // Bits below the last whole byte must be zero, so every blob has one spelling.
        if ((padding == 1 && (group & 0xFF) != 0) || (padding == 2 && (group & 0xFFFF) != 0)) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(group >> 16));
        if (padding < 2) bytes.push_back(static_cast<std::uint8_t>((group >> 8) & 0xFF));
        if (padding < 1) bytes.push_back(static_cast<std::uint8_t>(group & 0xFF));
    }
    return bytes;
}

}  // namespace varnel

#include "common/Unicode.hpp"

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>

namespace varnel::unicode {

namespace {

const icu::Normalizer2& nfc() {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* normalizer = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status) || normalizer == nullptr) {
        // ICU's data is part of the library; without it nothing can be compared safely.
        std::abort();
    }
    return *normalizer;
}

// Where the ASCII start of `bytes` ends, eight bytes at a time: a scan checks every
// item's name twice, and nearly every name is ASCII throughout. The last bytes are read
// as the word that ends the text, overlapping bytes already found ASCII, so a name
// costs no byte-by-byte loop whose end the processor would mispredict.
std::size_t asciiPrefixLength(std::string_view bytes) {
    constexpr std::size_t kWord = sizeof(std::uint64_t);
    const std::size_t size = bytes.size();
    if (std::endian::native != std::endian::little || size < kWord) {
        std::size_t i = 0;
        while (i < size && static_cast<unsigned char>(bytes[i]) < 0x80) ++i;
        return i;
    }
    // The first byte at or after `at` with its high bit set, if the word there has one:
    // in a little-endian word the lowest set bit belongs to the first byte.
    const auto firstHighByte = [&](std::size_t at) -> std::optional<std::size_t> {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes.data() + at, kWord);
        const std::uint64_t high = word & 0x8080808080808080;
        if (high == 0) return std::nullopt;
        return at + static_cast<std::size_t>(std::countr_zero(high)) / 8;
    };
    std::size_t at = 0;
    for (; at + kWord <= size; at += kWord) {
        if (const auto found = firstHighByte(at)) return *found;
    }
    if (at < size) {
        if (const auto found = firstHighByte(size - kWord)) return *found;
    }
    return size;
}

std::string toUTF8(const icu::UnicodeString& text) {
    std::string out;
    text.toUTF8String(out);
    return out;
}

}  // namespace

std::string toNFC(std::string_view utf8) {
    if (isASCII(utf8)) return std::string(utf8);
    const auto text = icu::UnicodeString::fromUTF8(icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
    UErrorCode status = U_ZERO_ERROR;
    const icu::UnicodeString normalized = nfc().normalize(text, status);
    if (U_FAILURE(status)) return toUTF8(text);
    return toUTF8(normalized);
}

bool isNFC(std::string_view utf8) {
    if (isASCII(utf8)) return true;
    if (!isValidUTF8(utf8)) return false;
    const auto text = icu::UnicodeString::fromUTF8(icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
    UErrorCode status = U_ZERO_ERROR;
    const bool result = nfc().isNormalized(text, status);
    return U_SUCCESS(status) && result;
}

std::string toLower(std::string_view utf8) {
    if (isASCII(utf8)) {
        std::string out(utf8);
        for (char& c : out) {
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        }
        return out;
    }
    auto text = icu::UnicodeString::fromUTF8(icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
    text.toLower(icu::Locale::getRoot());
    return toUTF8(text);
}

std::vector<std::string> graphemeClusters(std::string_view utf8) {
    std::vector<std::string> clusters;
    if (isASCII(utf8)) {
        // Every ASCII character is its own cluster, except CR LF which stays together.
        clusters.reserve(utf8.size());
        for (std::size_t i = 0; i < utf8.size(); ++i) {
            if (utf8[i] == '\r' && i + 1 < utf8.size() && utf8[i + 1] == '\n') {
                clusters.emplace_back("\r\n");
                ++i;
            } else {
                clusters.emplace_back(1, utf8[i]);
            }
        }
        return clusters;
    }
    const auto text = icu::UnicodeString::fromUTF8(icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> iterator(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status) || !iterator) std::abort();
    iterator->setText(text);
    int32_t start = iterator->first();
    for (int32_t end = iterator->next(); end != icu::BreakIterator::DONE; start = end, end = iterator->next()) {
        clusters.push_back(toUTF8(text.tempSubStringBetween(start, end)));
    }
    return clusters;
}

bool isASCII(std::string_view bytes) { return asciiPrefixLength(bytes) == bytes.size(); }

bool isValidUTF8(std::string_view bytes) {
    // Most names are ASCII, byte by byte valid: decoding starts at the first byte that is not.
    auto i = static_cast<int32_t>(asciiPrefixLength(bytes));
    const auto length = static_cast<int32_t>(bytes.size());
    const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
    while (i < length) {
        UChar32 c = 0;
        U8_NEXT(data, i, length, c);
        if (c < 0) return false;
    }
    return true;
}

std::string repairUTF8(std::string_view bytes) {
    if (isValidUTF8(bytes)) return std::string(bytes);
    return toUTF8(icu::UnicodeString::fromUTF8(icu::StringPiece(bytes.data(), static_cast<int32_t>(bytes.size()))));
}

std::string trimWhitespace(std::string_view utf8) {
    const auto length = static_cast<int32_t>(utf8.size());
    const auto* data = reinterpret_cast<const uint8_t*>(utf8.data());
    int32_t begin = 0;
    while (begin < length) {
        int32_t next = begin;
        UChar32 c = 0;
        U8_NEXT(data, next, length, c);
        if (c < 0 || !u_isUWhiteSpace(c)) break;
        begin = next;
    }
    int32_t end = length;
    while (end > begin) {
        int32_t previous = end;
        UChar32 c = 0;
        U8_PREV(data, 0, previous, c);
        if (c < 0 || !u_isUWhiteSpace(c)) break;
        end = previous;
    }
    return std::string(utf8.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin)));
}

}  // namespace varnel::unicode

#include "common/Unicode.hpp"

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <memory>

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

bool isASCII(std::string_view text) {
    for (unsigned char c : text) {
        if (c >= 0x80) return false;
    }
    return true;
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

bool isValidUTF8(std::string_view bytes) {
    int32_t i = 0;
    const auto length = static_cast<int32_t>(bytes.size());
    const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
    // Most names are ASCII, byte by byte valid: decoding starts at the first byte that is not.
    while (i < length && data[i] < 0x80) ++i;
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

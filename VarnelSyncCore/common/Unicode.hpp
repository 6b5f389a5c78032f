#pragma once
// Unicode helpers over UTF-8 strings, backed by ICU.

#include <string>
#include <string_view>
#include <vector>

namespace varnel::unicode {

// Canonical composition (NFC). Invalid UTF-8 is repaired with U+FFFD first.
std::string toNFC(std::string_view utf8);
// Whether the text is already in NFC (cheap for the common ASCII case).
bool isNFC(std::string_view utf8);
// Locale-independent full lower-casing.
std::string toLower(std::string_view utf8);
// User-perceived characters (extended grapheme clusters), each as UTF-8.
std::vector<std::string> graphemeClusters(std::string_view utf8);
// Whether the bytes are well-formed UTF-8.
bool isValidUTF8(std::string_view bytes);
// Whether every byte is ASCII (below 0x80).
bool isASCII(std::string_view bytes);
// Decodes UTF-8, replacing every invalid sequence with U+FFFD.
std::string repairUTF8(std::string_view bytes);
// Whitespace and newlines trimmed from both ends (Unicode White_Space).
std::string trimWhitespace(std::string_view utf8);

}  // namespace varnel::unicode

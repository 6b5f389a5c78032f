// GlobMatcher against a reference matcher written straight from the pattern rules:
// pattern and path are prepared alike (lower-cased unless case-sensitive, then NFC), split
// into user-perceived characters, and matched by plain recursion over (pattern index,
// text index) with a memo of failed states. Inputs are not restricted to ASCII: both
// sides use the same case folding, normalisation and cluster splitting, so what is
// compared is the matching itself (stars, "**/", "?", brackets, literal characters).
//
// Input: one flag byte (odd: case-sensitive), the pattern, a NUL, the path.

#include "FuzzCheck.hpp"

#include "common/Unicode.hpp"
#include "scan/GlobMatcher.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Characters = std::vector<std::string>;

Characters prepared(std::string_view text, bool caseSensitive) {
    const std::string folded = caseSensitive ? std::string(text) : varnel::unicode::toLower(text);
    return varnel::unicode::graphemeClusters(varnel::unicode::toNFC(folded));
}

// Code points of a valid UTF-8 character, for ordering characters as Unicode text.
std::u32string codePoints(std::string_view utf8) {
    std::u32string result;
    for (std::size_t i = 0; i < utf8.size();) {
        const auto lead = static_cast<unsigned char>(utf8[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        char32_t value = length == 1 ? lead : length == 2 ? lead & 0x1F : length == 3 ? lead & 0x0F : lead & 0x07;
        for (std::size_t k = 1; k < length && i + k < utf8.size(); ++k) {
            value = (value << 6) | (static_cast<unsigned char>(utf8[i + k]) & 0x3F);
        }
        result.push_back(value);
        i += length;
    }
    return result;
}

class ReferenceMatcher {
public:
    ReferenceMatcher(Characters pattern, Characters text)
        : pattern_(std::move(pattern)), text_(std::move(text)),
          failed_((pattern_.size() + 1) * (text_.size() + 1), false) {}

    bool matches() { return match(0, 0); }

private:
    struct Bracket {
        bool terminated = false;
        bool negated = false;
        std::size_t end = 0;  // pattern index after the closing "]"
        std::vector<std::pair<std::string, std::string>> ranges;
    };

    bool match(std::size_t p, std::size_t t) {
        const std::size_t key = p * (text_.size() + 1) + t;
        if (failed_[key]) return false;
        const bool result = attempt(p, t);
        if (!result) failed_[key] = true;
        return result;
    }

    bool attempt(std::size_t p, std::size_t t) {
        if (p == pattern_.size()) return t == text_.size();
        if (pattern_[p] == "*") {
            std::size_t end = p;
            while (end < pattern_.size() && pattern_[end] == "*") ++end;
            const bool doubleStar = end - p >= 2;
            if (doubleStar && end < pattern_.size() && pattern_[end] == "/" && match(end + 1, t)) return true;
            for (std::size_t u = t; u <= text_.size(); ++u) {
                if (match(end, u)) return true;
                if (u < text_.size() && !doubleStar && text_[u] == "/") break;
            }
            return false;
        }
        if (t == text_.size()) return false;
        if (pattern_[p] == "?") return text_[t] != "/" && match(p + 1, t + 1);
        if (pattern_[p] == "[") {
            const Bracket bracket = readBracket(p);
            if (bracket.terminated) return contains(bracket, text_[t]) && match(bracket.end, t + 1);
        }
        return pattern_[p] == text_[t] && match(p + 1, t + 1);
    }

    Bracket readBracket(std::size_t open) const {
        Bracket bracket;
        std::size_t j = open + 1;
        if (j < pattern_.size() && (pattern_[j] == "!" || pattern_[j] == "^")) {
            bracket.negated = true;
            ++j;
        }
        for (bool first = true; j < pattern_.size(); first = false) {
            if (pattern_[j] == "]" && !first) {
                bracket.terminated = true;
                bracket.end = j + 1;
                return bracket;
            }
            if (j + 2 < pattern_.size() && pattern_[j + 1] == "-" && pattern_[j + 2] != "]") {
                bracket.ranges.emplace_back(pattern_[j], pattern_[j + 2]);
                j += 3;
            } else {
                bracket.ranges.emplace_back(pattern_[j], pattern_[j]);
                j += 1;
            }
        }
        return bracket;
    }

    static bool contains(const Bracket& bracket, const std::string& character) {
        const std::u32string c = codePoints(character);
        bool inSet = false;
        for (const auto& [low, high] : bracket.ranges) {
            if (codePoints(low) <= c && c <= codePoints(high)) inSet = true;
        }
        return inSet != bracket.negated;
    }

    Characters pattern_;
    Characters text_;
    std::vector<bool> failed_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The reference is quadratic per star; longer inputs add nothing but time.
    if (size == 0 || size > 512) return 0;
    const bool caseSensitive = (data[0] & 1) != 0;
    const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::size_t separator = rest.find('\0');
    const std::string_view pattern = rest.substr(0, separator);
    const std::string_view path = separator == std::string_view::npos ? std::string_view() : rest.substr(separator + 1);

    const varnel::GlobMatcher matcher(pattern, caseSensitive);
    Characters preparedPattern = prepared(pattern, caseSensitive);
    std::string joined;
    for (const auto& character : preparedPattern) joined += character;
    FUZZ_CHECK(matcher.pattern() == joined);
    FUZZ_CHECK(matcher == varnel::GlobMatcher(pattern, caseSensitive));

    const bool expected = ReferenceMatcher(std::move(preparedPattern), prepared(path, caseSensitive)).matches();
    FUZZ_CHECK(matcher.matches(path) == expected);
    // A matcher is reusable: a second run gives the same answer.
    FUZZ_CHECK(matcher.matches(path) == expected);
    return 0;
}

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// A shell-style pattern over relative paths, compared by user-perceived characters
// (grapheme clusters) in Unicode Normalisation Form C:
//   *      any run of characters within one folder (never "/")
//   **     any run of characters, across folders; "**/" also stands for no folder at all
//   ?      one character other than "/"
//   [...]  one character of a set: ranges "a-z", a leading "!" or "^" negates, a "]"
//          right after the opening (or the negation) is literal; an unterminated "["
//          is an ordinary character
// There is no escape character. Without case sensitivity, pattern and path are both
// lower-cased before comparison.
class GlobMatcher {
public:
    GlobMatcher(std::string_view pattern, bool caseSensitive);

    bool matches(std::string_view path) const;

    // The prepared pattern: lower-cased unless case-sensitive, in Form C.
    const std::string& pattern() const { return pattern_; }
    bool caseSensitive() const { return caseSensitive_; }

    // The tokens are derived from these two fields alone.
    friend bool operator==(const GlobMatcher& a, const GlobMatcher& b) {
        return a.caseSensitive_ == b.caseSensitive_ && a.pattern_ == b.pattern_;
    }

private:
    // A character of the pattern, as a byte range of pattern_ (stable across copies,
    // unlike a string_view).
    struct Span {
        std::uint32_t offset = 0;
        std::uint32_t length = 0;
    };
    struct BracketItem {
        Span low;
        Span high;  // equal to low for a single character
    };
    enum class TokenKind : std::uint8_t { literal, anyCharacter, bracket, singleStar, doubleStar };
    struct Token {
        TokenKind kind = TokenKind::literal;
        Span literal;                  // literal
        std::uint32_t firstItem = 0;   // bracket: items_[firstItem, firstItem + itemCount)
        std::uint32_t itemCount = 0;
        bool negated = false;          // bracket
        bool slashFollows = false;     // doubleStar directly followed by a literal "/"
        std::uint32_t starSlot = 0;    // stars: row of the failure memo
    };
    class Run;

    std::string_view text(Span span) const { return std::string_view(pattern_).substr(span.offset, span.length); }

    std::string pattern_;
    bool caseSensitive_ = false;
    std::vector<Token> tokens_;
    std::vector<BracketItem> items_;
    std::uint32_t starCount_ = 0;
};

}  // namespace varnel

template <>
struct std::hash<varnel::GlobMatcher> {
    std::size_t operator()(const varnel::GlobMatcher& matcher) const noexcept {
        return std::hash<std::string>{}(matcher.pattern()) ^ static_cast<std::size_t>(matcher.caseSensitive());
    }
};

#include "scan/GlobMatcher.hpp"

#include "common/Unicode.hpp"

#include <unicode/brkiter.h>
#include <unicode/utext.h>

#include <cstdlib>
#include <memory>

namespace varnel {

namespace {

bool hasUpperASCII(std::string_view text) {
    for (char c : text) {
        if (c >= 'A' && c <= 'Z') return true;
    }
    return false;
}

// Lower-cases (unless case-sensitive) and converts to Form C, in that order. Returns a
// view of `path` itself when nothing changes, so the common ASCII path is not copied.
std::string_view prepare(std::string_view path, bool caseSensitive, std::string& storage) {
    if (unicode::isASCII(path)) {
        if (caseSensitive || !hasUpperASCII(path)) return path;
        storage = unicode::toLower(path);
        return storage;
    }
    std::string folded = caseSensitive ? std::string(path) : unicode::toLower(path);
    storage = unicode::isNFC(folded) ? std::move(folded) : unicode::toNFC(folded);
    return storage;
}

icu::BreakIterator& characterIterator() {
    // Creating a break iterator loads rules; one per thread is reused for every path.
    thread_local std::unique_ptr<icu::BreakIterator> iterator = [] {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::BreakIterator> created(
            icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
        if (U_FAILURE(status) || !created) std::abort();  // ICU data is part of the library
        return created;
    }();
    return *iterator;
}

// Byte offsets of the grapheme-cluster boundaries of valid UTF-8, from 0 to the size.
void clusterBoundaries(std::string_view utf8, std::vector<std::uint32_t>& boundaries) {
    boundaries.clear();
    UErrorCode status = U_ZERO_ERROR;
    icu::LocalUTextPointer text(
        utext_openUTF8(nullptr, utf8.data(), static_cast<int64_t>(utf8.size()), &status));
    if (U_FAILURE(status)) std::abort();
    icu::BreakIterator& iterator = characterIterator();
    iterator.setText(text.getAlias(), status);
    if (U_FAILURE(status)) std::abort();
    for (int32_t boundary = iterator.first(); boundary != icu::BreakIterator::DONE; boundary = iterator.next()) {
        boundaries.push_back(static_cast<std::uint32_t>(boundary));
    }
    // The iterator keeps a shallow clone of `text`; it is re-aimed before its next use.
    if (boundaries.empty() || boundaries.front() != 0) boundaries.insert(boundaries.begin(), 0);
}

// Whether every character of prepared text is one byte: ASCII without CR LF (which
// forms one cluster).
bool isOneBytePerCharacter(std::string_view text) {
    return unicode::isASCII(text) && text.find("\r\n") == std::string_view::npos;
}

// A prepared text split into characters: either one byte each, or by boundaries.
class Characters {
public:
    Characters(std::string_view text, const std::vector<std::uint32_t>* boundaries)
        : text_(text), boundaries_(boundaries) {}

    std::size_t size() const { return boundaries_ ? boundaries_->size() - 1 : text_.size(); }
    std::string_view operator[](std::size_t i) const {
        if (!boundaries_) return text_.substr(i, 1);
        const std::uint32_t begin = (*boundaries_)[i];
        return text_.substr(begin, (*boundaries_)[i + 1] - begin);
    }

private:
    std::string_view text_;
    const std::vector<std::uint32_t>* boundaries_;
};

}  // namespace

GlobMatcher::GlobMatcher(std::string_view pattern, bool caseSensitive) : caseSensitive_(caseSensitive) {
    std::string storage;
    pattern_ = std::string(prepare(pattern, caseSensitive, storage));

    std::vector<std::uint32_t> boundaries;
    if (isOneBytePerCharacter(pattern_)) {
        boundaries.reserve(pattern_.size() + 1);
        for (std::uint32_t i = 0; i <= pattern_.size(); ++i) boundaries.push_back(i);
    } else {
        clusterBoundaries(pattern_, boundaries);
    }
    const std::size_t count = boundaries.size() - 1;
    const auto span = [&](std::size_t i) { return Span{boundaries[i], boundaries[i + 1] - boundaries[i]}; };
    const auto character = [&](std::size_t i) { return text(span(i)); };

    std::size_t i = 0;
    while (i < count) {
        const std::string_view c = character(i);
        Token token;
        if (c == "*") {
            std::size_t end = i;
            while (end < count && character(end) == "*") ++end;
            token.kind = end - i >= 2 ? TokenKind::doubleStar : TokenKind::singleStar;
            token.slashFollows = token.kind == TokenKind::doubleStar && end < count && character(end) == "/";
            token.starSlot = starCount_++;
            tokens_.push_back(token);
            i = end;
            continue;
        }
        if (c == "?") {
            token.kind = TokenKind::anyCharacter;
            tokens_.push_back(token);
            ++i;
            continue;
        }
        if (c == "[") {
            // Parse the set; when no closing "]" follows, "[" is an ordinary character.
            std::size_t j = i + 1;
            bool negated = false;
            if (j < count && (character(j) == "!" || character(j) == "^")) {
                negated = true;
                ++j;
            }
            std::vector<BracketItem> items;
            bool first = true;
            bool terminated = false;
            while (j < count) {
                if (character(j) == "]" && !first) {
                    terminated = true;
                    break;
                }
                if (j + 2 < count && character(j + 1) == "-" && character(j + 2) != "]") {
                    items.push_back(BracketItem{span(j), span(j + 2)});
                    j += 3;
                } else {
                    items.push_back(BracketItem{span(j), span(j)});
                    j += 1;
                }
                first = false;
            }
            if (terminated) {
                token.kind = TokenKind::bracket;
                token.negated = negated;
                token.firstItem = static_cast<std::uint32_t>(items_.size());
                token.itemCount = static_cast<std::uint32_t>(items.size());
                items_.insert(items_.end(), items.begin(), items.end());
                tokens_.push_back(token);
                i = j + 1;
                continue;
            }
        }
        token.kind = TokenKind::literal;
        token.literal = span(i);
        tokens_.push_back(token);
        ++i;
    }
}

// One attempt to match a prepared text. Failures are remembered per (star, text index):
// a star tried at a text position fails the same way every time, so with the memo the
// work stays within (stars + 1) × (text length + 1) star states.
class GlobMatcher::Run {
public:
    Run(const GlobMatcher& matcher, Characters text, std::vector<std::uint8_t>& failed)
        : matcher_(matcher), text_(text), failed_(failed) {}

    bool match(std::size_t p, std::size_t t) {
        const auto& tokens = matcher_.tokens_;
        const std::size_t length = text_.size();
        while (p < tokens.size()) {
            const Token& token = tokens[p];
            if (token.kind == TokenKind::singleStar || token.kind == TokenKind::doubleStar) {
                return matchStar(p, t);
            }
            if (t == length || !matchesOne(token, text_[t])) return false;
            ++p;
            ++t;
        }
        return t == length;
    }

private:
    bool matchStar(std::size_t p, std::size_t t) {
        const Token& token = matcher_.tokens_[p];
        const std::size_t length = text_.size();
        const std::size_t key = token.starSlot * (length + 1) + t;
        if (failed_[key]) return false;
        const bool crossesFolders = token.kind == TokenKind::doubleStar;
        // "**/" may stand for no folder at all: skip the "/" and go on here.
        if (token.slashFollows && match(p + 2, t)) return true;
        // When a literal follows the star, only positions holding it are worth a try.
        const auto& tokens = matcher_.tokens_;
        const Token* literalNext =
            p + 1 < tokens.size() && tokens[p + 1].kind == TokenKind::literal ? &tokens[p + 1] : nullptr;
        for (std::size_t u = t; u <= length; ++u) {
            const bool worthTrying =
                !literalNext || (u < length && text_[u] == matcher_.text(literalNext->literal));
            if (worthTrying && match(p + 1, u)) return true;
            if (u < length && !crossesFolders && text_[u] == "/") break;
        }
        failed_[key] = 1;
        return false;
    }

    bool matchesOne(const Token& token, std::string_view c) const {
        switch (token.kind) {
            case TokenKind::literal: return matcher_.text(token.literal) == c;
            case TokenKind::anyCharacter: return c != "/";
            case TokenKind::bracket: {
                bool inSet = false;
                for (std::uint32_t i = 0; i < token.itemCount && !inSet; ++i) {
                    const BracketItem& item = matcher_.items_[token.firstItem + i];
                    // UTF-8 byte order is the order of Unicode scalar values.
                    inSet = matcher_.text(item.low) <= c && c <= matcher_.text(item.high);
                }
                return inSet != token.negated;
            }
            case TokenKind::singleStar:
            case TokenKind::doubleStar: break;
        }
        return false;
    }

    const GlobMatcher& matcher_;
    Characters text_;
    std::vector<std::uint8_t>& failed_;
};

bool GlobMatcher::matches(std::string_view path) const {
    std::string storage;
    const std::string_view prepared = prepare(path, caseSensitive_, storage);

    thread_local std::vector<std::uint32_t> boundaries;
    const bool simple = isOneBytePerCharacter(prepared);
    if (!simple) clusterBoundaries(prepared, boundaries);
    const Characters text(prepared, simple ? nullptr : &boundaries);

    // Reused per thread so that matching an ordinary path allocates nothing.
    thread_local std::vector<std::uint8_t> failed;
    failed.assign(static_cast<std::size_t>(starCount_) * (text.size() + 1), 0);
    Run run(*this, text, failed);
    return run.match(0, 0);
}

}  // namespace varnel

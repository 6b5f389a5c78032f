#include "scan/GlobMatcher.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace varnel::testing {

namespace {

TEST(GlobMatcherTest, EachPatternCharacterMatchesByItsRule) {
    struct GlobCase {
        std::string pattern;
        std::string path;
        bool expected;
        bool caseSensitive = false;
    };
    const std::string flag = "\U0001F1EB\U0001F1F7";  // a flag: two regional indicators
    const std::string xAcute = "x\u0301";             // no precomposed form exists
    const std::vector<GlobCase> cases = {
        // "*" stays within one folder, "**" crosses folders.
        {"*.cache", "x.cache", true},
        {"*.cache", "a/x.cache", false},
        {"**/*.cache", "x.cache", true},  // "**/" as zero folders
        {"**/*.cache", "a/b/x.cache", true},
        {"**/*.cache", "a/b/x.cachex", false},
        {"a/**", "a/b/c", true},
        {"a/**", "b/a/c", false},
        {"a/**", "a", false},
        {"a/*", "a/b", true},
        {"a/*", "a/b/c", false},
        {"a/**/b", "a/b", true},
        {"a/**/b", "a/x/y/b", true},
        {"a/**/b", "a/xb", false},
        {"a**b", "a/x/b", true},
        {"a*b", "a/x/b", false},
        {"***.x", "a/b.x", true},  // a run of three is a double star
        {"*", "abc", true},
        {"*", "a/b", false},
        {"*", "", true},
        {"**", "a/b/c", true},
        {"", "", true},
        {"", "a", false},
        {"abc", "abc", true},
        {"abc", "abcd", false},
        {"abc", "ab", false},
        // "?" is one character, never a "/".
        {"a?c", "abc", true},
        {"a?c", "a/c", false},
        {"?", "", false},
        {"??", "ab", true},
        {"??", "abc", false},
        {"*?", "a/", false},
        // Bracket expressions.
        {"[!a-c]x", "dx", true},
        {"[!a-c]x", "bx", false},
        {"[!a-c]x", "cx", false},
        {"[^a-c]x", "dx", true},
        {"[^a-c]x", "ax", false},
        {"[a-c]x", "bx", true},
        {"[a-c]x", "dx", false},
        {"[]]", "]", true},  // a leading "]" is literal
        {"[]]", "a", false},
        {"[!]]", "a", true},
        {"[!]]", "]", false},
        {"[]a]", "a", true},
        {"[abc", "[abc", true},  // unterminated: "[" is an ordinary character
        {"[abc", "a", false},
        {"[abc", "abc", false},
        {"[", "[", true},
        {"[]", "[]", true},
        {"[a-]", "-", true},  // "-" before "]" is no range
        {"[a-]", "a", true},
        {"[a-]", "b", false},
        {"a[/]b", "a/b", true},  // "/" has no special standing inside brackets
        {"a[!x]b", "a/b", true},
        {"[xyz]*", "zebra", true},
        {"[a-c][a-c]", "ca", true},
        {"[a-c][a-c]", "cd", false},
        // Bracket ranges compare Unicode scalar values.
        {"[\u00e0-\u00e9]", "\u00e8", true},   // à-é contains è
        {"[\u00e0-\u00e9]", "\u00ea", false},  // but not ê
        {"[\u00e0-\u00e9]", "a", false},
        {"[a-\u00e9]", "z", true},  // from ASCII into Latin-1
        {"[a-\u00e9]", "\u00e9", true},
        {"[\u03b1-\u03c9]", "\u03bb", true},  // Greek α-ω contains λ
        {"[\u03b1-\u03c9]", "l", false},
        {"[!\u03b1-\u03c9]", "\u00e8", true},
        // There is no escape character.
        {"a\\*", "a\\bc", true},
        {"a\\*", "a*", false},
        {"a\\?", "a\\x", true},
        // A grapheme cluster is one character.
        {"a?b", "a" + flag + "b", true},
        {"a??b", "a" + flag + "b", false},
        {"?", xAcute, true},
        {"??", xAcute, false},
        {"x", xAcute, false},  // a base letter alone is not the cluster
        {"x*", xAcute, false},
        {"?*", xAcute, true},
        {"[" + flag + "]", flag, true},
        {"[!" + flag + "]", flag, false},
        // Case folds unless the pattern is case-sensitive.
        {"*.TMP", "a.tmp", true},
        {"*.TMP", "A.TMP", true},
        {"*.tmp", "A.TMP", true},
        {"*.TMP", "a.tmp", false, true},
        {"*.TMP", "A.TMP", true, true},
        {"[A-Z]x", "qx", true},
        {"[A-Z]x", "qx", false, true},
        {"[A-Z]x", "QX", false, true},
        {"\u00c4rger*", "\u00e4RGER.txt", true},
        {"\u00c4rger*", "\u00e4rger.txt", false, true},
        {"\u0394*", "\u03b4elta", true},  // Greek capital delta folds to small delta
    };
    for (const auto& c : cases) {
        EXPECT_EQ(GlobMatcher(c.pattern, c.caseSensitive).matches(c.path), c.expected)
            << "pattern " << c.pattern << (c.caseSensitive ? " (case-sensitive)" : "") << " against " << c.path;
    }
}

TEST(GlobMatcherTest, ComparesInNormalisationFormC) {
    const std::string precomposed = "caf\u00e9";
    const std::string decomposed = "cafe\u0301";
    for (const bool caseSensitive : {false, true}) {
        EXPECT_TRUE(GlobMatcher(precomposed + "*", caseSensitive).matches(decomposed + ".txt"));
        EXPECT_TRUE(GlobMatcher("**/" + precomposed + "*", caseSensitive).matches("docs/" + decomposed + ".txt"));
        EXPECT_TRUE(GlobMatcher(decomposed + ".*", caseSensitive).matches(precomposed + ".txt"));
        EXPECT_TRUE(GlobMatcher("caf?.txt", caseSensitive).matches(decomposed + ".txt"));
        EXPECT_TRUE(GlobMatcher("caf[\u00e9]", caseSensitive).matches(decomposed));
    }
}

TEST(GlobMatcherTest, ManyStarsAgainstLongTextFinish) {
    const std::string as(300, 'a');
    EXPECT_FALSE(GlobMatcher("*a*a*a*a*a*b", false).matches(as));
    EXPECT_TRUE(GlobMatcher("*a*a*a*a*a*b", false).matches(as + "b"));
    EXPECT_FALSE(GlobMatcher("**a**a**a**a**a**b", false).matches(as + "/" + as));
    EXPECT_TRUE(GlobMatcher("**a**a**a**a**a**b", false).matches(as + "/" + as + "b"));
    EXPECT_FALSE(GlobMatcher("**/*a*a*a*a*/*b", false).matches(as + "/" + as + "/" + as));
}

TEST(GlobMatcherTest, OneMatcherAnswersManyPathsIndependently) {
    // The failure memo must start empty for every path.
    const GlobMatcher matcher("**/x*y", false);
    const std::vector<std::pair<std::string, bool>> paths{
        {std::string(100, 'x') + "/" + std::string(100, 'x'), false},
        {"xy", true},
        {"a/xzzy", true},
        {"a/xzz/y", false},
        {"q/x/y", false},
        {"q/xy", true},
    };
    for (int round = 0; round < 2; ++round) {
        for (const auto& [path, expected] : paths) {
            EXPECT_EQ(matcher.matches(path), expected) << path;
        }
    }
}

TEST(GlobMatcherTest, CopiesMatchLikeTheOriginalAndEqualityFollowsPreparedPattern) {
    std::optional<GlobMatcher> original(GlobMatcher("[!q]*.TXT", false));
    const GlobMatcher copy = *original;
    original.reset();
    EXPECT_TRUE(copy.matches("a.txt"));
    EXPECT_FALSE(copy.matches("q.txt"));

    EXPECT_EQ(GlobMatcher("*.TMP", false), GlobMatcher("*.tmp", false));
    EXPECT_NE(GlobMatcher("*.TMP", true), GlobMatcher("*.tmp", true));
    EXPECT_NE(GlobMatcher("*.tmp", true), GlobMatcher("*.tmp", false));
    EXPECT_EQ(GlobMatcher("caf\u00e9", true), GlobMatcher("cafe\u0301", true));
    const std::unordered_set<GlobMatcher> set{GlobMatcher("*.TMP", false), GlobMatcher("*.tmp", false)};
    EXPECT_EQ(set.size(), 1u);
}

}  // namespace

}  // namespace varnel::testing

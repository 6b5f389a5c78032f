#pragma once

#include "model/ExclusionRule.hpp"
#include "model/SyncOptions.hpp"
#include "scan/GlobMatcher.hpp"

#include <bitset>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace varnel {

// A profile's exclusion rules and hidden-file policy, compiled once per analysis into
// hash sets and glob matchers. Read-only afterwards, so one engine can answer for the
// source and the destination alike; an excluded item is neither copied nor archived.
class ExclusionEngine {
public:
    struct Match {
        std::string ruleDescription;  // the reason shown for the excluded item

        friend bool operator==(const Match&, const Match&) = default;
    };

    // Disabled rules and rules whose value is blank are dropped; nothing fails.
    ExclusionEngine(const std::vector<ExclusionRule>& rules, HiddenFilePolicy hiddenPolicy);

    // `path` is a relative path's text ("a/b/c", no leading "/"). Checks, first hit wins:
    // hidden items, exact paths, folder names (directories only), file names and then
    // extensions (files only), globs in rule order.
    std::optional<Match> match(std::string_view path, bool isDirectory) const;

private:
    // Hashes strings and string views alike, so lookups need no copy.
    struct TextHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
    };
    using TextSet = std::unordered_set<std::string, TextHash, std::equal_to<>>;
    struct CompiledGlob {
        GlobMatcher matcher;
        std::string description;
    };

    std::string describe(ExclusionRule::Kind kind, std::string_view normalisedValue) const;
    void noteFirstByte(ExclusionRule::Kind kind, std::string_view value, bool caseSensitive);
    // The value in the case-sensitive set as is, else lower-cased in the plain set.
    static std::optional<std::string_view> find(const TextSet& caseSensitive, std::string_view value,
                                                const TextSet& folded, std::string_view foldedValue);

    TextSet exactPaths_;  // lower-cased
    TextSet exactPathsCaseSensitive_;
    TextSet folderNames_;
    TextSet folderNamesCaseSensitive_;
    TextSet fileNames_;
    TextSet fileNamesCaseSensitive_;
    TextSet fileExtensions_;  // without the dot
    TextSet fileExtensionsCaseSensitive_;
    std::vector<CompiledGlob> globs_;  // in rule order
    // "<kind raw value>|<normalised value>" to the description of the rule as entered.
    std::unordered_map<std::string, std::string> descriptionsByValue_;
    HiddenFilePolicy hiddenPolicy_;
    bool needsFolding_ = false;  // some rule ignores case
    // Set while every rule is a folder or file name starting with an ASCII character: the
    // first bytes a matching name can start with.
    bool nameRulesOnly_ = true;
    std::bitset<128> nameRuleFirstBytes_;
};

}  // namespace varnel

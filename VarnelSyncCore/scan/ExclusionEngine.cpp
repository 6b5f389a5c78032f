#include "scan/ExclusionEngine.hpp"

#include "common/Localization.hpp"
#include "common/TextSearch.hpp"
#include "common/Unicode.hpp"

#include <utility>

namespace varnel {

namespace {

using Kind = ExclusionRule::Kind;

std::string descriptionKey(Kind kind, std::string_view normalisedValue) {
    std::string key(toString(kind));
    key += '|';
    key += normalisedValue;
    return key;
}

// The text after the last "." of a name; empty when the name has no dot.
std::string_view extensionOf(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

}  // namespace

ExclusionEngine::ExclusionEngine(const std::vector<ExclusionRule>& rules, HiddenFilePolicy hiddenPolicy)
    : hiddenPolicy_(hiddenPolicy) {
    for (const ExclusionRule& rule : rules) {
        if (!rule.isEnabled) continue;
        const std::string trimmed = unicode::trimWhitespace(rule.value);
        if (trimmed.empty()) continue;
        std::string value = unicode::toNFC(trimmed);
        if (!rule.caseSensitive) value = unicode::toLower(value);
        // "." + "tmp" and "tmp" name the same extension; "/a/b" and "a/b" the same path.
        // Only one character goes, so "..tmp" keeps a dot and a trailing "/" stays.
        if (rule.kind == Kind::fileExtension && value.starts_with('.')) value.erase(0, 1);
        if (rule.kind == Kind::exactRelativePath && value.starts_with('/')) value.erase(0, 1);

        const std::string description = rule.description();  // from the value as entered
        switch (rule.kind) {
            case Kind::exactRelativePath:
                (rule.caseSensitive ? exactPathsCaseSensitive_ : exactPaths_).insert(value);
                break;
            case Kind::folderName:
                (rule.caseSensitive ? folderNamesCaseSensitive_ : folderNames_).insert(value);
                break;
            case Kind::fileName:
                (rule.caseSensitive ? fileNamesCaseSensitive_ : fileNames_).insert(value);
                break;
            case Kind::fileExtension:
                (rule.caseSensitive ? fileExtensionsCaseSensitive_ : fileExtensions_).insert(value);
                break;
            case Kind::glob:
                globs_.push_back(CompiledGlob{GlobMatcher(value, rule.caseSensitive), description});
                break;
        }
        // A later rule with the same normalised value replaces the earlier description.
        descriptionsByValue_.insert_or_assign(descriptionKey(rule.kind, value), description);
        if (!rule.caseSensitive) needsFolding_ = true;
        noteFirstByte(rule.kind, value, rule.caseSensitive);
    }
}

void ExclusionEngine::noteFirstByte(Kind kind, std::string_view value, bool caseSensitive) {
    if (kind != Kind::folderName && kind != Kind::fileName) {
        nameRulesOnly_ = false;
        return;
    }
    const auto first = static_cast<unsigned char>(value.front());
    if (first >= 0x80) {
        nameRulesOnly_ = false;  // a non-ASCII start can be spelled in too many ways to filter on
        return;
    }
    nameRuleFirstBytes_.set(first);
    // A name that folds to this byte starts with it, its upper case, or a non-ASCII
    // character (KELVIN SIGN folds to "k"), which the filter always lets through.
    if (!caseSensitive && first >= 'a' && first <= 'z') nameRuleFirstBytes_.set(first - 'a' + 'A');
}

std::optional<std::string_view> ExclusionEngine::find(const TextSet& caseSensitive, std::string_view value,
                                                      const TextSet& folded, std::string_view foldedValue) {
    if (const auto hit = caseSensitive.find(value); hit != caseSensitive.end()) return *hit;
    if (const auto hit = folded.find(foldedValue); hit != folded.end()) return *hit;
    return std::nullopt;
}

std::string ExclusionEngine::describe(Kind kind, std::string_view normalisedValue) const {
    if (const auto found = descriptionsByValue_.find(descriptionKey(kind, normalisedValue));
        found != descriptionsByValue_.end()) {
        return found->second;
    }
    return exclusionRuleDescription(kind, normalisedValue);
}

std::optional<ExclusionEngine::Match> ExclusionEngine::match(std::string_view path, bool isDirectory) const {
    if (path.empty()) return std::nullopt;

    const std::string_view pathName = lastComponentOf(path);
    // Hidden items come first, so they carry this reason even when a rule matches too.
    if (hiddenPolicy_ == HiddenFilePolicy::exclude && pathName.starts_with('.')) {
        return Match{tr("Hidden files are skipped by this profile")};
    }

    if (descriptionsByValue_.empty()) return std::nullopt;  // no rules: the common case, kept cheap
    if (nameRulesOnly_) {
        // Most names cannot match any name rule, and their first byte says so. Composing
        // and folding keep an ASCII first character, so only that case is settled here.
        const auto first = pathName.empty() ? 0x80 : static_cast<unsigned char>(pathName.front());
        if (first < 0x80 && !nameRuleFirstBytes_.test(first)) return std::nullopt;
    }

    // Name rules look at the last component only; normalise and fold no more than the
    // rules look at, since this runs for every scanned item. ("/" composes with nothing
    // and has no case, so a component's forms equal the same part of the path's forms.)
    const bool wholePath = !exactPaths_.empty() || !exactPathsCaseSensitive_.empty() || !globs_.empty();
    std::string normalisedStorage;
    std::string_view normalised = wholePath ? path : pathName;
    if (!unicode::isNFC(normalised)) {
        normalisedStorage = unicode::toNFC(normalised);
        normalised = normalisedStorage;
    }
    const std::string folded = needsFolding_ ? unicode::toLower(normalised) : std::string();
    const std::string_view name = lastComponentOf(normalised);
    const std::string_view foldedName = lastComponentOf(folded);

    if (wholePath) {
        if (const auto hit = find(exactPathsCaseSensitive_, normalised, exactPaths_, folded)) {
            return Match{describe(Kind::exactRelativePath, *hit)};
        }
    }
    if (isDirectory) {
        if (const auto hit = find(folderNamesCaseSensitive_, name, folderNames_, foldedName)) {
            return Match{describe(Kind::folderName, *hit)};
        }
    } else {
        if (const auto hit = find(fileNamesCaseSensitive_, name, fileNames_, foldedName)) {
            return Match{describe(Kind::fileName, *hit)};
        }
        if (!fileExtensions_.empty() || !fileExtensionsCaseSensitive_.empty()) {
            const std::string_view extension = extensionOf(name);
            if (!extension.empty()) {
                if (const auto hit = find(fileExtensionsCaseSensitive_, extension, fileExtensions_,
                                          extensionOf(foldedName))) {
                    return Match{describe(Kind::fileExtension, *hit)};
                }
            }
        }
    }
    for (const CompiledGlob& glob : globs_) {
        if (glob.matcher.matches(glob.matcher.caseSensitive() ? normalised : std::string_view(folded))) {
            return Match{glob.description};
        }
    }
    return std::nullopt;
}

}  // namespace varnel

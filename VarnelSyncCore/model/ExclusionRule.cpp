#include "model/ExclusionRule.hpp"

#include "common/DecodingError.hpp"
#include "common/Localization.hpp"

#include <nlohmann/json.hpp>

#include <array>
#include <utility>

namespace varnel {

namespace {

constexpr std::array<std::pair<ExclusionRule::Kind, std::string_view>, 5> kKinds{{
    {ExclusionRule::Kind::exactRelativePath, "exactRelativePath"},
    {ExclusionRule::Kind::folderName, "folderName"},
    {ExclusionRule::Kind::fileName, "fileName"},
    {ExclusionRule::Kind::fileExtension, "fileExtension"},
    {ExclusionRule::Kind::glob, "glob"},
}};

}  // namespace

std::string_view toString(ExclusionRule::Kind kind) {
    for (const auto& [value, raw] : kKinds) {
        if (value == kind) return raw;
    }
    return "glob";
}

std::optional<ExclusionRule::Kind> parseExclusionRuleKind(std::string_view raw) {
    for (const auto& [value, name] : kKinds) {
        if (name == raw) return value;
    }
    return std::nullopt;
}

std::string displayName(ExclusionRule::Kind kind) {
    switch (kind) {
        case ExclusionRule::Kind::exactRelativePath: return tr("Exact relative path");
        case ExclusionRule::Kind::folderName: return tr("Folder name");
        case ExclusionRule::Kind::fileName: return tr("File name");
        case ExclusionRule::Kind::fileExtension: return tr("File extension");
        case ExclusionRule::Kind::glob: return tr("Glob pattern");
    }
    return tr("Glob pattern");
}

std::string exclusionRuleDescription(ExclusionRule::Kind kind, std::string_view value) {
    switch (kind) {
        case ExclusionRule::Kind::exactRelativePath: return trFormat("Path is {}", value);
        case ExclusionRule::Kind::folderName: return trFormat("Folder named {}", value);
        case ExclusionRule::Kind::fileName: return trFormat("File named {}", value);
        case ExclusionRule::Kind::fileExtension: return trFormat("Extension .{}", value);
        case ExclusionRule::Kind::glob: return trFormat("Matches {}", value);
    }
    return trFormat("Matches {}", value);
}

std::string ExclusionRule::description() const {
    return exclusionRuleDescription(kind, value);
}

std::vector<ExclusionRule> defaultClutterRules() {
    using Kind = ExclusionRule::Kind;
    const std::array<std::pair<Kind, const char*>, 6> defaults{{
        {Kind::fileName, ".DS_Store"},
        {Kind::folderName, ".Spotlight-V100"},
        {Kind::folderName, ".TemporaryItems"},
        {Kind::folderName, ".Trashes"},
        {Kind::folderName, ".fseventsd"},
        {Kind::folderName, ".DocumentRevisions-V100"},
    }};
    std::vector<ExclusionRule> rules;
    rules.reserve(defaults.size());
    for (const auto& [kind, value] : defaults) {
        rules.push_back(ExclusionRule{Uuid::random(), kind, value, false, true});
    }
    return rules;
}

void to_json(nlohmann::json& json, const ExclusionRule& rule) {
    json = nlohmann::json{{"id", rule.id},
                          {"kind", toString(rule.kind)},
                          {"value", rule.value},
                          {"caseSensitive", rule.caseSensitive},
                          {"isEnabled", rule.isEnabled}};
}

void from_json(const nlohmann::json& json, ExclusionRule& rule) {
    rule.id = json.at("id").get<Uuid>();
    const auto kindText = json.at("kind").get<std::string>();
    const auto kind = parseExclusionRuleKind(kindText);
    if (!kind) throw DecodingError("Unknown exclusion rule kind: " + kindText);
    rule.kind = *kind;
    rule.value = json.at("value").get<std::string>();
    rule.caseSensitive = json.at("caseSensitive").get<bool>();
    rule.isEnabled = json.at("isEnabled").get<bool>();
}

}  // namespace varnel

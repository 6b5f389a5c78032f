#pragma once

#include "common/Uuid.hpp"

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// One rule that leaves items out of a sync. Disabled rules are kept but not applied.
struct ExclusionRule {
    enum class Kind { exactRelativePath, folderName, fileName, fileExtension, glob };

    Uuid id;
    Kind kind = Kind::fileName;
    std::string value;  // as the user entered it
    bool caseSensitive = false;
    bool isEnabled = true;

    // The reason shown in rule lists and plans: "Folder named node_modules", ...
    std::string description() const;

    friend bool operator==(const ExclusionRule&, const ExclusionRule&) = default;
};

std::string_view toString(ExclusionRule::Kind kind);
std::optional<ExclusionRule::Kind> parseExclusionRuleKind(std::string_view raw);
// "Exact relative path", "Folder name", "File name", "File extension", "Glob pattern".
std::string displayName(ExclusionRule::Kind kind);
// The description template of a kind applied to a value ("Extension .tmp").
std::string exclusionRuleDescription(ExclusionRule::Kind kind, std::string_view value);

// The six rules for macOS clutter files, each with a fresh id, case-insensitive, enabled.
std::vector<ExclusionRule> defaultClutterRules();

// Keys "id", "kind", "value", "caseSensitive", "isEnabled", all required.
void to_json(nlohmann::json& json, const ExclusionRule& rule);
void from_json(const nlohmann::json& json, ExclusionRule& rule);

}  // namespace varnel

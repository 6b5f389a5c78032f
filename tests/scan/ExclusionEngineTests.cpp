#include "scan/ExclusionEngine.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace varnel::testing {

namespace {

using Kind = ExclusionRule::Kind;

ExclusionRule rule(Kind kind, std::string value, bool caseSensitive = false, bool isEnabled = true) {
    return ExclusionRule{Uuid::random(), kind, std::move(value), caseSensitive, isEnabled};
}

struct Probe {
    std::string path;
    bool isDirectory;
    std::optional<std::string> expected;  // the rule description, or none
};

void expectProbes(const ExclusionEngine& engine, const std::vector<Probe>& probes) {
    for (const auto& probe : probes) {
        const auto result = engine.match(probe.path, probe.isDirectory);
        const std::optional<std::string> description =
            result ? std::optional<std::string>(result->ruleDescription) : std::nullopt;
        EXPECT_EQ(description, probe.expected) << probe.path << (probe.isDirectory ? " (directory)" : " (file)");
    }
}

constexpr auto kHiddenIncluded = HiddenFilePolicy::include;
constexpr auto kHiddenExcluded = HiddenFilePolicy::exclude;
const std::string kHiddenReason = "Hidden files are skipped by this profile";

TEST(ExclusionEngineTest, EachRuleKindMatchesByItsOwnRules) {
    const std::string precomposed = "caf\u00e9";
    const std::string decomposed = "cafe\u0301";
    struct Case {
        const char* what;
        std::vector<ExclusionRule> rules;
        HiddenFilePolicy hidden;
        std::vector<Probe> probes;
    };
    const Case cases[] = {
        {"extensions fold case", {rule(Kind::fileExtension, ".TMP")}, kHiddenIncluded, {
            {"a/b/c.tmp", false, "Extension ..TMP"},  // the value as entered, dot and all
            {"c.TMP", false, "Extension ..TMP"},
            {"c.tmp.txt", false, std::nullopt},  // only the text after the last dot counts
            {"a/x.tmp", true, std::nullopt},     // never a directory
            {"tmp", false, std::nullopt},        // no dot, no extension
        }},
        {"case-sensitive extensions", {rule(Kind::fileExtension, ".TMP", true)}, kHiddenIncluded, {
            {"c.TMP", false, "Extension ..TMP"},
            {"c.tmp", false, std::nullopt},
            {"c.Tmp", false, std::nullopt},
        }},
        {"one leading dot is dropped", {rule(Kind::fileExtension, "log"), rule(Kind::fileExtension, "..bak")},
         kHiddenIncluded, {
            {"x.log", false, "Extension .log"},
            {"x.bak", false, std::nullopt},
        }},
        {"exact paths",
         {rule(Kind::exactRelativePath, "/Projects/Archive/old.zip"),
          rule(Kind::exactRelativePath, "Projects/Archive/new.zip/"),
          rule(Kind::exactRelativePath, "Docs/Secret", true)},
         kHiddenIncluded, {
            {"Projects/Archive/old.zip", false, "Path is /Projects/Archive/old.zip"},
            {"projects/archive/OLD.ZIP", true, "Path is /Projects/Archive/old.zip"},
            {"x/Projects/Archive/old.zip", false, std::nullopt},
            {"Projects/Archive", true, std::nullopt},
            {"Projects/Archive/new.zip", false, std::nullopt},  // a trailing "/" never matches
            {"Projects/Archive/new.zip", true, std::nullopt},
            {"Docs/Secret", true, "Path is Docs/Secret"},
            {"docs/secret", true, std::nullopt},
        }},
        {"name rules test the last component of the right kind",
         {rule(Kind::folderName, "node_modules"), rule(Kind::fileName, "Thumbs.db")}, kHiddenIncluded, {
            {"web/node_modules", true, "Folder named node_modules"},
            {"node_modules", true, "Folder named node_modules"},
            {"a/b/c/Node_Modules", true, "Folder named node_modules"},
            {"node_modules", false, std::nullopt},  // a file of that name stays
            {"node_modules/index.js", false, std::nullopt},
            {"x/thumbs.db", false, "File named Thumbs.db"},
            {"x/Thumbs.db", true, std::nullopt},  // a folder of that name stays
            {"x/Thumbs.db2", false, std::nullopt},
        }},
        {"hidden items come first", {rule(Kind::folderName, ".git"), rule(Kind::glob, "**")}, kHiddenExcluded, {
            {".git", true, kHiddenReason},
            {"src/.env", false, kHiddenReason},
            {".config/app.json", false, "Matches **"},  // only the last component counts
            {"", true, std::nullopt},                  // the root is never excluded
        }},
        {"hidden items included", {rule(Kind::folderName, ".git"), rule(Kind::glob, "**")}, kHiddenIncluded, {
            {".git", true, "Folder named .git"},
            {"src/.env", false, "Matches **"},
        }},
        {"hidden items without rules", {}, kHiddenExcluded, {
            {".hidden", false, kHiddenReason},
            {"visible", false, std::nullopt},
            {"a.b", false, std::nullopt},
        }},
        // Listed in the reverse of the checking order: the order of the list does not
        // matter across kinds, only among globs.
        {"rule kinds are tried in a fixed order",
         {rule(Kind::glob, "**/*.log"), rule(Kind::glob, "**"), rule(Kind::fileExtension, "log"),
          rule(Kind::fileName, "a.log"), rule(Kind::folderName, "logs"), rule(Kind::exactRelativePath, "d/a.log"),
          rule(Kind::exactRelativePath, "d/logs")},
         kHiddenIncluded, {
            {"d/a.log", false, "Path is d/a.log"},
            {"d/logs", true, "Path is d/logs"},
            {"e/logs", true, "Folder named logs"},
            {"e/a.log", false, "File named a.log"},
            {"e/b.log", false, "Extension .log"},
            {"e/b.log", true, "Matches **/*.log"},  // extensions never apply to folders
            {"e/b.txt", false, "Matches **"},
        }},
        {"globs keep their own case setting", {rule(Kind::glob, "*.LOG", true), rule(Kind::glob, "build/*")},
         kHiddenIncluded, {
            {"x.LOG", false, "Matches *.LOG"},
            {"x.log", false, std::nullopt},
            {"BUILD/out", false, "Matches build/*"},
            {"BUILD/out/deeper", false, std::nullopt},
        }},
        {"values are trimmed but described as entered",
         {rule(Kind::fileName, "  .DS_Store \n"), rule(Kind::glob, " *.bak\t")}, kHiddenIncluded, {
            {".DS_Store", false, "File named   .DS_Store \n"},
            {"a/.ds_store", false, "File named   .DS_Store \n"},
            {"x.bak", false, "Matches  *.bak\t"},
        }},
        {"disabled rules are ignored",
         {rule(Kind::folderName, "cache", false, false), rule(Kind::glob, "**", false, false)}, kHiddenIncluded, {
            {"cache", true, std::nullopt},
            {"a/b", false, std::nullopt},
        }},
        {"names compare in normalisation form C",
         {rule(Kind::folderName, precomposed), rule(Kind::fileName, decomposed + ".txt"),
          rule(Kind::exactRelativePath, "x/" + precomposed, true), rule(Kind::glob, "**/" + precomposed + "*.jpg")},
         kHiddenIncluded, {
            {"photos/" + decomposed, true, "Folder named " + precomposed},
            {"photos/" + precomposed + ".txt", false, "File named " + decomposed + ".txt"},
            {"x/" + decomposed, false, "Path is x/" + precomposed},
            {"a/b/" + decomposed + "-1.jpg", false, "Matches **/" + precomposed + "*.jpg"},
            {"a/b/cafe-1.jpg", false, std::nullopt},
        }},
        // Non-ASCII case folding for names; with name rules alone only the name is
        // normalised, so a decomposed name below a decomposed folder still matches.
        {"non-ASCII names fold case", {rule(Kind::folderName, "\u00c9T\u00c9")}, kHiddenIncluded, {
            {"\u00e9t\u00e9", true, "Folder named \u00c9T\u00c9"},
            {decomposed + "/e\u0301te\u0301", true, "Folder named \u00c9T\u00c9"},
            {decomposed + "/e\u0301te\u0301", false, std::nullopt},
        }},
        // With name rules alone most names are settled by their first byte; every spelling
        // that folds or composes to a rule's first character must still match.
        {"any spelling of an ASCII first character",
         {rule(Kind::folderName, "kelvin"), rule(Kind::fileName, "Exact", true)}, kHiddenIncluded, {
            {"a/KELVIN", true, "Folder named kelvin"},
            {"a/\u212aelvin", true, "Folder named kelvin"},  // KELVIN SIGN folds to "k"
            {"a/jelvin", true, std::nullopt},
            {"a/Exact", false, "File named Exact"},
            {"a/exact", false, std::nullopt},
        }},
        {"any spelling of an accented first character", {rule(Kind::fileName, "\u00e9t\u00e9")}, kHiddenIncluded, {
            {"a/e\u0301te\u0301", false, "File named \u00e9t\u00e9"},
            {"a/\u00c9T\u00c9", false, "File named \u00e9t\u00e9"},
            {"a/ete", false, std::nullopt},
        }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        expectProbes(ExclusionEngine(c.rules, c.hidden), c.probes);
    }
}

}  // namespace

}  // namespace varnel::testing

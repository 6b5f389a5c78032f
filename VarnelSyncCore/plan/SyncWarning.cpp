#include "plan/SyncWarning.hpp"

#include "common/DecodingError.hpp"
#include "common/Localization.hpp"

#include <nlohmann/json.hpp>

#include <utility>

namespace varnel {

namespace {

using Category = SyncWarning::Category;

constexpr std::array<std::pair<Category, std::string_view>, 16> kRawValues{{
    {Category::unsupportedFileType, "unsupportedFileType"},
    {Category::symlinkEscape, "symlinkEscape"},
    {Category::caseCollision, "caseCollision"},
    {Category::hardLink, "hardLink"},
    {Category::sparseFile, "sparseFile"},
    {Category::metadataNotPreserved, "metadataNotPreserved"},
    {Category::permissionDenied, "permissionDenied"},
    {Category::volumeIdentityUnverifiable, "volumeIdentityUnverifiable"},
    {Category::sourceChangedDuringRun, "sourceChangedDuringRun"},
    {Category::freeSpaceTight, "freeSpaceTight"},
    {Category::archiveOnDifferentVolume, "archiveOnDifferentVolume"},
    {Category::durabilityUncertain, "durabilityUncertain"},
    {Category::orphanedPartialFile, "orphanedPartialFile"},
    {Category::scanError, "scanError"},
    {Category::onlineOnlyFile, "onlineOnlyFile"},
    {Category::other, "other"},
}};

}  // namespace

std::string_view toString(Category category) {
    for (const auto& [value, raw] : kRawValues) {
        if (value == category) return raw;
    }
    return "other";
}

std::optional<Category> parseSyncWarningCategory(std::string_view raw) {
    for (const auto& [value, name] : kRawValues) {
        if (name == raw) return value;
    }
    return std::nullopt;
}

std::string title(Category category) {
    switch (category) {
        case Category::unsupportedFileType: return tr("Unsupported file type");
        case Category::symlinkEscape: return tr("Symbolic link outside source");
        case Category::caseCollision: return tr("Filename collision");
        case Category::hardLink: return tr("Hard link");
        case Category::sparseFile: return tr("Sparse file");
        case Category::metadataNotPreserved: return tr("Metadata not fully preserved");
        case Category::permissionDenied: return tr("Permission denied");
        case Category::volumeIdentityUnverifiable: return tr("Volume identity unverifiable");
        case Category::sourceChangedDuringRun: return tr("Source changed during run");
        case Category::freeSpaceTight: return tr("Free space is tight");
        case Category::archiveOnDifferentVolume: return tr("Archive on a different volume");
        case Category::durabilityUncertain: return tr("Durability not confirmed");
        case Category::orphanedPartialFile: return tr("Leftover partial file");
        case Category::scanError: return tr("Scan error");
        case Category::onlineOnlyFile: return tr("Online-only file");
        case Category::other: return tr("Warning");
    }
    return tr("Warning");
}

void to_json(nlohmann::json& json, Category category) {
    json = std::string(toString(category));
}

void from_json(const nlohmann::json& json, Category& category) {
    if (!json.is_string()) throw DecodingError("Unknown warning category: " + json.dump());
    const auto& raw = json.get_ref<const std::string&>();
    const auto parsed = parseSyncWarningCategory(raw);
    if (!parsed) throw DecodingError("Unknown warning category: " + raw);
    category = *parsed;
}

void to_json(nlohmann::json& json, const SyncWarning& warning) {
    json = nlohmann::json::object();
    json["id"] = warning.id;
    json["category"] = warning.category;
    if (warning.relativePath) json["relativePath"] = *warning.relativePath;
    json["message"] = warning.message;
}

void from_json(const nlohmann::json& json, SyncWarning& warning) {
    warning.id = json.at("id").get<Uuid>();
    warning.category = json.at("category").get<Category>();
    const auto path = json.find("relativePath");
    if (path == json.end() || path->is_null()) {
        warning.relativePath.reset();
    } else {
        warning.relativePath = path->get<RelativePath>();
    }
    warning.message = json.at("message").get<std::string>();
}

}  // namespace varnel

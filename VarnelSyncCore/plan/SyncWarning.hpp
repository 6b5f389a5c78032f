#pragma once

#include "common/Uuid.hpp"
#include "model/RelativePath.hpp"

#include <nlohmann/json_fwd.hpp>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace varnel {

// One non-fatal finding about one item or about the whole run. Shown in the plan's
// warning list, on the completion screen and in the run log.
struct SyncWarning {
    // Declaration order is the order the plan groups warnings in; raw values are the
    // case names.
    enum class Category {
        unsupportedFileType,
        symlinkEscape,
        caseCollision,
        hardLink,
        sparseFile,
        metadataNotPreserved,
        permissionDenied,
        volumeIdentityUnverifiable,
        sourceChangedDuringRun,
        freeSpaceTight,
        archiveOnDifferentVolume,
        durabilityUncertain,
        orphanedPartialFile,
        scanError,
        onlineOnlyFile,
        other,
    };

    Uuid id;
    Category category = Category::other;
    std::optional<RelativePath> relativePath;  // none for a warning about the run as a whole
    std::string message;                       // the complete user-facing sentence

    SyncWarning() = default;
    SyncWarning(Uuid id, Category category, std::optional<RelativePath> relativePath, std::string message)
        : id(id), category(category), relativePath(std::move(relativePath)), message(std::move(message)) {}
    // A new warning with a fresh id, as raised by a scan, a plan or a run.
    SyncWarning(Category category, std::string message, std::optional<RelativePath> relativePath = std::nullopt)
        : SyncWarning(Uuid::random(), category, std::move(relativePath), std::move(message)) {}

    friend bool operator==(const SyncWarning&, const SyncWarning&) = default;
};

// Every category, in declaration order.
inline constexpr std::array<SyncWarning::Category, 16> kAllSyncWarningCategories{
    SyncWarning::Category::unsupportedFileType,   SyncWarning::Category::symlinkEscape,
    SyncWarning::Category::caseCollision,         SyncWarning::Category::hardLink,
    SyncWarning::Category::sparseFile,            SyncWarning::Category::metadataNotPreserved,
    SyncWarning::Category::permissionDenied,      SyncWarning::Category::volumeIdentityUnverifiable,
    SyncWarning::Category::sourceChangedDuringRun, SyncWarning::Category::freeSpaceTight,
    SyncWarning::Category::archiveOnDifferentVolume, SyncWarning::Category::durabilityUncertain,
    SyncWarning::Category::orphanedPartialFile,   SyncWarning::Category::scanError,
    SyncWarning::Category::onlineOnlyFile,        SyncWarning::Category::other,
};

std::string_view toString(SyncWarning::Category category);  // raw value
std::optional<SyncWarning::Category> parseSyncWarningCategory(std::string_view raw);
// The heading a warning is listed under ("Hard link", "Warning", ...), translated.
std::string title(SyncWarning::Category category);

void to_json(nlohmann::json& json, SyncWarning::Category category);
// Throws DecodingError for an unknown raw value.
void from_json(const nlohmann::json& json, SyncWarning::Category& category);

// Keys "id", "category", "relativePath", "message"; "relativePath" is written only when
// present and read as absent when missing or null.
void to_json(nlohmann::json& json, const SyncWarning& warning);
void from_json(const nlohmann::json& json, SyncWarning& warning);

}  // namespace varnel

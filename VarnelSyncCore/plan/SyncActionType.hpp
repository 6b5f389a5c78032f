#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace varnel {

enum class SyncActionType {
    createDirectory,
    copyNewFile,
    replaceChangedFile,
    preserveUnchangedFile,
    createSymlink,
    replaceSymlink,
    archiveDestinationItem,
    excludeItem,
    skipUnsupportedItem,
    skipOnlineOnlyFile,
    warning,
    error,
};

// Every case in declaration order, for filters in plan views.
inline constexpr std::array<SyncActionType, 12> kAllSyncActionTypes = {
    SyncActionType::createDirectory,       SyncActionType::copyNewFile,
    SyncActionType::replaceChangedFile,    SyncActionType::preserveUnchangedFile,
    SyncActionType::createSymlink,         SyncActionType::replaceSymlink,
    SyncActionType::archiveDestinationItem, SyncActionType::excludeItem,
    SyncActionType::skipUnsupportedItem,   SyncActionType::skipOnlineOnlyFile,
    SyncActionType::warning,               SyncActionType::error,
};

std::string_view toString(SyncActionType type);
std::optional<SyncActionType> parseSyncActionType(std::string_view raw);
// The plan list's Action column: "Create folder", "Copy", "Update", ...
std::string label(SyncActionType type);

}  // namespace varnel

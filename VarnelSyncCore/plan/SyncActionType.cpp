#include "plan/SyncActionType.hpp"

#include "common/Localization.hpp"

namespace varnel {

namespace {

struct TypeText {
    SyncActionType type;
    std::string_view raw;
    const char* label;
};

constexpr std::array<TypeText, 12> kTypes{{
    {SyncActionType::createDirectory, "createDirectory", "Create folder"},
    {SyncActionType::copyNewFile, "copyNewFile", "Copy"},
    {SyncActionType::replaceChangedFile, "replaceChangedFile", "Update"},
    {SyncActionType::preserveUnchangedFile, "preserveUnchangedFile", "Unchanged"},
    {SyncActionType::createSymlink, "createSymlink", "Create link"},
    {SyncActionType::replaceSymlink, "replaceSymlink", "Update link"},
    {SyncActionType::archiveDestinationItem, "archiveDestinationItem", "Archive"},
    {SyncActionType::excludeItem, "excludeItem", "Excluded"},
    {SyncActionType::skipUnsupportedItem, "skipUnsupportedItem", "Skipped"},
    {SyncActionType::skipOnlineOnlyFile, "skipOnlineOnlyFile", "Not downloaded"},
    {SyncActionType::warning, "warning", "Warning"},
    {SyncActionType::error, "error", "Error"},
}};

const TypeText& textOf(SyncActionType type) {
    return kTypes[static_cast<std::size_t>(type)];
}

}  // namespace

std::string_view toString(SyncActionType type) {
    return textOf(type).raw;
}

std::optional<SyncActionType> parseSyncActionType(std::string_view raw) {
    for (const auto& entry : kTypes) {
        if (entry.raw == raw) return entry.type;
    }
    return std::nullopt;
}

std::string label(SyncActionType type) {
    return tr(textOf(type).label);
}

}  // namespace varnel

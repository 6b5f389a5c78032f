#include "scan/EntryKind.hpp"

#include "common/Localization.hpp"

#include <array>
#include <utility>

namespace varnel {

namespace {

constexpr std::array<std::pair<EntryKind, std::string_view>, 4> kEntryKinds{{
    {EntryKind::directory, "directory"},
    {EntryKind::regularFile, "regularFile"},
    {EntryKind::symbolicLink, "symbolicLink"},
    {EntryKind::unsupported, "unsupported"},
}};

constexpr std::array<std::pair<UnsupportedReason, std::string_view>, 6> kReasons{{
    {UnsupportedReason::fifo, "fifo"},
    {UnsupportedReason::socket, "socket"},
    {UnsupportedReason::blockDevice, "blockDevice"},
    {UnsupportedReason::characterDevice, "characterDevice"},
    {UnsupportedReason::whiteout, "whiteout"},
    {UnsupportedReason::unknownType, "unknownType"},
}};

}  // namespace

std::string_view toString(EntryKind kind) {
    for (const auto& [value, raw] : kEntryKinds) {
        if (value == kind) return raw;
    }
    return "unsupported";
}

std::optional<EntryKind> parseEntryKind(std::string_view raw) {
    for (const auto& [value, name] : kEntryKinds) {
        if (name == raw) return value;
    }
    return std::nullopt;
}

std::string_view toString(UnsupportedReason reason) {
    for (const auto& [value, raw] : kReasons) {
        if (value == reason) return raw;
    }
    return "unknownType";
}

std::optional<UnsupportedReason> parseUnsupportedReason(std::string_view raw) {
    for (const auto& [value, name] : kReasons) {
        if (name == raw) return value;
    }
    return std::nullopt;
}

std::string kindWord(EntryKind kind) {
    switch (kind) {
        case EntryKind::directory: return tr("folder");
        case EntryKind::regularFile: return tr("file");
        case EntryKind::symbolicLink: return tr("symbolic link");
        case EntryKind::unsupported: return tr("unsupported item");
    }
    return tr("unsupported item");
}

std::string phrase(UnsupportedReason reason) {
    switch (reason) {
        case UnsupportedReason::fifo: return tr("named pipe (FIFO)");
        case UnsupportedReason::socket: return tr("socket");
        case UnsupportedReason::blockDevice: return tr("block device");
        case UnsupportedReason::characterDevice: return tr("character device");
        case UnsupportedReason::whiteout: return tr("whiteout entry");
        case UnsupportedReason::unknownType: return tr("unrecognized file type");
    }
    return tr("unrecognized file type");
}

}  // namespace varnel

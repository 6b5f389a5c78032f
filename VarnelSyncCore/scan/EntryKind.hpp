#pragma once

#include "common/CompactOptional.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace varnel {

enum class EntryKind : std::uint8_t { directory, regularFile, symbolicLink, unsupported };

// Why an item is of kind `unsupported`.
enum class UnsupportedReason : std::uint8_t { fifo, socket, blockDevice, characterDevice, whiteout, unknownType };
using OptionalUnsupportedReason = CompactOptional<UnsupportedReason, static_cast<UnsupportedReason>(0xFF)>;

std::string_view toString(EntryKind kind);
std::optional<EntryKind> parseEntryKind(std::string_view raw);
std::string_view toString(UnsupportedReason reason);
std::optional<UnsupportedReason> parseUnsupportedReason(std::string_view raw);

// The lower-case word for a kind inside sentences: "folder", "file", "symbolic link",
// "unsupported item" (translated).
std::string kindWord(EntryKind kind);

// The words used inside sentences: "named pipe (FIFO)", "socket", ... (translated).
std::string phrase(UnsupportedReason reason);

}  // namespace varnel

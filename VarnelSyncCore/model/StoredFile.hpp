#pragma once
// Whole-file reads and crash-safe replacement of the application's own small documents
// (the profiles file, the preferences). Not for items inside endpoints: those go
// through FileSystemProviding.

#include "common/Date.hpp"

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace varnel {

// A failed read, write or move of a stored document. what() is a complete sentence
// naming the file and the system's explanation in parentheses.
class StoredFileError : public std::runtime_error {
public:
    StoredFileError(std::string message, int errnoValue)
        : std::runtime_error(std::move(message)), errnoValue_(errnoValue) {}
    int errnoValue() const { return errnoValue_; }

private:
    int errnoValue_;
};

// The whole file, or none when nothing exists at `path`. Throws StoredFileError.
std::optional<std::string> readStoredFile(const std::filesystem::path& path);

// Replaces `path` with `contents` so that a crash or power cut leaves either the old or
// the new document: the containing folders are created, the data goes to a temporary
// file beside the target, is flushed to storage, renamed over the target, and the folder
// entry is flushed. On failure the previous file is untouched and no temporary file is
// left. Throws StoredFileError.
void writeStoredFileAtomically(const std::filesystem::path& path, std::string_view contents);

// Moves an unreadable document out of the way, in the same folder, to
// "<name without extension>.corrupt-<seconds since 1970>.json", adding "-2", "-3", ...
// before ".json" rather than replacing an earlier one. Returns the new path.
// Throws StoredFileError.
std::filesystem::path moveStoredFileAside(const std::filesystem::path& path, Date now);

}  // namespace varnel

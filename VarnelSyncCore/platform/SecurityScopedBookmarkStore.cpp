#include "platform/SecurityScopedBookmarkStore.hpp"

#include "common/Localization.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/SyncError.hpp"

#include <algorithm>
#include <stdexcept>

namespace varnel {

std::optional<std::string> SecurityScopedBookmarkStore::pathOf(const BookmarkData& bookmark) {
    if (bookmark.empty() || bookmark.front() != '/') return std::nullopt;
    if (std::find(bookmark.begin(), bookmark.end(), std::uint8_t{0}) != bookmark.end()) return std::nullopt;
    return std::string(bookmark.begin(), bookmark.end());
}

BookmarkData SecurityScopedBookmarkStore::makeBookmark(const std::string& folder) {
    if (folder.empty() || folder.front() != '/') {
        throw std::invalid_argument("a folder reference needs an absolute path: " + folder);
    }
    fileSystem_.canonicalPath(folder);  // throws when the folder cannot be reached
    return BookmarkData(folder.begin(), folder.end());
}

ResolvedBookmark SecurityScopedBookmarkStore::resolve(const BookmarkData& bookmark, EndpointRole role,
                                                      AccessScope& /*scope: nothing to grant on Linux*/) {
    const auto path = pathOf(bookmark);
    if (!path) {
        throw SyncError(
            SyncError::BookmarkResolutionFailed{role, tr("The saved folder reference does not hold a folder path.")});
    }
    try {
        // Follows links as opening the folder would; a dangling link is as missing as
        // a deleted folder.
        fileSystem_.canonicalPath(*path);
    } catch (const POSIXFileError& error) {
        throw SyncError(SyncError::BookmarkResolutionFailed{role, error.message()});
    }
    return ResolvedBookmark{*path, std::nullopt, false};
}

}  // namespace varnel

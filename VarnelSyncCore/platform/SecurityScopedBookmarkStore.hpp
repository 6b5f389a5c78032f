#pragma once

#include "scan/BookmarkResolving.hpp"
#include "scan/FileSystemProviding.hpp"

namespace varnel {

// Folder references on Linux, where no sandbox grants folder access: a reference is the
// folder's absolute path (its bytes, unchanged), so it never goes stale and never needs
// renewing, and resolution grants nothing and registers nothing in the scope. What it
// does check is that the folder is still there (links followed), so a folder that was
// deleted or whose drive is gone is reported when the reference is opened.
class SecurityScopedBookmarkStore final : public BookmarkResolving {
public:
    explicit SecurityScopedBookmarkStore(FileSystemProviding& fileSystem) : fileSystem_(fileSystem) {}

    BookmarkData makeBookmark(const std::string& folder) override;
    ResolvedBookmark resolve(const BookmarkData& bookmark, EndpointRole role, AccessScope& scope) override;

    // The path a reference holds, or none when the bytes are not an absolute path
    // (empty, relative, or containing a NUL byte).
    static std::optional<std::string> pathOf(const BookmarkData& bookmark);

private:
    FileSystemProviding& fileSystem_;
};

}  // namespace varnel

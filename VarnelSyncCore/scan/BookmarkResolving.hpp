#pragma once

#include "model/SyncProfile.hpp"
#include "scan/AccessScope.hpp"
#include "transfer/EndpointRole.hpp"

#include <optional>
#include <string>

namespace varnel {

// A stored folder reference turned back into a folder.
struct ResolvedBookmark {
    std::string url;  // the folder's absolute path
    // Present when the stored reference was out of date and has been renewed; the
    // caller saves it into the profile.
    std::optional<BookmarkData> refreshedBookmark;
    // Access was granted and registered in the scope; the scope gives it back.
    bool didStartAccessing = false;

    friend bool operator==(const ResolvedBookmark&, const ResolvedBookmark&) = default;
};

// Persistent references to folders the user chose (BookmarkData in a profile).
class BookmarkResolving {
public:
    virtual ~BookmarkResolving() = default;

    // A reference to `folder`, an absolute path to an existing folder. Throws
    // POSIXFileError when the folder cannot be reached, std::invalid_argument for a
    // path that is not absolute.
    virtual BookmarkData makeBookmark(const std::string& folder) = 0;

    // Opens the folder a reference names and registers any access grant in `scope`.
    // Throws SyncError: bookmarkResolutionFailed (with the system's explanation) when
    // the folder cannot be found, bookmarkStaleAndUnrecoverable when an out-of-date
    // reference cannot be renewed, securityScopeDenied when access is refused; `role`
    // names the folder in these errors.
    virtual ResolvedBookmark resolve(const BookmarkData& bookmark, EndpointRole role, AccessScope& scope) = 0;
};

}  // namespace varnel

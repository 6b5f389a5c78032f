#pragma once

#include "scan/FolderAccessChecking.hpp"

namespace varnel {

// Access as the kernel grants it to this process: faccessat with AT_EACCESS, so the
// effective user and its capabilities decide (root passes permission bits, as its writes
// would). Writing also needs a writable mount: access() reports EROFS for a read-only
// file system, and the folder's own mount flags (statvfs ST_RDONLY) catch a read-only
// bind mount of a writable file system as well. An immutable folder is refused (EPERM).
class POSIXFolderAccess final : public FolderAccessChecking {
public:
    bool canRead(const std::string& folder) override;
    bool canWrite(const std::string& folder) override;
};

}  // namespace varnel

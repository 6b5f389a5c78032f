#pragma once

#include <string>

namespace varnel {

// Whether the running process may read or write a folder, asked before a run so that a
// folder it cannot use is refused with a clear error instead of failing item by item.
// Kept apart from FileSystemProviding because the answer depends on who is asking (the
// effective user, its groups and capabilities) and on mount flags, not on the tree.
// Never throws: a folder that cannot be examined counts as not readable or writable.
class FolderAccessChecking {
public:
    virtual ~FolderAccessChecking() = default;

    // The folder's names can be listed and its items opened.
    virtual bool canRead(const std::string& folder) = 0;
    // Items can be created, renamed and removed in the folder.
    virtual bool canWrite(const std::string& folder) = 0;
};

}  // namespace varnel

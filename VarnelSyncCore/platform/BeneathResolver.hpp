#pragma once

#include "model/RelativePath.hpp"
#include "platform/ErrnoOr.hpp"
#include "platform/UniqueFd.hpp"

namespace varnel {

// How a folder descriptor found beneath a root will be used.
enum class DirectoryAccess {
    pathOnly,  // O_PATH: enough to anchor *at() calls, needs no read permission
    read,      // O_RDONLY: for listing the folder
};

enum class ResolveStrategy {
    automatic,      // openat2 where the kernel has it, else the component walk
    componentWalk,  // always one openat(O_NOFOLLOW) per component (also for tests)
};

// Opens the folder `path` beneath the folder `rootFd` without ever following a symbolic
// link or leaving the root: openat2(RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS), or one
// openat(O_NOFOLLOW | O_DIRECTORY) per component. A link anywhere on the way, the last
// component included, fails with ELOOP or ENOTDIR. Paths longer than PATH_MAX are
// resolved in pieces, each beneath the folder the previous piece reached. The root path
// reopens the root itself. Returns the descriptor (close-on-exec) or the errno.
ErrnoOr<UniqueFd> openDirectoryBeneath(int rootFd, const RelativePath& path, DirectoryAccess access,
                                       ResolveStrategy strategy = ResolveStrategy::automatic);

}  // namespace varnel

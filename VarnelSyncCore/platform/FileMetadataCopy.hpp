#pragma once

#include "model/SyncOptions.hpp"

#include <sys/stat.h>

#include <string>
#include <vector>

namespace varnel {

// Carries the metadata of the file open as `sourceFd` (whose fstat is `source`) over to
// the file open for writing as `targetFd` (whose fstat is `target`; only its owner and
// group are read), as `policy` asks, and names what could not be carried over, in this
// order:
//
//   extended and strict only:
//   "extended attributes"  every attribute flistxattr lists, except the ACL ones
//   "ACL"                  system.posix_acl_access / system.posix_acl_default
//   always:
//   "owner"                fchown to the source's owner and group; where that is not
//                          permitted (EPERM: an unprivileged user) the group alone is
//                          tried and nothing is reported, except under strict
//   "permissions"          fchmod to the source's mode (after fchown, which clears
//                          set-id bits)
//   "timestamps"           futimens with the source's access and modification times,
//                          nanoseconds included (last, since the other steps may touch
//                          the times)
//
// Each name appears at most once; nothing is thrown.
std::vector<std::string> copyFileMetadata(int sourceFd, int targetFd, const struct stat& source,
                                          const struct stat& target, MetadataPolicy policy);

}  // namespace varnel

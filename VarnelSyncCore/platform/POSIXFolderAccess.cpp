#include "platform/POSIXFolderAccess.hpp"

#include "platform/SystemCall.hpp"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace varnel {

namespace {

bool allowed(const std::string& folder, int mode) {
    return retryOnInterrupt([&] { return ::faccessat(AT_FDCWD, folder.c_str(), mode, AT_EACCESS); }) == 0;
}

}  // namespace

bool POSIXFolderAccess::canRead(const std::string& folder) {
    // Listing needs read permission, reaching the items inside needs search permission.
    return allowed(folder, R_OK | X_OK);
}

bool POSIXFolderAccess::canWrite(const std::string& folder) {
    if (!allowed(folder, W_OK | X_OK)) return false;
    struct statvfs status {};
    if (retryOnInterrupt([&] { return ::statvfs(folder.c_str(), &status); }) != 0) return false;
    return (status.f_flag & ST_RDONLY) == 0;
}

}  // namespace varnel

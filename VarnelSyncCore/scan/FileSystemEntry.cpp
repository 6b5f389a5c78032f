#include "scan/FileSystemEntry.hpp"

#include <sys/stat.h>

namespace varnel {

EntryKind entryKindFromMode(std::uint32_t mode, OptionalUnsupportedReason& reason) {
    reason.reset();
    switch (mode & S_IFMT) {
        case S_IFDIR: return EntryKind::directory;
        case S_IFREG: return EntryKind::regularFile;
        case S_IFLNK: return EntryKind::symbolicLink;
        case S_IFIFO: reason = UnsupportedReason::fifo; break;
        case S_IFSOCK: reason = UnsupportedReason::socket; break;
        case S_IFBLK: reason = UnsupportedReason::blockDevice; break;
        case S_IFCHR: reason = UnsupportedReason::characterDevice; break;
        default: reason = UnsupportedReason::unknownType; break;  // Linux has no whiteouts in stat
    }
    return EntryKind::unsupported;
}

}  // namespace varnel

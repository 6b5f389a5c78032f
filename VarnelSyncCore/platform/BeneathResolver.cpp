#include "platform/BeneathResolver.hpp"

#include "platform/SystemCall.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

namespace {

// Set once the kernel has answered ENOSYS, so later calls go straight to the walk.
std::atomic<bool> openat2Missing{false};

// openat2 takes the path as one string shorter than PATH_MAX (terminator included).
constexpr std::size_t kLongestPiece = PATH_MAX - 1;

int openFlags(DirectoryAccess access) {
    return (access == DirectoryAccess::read ? O_RDONLY : O_PATH) | O_DIRECTORY | O_CLOEXEC;
}

// Splits "a/b/c" into pieces of whole components, each at most kLongestPiece bytes.
// A single component is at most NAME_MAX bytes, so every piece is non-empty.
std::vector<std::string> piecesOf(const RelativePath& path) {
    std::vector<std::string> pieces;
    std::string current;
    for (const std::string_view component : path.components()) {
        if (!current.empty() && current.size() + 1 + component.size() > kLongestPiece) {
            pieces.push_back(std::move(current));
            current.clear();
        }
        if (!current.empty()) current += '/';
        current += component;
    }
    if (!current.empty()) pieces.push_back(std::move(current));
    return pieces;
}

int callOpenat2(int dirFd, const std::string& path, int flags) {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags);
    // NO_SYMLINKS also refuses "magic" /proc links; BENEATH refuses absolute paths and
    // any ".." that would climb above dirFd.
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    return retryOnInterrupt(
        [&] { return static_cast<int>(::syscall(SYS_openat2, dirFd, path.c_str(), &how, sizeof how)); });
}

ErrnoOr<UniqueFd> walkComponents(int rootFd, const RelativePath& path, DirectoryAccess access) {
    const auto components = path.components();
    UniqueFd current;
    int base = rootFd;
    for (std::size_t index = 0; index < components.size(); ++index) {
        const bool last = index + 1 == components.size();
        const int flags = openFlags(last ? access : DirectoryAccess::pathOnly) | O_NOFOLLOW;
        const std::string name(components[index]);
        const int fd = retryOnInterrupt([&] { return ::openat(base, name.c_str(), flags); });
        if (fd < 0) return ErrnoOr<UniqueFd>::failure(errno);
        current.reset(fd);
        base = current.get();
    }
    return current;
}

}  // namespace

ErrnoOr<UniqueFd> openDirectoryBeneath(int rootFd, const RelativePath& path, DirectoryAccess access,
                                       ResolveStrategy strategy) {
    if (path.isRoot()) {
        const int fd = retryOnInterrupt([&] { return ::openat(rootFd, ".", openFlags(access)); });
        if (fd < 0) return ErrnoOr<UniqueFd>::failure(errno);
        return UniqueFd(fd);
    }
    if (strategy == ResolveStrategy::componentWalk || openat2Missing.load(std::memory_order_relaxed)) {
        return walkComponents(rootFd, path, access);
    }

    const auto pieces = piecesOf(path);
    UniqueFd current;
    int base = rootFd;
    for (std::size_t index = 0; index < pieces.size(); ++index) {
        const bool last = index + 1 == pieces.size();
        const int fd = callOpenat2(base, pieces[index], openFlags(last ? access : DirectoryAccess::pathOnly));
        if (fd < 0) {
            if (errno == ENOSYS) {
                openat2Missing.store(true, std::memory_order_relaxed);
                return walkComponents(rootFd, path, access);
            }
            return ErrnoOr<UniqueFd>::failure(errno);
        }
        current.reset(fd);
        base = current.get();
    }
    return current;
}

}  // namespace varnel

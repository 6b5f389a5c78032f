#include "platform/FileMetadataCopy.hpp"

#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>

namespace varnel {

namespace {

// Lists and values of extended attributes are read straight into a buffer of this size,
// which holds almost all of them (most files have none), so one call is usual; a larger
// one (at most 64 KiB on Linux) is read after asking for its size.
constexpr std::size_t kFirstTryBytes = 1024;

// One flistxattr or fgetxattr: `read(buffer, size)` returns the length or -1 with errno.
// The loop only guards against an attribute that grows between the size query and the
// read. None with errno set on failure.
template <typename Read>
std::optional<std::string> readAttributeData(const Read& read) {
    std::string data(kFirstTryBytes, '\0');
    ssize_t length = read(data.data(), data.size());
    while (length < 0 && errno == ERANGE) {
        const ssize_t size = read(nullptr, 0);
        if (size < 0) return std::nullopt;
        data.assign(static_cast<std::size_t>(size), '\0');
        length = read(data.data(), data.size());
    }
    if (length < 0) return std::nullopt;
    data.resize(static_cast<std::size_t>(length));
    return data;
}

std::optional<std::string> attributeNames(int fd, int& error) {
    auto names = readAttributeData([fd](char* buffer, std::size_t size) { return ::flistxattr(fd, buffer, size); });
    if (!names) error = errno;
    return names;
}

std::optional<std::string> attributeValue(int fd, const char* name) {
    return readAttributeData(
        [fd, name](char* buffer, std::size_t size) { return ::fgetxattr(fd, name, buffer, size); });
}

bool isACLAttribute(std::string_view name) {
    return name == "system.posix_acl_access" || name == "system.posix_acl_default";
}

class Problems {
public:
    void add(const char* name) {
        if (std::find(names_.begin(), names_.end(), name) == names_.end()) names_.emplace_back(name);
    }
    std::vector<std::string> take() { return std::move(names_); }

private:
    std::vector<std::string> names_;
};

void copyExtendedAttributes(int sourceFd, int targetFd, Problems& problems) {
    int error = 0;
    const auto names = attributeNames(sourceFd, error);
    if (!names) {
        // A source on a file system without attributes has none to lose.
        if (error != ENOTSUP) problems.add("extended attributes");
        return;
    }
    std::size_t start = 0;
    while (start < names->size()) {
        const std::size_t stop = std::min(names->find('\0', start), names->size());
        const std::string name = names->substr(start, stop - start);
        start = stop + 1;
        if (name.empty()) continue;
        const char* problem = isACLAttribute(name) ? "ACL" : "extended attributes";
        const auto value = attributeValue(sourceFd, name.c_str());
        if (!value) {
            if (errno != ENODATA) problems.add(problem);  // ENODATA: removed meanwhile
            continue;
        }
        if (::fsetxattr(targetFd, name.c_str(), value->data(), value->size(), 0) != 0) problems.add(problem);
    }
}

void copyOwner(int targetFd, const struct stat& source, const struct stat& target, MetadataPolicy policy,
               Problems& problems) {
    if (target.st_uid == source.st_uid && target.st_gid == source.st_gid) {
        return;  // already right: a user copying their own files
    }
    if (::fchown(targetFd, source.st_uid, source.st_gid) == 0) return;
    if (errno != EPERM) {
        problems.add("owner");
        return;
    }
    // Only root may give files away; keeping at least the group works for its members.
    const bool groupKept = ::fchown(targetFd, static_cast<uid_t>(-1), source.st_gid) == 0;
    if (policy == MetadataPolicy::strict && !(groupKept && target.st_uid == source.st_uid)) problems.add("owner");
}

}  // namespace

std::vector<std::string> copyFileMetadata(int sourceFd, int targetFd, const struct stat& source,
                                          const struct stat& target, MetadataPolicy policy) {
    Problems problems;
    if (policy != MetadataPolicy::basic) copyExtendedAttributes(sourceFd, targetFd, problems);
    copyOwner(targetFd, source, target, policy, problems);
    if (::fchmod(targetFd, source.st_mode & 07777) != 0) problems.add("permissions");
    const struct timespec times[2] = {source.st_atim, source.st_mtim};
    if (::futimens(targetFd, times) != 0) problems.add("timestamps");
    return problems.take();
}

}  // namespace varnel

#include "platform/FileMetadataCopy.hpp"

#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>

namespace varnel {

namespace {

// Values and lists of extended attributes are at most 64 KiB on Linux; the loops below
// only guard against an attribute that grows between the size query and the read.
std::optional<std::string> attributeNames(int fd, int& error) {
    while (true) {
        const ssize_t size = ::flistxattr(fd, nullptr, 0);
        if (size < 0) {
            error = errno;
            return std::nullopt;
        }
        std::string names(static_cast<std::size_t>(size), '\0');
        const ssize_t read = ::flistxattr(fd, names.data(), names.size());
        if (read >= 0) {
            names.resize(static_cast<std::size_t>(read));
            return names;
        }
        if (errno != ERANGE) {
            error = errno;
            return std::nullopt;
        }
    }
}

std::optional<std::string> attributeValue(int fd, const char* name) {
    while (true) {
        const ssize_t size = ::fgetxattr(fd, name, nullptr, 0);
        if (size < 0) return std::nullopt;
        std::string value(static_cast<std::size_t>(size), '\0');
        const ssize_t read = ::fgetxattr(fd, name, value.data(), value.size());
        if (read >= 0) {
            value.resize(static_cast<std::size_t>(read));
            return value;
        }
        if (errno != ERANGE) return std::nullopt;
    }
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

void copyOwner(int targetFd, const struct stat& source, MetadataPolicy policy, Problems& problems) {
    struct stat target {};
    if (::fstat(targetFd, &target) == 0 && target.st_uid == source.st_uid && target.st_gid == source.st_gid) {
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
                                          MetadataPolicy policy) {
    Problems problems;
    if (policy != MetadataPolicy::basic) copyExtendedAttributes(sourceFd, targetFd, problems);
    copyOwner(targetFd, source, policy, problems);
    if (::fchmod(targetFd, source.st_mode & 07777) != 0) problems.add("permissions");
    const struct timespec times[2] = {source.st_atim, source.st_mtim};
    if (::futimens(targetFd, times) != 0) problems.add("timestamps");
    return problems.take();
}

}  // namespace varnel

#include "support/UnflushedWrites.hpp"

#include <sys/stat.h>
#include <unistd.h>

namespace varnel::testing {

void UnflushedWrites::written(const std::string& path) {
    std::lock_guard lock(mutex_);
    files_[path] = File{};
}

void UnflushedWrites::flushed(const std::string& path) {
    struct stat status {};
    const std::int64_t length = ::lstat(path.c_str(), &status) == 0 ? status.st_size : 0;
    std::lock_guard lock(mutex_);
    const auto found = files_.find(path);
    if (found == files_.end()) return;
    found->second = File{length, false};
}

void UnflushedWrites::renamed(const std::string& from, const std::string& to) {
    std::lock_guard lock(mutex_);
    const auto found = files_.find(from);
    if (found == files_.end()) {
        files_.erase(to);  // an untracked file replaced a tracked one
        return;
    }
    const File file = found->second;
    files_.erase(found);
    files_[to] = file;
}

void UnflushedWrites::removed(const std::string& path) {
    std::lock_guard lock(mutex_);
    files_.erase(path);
}

std::vector<std::string> UnflushedWrites::simulateCrash() {
    std::lock_guard lock(mutex_);
    std::vector<std::string> cut;
    for (const auto& [path, file] : files_) {
        if (!file.dirty) continue;
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        if (status.st_size > file.flushedLength && ::truncate(path.c_str(), file.flushedLength) == 0) {
            cut.push_back(path);
        }
    }
    files_.clear();
    return cut;
}

}  // namespace varnel::testing

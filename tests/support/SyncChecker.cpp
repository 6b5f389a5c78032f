#include "support/SyncChecker.hpp"

#include "archive/ArchiveLayout.hpp"
#include "common/Sha256.hpp"
#include "transfer/PartialFileNaming.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <system_error>

namespace varnel::testing {

namespace {

namespace fs = std::filesystem;
using Kind = GenerationTree::Kind;

std::string readAll(const fs::path& path) {
    std::string bytes;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return bytes;
    char buffer[65536];
    ssize_t count = 0;
    while ((count = ::read(fd, buffer, sizeof buffer)) > 0) bytes.append(buffer, static_cast<std::size_t>(count));
    ::close(fd);
    return bytes;
}

std::optional<Kind> kindAt(const fs::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
    if (S_ISDIR(status.st_mode)) return Kind::folder;
    if (S_ISLNK(status.st_mode)) return Kind::symbolicLink;
    if (S_ISREG(status.st_mode)) return Kind::file;
    return std::nullopt;
}

std::string kindWord(std::optional<Kind> kind) {
    if (!kind) return "special item";
    switch (*kind) {
        case Kind::file: return "file";
        case Kind::folder: return "folder";
        case Kind::symbolicLink: return "link";
    }
    return "item";
}

std::string linkTarget(const fs::path& path) {
    std::error_code error;
    return fs::read_symlink(path, error).string();
}

// Whether the item at `path` on disk is exactly `item` (generation `generation`).
bool matches(const GenerationTree& tree, const std::string& relative, const fs::path& path, int generation,
             const GenerationTree::Item& item) {
    switch (item.kind) {
        case Kind::folder: return true;
        case Kind::symbolicLink: return linkTarget(path) == item.target;
        case Kind::file: return readAll(path) == tree.expectedContents(relative, generation);
    }
    return false;
}

std::string describeMismatch(const fs::path& path, const GenerationTree::Item& item) {
    if (item.kind == Kind::symbolicLink) return "a link to “" + linkTarget(path) + "”";
    std::error_code error;
    const auto size = fs::file_size(path, error);
    if (error) return "unreadable";
    if (size == 0) return "empty";
    const std::string bytes = readAll(path);
    if (bytes.find_first_not_of('\0') == std::string::npos) return "all zero bytes (" + std::to_string(size) + ")";
    return "torn or foreign (" + std::to_string(size) + " bytes)";
}

// The relative path of `path` below `root`.
std::string relativeTo(const fs::path& path, const fs::path& root) { return path.lexically_relative(root).string(); }

}  // namespace

SyncChecker::SyncChecker(const GenerationTree& tree, fs::path source, fs::path destination, fs::path outside,
                         int sourceGeneration)
    : tree_(tree),
      source_(std::move(source)),
      destination_(std::move(destination)),
      outside_(std::move(outside)),
      sourceGeneration_(sourceGeneration),
      sourceSnapshot_(snapshot(source_)),
      outsideSnapshot_(snapshot(outside_)) {}

std::map<std::string, std::string> SyncChecker::snapshot(const fs::path& root) {
    std::map<std::string, std::string> state;
    const auto describe = [](const fs::path& path) {
        struct stat s {};
        if (::lstat(path.c_str(), &s) != 0) return std::string("missing");
        std::string text = "mode " + std::to_string(s.st_mode) + " size " + std::to_string(s.st_size) + " mtime " +
                           std::to_string(s.st_mtim.tv_sec) + "." + std::to_string(s.st_mtim.tv_nsec) + " ctime " +
                           std::to_string(s.st_ctim.tv_sec) + "." + std::to_string(s.st_ctim.tv_nsec) + " inode " +
                           std::to_string(s.st_ino);
        if (S_ISREG(s.st_mode) && s.st_size <= (1 << 20)) {
            std::uint64_t hash = 1469598103934665603ULL;
            for (const unsigned char c : readAll(path)) hash = (hash ^ c) * 1099511628211ULL;
            text += " bytes " + std::to_string(hash);
        }
        if (S_ISLNK(s.st_mode)) text += " target " + linkTarget(path);
        return text;
    };
    std::error_code error;
    if (!fs::exists(fs::symlink_status(root, error))) return state;
    state["."] = describe(root);
    for (auto it = fs::recursive_directory_iterator(root, error); !error && it != fs::recursive_directory_iterator();
         it.increment(error)) {
        state[relativeTo(it->path(), root)] = describe(it->path());
    }
    return state;
}

std::vector<std::string> stagingItemsBelow(const fs::path& folder) {
    std::vector<std::string> found;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(folder, error); !error && it != fs::recursive_directory_iterator();
         it.increment(error)) {
        if (PartialFileNaming::parse(it->path().filename().string())) found.push_back(relativeTo(it->path(), folder));
    }
    return found;
}

// The differences between two snapshots, one sentence each.
static std::vector<std::string> snapshotDifferences(const std::map<std::string, std::string>& before,
                                             const std::map<std::string, std::string>& after,
                                             const std::string& what) {
    std::vector<std::string> differences;
    for (const auto& [path, facts] : before) {
        const auto found = after.find(path);
        if (found == after.end()) {
            differences.push_back(what + ": “" + path + "” disappeared");
        } else if (found->second != facts) {
            differences.push_back(what + ": “" + path + "” changed from " + facts + " to " + found->second);
        }
    }
    for (const auto& [path, facts] : after) {
        if (!before.count(path)) differences.push_back(what + ": “" + path + "” appeared (" + facts + ")");
    }
    return differences;
}

std::vector<std::string> SyncChecker::check(Moment moment) const {
    std::vector<std::string> problems;
    leftovers_.clear();
    checkDestination(moment, problems);
    checkArchive(problems);
    for (auto& difference : snapshotDifferences(outsideSnapshot_, snapshot(outside_), "outside the destination")) {
        problems.push_back(std::move(difference));
    }
    for (auto& difference : snapshotDifferences(sourceSnapshot_, snapshot(source_), "source")) {
        problems.push_back(std::move(difference));
    }
    if (moment == Moment::complete && !leftovers_.empty()) {
        problems.push_back(std::to_string(leftovers_.size()) + " staging leftover(s) after a complete run, such as “" +
                           leftovers_.front() + "”");
    }
    return problems;
}

void SyncChecker::checkDestination(Moment moment, std::vector<std::string>& problems) const {
    std::set<std::string> seen;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(destination_, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        const fs::path& path = it->path();
        const std::string relative = relativeTo(path, destination_);
        if (relative == ArchiveLayout::kArchiveFolderName) {
            it.disable_recursion_pending();
            continue;
        }
        const auto kind = kindAt(path);
        if (PartialFileNaming::parse(path.filename().string())) {
            if (kind == Kind::folder) it.disable_recursion_pending();
            if (kind != Kind::file && kind != Kind::symbolicLink) {
                problems.push_back("“" + relative + "” is named like a staging file but is a " + kindWord(kind));
            }
            leftovers_.push_back(relative);
            continue;
        }
        seen.insert(relative);
        bool known = false;
        bool exact = false;
        std::optional<GenerationTree::Item> sameKind;
        for (const int generation : {0, 1}) {
            const auto item = tree_.item(relative, generation);
            if (!item || item->kind != kind) continue;
            known = true;
            sameKind = item;
            if (matches(tree_, relative, path, generation, *item)) {
                exact = true;
                if (moment == Moment::complete && generation != sourceGeneration_ &&
                    !(tree_.item(relative, sourceGeneration_) == item)) {
                    problems.push_back("“" + relative + "” still holds generation " + std::to_string(generation) +
                                       " after a complete run");
                }
                break;
            }
        }
        if (!known) {
            problems.push_back("“" + relative + "” is a " + kindWord(kind) + " that neither generation has there");
            if (kind == Kind::folder) it.disable_recursion_pending();
        } else if (!exact) {
            problems.push_back("“" + relative + "” is neither generation 0 nor generation 1: " +
                               describeMismatch(path, *sameKind));
        }
    }
    if (error) problems.push_back("cannot walk the destination: " + error.message());
    if (moment != Moment::complete) return;
    for (const auto& [path, item] : tree_.generation(sourceGeneration_)) {
        if (!seen.count(path)) problems.push_back("“" + path + "” is missing after a complete run");
    }
}

void SyncChecker::checkArchive(std::vector<std::string>& problems) const {
    std::map<std::string, int> places;  // archived path -> in place + in archive run folders
    for (const auto& path : tree_.archivedFiles()) {
        const auto original = tree_.item(path, 0);
        const bool inPlace = kindAt(destination_ / path) == original->kind &&
                             matches(tree_, path, destination_ / path, 0, *original);
        places[path] = inPlace ? 1 : 0;
    }
    const fs::path archive = destination_ / ArchiveLayout::kArchiveFolderName;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(archive, error); !error && it != fs::recursive_directory_iterator();
         it.increment(error)) {
        const fs::path relativePath = it->path().lexically_relative(archive);
        const std::string relative = relativePath.string();
        const auto parts = std::distance(relativePath.begin(), relativePath.end());
        const auto kind = kindAt(it->path());
        if (parts <= 2) {  // the profile folder and its run folders
            if (kind != Kind::folder) problems.push_back("the archive holds a stray " + kindWord(kind) + " “" + relative + "”");
            continue;
        }
        if (kind == Kind::folder) continue;
        if (PartialFileNaming::parse(it->path().filename().string())) {
            leftovers_.push_back(std::string(ArchiveLayout::kArchiveFolderName) + "/" + relative);
            continue;
        }
        // <profile>/<run>/<original path>
        const auto part = relativePath.begin();
        const fs::path runFolder = *part / *std::next(part);
        const std::string original = relativePath.lexically_relative(runFolder).string();
        const auto found = places.find(original);
        const auto item = tree_.item(original, 0);
        if (found == places.end() || !item || item->kind != kind) {
            problems.push_back("the archive holds “" + relative + "”, which no run should have archived");
            continue;
        }
        if (!matches(tree_, original, it->path(), 0, *item)) {
            problems.push_back("the archived “" + relative + "” is not generation 0: " +
                               describeMismatch(it->path(), *item));
        }
        ++found->second;
    }
    for (const auto& [path, count] : places) {
        if (count == 0) problems.push_back("“" + path + "” is neither in place nor in the archive");
        if (count > 1) problems.push_back("“" + path + "” is in " + std::to_string(count) + " places (in place and archived)");
    }
}

namespace {

std::string describeFile(int fd, const struct stat& status, bool withTimes) {
    std::string contents;
    char buffer[65536];
    for (ssize_t count; (count = ::read(fd, buffer, sizeof buffer)) > 0;) contents.append(buffer, count);
    Sha256 hasher;
    hasher.update(contents.data(), contents.size());
    std::string text = "file:" + std::to_string(status.st_size) + ":" + toHex(hasher.finish()).substr(0, 16);
    if (withTimes) text += ":" + std::to_string(status.st_mtim.tv_sec * 1'000'000'000LL + status.st_mtim.tv_nsec);
    return text;
}

void walk(int folderFd, const std::string& prefix, bool withTimes, std::map<std::string, std::string>& state) {
    const int listFd = ::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listFd < 0) return;
    DIR* folder = ::fdopendir(listFd);
    if (folder == nullptr) {
        ::close(listFd);
        return;
    }
    std::vector<std::string> names;
    while (const dirent* item = ::readdir(folder)) {
        const std::string name = item->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(folder);
    for (const auto& name : names) {
        const std::string relative = prefix.empty() ? name : prefix + "/" + name;
        struct stat status {};
        if (::fstatat(folderFd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISDIR(status.st_mode)) {
            state[relative] = "dir";
            const int child = ::openat(folderFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child < 0) continue;
            walk(child, relative, withTimes, state);
            ::close(child);
        } else if (S_ISLNK(status.st_mode)) {
            std::string target(4096, '\0');
            const ssize_t length = ::readlinkat(folderFd, name.c_str(), target.data(), target.size());
            target.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
            state[relative] = "link:" + target;
        } else if (S_ISREG(status.st_mode)) {
            const int file = ::openat(folderFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
            if (file < 0) continue;
            state[relative] = describeFile(file, status, withTimes);
            ::close(file);
        } else {
            state[relative] = "special";
        }
    }
}

}  // namespace

std::map<std::string, std::string> treeState(const fs::path& root, bool withTimes) {
    std::map<std::string, std::string> state;
    const int fd = ::open(root.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return state;
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        state[""] = describeFile(fd, status, withTimes);
    } else {
        walk(fd, "", withTimes, state);
    }
    ::close(fd);
    return state;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += "  " + line + "\n";
    return text;
}

long environmentNumber(const char* name, long fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::strtol(value, nullptr, 10) : fallback;
}

}  // namespace varnel::testing

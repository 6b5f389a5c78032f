#include "support/FakeFileSystem.hpp"

#include "common/Unicode.hpp"
#include "platform/MountTable.hpp"
#include "scan/OperationCancelled.hpp"
#include "scan/POSIXFileError.hpp"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace varnel::testing {

namespace {

class FakeRootHandle final : public EndpointRoot::Handle {
public:
    explicit FakeRootHandle(std::shared_ptr<FakeFileSystem::Node> folder) : folder(std::move(folder)) {}
    std::shared_ptr<FakeFileSystem::Node> folder;
};

std::vector<std::string> splitPath(const std::string& path) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t slash = path.find('/', start);
        const std::size_t end = slash == std::string::npos ? path.size() : slash;
        if (end > start) parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

std::string foldedName(const std::string& name) { return unicode::toLower(unicode::toNFC(name)); }

}  // namespace

struct FakeFileSystem::Located {
    std::shared_ptr<Node> folder;  // holds the item; nullptr for the root itself
    std::string name;              // empty for the root itself
    std::shared_ptr<Node> item;    // nullptr when nothing has that name
    std::string shownPath;
};

class FakeFileSystem::OpenFakeDirectory final : public OpenDirectory {
public:
    OpenFakeDirectory(FakeFileSystem& fileSystem, EndpointRoot root, RelativePath path, std::shared_ptr<Node> folder)
        : fileSystem_(fileSystem), root_(std::move(root)), path_(std::move(path)), folder_(std::move(folder)) {}

    const RelativePath& path() const override { return path_; }

    DirectoryNames names() override {
        std::lock_guard lock(fileSystem_.mutex_);
        fileSystem_.checkFault("readdir", displayPath(root_, path_));
        DirectoryNames names;
        for (const auto& child : folder_->children) names.add(child->name);
        return names;
    }

    FileSystemEntry entry(std::string_view name, RelativePath childPath) override {
        std::lock_guard lock(fileSystem_.mutex_);
        const std::string shown = displayPath(root_, childPath);
        fileSystem_.checkFault("statx", shown);
        if (!RelativePath::isValidComponent(name)) throw POSIXFileError(EINVAL, "statx", shown);
        const auto child = fileSystem_.findChild(*folder_, std::string(name));
        if (!child) throw POSIXFileError(ENOENT, "statx", shown);
        return fileSystem_.entryOf(*child, std::move(childPath), shown);
    }

private:
    FakeFileSystem& fileSystem_;
    EndpointRoot root_;
    RelativePath path_;
    std::shared_ptr<Node> folder_;
};

FakeFileSystem::FakeFileSystem() {
    root_ = makeNode(EntryKind::directory, 0755);
    VolumeInfo disk;
    disk.identity.volumeUUID = "5A1E0000-0000-4000-8000-000000000001";
    disk.identity.volumeName = "Fake Disk";
    disk.identity.mountPointPath = "/";
    disk.identity.totalCapacity = 1'000'000'000'000;
    disk.identity.isCaseSensitive = true;
    disk.identity.supportsHighPrecisionTimestamps = true;
    disk.availableBytes = 500'000'000'000;
    disk.deviceID = 1;
    disk.fileSystemType = "fakefs";
    volumes_["/"] = disk;
}

// --- Building ------------------------------------------------------------------------

std::shared_ptr<FakeFileSystem::Node> FakeFileSystem::makeNode(EntryKind kind, std::uint16_t mode) {
    auto node = std::make_shared<Node>();
    node->kind = kind;
    node->permissions = static_cast<std::uint16_t>(mode & 07777);
    node->inode = nextInode_++;
    node->modificationTime = now_;
    node->creationTime = now_;
    node->accessTime = now_;
    if (kind == EntryKind::directory) node->hardLinkCount = 2;
    return node;
}

FakeFileSystem::Node& FakeFileSystem::add(const std::string& path, std::shared_ptr<Node> created) {
    const auto parts = splitPath(path);
    if (parts.empty()) throw std::logic_error("FakeFileSystem: cannot replace the root folder");
    std::shared_ptr<Node> folder = root_;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        auto child = findChild(*folder, parts[i]);
        if (!child) {
            child = makeNode(EntryKind::directory, 0755);
            attach(*folder, child, parts[i]);
        } else if (child->kind != EntryKind::directory) {
            throw std::logic_error("FakeFileSystem: not a folder on the way to " + path);
        }
        folder = child;
    }
    if (findChild(*folder, parts.back())) throw std::logic_error("FakeFileSystem: already exists: " + path);
    attach(*folder, created, parts.back());
    return *created;
}

FakeFileSystem::Node& FakeFileSystem::addDirectory(const std::string& path, std::uint16_t mode) {
    std::lock_guard lock(mutex_);
    int error = 0;
    if (auto existing = resolveAbsolute(path, false, error); existing && existing->kind == EntryKind::directory) {
        return *existing;
    }
    return add(path, makeNode(EntryKind::directory, mode));
}

FakeFileSystem::Node& FakeFileSystem::addFile(const std::string& path, const std::string& contents,
                                              std::uint16_t mode) {
    std::lock_guard lock(mutex_);
    auto node = makeNode(EntryKind::regularFile, mode);
    node->contents = contents;
    return add(path, std::move(node));
}

FakeFileSystem::Node& FakeFileSystem::addSymlink(const std::string& path, const std::string& target) {
    std::lock_guard lock(mutex_);
    auto node = makeNode(EntryKind::symbolicLink, 0777);
    node->symlinkTarget = target;
    return add(path, std::move(node));
}

FakeFileSystem::Node& FakeFileSystem::addSpecial(const std::string& path, UnsupportedReason reason) {
    std::lock_guard lock(mutex_);
    auto node = makeNode(EntryKind::unsupported, 0644);
    node->unsupportedReason = reason;
    return add(path, std::move(node));
}

FakeFileSystem::Node& FakeFileSystem::node(const std::string& path) {
    std::lock_guard lock(mutex_);
    int error = 0;
    auto found = resolveAbsolute(path, false, error);
    if (!found) throw std::logic_error("FakeFileSystem: nothing at " + path);
    return *found;
}

std::string FakeFileSystem::contents(const std::string& path) { return node(path).contents; }

void FakeFileSystem::setVolume(const std::string& mountPoint, VolumeInfo info) {
    if (!info.identity.mountPointPath) info.identity.mountPointPath = mountPoint;
    {
        std::lock_guard lock(mutex_);
        volumes_[mountPoint] = std::move(info);
    }
    if (mountPoint != "/") addDirectory(mountPoint);
}

// --- Faults and the record of changes -----------------------------------------------

void FakeFileSystem::failNext(const std::string& operation, int errnoValue, std::optional<std::string> path) {
    std::lock_guard lock(mutex_);
    faults_.push_back(Fault{operation, std::move(path), errnoValue, false});
}

void FakeFileSystem::failAlways(const std::string& operation, int errnoValue, std::optional<std::string> path) {
    std::lock_guard lock(mutex_);
    faults_.push_back(Fault{operation, std::move(path), errnoValue, true});
}

void FakeFileSystem::clearFaults() {
    std::lock_guard lock(mutex_);
    faults_.clear();
}

std::vector<std::string> FakeFileSystem::changes() const {
    std::lock_guard lock(mutex_);
    return changes_;
}

void FakeFileSystem::clearChanges() {
    std::lock_guard lock(mutex_);
    changes_.clear();
}

void FakeFileSystem::checkFault(const std::string& operation, const std::string& path,
                                const std::optional<std::string>& otherPath) {
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->operation != operation) continue;
        if (it->path && *it->path != path && (!otherPath || *it->path != *otherPath)) continue;
        const Fault fault = *it;
        if (!fault.persistent) faults_.erase(it);
        throw POSIXFileError(fault.errnoValue, operation, fault.path.value_or(path));
    }
}

bool FakeFileSystem::faultFires(const std::string& operation, const std::string& path) {
    try {
        checkFault(operation, path);
        return false;
    } catch (const POSIXFileError&) {
        return true;
    }
}

// --- The tree --------------------------------------------------------------------------

std::shared_ptr<FakeFileSystem::Node> FakeFileSystem::findChild(const Node& folder, const std::string& name) const {
    if (isCaseSensitive(folder)) {
        for (const auto& child : folder.children) {
            if (child->name == name) return child;
        }
        return nullptr;
    }
    const std::string wanted = foldedName(name);
    for (const auto& child : folder.children) {
        if (foldedName(child->name) == wanted) return child;
    }
    return nullptr;
}

bool FakeFileSystem::isCaseSensitive(const Node& folder) const { return volumeOf(folder).identity.isCaseSensitive; }

const VolumeInfo& FakeFileSystem::volumeOf(const Node& node) const {
    const std::string path = pathOf(node);
    const VolumeInfo* best = &volumes_.at("/");
    std::size_t bestLength = 1;
    for (const auto& [mountPoint, info] : volumes_) {
        if (mountPoint.size() > bestLength && mountPointContains(mountPoint, path)) {
            best = &info;
            bestLength = mountPoint.size();
        }
    }
    return *best;
}

std::string FakeFileSystem::pathOf(const Node& node) const {
    if (node.parent == nullptr) return "/";
    std::string path;
    for (const Node* current = &node; current->parent != nullptr; current = current->parent) {
        path.insert(0, "/" + current->name);
    }
    return path;
}

void FakeFileSystem::attach(Node& folder, std::shared_ptr<Node> child, const std::string& name) {
    child->name = name;
    child->parent = &folder;
    folder.children.push_back(std::move(child));
}

void FakeFileSystem::detach(Node& node) {
    if (node.parent == nullptr) return;
    auto& siblings = node.parent->children;
    for (auto it = siblings.begin(); it != siblings.end(); ++it) {
        if (it->get() == &node) {
            node.parent = nullptr;
            siblings.erase(it);  // may release the node: nothing touches it afterwards
            return;
        }
    }
}

FreshEntry FakeFileSystem::entryOf(const Node& node, RelativePath path, const std::string& shownPath) {
    FreshEntry entry;
    entry.relativePath = std::move(path);
    entry.kind = node.kind;
    entry.unsupportedReason = node.kind == EntryKind::unsupported
                                  ? std::optional(node.unsupportedReason.value_or(UnsupportedReason::unknownType))
                                  : std::nullopt;
    const auto contentSize = static_cast<std::int64_t>(node.contents.size());
    entry.size = node.kind == EntryKind::regularFile ? node.logicalSize.value_or(contentSize) : 0;
    entry.allocatedBlocks = node.allocatedBlocks.value_or((contentSize + 4095) / 4096 * 8);
    entry.modificationTime = node.modificationTime;
    entry.creationTime = node.creationTime;
    entry.posixPermissions = node.permissions;
    entry.ownerUID = node.ownerUID;
    entry.ownerGID = node.ownerGID;
    if (node.kind == EntryKind::symbolicLink) {
        try {
            checkFault("readlink", shownPath);
            entry.symlinkTarget = node.symlinkTarget;
        } catch (const POSIXFileError&) {
            // A failing readlink leaves the target absent, as on a real disk.
        }
    }
    entry.deviceID = node.deviceID.value_or(volumeOf(node).deviceID);
    entry.inode = node.inode;
    entry.hardLinkCount = node.hardLinkCount;
    entry.isDataless = node.isDataless;
    return entry;
}

std::shared_ptr<FakeFileSystem::Node> FakeFileSystem::resolveAbsolute(const std::string& path, bool followFinal,
                                                                      int& error) const {
    auto parts = splitPath(path);
    std::vector<std::string> pending(parts.rbegin(), parts.rend());  // next component at the back
    std::vector<std::shared_ptr<Node>> trail{root_};
    int linksFollowed = 0;
    while (!pending.empty()) {
        const std::string part = pending.back();
        pending.pop_back();
        if (part == ".") continue;
        const Node& current = *trail.back();
        if (current.kind != EntryKind::directory) {
            error = ENOTDIR;
            return nullptr;
        }
        if (part == "..") {
            if (trail.size() > 1) trail.pop_back();
            continue;
        }
        auto child = findChild(current, part);
        if (!child) {
            error = ENOENT;
            return nullptr;
        }
        if (child->kind == EntryKind::symbolicLink && (!pending.empty() || followFinal)) {
            if (++linksFollowed > 40) {
                error = ELOOP;
                return nullptr;
            }
            const auto target = splitPath(child->symlinkTarget);
            pending.insert(pending.end(), target.rbegin(), target.rend());
            if (!child->symlinkTarget.empty() && child->symlinkTarget.front() == '/') trail.resize(1);
            continue;
        }
        trail.push_back(std::move(child));
    }
    return trail.back();
}

// Inside an endpoint: every folder on the way must be a real folder, never a link.
FakeFileSystem::Located FakeFileSystem::locate(const EndpointRoot& root, const RelativePath& path,
                                               const char* operation) {
    Located located;
    located.shownPath = displayPath(root, path);
    const auto* handle = root.handleAs<FakeRootHandle>();
    if (handle == nullptr) throw POSIXFileError(EBADF, operation, located.shownPath);
    if (path.isRoot()) {
        located.item = handle->folder;
        return located;
    }
    const auto components = path.components();
    std::shared_ptr<Node> folder = handle->folder;
    for (std::size_t i = 0; i + 1 < components.size(); ++i) {
        auto child = findChild(*folder, std::string(components[i]));
        if (!child) throw POSIXFileError(ENOENT, operation, located.shownPath);
        if (child->kind == EntryKind::symbolicLink) throw POSIXFileError(ELOOP, operation, located.shownPath);
        if (child->kind != EntryKind::directory) throw POSIXFileError(ENOTDIR, operation, located.shownPath);
        folder = std::move(child);
    }
    located.name = std::string(components.back());
    located.item = findChild(*folder, located.name);
    located.folder = std::move(folder);
    return located;
}

std::shared_ptr<FakeFileSystem::Node> FakeFileSystem::folderBeneath(const EndpointRoot& root,
                                                                    const RelativePath& path, const char* operation) {
    auto located = locate(root, path, operation);
    if (!located.item) throw POSIXFileError(ENOENT, operation, located.shownPath);
    if (located.item->kind == EntryKind::symbolicLink) throw POSIXFileError(ELOOP, operation, located.shownPath);
    if (located.item->kind != EntryKind::directory) throw POSIXFileError(ENOTDIR, operation, located.shownPath);
    return located.item;
}

// --- FileSystemProviding ------------------------------------------------------------------

EndpointRoot FakeFileSystem::openRoot(const std::string& absolutePath) {
    std::lock_guard lock(mutex_);
    checkFault("open", absolutePath);
    int error = 0;
    auto folder = resolveAbsolute(absolutePath, true, error);
    if (!folder) throw POSIXFileError(error, "open", absolutePath);
    if (folder->kind != EntryKind::directory) throw POSIXFileError(ENOTDIR, "open", absolutePath);
    return EndpointRoot(absolutePath, std::make_shared<FakeRootHandle>(std::move(folder)));
}

FreshEntry FakeFileSystem::entry(const EndpointRoot& root, const RelativePath& path) {
    std::lock_guard lock(mutex_);
    checkFault("statx", displayPath(root, path));
    const auto located = locate(root, path, "statx");
    if (!located.item) throw POSIXFileError(ENOENT, "statx", located.shownPath);
    return entryOf(*located.item, path, located.shownPath);
}

bool FakeFileSystem::exists(const EndpointRoot& root, const RelativePath& path) {
    std::lock_guard lock(mutex_);
    try {
        return locate(root, path, "access").item != nullptr;
    } catch (const POSIXFileError&) {
        return false;
    }
}

std::string FakeFileSystem::readLink(const EndpointRoot& root, const RelativePath& path) {
    std::lock_guard lock(mutex_);
    checkFault("readlink", displayPath(root, path));
    const auto located = locate(root, path, "readlink");
    if (!located.item) throw POSIXFileError(ENOENT, "readlink", located.shownPath);
    if (located.item->kind != EntryKind::symbolicLink) throw POSIXFileError(EINVAL, "readlink", located.shownPath);
    return located.item->symlinkTarget;
}

std::optional<std::string> FakeFileSystem::extendedAttribute(const EndpointRoot& root, const RelativePath& path,
                                                             const std::string& name) {
    std::lock_guard lock(mutex_);
    checkFault("getxattr", displayPath(root, path));
    const auto located = locate(root, path, "getxattr");
    if (!located.item) throw POSIXFileError(ENOENT, "getxattr", located.shownPath);
    const auto found = located.item->extendedAttributes.find(name);
    if (found == located.item->extendedAttributes.end()) return std::nullopt;
    return found->second;
}

std::vector<std::string> FakeFileSystem::extendedAttributeNames(const EndpointRoot& root, const RelativePath& path) {
    std::lock_guard lock(mutex_);
    checkFault("listxattr", displayPath(root, path));
    const auto located = locate(root, path, "listxattr");
    if (!located.item) throw POSIXFileError(ENOENT, "listxattr", located.shownPath);
    std::vector<std::string> names;
    for (const auto& [name, value] : located.item->extendedAttributes) names.push_back(name);
    return names;
}

std::vector<std::string> FakeFileSystem::listDirectory(const EndpointRoot& root, const RelativePath& path) {
    std::lock_guard lock(mutex_);
    const std::string shown = displayPath(root, path);
    checkFault("opendir", shown);
    const auto folder = folderBeneath(root, path, "opendir");
    checkFault("readdir", shown);
    std::vector<std::string> names;
    for (const auto& child : folder->children) names.push_back(child->name);
    return names;
}

std::unique_ptr<OpenDirectory> FakeFileSystem::openDirectory(const EndpointRoot& root, const RelativePath& path) {
    std::lock_guard lock(mutex_);
    checkFault("opendir", displayPath(root, path));
    auto folder = folderBeneath(root, path, "opendir");
    return std::make_unique<OpenFakeDirectory>(*this, root, path, std::move(folder));
}

EndpointRoot FakeFileSystem::openFolder(const EndpointRoot& root, const RelativePath& path) {
    std::lock_guard lock(mutex_);
    if (path.isRoot()) return root;
    const std::string shown = displayPath(root, path);
    checkFault("open", shown);
    return EndpointRoot(shown, std::make_shared<FakeRootHandle>(folderBeneath(root, path, "open")));
}

void FakeFileSystem::makeDirectory(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode) {
    std::lock_guard lock(mutex_);
    checkFault("mkdir", displayPath(root, path));
    const auto located = locate(root, path, "mkdir");
    if (located.item) throw POSIXFileError(EEXIST, "mkdir", located.shownPath);
    attach(*located.folder, makeNode(EntryKind::directory, mode), located.name);
    record("mkdir " + located.shownPath);
}

void FakeFileSystem::makeSymbolicLink(const EndpointRoot& root, const RelativePath& path, const std::string& target) {
    std::lock_guard lock(mutex_);
    checkFault("symlink", displayPath(root, path));
    const auto located = locate(root, path, "symlink");
    if (located.item) throw POSIXFileError(EEXIST, "symlink", located.shownPath);
    auto link = makeNode(EntryKind::symbolicLink, 0777);
    link->symlinkTarget = target;
    attach(*located.folder, std::move(link), located.name);
    record("symlink " + located.shownPath + " -> " + target);
}

void FakeFileSystem::removeFile(const EndpointRoot& root, const RelativePath& path) {
    std::lock_guard lock(mutex_);
    checkFault("unlink", displayPath(root, path));
    const auto located = locate(root, path, "unlink");
    if (!located.item) throw POSIXFileError(ENOENT, "unlink", located.shownPath);
    if (located.item->kind == EntryKind::directory) throw POSIXFileError(EISDIR, "unlink", located.shownPath);
    detach(*located.item);
    record("unlink " + located.shownPath);
}

void FakeFileSystem::removeDirectory(const EndpointRoot& root, const RelativePath& path) {
    std::lock_guard lock(mutex_);
    checkFault("rmdir", displayPath(root, path));
    const auto located = locate(root, path, "rmdir");
    if (!located.item) throw POSIXFileError(ENOENT, "rmdir", located.shownPath);
    if (!located.folder) throw POSIXFileError(EBUSY, "rmdir", located.shownPath);  // the root itself
    if (located.item->kind != EntryKind::directory) throw POSIXFileError(ENOTDIR, "rmdir", located.shownPath);
    if (!located.item->children.empty()) throw POSIXFileError(ENOTEMPTY, "rmdir", located.shownPath);
    detach(*located.item);
    record("rmdir " + located.shownPath);
}

void FakeFileSystem::rename(const EndpointRoot& fromRoot, const RelativePath& from, const EndpointRoot& toRoot,
                            const RelativePath& to, RenameMode mode) {
    std::lock_guard lock(mutex_);
    const std::string fromShown = displayPath(fromRoot, from);
    const std::string toShown = displayPath(toRoot, to);
    checkFault("rename", fromShown, toShown);
    const auto source = locate(fromRoot, from, "rename");
    auto target = locate(toRoot, to, "rename");
    if (!source.item) throw POSIXFileError(ENOENT, "rename", fromShown);
    if (!source.folder || !target.folder) throw POSIXFileError(EBUSY, "rename", fromShown);
    if (volumeOf(*source.item).deviceID != volumeOf(*target.folder).deviceID) {
        throw POSIXFileError(EXDEV, "rename", fromShown);
    }
    if (target.item == source.item) {
        // Only the spelling changes (a case-insensitive volume): the item keeps its place.
        source.item->name = target.name;
        record("rename " + fromShown + " -> " + toShown);
        return;
    }
    const bool movingFolder = source.item->kind == EntryKind::directory;
    if (target.item) {
        if (mode == RenameMode::noReplace) throw POSIXFileError(EEXIST, "rename", toShown);
        const bool targetIsFolder = target.item->kind == EntryKind::directory;
        if (movingFolder && !targetIsFolder) throw POSIXFileError(ENOTDIR, "rename", fromShown);
        if (!movingFolder && targetIsFolder) throw POSIXFileError(EISDIR, "rename", fromShown);
        if (targetIsFolder && !target.item->children.empty()) throw POSIXFileError(ENOTEMPTY, "rename", toShown);
    }
    if (movingFolder) {
        for (const Node* above = target.folder.get(); above != nullptr; above = above->parent) {
            if (above == source.item.get()) throw POSIXFileError(EINVAL, "rename", fromShown);
        }
    }
    if (target.item) detach(*target.item);
    const std::shared_ptr<Node> moving = source.item;
    detach(*moving);
    attach(*target.folder, moving, target.name);
    record("rename " + fromShown + " -> " + toShown);
}

void FakeFileSystem::setPermissions(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode) {
    std::lock_guard lock(mutex_);
    checkFault("chmod", displayPath(root, path));
    const auto located = locate(root, path, "chmod");
    if (!located.item) throw POSIXFileError(ENOENT, "chmod", located.shownPath);
    if (located.item->kind == EntryKind::symbolicLink) throw POSIXFileError(EOPNOTSUPP, "chmod", located.shownPath);
    located.item->permissions = static_cast<std::uint16_t>(mode & 07777);
    record("chmod " + located.shownPath);
}

void FakeFileSystem::setOwner(const EndpointRoot& root, const RelativePath& path, std::uint32_t uid,
                              std::uint32_t gid) {
    std::lock_guard lock(mutex_);
    checkFault("lchown", displayPath(root, path));
    const auto located = locate(root, path, "lchown");
    if (!located.item) throw POSIXFileError(ENOENT, "lchown", located.shownPath);
    located.item->ownerUID = uid;
    located.item->ownerGID = gid;
    record("lchown " + located.shownPath);
}

void FakeFileSystem::setTimes(const EndpointRoot& root, const RelativePath& path, FileTimestamp modification,
                              std::optional<FileTimestamp> access) {
    std::lock_guard lock(mutex_);
    checkFault("utimensat", displayPath(root, path));
    const auto located = locate(root, path, "utimensat");
    if (!located.item) throw POSIXFileError(ENOENT, "utimensat", located.shownPath);
    located.item->modificationTime = modification;
    if (access) located.item->accessTime = *access;
    record("utimensat " + located.shownPath);
}

CopyOutcome FakeFileSystem::copyFile(const EndpointRoot& sourceRoot, const RelativePath& sourcePath,
                                     const EndpointRoot& stagingRoot, const RelativePath& stagingPath,
                                     const CopyOptions& options, const CopyProgress& progress,
                                     const SourceCheck& checkSource) {
    std::shared_ptr<Node> source;
    std::shared_ptr<Node> staged;
    std::string data;
    std::string stagingShown;
    bool clone = false;
    FreshEntry opened;
    const std::string sourceShown = displayPath(sourceRoot, sourcePath);
    {
        std::lock_guard lock(mutex_);
        checkFault("open", sourceShown);
        const auto located = locate(sourceRoot, sourcePath, "open");
        if (!located.item) throw POSIXFileError(ENOENT, "open", sourceShown);
        if (located.item->kind == EntryKind::symbolicLink) throw POSIXFileError(ELOOP, "open", sourceShown);
        if (located.item->kind == EntryKind::directory) throw POSIXFileError(EISDIR, "open", sourceShown);
        if (located.item->kind != EntryKind::regularFile) throw POSIXFileError(ENOTSUP, "open", sourceShown);
        source = located.item;
        opened = entryOf(*source, sourcePath, sourceShown);
    }
    // Without the lock, like progress: the check may use this file system.
    if (checkSource) checkSource(opened);
    {
        std::lock_guard lock(mutex_);
        stagingShown = displayPath(stagingRoot, stagingPath);
        checkFault("open", stagingShown);
        const auto target = locate(stagingRoot, stagingPath, "open");
        if (target.item) throw POSIXFileError(EEXIST, "open", stagingShown);
        if (!target.folder) throw POSIXFileError(EISDIR, "open", stagingShown);
        staged = makeNode(EntryKind::regularFile, 0600);
        staged->logicalSize = source->logicalSize;
        attach(*target.folder, staged, target.name);
        data = source->contents;
        clone = options.allowClone && volumeOf(*source).identity.supportsCloning;
        record((clone ? "clone " : "copy ") + sourceShown + " -> " + stagingShown);
    }

    // Progress is reported without the lock, so a callback may use this file system.
    const auto report = [&](std::int64_t increment) {
        if (progress && !progress(increment)) throw OperationCancelled();
    };
    report(0);
    const auto total = static_cast<std::int64_t>(data.size());
    if (clone) {
        std::lock_guard lock(mutex_);
        staged->contents = data;
    } else {
        const std::size_t chunk = std::max<std::size_t>(options.chunkBytes, 1);
        for (std::size_t offset = 0; offset < data.size(); offset += chunk) {
            {
                std::lock_guard lock(mutex_);
                checkFault("copy_file_range", stagingShown);
                staged->contents += data.substr(offset, chunk);
            }
            report(static_cast<std::int64_t>(std::min(chunk, data.size() - offset)));
        }
    }
    const std::int64_t length = source->logicalSize.value_or(total);
    if (clone) report(length);
    else if (length > total) report(length - total);  // the holes

    std::lock_guard lock(mutex_);
    CopyOutcome outcome;
    outcome.bytesWritten = length;
    outcome.usedClone = clone;
    if (options.metadataPolicy != MetadataPolicy::basic && !source->extendedAttributes.empty()) {
        if (faultFires("fsetxattr", stagingShown)) outcome.metadataProblems.emplace_back("extended attributes");
        else staged->extendedAttributes = source->extendedAttributes;
    }
    if (faultFires("fchown", stagingShown)) {
        outcome.metadataProblems.emplace_back("owner");
    } else {
        staged->ownerUID = source->ownerUID;
        staged->ownerGID = source->ownerGID;
    }
    if (faultFires("fchmod", stagingShown)) outcome.metadataProblems.emplace_back("permissions");
    else staged->permissions = source->permissions;
    if (faultFires("futimens", stagingShown)) {
        outcome.metadataProblems.emplace_back("timestamps");
    } else {
        staged->modificationTime = source->modificationTime;
        staged->accessTime = source->accessTime;
    }
    return outcome;
}

Sha256Digest FakeFileSystem::sha256(const EndpointRoot& root, const RelativePath& path, const HashOptions&,
                                    const StopRequested& stopRequested) {
    std::string data;
    std::string shown;
    {
        std::lock_guard lock(mutex_);
        shown = displayPath(root, path);
        checkFault("open", shown);
        const auto located = locate(root, path, "open");
        if (!located.item) throw POSIXFileError(ENOENT, "open", shown);
        if (located.item->kind == EntryKind::symbolicLink) throw POSIXFileError(ELOOP, "open", shown);
        if (located.item->kind != EntryKind::regularFile) throw POSIXFileError(EISDIR, "open", shown);
        data = located.item->contents;
    }
    constexpr std::size_t kBlock = std::size_t{1} << 20;
    Sha256 hasher;
    std::size_t offset = 0;
    do {
        if (stopRequested && stopRequested()) throw OperationCancelled();
        {
            std::lock_guard lock(mutex_);
            checkFault("read", shown);
        }
        hasher.update(std::string_view(data).substr(offset, kBlock));
        offset += kBlock;
    } while (offset < data.size());
    return hasher.finish();
}

bool FakeFileSystem::existsAtPath(const std::string& absolutePath) {
    std::lock_guard lock(mutex_);
    int error = 0;
    return resolveAbsolute(absolutePath, false, error) != nullptr;
}

FileSystemEntry FakeFileSystem::entryAtPath(const std::string& absolutePath) {
    std::lock_guard lock(mutex_);
    checkFault("statx", absolutePath);
    int error = 0;
    const auto found = resolveAbsolute(absolutePath, false, error);
    if (!found) throw POSIXFileError(error, "statx", absolutePath);
    return entryOf(*found, RelativePath(), absolutePath);
}

std::string FakeFileSystem::canonicalPath(const std::string& absolutePath) {
    std::lock_guard lock(mutex_);
    checkFault("realpath", absolutePath);
    int error = 0;
    const auto found = resolveAbsolute(absolutePath, true, error);
    if (!found) throw POSIXFileError(error, "realpath", absolutePath);
    return pathOf(*found);
}

void FakeFileSystem::makeDirectoryAtPath(const std::string& absolutePath, std::uint16_t mode) {
    std::lock_guard lock(mutex_);
    checkFault("mkdir", absolutePath);
    const auto parts = splitPath(absolutePath);
    if (parts.empty()) throw POSIXFileError(EEXIST, "mkdir", absolutePath);
    const std::size_t slash = absolutePath.find_last_of('/', absolutePath.find_last_not_of('/'));
    int error = 0;
    const auto folder = resolveAbsolute(absolutePath.substr(0, slash == std::string::npos ? 0 : slash), true, error);
    if (!folder) throw POSIXFileError(error, "mkdir", absolutePath);
    if (folder->kind != EntryKind::directory) throw POSIXFileError(ENOTDIR, "mkdir", absolutePath);
    if (findChild(*folder, parts.back())) throw POSIXFileError(EEXIST, "mkdir", absolutePath);
    attach(*folder, makeNode(EntryKind::directory, mode), parts.back());
    record("mkdir " + absolutePath);
}

VolumeInfo FakeFileSystem::volumeInfo(const std::string& absolutePath) {
    std::lock_guard lock(mutex_);
    checkFault("statfs", absolutePath);
    int error = 0;
    const auto found = resolveAbsolute(absolutePath, true, error);
    if (!found) throw POSIXFileError(error, "statfs", absolutePath);
    return volumeOf(*found);
}

}  // namespace varnel::testing

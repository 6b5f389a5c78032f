#pragma once

#include "scan/FileSystemProviding.hpp"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace varnel::testing {

// An in-memory FileSystemProviding for the tests of the scanner, planner and copy
// engine. It keeps the real one's confinement rules: inside an endpoint no symbolic
// link is ever followed, so a link in place of a folder fails with ELOOP (a file there
// with ENOTDIR); absolute paths follow links as the system would.
//
//     FakeFileSystem fs;
//     fs.addFile("/src/a/b.txt", "contents");     // folders on the way are created
//     fs.addSymlink("/src/link", "a/b.txt");
//     fs.addSpecial("/src/pipe", UnsupportedReason::fifo);
//     fs.addFile("/src/big").logicalSize = 10'000'000'000;   // adjust any field
//     fs.failNext("rename", EIO, "/dst/x");         // one call fails once
//
// Listings return names in creation order. Every change made through the interface is
// recorded in changes() ("mkdir /dst/a", "rename /dst/x -> /dst/y"), so tests can check
// what was done and in which order. Thread-safe.
class FakeFileSystem final : public FileSystemProviding {
public:
    struct Node {
        EntryKind kind = EntryKind::regularFile;
        std::optional<UnsupportedReason> unsupportedReason;
        std::string contents;
        std::optional<std::int64_t> logicalSize;      // instead of contents.size(): sparse or dataless files
        std::optional<std::int64_t> allocatedBlocks;  // instead of the 4 KiB blocks the contents fill
        FileTimestamp modificationTime;
        std::optional<FileTimestamp> creationTime;
        FileTimestamp accessTime;
        std::uint16_t permissions = 0644;
        std::uint32_t ownerUID = 0;
        std::uint32_t ownerGID = 0;
        std::string symlinkTarget;
        std::optional<std::uint64_t> deviceID;  // instead of the volume's device number
        std::uint64_t inode = 0;                // unique when created; may be set to build loops
        std::uint32_t hardLinkCount = 1;
        bool isDataless = false;
        std::map<std::string, std::string> extendedAttributes;

        // The tree itself; maintained by FakeFileSystem.
        std::string name;
        Node* parent = nullptr;
        std::vector<std::shared_ptr<Node>> children;  // folders only, in creation order
    };

    FakeFileSystem();

    // --- Building trees (absolute paths; missing folders on the way are created; throw
    // std::logic_error when something else already exists there) ------------------------
    Node& addDirectory(const std::string& path, std::uint16_t mode = 0755);  // returns an existing folder
    Node& addFile(const std::string& path, const std::string& contents = "", std::uint16_t mode = 0644);
    Node& addSymlink(const std::string& path, const std::string& target);
    Node& addSpecial(const std::string& path, UnsupportedReason reason);
    // The item at the path (a final link is not followed); throws std::logic_error if missing.
    Node& node(const std::string& path);
    std::string contents(const std::string& path);

    // The volume at `mountPoint` and below (the folder is created). Its deviceID becomes
    // the items' device number and isCaseSensitive decides how names are matched. The
    // default volume "/" is case-sensitive, device 1, with a UUID.
    void setVolume(const std::string& mountPoint, VolumeInfo info);

    // --- Copies: copyFile copies contents (and logicalSize) in blocks of
    // options.chunkBytes, calling progress after each, and records "copy <from> -> <to>";
    // where the source's volume supportsCloning and options.allowClone, it records
    // "clone <from> -> <to>" instead and reports usedClone. Metadata as the policy asks
    // (extended attributes for extended and strict). Faults: "open" (source or staging
    // path), "copy_file_range" (checked before each block), and the metadata calls
    // "fsetxattr", "fchown", "fchmod", "futimens", whose faults become metadata problems.
    // sha256 hashes the contents (not the holes of a logicalSize); faults "open", "read".

    // --- Fault injection: the named operation ("mkdir", "statx", "opendir", "readdir",
    // "readlink", "rename", ... as reported in POSIXFileError) fails with `errnoValue`,
    // on any path or only on `path` (the full display path; for rename either side).
    // A failing "readlink" makes entry() leave the link's target absent, as a real
    // readlink failure does.
    void failNext(const std::string& operation, int errnoValue, std::optional<std::string> path = std::nullopt);
    void failAlways(const std::string& operation, int errnoValue, std::optional<std::string> path = std::nullopt);
    void clearFaults();

    std::vector<std::string> changes() const;
    void clearChanges();

    // --- FileSystemProviding ----------------------------------------------------------
    EndpointRoot openRoot(const std::string& absolutePath) override;
    FreshEntry entry(const EndpointRoot& root, const RelativePath& path) override;
    bool exists(const EndpointRoot& root, const RelativePath& path) override;
    std::string readLink(const EndpointRoot& root, const RelativePath& path) override;
    std::optional<std::string> extendedAttribute(const EndpointRoot& root, const RelativePath& path,
                                                 const std::string& name) override;
    std::vector<std::string> extendedAttributeNames(const EndpointRoot& root, const RelativePath& path) override;
    std::vector<std::string> listDirectory(const EndpointRoot& root, const RelativePath& path) override;
    std::unique_ptr<OpenDirectory> openDirectory(const EndpointRoot& root, const RelativePath& path) override;
    EndpointRoot openFolder(const EndpointRoot& root, const RelativePath& path) override;
    void makeDirectory(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode = 0777) override;
    void makeSymbolicLink(const EndpointRoot& root, const RelativePath& path, const std::string& target) override;
    void removeFile(const EndpointRoot& root, const RelativePath& path) override;
    void removeDirectory(const EndpointRoot& root, const RelativePath& path) override;
    void rename(const EndpointRoot& fromRoot, const RelativePath& from, const EndpointRoot& toRoot,
                const RelativePath& to, RenameMode mode) override;
    void setPermissions(const EndpointRoot& root, const RelativePath& path, std::uint16_t mode) override;
    void setOwner(const EndpointRoot& root, const RelativePath& path, std::uint32_t uid, std::uint32_t gid) override;
    void setTimes(const EndpointRoot& root, const RelativePath& path, FileTimestamp modification,
                  std::optional<FileTimestamp> access = std::nullopt) override;
    CopyOutcome copyFile(const EndpointRoot& sourceRoot, const RelativePath& sourcePath,
                         const EndpointRoot& stagingRoot, const RelativePath& stagingPath, const CopyOptions& options,
                         const CopyProgress& progress, const SourceCheck& checkSource = {}) override;
    Sha256Digest sha256(const EndpointRoot& root, const RelativePath& path, const HashOptions& options,
                        const StopRequested& stopRequested) override;
    bool existsAtPath(const std::string& absolutePath) override;
    FileSystemEntry entryAtPath(const std::string& absolutePath) override;
    std::string canonicalPath(const std::string& absolutePath) override;
    void makeDirectoryAtPath(const std::string& absolutePath, std::uint16_t mode) override;
    VolumeInfo volumeInfo(const std::string& absolutePath) override;

private:
    class OpenFakeDirectory;
    struct Fault {
        std::string operation;
        std::optional<std::string> path;
        int errnoValue;
        bool persistent;
    };
    struct Located;  // a folder inside an endpoint and the name of an item in it

    Node& add(const std::string& path, std::shared_ptr<Node> created);
    std::shared_ptr<Node> makeNode(EntryKind kind, std::uint16_t mode);
    std::shared_ptr<Node> findChild(const Node& folder, const std::string& name) const;
    bool isCaseSensitive(const Node& folder) const;
    const VolumeInfo& volumeOf(const Node& node) const;
    std::string pathOf(const Node& node) const;
    FreshEntry entryOf(const Node& node, RelativePath path, const std::string& shownPath);
    void attach(Node& folder, std::shared_ptr<Node> child, const std::string& name);
    void detach(Node& node);

    // Follows links like the system does for absolute paths; returns nullptr and sets
    // `error` on failure.
    std::shared_ptr<Node> resolveAbsolute(const std::string& path, bool followFinal, int& error) const;
    Located locate(const EndpointRoot& root, const RelativePath& path, const char* operation);
    std::shared_ptr<Node> folderBeneath(const EndpointRoot& root, const RelativePath& path, const char* operation);
    void checkFault(const std::string& operation, const std::string& path,
                    const std::optional<std::string>& otherPath = std::nullopt);
    // Whether a fault is set for the operation on the path (consuming a one-time one).
    bool faultFires(const std::string& operation, const std::string& path);
    void record(std::string change) { changes_.push_back(std::move(change)); }

    mutable std::mutex mutex_;
    std::shared_ptr<Node> root_;
    std::map<std::string, VolumeInfo> volumes_;  // by mount point
    std::vector<Fault> faults_;
    std::vector<std::string> changes_;
    FileTimestamp now_{1'700'000'000, 0};
    std::uint64_t nextInode_ = 2;
};

}  // namespace varnel::testing

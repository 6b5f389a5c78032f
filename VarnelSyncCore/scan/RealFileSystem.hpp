#pragma once

#include "scan/FileSystemProviding.hpp"

#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace varnel {

// FileSystemProviding on the machine's own disks. Each root is opened once (an O_PATH
// descriptor held by the root); every item inside is reached by opening its folder
// beneath that descriptor without following links (see BeneathResolver) and acting on
// the final name with the *at() calls, so a folder swapped for a link can never lead a
// call outside the endpoint. Its only state is which pairs of file systems refused to
// clone (see copyFile); safe to share between threads.
class RealFileSystem final : public FileSystemProviding {
public:
    // Whether copies may share data blocks with their source (FICLONE) where the file
    // system can. Read by the copy engine.
    bool allowCloning = true;

    RealFileSystem() = default;
    explicit RealFileSystem(bool allowCloning) : allowCloning(allowCloning) {}

    EndpointRoot openRoot(const std::string& absolutePath) override;

    FreshEntry entry(const EndpointRoot& root, const RelativePath& path) override;
    bool exists(const EndpointRoot& root, const RelativePath& path) override;
    std::string readLink(const EndpointRoot& root, const RelativePath& path) override;
    std::optional<std::string> extendedAttribute(const EndpointRoot& root, const RelativePath& path,
                                                 const std::string& name) override;
    std::vector<std::string> extendedAttributeNames(const EndpointRoot& root, const RelativePath& path) override;

    std::vector<std::string> listDirectory(const EndpointRoot& root, const RelativePath& path) override;
    std::unique_ptr<OpenDirectory> openDirectory(const EndpointRoot& root, const RelativePath& path) override;
    // An O_PATH descriptor of the folder, opened like every folder beneath the root.
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

    // Data by FICLONE (when options.allowClone and allowCloning), else copy_file_range
    // over the data regions with holes kept, else pread/pwrite; metadata as
    // platform/FileMetadataCopy.hpp describes. The source is opened O_NOFOLLOW and
    // O_NOATIME (without it where the caller does not own the file), the staging file
    // O_CREAT | O_EXCL | O_NOFOLLOW with mode 0600. Once FICLONE has refused a pair of
    // file systems as a whole (no cloning there, or two file systems), copies between
    // them no longer try it for as long as this object lives.
    CopyOutcome copyFile(const EndpointRoot& sourceRoot, const RelativePath& sourcePath,
                         const EndpointRoot& stagingRoot, const RelativePath& stagingPath, const CopyOptions& options,
                         const CopyProgress& progress, const SourceCheck& checkSource = {}) override;
    // With options.readFromDevice: fdatasync, then posix_fadvise(POSIX_FADV_DONTNEED),
    // then the reads, so they reach the device (Linux has no per-descriptor "no cache").
    Sha256Digest sha256(const EndpointRoot& root, const RelativePath& path, const HashOptions& options,
                        const StopRequested& stopRequested) override;

    bool existsAtPath(const std::string& absolutePath) override;
    FileSystemEntry entryAtPath(const std::string& absolutePath) override;
    std::string canonicalPath(const std::string& absolutePath) override;
    void makeDirectoryAtPath(const std::string& absolutePath, std::uint16_t mode) override;
    VolumeInfo volumeInfo(const std::string& absolutePath) override;
    // Opens the root folder for reading, then stats it, asks for its volume's figures,
    // reads its first names and flushes it. A healthy volume answers all of these; each
    // kind of vanished volume refuses at least one (a shut-down xfs the open or stat,
    // a shut-down ext4 the flush, a FUSE file system without its process the statfs).
    std::optional<int> volumeFailure(const EndpointRoot& root) override;

    // The descriptor of a root this class opened, or -1 for a root from elsewhere. For
    // the copy engine, which opens files beneath it.
    static int rootDescriptor(const EndpointRoot& root);

private:
    // Pairs of devices (source, target) between which FICLONE cannot work.
    class CloneRefusals {
    public:
        bool contains(std::uint64_t source, std::uint64_t target) const;
        void add(std::uint64_t source, std::uint64_t target);

    private:
        mutable std::mutex mutex_;
        std::vector<std::pair<std::uint64_t, std::uint64_t>> pairs_;
    };
    std::shared_ptr<CloneRefusals> cloneRefusals_ = std::make_shared<CloneRefusals>();
};

}  // namespace varnel

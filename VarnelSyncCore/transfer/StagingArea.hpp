#pragma once

#include "scan/FileSystemProviding.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// A folder of Varnel Sync's own, outside the destination, where files are staged when
// the destination lies inside a cloud-synchronised folder, so the cloud client never
// sees unfinished copies. Each run stages into one run folder directly below the root,
// named by the run tag (PartialFileNaming::runTag).
//
// The file system is shared (not borrowed) so the area stays an ordinary copyable value
// that can be stored in a plan or coordinator without lifetime rules. A caller that only
// has a reference can pass a non-owning shared_ptr (the aliasing constructor with an
// empty owner).
//
// Creating folders goes by absolute path (nothing is open yet); sweeping goes through an
// open root and RelativePaths, so a link planted in the staging root can never lead a
// removal out of it.
struct StagingArea {
    // Reads one environment variable; none when it is unset.
    using EnvironmentLookup = std::function<std::optional<std::string>(const std::string& name)>;

    inline static const std::string folderName = "VarnelSync-Staging";

    std::string root;  // absolute path of the staging root
    std::shared_ptr<FileSystemProviding> fileSystem;

    // getenv(3).
    static std::optional<std::string> processEnvironment(const std::string& name);
    // The per-user temporary folder ($TMPDIR when it is an absolute path, else /tmp)
    // plus "VarnelSync-Staging".
    static std::string defaultRoot(const EnvironmentLookup& environment = processEnvironment);

    // Creates every missing ancestor of the root from the top-most down, then root/name,
    // all with permissions 0700, and returns root/name. `name` must be one path
    // component. An existing root/name is an error too (EEXIST), so a folder or link
    // planted there beforehand is never adopted. Throws the POSIXFileError of the first
    // folder that could not be created.
    std::string prepareRunFolder(std::string_view name) const;

    // Whether the root, or its nearest existing ancestor, lies on the device `deviceID`
    // (normally the destination root's), so a rename from the run folder into the
    // destination stays on one device. Any failure answers false.
    bool isOnSameVolume(std::uint64_t deviceID) const;

    // Removes the staging files and links of the run folder `runFolderName` (one
    // component below the root), then the folder when that leaves it empty. Only names
    // that parse as staging names and are (by lstat) regular files or symbolic links are
    // removed; folders, special files and unreadable entries stay. Returns how many
    // items were removed: 0 for a missing folder. Every failure is ignored.
    std::size_t sweep(std::string_view runFolderName) const;
    // Sweeps every folder below the root except `keptRunFolderName` (all when none).
    std::size_t sweepAllExcept(const std::optional<std::string>& keptRunFolderName) const;

    // The root lexically normalised, without a trailing "/".
    std::string standardizedRoot() const;
};

}  // namespace varnel

#include "transfer/StagingArea.hpp"

#include "scan/POSIXFileError.hpp"
#include "transfer/PartialFileNaming.hpp"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <vector>

namespace varnel {

namespace {

constexpr std::uint16_t privateFolderMode = 0700;

std::string standardized(const std::string& path) {
    std::string result = std::filesystem::path(path).lexically_normal().string();
    while (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

std::string parentOf(const std::string& path) {
    return std::filesystem::path(path).parent_path().string();
}

std::string joined(const std::string& folder, std::string_view name) {
    return folder == "/" ? "/" + std::string(name) : folder + "/" + std::string(name);
}

// The path itself or its nearest existing ancestor; none when nothing up to the top
// exists.
std::optional<std::string> nearestExisting(FileSystemProviding& fileSystem, std::string path) {
    while (!fileSystem.existsAtPath(path)) {
        std::string parent = parentOf(path);
        if (parent == path || parent.empty()) return std::nullopt;
        path = std::move(parent);
    }
    return path;
}

// Opens the staging root for sweeping, or none when it is missing, is not a real folder
// (a link in its place is not followed) or was swapped between the look and the open.
std::optional<EndpointRoot> openForSweeping(FileSystemProviding& fileSystem, const std::string& path) {
    try {
        const FileSystemEntry seen = fileSystem.entryAtPath(path);
        if (!seen.isDirectory()) return std::nullopt;
        EndpointRoot opened = fileSystem.openRoot(path);
        const FileSystemEntry openedEntry = fileSystem.entry(opened, RelativePath());
        if (openedEntry.deviceID != seen.deviceID || openedEntry.inode != seen.inode) return std::nullopt;
        return opened;
    } catch (const POSIXFileError&) {
        return std::nullopt;
    }
}

bool removeIfStagingItem(FileSystemProviding& fileSystem, const EndpointRoot& root, const RelativePath& folder,
                         const std::string& name) {
    if (!PartialFileNaming::isStagingName(name)) return false;
    const auto path = folder.appending(name);
    if (!path) return false;
    try {
        const FileSystemEntry entry = fileSystem.entry(root, *path);
        if (!entry.isRegularFile() && !entry.isSymbolicLink()) return false;
        fileSystem.removeFile(root, *path);
        return true;
    } catch (const POSIXFileError&) {
        return false;
    }
}

// Sweeps one folder below an open staging root. Everything is addressed below `root`
// without following links, so a link in place of `folder` fails to list and is kept.
std::size_t sweepFolder(FileSystemProviding& fileSystem, const EndpointRoot& root, const RelativePath& folder) {
    if (!fileSystem.exists(root, folder)) return 0;
    std::vector<std::string> names;
    try {
        names = fileSystem.listDirectory(root, folder);
    } catch (const POSIXFileError&) {
        // Unlistable: nothing is removed from it; the rmdir below fails unless it is empty.
    }
    std::size_t removed = 0;
    for (const auto& name : names) {
        if (removeIfStagingItem(fileSystem, root, folder, name)) ++removed;
    }
    try {
        fileSystem.removeDirectory(root, folder);
    } catch (const POSIXFileError&) {
        // Not empty (ordinary files, folders) or not a folder at all: it stays.
    }
    return removed;
}

}  // namespace

std::optional<std::string> StagingArea::processEnvironment(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

std::string StagingArea::defaultRoot(const EnvironmentLookup& environment) {
    std::string temporary = environment("TMPDIR").value_or("");
    // A relative TMPDIR would make the root depend on the working folder.
    if (temporary.empty() || temporary.front() != '/') temporary = "/tmp";
    return joined(standardized(temporary), folderName);
}

std::string StagingArea::standardizedRoot() const { return standardized(root); }

std::string StagingArea::prepareRunFolder(std::string_view name) const {
    const std::string rootPath = standardizedRoot();
    const std::string runFolder = joined(rootPath, name);
    if (!RelativePath::isValidComponent(name)) {
        throw POSIXFileError(EINVAL, "mkdir", runFolder);
    }

    std::vector<std::string> missing;  // the root first, then each missing ancestor upwards
    for (std::string path = rootPath; !fileSystem->existsAtPath(path);) {
        missing.push_back(path);
        std::string parent = parentOf(path);
        if (parent == path || parent.empty()) break;
        path = std::move(parent);
    }
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder) {
        fileSystem->makeDirectoryAtPath(*folder, privateFolderMode);
    }
    fileSystem->makeDirectoryAtPath(runFolder, privateFolderMode);
    return runFolder;
}

bool StagingArea::isOnSameVolume(std::uint64_t deviceID) const {
    const auto existing = nearestExisting(*fileSystem, standardizedRoot());
    if (!existing) return false;
    try {
        return fileSystem->entryAtPath(fileSystem->canonicalPath(*existing)).deviceID == deviceID;
    } catch (const POSIXFileError&) {
        return false;
    }
}

std::size_t StagingArea::sweep(std::string_view runFolderName) const {
    const auto folder = RelativePath().appending(runFolderName);
    if (!folder) return 0;
    const auto opened = openForSweeping(*fileSystem, standardizedRoot());
    if (!opened) return 0;
    return sweepFolder(*fileSystem, *opened, *folder);
}

std::size_t StagingArea::sweepAllExcept(const std::optional<std::string>& keptRunFolderName) const {
    const auto opened = openForSweeping(*fileSystem, standardizedRoot());
    if (!opened) return 0;
    std::vector<std::string> names;
    try {
        names = fileSystem->listDirectory(*opened, RelativePath());
    } catch (const POSIXFileError&) {
        return 0;
    }
    std::size_t removed = 0;
    for (const auto& name : names) {
        if (keptRunFolderName && name == *keptRunFolderName) continue;
        if (const auto folder = RelativePath().appending(name)) {
            removed += sweepFolder(*fileSystem, *opened, *folder);
        }
    }
    return removed;
}

}  // namespace varnel

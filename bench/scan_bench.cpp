// Scans a generated tree and reports items per second and memory per scanned item,
// against a plain single-threaded openat/fstatat walk of the same tree as the lower bound.
//
//   build/bench/scan_bench [--items N] [--dir PATH] [--keep]
//
// The tree has about 100 items per folder at depths 1-4; files are empty because a
// scan never reads contents. Memory is what the scan adds to the resident set: path
// chunks come straight from mmap, so malloc's own counts would miss them.

#include "scan/RealFileSystem.hpp"
#include "scan/SyncScanner.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

using namespace varnel;
using Clock = std::chrono::steady_clock;

namespace {

struct Arguments {
    long items = 200'000;
    std::string directory;
    bool keep = false;
};

Arguments parse(int argc, char** argv) {
    Arguments arguments;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--items" && i + 1 < argc) {
            arguments.items = std::atol(argv[++i]);
        } else if (flag == "--dir" && i + 1 < argc) {
            arguments.directory = argv[++i];
        } else if (flag == "--keep") {
            arguments.keep = true;
        } else {
            std::fprintf(stderr, "usage: scan_bench [--items N] [--dir PATH] [--keep]\n");
            std::exit(2);
        }
    }
    if (arguments.directory.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        arguments.directory = std::string(tmp && *tmp ? tmp : "/tmp") + "/varnel-scan-bench";
    }
    return arguments;
}

// A balanced tree: each folder holds up to 10 subfolders and files up to ~100 items,
// so paths stay 1-4 folders deep like a photo library or a project tree.
long generate(const std::filesystem::path& root, long items) {
    std::filesystem::remove_all(root);
    std::filesystem::create_directories(root);
    const long folderCount = std::max(1L, items / 100);
    std::vector<std::filesystem::path> folders;
    for (std::size_t parent = 0; static_cast<long>(folders.size()) < folderCount; ++parent) {
        const auto base = parent == 0 ? root : folders[parent - 1];
        for (int i = 0; i < 10 && static_cast<long>(folders.size()) < folderCount; ++i) {
            folders.push_back(base / ("folder-" + std::to_string(folders.size())));
            std::filesystem::create_directory(folders.back());
        }
    }
    long made = static_cast<long>(folders.size());
    for (std::size_t f = 0; made < items; ++f, ++made) {
        const auto file = folders[f % folders.size()] / ("IMG_" + std::to_string(f) + ".jpg");
        const int fd = ::open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0) {
            std::perror(file.c_str());
            std::exit(1);
        }
        ::close(fd);
    }
    return made;
}

long plainWalk(int directoryFd) {
    long count = 0;
    DIR* directory = ::fdopendir(directoryFd);
    if (!directory) return 0;
    while (dirent* item = ::readdir(directory)) {
        if (std::strcmp(item->d_name, ".") == 0 || std::strcmp(item->d_name, "..") == 0) continue;
        struct stat status;
        if (::fstatat(::dirfd(directory), item->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
        ++count;
        if (S_ISDIR(status.st_mode)) {
            const int child = ::openat(::dirfd(directory), item->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child >= 0) count += plainWalk(child);
        }
    }
    ::closedir(directory);
    return count;
}

// The resident set, from /proc/self/statm (its second field, in pages).
std::size_t residentBytes() {
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    if (!statm) return 0;
    unsigned long size = 0;
    unsigned long resident = 0;
    const bool read = std::fscanf(statm, "%lu %lu", &size, &resident) == 2;
    std::fclose(statm);
    return read ? resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) : 0;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    const Arguments arguments = parse(argc, argv);
    const std::filesystem::path root = arguments.directory;
    std::printf("Generating %ld items under %s ...\n", arguments.items, root.c_str());
    const long generated = generate(root, arguments.items);

    const auto walkStart = Clock::now();
    const long walked = plainWalk(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const double walkSeconds = secondsSince(walkStart);

    RealFileSystem fileSystem;
    const SyncScanner scanner(fileSystem, ExclusionEngine(defaultClutterRules(), HiddenFilePolicy::include));
    const EndpointRoot endpoint = fileSystem.openRoot(root.string());
    const std::size_t residentBefore = residentBytes();
    const auto scanStart = Clock::now();
    const ScanResult result = scanner.scan(endpoint, EndpointRole::source, true);
    const double scanSeconds = secondsSince(scanStart);
    const std::size_t residentAfter = residentBytes();

    const double items = static_cast<double>(result.size());
    std::printf("| measure | value |\n|---|---|\n");
    std::printf("| items generated / walked / scanned | %ld / %ld / %zu |\n", generated, walked, result.size());
    std::printf("| plain openat+fstatat walk | %.3f s, %.0f items/s |\n", walkSeconds, walked / walkSeconds);
    std::printf("| SyncScanner (warm cache) | %.3f s, %.0f items/s |\n", scanSeconds, items / scanSeconds);
    std::printf("| scanner time / plain walk | %.2f |\n", scanSeconds / walkSeconds);
    std::printf("| resident memory added by the scan | %.1f MB, %.0f bytes per item |\n",
                (residentAfter - residentBefore) / 1e6, (residentAfter - residentBefore) / items);
    std::printf("| sizeof(FileSystemEntry) | %zu bytes |\n", sizeof(FileSystemEntry));
    if (!arguments.keep) std::filesystem::remove_all(root);
    return result.size() == static_cast<std::size_t>(generated) ? 0 : 1;
}

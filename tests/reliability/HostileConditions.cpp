#include "HostileConditions.hpp"

#include "common/Sha256.hpp"
#include "model/JSONProfileStore.hpp"
#include "platform/POSIXFolderAccess.hpp"
#include "platform/SecurityScopedBookmarkStore.hpp"
#include "platform/WorkspaceVolumeMonitor.hpp"
#include "scan/CloudFolderDetection.hpp"
#include "scan/RealFileSystem.hpp"
#include "transfer/POSIXFileFlusher.hpp"
#include "transfer/StagingArea.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace varnel::hostile {

std::string mountsUnavailable() {
    static const std::string reason = []() -> std::string {
        if (::geteuid() != 0) return "mounting file systems needs root";
        if (::unshare(CLONE_NEWNS) != 0) return std::string("no private mount namespace: ") + std::strerror(errno);
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return std::string("cannot make mounts private: ") + std::strerror(errno);
        }
        return "";
    }();
    return reason;
}

pid_t start(const std::vector<std::string>& arguments) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    const int devNull = ::open("/dev/null", O_RDWR);
    ::dup2(devNull, STDIN_FILENO);
    ::dup2(devNull, STDOUT_FILENO);
    ::dup2(devNull, STDERR_FILENO);
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
}

int run(const std::vector<std::string>& arguments) {
    const pid_t child = start(arguments);
    if (child < 0) return -1;
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool haveProgram(const std::string& name) { return run({"sh", "-c", "command -v " + name}) == 0; }

bool isMountPoint(const fs::path& folder) {
    std::ifstream table("/proc/self/mountinfo");
    const std::string wanted = fs::weakly_canonical(folder).string();
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint;
        fields >> id >> parent >> device >> root >> mountPoint;
        if (mountPoint == wanted) return true;
    }
    return false;
}

namespace {

std::string makeImage(const fs::path& image, int megabytes) {
    const int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool sized = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(megabytes) << 20) == 0;
    if (fd >= 0) ::close(fd);
    return sized ? "" : "cannot create the image " + image.string();
}

dev_t deviceOf(const fs::path& folder) {
    struct stat status {};
    return ::stat(folder.c_str(), &status) == 0 ? status.st_dev : 0;
}

// Waits until a new file system answers at `mountPoint` (its device changes: the folder
// may be a mount point already, a trap underneath).
bool waitForMount(const fs::path& mountPoint, pid_t process, dev_t before) {
    for (int i = 0; i < 200; ++i) {
        if (const dev_t now = deviceOf(mountPoint); now != 0 && now != before) return true;
        if (process > 0 && ::waitpid(process, nullptr, WNOHANG) == process) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return false;
}

}  // namespace

Mounts::~Mounts() {
    for (auto it = mounted_.rbegin(); it != mounted_.rend(); ++it) {
        if (::umount2(it->mountPoint.c_str(), 0) != 0) ::umount2(it->mountPoint.c_str(), MNT_DETACH);
        if (it->fuseProcess > 0) {
            ::kill(it->fuseProcess, SIGKILL);
            ::waitpid(it->fuseProcess, nullptr, 0);
        }
        if (!it->loopDevice.empty()) run({"losetup", "-d", it->loopDevice});
    }
}

std::string Mounts::mountImage(const fs::path& image, const std::vector<std::string>& mkfs, int megabytes,
                               const fs::path& mountPoint) {
    if (auto why = mountsUnavailable(); !why.empty()) return why;
    if (auto why = makeImage(image, megabytes); !why.empty()) return why;
    std::vector<std::string> format = mkfs;
    format.push_back(image.string());
    if (run(format) != 0) return mkfs.front() + " is missing or failed";
    return remountImage(image, mountPoint);
}

std::string Mounts::mountTmpfs(const fs::path& mountPoint, const std::string& options) {
    if (auto why = mountsUnavailable(); !why.empty()) return why;
    fs::create_directories(mountPoint);
    if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        return std::string("cannot mount tmpfs: ") + std::strerror(errno);
    }
    mounted_.push_back({mountPoint.string(), -1, {}});
    return "";
}

std::string Mounts::remountImage(const fs::path& image, const fs::path& mountPoint) {
    fs::create_directories(mountPoint);
    if (run({"mount", "-o", "loop", image.string(), mountPoint.string()}) != 0) {
        return "cannot loop-mount " + image.filename().string() + " (no loop devices, or no such file system)";
    }
    mounted_.push_back({mountPoint.string(), -1, {}});
    return "";
}

std::string Mounts::makeReadOnly(const fs::path& folder) {
    if (auto why = mountsUnavailable(); !why.empty()) return why;
    if (::mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        return std::string("cannot bind-mount: ") + std::strerror(errno);
    }
    mounted_.push_back({folder.string(), -1, {}});
    if (::mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        return std::string("cannot make the bind read-only: ") + std::strerror(errno);
    }
    return "";
}

std::string Mounts::mountFuse(const std::vector<std::string>& command, const fs::path& mountPoint, pid_t& process) {
    if (auto why = mountsUnavailable(); !why.empty()) return why;
    if (!haveProgram(command.front())) return command.front() + " is not installed";
    if (!fs::exists("/dev/fuse")) return "no /dev/fuse";
    fs::create_directories(mountPoint);
    const dev_t before = deviceOf(mountPoint);
    process = start(command);
    if (process < 0 || !waitForMount(mountPoint, process, before)) {
        if (process > 0) {
            ::kill(process, SIGKILL);
            ::waitpid(process, nullptr, 0);
        }
        return command.front() + " could not mount (no FUSE in this kernel?)";
    }
    mounted_.push_back({mountPoint.string(), process, {}});
    return "";
}

std::string Mounts::mountExfatFuse(const fs::path& image, int megabytes, const fs::path& mountPoint) {
    if (auto why = mountsUnavailable(); !why.empty()) return why;
    if (!haveProgram("mount.exfat-fuse") || !haveProgram("mkfs.exfat")) {
        return "exfat-fuse and exfatprogs are not installed";
    }
    if (auto why = makeImage(image, megabytes); !why.empty()) return why;
    if (run({"mkfs.exfat", image.string()}) != 0) return "mkfs.exfat failed";
    // exfat-fuse wants a block device: a loop device set up by hand, detached at the end.
    char device[64] = {};
    FILE* pipe = ::popen(("losetup -f --show " + image.string()).c_str(), "r");
    if (pipe == nullptr) return "cannot run losetup";
    const bool read = std::fgets(device, sizeof device, pipe) != nullptr;
    ::pclose(pipe);
    std::string loop = read ? std::string(device) : "";
    while (!loop.empty() && (loop.back() == '\n' || loop.back() == ' ')) loop.pop_back();
    if (loop.empty()) return "no free loop device";
    fs::create_directories(mountPoint);
    const dev_t before = deviceOf(mountPoint);
    if (run({"mount.exfat-fuse", loop, mountPoint.string()}) != 0 || !waitForMount(mountPoint, -1, before)) {
        run({"losetup", "-d", loop});
        return "exfat-fuse could not mount (no FUSE in this kernel?)";
    }
    mounted_.push_back({mountPoint.string(), -1, loop});
    return "";
}

std::string Mounts::unmount(const fs::path& mountPoint) {
    if (::umount2(mountPoint.c_str(), 0) != 0) return std::string("umount failed: ") + std::strerror(errno);
    return "";
}

std::string Mounts::detach(const fs::path& mountPoint) {
    if (::umount2(mountPoint.c_str(), MNT_DETACH) != 0) return std::string("umount -l failed: ") + std::strerror(errno);
    return "";
}

std::string readAll(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeAll(const fs::path& file, const std::string& contents) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << contents;
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

// Walks below an open folder by names, so paths longer than PATH_MAX work too.
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

namespace {

ApplicationFolders foldersBelow(const fs::path& work) {
    ApplicationFolders folders;
    folders.applicationSupport = work / "support";
    folders.profilesFile = folders.applicationSupport / "profiles.json";
    folders.preferencesFile = folders.applicationSupport / "preferences.json";
    folders.logsFolder = work / "logs";
    folders.temporaryFolder = work / "tmp";
    return folders;
}

}  // namespace

AppHarness::AppHarness(const fs::path& work, bool watchVolumes) : folders_(foldersBelow(work)) {
    app_ = std::make_unique<SyncApplication>(SyncApplication::Options{folders_, watchVolumes});
    app_->load();
}

AppHarness::AppHarness(const fs::path& work, SyncCoordinator::Collaborators collaborators)
    : folders_(foldersBelow(work)) {
    auto clock = std::make_shared<SteadyMonotonicClock>();
    auto logStore = std::make_shared<RunLogStore>(folders_.logsFolder);
    if (!collaborators.bookmarkStore) {
        collaborators.bookmarkStore = std::make_shared<SecurityScopedBookmarkStore>(*collaborators.fileSystem);
    }
    if (!collaborators.folderAccess) collaborators.folderAccess = std::make_shared<POSIXFolderAccess>();
    if (!collaborators.clock) collaborators.clock = clock;
    if (!collaborators.flusher) collaborators.flusher = std::make_shared<POSIXFileFlusher>(clock);
    collaborators.logStore = logStore;
    collaborators.homeFolder = CloudFolderDetection::currentUserHomeFolder();
    app_ = std::make_unique<SyncApplication>(std::make_shared<JSONProfileStore>(folders_.profilesFile),
                                             std::make_shared<JSONFilePreferences>(folders_.preferencesFile),
                                             logStore, std::move(collaborators));
    app_->load();
}

Uuid AppHarness::addProfile(SyncMode mode, const fs::path& source, const fs::path& destination,
                            DurabilityMode durability) {
    SyncProfile profile = app_->makeProfile();
    profile.name = "Hostile " + std::to_string(app_->profiles().size() + 1);
    profile.mode = mode;
    profile.durability = durability;
    app_->chooseFolder(profile, EndpointRole::source, source);
    app_->chooseFolder(profile, EndpointRole::destination, destination);
    app_->add(profile);
    return profile.id;
}

SyncCoordinator::AnalysisOutcome AppHarness::analyze(const Uuid& profile) { return app_->analyze(profile); }

SyncRunResult AppHarness::synchronize(SyncCoordinator::AnalysisOutcome& outcome, CancellationFlag& flag) {
    Confirmation confirmation;
    for (const auto& concern : outcome.decision.concerns) confirmation.acknowledgedConcernIDs.insert(concern.id);
    if (outcome.decision.hasSevereConcern()) confirmation.typedPhrase = "ARCHIVE";
    return app_->synchronize(outcome, confirmation, flag).result;
}

SyncRunResult AppHarness::sync(const Uuid& profile) {
    auto outcome = analyze(profile);
    CancellationFlag flag;
    return synchronize(outcome, flag);
}

std::string runMessages(const SyncRunResult& result) {
    std::string text;
    for (const auto& warning : result.warnings) text += "warning: " + warning.message + "\n";
    for (const auto& error : result.errors) text += error.code + ": " + error.message + "\n";
    return text;
}

std::string planMessages(const SyncPlan& plan) {
    std::string text;
    for (const auto& warning : plan.warnings) text += "plan warning: " + warning.message + "\n";
    return text;
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

}  // namespace varnel::hostile

#include "support/MountSandbox.hpp"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

namespace varnel::testing {

namespace fs = std::filesystem;

namespace {

pid_t startProgram(const std::vector<std::string>& arguments) {
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

bool makeSparseImage(const fs::path& image, std::int64_t sizeBytes) {
    const int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool sized = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(sizeBytes)) == 0;
    if (fd >= 0) ::close(fd);
    return sized;
}

std::string loopMount(const std::string& image, const std::string& mountPoint, const std::string& options) {
    fs::create_directories(mountPoint);
    if (runProgram({"mount", "-o", options.empty() ? std::string("loop") : "loop," + options, image, mountPoint}) !=
        0) {
        return "cannot loop-mount " + fs::path(image).filename().string() +
               " (no loop devices, or the kernel lacks the file system or an option in \"" + options + "\")";
    }
    return "";
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

int runProgram(const std::vector<std::string>& arguments) {
    const pid_t child = startProgram(arguments);
    if (child < 0) return -1;
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool haveProgram(const std::string& name) { return runProgram({"sh", "-c", "command -v " + name}) == 0; }

std::string MountSandbox::unavailableReason() {
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

MountSandbox::~MountSandbox() {
    for (auto it = mounted_.rbegin(); it != mounted_.rend(); ++it) {
        if (::umount2(it->mountPoint.c_str(), 0) != 0) ::umount2(it->mountPoint.c_str(), MNT_DETACH);
        if (it->fuseProcess > 0) {
            ::kill(it->fuseProcess, SIGKILL);
            ::waitpid(it->fuseProcess, nullptr, 0);
        }
        if (!it->loopDevice.empty()) runProgram({"losetup", "-d", it->loopDevice});
    }
}

std::string MountSandbox::mountMemory(const fs::path& mountPoint, const std::string& options,
                                      const std::string& type) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    fs::create_directories(mountPoint);
    if (::mount(type.c_str(), mountPoint.c_str(), type.c_str(), 0, options.c_str()) != 0) {
        return "cannot mount " + type + ": " + std::strerror(errno);
    }
    mounted_.push_back({mountPoint.string()});
    return "";
}

std::string MountSandbox::mountImage(const fs::path& image, const std::vector<std::string>& mkfs,
                                     std::int64_t sizeBytes, const fs::path& mountPoint,
                                     const std::string& mountOptions) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    if (!haveProgram(mkfs.front())) return mkfs.front() + " is not installed";
    if (!makeSparseImage(image, sizeBytes)) return "cannot create the image " + image.string();
    auto command = mkfs;
    command.push_back(image.string());
    if (runProgram(command) != 0) return mkfs.front() + " failed";
    images_.push_back({mountPoint.string(), image.string(), mountOptions});
    if (auto why = loopMount(image.string(), mountPoint.string(), mountOptions); !why.empty()) return why;
    mounted_.push_back({mountPoint.string()});
    return "";
}

std::string MountSandbox::bindReadOnly(const fs::path& folder, const fs::path& mountPoint) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    fs::create_directories(mountPoint);
    if (::mount(folder.c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        return std::string("cannot bind-mount: ") + std::strerror(errno);
    }
    mounted_.push_back({mountPoint.string()});
    if (::mount(nullptr, mountPoint.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        return std::string("cannot make the bind mount read-only: ") + std::strerror(errno);
    }
    return "";
}

std::string MountSandbox::mountFuse(const std::vector<std::string>& command, const fs::path& mountPoint,
                                    pid_t& process) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    if (!haveProgram(command.front())) return command.front() + " is not installed";
    if (!fs::exists("/dev/fuse")) return "no /dev/fuse";
    fs::create_directories(mountPoint);
    const dev_t before = deviceOf(mountPoint);
    process = startProgram(command);
    if (process < 0 || !waitForMount(mountPoint, process, before)) {
        if (process > 0) {
            ::kill(process, SIGKILL);
            ::waitpid(process, nullptr, 0);
        }
        return command.front() + " could not mount (no FUSE in this kernel?)";
    }
    mounted_.push_back({mountPoint.string(), process});
    return "";
}

std::string MountSandbox::mountExfatFuse(const fs::path& image, int megabytes, const fs::path& mountPoint) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    if (!haveProgram("mount.exfat-fuse") || !haveProgram("mkfs.exfat")) {
        return "exfat-fuse and exfatprogs are not installed";
    }
    if (!makeSparseImage(image, std::int64_t{megabytes} << 20)) return "cannot create the image";
    if (runProgram({"mkfs.exfat", image.string()}) != 0) return "mkfs.exfat failed";
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
    if (runProgram({"mount.exfat-fuse", loop, mountPoint.string()}) != 0 || !waitForMount(mountPoint, -1, before)) {
        runProgram({"losetup", "-d", loop});
        return "exfat-fuse could not mount (no FUSE in this kernel?)";
    }
    mounted_.push_back({mountPoint.string(), -1, loop});
    return "";
}

void MountSandbox::forget(const std::string& mountPoint) {
    const auto found = std::find_if(mounted_.rbegin(), mounted_.rend(),
                                    [&](const Mounted& mounted) { return mounted.mountPoint == mountPoint; });
    if (found != mounted_.rend() && found->loopDevice.empty() && found->fuseProcess < 0) {
        mounted_.erase(std::next(found).base());
    }
}

std::string MountSandbox::unmount(const fs::path& mountPoint) {
    if (::umount2(mountPoint.c_str(), 0) != 0) return std::string("umount failed: ") + std::strerror(errno);
    forget(mountPoint.string());
    return "";
}

std::string MountSandbox::detach(const fs::path& mountPoint) {
    if (::umount2(mountPoint.c_str(), MNT_DETACH) != 0) return std::string("umount -l failed: ") + std::strerror(errno);
    forget(mountPoint.string());
    return "";
}

std::string MountSandbox::remount(const fs::path& mountPoint) {
    const auto image = std::find_if(images_.rbegin(), images_.rend(),
                                    [&](const Image& each) { return each.mountPoint == mountPoint.string(); });
    if (image == images_.rend()) return "no image was mounted there by this sandbox";
    const bool stillMounted = std::any_of(mounted_.begin(), mounted_.end(), [&](const Mounted& mounted) {
        return mounted.mountPoint == mountPoint.string();
    });
    if (stillMounted) {
        if (auto why = unmount(mountPoint); !why.empty()) return why;
    }
    if (auto why = loopMount(image->image, image->mountPoint, image->options); !why.empty()) return why;
    mounted_.push_back({image->mountPoint});
    return "";
}

}  // namespace varnel::testing

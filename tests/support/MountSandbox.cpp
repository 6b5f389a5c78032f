#include "support/MountSandbox.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace varnel::testing {

int runProgram(const std::vector<std::string>& arguments) {
    const pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) {
        const int devNull = ::open("/dev/null", O_RDWR);
        ::dup2(devNull, STDOUT_FILENO);
        ::dup2(devNull, STDERR_FILENO);
        std::vector<char*> argv;
        for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

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
        if (::umount2(it->c_str(), 0) != 0) ::umount2(it->c_str(), MNT_DETACH);
    }
}

std::string MountSandbox::mountExt4(const std::string& image, const std::string& mountPoint, const std::string& label,
                                    int megabytes) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    const int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool sized = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(megabytes) << 20) == 0;
    if (fd >= 0) ::close(fd);
    if (!sized) return "cannot create the image file " + image;
    if (runProgram({"mkfs.ext4", "-q", "-F", "-L", label, image}) != 0) return "mkfs.ext4 is missing or failed";
    std::filesystem::create_directories(mountPoint);
    if (runProgram({"mount", "-o", "loop", image, mountPoint}) != 0) {
        return "cannot loop-mount an image (no loop devices, or no ext4 in the kernel)";
    }
    mounted_.push_back(mountPoint);
    return "";
}

std::string MountSandbox::mountTmpfs(const std::string& mountPoint) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    std::filesystem::create_directories(mountPoint);
    if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=4m") != 0) {
        return std::string("cannot mount tmpfs: ") + std::strerror(errno);
    }
    mounted_.push_back(mountPoint);
    return "";
}

std::string MountSandbox::bindReadOnly(const std::string& folder, const std::string& mountPoint) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    std::filesystem::create_directories(mountPoint);
    if (::mount(folder.c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        return std::string("cannot bind-mount: ") + std::strerror(errno);
    }
    mounted_.push_back(mountPoint);
    if (::mount(nullptr, mountPoint.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        return std::string("cannot make the bind mount read-only: ") + std::strerror(errno);
    }
    return "";
}

std::string MountSandbox::unmount(const std::string& mountPoint) {
    if (::umount2(mountPoint.c_str(), 0) != 0) return std::string("umount failed: ") + std::strerror(errno);
    const auto found = std::find(mounted_.rbegin(), mounted_.rend(), mountPoint);
    if (found != mounted_.rend()) mounted_.erase(std::next(found).base());
    return "";
}

}  // namespace varnel::testing

#include "support/MountSandbox.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace varnel::testing {

namespace {

bool makeSparseImage(const std::string& image, std::int64_t sizeBytes) {
    const int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool sized = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(sizeBytes)) == 0;
    if (fd >= 0) ::close(fd);
    return sized;
}

std::vector<std::string> loopMountCommand(const std::string& image, const std::string& mountPoint,
                                          const std::string& options) {
    return {"mount", "-o", options.empty() ? std::string("loop") : "loop," + options, image, mountPoint};
}

}  // namespace

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

int MountSandbox::run(const std::vector<std::string>& arguments) { return runProgram(arguments); }

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

MountSandbox::MountSandbox(std::filesystem::path workFolder) : workFolder_(std::move(workFolder)) {}

MountSandbox::~MountSandbox() {
    for (auto it = mounted_.rbegin(); it != mounted_.rend(); ++it) {
        if (::umount2(it->mountPoint.c_str(), 0) != 0) ::umount2(it->mountPoint.c_str(), MNT_DETACH);
    }
}

std::string MountSandbox::mountExt4(const std::string& image, const std::string& mountPoint, const std::string& label,
                                    int megabytes) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    if (!makeSparseImage(image, std::int64_t{megabytes} << 20)) return "cannot create the image file " + image;
    if (runProgram({"mkfs.ext4", "-q", "-F", "-L", label, image}) != 0) return "mkfs.ext4 is missing or failed";
    std::filesystem::create_directories(mountPoint);
    if (runProgram(loopMountCommand(image, mountPoint, "")) != 0) {
        return "cannot loop-mount an image (no loop devices, or no ext4 in the kernel)";
    }
    mounted_.push_back({mountPoint, image, ""});
    return "";
}

std::string MountSandbox::mountTmpfs(const std::string& mountPoint, const std::string& options) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    std::filesystem::create_directories(mountPoint);
    if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        return std::string("cannot mount tmpfs: ") + std::strerror(errno);
    }
    mounted_.push_back({mountPoint, "", ""});
    return "";
}

std::string MountSandbox::bindReadOnly(const std::string& folder, const std::string& mountPoint) {
    if (auto why = unavailableReason(); !why.empty()) return why;
    std::filesystem::create_directories(mountPoint);
    if (::mount(folder.c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        return std::string("cannot bind-mount: ") + std::strerror(errno);
    }
    mounted_.push_back({mountPoint, "", ""});
    if (::mount(nullptr, mountPoint.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        return std::string("cannot make the bind mount read-only: ") + std::strerror(errno);
    }
    return "";
}

std::string MountSandbox::mountVirtual(const std::string& type, const std::string& name, const std::string& options,
                                       std::string& whyNot) {
    if (auto reason = unavailableReason(); !reason.empty()) {
        whyNot = reason;
        return "";
    }
    if (workFolder_.empty()) {
        whyNot = "the mount sandbox has no work folder";
        return "";
    }
    const auto folder = workFolder_ / name;
    std::filesystem::create_directories(folder);
    if (::mount(type.c_str(), folder.c_str(), type.c_str(), 0, options.c_str()) != 0) {
        whyNot = "cannot mount " + type + ": " + std::strerror(errno);
        return "";
    }
    mounted_.push_back({folder.string(), "", ""});
    return folder.string();
}

std::string MountSandbox::mountImage(const std::string& name, const std::vector<std::string>& mkfs,
                                     std::int64_t sizeBytes, std::string& whyNot, const std::string& mountOptions) {
    if (auto reason = unavailableReason(); !reason.empty()) {
        whyNot = reason;
        return "";
    }
    if (workFolder_.empty()) {
        whyNot = "the mount sandbox has no work folder";
        return "";
    }
    if (runProgram({"sh", "-c", "command -v " + mkfs.front()}) != 0) {
        whyNot = mkfs.front() + " is not installed";
        return "";
    }
    const std::string image = (workFolder_ / (name + ".img")).string();
    if (!makeSparseImage(image, sizeBytes)) {
        whyNot = "cannot create the image file";
        return "";
    }
    auto command = mkfs;
    command.push_back(image);
    if (runProgram(command) != 0) {
        whyNot = mkfs.front() + " failed";
        return "";
    }
    const auto folder = workFolder_ / name;
    std::filesystem::create_directories(folder);
    if (runProgram(loopMountCommand(image, folder.string(), mountOptions)) != 0) {
        whyNot = "cannot loop-mount an image (no loop devices, or the kernel lacks the file system or an option in \"" +
                 mountOptions + "\")";
        return "";
    }
    mounted_.push_back({folder.string(), image, mountOptions});
    return folder.string();
}

std::string MountSandbox::unmount(const std::string& mountPoint) {
    if (::umount2(mountPoint.c_str(), 0) != 0) return std::string("umount failed: ") + std::strerror(errno);
    const auto found = std::find_if(mounted_.rbegin(), mounted_.rend(),
                                    [&](const Mounted& mounted) { return mounted.mountPoint == mountPoint; });
    if (found != mounted_.rend()) mounted_.erase(std::next(found).base());
    return "";
}

std::string MountSandbox::remount(const std::string& mountPoint) {
    const auto found = std::find_if(mounted_.rbegin(), mounted_.rend(),
                                    [&](const Mounted& mounted) { return mounted.mountPoint == mountPoint; });
    if (found == mounted_.rend() || found->image.empty()) return "not an image mounted by this sandbox";
    const Mounted image = *found;
    if (auto why = unmount(mountPoint); !why.empty()) return why;
    if (runProgram(loopMountCommand(image.image, image.mountPoint, image.options)) != 0) {
        return "cannot mount the image again";
    }
    mounted_.push_back(image);
    return "";
}

}  // namespace varnel::testing

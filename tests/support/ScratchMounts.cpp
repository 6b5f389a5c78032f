#include "support/ScratchMounts.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace varnel::testing {

std::string ScratchMounts::unavailableReason() {
    static const std::string reason = [] () -> std::string {
        if (::geteuid() != 0) return "mounting file systems needs root";
        if (::unshare(CLONE_NEWNS) != 0) return std::string("no private mount namespace: ") + std::strerror(errno);
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return std::string("cannot make mounts private: ") + std::strerror(errno);
        }
        return "";
    }();
    return reason;
}

ScratchMounts::ScratchMounts(std::filesystem::path workFolder) : workFolder_(std::move(workFolder)) {}

ScratchMounts::~ScratchMounts() {
    for (auto it = mounted_.rbegin(); it != mounted_.rend(); ++it) {
        if (::umount2(it->c_str(), 0) != 0) ::umount2(it->c_str(), MNT_DETACH);
    }
}

int ScratchMounts::run(const std::vector<std::string>& arguments) {
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

std::string ScratchMounts::mountVirtual(const std::string& type, const std::string& name, const std::string& options,
                                        std::string& whyNot) {
    if (auto reason = unavailableReason(); !reason.empty()) {
        whyNot = reason;
        return "";
    }
    const auto folder = workFolder_ / name;
    std::filesystem::create_directories(folder);
    if (::mount(type.c_str(), folder.c_str(), type.c_str(), 0, options.c_str()) != 0) {
        whyNot = "cannot mount " + type + ": " + std::strerror(errno);
        return "";
    }
    mounted_.push_back(folder.string());
    return folder.string();
}

std::string ScratchMounts::mountImage(const std::string& name, const std::vector<std::string>& mkfs,
                                      std::int64_t sizeBytes, std::string& whyNot) {
    if (auto reason = unavailableReason(); !reason.empty()) {
        whyNot = reason;
        return "";
    }
    if (run({"sh", "-c", "command -v " + mkfs.front()}) != 0) {
        whyNot = mkfs.front() + " is not installed";
        return "";
    }
    const std::string image = (workFolder_ / (name + ".img")).string();
    const int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool sized = fd >= 0 && ::ftruncate(fd, sizeBytes) == 0;
    if (fd >= 0) ::close(fd);
    if (!sized) {
        whyNot = "cannot create the image file";
        return "";
    }
    auto command = mkfs;
    command.push_back(image);
    if (run(command) != 0) {
        whyNot = mkfs.front() + " failed";
        return "";
    }
    const auto folder = workFolder_ / name;
    std::filesystem::create_directories(folder);
    if (run({"mount", "-o", "loop", image, folder.string()}) != 0) {
        whyNot = "cannot loop-mount an image (no loop devices, or the kernel lacks the file system)";
        return "";
    }
    mounted_.push_back(folder.string());
    return folder.string();
}

}  // namespace varnel::testing

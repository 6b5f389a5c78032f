#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace varnel::testing {

// Real mounts for tests that need them (memory file systems, sparse images formatted
// with mkfs and loop-mounted, read-only binds, FUSE file systems), made inside a mount
// namespace private to the test process, so nothing shows in the machine's mounts and
// nothing outlives the process. Every mount still present when the sandbox goes is
// undone, newest first (a busy one detached), with the FUSE processes and hand-made
// loop devices it started.
//
//     if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
//     MountSandbox mounts;
//     if (auto why = mounts.mountImage(dir / "x.img", {"mkfs.xfs", "-q", "-f"}, 320 << 20, dir / "x");
//         !why.empty()) GTEST_SKIP() << why;
//
// Every call returns "" on success or else the reason. Mount points are created when
// missing.
class MountSandbox {
public:
    MountSandbox() = default;
    ~MountSandbox();
    MountSandbox(const MountSandbox&) = delete;
    MountSandbox& operator=(const MountSandbox&) = delete;

    // Why mounts cannot be made here ("" when they can). The first call moves the
    // process into its private mount namespace.
    static std::string unavailableReason();

    // A memory file system ("tmpfs" or "ramfs") with options such as "size=4m,nr_inodes=16".
    std::string mountMemory(const std::filesystem::path& mountPoint, const std::string& options = "size=4m",
                            const std::string& type = "tmpfs");
    // Formats a sparse image of `sizeBytes` with `mkfs` (program and options; the image
    // path is appended) and loop-mounts it with `mountOptions`.
    std::string mountImage(const std::filesystem::path& image, const std::vector<std::string>& mkfs,
                           std::int64_t sizeBytes, const std::filesystem::path& mountPoint,
                           const std::string& mountOptions = "");
    // Mounts `folder` again at `mountPoint` (which may be the folder itself), read-only there.
    std::string bindReadOnly(const std::filesystem::path& folder, const std::filesystem::path& mountPoint);
    // A FUSE file system whose process the test can kill: `command` must mount at
    // `mountPoint` and stay in the foreground. Waits until it answers.
    std::string mountFuse(const std::vector<std::string>& command, const std::filesystem::path& mountPoint,
                          pid_t& process);
    // exFAT through exfat-fuse on a loop device of its own.
    std::string mountExfatFuse(const std::filesystem::path& image, int megabytes,
                               const std::filesystem::path& mountPoint);

    // Unmounts early, as a user unplugging a drive would.
    std::string unmount(const std::filesystem::path& mountPoint);
    // umount -l: the mount point shows the folder underneath at once; the file system
    // lives on for whoever still holds it open.
    std::string detach(const std::filesystem::path& mountPoint);
    // Mounts an image of mountImage at its mount point again (unmounting it first if it
    // is still mounted), as after a power cut: the file system replays its journal.
    std::string remount(const std::filesystem::path& mountPoint);

private:
    struct Mounted {
        std::string mountPoint;
        pid_t fuseProcess = -1;
        std::string loopDevice = {};  // set up by hand (exfat-fuse needs a block device)
    };
    struct Image {
        std::string mountPoint;
        std::string image;
        std::string options;
    };
    void forget(const std::string& mountPoint);

    std::vector<Mounted> mounted_;
    std::vector<Image> images_;
};

// Runs a program (no shell), output discarded; its exit status, or -1.
int runProgram(const std::vector<std::string>& arguments);
// Whether a program of that name is on PATH.
bool haveProgram(const std::string& name);

}  // namespace varnel::testing

#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace varnel::testing {

// Real mounts for tests that need them (tmpfs and ramfs, sparse images formatted with
// mkfs and loop-mounted, read-only binds), made inside a mount namespace private to the
// test process, so nothing shows in the machine's mounts and nothing outlives the
// process. Every mount still present when the sandbox is destroyed is undone, newest
// first; loop devices set up by "mount -o loop" detach with the unmount.
//
//     if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
//     MountSandbox mounts(temporary.path());
//     std::string whyNot;
//     const auto xfs = mounts.mountImage("xfs", {"mkfs.xfs", "-q", "-f"}, 320 << 20, whyNot);
//     if (xfs.empty()) GTEST_SKIP() << whyNot;
//     ASSERT_EQ(mounts.mountExt4(image, folder, "Backup"), "");   // paths of your choosing
//
// Two styles of call live side by side: those returning "" on success or else the reason
// (mountExt4, mountTmpfs, bindReadOnly, unmount, remount), and those returning the new
// mount point below the work folder, or "" with the reason in `whyNot` (mountVirtual,
// mountImage).
class MountSandbox {
public:
    // The work folder holds the images and mount points of mountVirtual and mountImage;
    // without one they are unavailable.
    MountSandbox() = default;
    explicit MountSandbox(std::filesystem::path workFolder);
    ~MountSandbox();
    MountSandbox(const MountSandbox&) = delete;
    MountSandbox& operator=(const MountSandbox&) = delete;

    // Why mounts cannot be made here ("" when they can). The first call moves the
    // process into its private mount namespace.
    static std::string unavailableReason();

    // Creates a sparse image of `megabytes` at `image`, formats it as ext4 with the label,
    // and mounts it at `mountPoint` (created when missing).
    std::string mountExt4(const std::string& image, const std::string& mountPoint, const std::string& label,
                          int megabytes = 32);
    // A tmpfs at `mountPoint` (created when missing), with mount options such as
    // "size=1m" or "nr_inodes=16".
    std::string mountTmpfs(const std::string& mountPoint, const std::string& options = "size=4m");
    // Mounts `folder` again at `mountPoint`, read-only there and writable where it is.
    std::string bindReadOnly(const std::string& folder, const std::string& mountPoint);

    // A memory file system ("tmpfs", "ramfs") on a new folder `name` of the work folder.
    std::string mountVirtual(const std::string& type, const std::string& name, const std::string& options,
                             std::string& whyNot);
    // Formats a sparse image of `sizeBytes` with `mkfs` (program and options; the image
    // path is appended) and loop-mounts it, with `mountOptions` ("" for none), on a new
    // folder `name` of the work folder.
    std::string mountImage(const std::string& name, const std::vector<std::string>& mkfs, std::int64_t sizeBytes,
                           std::string& whyNot, const std::string& mountOptions = "");

    // Unmounts early, as a user unplugging a drive would.
    std::string unmount(const std::string& mountPoint);
    // Unmounts an image mounted by mountImage and mounts it again with the same options,
    // as after a power cut: the file system replays its journal.
    std::string remount(const std::string& mountPoint);

    // Runs a program (no shell), output discarded; its exit status, or -1.
    static int run(const std::vector<std::string>& arguments);

private:
    struct Mounted {
        std::string mountPoint;
        std::string image;    // for loop-mounted images: what remount mounts again
        std::string options;  // their mount options
    };

    std::filesystem::path workFolder_;
    std::vector<Mounted> mounted_;
};

// Runs a program (no shell), output discarded; its exit status, or -1.
int runProgram(const std::vector<std::string>& arguments);

}  // namespace varnel::testing

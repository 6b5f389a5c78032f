#pragma once

#include <string>
#include <vector>

namespace varnel::testing {

// Real mounts for tests that need them (loop-mounted ext4 images, tmpfs, read-only
// binds), made inside a mount namespace private to the test process, so nothing leaks
// into the machine's mounts even if the process dies. Every mount still present when
// the sandbox is destroyed is undone, newest first; loop devices set up by
// "mount -o loop" detach with the unmount.
//
//     MountSandbox mounts;
//     if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
//     ASSERT_EQ(mounts.mountExt4(image, folder, "Backup"), "");
class MountSandbox {
public:
    MountSandbox() = default;
    ~MountSandbox();
    MountSandbox(const MountSandbox&) = delete;
    MountSandbox& operator=(const MountSandbox&) = delete;

    // Why mounts cannot be made here ("" when they can). The first call moves the
    // process into its private mount namespace.
    static std::string unavailableReason();

    // Each returns "" on success, else why it could not be done (a reason to skip).
    // Creates a sparse image of `megabytes` at `image`, formats it as ext4 with the label,
    // and mounts it at `mountPoint` (created when missing).
    std::string mountExt4(const std::string& image, const std::string& mountPoint, const std::string& label,
                          int megabytes = 32);
    std::string mountTmpfs(const std::string& mountPoint);
    // Mounts `folder` again at `mountPoint`, read-only there and writable where it is.
    std::string bindReadOnly(const std::string& folder, const std::string& mountPoint);

    // Unmounts early, as a user unplugging a drive would; "" on success.
    std::string unmount(const std::string& mountPoint);

private:
    std::vector<std::string> mounted_;
};

// Runs a program (no shell), output discarded; its exit status, or -1.
int runProgram(const std::vector<std::string>& arguments);

}  // namespace varnel::testing

#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace varnel::testing {

// Mounts throw-away file systems for one test: tmpfs, ramfs, or a sparse image
// formatted with mkfs and loop-mounted. The test process first moves into a private
// mount namespace of its own, so nothing shows in the machine's mounts and nothing
// outlives the process; every mount is undone when the object goes (loop devices made
// by "mount -o loop" detach with the unmount).
//
//     if (auto why = ScratchMounts::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
//     ScratchMounts mounts(temporary.path());
//     std::string whyNot;
//     const auto btrfs = mounts.mountImage("btrfs", {"mkfs.btrfs", "-q", "-f"}, 256 << 20, whyNot);
//     if (btrfs.empty()) GTEST_SKIP() << whyNot;
class ScratchMounts {
public:
    // Empty when mounting works here; otherwise why not (not root, no namespace). The
    // first call enters the private namespace.
    static std::string unavailableReason();

    // Mount points and images are made below `workFolder`.
    explicit ScratchMounts(std::filesystem::path workFolder);
    ~ScratchMounts();
    ScratchMounts(const ScratchMounts&) = delete;
    ScratchMounts& operator=(const ScratchMounts&) = delete;

    // Mounts a memory file system ("tmpfs", "ramfs") on a new folder `name`; returns its
    // path, or "" with the reason in `whyNot`.
    std::string mountVirtual(const std::string& type, const std::string& name, const std::string& options,
                             std::string& whyNot);
    // Formats a sparse image of `sizeBytes` with `mkfs` (program and options; the image
    // path is appended) and loop-mounts it on a new folder `name`.
    std::string mountImage(const std::string& name, const std::vector<std::string>& mkfs, std::int64_t sizeBytes,
                           std::string& whyNot);

    // Runs a program (no shell), returning its exit status (-1 if it could not run).
    static int run(const std::vector<std::string>& arguments);

private:
    std::filesystem::path workFolder_;
    std::vector<std::string> mounted_;
};

}  // namespace varnel::testing

#pragma once

// Helpers for the recipes that put the engine in hostile conditions: drives that vanish,
// an attacker racing the run, sources that change mid-copy, names that other tools choke
// on. Mounts are made in a mount namespace private to the test process.

#include "app/SyncApplication.hpp"

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace varnel::hostile {

namespace fs = std::filesystem;

// Moves the process into a private mount namespace (once); "" when mounting works here,
// otherwise why not, for GTEST_SKIP.
std::string mountsUnavailable();

// Runs a program without a shell, its output discarded; the exit status, or -1.
int run(const std::vector<std::string>& arguments);
// Starts a program in the background (output discarded); its process id, or -1.
pid_t start(const std::vector<std::string>& arguments);
// Whether a program of that name is on PATH.
bool haveProgram(const std::string& name);

// Whether `folder` is a mount point in this namespace.
bool isMountPoint(const fs::path& folder);

// Every mount made through it, undone when it goes (newest first; a busy one is
// detached), with the loop devices and background FUSE processes it started.
class Mounts {
public:
    Mounts() = default;
    ~Mounts();
    Mounts(const Mounts&) = delete;
    Mounts& operator=(const Mounts&) = delete;

    // Formats a sparse image of `megabytes` with `mkfs` (program and options; the image
    // path is appended) and loop-mounts it at `mountPoint`; "" or why not.
    std::string mountImage(const fs::path& image, const std::vector<std::string>& mkfs, int megabytes,
                           const fs::path& mountPoint);
    // A tmpfs with mount options such as "size=512m"; "" or why not.
    std::string mountTmpfs(const fs::path& mountPoint, const std::string& options);
    // Mounts an image formatted before, again; "" or why not.
    std::string remountImage(const fs::path& image, const fs::path& mountPoint);
    // Makes `folder` read-only in place (a read-only bind of itself), so anything written
    // into it later fails: the trap under a mount point.
    std::string makeReadOnly(const fs::path& folder);
    // A FUSE file system in the foreground, whose process the test can kill: `command`
    // must mount at `mountPoint` and stay in the foreground. Waits until it is mounted.
    std::string mountFuse(const std::vector<std::string>& command, const fs::path& mountPoint, pid_t& process);
    // exFAT through exfat-fuse on a loop device; "" or why not.
    std::string mountExfatFuse(const fs::path& image, int megabytes, const fs::path& mountPoint);

    std::string unmount(const fs::path& mountPoint);
    // umount -l: the mount point shows the folder underneath at once; the file system
    // lives on for whoever still holds it open.
    std::string detach(const fs::path& mountPoint);

private:
    struct Mounted {
        std::string mountPoint = {};
        pid_t fuseProcess = -1;
        std::string loopDevice = {};  // set up by hand (exfat-fuse needs a block device)
    };
    std::vector<Mounted> mounted_;
};

// What a tree holds: relative path → "dir", "link:<target>" or "file:<size>:<contents
// hash>" (with ":<mtime ns>" when asked). Never follows links.
std::map<std::string, std::string> treeState(const fs::path& root, bool withTimes = false);
std::string readAll(const fs::path& file);
void writeAll(const fs::path& file, const std::string& contents);

// A SyncApplication on real folders below a work folder, driven as the front ends drive
// it: profiles saved, analyse, confirm every concern (typing the word when asked),
// synchronise.
class AppHarness {
public:
    explicit AppHarness(const fs::path& work, bool watchVolumes = false);
    // For set-ups that swap a collaborator (a fault-injecting file system).
    AppHarness(const fs::path& work, SyncCoordinator::Collaborators collaborators);

    Uuid addProfile(SyncMode mode, const fs::path& source, const fs::path& destination,
                    DurabilityMode durability = DurabilityMode::fast);

    SyncCoordinator::AnalysisOutcome analyze(const Uuid& profile);
    SyncRunResult synchronize(SyncCoordinator::AnalysisOutcome& outcome, CancellationFlag& flag);
    // Both steps.
    SyncRunResult sync(const Uuid& profile);

    SyncApplication& app() { return *app_; }

private:
    ApplicationFolders folders_;
    std::unique_ptr<SyncApplication> app_;
};

// Every warning message and error message of a run, one per line, for assertions.
std::string runMessages(const SyncRunResult& result);
// Every warning of a plan (the scans' and the planner's), one per line.
std::string planMessages(const SyncPlan& plan);

// A checker's problems, one indented line each, for a failure message.
std::string joined(const std::vector<std::string>& lines);
// A whole number from the environment (a seed, a trial count), or `fallback` when unset.
long environmentNumber(const char* name, long fallback);

}  // namespace varnel::hostile

// A symlink attacker races Mirror runs over 5,000 files: another process swaps
// destination folders with a link to `outside/` (renameat2 RENAME_EXCHANGE), plants
// links at predictable names (staging-like names, the names of files about to be
// copied), replaces the archive folder or its parent with a link, and replaces source
// files with links to a secret. Nothing outside the destination may change, the
// secret's contents may never appear in it, and the engine reports errors instead of
// crashing. A naive path-based writer under the same attacker must escape, which
// proves the attack and the checks are real.

#include "support/ChildProcess.hpp"
#include "support/EngineHarness.hpp"
#include "support/MountSandbox.hpp"
#include "support/SyncChecker.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <set>
#include <thread>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kFolders = 50;
constexpr int kFilesPerFolder = 100;  // 5,000 files
// How long the attacker races the runs. Twenty seconds keeps the whole reliability
// group well inside its budget on a two-core machine.
constexpr auto kAttackTime = std::chrono::seconds(20);
constexpr auto kNaiveWriterLimit = std::chrono::seconds(10);
constexpr const char* kSecret = "TOP-SECRET-7f3a9c-never-copy-this";

std::string folderName(int folder) {
    char name[8];
    std::snprintf(name, sizeof name, "d%02d", folder);
    return name;
}

std::string fileName(int file) {
    char name[8];
    std::snprintf(name, sizeof name, "f%03d", file);
    return name;
}

// Rewrites a source file in place without ever following a link the attacker put there.
void rewriteNoFollow(const fs::path& file, const std::string& contents) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    [[maybe_unused]] const auto written = ::write(fd, contents.data(), contents.size());
    ::close(fd);
}

struct Layout {
    fs::path source, destination, outside, secret;
};

enum Attacks : unsigned {
    swapFolders = 1,
    plantLinks = 2,
    replaceArchive = 4,
    replaceSourceFiles = 8,
    everyAttack = 15,
};

// The attacker's loop, in a child process: plain system calls only, errors ignored (the
// engine moves things under its feet too), until the deadline or the parent's end.
[[noreturn]] void attack(const Layout& at, unsigned attacks, unsigned seed, std::chrono::seconds duration) {
    std::mt19937 random(seed);
    const auto deadline = Clock::now() + duration;
    const std::string outside = at.outside.string();
    for (unsigned round = 0; Clock::now() < deadline; ++round) {
        const std::string folder = folderName(static_cast<int>(random() % kFolders));
        const std::string file = fileName(static_cast<int>(random() % kFilesPerFolder));
        const std::string destinationFolder = (at.destination / folder).string();
        switch (random() % 4) {
            case 0: {  // a destination folder becomes a link to outside/, for a moment
                if ((attacks & swapFolders) == 0) break;
                const std::string link = (at.destination / (".swap-" + folder)).string();
                ::symlink(outside.c_str(), link.c_str());
                if (::renameat2(AT_FDCWD, destinationFolder.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE) == 0) {
                    ::usleep(static_cast<useconds_t>(random() % 3000));
                    ::renameat2(AT_FDCWD, destinationFolder.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
                }
                struct stat status {};
                if (::lstat(link.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) ::unlink(link.c_str());
                break;
            }
            case 1: {  // links at names the engine will write: staging-like and final names
                if ((attacks & plantLinks) == 0) break;
                // Planted through a descriptor that refuses a link: a swap whose way back
                // failed (the engine archived the folder meanwhile) leaves the folder's name
                // a link to outside/, and planting through it would change outside/ ourselves.
                const int folderFd = ::open(destinationFolder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (folderFd < 0) break;
                const std::string staging = "." + file + ".varnelsync-partial-" + std::to_string(round);
                ::symlinkat((outside + "/" + file).c_str(), folderFd, staging.c_str());
                ::symlinkat((outside + "/" + file).c_str(), folderFd, file.c_str());
                ::symlinkat(outside.c_str(), folderFd, ("new-" + file).c_str());
                ::close(folderFd);
                break;
            }
            case 2: {  // the archive folder, or the folder inside it, becomes a link
                if ((attacks & replaceArchive) == 0) break;
                const fs::path archive = at.destination / ".VarnelSync-Archive";
                struct stat status {};
                if (::lstat(archive.c_str(), &status) != 0) break;
                fs::path target = archive;
                if (S_ISDIR(status.st_mode) && random() % 2 == 0) {  // never list through a link
                    std::error_code error;
                    for (const auto& child : fs::directory_iterator(archive, error)) {
                        if (child.path().filename().string().find("-moved-") == std::string::npos) {
                            target = child.path();
                            break;
                        }
                    }
                }
                if (::lstat(target.c_str(), &status) != 0) break;
                if (S_ISLNK(status.st_mode)) {
                    ::unlink(target.c_str());  // let some runs archive again
                } else if (::rename(target.c_str(), (target.string() + "-moved-" + std::to_string(round)).c_str()) ==
                           0) {
                    ::symlink(outside.c_str(), target.c_str());
                }
                break;
            }
            case 3: {  // a source file becomes a link to the secret
                if ((attacks & replaceSourceFiles) == 0) break;
                const std::string victim = (at.source / folder / file).string();
                const std::string temporary = victim + ".attack";
                if (::symlink(at.secret.c_str(), temporary.c_str()) == 0) ::rename(temporary.c_str(), victim.c_str());
                break;
            }
        }
        ::usleep(static_cast<useconds_t>(200 + random() % 800));
    }
    ::_exit(0);
}

class SymlinkAttacker : public ::testing::Test {
protected:
    void SetUp() override {
        // On a tmpfs of its own where mounts are possible: 5,000 files and their copies
        // come and go in no time, whatever else the disk is doing.
        base = work.path();
        if (MountSandbox::unavailableReason().empty() && mounts.mountMemory(work / "fs", "size=512m").empty()) {
            base = work / "fs";
        }
        at = {base / "src", base / "dst", base / "outside", base / "secret.txt"};
        for (int folder = 0; folder < kFolders; ++folder) {
            for (int file = 0; file < kFilesPerFolder; ++file) {
                writeTextFile(at.source / folderName(folder) / fileName(file), contents(folder, file, 0));
            }
        }
        fs::create_directories(at.destination);
        writeTextFile(at.outside / "sentinel.txt", "outside must never change");
        writeTextFile(at.outside / fileName(7), "an outside file with a name the engine writes");
        writeTextFile(at.secret, kSecret);
        outsideBefore = treeState(at.outside, true);
        secretBefore = treeState(at.secret, true);
        for (const auto& item : fs::directory_iterator(base)) topLevelBefore.insert(item.path().filename());
    }

    static std::string contents(int folder, int file, int generation) {
        return "source " + folderName(folder) + "/" + fileName(file) + " generation " + std::to_string(generation) +
               "\n";
    }

    // Starts the attacker before any thread of this process exists.
    pid_t startAttacker(unsigned attacks, std::chrono::seconds duration) {
        const pid_t child = ::fork();
        if (child == 0) attack(at, attacks, 20240611, duration);
        return child;
    }

    static void stopAttacker(pid_t attacker) {
        ::kill(attacker, SIGKILL);
        ::waitpid(attacker, nullptr, 0);
    }

    void expectNothingOutsideChanged() {
        EXPECT_EQ(treeState(at.outside, true), outsideBefore);
        EXPECT_EQ(treeState(at.secret, true), secretBefore);
        std::set<fs::path> topLevel;
        for (const auto& item : fs::directory_iterator(base)) topLevel.insert(item.path().filename());
        topLevel.erase("app");  // the application's own folders, made by the runs
        EXPECT_EQ(topLevel, topLevelBefore);
    }

    TemporaryDirectory work;
    MountSandbox mounts;  // undone before the temporary folder goes
    fs::path base;
    Layout at;
    std::map<std::string, std::string> outsideBefore;
    std::map<std::string, std::string> secretBefore;
    std::set<fs::path> topLevelBefore;
};

TEST_F(SymlinkAttacker, MirrorRunsUnderAttackNeverReachOutsideNorCopyTheSecret) {
    const pid_t attacker = startAttacker(everyAttack, kAttackTime);
    ASSERT_GT(attacker, 0);
    EngineHarness harness(base / "app");
    const Uuid id = harness.addProfile(at.source, at.destination, SyncMode::mirror);

    // Run after run until the attacker is done, each run with new work: some files
    // rewritten, some removed (for the archive), some new.
    std::mt19937 random(7);
    int runs = 0;
    int reported = 0;
    int filesWritten = 0;
    const auto end = Clock::now() + kAttackTime;
    for (int generation = 1; Clock::now() < end; ++generation) {
        for (int i = 0; i < 300; ++i) {
            const int folder = static_cast<int>(random() % kFolders);
            const int file = static_cast<int>(random() % kFilesPerFolder);
            rewriteNoFollow(at.source / folderName(folder) / fileName(file), contents(folder, file, generation));
        }
        const fs::path added = at.source / folderName(generation % kFolders) / ("added-" + std::to_string(generation));
        writeTextFile(added, "added in generation " + std::to_string(generation));
        std::error_code ignored;
        fs::remove(at.source / folderName((generation + 1) % kFolders) / ("added-" + std::to_string(generation - 1)),
                   ignored);
        try {
            auto outcome = harness.application->analyze(id);
            // The attack ends on time: a run still going then is stopped.
            CancellationFlag flag;
            const std::jthread stopAtTheEnd([&](std::stop_token stop) {
                while (!stop.stop_requested() && Clock::now() < end) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                }
                if (!stop.stop_requested()) flag.cancel();
            });
            const SyncRunResult result = harness.synchronize(outcome, flag);
            reported += static_cast<int>(result.errors.size() + result.warnings.size());
            filesWritten += result.filesCopied + result.filesUpdated;
        } catch (const SyncError&) {
            ++reported;  // a refused run is reported, not a crash
        }
        ++runs;
    }
    stopAttacker(attacker);

    // First, so that a failure below comes with the figures of the runs behind it.
    std::cout << "symlink attacker: " << runs << " Mirror runs, " << filesWritten << " files written, " << reported
              << " errors and warnings reported\n";
    expectNothingOutsideChanged();
    int secretCopies = 0;
    std::error_code ignoredError;
    for (const auto& item : fs::recursive_directory_iterator(at.destination)) {
        // Links are copied as links: only what a file holds counts.
        if (item.symlink_status(ignoredError).type() == fs::file_type::regular &&
            readTextFile(item.path()).find(kSecret) != std::string::npos) {
            ++secretCopies;
            ADD_FAILURE() << "the secret was copied to " << item.path();
        }
    }
    EXPECT_EQ(secretCopies, 0);
    EXPECT_GT(runs, 1);
    EXPECT_GT(filesWritten, 5'000) << "the runs copied too little for the attack to mean anything";
    EXPECT_GT(reported, 0) << "the engine reported nothing although it was attacked";
}

// The same attacker against a writer that joins paths as strings and opens them: it
// must be led out of the destination, or the test above proves nothing.
TEST_F(SymlinkAttacker, ANaivePathWriterEscapesUnderTheSameAttacker) {
    for (int folder = 0; folder < kFolders; ++folder) fs::create_directories(at.destination / folderName(folder));
    const pid_t attacker = startAttacker(swapFolders | plantLinks, kNaiveWriterLimit);
    ASSERT_GT(attacker, 0);
    bool escaped = false;
    const auto end = Clock::now() + kNaiveWriterLimit;
    for (int round = 0; !escaped && Clock::now() < end; ++round) {
        for (int folder = 0; folder < kFolders; ++folder) {
            for (int file = 0; file < kFilesPerFolder; file += 10) {
                const std::string path = at.destination.string() + "/" + folderName(folder) + "/" + fileName(file);
                const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
                if (fd < 0) continue;
                [[maybe_unused]] const auto written = ::write(fd, "naive", 5);
                ::close(fd);
            }
        }
        escaped = treeState(at.outside, true) != outsideBefore;
    }
    stopAttacker(attacker);
    EXPECT_TRUE(escaped) << "the attacker never led a path-based writer outside: the attack is not real";
}

}  // namespace
}  // namespace varnel::testing

// Copies one large file and a folder of many small files with FileCopyEngine in each
// durability mode, and the same data with cp(1), and prints the times and their ratios.
//
//   build/bench/copy_bench [--dir PATH] [--large-mib 1024] [--files 10000] [--file-bytes 4096] [--rounds 2]
//                          [--mode fast|durable|maximum]   (default: all three)
//
// The source data is generated once (incompressible bytes, really allocated, no holes)
// and stays in the page cache, so both sides read from memory and the comparison is
// about writing. Each measurement removes its destination first; the best of `rounds`
// runs is kept. cp is the system's, with its defaults (reflink where possible, like the
// engine). Verification is off, as cp has none.

#include "common/MonotonicClock.hpp"
#include "scan/RealFileSystem.hpp"
#include "transfer/FileCopyEngine.hpp"
#include "transfer/POSIXFileFlusher.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <vector>

using namespace varnel;
namespace fs = std::filesystem;

namespace {

struct Arguments {
    std::string directory;
    long largeMiB = 1024;
    long files = 10'000;
    long fileBytes = 4096;
    int rounds = 2;
    std::vector<DurabilityMode> modes{DurabilityMode::fast, DurabilityMode::durable, DurabilityMode::maximum};
};

Arguments parse(int argc, char** argv) {
    Arguments arguments;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        const bool hasValue = i + 1 < argc;
        if (flag == "--dir" && hasValue) arguments.directory = argv[++i];
        else if (flag == "--large-mib" && hasValue) arguments.largeMiB = std::atol(argv[++i]);
        else if (flag == "--files" && hasValue) arguments.files = std::atol(argv[++i]);
        else if (flag == "--file-bytes" && hasValue) arguments.fileBytes = std::atol(argv[++i]);
        else if (flag == "--rounds" && hasValue) arguments.rounds = std::max(1, std::atoi(argv[++i]));
        else if (flag == "--mode" && hasValue) {
            const auto mode = parseDurabilityMode(argv[++i]);
            if (!mode) {
                std::fprintf(stderr, "unknown mode %s (fast, durable, maximum)\n", argv[i]);
                std::exit(2);
            }
            arguments.modes = {*mode};
        } else {
            std::fprintf(stderr, "usage: copy_bench [--dir PATH] [--large-mib N] [--files N] [--file-bytes N] "
                                 "[--rounds N] [--mode fast|durable|maximum]\n");
            std::exit(2);
        }
    }
    if (arguments.directory.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        arguments.directory = std::string(tmp && *tmp ? tmp : "/tmp") + "/varnel-copy-bench";
    }
    return arguments;
}

void writeFile(const fs::path& path, std::size_t size, unsigned seed) {
    std::vector<char> block(1 << 20);
    unsigned value = seed;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::perror(path.c_str());
        std::exit(1);
    }
    for (std::size_t written = 0; written < size;) {
        for (auto& byte : block) {
            value = value * 1103515245u + 12345u;
            byte = static_cast<char>(value >> 16);
        }
        const std::size_t step = std::min(block.size(), size - written);
        if (::write(fd, block.data(), step) != static_cast<ssize_t>(step)) {
            std::perror("write");
            std::exit(1);
        }
        written += step;
    }
    ::close(fd);
}

double seconds(const std::function<void()>& work) {
    const SteadyMonotonicClock clock;
    const auto start = clock.nanoseconds();
    work();
    return MonotonicClock::secondsBetween(start, clock.nanoseconds());
}

void runCp(const fs::path& from, const fs::path& to, bool recursive) {
    const pid_t child = ::fork();
    if (child == 0) {
        if (recursive) ::execlp("cp", "cp", "-r", from.c_str(), to.c_str(), static_cast<char*>(nullptr));
        else ::execlp("cp", "cp", from.c_str(), to.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "cp failed\n");
        std::exit(1);
    }
}

// Best of `rounds`; `prepare` runs untimed before each round.
double best(int rounds, const std::function<void()>& prepare, const std::function<void()>& work) {
    double fastest = std::numeric_limits<double>::max();
    for (int round = 0; round < rounds; ++round) {
        prepare();
        ::sync();  // start each round without dirty pages of the previous one
        fastest = std::min(fastest, seconds(work));
    }
    return fastest;
}

FileCopyEngine engineFor(const std::shared_ptr<RealFileSystem>& fileSystem, DurabilityMode mode,
                         const fs::path& source, const fs::path& destination) {
    FileCopyEngine engine;
    engine.fileSystem = fileSystem;
    engine.flusher = std::make_shared<POSIXFileFlusher>();
    engine.durabilityMode = mode;
    engine.verificationMode = VerificationMode::none;
    engine.sourceRoot = fileSystem->openRoot(source.string());
    engine.destinationRoot = fileSystem->openRoot(destination.string());
    return engine;
}

SyncAction newFile(const FileCopyEngine& engine, const std::string& name) {
    SyncAction action;
    action.type = SyncActionType::copyNewFile;
    action.relativePath = *RelativePath::fromString(name);
    action.sourceEntry = SharedEntry(engine.fileSystem->entry(engine.sourceRoot, action.relativePath));
    return action;
}

void recreate(const fs::path& folder) {
    fs::remove_all(folder);
    fs::create_directories(folder);
}

}  // namespace

int main(int argc, char** argv) {
    const Arguments arguments = parse(argc, argv);
    const fs::path root = arguments.directory;
    const fs::path large = root / "large-src";
    const fs::path small = root / "small-src";
    const fs::path out = root / "out";
    recreate(root);
    fs::create_directories(large);
    fs::create_directories(small);
    std::fprintf(stderr, "generating %ld MiB and %ld files of %ld bytes in %s ...\n", arguments.largeMiB,
                 arguments.files, arguments.fileBytes, root.c_str());
    writeFile(large / "large.bin", static_cast<std::size_t>(arguments.largeMiB) << 20, 1);
    std::vector<std::string> names;
    for (long i = 0; i < arguments.files; ++i) {
        names.push_back("f" + std::to_string(i));
        writeFile(small / names.back(), static_cast<std::size_t>(arguments.fileBytes), static_cast<unsigned>(i));
    }
    ::sync();

    const auto fileSystem = std::make_shared<RealFileSystem>();
    const double cpLarge = best(arguments.rounds, [&] { recreate(out); }, [&] { runCp(large / "large.bin", out / "large.bin", false); });
    const double cpSmall = best(arguments.rounds, [&] { fs::remove_all(out); }, [&] { runCp(small, out, true); });

    std::printf("| workload | mode | Varnel Sync | cp | ratio (Varnel / cp) |\n|---|---|---|---|---|\n");
    for (const auto mode : arguments.modes) {
        const double engineLarge = best(arguments.rounds, [&] { recreate(out); }, [&] {
            const auto engine = engineFor(fileSystem, mode, large, out);
            engine.copyFile(newFile(engine, "large.bin"), {}, {});
        });
        const double engineSmall = best(arguments.rounds, [&] { recreate(out); }, [&] {
            const auto engine = engineFor(fileSystem, mode, small, out);
            for (const auto& name : names) engine.copyFile(newFile(engine, name), {}, {});
        });
        const auto modeName = std::string(toString(mode));
        std::printf("| %ld MiB file | %s | %.3f s (%.0f MiB/s) | %.3f s | %.2f |\n", arguments.largeMiB,
                    modeName.c_str(), engineLarge, static_cast<double>(arguments.largeMiB) / engineLarge, cpLarge,
                    engineLarge / cpLarge);
        std::printf("| %ld files of %ld B | %s | %.3f s (%.0f files/s) | %.3f s | %.2f |\n", arguments.files,
                    arguments.fileBytes, modeName.c_str(), engineSmall,
                    static_cast<double>(arguments.files) / engineSmall, cpSmall, engineSmall / cpSmall);
        std::fflush(stdout);
    }
    fs::remove_all(root);
    return 0;
}

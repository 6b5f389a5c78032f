// Hashes one file with the engine's SHA-256 the way verification does
// (RealFileSystem::sha256: 1 MiB reads through one buffer, OpenSSL's SHA-256) and prints
// the digest and the speed, for comparison with `openssl dgst -sha256` and `sha256sum`.
//
//   build/bench/sha_bench FILE [--rounds N]
//
// The file is read as it is: warm the page cache first (cat FILE >/dev/null) to measure
// hashing rather than the disk. With several rounds, the fastest is printed.
// Output, one line: "<hex digest>  <bytes> bytes  <seconds> s  <MB/s> MB/s".

#include "common/MonotonicClock.hpp"
#include "scan/RealFileSystem.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <limits>
#include <string>

using namespace varnel;
namespace fs = std::filesystem;

int main(int argc, char** argv) {
    std::string file;
    int rounds = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--rounds" && i + 1 < argc) rounds = std::max(1, std::atoi(argv[++i]));
        else if (file.empty() && argument.rfind("--", 0) != 0) file = argument;
        else {
            std::fprintf(stderr, "usage: %s FILE [--rounds N]\n", argv[0]);
            return 2;
        }
    }
    if (file.empty()) {
        std::fprintf(stderr, "usage: %s FILE [--rounds N]\n", argv[0]);
        return 2;
    }
    try {
        const fs::path path = fs::absolute(file);
        const auto name = RelativePath::fromString(path.filename().string());
        if (!name) {
            std::fprintf(stderr, "%s: not a usable file name\n", file.c_str());
            return 2;
        }
        RealFileSystem fileSystem;
        // The engine addresses files beneath an open root, so open the file's folder.
        const auto root = fileSystem.openRoot(path.parent_path().string());
        const auto bytes = fs::file_size(path);
        SteadyMonotonicClock clock;
        double fastest = std::numeric_limits<double>::max();
        Sha256Digest digest{};
        for (int round = 0; round < rounds; ++round) {
            const auto start = clock.nanoseconds();
            digest = fileSystem.sha256(root, *name, HashOptions{}, {});
            fastest = std::min(fastest, MonotonicClock::secondsBetween(start, clock.nanoseconds()));
        }
        std::printf("%s  %llu bytes  %.4f s  %.1f MB/s\n", toHex(digest).c_str(),
                    static_cast<unsigned long long>(bytes), fastest,
                    fastest > 0 ? static_cast<double>(bytes) / fastest / 1e6 : 0.0);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sha_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}

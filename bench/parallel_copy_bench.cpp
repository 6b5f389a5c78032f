// How many copies should run at once? Copies the same set of files into a fresh folder
// with 1, 2, 3, ... threads, each thread taking the next file and copying it with plain
// open/read/write (optionally fdatasync, as the Durable mode does), and prints files per
// second and MB/s per thread count. The results justify TransferScheduler's limits.
//
//   build/bench/parallel_copy_bench [--files N] [--size BYTES] [--folders K]
//                                   [--threads 1,2,4,6,8] [--sync] [--rounds R]
//                                   [--dir PATH] [--keep]
//
// Files are spread over K folders (default 1); creating files in one folder takes that
// folder's lock, so parallel copies into a single folder partly wait for each other.
//
// Source and copies lie in one folder tree, so this is the same-volume case. The source
// is read once before timing, so reads come from the page cache; with --sync every copy
// is flushed to the device before it counts.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Arguments {
    long files = 5000;
    long size = 16 * 1024;
    long folders = 1;
    std::vector<int> threads{1, 2, 3, 4, 6, 8};
    bool sync = false;
    int rounds = 3;
    std::string directory;
    bool keep = false;
};

[[noreturn]] void usage() {
    std::fprintf(stderr,
                 "usage: parallel_copy_bench [--files N] [--size BYTES] [--folders K] [--threads 1,2,4] [--sync] [--rounds R] "
                 "[--dir PATH] [--keep]\n");
    std::exit(2);
}

Arguments parse(int argc, char** argv) {
    Arguments arguments;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        const bool hasValue = i + 1 < argc;
        if (flag == "--files" && hasValue) {
            arguments.files = std::atol(argv[++i]);
        } else if (flag == "--folders" && hasValue) {
            arguments.folders = std::atol(argv[++i]);
        } else if (flag == "--size" && hasValue) {
            arguments.size = std::atol(argv[++i]);
        } else if (flag == "--threads" && hasValue) {
            arguments.threads.clear();
            std::stringstream list(argv[++i]);
            for (std::string item; std::getline(list, item, ',');) arguments.threads.push_back(std::atoi(item.c_str()));
        } else if (flag == "--sync") {
            arguments.sync = true;
        } else if (flag == "--rounds" && hasValue) {
            arguments.rounds = std::max(1, std::atoi(argv[++i]));
        } else if (flag == "--dir" && hasValue) {
            arguments.directory = argv[++i];
        } else if (flag == "--keep") {
            arguments.keep = true;
        } else {
            usage();
        }
    }
    if (arguments.files <= 0 || arguments.size < 0 || arguments.folders <= 0 || arguments.threads.empty()) usage();
    if (arguments.directory.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        arguments.directory = std::string(tmp && *tmp ? tmp : "/tmp") + "/varnel-parallel-copy-bench";
    }
    return arguments;
}

[[noreturn]] void fail(const char* what, const std::string& path) {
    std::fprintf(stderr, "%s failed for %s: %s\n", what, path.c_str(), std::strerror(errno));
    std::exit(1);
}

void writeAll(int fd, const char* data, std::size_t length, const std::string& path) {
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written < 0) {
            if (errno == EINTR) continue;
            fail("write", path);
        }
        data += written;
        length -= static_cast<std::size_t>(written);
    }
}

long folderCount = 1;

// "d<k>/f<i>": file i lies in folder i mod K.
std::string nameOf(long index) {
    return "d" + std::to_string(index % folderCount) + "/f" + std::to_string(index);
}

void makeFolders(const std::string& root) {
    for (long k = 0; k < folderCount; ++k) std::filesystem::create_directories(root + "/d" + std::to_string(k));
}

void makeSource(const std::string& folder, long files, long size) {
    makeFolders(folder);
    std::string data(static_cast<std::size_t>(size), 'x');
    for (long i = 0; i < files; ++i) {
        const std::string path = folder + "/" + nameOf(i);
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) fail("open", path);
        writeAll(fd, data.data(), data.size(), path);
        ::close(fd);
    }
}

void copyOne(const std::string& from, const std::string& to, bool sync, std::vector<char>& buffer) {
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) fail("open", from);
    const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (out < 0) fail("open", to);
    for (;;) {
        const ssize_t got = ::read(in, buffer.data(), buffer.size());
        if (got < 0) {
            if (errno == EINTR) continue;
            fail("read", from);
        }
        if (got == 0) break;
        writeAll(out, buffer.data(), static_cast<std::size_t>(got), to);
    }
    if (sync && ::fdatasync(out) != 0) fail("fdatasync", to);
    ::close(out);
    ::close(in);
}

double copyAll(const std::string& source, const std::string& target, long files, int threadCount, bool sync) {
    makeFolders(target);
    std::atomic<long> next{0};
    const auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threadCount; ++t) {
        workers.emplace_back([&] {
            std::vector<char> buffer(1 << 20);
            for (long i = next++; i < files; i = next++) {
                copyOne(source + "/" + nameOf(i), target + "/" + nameOf(i), sync, buffer);
            }
        });
    }
    for (auto& worker : workers) worker.join();
    if (sync) {
        // The folder entries too, as a durable run flushes the folders it wrote into.
        for (long k = 0; k < folderCount; ++k) {
            const std::string folder = target + "/d" + std::to_string(k);
            const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (fd < 0 || ::fsync(fd) != 0) fail("fsync", folder);
            ::close(fd);
        }
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    const Arguments arguments = parse(argc, argv);
    folderCount = arguments.folders;
    const std::string source = arguments.directory + "/source";
    std::filesystem::remove_all(arguments.directory);
    makeSource(source, arguments.files, arguments.size);
    ::sync();

    std::printf("%ld files of %ld bytes in %ld folder(s), %s, %u processors, median of %d rounds\n\n", arguments.files,
                arguments.size, arguments.folders, arguments.sync ? "fdatasync per file" : "no flush", std::thread::hardware_concurrency(),
                arguments.rounds);
    // Rounds outermost, so that whatever else the machine is doing spreads evenly over
    // the thread counts; the median of each is reported.
    std::vector<std::vector<double>> rates(arguments.threads.size());
    for (int round = 0; round < arguments.rounds; ++round) {
        for (std::size_t t = 0; t < arguments.threads.size(); ++t) {
            const std::string target = arguments.directory + "/copy";
            const double seconds =
                copyAll(source, target, arguments.files, std::max(1, arguments.threads[t]), arguments.sync);
            rates[t].push_back(static_cast<double>(arguments.files) / seconds);
            std::filesystem::remove_all(target);
            ::sync();  // so write-back of one measurement does not slow the next
        }
    }
    std::printf("| threads | files/s (median) | MB/s | vs 1st row | min–max files/s |\n|---|---|---|---|---|\n");
    double first = 0;
    for (std::size_t t = 0; t < arguments.threads.size(); ++t) {
        auto& samples = rates[t];
        std::sort(samples.begin(), samples.end());
        const double median = samples[samples.size() / 2];
        if (t == 0) first = median;
        std::printf("| %d | %.0f | %.1f | %.2f× | %.0f–%.0f |\n", arguments.threads[t], median,
                    median * static_cast<double>(arguments.size) / 1e6, median / first, samples.front(),
                    samples.back());
    }
    if (!arguments.keep) std::filesystem::remove_all(arguments.directory);
    return 0;
}

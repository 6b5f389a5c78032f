#include "support/GenerationTree.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace varnel::testing {

namespace {

namespace fs = std::filesystem;

std::uint64_t fnv1a(const std::string& text) {
    std::uint64_t hash = 1469598103934665603ULL;
    for (const unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ULL;
    }
    return hash;
}

std::uint64_t splitmix(std::uint64_t& state) {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

// A small file's size: a few hundred to a few thousand bytes, fixed by the path.
std::int64_t smallSize(const std::string& path) { return 200 + static_cast<std::int64_t>(fnv1a(path) % 3000); }

void setTimes(const fs::path& path, const GenerationTree::Item& item) {
    const timespec times[2] = {{item.mtimeSeconds, item.mtimeNanoseconds}, {item.mtimeSeconds, item.mtimeNanoseconds}};
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
        throw std::runtime_error("cannot set the times of " + path.string() + ": " + std::strerror(errno));
    }
}

}  // namespace

GenerationTree::GenerationTree(Shape shape) : shape_(shape) {
    generations_[0];
    generations_[1];
    for (int f = 0; f < shape_.folders; ++f) {
        const std::string folder = "dir" + std::to_string(f);
        for (const int g : {0, 1}) {
            add(g, folder, Item{Kind::folder});
            add(g, folder + "/sub", Item{Kind::folder});
        }
        for (int i = 0; i < shape_.filesPerKind; ++i) {
            // Alternate between the folder and its sub-folder.
            const std::string at = (i % 2 == 0 ? folder : folder + "/sub") + "/";
            const std::string n = std::to_string(i);
            addFile(at + "same-" + n + ".txt", 0, 0, true, true);
            addFile(at + "grow-" + n + ".bin", 0, 1, true, true, 777);
            addFile(at + "edit-" + n + ".txt", 0, 1, true, true);
            addFile(at + "new-" + n + ".txt", 1, 1, false, true);
            addFile(at + "gone-" + n + ".txt", 0, 0, true, false);
        }
    }
    addFile("top.txt", 0, 1, true, true, 123);

    add(1, "newdir", Item{Kind::folder});
    add(1, "newdir/deeper", Item{Kind::folder});
    addFile("newdir/a.txt", 1, 1, false, true);
    addFile("newdir/deeper/b.txt", 1, 1, false, true);

    add(0, "olddir", Item{Kind::folder});
    addFile("olddir/x.txt", 0, 0, true, false);
    addFile("olddir/y.txt", 0, 0, true, false);

    addFile("typechange", 0, 0, true, false);
    add(1, "typechange", Item{Kind::folder});
    addFile("typechange/inner.txt", 1, 1, false, true);

    if (shape_.symbolicLinks) {
        for (const int g : {0, 1}) {
            add(g, "link-same", Item{Kind::symbolicLink, 0, 0, "dir0/same-0.txt"});
            add(g, "link-changed", Item{Kind::symbolicLink, g, 0, g == 0 ? "top.txt" : "dir0/new-0.txt"});
        }
    }
    if (shape_.largeFileBytes > 0) {
        for (const int g : {0, 1}) add(g, "big.bin", Item{Kind::file, g, shape_.largeFileBytes + g * 4097});
    }
}

void GenerationTree::add(int generation, const std::string& path, Item item) {
    const std::uint64_t hash = fnv1a(path + "@" + std::to_string(item.version));
    item.mtimeSeconds = 1'600'000'000 + static_cast<std::int64_t>(hash % 50'000'000) + item.version * 1'000'000;
    item.mtimeNanoseconds = static_cast<std::int64_t>((hash >> 32) % 1'000'000'000);
    generations_[generation][path] = std::move(item);
}

void GenerationTree::addFile(const std::string& path, int version0, int version1, bool in0, bool in1,
                             std::int64_t growBy) {
    const std::int64_t size = smallSize(path);
    if (in0) add(0, path, Item{Kind::file, version0, size});
    if (in1) add(1, path, Item{Kind::file, version1, version1 != version0 ? size + growBy : size});
}

std::optional<GenerationTree::Item> GenerationTree::item(const std::string& path, int generation) const {
    const auto& items = generations_.at(generation);
    const auto found = items.find(path);
    if (found == items.end()) return std::nullopt;
    return found->second;
}

const std::string& GenerationTree::expectedContents(const std::string& path, int generation) const {
    static const std::string none;
    const auto found = item(path, generation);
    if (!found || found->kind != Kind::file) return none;
    const auto key = std::make_pair(path, found->version);
    auto cached = contentsCache_.find(key);
    if (cached == contentsCache_.end()) {
        cached = contentsCache_.emplace(key, contents(path, found->version, found->size)).first;
    }
    return cached->second;
}

std::string GenerationTree::contents(const std::string& path, int version, std::int64_t size) {
    std::string bytes = path + "@" + std::to_string(version) + "\n";
    bytes.resize(static_cast<std::size_t>(size), '\0');
    std::uint64_t state = fnv1a(path) ^ (static_cast<std::uint64_t>(version) * 0x9E3779B97F4A7C15ULL);
    for (std::size_t i = std::min(bytes.size(), path.size() + 16); i < bytes.size(); i += 8) {
        const std::uint64_t word = splitmix(state);
        std::memcpy(bytes.data() + i, &word, std::min<std::size_t>(8, bytes.size() - i));
    }
    return bytes;
}

void GenerationTree::write(const fs::path& root, int generation) const {
    fs::create_directories(root);
    const auto& items = generations_.at(generation);
    // Parents sort before their children, so folders exist before what they hold.
    for (const auto& [path, item] : items) {
        const fs::path target = root / path;
        switch (item.kind) {
            case Kind::folder: fs::create_directory(target); break;
            case Kind::symbolicLink: fs::create_symlink(item.target, target); break;
            case Kind::file: {
                const std::string& bytes = expectedContents(path, generation);
                const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
                if (fd < 0) throw std::runtime_error("cannot create " + target.string() + ": " + std::strerror(errno));
                const bool complete =
                    ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
                ::close(fd);
                if (!complete) throw std::runtime_error("cannot write " + target.string());
                break;
            }
        }
        if (item.kind != Kind::folder) setTimes(target, item);
    }
}

std::vector<std::string> GenerationTree::archivedFiles() const {
    std::vector<std::string> paths;
    for (const auto& [path, item] : generations_.at(0)) {
        if (item.kind == Kind::folder) continue;
        const auto later = this->item(path, 1);
        if (!later || later->kind != item.kind) paths.push_back(path);
    }
    return paths;
}

}  // namespace varnel::testing

#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace varnel::testing {

// A source tree in two generations for crash and fault tests. Every file's bytes, size
// and modification time are a function of its path and a version number, so a checker
// can recompute what each file must hold instead of remembering it. Between generation
// 0 and generation 1 the tree changes the way a Mirror run has to follow:
//
//   same-*      unchanged files            grow-*   modified, new size
//   edit-*      modified, same size        new-*    new in generation 1
//   gone-*      deleted in generation 1    olddir/  a deleted folder with files
//   newdir/     a new folder tree          typechange  a file that becomes a folder
//   link-same   an unchanged link          link-changed  a link whose target changes
//   big.bin     (Shape::largeFileBytes > 0) a modified file larger than one copy block
//
// Names never start with "." (hidden-file policies play no part) and never parse as
// staging names.
class GenerationTree {
public:
    struct Shape {
        int folders = 2;         // top-level folders "dir0"…, each with a sub-folder "sub"
        int filesPerKind = 2;    // files of each kind (same, grow, edit, new, gone) per folder
        std::int64_t largeFileBytes = 0;
        bool symbolicLinks = true;
    };

    enum class Kind { file, folder, symbolicLink };

    // One item of one generation. A file's bytes are contents(path, version, size).
    struct Item {
        Kind kind = Kind::file;
        int version = 0;         // bumped where generation 1 changes the item
        std::int64_t size = 0;   // files
        std::string target{};    // links
        std::int64_t mtimeSeconds = 0;
        std::int64_t mtimeNanoseconds = 0;
        friend bool operator==(const Item&, const Item&) = default;
    };

    explicit GenerationTree(Shape shape);
    GenerationTree() : GenerationTree(Shape{}) {}

    // The items of generation 0 or 1 by relative path ("dir0/sub/grow-1.bin").
    const std::map<std::string, Item>& generation(int number) const { return generations_.at(number); }
    // The item at `path` in a generation, if any.
    std::optional<Item> item(const std::string& path, int generation) const;
    // The bytes of the file at `path` in a generation (cached); empty for non-files.
    const std::string& expectedContents(const std::string& path, int generation) const;

    // The bytes a file of this path, version and size holds: a "path@version" line, then
    // bytes from a generator seeded by both.
    static std::string contents(const std::string& path, int version, std::int64_t size);

    // Writes the generation into `root` (created when missing; it must hold nothing of the
    // tree yet), with each file's and link's modification time.
    void write(const std::filesystem::path& root, int generation) const;

    // Paths of generation 0's files that are not a file of the same path in generation 1:
    // what a Mirror run moves into its archive.
    std::vector<std::string> archivedFiles() const;

private:
    void add(int generation, const std::string& path, Item item);
    void addFile(const std::string& path, int version0, int version1, bool in0, bool in1, std::int64_t growBy = 0);

    Shape shape_;
    std::map<int, std::map<std::string, Item>> generations_;
    mutable std::map<std::pair<std::string, int>, std::string> contentsCache_;
};

}  // namespace varnel::testing

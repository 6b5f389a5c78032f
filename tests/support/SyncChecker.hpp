#pragma once

#include "support/GenerationTree.hpp"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace varnel::testing {

// What a sync from a GenerationTree source must leave behind, checked the same way
// after a killed process, a power cut, a full disk or an I/O error:
//
// - every destination file is exactly generation 0 or generation 1 of its path (never
//   empty, torn, or a mix), every link has one of its two targets, and nothing is there
//   that neither generation has;
// - every leftover parses as a staging name (and is a file or a link);
// - each file that generation 1 takes out of the destination is either in place or in
//   one archive run folder (".VarnelSync-Archive/<profile>/<run>/<path>", with its
//   generation 0 bytes), never both and never neither; the archive holds nothing else;
// - the folder `outside` (a sentinel beside the destination) is unchanged;
// - the source is unchanged, down to every item's ctime and inode.
//
// After a complete run (Moment::complete) the destination must moreover equal
// generation 1 exactly, with no leftovers.
//
//     SyncChecker checker(tree, source, destination, outside);   // snapshots now
//     ... interrupt a run ...
//     EXPECT_EQ(checker.check(SyncChecker::Moment::interrupted), std::vector<std::string>{});
class SyncChecker {
public:
    enum class Moment { interrupted, complete };

    // Snapshots the source and the outside folder as they are now: the state to compare
    // against. The source must hold generation `sourceGeneration` of the tree.
    SyncChecker(const GenerationTree& tree, std::filesystem::path source, std::filesystem::path destination,
                std::filesystem::path outside, int sourceGeneration = 1);

    // Every violation, one sentence each; empty when everything holds.
    std::vector<std::string> check(Moment moment) const;

    // Staging leftovers found by the last check (relative paths).
    const std::vector<std::string>& leftovers() const { return leftovers_; }

    // Stat facts (kind, mode, size, mtime, ctime, inode) and, for small files, a hash of
    // the bytes, for every item below `root` (relative path -> description).
    static std::map<std::string, std::string> snapshot(const std::filesystem::path& root);

private:
    void checkDestination(Moment moment, std::vector<std::string>& problems) const;
    void checkArchive(std::vector<std::string>& problems) const;

    const GenerationTree& tree_;
    std::filesystem::path source_;
    std::filesystem::path destination_;
    std::filesystem::path outside_;
    int sourceGeneration_;
    std::map<std::string, std::string> sourceSnapshot_;
    std::map<std::string, std::string> outsideSnapshot_;
    mutable std::vector<std::string> leftovers_;
};

// Every item below `folder` whose name parses as a staging name (relative paths).
std::vector<std::string> stagingItemsBelow(const std::filesystem::path& folder);


// What a tree holds: relative path -> "dir", "link:<target>", "special" or
// "file:<size>:<contents hash>" (with ":<mtime ns>" when asked). Never follows links;
// walks by names, so paths longer than PATH_MAX work too. A file as `root` is "".
std::map<std::string, std::string> treeState(const std::filesystem::path& root, bool withTimes = false);

// A checker's problems, one indented line each, for a failure message.
std::string joined(const std::vector<std::string>& lines);
// A whole number from the environment (a seed, a trial count), or `fallback` when unset.
long environmentNumber(const char* name, long fallback);

}  // namespace varnel::testing

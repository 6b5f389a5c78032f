#pragma once

#include "model/RelativePath.hpp"
#include "scan/DirectoryNames.hpp"
#include "scan/FileSystemEntry.hpp"
#include "scan/POSIXFileError.hpp"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace varnel {

// What one folder held: its names in listing order and, for each, its entry or why it
// could not be read; or why the folder itself could not be listed.
struct FolderListing {
    // A listing holds one per item of its folder until the walk has taken them, so a
    // rare failure is kept aside rather than making every child larger.
    struct Child {
        std::optional<FileSystemEntry> entry;  // holds the item's path
        // The item's path where it has no entry; none for a name that cannot be a path
        // component.
        std::optional<RelativePath> pathWithoutEntry;
        std::unique_ptr<POSIXFileError> failure;  // set when there is a path but no entry

        const RelativePath* path() const {
            if (entry) return &entry->relativePath;
            return pathWithoutEntry ? &*pathWithoutEntry : nullptr;
        }
    };
    std::optional<POSIXFileError> failure;  // opening or listing the folder failed
    DirectoryNames names;
    std::vector<Child> children;  // one per name
};

// Lists folders on helper threads ahead of a scan that takes them one by one, in the
// order it added them. A cold disk answers many requests at once far faster than one
// after another, while the scan's own order, and so every decision that depends on it,
// stays as it is without helpers. Helpers stay at most `maxAhead` folders ahead; a folder
// no helper has started yet is read by the scan itself.
//
// The helpers start once reading folders has made the disk read
// `diskBlocksBeforeHelping` blocks (at once for 0), or when told to (startHelping): when
// everything is in cache, reading is work for the processor alone, which the scan's
// thread does best without handing results between threads, unless a processor would
// otherwise stand idle. Started by the disk, they pause again after
// kQuietFoldersBeforePause folders in a row that the cache answered alone, and count
// blocks afresh: a cache that has lost a few stretches of a tree sends the scan to the
// disk for those only.
class FolderReadAhead {
public:
    // `read` should report problems in the listing rather than throw them. It is called
    // from several threads at once, each with its own number: 0 for the thread that
    // takes, 1 to `helpers` for the helpers.
    using Reader = std::function<FolderListing(const RelativePath& folder, std::size_t reader)>;
    // The disk blocks the calling thread has had read so far, or none where unknown.
    using DiskBlockCounter = std::optional<std::int64_t> (*)();

    static constexpr std::uint64_t kQuietFoldersBeforePause = 128;

    FolderReadAhead(Reader read, std::size_t helpers, std::size_t maxAhead, std::int64_t diskBlocksBeforeHelping,
                    DiskBlockCounter diskBlocks = nullptr);
    FolderReadAhead(const FolderReadAhead&) = delete;
    FolderReadAhead& operator=(const FolderReadAhead&) = delete;
    // Lets the helpers finish the folder each is reading, then joins them.
    ~FolderReadAhead();

    void add(const RelativePath& folder);
    // The listing of the oldest folder added and not yet taken; waits for a helper that is
    // reading it. Rethrows what a reader threw.
    FolderListing take();
    // Lets the helpers read ahead from now on, whatever the disk does. Safe from any thread.
    void startHelping();

private:
    struct Slot {
        RelativePath folder;
        bool done = false;
        FolderListing listing;
        std::exception_ptr failure;
    };

    void help(std::size_t reader);
    // Reads a folder and returns how many disk blocks that took, or none where unknown.
    std::pair<FolderListing, std::optional<std::int64_t>> readCounting(const RelativePath& folder,
                                                                      std::size_t reader);
    // Starts or pauses the helpers (there are some) by what one folder's reading needed;
    // under the lock. Returns whether they start.
    bool noteRead(std::optional<std::int64_t> blocks);
    void stop();

    Reader read_;
    std::mutex mutex_;
    // Two queues of waiters, so that a finished folder wakes only the thread waiting for
    // it and new room ahead wakes one helper: on a cold disk, every needless wake-up is
    // two more system calls per folder.
    std::condition_variable workForHelpers_;
    std::condition_variable folderRead_;
    const Slot* awaited_ = nullptr;  // the slot the taking thread waits for
    std::deque<std::shared_ptr<Slot>> slots_;  // added and not yet taken, in order
    std::uint64_t taken_ = 0;                   // folders taken so far
    std::uint64_t started_ = 0;                 // folders whose reading has begun (in order)
    std::uint64_t added_ = 0;
    std::size_t maxAhead_;
    std::int64_t blocksBeforeHelping_;
    DiskBlockCounter diskBlocks_;
    bool helping_;
    bool pausable_;                      // helping because the disk was read, not because told
    std::int64_t blocksSincePause_ = 0;  // while not helping
    std::uint64_t quietFolders_ = 0;     // in a row, while helping
    bool stopping_ = false;
    std::vector<std::thread> helpers_;
};

}  // namespace varnel

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
#include <vector>

namespace varnel {

// What one folder held: its names in listing order and, for each, its entry or why it
// could not be read; or why the folder itself could not be listed.
struct FolderListing {
    // A listing holds one per item of its folder until the walk has taken them, so a
    // rare failure is kept aside rather than making every child larger.
    struct Child {
        std::optional<RelativePath> path;  // none for a name that cannot be a path component
        std::optional<FileSystemEntry> entry;
        std::unique_ptr<POSIXFileError> failure;  // set when there is a path but no entry
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
// The helpers start once the scan's own reads have made the disk read
// `diskBlocksBeforeHelping` blocks (at once for 0), or when told to (startHelping): when
// everything is in cache, reading is work for the processor alone, which the scan's
// thread does best without handing results between threads, unless a processor would
// otherwise stand idle.
class FolderReadAhead {
public:
    // `read` should report problems in the listing rather than throw them. It is called
    // from several threads at once, each with its own number: 0 for the thread that
    // takes, 1 to `helpers` for the helpers.
    using Reader = std::function<FolderListing(const RelativePath& folder, std::size_t reader)>;

    FolderReadAhead(Reader read, std::size_t helpers, std::size_t maxAhead, std::int64_t diskBlocksBeforeHelping);
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
    FolderListing readHere(const RelativePath& folder);
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
    bool helping_;
    std::int64_t blocksReadHere_ = 0;  // by the taking thread, while reading folders itself
    bool stopping_ = false;
    std::vector<std::thread> helpers_;
};

}  // namespace varnel

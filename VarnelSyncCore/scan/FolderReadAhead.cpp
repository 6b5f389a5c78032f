#include "scan/FolderReadAhead.hpp"

#include "platform/ThreadDiskReads.hpp"

#include <tuple>
#include <utility>

namespace varnel {

FolderReadAhead::FolderReadAhead(Reader read, std::size_t helpers, std::size_t maxAhead,
                                 std::int64_t diskBlocksBeforeHelping, DiskBlockCounter diskBlocks)
    : read_(std::move(read)),
      maxAhead_(maxAhead > 0 ? maxAhead : 1),
      blocksBeforeHelping_(diskBlocksBeforeHelping),
      diskBlocks_(diskBlocks != nullptr ? diskBlocks : diskBlocksReadByThisThread),
      helping_(helpers > 0 && diskBlocksBeforeHelping <= 0),
      pausable_(false) {
    helpers_.reserve(helpers);
    try {
        for (std::size_t i = 1; i <= helpers; ++i) helpers_.emplace_back([this, i] { help(i); });
    } catch (...) {
        stop();  // the helpers already running
        throw;
    }
}

FolderReadAhead::~FolderReadAhead() { stop(); }

void FolderReadAhead::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    workForHelpers_.notify_all();
    for (std::thread& helper : helpers_) {
        if (helper.joinable()) helper.join();
    }
}

void FolderReadAhead::add(const RelativePath& folder) {
    bool helping = false;
    {
        const std::lock_guard lock(mutex_);
        slots_.push_back(std::make_shared<Slot>(Slot{folder, false, {}, nullptr}));
        ++added_;
        helping = helping_;
    }
    if (helping) workForHelpers_.notify_one();  // idle helpers have nothing to wake for
}

FolderListing FolderReadAhead::take() {
    std::unique_lock lock(mutex_);
    const std::shared_ptr<Slot> slot = slots_.front();
    slots_.pop_front();
    // Taking makes room for a waiting helper only when the helpers are `maxAhead_` folders
    // ahead, or when none is ahead at all and the walk reads this folder itself.
    const bool roomMade = started_ <= taken_ || started_ - taken_ >= maxAhead_;
    ++taken_;
    const bool helping = helping_;
    const bool readItHere = started_ < taken_;  // no helper has begun this one: quicker than waiting
    if (readItHere) started_ = taken_;
    lock.unlock();
    if (helping && roomMade) workForHelpers_.notify_one();
    if (readItHere) {
        if (helpers_.empty()) return read_(slot->folder, 0);  // nothing to start or pause
        auto [listing, blocks] = readCounting(slot->folder, 0);
        lock.lock();
        const bool starting = noteRead(blocks);
        lock.unlock();
        if (starting) workForHelpers_.notify_all();
        return std::move(listing);
    }

    lock.lock();
    awaited_ = slot.get();
    folderRead_.wait(lock, [&] { return slot->done; });
    awaited_ = nullptr;
    lock.unlock();
    if (slot->failure) std::rethrow_exception(slot->failure);
    return std::move(slot->listing);
}

std::pair<FolderListing, std::optional<std::int64_t>> FolderReadAhead::readCounting(const RelativePath& folder,
                                                                                   std::size_t reader) {
    const std::optional<std::int64_t> before = diskBlocks_();
    FolderListing listing = read_(folder, reader);
    const std::optional<std::int64_t> after = diskBlocks_();
    if (!before || !after) return {std::move(listing), std::nullopt};
    return {std::move(listing), *after - *before};
}

bool FolderReadAhead::noteRead(std::optional<std::int64_t> blocks) {
    if (helping_) {
        // Where the system does not say, every folder counts as read from the disk.
        if (blocks.value_or(1) > 0) {
            quietFolders_ = 0;
        } else if (pausable_ && ++quietFolders_ >= kQuietFoldersBeforePause) {
            helping_ = false;
            blocksSincePause_ = 0;
        }
        return false;
    }
    // Where the system does not say, the helpers help from the first folder on.
    blocksSincePause_ += blocks.value_or(blocksBeforeHelping_);
    if (blocksSincePause_ < blocksBeforeHelping_) return false;
    helping_ = true;
    pausable_ = true;
    quietFolders_ = 0;
    return true;
}

void FolderReadAhead::startHelping() {
    if (helpers_.empty()) return;
    {
        const std::lock_guard lock(mutex_);
        pausable_ = false;
        if (helping_) return;
        helping_ = true;
    }
    workForHelpers_.notify_all();
}

void FolderReadAhead::help(std::size_t reader) {
    std::unique_lock lock(mutex_);
    while (true) {
        workForHelpers_.wait(lock, [&] {
            return stopping_ || (helping_ && started_ < added_ && started_ - taken_ < maxAhead_);
        });
        if (stopping_) return;
        const std::shared_ptr<Slot> slot = slots_[started_ - taken_];
        ++started_;
        lock.unlock();
        FolderListing listing;
        std::optional<std::int64_t> blocks;
        std::exception_ptr failure;
        try {
            std::tie(listing, blocks) = readCounting(slot->folder, reader);
        } catch (...) {
            failure = std::current_exception();
        }
        lock.lock();
        if (noteRead(blocks)) workForHelpers_.notify_all();
        slot->listing = std::move(listing);
        slot->failure = failure;
        slot->done = true;
        if (awaited_ == slot.get()) {
            lock.unlock();
            folderRead_.notify_one();
            lock.lock();
        }
    }
}

}  // namespace varnel

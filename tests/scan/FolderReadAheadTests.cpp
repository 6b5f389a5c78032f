#include "scan/FolderReadAhead.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <future>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace varnel {
namespace {

// A warm cache never reaches the disk-read threshold, so the helpers wait until told;
// once told, they read ahead, and the walk still gets every folder in the order added.
TEST(FolderReadAheadTest, HelpersStartWhenToldAndTheOrderStays) {
    std::atomic<int> readByHelpers{0};
    std::promise<void> helperRead;
    std::atomic<bool> announced{false};
    const auto reader = [&](const RelativePath& folder, std::size_t reader) {
        FolderListing listing;
        listing.failure = POSIXFileError(EIO, "opendir", std::string(folder.value()));  // names the folder
        if (reader != 0) {
            ++readByHelpers;
            if (!announced.exchange(true)) helperRead.set_value();
        }
        return listing;
    };
    FolderReadAhead readAhead(reader, 2, 8, std::numeric_limits<std::int64_t>::max());
    std::vector<RelativePath> folders;
    for (int i = 0; i < 40; ++i) {
        folders.push_back(*RelativePath().appending("d" + std::to_string(i)));
        readAhead.add(folders.back());
    }
    for (int i = 0; i < 10; ++i) EXPECT_EQ(readAhead.take().failure->path(), folders[i].value());
    EXPECT_EQ(readByHelpers, 0) << "helpers read before they were wanted";

    readAhead.startHelping();
    ASSERT_EQ(helperRead.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    for (int i = 10; i < 40; ++i) EXPECT_EQ(readAhead.take().failure->path(), folders[i].value());
    EXPECT_GT(readByHelpers, 0);
}

// With one helper allowed one folder ahead, the helper stops after every folder until
// the walk takes one; each take must let it go on, or the walk ends up reading alone.
TEST(FolderReadAheadTest, AHelperAsFarAheadAsAllowedGoesOnOnceTheWalkTakes) {
    std::mutex mutex;
    std::condition_variable began;
    std::size_t begunByHelper = 0;
    const auto reader = [&](const RelativePath& folder, std::size_t reader) {
        if (reader != 0) {
            const std::lock_guard lock(mutex);
            ++begunByHelper;
            began.notify_all();
        }
        FolderListing listing;
        listing.failure = POSIXFileError(EIO, "opendir", std::string(folder.value()));
        return listing;
    };
    FolderReadAhead readAhead(reader, 1, 1, 0);
    std::vector<RelativePath> folders;
    for (int i = 0; i < 6; ++i) {
        folders.push_back(*RelativePath().appending("d" + std::to_string(i)));
        readAhead.add(folders.back());
    }
    for (std::size_t i = 0; i < folders.size(); ++i) {
        {
            std::unique_lock lock(mutex);
            ASSERT_TRUE(began.wait_for(lock, std::chrono::seconds(10), [&] { return begunByHelper > i; }))
                << "the helper did not go on to folder " << i;
        }
        EXPECT_EQ(readAhead.take().failure->path(), folders[i].value());
    }
}

// Folders named "disk…" cost the reading thread 8 disk blocks; the rest come from cache.
thread_local std::int64_t blocksReadHere = 0;

// Helpers that the disk started pause once the cache answers alone for long enough, start
// again when the disk is needed again, and never pause once told to help.
TEST(FolderReadAheadTest, HelpersStartedByTheDiskPauseWhileTheCacheAnswers) {
    std::mutex mutex;
    std::condition_variable helperRead;
    std::map<std::string, std::size_t> readBy;
    const auto reader = [&](const RelativePath& folder, std::size_t reader) {
        if (folder.value().starts_with("disk")) blocksReadHere += 8;
        {
            const std::lock_guard lock(mutex);
            readBy[std::string(folder.value())] = reader;
        }
        helperRead.notify_all();
        FolderListing listing;
        listing.failure = POSIXFileError(EIO, "opendir", std::string(folder.value()));
        return listing;
    };
    const auto counter = []() -> std::optional<std::int64_t> { return blocksReadHere; };
    FolderReadAhead readAhead(reader, 2, 8, 16, counter);

    std::vector<std::string> taken;
    const auto add = [&](const std::string& prefix, int count) {
        for (int i = 0; i < count; ++i) readAhead.add(*RelativePath().appending(prefix + std::to_string(i)));
    };
    const auto take = [&](int count) {
        for (int i = 0; i < count; ++i) taken.emplace_back(readAhead.take().failure->path());
    };
    // Whether a helper reads a folder named `prefix…` within ten seconds.
    const auto aHelperReads = [&](const std::string& prefix) {
        std::unique_lock lock(mutex);
        return helperRead.wait_for(lock, std::chrono::seconds(10), [&] {
            return std::any_of(readBy.begin(), readBy.end(),
                               [&](const auto& read) { return read.first.starts_with(prefix) && read.second != 0; });
        });
    };
    const auto readByTheWalk = [&](const std::string& prefix, int from, int to) {
        const std::lock_guard lock(mutex);
        for (int i = from; i < to; ++i) {
            if (readBy.at(prefix + std::to_string(i)) != 0) return false;
        }
        return true;
    };

    add("disk-a", 4);
    add("cached-a", 300);
    take(2);  // 16 blocks: the helpers start
    EXPECT_TRUE(aHelperReads("disk-a") || aHelperReads("cached-a"));
    take(302);
    EXPECT_TRUE(readByTheWalk("cached-a", 200, 300)) << "the helpers went on reading from the cache";

    add("disk-b", 4);
    add("cached-b", 20);
    take(1);
    EXPECT_TRUE(readByTheWalk("disk-b", 0, 1));
    take(1);
    EXPECT_TRUE(aHelperReads("disk-b") || aHelperReads("cached-b")) << "the disk did not start the helpers again";
    take(22);

    readAhead.startHelping();
    add("cached-c", 300);
    take(300);
    add("cached-d", 10);
    EXPECT_TRUE(aHelperReads("cached-d")) << "told to help, the helpers paused";
    take(10);

    ASSERT_EQ(taken.size(), 638u);
    EXPECT_EQ(taken[0], "disk-a0");
    EXPECT_EQ(taken[303], "cached-a299");
    EXPECT_EQ(taken[637], "cached-d9");
}

}  // namespace
}  // namespace varnel

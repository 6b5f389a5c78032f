#include "scan/FolderReadAhead.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <future>
#include <limits>
#include <mutex>
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

}  // namespace
}  // namespace varnel

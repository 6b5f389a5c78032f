// A failure injected at each step of a file's commit, for a new file and an update:
// the destination holds the old file (or nothing) or the complete new one, never a
// mix, and no staging file stays behind unless removing it was the step that failed.

#include "CopyEngineFixture.hpp"

#include <cerrno>
#include <iterator>
#include <ostream>
#include <sstream>
#include <tuple>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;

enum class Step {
    createStaging,
    copyData,
    writeFinalBlock,
    copyMetadata,
    flushFile,
    rename,
    flushFolder,
    verify,
    removeStaging,  // the clean-up after a failed rename fails too
};

std::ostream& operator<<(std::ostream& out, Step step) {
    static const char* const names[] = {"createStaging", "copyData", "writeFinalBlock", "copyMetadata", "flushFile",
                                        "rename",        "flushFolder", "verify",        "removeStaging"};
    return out << names[static_cast<int>(step)];
}

struct Expectation {
    bool committed;             // the destination holds the new file afterwards
    const char* errorCode;      // the run error, or nullptr for a success
    bool stagingLeftBehind;
};

Expectation expectationFor(Step step) {
    switch (step) {
        case Step::createStaging: return {false, "copy_failed", false};
        case Step::copyData: return {false, "copy_failed", false};
        case Step::writeFinalBlock: return {false, "copy_failed", false};
        case Step::copyMetadata: return {false, "metadata_failed", false};
        case Step::flushFile: return {false, "file_fsync_failed", false};
        case Step::rename: return {false, "atomic_replace_failed", false};
        case Step::flushFolder: return {true, nullptr, false};  // after the rename: a warning
        case Step::verify: return {false, "copy_failed", false};
        case Step::removeStaging: return {false, "atomic_replace_failed", true};
    }
    return {};
}

constexpr std::size_t kChunk = 64 * 1024;
const std::string kNewContents = [] {
    std::string data(4 * kChunk + 123, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('a' + i % 26);
    return data;
}();

class CommitSequenceTests : public CopyEngineFixture, public ::testing::WithParamInterface<std::tuple<Step, bool>> {
protected:
    void inject(Step step) {
        switch (step) {
            case Step::createStaging: fileSystem->failCall("copyFile", EACCES); break;
            case Step::copyData: fileSystem->failCopyWhenReached(static_cast<std::int64_t>(kChunk), EIO); break;
            case Step::writeFinalBlock:
                fileSystem->failCopyWhenReached(static_cast<std::int64_t>(kNewContents.size()), ENOSPC);
                break;
            case Step::copyMetadata: fileSystem->addMetadataProblem("permissions"); break;
            case Step::flushFile: flusher->failCall(FaultInjectingFlusher::file, EIO); break;
            case Step::rename: fileSystem->failCall("rename", EIO); break;
            case Step::flushFolder: flusher->failCall(FaultInjectingFlusher::directory, EIO); break;
            case Step::verify: fileSystem->failCall("sha256", EIO, 2); break;  // the staged copy's read
            case Step::removeStaging:
                fileSystem->failCall("rename", EXDEV);
                fileSystem->failCall("removeFile", EIO);
                break;
        }
    }
};

TEST_P(CommitSequenceTests, TheDestinationIsUntouchedOrCommittedNeverTorn) {
    const auto [step, isUpdate] = GetParam();
    const Expectation expected = expectationFor(step);
    engine.copyChunkBytes = kChunk;
    engine.metadataPolicy = MetadataPolicy::strict;
    temporary.writeFile("src/folder/file.bin", kNewContents);
    fs::create_directories(temporary / "dst/folder");
    if (isUpdate) temporary.writeFile("dst/folder/file.bin", "the old file");
    const auto action =
        planned(isUpdate ? SyncActionType::replaceChangedFile : SyncActionType::copyNewFile, "folder/file.bin");

    inject(step);
    std::optional<SyncError> error;
    std::optional<FileResult> result;
    try {
        result = copy(action);
    } catch (const SyncError& thrown) {
        error = thrown;
    }

    if (expected.errorCode) {
        ASSERT_TRUE(error.has_value()) << "the failure must not pass unnoticed";
        EXPECT_EQ(error->code(), expected.errorCode) << error->message();
    } else {
        ASSERT_TRUE(result.has_value()) << error->message();
        EXPECT_EQ(result->durabilityOutcome, DurabilityOutcome::uncertainDirectoryNotFlushed);
        EXPECT_TRUE(result->durabilityWarning.has_value());
    }

    const auto destination = temporary / "dst/folder/file.bin";
    if (expected.committed) {
        EXPECT_EQ(read("dst/folder/file.bin"), kNewContents);
    } else if (isUpdate) {
        EXPECT_EQ(read("dst/folder/file.bin"), "the old file");
    } else {
        EXPECT_FALSE(fs::exists(fs::symlink_status(destination)));
    }

    const auto leftovers = stagingItemsBelow(temporary / "dst");
    if (expected.stagingLeftBehind) {
        // Recognisable by its name, so the leftover clean-up can find it later.
        ASSERT_EQ(leftovers.size(), 1u);
        EXPECT_EQ(PartialFileNaming::parse(fs::path(leftovers[0]).filename().string())->intendedName, "file.bin");
    } else {
        EXPECT_EQ(leftovers, std::vector<std::string>{});
    }
    // Nothing else was written beside it under any other name.
    const auto written = std::distance(fs::directory_iterator(temporary / "dst/folder"), fs::directory_iterator());
    EXPECT_EQ(written, static_cast<long>(leftovers.size()) + (fs::exists(fs::symlink_status(destination)) ? 1 : 0));
}

INSTANTIATE_TEST_SUITE_P(EveryStep, CommitSequenceTests,
                         ::testing::Combine(::testing::Values(Step::createStaging, Step::copyData,
                                                              Step::writeFinalBlock, Step::copyMetadata,
                                                              Step::flushFile, Step::rename, Step::flushFolder,
                                                              Step::verify, Step::removeStaging),
                                            ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<Step, bool>>& info) {
                             std::ostringstream name;
                             name << std::get<0>(info.param) << (std::get<1>(info.param) ? "Update" : "NewFile");
                             return name.str();
                         });

}  // namespace
}  // namespace varnel::testing

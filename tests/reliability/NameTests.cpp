// Names other tools choke on: bytes that are not UTF-8, a newline, a leading "-",
// 255-byte names, a path over 6,000 bytes, NFC beside NFD, and names that differ only by
// case. On the temporary folder's file system (case-sensitive) the tree is reproduced
// exactly as the engine's rules say; on FAT (fusefat) and exFAT (exfat-fuse) a case
// clash is reported, nothing is overwritten silently, and a rerun copies nothing despite
// their coarse timestamps.

#include "common/Unicode.hpp"
#include "support/ChildProcess.hpp"
#include "support/EngineHarness.hpp"
#include "support/MountSandbox.hpp"
#include "support/SyncChecker.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/PartialFileNaming.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;

const std::string kInvalidUTF8 = "bad\xff\xfe.txt";
const std::string kNFC = "caf\xc3\xa9.txt";    // é as one code point
const std::string kNFD = "cafe\xcc\x81.txt";   // e + combining acute accent
const std::string kLongASCII = std::string(251, 'n') + ".txt";  // 255 bytes
const std::string kLongAccented = [] {
    std::string name;
    for (int i = 0; i < 127; ++i) name += "\xc3\xa9";
    return name + "x";  // 255 bytes, 128 characters
}();
const std::string kDeepFolder = std::string(199, 'p');  // 30 levels: over 6,000 bytes
constexpr int kDeepLevels = 30;

// Creates `relative` below `root` component by component (the whole path may be longer
// than the kernel accepts at once) and writes `contents` into its last component.
void writeBeneath(const fs::path& root, const std::vector<std::string>& components, const std::string& contents) {
    int folder = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(folder, 0);
    for (std::size_t i = 0; i + 1 < components.size(); ++i) {
        ::mkdirat(folder, components[i].c_str(), 0755);
        const int child = ::openat(folder, components[i].c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(folder);
        ASSERT_GE(child, 0) << components[i];
        folder = child;
    }
    const int file = ::openat(folder, components.back().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ::close(folder);
    ASSERT_GE(file, 0) << components.back().size() << "-byte name: " << std::strerror(errno);
    ASSERT_EQ(::write(file, contents.data(), contents.size()), static_cast<ssize_t>(contents.size()));
    ::close(file);
}

std::string deepPath() {
    std::string path;
    for (int level = 0; level < kDeepLevels; ++level) path += kDeepFolder + "/";
    return path + "deep.txt";
}

std::vector<std::string> deepComponents() {
    std::vector<std::string> components(kDeepLevels, kDeepFolder);
    components.push_back("deep.txt");
    return components;
}

bool isStagingLeftover(const std::string& relative) {
    return PartialFileNaming::isStagingName(fs::path(relative).filename().string());
}

TEST(Names, OnACaseSensitiveVolumeTheTreeIsReproducedAsTheRulesSay) {
    TemporaryDirectory work;
    const fs::path source = work / "src";
    const fs::path destination = work / "dst";
    fs::create_directories(source);
    fs::create_directories(destination);
    for (const std::string& name : {kInvalidUTF8, std::string("line\nbreak.txt"), std::string("-rf"),
                                    std::string("--help"), kLongASCII, kLongAccented, kNFC, kNFD,
                                    std::string("Readme.txt"), std::string("README.TXT")}) {
        writeBeneath(source, {name}, "contents of " + name);
    }
    writeBeneath(source, {"sub", kInvalidUTF8}, "hidden by its name");
    writeBeneath(source, deepComponents(), "at the bottom");
    ASSERT_GT(deepPath().size(), 6000U);

    EngineHarness harness(work / "app");
    const Uuid id = harness.addProfile(source, destination, SyncMode::update);
    auto outcome = harness.application->analyze(id);
    CancellationFlag flag;
    const SyncRunResult result = harness.synchronize(outcome, flag);
    const std::string messages = messagesOf(result, &outcome.plan);
    EXPECT_EQ(result.filesFailed, 0) << messages;

    // Not UTF-8: skipped, and said so for each folder that holds one.
    EXPECT_NE(messages.find("Skipped an item with an unusable name in “/”."), std::string::npos) << messages;
    EXPECT_NE(messages.find("Skipped an item with an unusable name in “sub”."), std::string::npos) << messages;
    // NFC and NFD spell one name for the planner: the first listed is copied, the other
    // is reported and skipped.
    const bool keptNFC = fs::exists(destination / kNFC);
    const bool keptNFD = fs::exists(destination / kNFD);
    EXPECT_NE(keptNFC, keptNFD) << "exactly one spelling of café.txt is copied";
    const std::string skipped = keptNFC ? kNFD : kNFC;
    EXPECT_NE(messages.find("“" + skipped + "” cannot be distinguished from another source item on the destination "
                            "volume's naming rules. It was skipped so the two cannot overwrite each other."),
              std::string::npos)
        << messages;

    // Everything else, byte for byte, including the path of over 6,000 bytes.
    auto expected = treeState(source);
    expected.erase(kInvalidUTF8);
    expected.erase("sub/" + kInvalidUTF8);
    expected.erase(skipped);
    EXPECT_EQ(treeState(destination), expected);
    EXPECT_EQ(treeState(destination).count(deepPath()), 1U);
    EXPECT_EQ(result.filesCopied, static_cast<int>(std::count_if(expected.begin(), expected.end(), [](const auto& item) {
                                      return item.second.starts_with("file:");
                                  })));

    const SyncRunResult again = harness.sync(id).result;
    EXPECT_EQ(again.filesCopied + again.filesUpdated, 0) << messagesOf(again);
    EXPECT_EQ(treeState(destination), expected);
}

// A case-insensitive destination through FUSE: both spellings of a name come from a
// case-sensitive source.
class CaseInsensitiveDestination : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (const auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
        const std::string kind = GetParam();
        const fs::path image = work / (kind + ".img");
        const fs::path mountPoint = work / "drive";
        std::string why;
        if (kind == "fat") {
            if (!haveProgram("mkfs.vfat")) GTEST_SKIP() << "mkfs.vfat (dosfstools) is not installed";
            ASSERT_EQ(runProgram({"mkfs.vfat", "-C", image.string(), "65536"}), 0);
            pid_t fusefat = -1;
            // The kernel here has no vfat: FAT through FUSE, as the user would mount it.
            why = mounts.mountFuse({"fusefat", "-f", "-o", "rw+", image.string(), mountPoint.string()}, mountPoint,
                                   fusefat);
        } else {
            why = mounts.mountExfatFuse(image, 64, mountPoint);
        }
        if (!why.empty()) GTEST_SKIP() << kind << " destination unavailable: " << why;
        destination = mountPoint / "Backup";
        fs::create_directories(destination);
    }

    TemporaryDirectory work;
    MountSandbox mounts;
    fs::path destination;
};

TEST_P(CaseInsensitiveDestination, ACaseClashIsReportedNothingIsOverwrittenAndARerunCopiesNothing) {
    const fs::path source = work / "src";
    writeTextFile(source / "Readme.txt", "the first readme");
    writeTextFile(source / "README.TXT", "THE SECOND README");
    writeTextFile(source / "album" / "Photo.JPG", "photo, upper case");
    writeTextFile(source / "album" / "photo.jpg", "photo, lower case");
    writeTextFile(source / "notes.txt", "plain notes");
    // An item already on the drive, only under another case than a source item.
    writeTextFile(destination / "TODO.TXT", "the drive's own list");
    writeTextFile(source / "todo.txt", "the source's list, which is a different file");

    EngineHarness harness(work / "app");
    const Uuid id = harness.addProfile(source, destination, SyncMode::update);
    auto outcome = harness.application->analyze(id);
    CancellationFlag flag;
    const SyncRunResult result = harness.synchronize(outcome, flag);
    const std::string messages = messagesOf(result, &outcome.plan);
    EXPECT_EQ(result.filesFailed, 0) << messages;

    const auto destinationState = treeState(destination);
    for (const auto& [relative, state] : destinationState) {
        EXPECT_FALSE(isStagingLeftover(relative)) << relative;
    }
    // Per pair, the drive holds one file, with the contents of the spelling that was
    // kept, and the other spelling is reported.
    for (const auto& [first, second] : {std::pair<std::string, std::string>{"Readme.txt", "README.TXT"},
                                        {"album/Photo.JPG", "album/photo.jpg"}}) {
        const bool firstReported = messages.find("“" + first + "” cannot be distinguished") != std::string::npos;
        const bool secondReported = messages.find("“" + second + "” cannot be distinguished") != std::string::npos;
        EXPECT_NE(firstReported, secondReported) << first << "\n" << messages;
        const std::string kept = firstReported ? second : first;
        EXPECT_EQ(readTextFile(destination / kept), readTextFile(source / kept)) << kept;
        const auto sameName = std::count_if(destinationState.begin(), destinationState.end(), [&](const auto& item) {
            return unicode::toLower(item.first) == unicode::toLower(first);
        });
        EXPECT_EQ(sameName, 1) << first;
    }
    EXPECT_EQ(readTextFile(destination / "notes.txt"), "plain notes");
    // "todo.txt" matches the drive's "TODO.TXT" under the drive's rules: an update of that
    // one item, by the newer source, never a second file beside it.
    EXPECT_EQ(std::count_if(destinationState.begin(), destinationState.end(),
                            [](const auto& item) { return unicode::toLower(item.first) == "todo.txt"; }),
              1);

    // FAT keeps times to 2 seconds and these drivers to the second: nothing looks changed.
    auto rerun = harness.application->analyze(id);
    EXPECT_NE(messagesOf({}, &rerun.plan).find("cannot be distinguished"), std::string::npos)
        << "the clash is reported again";
    const SyncRunResult again = harness.synchronize(rerun, flag);
    EXPECT_EQ(again.filesCopied + again.filesUpdated, 0) << messagesOf(again);
    EXPECT_EQ(again.filesFailed, 0) << messagesOf(again);
    EXPECT_EQ(treeState(destination), destinationState);
}

INSTANTIATE_TEST_SUITE_P(Volumes, CaseInsensitiveDestination, ::testing::Values("fat", "exfat"));

}  // namespace
}  // namespace varnel::testing

#include "scan/POSIXFileError.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/FakeFileSystem.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>

namespace varnel::testing {
namespace {

RelativePath rel(const std::string& value) { return *RelativePath::fromString(value); }

// The errno a call fails with, or 0 when it succeeds.
int errnoOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const POSIXFileError& error) {
        return error.errnoValue();
    }
    return 0;
}

// --- The fake answers like the real disk -------------------------------------------------

// Builds the same tree on the real disk or in the fake, below one absolute folder.
class Harness {
public:
    virtual ~Harness() = default;
    virtual FileSystemProviding& fs() = 0;
    virtual std::string base() const = 0;
    virtual void file(const std::string& relative, const std::string& contents) = 0;
    virtual void folder(const std::string& relative) = 0;
    virtual void link(const std::string& relative, const std::string& target) = 0;
};

class RealHarness final : public Harness {
public:
    FileSystemProviding& fs() override { return fs_; }
    std::string base() const override { return temp_.string(); }
    void file(const std::string& relative, const std::string& contents) override {
        temp_.writeFile(relative, contents);
    }
    void folder(const std::string& relative) override { std::filesystem::create_directories(temp_ / relative); }
    void link(const std::string& relative, const std::string& target) override {
        std::filesystem::create_symlink(target, temp_ / relative);
    }

private:
    TemporaryDirectory temp_;
    RealFileSystem fs_;
};

class FakeHarness final : public Harness {
public:
    FileSystemProviding& fs() override { return fs_; }
    std::string base() const override { return "/base"; }
    void file(const std::string& relative, const std::string& contents) override {
        fs_.addFile(base() + "/" + relative, contents);
    }
    void folder(const std::string& relative) override { fs_.addDirectory(base() + "/" + relative); }
    void link(const std::string& relative, const std::string& target) override {
        fs_.addSymlink(base() + "/" + relative, target);
    }

private:
    FakeFileSystem fs_;
};

class FakeMatchesRealTest : public ::testing::TestWithParam<bool> {
protected:
    FakeMatchesRealTest() {
        if (GetParam()) {
            harness = std::make_unique<FakeHarness>();
        } else {
            harness = std::make_unique<RealHarness>();
        }
    }
    std::unique_ptr<Harness> harness;
};

TEST_P(FakeMatchesRealTest, FailuresCarryTheSameErrno) {
    Harness& h = *harness;
    h.file("outside/victim", "precious");
    h.file("endpoint/own.txt", "mine");
    h.file("endpoint/dir/inner.txt", "inner");
    h.file("endpoint/full/x", "x");
    h.folder("endpoint/empty");
    h.file("endpoint/file", "plain");
    h.link("endpoint/abs", h.base() + "/outside");
    h.link("endpoint/rel", "../outside");
    h.link("endpoint/dangling", "nowhere");
    FileSystemProviding& fs = h.fs();
    const auto root = fs.openRoot(h.base() + "/endpoint");
    using Mode = FileSystemProviding::RenameMode;

    const struct {
        const char* what;
        int expected;
        std::function<void()> call;
    } cases[] = {
        {"entry through a link", ELOOP, [&] { fs.entry(root, rel("abs/victim")); }},
        {"entry through a relative link", ELOOP, [&] { fs.entry(root, rel("rel/victim")); }},
        {"entry through a file", ENOTDIR, [&] { fs.entry(root, rel("file/x")); }},
        {"entry of nothing", ENOENT, [&] { fs.entry(root, rel("missing/x")); }},
        {"list a link", ELOOP, [&] { fs.listDirectory(root, rel("abs")); }},
        {"list a file", ENOTDIR, [&] { fs.listDirectory(root, rel("file")); }},
        {"open a link for a scan", ELOOP, [&] { fs.openDirectory(root, rel("rel")); }},
        {"open a link as a folder", ELOOP, [&] { fs.openFolder(root, rel("abs")); }},
        {"open a file as a folder", ENOTDIR, [&] { fs.openFolder(root, rel("file")); }},
        {"mkdir through a link", ELOOP, [&] { fs.makeDirectory(root, rel("abs/new")); }},
        {"mkdir over a file", EEXIST, [&] { fs.makeDirectory(root, rel("own.txt")); }},
        {"mkdir over a dangling link", EEXIST, [&] { fs.makeDirectory(root, rel("dangling")); }},
        {"symlink over a folder", EEXIST, [&] { fs.makeSymbolicLink(root, rel("dir"), "x"); }},
        {"unlink through a link", ELOOP, [&] { fs.removeFile(root, rel("abs/victim")); }},
        {"unlink a folder", EISDIR, [&] { fs.removeFile(root, rel("dir")); }},
        {"rmdir a file", ENOTDIR, [&] { fs.removeDirectory(root, rel("own.txt")); }},
        {"rmdir a full folder", ENOTEMPTY, [&] { fs.removeDirectory(root, rel("full")); }},
        {"rename onto a taken name", EEXIST,
         [&] { fs.rename(root, rel("own.txt"), root, rel("dir/inner.txt"), Mode::noReplace); }},
        {"rename a file over a folder", EISDIR,
         [&] { fs.rename(root, rel("own.txt"), root, rel("empty"), Mode::replace); }},
        {"rename a folder over a file", ENOTDIR,
         [&] { fs.rename(root, rel("dir"), root, rel("own.txt"), Mode::replace); }},
        {"rename over a full folder", ENOTEMPTY,
         [&] { fs.rename(root, rel("dir"), root, rel("full"), Mode::replace); }},
        {"rename a folder into itself", EINVAL,
         [&] { fs.rename(root, rel("dir"), root, rel("dir/sub"), Mode::replace); }},
        {"rename out through a link", ELOOP,
         [&] { fs.rename(root, rel("own.txt"), root, rel("abs/own.txt"), Mode::replace); }},
        {"chmod a link", EOPNOTSUPP, [&] { fs.setPermissions(root, rel("dangling"), 0700); }},
        {"readlink of a file", EINVAL, [&] { fs.readLink(root, rel("own.txt")); }},
        {"open a file as a root", ENOTDIR, [&] { fs.openRoot(h.base() + "/endpoint/own.txt"); }},
        {"mkdir at a taken absolute path", EEXIST, [&] { fs.makeDirectoryAtPath(h.base() + "/outside", 0755); }},
    };
    for (const auto& each : cases) EXPECT_EQ(errnoOf(each.call), each.expected) << each.what;

    // The replacing rename still works and nothing outside was touched.
    fs.rename(root, rel("own.txt"), root, rel("dir/inner.txt"), Mode::replace);
    EXPECT_FALSE(fs.exists(root, rel("own.txt")));
    // A folder opened as a root stays that folder when a link to outside takes its name.
    const auto dir = fs.openFolder(root, rel("dir"));
    fs.rename(root, rel("dir"), root, rel("moved"), Mode::noReplace);
    fs.makeSymbolicLink(root, rel("dir"), h.base() + "/outside");
    EXPECT_EQ(fs.entry(dir, rel("inner.txt")).size, 4);
    EXPECT_EQ(errnoOf([&] { fs.entry(dir, rel("victim")); }), ENOENT);
    const auto outside = fs.openRoot(h.base() + "/outside");
    EXPECT_EQ(fs.listDirectory(outside, RelativePath()), std::vector<std::string>{"victim"});
    EXPECT_EQ(fs.entry(outside, rel("victim")).size, 8);
    // The root's own path follows links, as a chosen folder would.
    EXPECT_EQ(fs.canonicalPath(h.base() + "/endpoint/rel"), fs.canonicalPath(h.base() + "/outside"));
    EXPECT_EQ(fs.entry(fs.openRoot(h.base() + "/endpoint/abs"), rel("victim")).size, 8);
}

INSTANTIATE_TEST_SUITE_P(RealAndFake, FakeMatchesRealTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Fake" : "Real"; });

// --- What only the fake offers ---------------------------------------------------------------

TEST(FakeFileSystemTest, InjectedFailuresHitTheChosenCallOnceOrUntilCleared) {
    FakeFileSystem fs;
    fs.addFile("/src/a.txt", "a");
    fs.addFile("/src/b.txt", "b");
    fs.addSymlink("/src/link", "a.txt");
    const auto root = fs.openRoot("/src");

    fs.failNext("statx", EIO, "/src/b.txt");
    EXPECT_EQ(errnoOf([&] { fs.entry(root, rel("a.txt")); }), 0);  // another path
    try {
        fs.entry(root, rel("b.txt"));
        ADD_FAILURE() << "the injected failure did not fire";
    } catch (const POSIXFileError& error) {
        EXPECT_EQ(error, POSIXFileError(EIO, "statx", "/src/b.txt"));
    }
    EXPECT_EQ(errnoOf([&] { fs.entry(root, rel("b.txt")); }), 0);  // once only

    // The scanner's route sees the same faults.
    fs.failAlways("readdir", EACCES);
    auto folder = fs.openDirectory(root, RelativePath());
    EXPECT_EQ(errnoOf([&] { folder->names(); }), EACCES);
    EXPECT_EQ(errnoOf([&] { fs.listDirectory(root, RelativePath()); }), EACCES);
    fs.clearFaults();
    EXPECT_EQ(folder->names(), (std::vector<std::string>{"a.txt", "b.txt", "link"}));

    // A failing readlink is swallowed by entry(), as on a real disk.
    fs.failNext("readlink", EIO);
    const auto link = folder->entry("link", rel("link"));
    EXPECT_EQ(link.kind, EntryKind::symbolicLink);
    EXPECT_EQ(link.symlinkTarget, std::nullopt);
    EXPECT_EQ(fs.entry(root, rel("link")).symlinkTarget, "a.txt");

    // A rename fault can name either side; a failed call changes nothing.
    fs.failNext("rename", ENOSPC, "/src/c.txt");
    EXPECT_EQ(errnoOf([&] {
                  fs.rename(root, rel("a.txt"), root, rel("c.txt"), FileSystemProviding::RenameMode::noReplace);
              }),
              ENOSPC);
    EXPECT_TRUE(fs.exists(root, rel("a.txt")));
    EXPECT_TRUE(fs.changes().empty());
    fs.rename(root, rel("a.txt"), root, rel("c.txt"), FileSystemProviding::RenameMode::noReplace);
    fs.makeDirectory(root, rel("made"));
    EXPECT_EQ(fs.changes(), (std::vector<std::string>{"rename /src/a.txt -> /src/c.txt", "mkdir /src/made"}));
}

TEST(FakeFileSystemTest, CaseInsensitiveVolumeMatchesNamesWithoutRegardToCase) {
    FakeFileSystem fs;
    VolumeInfo stick;
    stick.identity.isCaseSensitive = false;
    stick.identity.volumeName = "STICK";
    stick.deviceID = 7;
    fs.setVolume("/media/stick", stick);
    fs.addFile("/media/stick/Photo.JPG", "jpeg");
    fs.addFile("/src/Photo.JPG", "jpeg");
    const auto usb = fs.openRoot("/media/stick");
    const auto src = fs.openRoot("/src");

    EXPECT_EQ(fs.entry(usb, rel("photo.jpg")).size, 4);
    EXPECT_EQ(fs.entry(usb, rel("photo.jpg")).deviceID, 7u);
    EXPECT_EQ(errnoOf([&] { fs.makeDirectory(usb, rel("PHOTO.jpg")); }), EEXIST);
    EXPECT_EQ(errnoOf([&] { fs.entry(src, rel("photo.jpg")); }), ENOENT);
    EXPECT_EQ(fs.volumeInfo("/media/stick/Photo.JPG").identity.volumeName, "STICK");

    // Changing only the case renames the item in place, even without replacement.
    fs.rename(usb, rel("Photo.JPG"), usb, rel("photo.jpg"), FileSystemProviding::RenameMode::noReplace);
    EXPECT_EQ(fs.listDirectory(usb, RelativePath()), std::vector<std::string>{"photo.jpg"});
    // Another volume cannot be reached by a rename.
    EXPECT_EQ(errnoOf([&] {
                  fs.rename(src, rel("Photo.JPG"), usb, rel("x.jpg"), FileSystemProviding::RenameMode::replace);
              }),
              EXDEV);
}

}  // namespace
}  // namespace varnel::testing

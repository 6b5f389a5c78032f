#include "platform/BeneathResolver.hpp"
#include "scan/POSIXFileError.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/ChildProcess.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace varnel::testing {
namespace {

std::vector<std::string> sorted(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    return names;
}

const auto errorOf = thrownBy<POSIXFileError>;

// Removes a tree of any depth by descriptors, since paths past PATH_MAX defeat
// std::filesystem (and so TemporaryDirectory's own clean-up).
void removeTreeAt(int parentFd, const std::string& name) {
    const int fd = ::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) {
        DIR* dir = ::fdopendir(fd);
        std::vector<std::pair<std::string, bool>> children;
        while (const dirent* item = ::readdir(dir)) {
            const std::string child = item->d_name;
            if (child != "." && child != "..") children.emplace_back(child, item->d_type == DT_DIR);
        }
        for (const auto& [child, isFolder] : children) {
            if (isFolder) {
                removeTreeAt(::dirfd(dir), child);
            } else {
                ::unlinkat(::dirfd(dir), child.c_str(), 0);
            }
        }
        ::closedir(dir);
    }
    ::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR);
}

class RealFileSystemTest : public ::testing::Test {
protected:
    std::string path(const std::string& relative) const { return (temp / relative).string(); }

    TemporaryDirectory temp;
    RealFileSystem fs;
    EndpointRoot root = fs.openRoot(temp.string());
};

TEST_F(RealFileSystemTest, SpecialFilesAreUnsupportedWithTheirReasonAndNoSize) {
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0644), 0);

    const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(sock, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string socketPath = path("socket");
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    std::strcpy(address.sun_path, socketPath.c_str());
    ASSERT_EQ(::bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(sock);

    const auto pipe = fs.entry(root, rel("pipe"));
    EXPECT_EQ(pipe.kind, EntryKind::unsupported);
    EXPECT_EQ(pipe.unsupportedReason, UnsupportedReason::fifo);
    EXPECT_EQ(pipe.size, 0);

    // The scanner's route (one listing, then a stat per name) gives the same answers.
    auto folder = fs.openDirectory(root, RelativePath());
    const DirectoryNames listed = folder->names();
    EXPECT_EQ(sorted({listed.begin(), listed.end()}), (std::vector<std::string>{"pipe", "socket"}));
    const auto socketEntry = folder->entry("socket", rel("socket"));
    EXPECT_EQ(socketEntry.kind, EntryKind::unsupported);
    EXPECT_EQ(socketEntry.unsupportedReason, UnsupportedReason::socket);
    EXPECT_EQ(socketEntry.size, 0);
    EXPECT_EQ(socketEntry.relativePath, rel("socket"));
    EXPECT_EQ(folder->entry("pipe", rel("pipe")), pipe);

    if (::mknod(path("null").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0) {  // needs CAP_MKNOD
        EXPECT_EQ(fs.entry(root, rel("null")).unsupportedReason, UnsupportedReason::characterDevice);
    }
}

TEST_F(RealFileSystemTest, AFolderOfManyLongNamesIsListedWholeAndAgainFromTheStart) {
    // About 330 KiB of directory entries: many reads of the listing buffer.
    std::vector<std::string> expected;
    for (int i = 0; i < 3000; ++i) {
        expected.push_back(std::string(90, static_cast<char>('a' + i % 26)) + "-" + std::to_string(i));
        temp.writeFile(expected.back(), "");
    }
    expected = sorted(expected);

    EXPECT_EQ(sorted(fs.listDirectory(root, RelativePath())), expected);
    auto folder = fs.openDirectory(root, RelativePath());
    const DirectoryNames first = folder->names();
    EXPECT_EQ(sorted({first.begin(), first.end()}), expected);
    EXPECT_EQ(folder->names(), first);
}

TEST_F(RealFileSystemTest, RegularAndSparseFilesReportLogicalSizeAndAllocation) {
    temp.writeFile("small.txt", "hello");
    const int fd = ::open(path("sparse").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 10'000'000), 0);
    const std::string megabyte(1 << 20, 'x');
    ASSERT_EQ(::pwrite(fd, megabyte.data(), megabyte.size(), 4 << 20), static_cast<ssize_t>(megabyte.size()));
    ::close(fd);

    const auto sparse = fs.entry(root, rel("sparse"));
    EXPECT_EQ(sparse.kind, EntryKind::regularFile);
    EXPECT_EQ(sparse.size, 10'000'000);
    EXPECT_GE(sparse.allocatedBlocks, 2048);  // 1 MiB in 512-byte units
    EXPECT_LT(sparse.allocatedBlocks, 4096);  // far below the 19,532 a dense file takes
    EXPECT_EQ(sparse.posixPermissions & 0777, 0640);

    // Nanosecond times: the comparison of a later run depends on them.
    struct stat expected {};
    ASSERT_EQ(::lstat(path("small.txt").c_str(), &expected), 0);
    EXPECT_EQ(fs.entry(root, rel("small.txt")).modificationTime, FileTimestamp::fromTimespec(expected.st_mtim));
}

TEST_F(RealFileSystemTest, DanglingSymlinkIsAnEntryWithItsTargetAndIsNeverFollowed) {
    ASSERT_EQ(::symlink("missing/target.txt", path("dangling").c_str()), 0);

    const auto link = fs.entry(root, rel("dangling"));
    EXPECT_EQ(link.kind, EntryKind::symbolicLink);
    EXPECT_EQ(link.symlinkTarget, "missing/target.txt");
    EXPECT_TRUE(fs.exists(root, rel("dangling")));
    EXPECT_TRUE(fs.existsAtPath(path("dangling")));
    EXPECT_FALSE(fs.exists(root, rel("missing")));
}

TEST_F(RealFileSystemTest, RenameWithoutReplacementRefusesAnExistingNameAndLeavesBoth) {
    temp.writeFile("a.txt", "new");
    temp.writeFile("b.txt", "old");

    const auto error = errorOf([&] {
        fs.rename(root, rel("a.txt"), root, rel("b.txt"), FileSystemProviding::RenameMode::noReplace);
    });
    EXPECT_EQ(error.errnoValue(), EEXIST);
    EXPECT_EQ(temp.readFile("a.txt"), "new");
    EXPECT_EQ(temp.readFile("b.txt"), "old");

    fs.rename(root, rel("a.txt"), root, rel("c.txt"), FileSystemProviding::RenameMode::noReplace);
    fs.rename(root, rel("c.txt"), root, rel("b.txt"), FileSystemProviding::RenameMode::replace);
    EXPECT_EQ(temp.readFile("b.txt"), "new");
    EXPECT_FALSE(fs.exists(root, rel("c.txt")));
}

TEST_F(RealFileSystemTest, SetsMetadataOnTheItemNeverOnALinkTarget) {
    temp.writeFile("file", "x");
    ASSERT_EQ(::symlink("file", path("link").c_str()), 0);

    fs.setPermissions(root, rel("file"), 0600);
    fs.setTimes(root, rel("file"), FileTimestamp{1'600'000'000, 123'456'789});
    fs.setOwner(root, rel("file"), ::geteuid(), ::getegid());
    const auto file = fs.entry(root, rel("file"));
    EXPECT_EQ(file.posixPermissions, 0600);
    EXPECT_EQ(file.modificationTime, (FileTimestamp{1'600'000'000, 123'456'789}));

    // A link has no mode of its own, and its target must not be changed through it.
    const auto chmodLink = errorOf([&] { fs.setPermissions(root, rel("link"), 0777); });
    EXPECT_EQ(chmodLink.operation(), "chmod");
    EXPECT_EQ(chmodLink.errnoValue(), EOPNOTSUPP);
    fs.setTimes(root, rel("link"), FileTimestamp{1'000'000'000, 0});
    EXPECT_EQ(fs.entry(root, rel("file")).posixPermissions, 0600);
    EXPECT_EQ(fs.entry(root, rel("file")).modificationTime.seconds(), 1'600'000'000);
    EXPECT_EQ(fs.entry(root, rel("link")).modificationTime.seconds(), 1'000'000'000);

    if (::setxattr(path("file").c_str(), "user.varnel", "value", 5, 0) != 0) {
        GTEST_SKIP() << "the temporary folder's file system has no user extended attributes";
    }
    EXPECT_EQ(fs.extendedAttribute(root, rel("file"), "user.varnel"), "value");
    EXPECT_EQ(fs.extendedAttribute(root, rel("file"), "user.absent"), std::nullopt);
    const auto names = fs.extendedAttributeNames(root, rel("file"));
    EXPECT_NE(std::find(names.begin(), names.end(), "user.varnel"), names.end());
    EXPECT_EQ(fs.extendedAttribute(root, rel("link"), "user.varnel"), std::nullopt);  // not followed
}

// A folder inside the endpoint is replaced by a link to a folder outside it (as an
// attacker or a careless script might do mid-run): nothing may reach the outside.
TEST_F(RealFileSystemTest, LinkPlantedInPlaceOfAFolderNeverLeadsOutsideTheEndpoint) {
    temp.writeFile("outside/victim", "precious");
    ASSERT_EQ(::chmod(path("outside/victim").c_str(), 0644), 0);
    std::filesystem::create_directories(temp / "endpoint");
    temp.writeFile("endpoint/own.txt", "mine");
    ASSERT_EQ(::symlink(path("outside").c_str(), path("endpoint/absolute").c_str()), 0);
    ASSERT_EQ(::symlink("../outside", path("endpoint/relative").c_str()), 0);
    temp.writeFile("endpoint/file", "not a folder");
    const auto endpoint = fs.openRoot(path("endpoint"));
    using Mode = FileSystemProviding::RenameMode;

    for (const std::string planted : {"absolute", "relative", "file"}) {
        SCOPED_TRACE(planted);
        const auto inside = rel(planted + "/victim");
        const std::vector<std::function<void()>> calls{
            [&] { fs.entry(endpoint, inside); },
            [&] { fs.listDirectory(endpoint, rel(planted)); },
            [&] { fs.openDirectory(endpoint, rel(planted)); },
            [&] { fs.makeDirectory(endpoint, rel(planted + "/new")); },
            [&] { fs.makeSymbolicLink(endpoint, rel(planted + "/new"), "/"); },
            [&] { fs.removeFile(endpoint, inside); },
            [&] { fs.rename(endpoint, inside, endpoint, rel("stolen"), Mode::replace); },
            [&] { fs.rename(endpoint, rel("own.txt"), endpoint, inside, Mode::replace); },
            [&] { fs.setPermissions(endpoint, inside, 0777); },
            [&] { fs.setOwner(endpoint, inside, 65534, 65534); },
            [&] { fs.setTimes(endpoint, inside, FileTimestamp{1, 0}); },
            [&] { fs.extendedAttribute(endpoint, inside, "user.x"); },
            [&] { fs.readLink(endpoint, inside); },
        };
        for (std::size_t i = 0; i < calls.size(); ++i) {
            const auto error = errorOf(calls[i]);
            EXPECT_TRUE(error.errnoValue() == ELOOP || error.errnoValue() == ENOTDIR || error.errnoValue() == EXDEV)
                << "call " << i << ": " << error.what();
        }
        EXPECT_FALSE(fs.exists(endpoint, inside));
        // The resolver's fallback walk refuses the same way.
        int endpointFd = RealFileSystem::rootDescriptor(endpoint);
        const auto walked = openDirectoryBeneath(endpointFd, rel(planted), DirectoryAccess::read,
                                                 ResolveStrategy::componentWalk);
        ASSERT_FALSE(walked.ok());
        EXPECT_TRUE(walked.error() == ELOOP || walked.error() == ENOTDIR);
    }

    EXPECT_EQ(sorted(fs.listDirectory(root, rel("outside"))), std::vector<std::string>{"victim"});
    EXPECT_EQ(temp.readFile("outside/victim"), "precious");
    struct stat victim {};
    ASSERT_EQ(::stat(path("outside/victim").c_str(), &victim), 0);
    EXPECT_EQ(victim.st_mode & 07777, 0644u);
    EXPECT_NE(victim.st_mtime, 1);
    EXPECT_EQ(temp.readFile("endpoint/own.txt"), "mine");
}

TEST_F(RealFileSystemTest, PathsLongerThanPathMaxAreListedAndRead) {
    // 20 folders of 250 bytes: about 5,000 bytes below the root, past PATH_MAX (4,096).
    const std::string name(250, 'd');
    std::string relative;
    int fd = ::open(temp.string().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < 20; ++level) {
        ASSERT_EQ(::mkdirat(fd, name.c_str(), 0755), 0);
        const int next = ::openat(fd, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
        relative += (relative.empty() ? "" : "/") + name;
    }
    const int file = ::openat(fd, "deep.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(::write(file, "deep", 4), 4);
    ::close(file);
    ::close(fd);
    ASSERT_GT(relative.size(), static_cast<std::size_t>(PATH_MAX));
    struct Cleanup {
        std::string top;
        ~Cleanup() { removeTreeAt(AT_FDCWD, top); }
    } cleanup{path(name)};

    const auto deep = rel(relative);
    EXPECT_EQ(fs.listDirectory(root, deep), std::vector<std::string>{"deep.txt"});
    EXPECT_EQ(fs.entry(root, rel(relative + "/deep.txt")).size, 4);
    fs.makeDirectory(root, rel(relative + "/made"));
    fs.rename(root, rel(relative + "/deep.txt"), root, rel(relative + "/made/moved.txt"),
              FileSystemProviding::RenameMode::noReplace);
    auto folder = fs.openDirectory(root, rel(relative + "/made"));
    EXPECT_EQ(folder->names(), DirectoryNames{"moved.txt"});
    EXPECT_EQ(folder->entry("moved.txt", rel(relative + "/made/moved.txt")).size, 4);

    const auto walked = openDirectoryBeneath(RealFileSystem::rootDescriptor(root), rel(relative + "/made"),
                                             DirectoryAccess::read, ResolveStrategy::componentWalk);
    ASSERT_TRUE(walked.ok()) << std::strerror(walked.error());
}

// Root ignores permission bits, so the listing runs in a child that gives up root.
TEST_F(RealFileSystemTest, UnreadableFolderFailsWithOpendirAndEACCES) {
    ASSERT_EQ(::chmod(temp.string().c_str(), 0755), 0);
    std::filesystem::create_directories(temp / "locked");
    ASSERT_EQ(::chmod(path("locked").c_str(), 0300), 0);  // searchable, not readable
    EXPECT_EQ(inUnprivilegedChild([&]() -> std::string {
                  try {
                      fs.listDirectory(root, rel("locked"));
                      return "listed anyway";
                  } catch (const POSIXFileError& error) {
                      return error.message();
                  }
              }),
              "opendir failed for " + path("locked") + ": Permission denied");
}

TEST_F(RealFileSystemTest, ARootChosenThroughALinkIsOpenedWhereItPointsAndNamesAreConfined) {
    std::filesystem::create_directories(temp / "real");
    ASSERT_EQ(::symlink(path("real").c_str(), path("alias").c_str()), 0);
    temp.writeFile("file", "x");

    EXPECT_EQ(fs.canonicalPath(path("alias")), std::filesystem::canonical(temp / "real").string());
    EXPECT_EQ(fs.entryAtPath(path("alias")).kind, EntryKind::symbolicLink);
    // Messages keep the path given.
    const auto viaLink = fs.openRoot(path("alias"));
    fs.makeDirectory(viaLink, rel("inside"));
    EXPECT_TRUE(std::filesystem::is_directory(temp / "real" / "inside"));
    EXPECT_EQ(displayPath(viaLink, rel("inside")), path("alias") + "/inside");
    EXPECT_EQ(errorOf([&] { fs.openRoot(path("file")); }).errnoValue(), ENOTDIR);

    // A name that would step out of the open folder is refused before any call.
    auto folder = fs.openDirectory(root, RelativePath());
    EXPECT_EQ(errorOf([&] { folder->entry("../etc", rel("x")); }).errnoValue(), EINVAL);
}

}  // namespace
}  // namespace varnel::testing

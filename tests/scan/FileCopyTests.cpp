// RealFileSystem's copy and checksum operations on real folders and, where the machine
// allows, on loop-mounted btrfs and xfs (cloning) and ramfs (no extended attributes).

#include "common/Sha256.hpp"
#include "scan/OperationCancelled.hpp"
#include "scan/POSIXFileError.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/MountSandbox.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;

const auto posixErrorOf = thrownBy<POSIXFileError>;

std::string patterned(std::size_t size, unsigned seed = 7) {
    std::string data(size, '\0');
    unsigned value = seed;
    for (auto& byte : data) {
        value = value * 1103515245u + 12345u;
        byte = static_cast<char>(value >> 16);
    }
    return data;
}

void setTimes(const fs::path& path, timespec access, timespec modification) {
    const timespec times[2] = {access, modification};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

std::string xattrOf(const fs::path& path, const char* name) {
    char value[256];
    const ssize_t size = ::lgetxattr(path.c_str(), name, value, sizeof value);
    return size < 0 ? std::string("<") + std::strerror(errno) + ">" : std::string(value, static_cast<std::size_t>(size));
}

// An access ACL in the kernel's xattr form: owner rw, user 1234 r, group r, mask r, other none.
std::string accessACL() {
    std::string acl;
    const auto put16 = [&](std::uint16_t v) { acl += static_cast<char>(v & 0xff); acl += static_cast<char>(v >> 8); };
    const auto put32 = [&](std::uint32_t v) { put16(static_cast<std::uint16_t>(v)); put16(static_cast<std::uint16_t>(v >> 16)); };
    const auto entry = [&](std::uint16_t tag, std::uint16_t perm, std::uint32_t id) { put16(tag); put16(perm); put32(id); };
    put32(2);                       // version
    entry(0x01, 6, 0xffffffff);     // ACL_USER_OBJ
    entry(0x02, 4, 1234);           // ACL_USER
    entry(0x04, 4, 0xffffffff);     // ACL_GROUP_OBJ
    entry(0x10, 4, 0xffffffff);     // ACL_MASK
    entry(0x20, 0, 0xffffffff);     // ACL_OTHER
    return acl;
}

class FileCopyTests : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(temporary / "src");
        fs::create_directories(temporary / "dst");
        source = fileSystem.openRoot((temporary / "src").string());
        destination = fileSystem.openRoot((temporary / "dst").string());
    }

    CopyOutcome copy(const std::string& from, const std::string& to, CopyOptions options = {},
                     const CopyProgress& progress = {}) {
        return fileSystem.copyFile(source, rel(from), destination, rel(to), options, progress);
    }

    TemporaryDirectory temporary;
    RealFileSystem fileSystem;
    EndpointRoot source;
    EndpointRoot destination;
};

TEST_F(FileCopyTests, CopiesDataAndBasicMetadataIntoAPrivateExclusiveStagingFile) {
    const std::string data = patterned(300'000);
    const auto file = temporary.writeFile("src/a.bin", data);
    fs::permissions(file, fs::perms(0640));
    setTimes(file, {1'600'000'000, 123'456'789}, {1'650'000'000, 987'654'321});

    std::vector<std::int64_t> increments;
    mode_t modeWhileCopying = 0;
    CopyOptions options;
    options.chunkBytes = 128 * 1024;
    const auto outcome = copy("a.bin", ".staged", options, [&](std::int64_t increment) {
        increments.push_back(increment);
        if (increment > 0) modeWhileCopying = statOf(temporary / "dst/.staged").st_mode & 07777;
        return true;
    });

    EXPECT_EQ(outcome, (CopyOutcome{300'000, {}, false}));
    EXPECT_EQ(increments, (std::vector<std::int64_t>{0, 131'072, 131'072, 37'856}));
    EXPECT_EQ(modeWhileCopying, 0600u) << "others must not read a half-written copy";
    const auto copied = statOf(temporary / "dst/.staged");
    EXPECT_EQ(copied.st_mode & 07777, 0640u);
    EXPECT_EQ(copied.st_mtim.tv_sec, 1'650'000'000);
    EXPECT_EQ(copied.st_mtim.tv_nsec, 987'654'321);
    EXPECT_EQ(copied.st_atim.tv_sec, 1'600'000'000);
    EXPECT_EQ(copied.st_atim.tv_nsec, 123'456'789);
    EXPECT_EQ(statOf(file).st_atim.tv_sec, 1'600'000'000) << "reading the source must not touch its access time";
    EXPECT_EQ(temporary.readFile("dst/.staged"), data);  // last: reading updates the copy's access time

    // The staging name is taken now: a second copy never writes into the existing item.
    temporary.writeFile("src/b.bin", "other");
    const auto error = posixErrorOf([&] { copy("b.bin", ".staged"); });
    EXPECT_EQ(error, POSIXFileError(EEXIST, "open", (temporary / "dst/.staged").string()));
    EXPECT_EQ(temporary.readFile("dst/.staged"), data);
}

TEST_F(FileCopyTests, NeverFollowsALinkOrWaitsOnAFIFOInPlaceOfTheSource) {
    temporary.writeFile("src/real", "secret");
    fs::create_symlink("real", temporary / "src/link");
    fs::create_directory(temporary / "src/folder");
    ASSERT_EQ(::mkfifo((temporary / "src/pipe").c_str(), 0600), 0);

    const auto sourcePath = [&](const char* name) { return (temporary / "src" / name).string(); };
    EXPECT_EQ(posixErrorOf([&] { copy("link", ".a"); }), POSIXFileError(ELOOP, "open", sourcePath("link")));
    EXPECT_EQ(posixErrorOf([&] { copy("folder", ".b"); }), POSIXFileError(EISDIR, "open", sourcePath("folder")));
    EXPECT_EQ(posixErrorOf([&] { copy("pipe", ".c"); }), POSIXFileError(ENOTSUP, "open", sourcePath("pipe")));
    EXPECT_EQ(posixErrorOf([&] { copy("gone", ".d"); }), POSIXFileError(ENOENT, "open", sourcePath("gone")));
    EXPECT_TRUE(fs::is_empty(temporary / "dst")) << "no staging file for a source that cannot be read";
}

TEST_F(FileCopyTests, ASparseGigabyteWithOneMegabyteOfDataStaysSparse) {
    const auto file = temporary / "src/sparse.img";
    const std::string data = patterned(1 << 20, 11);
    {
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, data.data(), data.size(), 512'000'000), static_cast<ssize_t>(data.size()));
        ASSERT_EQ(::ftruncate(fd, 1'000'000'000), 0);
        ::close(fd);
    }
    std::int64_t reported = 0;
    const auto outcome = copy("sparse.img", ".sparse", {}, [&](std::int64_t increment) {
        reported += increment;
        return true;
    });

    EXPECT_EQ(outcome.bytesWritten, 1'000'000'000);
    EXPECT_EQ(reported, 1'000'000'000) << "holes count as progress so the bar reaches the end";
    const auto copied = statOf(temporary / "dst/.sparse");
    EXPECT_EQ(copied.st_size, 1'000'000'000);
    EXPECT_LE(copied.st_blocks * 512, 4 << 20) << "the holes were written out as zeros";
    std::string back(data.size(), '\0');
    const int fd = ::open((temporary / "dst/.sparse").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::pread(fd, back.data(), back.size(), 512'000'000), static_cast<ssize_t>(back.size()));
    char edge[2] = {1, 1};
    EXPECT_EQ(::pread(fd, edge, 2, 999'999'998), 2);
    ::close(fd);
    EXPECT_TRUE(back == data);
    EXPECT_EQ(edge[0], 0);
    EXPECT_EQ(edge[1], 0);
}

TEST_F(FileCopyTests, AStopRequestEndsTheCopyBetweenBlocks) {
    temporary.writeFile("src/big", patterned(3 << 20));
    CopyOptions options;
    options.chunkBytes = 1 << 20;
    std::vector<std::int64_t> increments;
    EXPECT_THROW(copy("big", ".big", options,
                      [&](std::int64_t increment) {
                          increments.push_back(increment);
                          return increment == 0;  // stop once the first block has arrived
                      }),
                 OperationCancelled);
    EXPECT_EQ(increments, (std::vector<std::int64_t>{0, 1 << 20}));

    // A stop before anything moved copies nothing at all.
    increments.clear();
    EXPECT_THROW(copy("big", ".big2", options, [&](std::int64_t increment) {
        increments.push_back(increment);
        return false;
    }), OperationCancelled);
    EXPECT_EQ(increments, (std::vector<std::int64_t>{0}));
    EXPECT_EQ(statOf(temporary / "dst/.big2").st_size, 0);
}

TEST_F(FileCopyTests, ACopyThatStartsItsWritebackMovesAtMostOneMegabyteABlock) {
    const std::string data = patterned((7 << 19) + 5, 3);  // 3.5 MiB and a few bytes
    temporary.writeFile("src/photo", data);
    CopyOptions options;  // 8 MiB blocks otherwise
    options.startsWriteback = true;
    std::vector<std::int64_t> increments;
    copy("photo", ".photo", options, [&](std::int64_t increment) {
        increments.push_back(increment);
        return true;
    });
    EXPECT_EQ(increments, (std::vector<std::int64_t>{0, 1 << 20, 1 << 20, 1 << 20, (1 << 19) + 5}));
    EXPECT_EQ(temporary.readFile("dst/.photo"), data);
}

TEST_F(FileCopyTests, ASourceThatShrinksDuringTheCopyFailsInsteadOfBeingPaddedWithZeros) {
    const auto file = temporary.writeFile("src/shrinking", patterned(3 << 20));
    CopyOptions options;
    options.chunkBytes = 1 << 20;
    const auto error = posixErrorOf([&] {
        copy("shrinking", ".shrinking", options, [&](std::int64_t increment) {
            if (increment > 0) fs::resize_file(file, 1 << 20);  // another program truncates it
            return true;
        });
    });
    EXPECT_EQ(error, POSIXFileError(ENODATA, "read", file.string()));
}

TEST_F(FileCopyTests, ExtendedMetadataCarriesAttributesAndACLsAndBasicDoesNot) {
    const auto file = temporary.writeFile("src/tagged", "x");
    const std::string acl = accessACL();
    if (::lsetxattr(file.c_str(), "user.varnel", "blue", 4, 0) != 0) GTEST_SKIP() << "no user xattrs here";
    if (::lsetxattr(file.c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0) != 0) {
        GTEST_SKIP() << "no POSIX ACLs here";
    }

    CopyOptions extended;
    extended.metadataPolicy = MetadataPolicy::extended;
    EXPECT_EQ(copy("tagged", ".extended", extended).metadataProblems, std::vector<std::string>{});
    EXPECT_EQ(xattrOf(temporary / "dst/.extended", "user.varnel"), "blue");
    EXPECT_EQ(xattrOf(temporary / "dst/.extended", "system.posix_acl_access"), acl);
    EXPECT_EQ(statOf(temporary / "dst/.extended").st_mode & 0777, statOf(file).st_mode & 0777);

    EXPECT_EQ(copy("tagged", ".basic").metadataProblems, std::vector<std::string>{});
    EXPECT_EQ(xattrOf(temporary / "dst/.basic", "user.varnel"), "<No data available>");
}

TEST_F(FileCopyTests, OwnerIsCarriedOverWherePermitted) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root may give a file to another owner";
    const auto file = temporary.writeFile("src/owned", "x");
    ASSERT_EQ(::chown(file.c_str(), 1234, 5678), 0);
    EXPECT_EQ(copy("owned", ".owned").metadataProblems, std::vector<std::string>{});
    EXPECT_EQ(statOf(temporary / "dst/.owned").st_uid, 1234u);
    EXPECT_EQ(statOf(temporary / "dst/.owned").st_gid, 5678u);
}

TEST_F(FileCopyTests, HashesInBlocksFromTheCacheOrTheDevice) {
    temporary.writeFile("src/abc", "abc");
    EXPECT_EQ(toHex(fileSystem.sha256(source, rel("abc"), {}, {})),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

    const std::string data = patterned((5 << 20) / 2);
    temporary.writeFile("src/large", data);
    EXPECT_EQ(fileSystem.sha256(source, rel("large"), {}, {}), Sha256::of(data));
    EXPECT_EQ(fileSystem.sha256(source, rel("large"), HashOptions{true}, {}), Sha256::of(data));

    int asked = 0;
    EXPECT_THROW(fileSystem.sha256(source, rel("large"), {}, [&] { return ++asked == 2; }), OperationCancelled);
    EXPECT_EQ(asked, 2) << "asked before each 1 MiB block";

    fs::create_directory(temporary / "src/folder");
    fs::create_symlink("abc", temporary / "src/link");
    EXPECT_EQ(posixErrorOf([&] { fileSystem.sha256(source, rel("folder"), {}, {}); }),
              POSIXFileError(EISDIR, "open", (temporary / "src/folder").string()));
    EXPECT_EQ(posixErrorOf([&] { fileSystem.sha256(source, rel("link"), {}, {}); }),
              POSIXFileError(ELOOP, "open", (temporary / "src/link").string()));
}

// --- Other file systems ---------------------------------------------------------------------

class MountedFileCopyTests : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
    }

    TemporaryDirectory temporary;  // declared first: removed after the mounts are gone
    MountSandbox mounts;
    RealFileSystem fileSystem;
};

TEST_F(MountedFileCopyTests, SameVolumeCopiesOnBtrfsAndXfsAreClones) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> kinds = {
        {"btrfs", {"mkfs.btrfs", "-q", "-f"}},
        {"xfs", {"mkfs.xfs", "-q", "-f", "-m", "reflink=1"}},
    };
    int tested = 0;
    std::string skipped;
    temporary.writeFile("disk/file", "on the test folder's disk");
    const auto disk = fileSystem.openRoot((temporary / "disk").string());
    for (const auto& [name, mkfs] : kinds) {
        const std::string folder = (temporary / name).string();
        if (auto why = mounts.mountImage(folder + ".img", mkfs, 320 << 20, folder); !why.empty()) {
            skipped += name + ": " + why + "; ";
            continue;
        }
        ++tested;
        const std::string data = patterned(3 << 20, 5);
        fs::create_directories(fs::path(folder) / "src");
        fs::create_directories(fs::path(folder) / "dst");
        {
            std::ofstream(fs::path(folder) / "src/file", std::ios::binary) << data;
        }
        const auto src = fileSystem.openRoot(folder + "/src");
        const auto dst = fileSystem.openRoot(folder + "/dst");
        // Copies to and from another file system cannot clone; that must not stop the
        // clones within this one.
        EXPECT_FALSE(fileSystem.copyFile(src, rel("file"), disk, rel("." + name), {}, {}).usedClone) << name;
        EXPECT_FALSE(fileSystem.copyFile(disk, rel("file"), dst, rel(".from-disk"), {}, {}).usedClone) << name;

        std::int64_t reported = 0;
        const auto cloned = fileSystem.copyFile(src, rel("file"), dst, rel(".cloned"), {}, [&](std::int64_t n) {
            reported += n;
            return true;
        });
        EXPECT_TRUE(cloned.usedClone) << name;
        EXPECT_EQ(cloned.bytesWritten, 3 << 20) << name;
        EXPECT_EQ(reported, 3 << 20) << name;

        CopyOptions noClone;
        noClone.allowClone = false;  // an online-only source, say
        EXPECT_FALSE(fileSystem.copyFile(src, rel("file"), dst, rel(".copied"), noClone, {}).usedClone) << name;
        RealFileSystem neverClones(false);
        EXPECT_FALSE(neverClones.copyFile(src, rel("file"), dst, rel(".plain"), {}, {}).usedClone) << name;
        for (const char* copy : {".cloned", ".copied", ".plain"}) {
            EXPECT_EQ(fileSystem.sha256(dst, rel(copy), {}, {}), Sha256::of(data)) << name << " " << copy;
        }
    }
    if (tested == 0) GTEST_SKIP() << skipped;
}

TEST_F(MountedFileCopyTests, CopiesAcrossFileSystemsAndReportsAttributesTheTargetRefuses) {
    const auto memory = temporary / "tmpfs";
    const auto plain = temporary / "ramfs";  // keeps no extended attributes
    ASSERT_EQ(mounts.mountMemory(memory, "size=64m"), "");
    ASSERT_EQ(mounts.mountMemory(plain, "", "ramfs"), "");

    // A sparse source on tmpfs, copied onto the test folder's disk: a different file
    // system, where copy_file_range answers EXDEV (kernel 6.x) and the read/write path
    // takes over.
    const std::string data = patterned(200'000, 3);
    const auto file = fs::path(memory) / "file";
    {
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, data.data(), data.size(), 4 << 20), static_cast<ssize_t>(data.size()));
        ::close(fd);
    }
    ASSERT_EQ(::lsetxattr(file.c_str(), "user.varnel", "blue", 4, 0), 0) << std::strerror(errno);
    fs::create_directories(temporary / "disk");
    const auto src = fileSystem.openRoot(memory.string());
    const auto disk = fileSystem.openRoot((temporary / "disk").string());
    CopyOptions extended;
    extended.metadataPolicy = MetadataPolicy::strict;
    const auto outcome = fileSystem.copyFile(src, rel("file"), disk, rel(".file"), extended, {});
    EXPECT_EQ(outcome.bytesWritten, (4 << 20) + 200'000);
    EXPECT_EQ(outcome.metadataProblems, std::vector<std::string>{});
    EXPECT_EQ(fileSystem.sha256(disk, rel(".file"), {}, {}), fileSystem.sha256(src, rel("file"), {}, {}));
    EXPECT_LE(statOf(temporary / "disk/.file").st_blocks * 512, 1 << 20);

    const auto refusing = fileSystem.openRoot(plain.string());
    const auto refused = fileSystem.copyFile(src, rel("file"), refusing, rel(".file"), extended, {});
    EXPECT_EQ(refused.metadataProblems, std::vector<std::string>{"extended attributes"});
    EXPECT_EQ(fileSystem.sha256(refusing, rel(".file"), {}, {}), fileSystem.sha256(src, rel("file"), {}, {}));
}

}  // namespace
}  // namespace varnel::testing

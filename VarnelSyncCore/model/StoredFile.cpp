#include "model/StoredFile.hpp"

#include "common/Localization.hpp"
#include "scan/POSIXFileError.hpp"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <vector>

namespace varnel {

namespace {

namespace fs = std::filesystem;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    // Closes now so that a failing close (delayed write error on NFS) can be reported.
    int close() {
        const int result = ::close(fd_);
        fd_ = -1;
        return result;
    }

private:
    int fd_;
};

[[noreturn]] void failReading(const fs::path& path, int error) {
    throw StoredFileError(trFormat("The file “{}” could not be read ({}).", path.string(), systemErrorText(error)),
                          error);
}

[[noreturn]] void failWriting(const fs::path& path, int error) {
    throw StoredFileError(
        trFormat("The file “{}” could not be written ({}).", path.string(), systemErrorText(error)), error);
}

fs::path folderOf(const fs::path& path) {
    const auto parent = path.parent_path();
    return parent.empty() ? fs::path(".") : parent;
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

std::optional<std::string> readStoredFile(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return std::nullopt;
        failReading(path, errno);
    }
    FileDescriptor file(fd);
    std::string contents;
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR) continue;
            failReading(path, errno);
        }
        if (count == 0) break;
        contents.append(buffer, static_cast<std::size_t>(count));
    }
    return contents;
}

void writeStoredFileAtomically(const fs::path& path, std::string_view contents) {
    const fs::path folder = folderOf(path);
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        throw StoredFileError(
            trFormat("The folder “{}” could not be created ({}).", folder.string(), error.message()), error.value());
    }

    // Hidden and unique beside the target, so the rename stays on one file system.
    std::string temporaryName = (folder / ("." + path.filename().string() + ".tmp-XXXXXX")).string();
    std::vector<char> nameBuffer(temporaryName.begin(), temporaryName.end());
    nameBuffer.push_back('\0');
    const int fd = ::mkostemp(nameBuffer.data(), O_CLOEXEC);
    if (fd < 0) failWriting(path, errno);
    temporaryName.assign(nameBuffer.data());
    FileDescriptor file(fd);

    const auto discardAndFail = [&](int savedErrno) {
        ::unlink(temporaryName.c_str());
        failWriting(path, savedErrno);
    };
    // A failed write or flush may have lost pages the kernel will not report again;
    // the temporary file is discarded rather than renamed.
    if (!writeAll(file.get(), contents)) discardAndFail(errno);
    if (::fsync(file.get()) != 0) discardAndFail(errno);
    if (file.close() != 0) discardAndFail(errno);
    if (::rename(temporaryName.c_str(), path.c_str()) != 0) discardAndFail(errno);

    // The rename is the commit. Flushing the folder makes it survive a power cut; where a
    // file system refuses to flush folders, the new file is in place all the same.
    const int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd >= 0) {
        ::fsync(folderFd);
        ::close(folderFd);
    }
}

fs::path moveStoredFileAside(const fs::path& path, Date now) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(now).time_since_epoch().count();
    const std::string base = path.stem().string() + ".corrupt-" + std::to_string(seconds);
    for (int attempt = 1;; ++attempt) {
        const std::string name = attempt == 1 ? base + ".json" : base + "-" + std::to_string(attempt) + ".json";
        const fs::path target = path.parent_path() / name;
        if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return target;
        int error = errno;
        if (error == EINVAL || error == ENOSYS) {
            // The file system cannot refuse to replace; check first instead. Nothing else
            // writes corrupt-marked names, so the window is harmless.
            struct stat existing {};
            if (::lstat(target.c_str(), &existing) == 0) {
                error = EEXIST;
            } else if (::rename(path.c_str(), target.c_str()) == 0) {
                return target;
            } else {
                error = errno;
            }
        }
        if (error != EEXIST || attempt >= 1000) {
            throw StoredFileError(trFormat("The file “{}” could not be moved to “{}” ({}).", path.string(),
                                           target.filename().string(), systemErrorText(error)),
                                  error);
        }
    }
}

}  // namespace varnel

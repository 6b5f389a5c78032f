#include "varnel-sync/DestinationLock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace varnel::cli {

DestinationLock::DestinationLock(const std::string& folder) {
    fd_ = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) return;
    int result = 0;
    do {
        result = ::flock(fd_, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result == 0) {
        state_ = State::held;
    } else if (errno == EWOULDBLOCK) {
        state_ = State::busy;
    }
    // Another failure (a file system without locks) leaves the run unguarded, as before.
}

DestinationLock::~DestinationLock() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace varnel::cli

#pragma once

#include <string>

namespace varnel::cli {

// An exclusive advisory lock (flock) on a destination folder, held by a run from its
// analysis to its end. Another run, or a cleanup of leftover staging files, that finds
// the folder locked knows that a run is writing there and leaves it alone. Nothing is
// written to the folder: the lock lives on an open descriptor of it and ends with the
// process.
class DestinationLock {
public:
    enum class State {
        held,         // this process holds the lock
        busy,         // another process holds it
        unavailable,  // the folder could not be opened (analysis reports why)
    };

    explicit DestinationLock(const std::string& folder);
    ~DestinationLock();
    DestinationLock(const DestinationLock&) = delete;
    DestinationLock& operator=(const DestinationLock&) = delete;

    State state() const { return state_; }

private:
    int fd_ = -1;
    State state_ = State::unavailable;
};

}  // namespace varnel::cli

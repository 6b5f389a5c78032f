#include "platform/WorkspaceVolumeMonitor.hpp"

#include "platform/SystemCall.hpp"
#include "platform/UniqueFd.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <set>
#include <system_error>

namespace varnel {

namespace {

constexpr const char* kMountInfoPath = "/proc/self/mountinfo";

}  // namespace

void WorkspaceVolumeMonitor::observe(std::stop_token stop, UniqueFd mountInfo, UniqueFd wake, MountTable snapshot,
                                     std::shared_ptr<Shared> shared) {
    // Wakes poll() at once when a stop is requested.
    const std::stop_callback onStop(stop, [fd = wake.get()] {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(fd, &one, sizeof one);
    });
    pollfd watched[2] = {{mountInfo.get(), POLLPRI, 0}, {wake.get(), POLLIN, 0}};
    while (!stop.stop_requested()) {
        if (::poll(watched, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;  // nothing sensible left to wait on
        }
        if (stop.stop_requested() || (watched[1].revents & POLLIN) != 0) return;
        if ((watched[0].revents & POLLNVAL) != 0) return;
        if ((watched[0].revents & (POLLPRI | POLLERR)) == 0) continue;

        MountTable current = MountTable::current();
        // A process always sees at least its root mount; an empty table is a failed
        // read, not every volume gone at once.
        if (current.entries().empty()) continue;
        const auto vanished = vanishedMountPoints(snapshot, current);
        snapshot = std::move(current);
        if (vanished.empty()) continue;

        Handler call;
        {
            std::lock_guard guard(shared->lock);
            call = shared->handler;
        }
        if (!call) continue;
        for (const auto& mountPoint : vanished) call(mountPoint);
    }
}

WorkspaceVolumeMonitor::WorkspaceVolumeMonitor() : shared_(std::make_shared<Shared>()) {}

WorkspaceVolumeMonitor::~WorkspaceVolumeMonitor() { stopObserving(); }

std::vector<std::string> WorkspaceVolumeMonitor::vanishedMountPoints(const MountTable& before,
                                                                     const MountTable& after) {
    std::set<std::uint64_t> present;
    for (const auto& entry : after.entries()) present.insert(entry.mountID);
    std::vector<std::string> vanished;
    for (const auto& entry : before.entries()) {
        if (!present.contains(entry.mountID)) vanished.push_back(entry.mountPoint);
    }
    return vanished;
}

void WorkspaceVolumeMonitor::startObserving(Handler handler) {
    std::lock_guard guard(lock_);
    if (observer_.joinable()) {
        std::lock_guard sharedGuard(shared_->lock);
        shared_->handler = std::move(handler);
        return;
    }

    // Opened before the snapshot: a change in between flags the descriptor and is seen.
    UniqueFd mountInfo(::open(kMountInfoPath, O_RDONLY | O_CLOEXEC));
    if (!mountInfo) throw std::system_error(errno, std::generic_category(), kMountInfoPath);
    UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake) throw std::system_error(errno, std::generic_category(), "eventfd");
    MountTable snapshot = MountTable::current();

    // A fresh slot per thread: a thread let go from inside its handler never sees the
    // handler of a later start.
    shared_ = std::make_shared<Shared>();
    shared_->handler = std::move(handler);
    auto shared = shared_;
    observer_ = std::jthread([mountInfo = std::move(mountInfo), wake = std::move(wake), snapshot = std::move(snapshot),
                              shared](std::stop_token stop) mutable {
        observe(std::move(stop), std::move(mountInfo), std::move(wake), std::move(snapshot), std::move(shared));
    });
}

void WorkspaceVolumeMonitor::stopObserving() {
    std::jthread observer;
    {
        std::lock_guard guard(lock_);
        observer = std::move(observer_);
        std::lock_guard sharedGuard(shared_->lock);
        shared_->handler = nullptr;
    }
    if (!observer.joinable()) return;
    observer.request_stop();
    if (observer.get_id() == std::this_thread::get_id()) {
        // Called from the handler: the thread ends when the handler returns, and it owns
        // everything it still touches.
        observer.detach();
    } else {
        observer.join();
    }
}

}  // namespace varnel

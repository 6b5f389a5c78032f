#pragma once

#include "platform/MountTable.hpp"
#include "platform/UniqueFd.hpp"
#include "scan/VolumeMonitoring.hpp"

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace varnel {

// Watches this process's mount table for volumes that go away. The kernel flags
// /proc/self/mountinfo with POLLPRI whenever a mount is added or removed; a thread waits
// for that, reads the table again and reports the mount point of every mount that is no
// longer there. A mount stacked over another counts on its own: when the top one goes,
// its mount point is reported even though something is still mounted there, because
// the files at that path are no longer the volume's. New mounts are not reported.
//
// The thread sleeps in poll() and is woken at once by stopObserving() through an
// eventfd; it owns its descriptors and the shared handler slot, so stopping from inside
// the handler is safe.
class WorkspaceVolumeMonitor final : public VolumeMonitoring {
public:
    WorkspaceVolumeMonitor();
    ~WorkspaceVolumeMonitor() override;
    WorkspaceVolumeMonitor(const WorkspaceVolumeMonitor&) = delete;
    WorkspaceVolumeMonitor& operator=(const WorkspaceVolumeMonitor&) = delete;

    // Takes the first snapshot of the mount table before returning, so any unmount after
    // this call is reported. Throws std::system_error when the table cannot be watched.
    void startObserving(Handler handler) override;
    void stopObserving() override;

    // The mount points of mounts in `before` (by mount ID) that are missing from `after`,
    // in `before`'s order.
    static std::vector<std::string> vanishedMountPoints(const MountTable& before, const MountTable& after);

private:
    // What the observing thread shares with the monitor; kept alive by both.
    struct Shared {
        std::mutex lock;
        Handler handler;  // guarded by lock
    };

    // The observing thread: waits for mount-table changes until `stop` is requested.
    static void observe(std::stop_token stop, UniqueFd mountInfo, UniqueFd wake, MountTable snapshot,
                        std::shared_ptr<Shared> shared);

    std::mutex lock_;  // guards observer_ and the start/stop sequence
    std::shared_ptr<Shared> shared_;
    std::jthread observer_;
};

}  // namespace varnel

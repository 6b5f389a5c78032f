#pragma once

#include <functional>
#include <string>

namespace varnel {

// Tells the application when a volume goes away, so a run writing to it can stop with
// volumeDisappeared instead of writing into the folder left underneath its mount point.
class VolumeMonitoring {
public:
    // Receives the mount point of a volume that will be or has been unmounted. Called
    // on the monitor's own thread: it must only hand the event on, quickly.
    using Handler = std::function<void(const std::string& mountPoint)>;

    virtual ~VolumeMonitoring() = default;

    // Starts observing, or replaces the handler when already observing.
    virtual void startObserving(Handler handler) = 0;
    // Stops observing; once it returns the handler is not called again (unless stop is
    // called from the handler itself, whose current call then simply finishes).
    virtual void stopObserving() = 0;
};

}  // namespace varnel

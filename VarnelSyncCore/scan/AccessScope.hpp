#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace varnel {

// The access grants of one operation's folders (both endpoints of an analysis and the
// run that follows it), given back all at once. Shared by the coordinator and the run
// (hold it in a std::shared_ptr); every member is safe to call from several threads.
class AccessScope {
public:
    // Gives one grant back.
    using Release = std::function<void()>;

    AccessScope() = default;
    // Gives back whatever is still held, so a scope that is dropped never leaks a grant.
    ~AccessScope();
    AccessScope(const AccessScope&) = delete;
    AccessScope& operator=(const AccessScope&) = delete;

    // Records that access to `folder` was granted; `release` gives it back. A grant added
    // to a scope that was already released is given back at once and not kept.
    void add(std::string folder, Release release);

    // Gives back every grant, each exactly once, in the order they were added. Later
    // calls, from any thread, do nothing. The grants are given back outside the lock.
    void release();

    std::vector<std::string> urls() const;  // the folders whose access the scope holds
    bool isReleased() const;

private:
    struct Grant {
        std::string folder;
        Release release;
    };

    mutable std::mutex lock_;
    std::vector<Grant> grants_;
    bool isReleased_ = false;
};

}  // namespace varnel

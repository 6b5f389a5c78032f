#include "scan/AccessScope.hpp"

namespace varnel {

AccessScope::~AccessScope() { release(); }

void AccessScope::add(std::string folder, Release release) {
    {
        std::lock_guard guard(lock_);
        if (!isReleased_) {
            grants_.push_back({std::move(folder), std::move(release)});
            return;
        }
    }
    if (release) release();
}

void AccessScope::release() {
    std::vector<Grant> grants;
    {
        std::lock_guard guard(lock_);
        if (isReleased_) return;
        isReleased_ = true;
        grants.swap(grants_);
    }
    for (auto& grant : grants) {
        if (grant.release) grant.release();
    }
}

std::vector<std::string> AccessScope::urls() const {
    std::lock_guard guard(lock_);
    std::vector<std::string> folders;
    folders.reserve(grants_.size());
    for (const auto& grant : grants_) folders.push_back(grant.folder);
    return folders;
}

bool AccessScope::isReleased() const {
    std::lock_guard guard(lock_);
    return isReleased_;
}

}  // namespace varnel

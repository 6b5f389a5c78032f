#pragma once

#include "model/SyncProfile.hpp"

#include <vector>

namespace varnel {

// Keeps the user's list of profiles across launches. The application loads once at
// start and saves the whole list after every change. Failures are thrown as
// SyncError::ProfileStoreFailure, whose detail names the file and the reason.
class ProfileStoring {
public:
    virtual ~ProfileStoring() = default;

    // The profiles in the user's order; empty on first launch.
    virtual std::vector<SyncProfile> load() = 0;
    // Replaces the stored list with `profiles` as a whole.
    virtual void save(const std::vector<SyncProfile>& profiles) = 0;
};

}  // namespace varnel

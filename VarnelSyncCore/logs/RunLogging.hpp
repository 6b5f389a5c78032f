#pragma once

#include "common/Uuid.hpp"
#include "model/SyncProfile.hpp"
#include "plan/SyncPlan.hpp"
#include "transfer/SyncError.hpp"
#include "transfer/SyncRunResult.hpp"

#include <optional>
#include <string>
#include <vector>

namespace varnel {

// What the log of one finished run is made from.
struct RunLogInput {
    const SyncProfile& profile;
    const SyncPlan* plan = nullptr;  // absent when the run stopped before a plan existed
    const SyncRunResult& result;
    const std::vector<ActionResult>& actionResults;
    std::optional<std::string> sourceVolumeName{};
    std::optional<std::string> destinationVolumeName{};
};

// Writes the JSON Lines log and the text report of each run.
class RunLogging {
public:
    virtual ~RunLogging() = default;
    // Never throws: a log that cannot be written must not fail the run. Returns the
    // runLogFailure error when something could not be written.
    virtual std::optional<SyncError> write(const RunLogInput& input) = 0;
    virtual std::string logPath(const Uuid& runID) const = 0;
    virtual std::string reportPath(const Uuid& runID) const = 0;
};

}  // namespace varnel

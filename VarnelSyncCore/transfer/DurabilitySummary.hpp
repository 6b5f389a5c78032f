#pragma once

#include "model/SyncOptions.hpp"
#include "transfer/DurabilityOutcome.hpp"

#include <nlohmann/json_fwd.hpp>

#include <optional>

namespace varnel {

// The durability tally of one run, kept by the executor and written to the run log.
// A new summary has the run's mode and every count and time at zero.
struct DurabilitySummary {
    DurabilityMode mode = DurabilityMode::durable;
    int filesDurablyCommitted = 0;       // durablyCommitted or durableFullFlushUnsupported
    int filesWrittenFastMode = 0;        // fastNoFlush
    int filesUncertainDurability = 0;    // uncertainDirectoryNotFlushed
    int fileFlushFailures = 0;           // files whose own flush failed (not committed)
    int directoryFlushFailures = 0;      // folder-entry flushes that failed after a commit
    int fullFlushUnsupportedCount = 0;   // files whose full flush fell back to the weaker one
    int directoryTreeFlushFailures = 0;  // failures flushing the folders the run created
    int directoriesTreeFlushed = 0;      // folders created by the run that were flushed
    double totalFlushSeconds = 0;
    int flushCount = 0;  // measurements summed into totalFlushSeconds

    DurabilitySummary() = default;
    explicit DurabilitySummary(DurabilityMode mode) : mode(mode) {}

    // Counts one committed file by its outcome.
    void record(DurabilityOutcome outcome);
    // Adds one flush measurement; a flush that took no time (Fast mode made none) is
    // not a measurement and leaves the count alone.
    void addFlushTime(double seconds);
    // totalFlushSeconds / flushCount in milliseconds; none before the first measurement.
    std::optional<double> averageFlushMilliseconds() const;

    friend bool operator==(const DurabilitySummary&, const DurabilitySummary&) = default;
};

// Keys are the field names. Missing keys read as a new summary's values (mode durable).
void to_json(nlohmann::json& json, const DurabilitySummary& summary);
void from_json(const nlohmann::json& json, DurabilitySummary& summary);

}  // namespace varnel

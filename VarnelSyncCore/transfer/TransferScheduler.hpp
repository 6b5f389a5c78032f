#pragma once

#include "plan/SyncAction.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace varnel {

// Groups the plan's file and link actions into batches by size and says how many
// copies of each size may run at once. Pure: no clock, no disk, so the executor's
// scheduling loop is the only place where threads appear.
struct TransferScheduler {
    // Small files cost mostly per-file work (create, rename, flush), so many of them
    // overlap well; large files are bounded by the device's bandwidth.
    enum class SizeClass { small, medium, large };

    static constexpr std::int64_t kMediumFileMinimum = 1'000'000;  // below this: small
    static constexpr std::int64_t kLargeFileMinimum = 64'000'000;  // from this on: large

    // The upper bounds of concurrent copies, per class and overall.
    struct Configuration {
        int smallFileConcurrency = 6;
        int mediumFileConcurrency = 3;
        int largeFileConcurrency = 2;
        int maximumConcurrency = 8;

        friend bool operator==(const Configuration&, const Configuration&) = default;
    };

    // Consecutive actions of one size class, in plan order.
    struct Batch {
        SizeClass sizeClass = SizeClass::small;
        std::vector<SyncAction> actions;

        friend bool operator==(const Batch&, const Batch&) = default;
    };

    Configuration configuration;
    bool isSameVolume = false;  // source and destination on one volume (from the plan)
    int processorCount = 1;     // taken as at least 1

    static SizeClass sizeClass(std::int64_t size);
    // An action's class comes from its source size; an action without source facts (or
    // a link) counts as small.
    static SizeClass sizeClass(const SyncAction& action);

    // Walks the actions in order and starts a new batch whenever the class changes, so
    // the plan's order is kept exactly and no batch mixes classes.
    std::vector<Batch> batches(std::vector<SyncAction> actions) const;

    // How many copies of the class may run at once, always at least 1:
    // 1. the class's limit, never above maximumConcurrency;
    // 2. for medium and large files, never above the processor count (one more for
    //    medium files): each such copy keeps a thread busy with reads, writes and, when
    //    verifying, hashing. Small files wait mostly on per-file metadata work and
    //    flushes, so they keep their class's limit even on two processors;
    // 3. on one volume, large files run one at a time: a second stream gained nothing
    //    reliable there, and on a rotating disk two interleaved streams turn sequential
    //    transfers into seeks. Small and medium files keep their limits, since their
    //    per-file latency is what parallel copies hide.
    // The figures behind these rules: bench/README.md, parallel_copy_bench.
    int concurrency(SizeClass sizeClass) const;

    // The machine's processor count (std::thread::hardware_concurrency), at least 1.
    static int detectedProcessorCount();
};

std::string_view toString(TransferScheduler::SizeClass sizeClass);
std::optional<TransferScheduler::SizeClass> parseSizeClass(std::string_view raw);

}  // namespace varnel

template <>
struct std::hash<varnel::TransferScheduler::Configuration> {
    std::size_t operator()(const varnel::TransferScheduler::Configuration& c) const noexcept {
        std::size_t seed = 0;
        for (const int value : {c.smallFileConcurrency, c.mediumFileConcurrency, c.largeFileConcurrency,
                                c.maximumConcurrency}) {
            seed ^= std::hash<int>{}(value) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
        }
        return seed;
    }
};

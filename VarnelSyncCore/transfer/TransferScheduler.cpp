#include "transfer/TransferScheduler.hpp"

#include <algorithm>
#include <thread>

namespace varnel {

TransferScheduler::SizeClass TransferScheduler::sizeClass(std::int64_t size) {
    if (size >= kLargeFileMinimum) return SizeClass::large;
    if (size >= kMediumFileMinimum) return SizeClass::medium;
    return SizeClass::small;
}

TransferScheduler::SizeClass TransferScheduler::sizeClass(const SyncAction& action) {
    return sizeClass(action.sourceEntry ? action.sourceEntry->size : 0);
}

std::vector<TransferScheduler::Batch> TransferScheduler::batches(std::vector<SyncAction> actions) const {
    std::vector<Batch> result;
    for (auto& action : actions) {
        const SizeClass actionClass = sizeClass(action);
        if (result.empty() || result.back().sizeClass != actionClass) {
            result.push_back(Batch{actionClass, {}});
        }
        result.back().actions.push_back(std::move(action));
    }
    return result;
}

int TransferScheduler::concurrency(SizeClass sizeClass) const {
    const int processors = std::max(1, processorCount);
    int limit = 1;
    int processorBound = processors;
    switch (sizeClass) {
        case SizeClass::small:
            // Not bounded by the processors: a small copy mostly waits on metadata work
            // and, in Durable mode, on its flushes.
            limit = configuration.smallFileConcurrency;
            processorBound = limit;
            break;
        case SizeClass::medium:
            limit = configuration.mediumFileConcurrency;
            processorBound = processors + 1;
            break;
        case SizeClass::large:
            limit = isSameVolume ? 1 : configuration.largeFileConcurrency;
            processorBound = processors;
            break;
    }
    limit = std::min({limit, configuration.maximumConcurrency, processorBound});
    return std::max(1, limit);
}

int TransferScheduler::detectedProcessorCount() {
    return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

std::string_view toString(TransferScheduler::SizeClass sizeClass) {
    switch (sizeClass) {
        case TransferScheduler::SizeClass::small: return "small";
        case TransferScheduler::SizeClass::medium: return "medium";
        case TransferScheduler::SizeClass::large: return "large";
    }
    return "small";
}

std::optional<TransferScheduler::SizeClass> parseSizeClass(std::string_view raw) {
    for (const auto value : {TransferScheduler::SizeClass::small, TransferScheduler::SizeClass::medium,
                             TransferScheduler::SizeClass::large}) {
        if (toString(value) == raw) return value;
    }
    return std::nullopt;
}

}  // namespace varnel

#include "support/FaultInjectingFlusher.hpp"

#include "scan/FileSystemProviding.hpp"

namespace varnel::testing {

FaultInjectingFlusher::FaultInjectingFlusher(std::shared_ptr<FileFlushing> inner) : inner_(std::move(inner)) {}

void FaultInjectingFlusher::atCall(Operation operation, std::function<void()> action, int occurrence) {
    std::lock_guard lock(mutex_);
    triggers_.push_back(Trigger{operation, counts_[operation] + occurrence, std::move(action), std::nullopt});
}

void FaultInjectingFlusher::failCall(Operation operation, int errnoValue, int occurrence) {
    // The error is built at the call, when its path and mode are known.
    std::lock_guard lock(mutex_);
    triggers_.push_back(Trigger{operation, counts_[operation] + occurrence, nullptr, errnoValue});
}

void FaultInjectingFlusher::refuseFullFlush() {
    std::lock_guard lock(mutex_);
    refuseFullFlush_ = true;
}

void FaultInjectingFlusher::trackFlushes(std::shared_ptr<UnflushedWrites> writes) {
    std::lock_guard lock(mutex_);
    writes_ = std::move(writes);
}

std::vector<std::string> FaultInjectingFlusher::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<FaultInjectingFlusher::Trigger> FaultInjectingFlusher::due(Operation operation, std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
    const int number = ++counts_[operation];
    std::vector<Trigger> triggers;
    for (const auto& trigger : triggers_) {
        if (trigger.operation == operation && trigger.callNumber == number) triggers.push_back(trigger);
    }
    return triggers;
}

FlushResult FaultInjectingFlusher::flushFile(const EndpointRoot& root, const RelativePath& path, DurabilityMode mode,
                                             std::uint64_t expectedSize) {
    const std::string name(path.lastComponent());
    const auto triggers = due(file, "flushFile " + name + " " + std::string(toString(mode)) + " " +
                                       std::to_string(expectedSize));
    for (const auto& trigger : triggers) {
        if (!trigger.errnoValue) {
            trigger.action();
        } else if (mode == DurabilityMode::maximum) {
            throw DurabilityError(DurabilityError::FullFlushFailed{name, *trigger.errnoValue});
        } else {
            throw DurabilityError(DurabilityError::FileFlushFailed{name, *trigger.errnoValue});
        }
    }
    FlushResult result = inner_->flushFile(root, path, mode, expectedSize);
    std::lock_guard lock(mutex_);
    if (refuseFullFlush_ && mode == DurabilityMode::maximum) result.fellBackFromFullFlush = true;
    if (writes_ && mode != DurabilityMode::fast) writes_->flushed(displayPath(root, path));
    return result;
}

FlushResult FaultInjectingFlusher::flushDirectory(const EndpointRoot& root, const RelativePath& path,
                                                  DurabilityMode mode) {
    const std::string shown = displayPath(root, path);
    const auto triggers = due(directory, "flushDirectory " + shown + " " + std::string(toString(mode)));
    for (const auto& trigger : triggers) {
        if (!trigger.errnoValue) trigger.action();
        else throw DurabilityError(DurabilityError::ParentDirectoryFlushFailed{shown, *trigger.errnoValue});
    }
    FlushResult result = inner_->flushDirectory(root, path, mode);
    std::lock_guard lock(mutex_);
    if (refuseFullFlush_ && mode == DurabilityMode::maximum) result.fellBackFromFullFlush = true;
    return result;
}

}  // namespace varnel::testing

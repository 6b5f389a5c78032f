#pragma once

#include "support/UnflushedWrites.hpp"
#include "transfer/FileFlushing.hpp"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace varnel::testing {

// A FileFlushing that forwards to another one (a no-op flusher by default) and can
// make a chosen call fail, fake a device that refuses the full flush, or run a check
// at a chosen moment. Records every call:
//
//     auto flusher = std::make_shared<FaultInjectingFlusher>();
//     flusher->failCall(FaultInjectingFlusher::directory, EIO);  // next folder flush fails
//     flusher->atCall(FaultInjectingFlusher::file, [&] { /* destination still old? */ });
//     flusher->calls();  // {"flushFile .a.varnelsync-partial-… durable 42", "flushDirectory /dst durable"}
//
// Calls are counted per operation from the moment a fault is set (1 = the next call).
// Thread-safe.
class FaultInjectingFlusher final : public FileFlushing {
public:
    enum Operation { file, directory };

    explicit FaultInjectingFlusher(std::shared_ptr<FileFlushing> inner = std::make_shared<NoOpFileFlusher>());

    // The occurrence-th call fails with the error the real flusher gives for a failing
    // flush call: fileFlushFailed (fullFlushFailed in maximum mode) for a file, named by
    // its last component; parentDirectoryFlushFailed for a folder, by its full path.
    // The inner flusher is not reached.
    void failCall(Operation operation, int errnoValue, int occurrence = 1);
    // Every call in maximum mode from now on reports fellBackFromFullFlush, as on a
    // device that refuses the full flush.
    void refuseFullFlush();
    // Runs `action` at the start of the occurrence-th call (it may throw).
    void atCall(Operation operation, std::function<void()> action, int occurrence = 1);

    // Reports every file flush that succeeded in Durable or Maximum mode to `writes`
    // (Fast mode flushes nothing), so UnflushedWrites::simulateCrash keeps its data.
    void trackFlushes(std::shared_ptr<UnflushedWrites> writes);

    std::vector<std::string> calls() const;

    FlushResult flushFile(const EndpointRoot& root, const RelativePath& path, DurabilityMode mode,
                          std::uint64_t expectedSize) override;
    FlushResult flushDirectory(const EndpointRoot& root, const RelativePath& path, DurabilityMode mode) override;

private:
    struct Trigger {
        Operation operation;
        int callNumber;                 // absolute: the count of calls of `operation` at which it fires
        std::function<void()> action;   // run, or
        std::optional<int> errnoValue;  // fail the flush call with this errno
    };

    // Counts the call and returns the triggers due now.
    std::vector<Trigger> due(Operation operation, std::string call);

    std::shared_ptr<FileFlushing> inner_;
    mutable std::mutex mutex_;
    int counts_[2] = {0, 0};
    std::vector<Trigger> triggers_;
    bool refuseFullFlush_ = false;
    std::vector<std::string> calls_;
    std::shared_ptr<UnflushedWrites> writes_;
};

}  // namespace varnel::testing

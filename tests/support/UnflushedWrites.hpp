#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace varnel::testing {

// The "state as of the last flush" of the files a run writes, for simulating a crash
// without a real one. A FaultInjectingFileSystem reports the files whose data it wrote
// (copyFile's staging file), their renames and removals; a FaultInjectingFlusher reports
// each file flush that really reached storage (Durable or Maximum mode, not failed).
// simulateCrash() then discards every write not yet flushed: each tracked file still
// present is cut back to the length it had at its last flush (0 if it was never
// flushed), and its lost bytes read as nothing.
//
// Every name change is kept, even one whose folder was never flushed: the harshest
// outcome of a power cut for a writer that relies on "flush, then rename", and what xfs
// (and ext4 without auto_da_alloc) really leave behind when the rename reached the journal
// before the data reached the disk.
//
//     auto writes = std::make_shared<UnflushedWrites>();
//     fileSystem->trackWrites(writes);
//     flusher->trackFlushes(writes);
//     ... run ...
//     writes->simulateCrash();  // now check what survived
class UnflushedWrites {
public:
    // Paths are absolute (displayPath of the root and the relative path).
    void written(const std::string& path);
    void flushed(const std::string& path);
    void renamed(const std::string& from, const std::string& to);
    void removed(const std::string& path);

    // Cuts each tracked file with unflushed data back to its flushed length; returns the
    // paths that lost data. The tracking starts afresh.
    std::vector<std::string> simulateCrash();

private:
    struct File {
        std::int64_t flushedLength = 0;
        bool dirty = true;
    };
    mutable std::mutex mutex_;
    std::map<std::string, File> files_;
};

}  // namespace varnel::testing

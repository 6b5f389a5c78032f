#pragma once

#include "model/RelativePath.hpp"
#include "model/SyncOptions.hpp"
#include "scan/EndpointRoot.hpp"
#include "transfer/DurabilityError.hpp"
#include "transfer/FlushResult.hpp"

#include <cstdint>

namespace varnel {

// Pushes a staged file, or the folder that holds a committed one, to storage as a
// durability mode asks. Items are addressed like every other item of the engine: an
// open root and a RelativePath below it, never followed through a link.
//
// Fast mode flushes nothing and opens nothing. Failures throw DurabilityError: the
// file operation's cases (nothing was committed yet; the caller discards the staged
// file) and the folder operation's cases (the file is already in place).
// Implementations are safe to call from several copy tasks at once.
class FileFlushing {
public:
    virtual ~FileFlushing() = default;

    // Flushes the staged file at (root, path), which must be a regular file of exactly
    // `expectedSize` bytes (what the copy wrote); anything else means another writer
    // touched it and it is not flushed. Errors name the file by its last path component.
    virtual FlushResult flushFile(const EndpointRoot& root, const RelativePath& path, DurabilityMode mode,
                                  std::uint64_t expectedSize) = 0;

    // Flushes the folder at (root, path) so the entry of a file just renamed into it
    // survives a power cut. Errors name the folder by its full path.
    virtual FlushResult flushDirectory(const EndpointRoot& root, const RelativePath& path, DurabilityMode mode) = 0;
};

// Flushes nothing in any mode: no fallback, no time. For work where no flushing is
// wanted at all.
class NoOpFileFlusher final : public FileFlushing {
public:
    FlushResult flushFile(const EndpointRoot&, const RelativePath&, DurabilityMode, std::uint64_t) override {
        return {};
    }
    FlushResult flushDirectory(const EndpointRoot&, const RelativePath&, DurabilityMode) override { return {}; }
};

}  // namespace varnel

#pragma once

#include "model/SyncOptions.hpp"
#include "scan/FileSystemEntry.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>

namespace varnel {

// Called from the copying thread with the bytes copied since the previous call (0 for
// the first call, made before any data moves); skipped holes count as copied. Returning
// false stops the copy, which then throws OperationCancelled.
using CopyProgress = std::function<bool(std::int64_t increment)>;

// Asked before each block of a long read; true stops it with OperationCancelled.
using StopRequested = std::function<bool()>;

// Given the entry of a copy's source as opened, before anything is written; throws to
// refuse the copy.
using SourceCheck = std::function<void(const FreshEntry& opened)>;

// How FileSystemProviding::copyFile copies one file.
struct CopyOptions {
    // basic: permissions, owner (where permitted), access and modification times with
    // nanoseconds. extended and strict add extended attributes and POSIX ACLs. Under
    // strict, an owner that may not be set is a problem too.
    MetadataPolicy metadataPolicy = MetadataPolicy::basic;
    // Whether the data may be cloned (shared blocks) where the file system can; false for
    // online-only sources, whose blocks must really be read.
    bool allowClone = true;
    // The most bytes moved between two progress reports.
    std::size_t chunkBytes = std::size_t{8} << 20;
    // Hand each block to the device as soon as it is written (at most 1 MiB at a time),
    // for a copy that is flushed next: the flush then finds little left to write. It
    // only starts the writing; the flush still decides and reports its errors.
    bool startsWriteback = false;

    friend bool operator==(const CopyOptions&, const CopyOptions&) = default;
};

// How FileSystemProviding::sha256 reads a file.
struct HashOptions {
    // Write the file's dirty pages out and drop it from the page cache before reading, so
    // the bytes come from the device rather than from what a copy just left in memory.
    bool readFromDevice = false;

    friend bool operator==(const HashOptions&, const HashOptions&) = default;
};

}  // namespace varnel

#include "scan/ScanResult.hpp"

#include <algorithm>

namespace varnel {

const FileSystemEntry& ScanResult::add(FileSystemEntry&& entry) {
    return entries_->add(std::move(entry));
}

const FileSystemEntry* ScanResult::entry(const RelativePath& path) const {
    const auto found = std::find_if(entries_->begin(), entries_->end(),
                                    [&](const FileSystemEntry& entry) { return entry.relativePath == path; });
    return found == entries_->end() ? nullptr : &*found;
}

}  // namespace varnel

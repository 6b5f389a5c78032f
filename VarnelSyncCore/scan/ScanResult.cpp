#include "scan/ScanResult.hpp"

namespace varnel {

const FileSystemEntry& ScanResult::add(FileSystemEntry entry) {
    const FileSystemEntry& stored = entries_.emplace_back(std::move(entry));
    byKey_.emplace(std::string_view(stored.relativePath.canonicalValue()), &stored);
    return stored;
}

const FileSystemEntry* ScanResult::entry(const RelativePath& path) const {
    const auto found = byKey_.find(std::string_view(path.canonicalValue()));
    return found == byKey_.end() ? nullptr : found->second;
}

}  // namespace varnel

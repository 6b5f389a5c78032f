#include "scan/FileSystemProviding.hpp"

#include <cerrno>

namespace varnel {

std::string displayPath(const EndpointRoot& root, const RelativePath& path) {
    if (path.isRoot()) return root.path();
    if (!root.path().empty() && root.path().back() == '/') return root.path() + std::string(path.value());
    return root.path() + "/" + std::string(path.value());
}

std::optional<int> FileSystemProviding::volumeFailure(const EndpointRoot& /*root*/) { return std::nullopt; }

bool mayMeanVolumeGone(int errnoValue) {
    return errnoValue == EIO || errnoValue == ENOTCONN || errnoValue == ESHUTDOWN || errnoValue == ENODEV ||
           errnoValue == ENXIO;
}

}  // namespace varnel

#include "scan/FileSystemProviding.hpp"

namespace varnel {

std::string displayPath(const EndpointRoot& root, const RelativePath& path) {
    if (path.isRoot()) return root.path();
    if (!root.path().empty() && root.path().back() == '/') return root.path() + path.value();
    return root.path() + "/" + path.value();
}

}  // namespace varnel

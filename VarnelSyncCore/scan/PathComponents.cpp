#include "scan/PathComponents.hpp"

#include <algorithm>

namespace varnel {

std::vector<std::string> standardizedComponents(std::string_view path) {
    std::vector<std::string> components;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t slash = std::min(path.find('/', start), path.size());
        const std::string_view part = path.substr(start, slash - start);
        if (part == "..") {
            if (!components.empty()) components.pop_back();
        } else if (!part.empty() && part != ".") {
            components.emplace_back(part);
        }
        start = slash + 1;
    }
    return components;
}

namespace {

// Whether `inner` begins with every component of `outer`, in order.
bool startsWith(const std::vector<std::string>& inner, const std::vector<std::string>& outer) {
    return inner.size() >= outer.size() && std::equal(outer.begin(), outer.end(), inner.begin());
}

}  // namespace

bool isStrictlyInside(std::string_view inner, std::string_view outer) {
    const auto innerComponents = standardizedComponents(inner);
    const auto outerComponents = standardizedComponents(outer);
    return innerComponents.size() > outerComponents.size() && startsWith(innerComponents, outerComponents);
}

bool isSameOrInside(std::string_view inner, std::string_view outer) {
    return startsWith(standardizedComponents(inner), standardizedComponents(outer));
}

}  // namespace varnel

#pragma once
// Absolute paths compared by their components, exactly and case-sensitively on every
// volume: two folders either are the same string of components or they are not, and a
// volume's case rules never make /Data and /data one folder here.

#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// The components of `path` after standardising it: empty and "." components dropped,
// ".." removing the component before it (never climbing above the root). Purely textual:
// no link is followed, so callers pass canonical paths when links matter.
std::vector<std::string> standardizedComponents(std::string_view path);

// Whether `inner` lies strictly inside `outer`: more components, and `outer`'s components
// equal `inner`'s first ones one by one. So /Data/Photos is inside /Data, /Data is not
// inside itself, and /Data2 is not inside /Data.
bool isStrictlyInside(std::string_view inner, std::string_view outer);

// Whether `inner` is `outer` itself or lies inside it.
bool isSameOrInside(std::string_view inner, std::string_view outer);

}  // namespace varnel

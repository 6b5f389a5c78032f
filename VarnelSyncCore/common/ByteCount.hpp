#pragma once

#include <cstdint>
#include <string>

namespace varnel {

// Formats a byte count for users: -999...999 as "N bytes"; larger magnitudes in decimal
// KB, MB, GB or TB with one decimal and a trailing ".0" dropped ("1.5 GB", "2 TB").
std::string formatByteCount(std::int64_t bytes);

}  // namespace varnel

#include "common/ByteCount.hpp"

#include "common/Localization.hpp"

#include <fmt/format.h>

#include <array>
#include <cmath>

namespace varnel {

std::string formatByteCount(std::int64_t bytes) {
    if (bytes >= -999 && bytes <= 999) {
        return trFormat("{} bytes", bytes);
    }
    static constexpr std::array<const char*, 4> kUnits = {"KB", "MB", "GB", "TB"};
    const bool negative = bytes < 0;
    // long double keeps INT64_MIN exact enough and avoids negating it.
    long double magnitude = std::fabs(static_cast<long double>(bytes)) / 1000.0L;
    std::size_t unit = 0;
    // Step up while the value would print as 1000 or more in this unit.
    while (unit + 1 < kUnits.size() && std::round(magnitude * 10.0L) >= 10000.0L) {
        magnitude /= 1000.0L;
        ++unit;
    }
    const long double tenths = std::round(magnitude * 10.0L);
    std::string number;
    if (std::fmod(tenths, 10.0L) == 0.0L) {
        number = fmt::format("{:.0f}", static_cast<double>(tenths / 10.0L));
    } else {
        number = fmt::format("{:.1f}", static_cast<double>(tenths / 10.0L));
    }
    return fmt::format("{}{} {}", negative ? "-" : "", number, kUnits[unit]);
}

}  // namespace varnel

#include "scan/PackedTimestamp.hpp"

#include <nlohmann/json.hpp>

namespace varnel::detail {

std::uint64_t TimestampWord::box(const FileTimestamp& time) {
    return reinterpret_cast<std::uint64_t>(new FileTimestamp(time));
}

void TimestampWord::freeBox(std::uint64_t word) { delete reinterpret_cast<FileTimestamp*>(word); }

FileTimestamp TimestampWord::decode(std::uint64_t word) {
    if (!isInline(word)) return unbox(word);
    const std::int64_t count = static_cast<std::int64_t>(word) >> 1;  // arithmetic: C++20
    std::int64_t seconds = count / kNanosecondsPerSecond;
    std::int64_t nanoseconds = count % kNanosecondsPerSecond;
    if (nanoseconds < 0) {  // before 1970: the nanoseconds still count forward
        --seconds;
        nanoseconds += kNanosecondsPerSecond;
    }
    return FileTimestamp{seconds, static_cast<std::int32_t>(nanoseconds)};
}

}  // namespace varnel::detail

namespace varnel {

void to_json(nlohmann::json& json, const PackedTimestamp& timestamp) { to_json(json, timestamp.value()); }

}  // namespace varnel

#pragma once

#include <cstdint>
#include <optional>

namespace varnel {

// How many 512-byte blocks the calling thread has had read from storage so far (reads
// the cache answered do not count), or none where the system does not say.
std::optional<std::int64_t> diskBlocksReadByThisThread();

}  // namespace varnel

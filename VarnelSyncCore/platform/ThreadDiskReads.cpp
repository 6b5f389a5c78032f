#include "platform/ThreadDiskReads.hpp"

#include <sys/resource.h>

namespace varnel {

std::optional<std::int64_t> diskBlocksReadByThisThread() {
#ifdef RUSAGE_THREAD
    struct rusage usage {};
    if (::getrusage(RUSAGE_THREAD, &usage) == 0) return static_cast<std::int64_t>(usage.ru_inblock);
#endif
    return std::nullopt;
}

}  // namespace varnel

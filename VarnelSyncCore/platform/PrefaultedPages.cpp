#include "platform/PrefaultedPages.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace varnel {

void prefaultForWriting(void* start, std::size_t bytes) {
#ifdef MADV_POPULATE_WRITE
    // The system takes whole pages from a page boundary on; the part pages at the edges
    // are left to come on first write.
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto begin = (reinterpret_cast<std::uintptr_t>(start) + page - 1) & ~(page - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(start) + bytes) & ~(page - 1);
    // Fails with EINVAL before Linux 5.14; the pages then come on first write.
    if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#else
    (void)start;
    (void)bytes;
#endif
}

}  // namespace varnel

#pragma once

#include <cerrno>

namespace varnel {

// Repeats a call that returns -1 with errno EINTR: an interrupted call did nothing, and
// a signal arriving mid-run must not turn into a reported failure.
template <typename Call>
auto retryOnInterrupt(Call&& call) {
    auto result = call();
    while (result == -1 && errno == EINTR) result = call();
    return result;
}

}  // namespace varnel

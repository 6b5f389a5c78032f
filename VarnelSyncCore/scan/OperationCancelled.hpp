#pragma once

#include <stdexcept>

namespace varnel {

// A long file operation (a copy, a checksum) stopped because its caller asked it to.
// Not a failure of the file system: the caller reports it as the run's cancellation.
class OperationCancelled : public std::runtime_error {
public:
    OperationCancelled() : std::runtime_error("operation cancelled") {}
};

}  // namespace varnel

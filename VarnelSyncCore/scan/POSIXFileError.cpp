#include "scan/POSIXFileError.hpp"

#include "common/Localization.hpp"

#include <cstring>

namespace varnel {

std::string systemErrorText(int errnoValue) {
    char buffer[256];
    // GNU strerror_r returns the text, which may or may not live in `buffer`.
    return ::strerror_r(errnoValue, buffer, sizeof buffer);
}

POSIXFileError::POSIXFileError(int errnoValue, std::string operation, std::string path)
    : std::runtime_error(trFormat("{} failed for {}: {}", operation, path, systemErrorText(errnoValue))),
      errnoValue_(errnoValue),
      operation_(std::move(operation)),
      path_(std::move(path)) {}

}  // namespace varnel

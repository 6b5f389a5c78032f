#pragma once

#include <stdexcept>
#include <string>

namespace varnel {

// Stored data that cannot be decoded (a corrupted or foreign value). what() is the
// description shown to users and written to logs, without any library prefix.
class DecodingError : public std::runtime_error {
public:
    explicit DecodingError(const std::string& description) : std::runtime_error(description) {}
};

}  // namespace varnel

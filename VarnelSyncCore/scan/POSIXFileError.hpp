#pragma once

#include <stdexcept>
#include <string>

namespace varnel {

// A failed system call inside the file-system layer: the call's name, the path it
// acted on and its errno. what() is "<operation> failed for <path>: <strerror>".
class POSIXFileError : public std::runtime_error {
public:
    POSIXFileError(int errnoValue, std::string operation, std::string path);

    int errnoValue() const { return errnoValue_; }
    const std::string& operation() const { return operation_; }
    const std::string& path() const { return path_; }
    std::string message() const { return what(); }

    friend bool operator==(const POSIXFileError& a, const POSIXFileError& b) {
        return a.errnoValue_ == b.errnoValue_ && a.operation_ == b.operation_ && a.path_ == b.path_;
    }

private:
    int errnoValue_;
    std::string operation_;
    std::string path_;
};

// The system's text for an error number, thread-safe.
std::string systemErrorText(int errnoValue);

}  // namespace varnel

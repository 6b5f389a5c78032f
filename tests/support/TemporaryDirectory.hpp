#pragma once

#include <filesystem>
#include <string>

namespace varnel::testing {

// A fresh folder under $TMPDIR (else /tmp), removed with everything inside on destruction.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string string() const { return path_.string(); }
    std::filesystem::path operator/(const std::string& relative) const { return path_ / relative; }

    // Writes `contents` to a file below the folder, creating intermediate folders.
    std::filesystem::path writeFile(const std::string& relative, const std::string& contents) const;
    std::string readFile(const std::string& relative) const;

private:
    std::filesystem::path path_;
};

}  // namespace varnel::testing

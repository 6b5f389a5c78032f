#include "support/TemporaryDirectory.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace varnel::testing {

TemporaryDirectory::TemporaryDirectory() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/varnel-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    // Tests may leave read-only folders behind; make them removable first.
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ignored);
        }
    }
    std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TemporaryDirectory::writeFile(const std::string& relative, const std::string& contents) const {
    const auto full = path_ / relative;
    std::filesystem::create_directories(full.parent_path());
    std::ofstream out(full, std::ios::binary | std::ios::trunc);
    out << contents;
    if (!out) throw std::runtime_error("could not write " + full.string());
    return full;
}

std::string TemporaryDirectory::readFile(const std::string& relative) const {
    std::ifstream in(path_ / relative, std::ios::binary);
    if (!in) throw std::runtime_error("could not read " + (path_ / relative).string());
    std::ostringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

}  // namespace varnel::testing

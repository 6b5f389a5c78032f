#pragma once
// SHA-256 through OpenSSL's libcrypto, which uses the CPU's SHA instructions where
// they exist.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace varnel {

using Sha256Digest = std::array<std::uint8_t, 32>;

// An incremental SHA-256. Not copyable; one per thread of work.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void update(const void* data, std::size_t size);
    void update(std::string_view data) { update(data.data(), data.size()); }
    // The digest of everything fed so far; the hasher starts over afterwards.
    Sha256Digest finish();

    static Sha256Digest of(std::string_view data);

private:
    struct Context;
    std::unique_ptr<Context> context_;
};

// Lower-case hexadecimal, two digits per byte (64 characters).
std::string toHex(const Sha256Digest& digest);

}  // namespace varnel

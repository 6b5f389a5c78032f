#include "common/Sha256.hpp"

#include <openssl/evp.h>

#include <stdexcept>

namespace varnel {

struct Sha256::Context {
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> evp{EVP_MD_CTX_new()};

    void start() {
        // Failing here means the library is unusable (out of memory, broken install):
        // nothing a caller could recover from by retrying.
        if (!evp || EVP_DigestInit_ex(evp.get(), EVP_sha256(), nullptr) != 1) {
            throw std::runtime_error("SHA-256 is not available from OpenSSL");
        }
    }
};

Sha256::Sha256() : context_(std::make_unique<Context>()) { context_->start(); }

Sha256::~Sha256() = default;

void Sha256::update(const void* data, std::size_t size) {
    if (size == 0) return;
    if (EVP_DigestUpdate(context_->evp.get(), data, size) != 1) throw std::runtime_error("SHA-256 update failed");
}

Sha256Digest Sha256::finish() {
    Sha256Digest digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context_->evp.get(), digest.data(), &length) != 1 || length != digest.size()) {
        throw std::runtime_error("SHA-256 finish failed");
    }
    context_->start();
    return digest;
}

Sha256Digest Sha256::of(std::string_view data) {
    Sha256 hasher;
    hasher.update(data);
    return hasher.finish();
}

std::string toHex(const Sha256Digest& digest) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(digest.size() * 2);
    for (const std::uint8_t byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0f];
    }
    return text;
}

}  // namespace varnel

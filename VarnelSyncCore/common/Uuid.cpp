#include "common/Uuid.hpp"

#include "common/DecodingError.hpp"

#include <nlohmann/json.hpp>
#include <pthread.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace varnel {

namespace {

// Random identifiers are made in bulk (one per staging file), so their bytes come from
// the kernel in batches: one getrandom call per 256 identifiers, where libuuid makes
// several system calls for each. Each thread keeps its own batch. A forked child starts
// a new one, so parent and child never hand out the same bytes.
constexpr std::size_t kBatchBytes = 4096;

std::atomic<unsigned> forkGeneration{0};

struct RandomBatch {
    std::array<std::uint8_t, kBatchBytes> bytes{};
    std::size_t used = kBatchBytes;
    unsigned generation = 0;
};

bool fillFromKernel(std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t got = ::getrandom(data, size, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

// 16 random bytes, or none when the kernel gives none.
std::optional<std::array<std::uint8_t, 16>> randomBytes() {
    static const bool watchingForks = [] {
        ::pthread_atfork(nullptr, nullptr, [] { forkGeneration.fetch_add(1, std::memory_order_relaxed); });
        return true;
    }();
    (void)watchingForks;
    thread_local RandomBatch batch;
    const unsigned generation = forkGeneration.load(std::memory_order_relaxed);
    if (batch.used + 16 > batch.bytes.size() || batch.generation != generation) {
        if (!fillFromKernel(batch.bytes.data(), batch.bytes.size())) return std::nullopt;
        batch.used = 0;
        batch.generation = generation;
    }
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), batch.bytes.data() + batch.used, bytes.size());
    batch.used += bytes.size();
    return bytes;
}

}  // namespace

Uuid Uuid::random() {
    std::array<std::uint8_t, 16> bytes{};
    if (const auto fresh = randomBytes()) {
        bytes = *fresh;
        bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4: random
        bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // the RFC 4122 variant
    } else {
        uuid_t raw;
        uuid_generate_random(raw);
        std::memcpy(bytes.data(), raw, bytes.size());
    }
    return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool dashPosition = i == 8 || i == 13 || i == 18 || i == 23;
        const auto c = static_cast<unsigned char>(text[i]);
        if (dashPosition ? c != '-' : !std::isxdigit(c)) return std::nullopt;
    }
    char buffer[37];
    std::memcpy(buffer, text.data(), 36);
    buffer[36] = '\0';
    uuid_t raw;
    if (uuid_parse(buffer, raw) != 0) return std::nullopt;
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), raw, bytes.size());
    return Uuid(bytes);
}

std::string Uuid::string() const {
    uuid_t raw;
    std::memcpy(raw, bytes_.data(), bytes_.size());
    char buffer[37];
    uuid_unparse_upper(raw, buffer);
    return std::string(buffer, 36);
}

bool Uuid::isNil() const {
    return std::all_of(bytes_.begin(), bytes_.end(), [](std::uint8_t b) { return b == 0; });
}

void to_json(nlohmann::json& json, const Uuid& uuid) {
    json = uuid.string();
}

void from_json(const nlohmann::json& json, Uuid& uuid) {
    const auto& text = json.get_ref<const std::string&>();
    auto parsed = Uuid::parse(text);
    if (!parsed) {
        throw DecodingError("Invalid UUID: " + text);
    }
    uuid = *parsed;
}

}  // namespace varnel

std::size_t std::hash<varnel::Uuid>::operator()(const varnel::Uuid& uuid) const noexcept {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    std::memcpy(&high, uuid.bytes().data(), 8);
    std::memcpy(&low, uuid.bytes().data() + 8, 8);
    return std::hash<std::uint64_t>{}(high ^ (low * 0x9E3779B97F4A7C15ULL));
}

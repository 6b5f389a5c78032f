#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace varnel {

// A map from text to small values in one flat array with linear probing, for look-ups
// made once per scanned item: a look-up reads one bucket, and a key's text only to
// confirm a hit, where a node-based map follows three pointers. The map stores no keys:
// `KeyOf` reads a stored value's key from wherever the caller keeps it (a plan keeps
// them in its scans), so a bucket is the key's hash and the value, 12 bytes for two
// 32-bit indices. The array is sized to the expected count rather than to a power of
// two, since a plan holds one bucket per item of the larger side. A key must stay
// readable through KeyOf, with the same text, while the map holds it; nothing is ever
// erased.
template <typename Value, typename KeyOf>
class FlatKeyMap {
public:
    explicit FlatKeyMap(KeyOf keyOf, std::size_t expectedSize = 0)
        : keyOf_(std::move(keyOf)), buckets_(capacityFor(expectedSize)) {}

    struct HashedKey {
        HashedKey() = default;
        explicit HashedKey(std::string_view value) : text(value), hash(hashOf(text)) {}
        std::string_view text;
        std::uint32_t hash = 0;  // never 0 once made: 0 marks an empty bucket
    };

    void prefetch(const HashedKey& key) const { __builtin_prefetch(&buckets_[homeOf(key.hash)]); }

    // The value that a look-up of the key would read the key of first: the first one on its
    // probe path with the key's hash, or null when the key is surely absent. It reads the
    // buckets alone, so callers can start loading the key's text before the look-up.
    const Value* candidate(const HashedKey& key) const {
        const std::size_t count = buckets_.size();
        for (std::size_t i = homeOf(key.hash);; i = i + 1 == count ? 0 : i + 1) {
            const Bucket& bucket = buckets_[i];
            if (bucket.isEmpty()) return nullptr;
            if (bucket.hash == key.hash) return &bucket.value;
        }
    }

    // Adds `value` under the key unless the key is there already. Either way returns the
    // stored value and whether it was added. `value` must have the key as its KeyOf.
    std::pair<Value&, bool> tryEmplace(const HashedKey& key, const Value& value) {
        if ((size_ + 1) * 4 > buckets_.size() * 3) grow();
        Bucket& bucket = buckets_[indexFor(key)];
        if (!bucket.isEmpty()) return {bucket.value, false};
        bucket = Bucket{key.hash, value};
        ++size_;
        return {bucket.value, true};
    }

    // Adds value i under its key (KeyOf(i)) for every i below `count`, with the outcome
    // of tryEmplace in that order, on two threads: `runTwo(a, b)` must run both tasks, at
    // once where it can, and return when both are done. Each task first hashes half of
    // the keys, then adds those whose home bucket lies in its half of the array; a key
    // whose probe would run on into the other half waits, and goes in once both are done.
    // Keys of one text share a home, so one task meets them all, in order. KeyOf is
    // called from both threads at once. The map must be empty.
    template <typename RunTwo>
    void emplaceIndices(std::size_t count, RunTwo runTwo) {
        if (size_ != 0) throw std::logic_error("emplaceIndices fills an empty map");
        if (count * 4 > buckets_.size() * 3) std::vector<Bucket>(capacityFor(count)).swap(buckets_);
        std::vector<std::uint32_t> hashes(count);
        const auto hash = [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) hashes[i] = HashedKey(keyOf_(static_cast<Value>(i))).hash;
        };
        runTwo([&] { hash(0, count / 2); }, [&] { hash(count / 2, count); });

        const std::size_t split = buckets_.size() / 2;
        std::array<std::vector<std::size_t>, 2> waiting;
        std::array<std::size_t, 2> added{};
        const auto fill = [&](std::size_t part) {
            // Counted here and stored once: the two counters share a cache line.
            std::size_t placed = 0;
            const std::size_t begin = part == 0 ? 0 : split;
            const std::size_t end = part == 0 ? split : buckets_.size();
            constexpr std::size_t kAhead = 16;  // keys whose bucket is requested before it is read
            for (std::size_t i = 0; i < count; ++i) {
                if (i + kAhead < count) {
                    const std::size_t ahead = homeOf(hashes[i + kAhead]);
                    if (ahead >= begin && ahead < end) __builtin_prefetch(&buckets_[ahead]);
                }
                const std::size_t home = homeOf(hashes[i]);
                if (home < begin || home >= end) continue;
                for (std::size_t at = home;; ++at) {
                    if (at == end) {
                        waiting[part].push_back(i);
                        break;
                    }
                    Bucket& bucket = buckets_[at];
                    if (bucket.isEmpty()) {
                        bucket = Bucket{hashes[i], static_cast<Value>(i)};
                        ++placed;
                        break;
                    }
                    if (bucket.hash == hashes[i] && keyOf_(bucket.value) == keyOf_(static_cast<Value>(i))) break;
                }
            }
            added[part] = placed;
        };
        runTwo([&] { fill(0); }, [&] { fill(1); });
        size_ = added[0] + added[1];
        for (const std::vector<std::size_t>& keys : waiting) {
            for (const std::size_t i : keys) {
                tryEmplace(HashedKey(keyOf_(static_cast<Value>(i))), static_cast<Value>(i));
            }
        }
    }

    Value* find(const HashedKey& key) {
        Bucket& bucket = buckets_[indexFor(key)];
        return bucket.isEmpty() ? nullptr : &bucket.value;
    }
    const Value* find(const HashedKey& key) const {
        const Bucket& bucket = buckets_[indexFor(key)];
        return bucket.isEmpty() ? nullptr : &bucket.value;
    }

    std::size_t size() const { return size_; }

    // Gives the array's memory back; the map is empty afterwards.
    void clear() {
        std::vector<Bucket>(capacityFor(0)).swap(buckets_);
        size_ = 0;
    }

private:
    struct Bucket {
        std::uint32_t hash = 0;
        Value value{};
        bool isEmpty() const { return hash == 0; }
    };

    static std::size_t capacityFor(std::size_t expectedSize) {
        return std::max<std::size_t>(16, expectedSize / 2 * 3 + 2);
    }

    // Every key of a plan is hashed once or twice, and keys are paths of tens of bytes:
    // they are read eight bytes at a time (the last word ending where the text ends), each
    // word multiplied in and its high bits folded down, and the end mixed as murmur3 does,
    // so that every byte reaches the high bits that pick the home bucket.
    static std::uint32_t hashOf(std::string_view key) {
        constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15;  // odd: a multiply loses nothing
        const auto mix = [](std::uint64_t hash, std::uint64_t word) {
            hash = (hash ^ word) * kMultiplier;
            return hash ^ (hash >> 29);
        };
        const char* text = key.data();
        const std::size_t size = key.size();
        std::uint64_t hash = size;
        if (size >= 8) {
            std::uint64_t word = 0;
            for (std::size_t at = 0; at + 8 < size; at += 8) {
                std::memcpy(&word, text + at, 8);
                hash = mix(hash, word);
            }
            std::memcpy(&word, text + size - 8, 8);
            hash = mix(hash, word);
        } else if (size >= 4) {
            std::uint32_t first = 0;
            std::uint32_t last = 0;
            std::memcpy(&first, text, 4);
            std::memcpy(&last, text + size - 4, 4);
            hash = mix(hash, (std::uint64_t{first} << 32) | last);
        } else if (size > 0) {
            const auto byte = [&](std::size_t at) { return std::uint64_t{static_cast<unsigned char>(text[at])}; };
            hash = mix(hash, (byte(0) << 16) | (byte(size / 2) << 8) | byte(size - 1));
        }
        hash ^= hash >> 33;
        hash *= 0xFF51AFD7ED558CCD;
        hash ^= hash >> 33;
        hash *= 0xC4CEB9FE1A85EC53;
        hash ^= hash >> 33;
        const auto folded = static_cast<std::uint32_t>(hash ^ (hash >> 32));
        return folded == 0 ? 1 : folded;
    }

    std::size_t homeOf(std::uint32_t hash) const {
        return static_cast<std::size_t>((static_cast<std::uint64_t>(hash) * buckets_.size()) >> 32);
    }
    std::size_t indexFor(const HashedKey& key) const {
        const std::size_t count = buckets_.size();
        for (std::size_t i = homeOf(key.hash);; i = i + 1 == count ? 0 : i + 1) {
            const Bucket& bucket = buckets_[i];
            if (bucket.isEmpty() || (bucket.hash == key.hash && keyOf_(bucket.value) == key.text)) return i;
        }
    }

    // Stored keys are all different, so moving them needs their hashes only.
    void grow() {
        std::vector<Bucket> old(buckets_.size() * 2);
        old.swap(buckets_);
        const std::size_t count = buckets_.size();
        for (const Bucket& bucket : old) {
            if (bucket.isEmpty()) continue;
            std::size_t i = homeOf(bucket.hash);
            while (!buckets_[i].isEmpty()) i = i + 1 == count ? 0 : i + 1;
            buckets_[i] = bucket;
        }
    }

    KeyOf keyOf_;
    std::vector<Bucket> buckets_;  // at most three quarters full
    std::size_t size_ = 0;
};

}  // namespace varnel

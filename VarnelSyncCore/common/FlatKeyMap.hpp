#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

namespace varnel {

// A map from text to small values in one flat array with linear probing, for look-ups
// made once per scanned item: a look-up reads one bucket, and the key's text only to
// confirm a hit, where a node-based map follows three pointers. A bucket is the key's
// address and size, its hash and the value (24 bytes for two 32-bit indices), and the
// array is sized to the expected count rather than to a power of two, since a plan holds
// one bucket per item of the larger side. Keys are views, so their text must outlive the
// map; nothing is ever erased. Keys are at most 4 GiB long.
template <typename Value>
class FlatKeyMap {
public:
    explicit FlatKeyMap(std::size_t expectedSize = 0) : buckets_(capacityFor(expectedSize)) {}

    // A key as the map looks it up: its text and its hash.
    struct HashedKey {
        HashedKey() = default;
        explicit HashedKey(std::string_view value) : text(nonNull(value)), hash(hashOf(text)) {}
        std::string_view text;
        std::uint32_t hash = 0;
    };

    // Starts loading the bucket where a look-up of `key` begins. A caller that goes
    // through many keys in a row hints a few keys ahead, so that each look-up finds its
    // bucket in cache instead of waiting on memory.
    void prefetch(const HashedKey& key) const { __builtin_prefetch(&buckets_[homeOf(key.hash)]); }
    // Starts loading the text of the key held where a look-up of `key` begins, which a
    // hit compares with; the bucket itself should already be on its way (prefetch).
    void prefetchStoredKey(const HashedKey& key) const { __builtin_prefetch(buckets_[homeOf(key.hash)].key); }

    // The value of `key`, inserted value-initialised when absent; true when inserted.
    std::pair<Value&, bool> tryEmplace(std::string_view key) { return tryEmplace(HashedKey(key)); }
    std::pair<Value&, bool> tryEmplace(const HashedKey& hashed) {
        if ((size_ + 1) * 4 > buckets_.size() * 3) grow();
        const std::string_view key = hashed.text;
        const std::uint32_t hash = hashed.hash;
        Bucket& bucket = buckets_[indexFor(key, hash)];
        if (bucket.isEmpty()) {
            bucket = Bucket{key.data(), static_cast<std::uint32_t>(key.size()), hash, Value{}};
            ++size_;
            return {bucket.value, true};
        }
        return {bucket.value, false};
    }

    Value* find(const HashedKey& key) {
        Bucket& bucket = buckets_[indexFor(key.text, key.hash)];
        return bucket.isEmpty() ? nullptr : &bucket.value;
    }
    const Value* find(const HashedKey& key) const {
        const Bucket& bucket = buckets_[indexFor(key.text, key.hash)];
        return bucket.isEmpty() ? nullptr : &bucket.value;
    }
    Value* find(std::string_view key) { return find(HashedKey(key)); }
    const Value* find(std::string_view key) const { return find(HashedKey(key)); }

    // Points the stored key equal to `key` at `key`'s own text, so that the text the key
    // was stored with may go. Does nothing when the key is absent.
    void rekey(const HashedKey& key) {
        Bucket& bucket = buckets_[indexFor(key.text, key.hash)];
        if (!bucket.isEmpty()) bucket.key = key.text.data();
    }

    std::size_t size() const { return size_; }

private:
    struct Bucket {
        const char* key = nullptr;  // null marks an empty bucket
        std::uint32_t keySize = 0;
        std::uint32_t hash = 0;
        Value value{};
        bool isEmpty() const { return key == nullptr; }
        bool holds(std::string_view other, std::uint32_t otherHash) const {
            return hash == otherHash && std::string_view(key, keySize) == other;
        }
    };

    // Room for `expectedSize` keys at two thirds full.
    static std::size_t capacityFor(std::size_t expectedSize) {
        return std::max<std::size_t>(16, expectedSize / 2 * 3 + 2);
    }

    static std::uint32_t hashOf(std::string_view key) {
        const std::size_t full = std::hash<std::string_view>{}(key);
        return static_cast<std::uint32_t>(full ^ (full >> 32));
    }

    // An empty key is stored with a non-null view, so that null can mark empty buckets.
    static std::string_view nonNull(std::string_view key) { return key.data() ? key : std::string_view(""); }

    // The index of the bucket holding `key`, or of the empty one where it belongs. The
    // hash is scaled onto the array (a multiply and a shift), so any size works.
    std::size_t homeOf(std::uint32_t hash) const {
        return static_cast<std::size_t>((static_cast<std::uint64_t>(hash) * buckets_.size()) >> 32);
    }
    std::size_t indexFor(std::string_view key, std::uint32_t hash) const {
        const std::size_t count = buckets_.size();
        for (std::size_t i = homeOf(hash);; i = i + 1 == count ? 0 : i + 1) {
            const Bucket& bucket = buckets_[i];
            if (bucket.isEmpty() || bucket.holds(key, hash)) return i;
        }
    }

    void grow() {
        std::vector<Bucket> old(buckets_.size() * 2);
        old.swap(buckets_);
        for (Bucket& bucket : old) {
            if (!bucket.isEmpty()) buckets_[indexFor({bucket.key, bucket.keySize}, bucket.hash)] = std::move(bucket);
        }
    }

    std::vector<Bucket> buckets_;  // at most three quarters full
    std::size_t size_ = 0;
};

}  // namespace varnel

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

namespace varnel {

// A map from text to small values in one flat array with linear probing, for look-ups
// made once per scanned item: a look-up reads one bucket, and the key's text only to
// confirm a hit, where a node-based map follows three pointers. Keys are views, so their
// text must outlive the map; nothing is ever erased.
template <typename Value>
class FlatKeyMap {
public:
    explicit FlatKeyMap(std::size_t expectedSize = 0) {
        std::size_t capacity = 16;
        while (capacity * 3 < expectedSize * 4) capacity *= 2;
        buckets_.resize(capacity);
    }

    // The value of `key`, inserted value-initialised when absent; true when inserted.
    std::pair<Value&, bool> tryEmplace(std::string_view key) {
        if ((size_ + 1) * 4 > buckets_.size() * 3) grow();
        key = nonNull(key);
        const std::uint32_t hash = hashOf(key);
        Bucket& bucket = buckets_[indexFor(key, hash)];
        if (bucket.isEmpty()) {
            bucket = Bucket{key, hash, Value{}};
            ++size_;
            return {bucket.value, true};
        }
        return {bucket.value, false};
    }

    Value* find(std::string_view key) {
        Bucket& bucket = buckets_[indexFor(nonNull(key), hashOf(nonNull(key)))];
        return bucket.isEmpty() ? nullptr : &bucket.value;
    }
    const Value* find(std::string_view key) const {
        const Bucket& bucket = buckets_[indexFor(nonNull(key), hashOf(nonNull(key)))];
        return bucket.isEmpty() ? nullptr : &bucket.value;
    }

    std::size_t size() const { return size_; }

private:
    struct Bucket {
        std::string_view key{nullptr, 0};  // a null data pointer marks an empty bucket
        std::uint32_t hash = 0;
        Value value{};
        bool isEmpty() const { return key.data() == nullptr; }
    };

    static std::uint32_t hashOf(std::string_view key) {
        const std::size_t full = std::hash<std::string_view>{}(key);
        return static_cast<std::uint32_t>(full ^ (full >> 32));
    }

    // An empty key is stored with a non-null view, so that null can mark empty buckets.
    static std::string_view nonNull(std::string_view key) { return key.data() ? key : std::string_view(""); }

    // The index of the bucket holding `key`, or of the empty one where it belongs.
    std::size_t indexFor(std::string_view key, std::uint32_t hash) const {
        const std::size_t mask = buckets_.size() - 1;
        for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
            const Bucket& bucket = buckets_[i];
            if (bucket.isEmpty() || (bucket.hash == hash && bucket.key == key)) return i;
        }
    }

    void grow() {
        std::vector<Bucket> old(buckets_.size() * 2);
        old.swap(buckets_);
        for (Bucket& bucket : old) {
            if (!bucket.isEmpty()) buckets_[indexFor(bucket.key, bucket.hash)] = std::move(bucket);
        }
    }

    std::vector<Bucket> buckets_;  // a power of two in size, at most three quarters full
    std::size_t size_ = 0;
};

}  // namespace varnel

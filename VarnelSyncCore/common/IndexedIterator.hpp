#pragma once

#include <cstddef>
#include <iterator>
#include <type_traits>
#include <utility>

namespace varnel {

// A forward iterator over a container read by position (its operator[]), for containers
// whose elements do not lie in one array: it yields whatever operator[] gives.
template <typename Container>
class IndexedIterator {
public:
    using reference = decltype(std::declval<const Container&>()[std::size_t{}]);
    using value_type = std::remove_cvref_t<reference>;
    using iterator_category = std::forward_iterator_tag;
    using difference_type = std::ptrdiff_t;
    using pointer = void;

    IndexedIterator() = default;
    IndexedIterator(const Container* container, std::size_t index) : container_(container), index_(index) {}
    reference operator*() const { return (*container_)[index_]; }
    IndexedIterator& operator++() {
        ++index_;
        return *this;
    }
    IndexedIterator operator++(int) {
        IndexedIterator before = *this;
        ++index_;
        return before;
    }
    friend bool operator==(const IndexedIterator& a, const IndexedIterator& b) { return a.index_ == b.index_; }

private:
    const Container* container_ = nullptr;
    std::size_t index_ = 0;
};

}  // namespace varnel

#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// The names listed in one folder, kept end to end in one buffer. A scan lists every
// folder once and most names are longer than a short string holds, so a string per name
// would cost an allocation per item.
class DirectoryNames {
public:
    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = std::string_view;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = std::string_view;

        Iterator() = default;
        Iterator(const DirectoryNames* names, std::size_t index) : names_(names), index_(index) {}
        std::string_view operator*() const { return (*names_)[index_]; }
        Iterator& operator++() {
            ++index_;
            return *this;
        }
        Iterator operator++(int) {
            Iterator before = *this;
            ++index_;
            return before;
        }
        friend bool operator==(const Iterator& a, const Iterator& b) { return a.index_ == b.index_; }

    private:
        const DirectoryNames* names_ = nullptr;
        std::size_t index_ = 0;
    };

    DirectoryNames() = default;
    DirectoryNames(std::initializer_list<std::string_view> names) {
        for (std::string_view name : names) add(name);
    }

    void add(std::string_view name) {
        text_.append(name);
        ends_.push_back(text_.size());
    }

    std::size_t size() const { return ends_.size(); }
    bool empty() const { return ends_.empty(); }
    std::string_view operator[](std::size_t index) const {
        const std::size_t start = index == 0 ? 0 : ends_[index - 1];
        return std::string_view(text_).substr(start, ends_[index] - start);
    }
    Iterator begin() const { return Iterator(this, 0); }
    Iterator end() const { return Iterator(this, size()); }

    friend bool operator==(const DirectoryNames& a, const DirectoryNames& b) {
        return a.text_ == b.text_ && a.ends_ == b.ends_;
    }

private:
    std::string text_;
    std::vector<std::size_t> ends_;  // where each name stops in text_
};

}  // namespace varnel

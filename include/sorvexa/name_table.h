// The read names of one SFF file and their records' offsets, in little memory: the names lie
// end to end in one buffer, each entry is 16 bytes, and an open-addressing table of 32-bit
// slots finds them. About 40 bytes a 14-character name, where a node-based hash map takes 65;
// a browser or a run over millions of reads holds one of these per file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

class name_table {
  public:
    using value_type = std::pair<std::string_view, std::int64_t>;

    // Entries in the order they were first inserted.
    class const_iterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = name_table::value_type;
        using difference_type = std::ptrdiff_t;
        using pointer = const value_type*;
        using reference = value_type;
        const_iterator() = default;
        const_iterator(const name_table* t, std::size_t i) : t_(t), i_(i) {}
        value_type operator*() const { return t_->entry_at(i_); }
        const value_type* operator->() const {
            current_ = t_->entry_at(i_);
            return &current_;
        }
        const_iterator& operator++() {
            ++i_;
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator before = *this;
            ++i_;
            return before;
        }
        bool operator==(const const_iterator& o) const { return i_ == o.i_ && t_ == o.t_; }

      private:
        const name_table* t_ = nullptr;
        std::size_t i_ = 0;
        mutable value_type current_;
    };

    // Room for n names without growing the table.
    void reserve(std::size_t n);
    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }

    // The offset of `name`, inserted as 0 when new: a later record of a name overwrites it.
    std::int64_t& operator[](std::string_view name);
    const_iterator find(std::string_view name) const;
    bool contains(std::string_view name) const { return find(name) != end(); }
    const_iterator begin() const { return {this, 0}; }
    const_iterator end() const { return {this, entries_.size()}; }

  private:
    struct entry {
        std::uint64_t name;  // offset in names_ << 16 | length (a name is at most 65,535 bytes)
        std::int64_t pos;
    };
    static constexpr std::uint32_t kEmpty = 0;

    value_type entry_at(std::size_t i) const {
        const entry& e = entries_[i];
        return {std::string_view(names_.data() + (e.name >> 16), e.name & 0xffff), e.pos};
    }
    // The slot that holds `name` or, when it is not there, the empty slot it would take.
    std::size_t slot_of(std::string_view name, std::size_t hash) const;
    void grow();

    std::vector<char> names_;
    std::vector<entry> entries_;
    std::vector<std::uint32_t> slots_;  // entry number + 1, kEmpty for none; a power of two
    std::vector<std::uint32_t> hashes_; // the low bits of each entry's hash, for regrowing
};

// Read name to record position, for the run's lookups in one SFF file: a name set again
// takes the later position. Open addressing over one arena of name bytes, so that a million
// names cost a handful of allocations instead of a million tree nodes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class name_table {
  public:
    void set(std::string_view name, std::int64_t pos);
    // Makes room for n names of about `name_bytes` bytes each, so that filling does not
    // move the table again and again.
    void reserve(std::size_t n, std::size_t name_bytes);
    // The position stored for `name`, or nullptr.
    const std::int64_t* find(std::string_view name) const;
    std::size_t size() const { return entries_.size(); }

  private:
    struct entry {
        std::uint64_t hash;
        std::uint64_t offset;  // of the name in arena_
        std::uint64_t length;
        std::int64_t pos;
    };
    std::size_t slot_of(std::string_view name, std::uint64_t hash) const;
    void grow();
    void rehash(std::size_t slots);

    std::string arena_;
    std::vector<entry> entries_;
    std::vector<std::uint64_t> slots_;  // 0 = free, else hash tag and entry index + 1
};

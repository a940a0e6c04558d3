// Read name to record position, for the run's lookups in one SFF file: a name set again
// takes the later position. Open addressing over one array of entries, so that a million
// names cost a handful of allocations instead of a million tree nodes.
//
// The table is built while an SFF file is walked and read in bursts of lookups, and at a
// few hundred thousand names every probe is a cache miss. So both sides are pipelined: set()
// loads the slot of its name and completes the insert of a name set a few calls earlier,
// and a caller that knows its next names can load their slots and entries ahead with
// prefetch_slot() and prefetch_entry().
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class name_table {
  public:
    void set(std::string_view name, std::int64_t pos);
    // Makes room for n names, so that filling does not move the table again and again.
    void reserve(std::size_t n);
    // The position stored for `name`, or nullptr. Completes any insert still under way.
    const std::int64_t* find(std::string_view name) { return find(name, hash(name)); }
    const std::int64_t* find(std::string_view name, std::uint64_t h);
    std::size_t size();

    static std::uint64_t hash(std::string_view name);
    // Cache hints for a lookup of the name with hash `h` a little later: first its slot,
    // then (once the slot is in the cache) its entry. They change nothing.
    void prefetch_slot(std::uint64_t h) const;
    void prefetch_entry(std::uint64_t h) const;

  private:
    // Names up to this length are held in their entry, so that a lookup touches one slot
    // and one entry; longer ones go to the arena.
    static constexpr std::size_t inline_length = 20;
    struct entry {
        std::uint64_t hash;
        std::int64_t pos;
        std::uint32_t length;
        union {
            char text[inline_length];
            std::uint64_t offset;  // of the name in arena_
        };
    };
    struct pending_set {
        std::string name;
        std::uint64_t hash = 0;
        std::int64_t pos = 0;
    };
    static constexpr std::size_t pipeline_depth = 8;

    std::string_view name_of(const entry& e) const;
    std::size_t slot_of(std::string_view name, std::uint64_t h) const;
    void insert(std::string_view name, std::uint64_t h, std::int64_t pos);
    void settle_oldest();
    void settle();
    void rehash(std::size_t slots);

    std::string arena_;
    std::vector<entry> entries_;
    std::vector<std::uint64_t> slots_;  // 0 = free, else hash tag and entry index + 1
    std::array<pending_set, pipeline_depth> pending_;
    std::size_t pending_first_ = 0;
    std::size_t pending_count_ = 0;
};

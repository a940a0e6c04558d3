#include "name_table.h"

#include <cstring>

namespace {

std::uint64_t mix(std::uint64_t h) {
    h ^= h >> 31;
    h *= 0xbf58476d1ce4e5b9ULL;
    h ^= h >> 29;
    return h;
}

std::uint64_t hash_name(std::string_view s) {
    std::uint64_t h = 0x9e3779b97f4a7c15ULL ^ s.size();
    std::size_t i = 0;
    for (; i + 8 <= s.size(); i += 8) {
        std::uint64_t w;
        std::memcpy(&w, s.data() + i, 8);
        h = mix(h ^ w);
    }
    std::uint64_t w = 0;
    if (i < s.size()) std::memcpy(&w, s.data() + i, s.size() - i);
    return mix(h ^ w ^ 0x94d049bb133111ebULL);
}

// A slot holds the entry's index + 1 in its low half and the top of its hash in the high
// half, so that most mismatches are settled without touching the entry.
std::uint64_t slot_value(std::uint64_t hash, std::size_t k) {
    return (hash >> 32 << 32) | static_cast<std::uint32_t>(k + 1);
}

}  // namespace

// The slot that holds `name`, or the free slot where it would go.
std::size_t name_table::slot_of(std::string_view name, std::uint64_t hash) const {
    const std::size_t mask = slots_.size() - 1;
    const std::uint32_t tag = static_cast<std::uint32_t>(hash >> 32);
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
        const std::uint64_t slot = slots_[i];
        if (slot == 0) return i;
        if (static_cast<std::uint32_t>(slot >> 32) != tag) continue;
        const entry& e = entries_[static_cast<std::uint32_t>(slot) - 1];
        if (e.hash == hash && e.length == name.size() &&
            (name.empty() || std::memcmp(arena_.data() + e.offset, name.data(), name.size()) == 0))
            return i;
    }
}

void name_table::reserve(std::size_t n, std::size_t name_bytes) {
    entries_.reserve(n);
    arena_.reserve(n * name_bytes);
    std::size_t slots = 1024;
    while (slots < 2 * n) slots *= 2;
    if (slots > slots_.size()) {
        slots_.clear();
        rehash(slots);
    }
}

void name_table::grow() {
    rehash(slots_.empty() ? 1024 : slots_.size() * 2);
}

void name_table::rehash(std::size_t slots) {
    std::vector<std::uint64_t> fresh(slots, 0);
    slots_.swap(fresh);
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t k = 0; k < entries_.size(); ++k) {
        std::size_t i = entries_[k].hash & mask;
        while (slots_[i] != 0) i = (i + 1) & mask;
        slots_[i] = slot_value(entries_[k].hash, k);
    }
}

void name_table::set(std::string_view name, std::int64_t pos) {
    if (2 * (entries_.size() + 1) > slots_.size()) grow();
    const std::uint64_t hash = hash_name(name);
    const std::size_t i = slot_of(name, hash);
    if (slots_[i] != 0) {
        entries_[static_cast<std::uint32_t>(slots_[i]) - 1].pos = pos;
        return;
    }
    entries_.push_back({hash, arena_.size(), name.size(), pos});
    arena_.append(name);
    slots_[i] = slot_value(hash, entries_.size() - 1);
}

const std::int64_t* name_table::find(std::string_view name) const {
    if (slots_.empty()) return nullptr;
    const std::size_t i = slot_of(name, hash_name(name));
    return slots_[i] == 0 ? nullptr : &entries_[static_cast<std::uint32_t>(slots_[i]) - 1].pos;
}

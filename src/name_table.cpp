#include "name_table.h"

#include <cstring>

namespace {

std::uint64_t mix(std::uint64_t h) {
    h ^= h >> 31;
    h *= 0xbf58476d1ce4e5b9ULL;
    h ^= h >> 29;
    return h;
}

// A slot holds the entry's index + 1 in its low half and the top of its hash in the high
// half, so that most mismatches are settled without touching the entry.
std::uint64_t slot_value(std::uint64_t hash, std::size_t k) {
    return (hash >> 32 << 32) | static_cast<std::uint32_t>(k + 1);
}

std::uint32_t tag_of(std::uint64_t hash) {
    return static_cast<std::uint32_t>(hash >> 32);
}

}  // namespace

std::uint64_t name_table::hash(std::string_view s) {
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

std::string_view name_table::name_of(const entry& e) const {
    if (e.length <= inline_length) return {e.text, e.length};
    return {arena_.data() + e.offset, e.length};
}

// The slot that holds `name`, or the free slot where it would go.
std::size_t name_table::slot_of(std::string_view name, std::uint64_t h) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = h & mask;; i = (i + 1) & mask) {
        const std::uint64_t slot = slots_[i];
        if (slot == 0) return i;
        if (tag_of(slot) != tag_of(h)) continue;
        const entry& e = entries_[static_cast<std::uint32_t>(slot) - 1];
        if (e.hash == h && name_of(e) == name) return i;
    }
}

void name_table::prefetch_slot(std::uint64_t h) const {
    if (!slots_.empty()) __builtin_prefetch(&slots_[h & (slots_.size() - 1)]);
}

// Only the entry of the first slot that carries the tag; a collision just costs a miss.
void name_table::prefetch_entry(std::uint64_t h) const {
    if (slots_.empty()) return;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = h & mask;; i = (i + 1) & mask) {
        const std::uint64_t slot = slots_[i];
        if (slot == 0) return;
        if (tag_of(slot) != tag_of(h)) continue;
        __builtin_prefetch(&entries_[static_cast<std::uint32_t>(slot) - 1]);
        return;
    }
}

void name_table::reserve(std::size_t n) {
    settle();
    entries_.reserve(n);
    std::size_t slots = 1024;
    while (slots < 2 * n) slots *= 2;
    if (slots > slots_.size()) rehash(slots);
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

void name_table::insert(std::string_view name, std::uint64_t h, std::int64_t pos) {
    if (2 * (entries_.size() + 1) > slots_.size())
        rehash(slots_.empty() ? 1024 : slots_.size() * 2);
    const std::size_t i = slot_of(name, h);
    if (slots_[i] != 0) {
        entries_[static_cast<std::uint32_t>(slots_[i]) - 1].pos = pos;
        return;
    }
    entry e{};
    e.hash = h;
    e.pos = pos;
    e.length = static_cast<std::uint32_t>(name.size());
    if (name.size() <= inline_length) {
        if (!name.empty()) std::memcpy(e.text, name.data(), name.size());
    } else {
        e.offset = arena_.size();
        arena_.append(name);
    }
    entries_.push_back(e);
    slots_[i] = slot_value(h, entries_.size() - 1);
}

// Inserts under way complete oldest first, so that a name set twice in a row still ends with
// its later position.
void name_table::settle_oldest() {
    const pending_set& p = pending_[pending_first_];
    insert(p.name, p.hash, p.pos);
    pending_first_ = (pending_first_ + 1) % pipeline_depth;
    --pending_count_;
}

void name_table::settle() {
    while (pending_count_ > 0) settle_oldest();
}

void name_table::set(std::string_view name, std::int64_t pos) {
    if (pending_count_ == pipeline_depth) settle_oldest();
    pending_set& p = pending_[(pending_first_ + pending_count_) % pipeline_depth];
    if (name.empty())
        p.name.clear();  // an unnamed record may come with no bytes at all
    else
        p.name.assign(name.data(), name.size());
    p.hash = hash(name);
    p.pos = pos;
    prefetch_slot(p.hash);
    ++pending_count_;
}

const std::int64_t* name_table::find(std::string_view name, std::uint64_t h) {
    settle();
    if (slots_.empty()) return nullptr;
    const std::size_t i = slot_of(name, h);
    return slots_[i] == 0 ? nullptr : &entries_[static_cast<std::uint32_t>(slots_[i]) - 1].pos;
}

std::size_t name_table::size() {
    settle();
    return entries_.size();
}

#include <sorvexa/name_table.h>

#include <functional>

namespace {

std::size_t hash_of(std::string_view name) {
    return std::hash<std::string_view>{}(name);
}

}  // namespace

void name_table::reserve(std::size_t n) {
    entries_.reserve(n);
    hashes_.reserve(n);
    names_.reserve(n * 16);
    // At most half full: probes stay short.
    std::size_t want = 16;
    while (want < 2 * n) want *= 2;
    if (want > slots_.size()) {
        slots_.assign(want, kEmpty);
        for (std::size_t i = 0; i < entries_.size(); ++i)
            slots_[slot_of(entry_at(i).first, hashes_[i])] = static_cast<std::uint32_t>(i + 1);
    }
}

std::size_t name_table::slot_of(std::string_view name, std::size_t hash) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t s = hash & mask;; s = (s + 1) & mask) {
        const std::uint32_t k = slots_[s];
        if (k == kEmpty) return s;
        if (hashes_[k - 1] == static_cast<std::uint32_t>(hash) && entry_at(k - 1).first == name)
            return s;
    }
}

void name_table::grow() {
    reserve(slots_.empty() ? 8 : slots_.size());
}

std::int64_t& name_table::operator[](std::string_view name) {
    // A name longer than a length field holds cannot come from an SFF file (16-bit length).
    name = name.substr(0, 0xffff);
    if (2 * (entries_.size() + 1) > slots_.size()) grow();
    const std::size_t hash = hash_of(name);
    const std::size_t s = slot_of(name, hash);
    if (slots_[s] != kEmpty) return entries_[slots_[s] - 1].pos;
    const std::uint64_t at = names_.size();
    names_.insert(names_.end(), name.begin(), name.end());
    entries_.push_back({at << 16 | name.size(), 0});
    hashes_.push_back(static_cast<std::uint32_t>(hash));
    slots_[s] = static_cast<std::uint32_t>(entries_.size());
    return entries_.back().pos;
}

name_table::const_iterator name_table::find(std::string_view name) const {
    if (slots_.empty()) return end();
    const std::uint32_t k = slots_[slot_of(name, hash_of(name))];
    return k == kEmpty ? end() : const_iterator(this, k - 1);
}

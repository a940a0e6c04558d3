#include "assembly.h"

#include <algorithm>
#include <cctype>

#include <sorvexa/ace.h>

namespace browse {

namespace {

char upper(char c) {
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

void upper_case(std::vector<char>& seq) {
    for (char& ch : seq) ch = upper(ch);
}

// The display copy: see built_contig.
void make_display_copy(contig& k, std::map<std::string, READ>& as_placed) {
    upper_case(k.consensus);
    for (auto it = k.reads.begin(); it != k.reads.end();) {
        READ& r = it->second;
        upper_case(r.sequence);
        if (r.start >= 1) {
            ++it;
            continue;
        }
        READ placed = r;
        placed.sequence.clear();
        as_placed.emplace(it->first, std::move(placed));
        const std::int64_t cut = 1 - std::int64_t{r.start};
        if (std::int64_t{r.length} <= cut) {
            it = k.reads.erase(it);  // it covers no column
            continue;
        }
        const auto held = static_cast<std::int64_t>(r.sequence.size());
        r.sequence.erase(r.sequence.begin(),
                         r.sequence.begin() + static_cast<std::ptrdiff_t>(std::min(cut, held)));
        r.length = static_cast<std::int16_t>(r.length - cut);
        r.start = 1;
        ++it;
    }
}

}  // namespace

const READ* built_contig::placed(const std::string& name) const {
    if (auto it = as_placed.find(name); it != as_placed.end()) return &it->second;
    if (auto it = c.reads.find(name); it != c.reads.end()) return &it->second;
    return nullptr;
}

std::int64_t built_contig::unpadded_at(std::int64_t column) const {
    const auto L = static_cast<std::int64_t>(c.consensus.size());
    column = std::clamp<std::int64_t>(column, 0, L);
    const std::int64_t mark = column / unpadded_step;
    std::int64_t n = unpadded_marks.empty() ? 0 : unpadded_marks[static_cast<std::size_t>(mark)];
    for (std::int64_t p = mark * unpadded_step; p < column; ++p)
        if (c.consensus[static_cast<std::size_t>(p)] != '*') ++n;
    return n;
}

std::shared_ptr<built_contig> prepare(contig&& c) {
    auto b = std::make_shared<built_contig>();
    b->c = std::move(c);
    contig& k = b->c;
    make_display_copy(k, b->as_placed);
    // The counts from the ACE file's CO line describe the file, not the copy.
    k.num_reads = static_cast<std::int32_t>(k.reads.size());
    k.pos_map.clear();
    k.print_map.clear();
    k.max_read_len = 0;
    k.min_read_len = 5000;
    k.create_print_map();
    k.create_flow_concensus();
    b->views_complete = !k.print_map.empty() && !k.flow_consensus.empty();

    std::int32_t bases = 0;
    for (std::size_t p = 0; p < k.consensus.size(); ++p) {
        if (p % built_contig::unpadded_step == 0) b->unpadded_marks.push_back(bases);
        if (k.consensus[p] != '*') ++bases;
    }
    // Qualities that do not match the consensus bases in number cannot be placed.
    if (k.base_qualities.size() != static_cast<std::size_t>(bases)) k.base_qualities.clear();

    // Per column a flow-index map and a depth; per read its record, sequence, and its entries
    // in the position map and the layout, each with a copy of the name.
    b->bytes = k.consensus.size() * 120 + k.flow_consensus.size() + k.base_qualities.size() +
               b->as_placed.size() * 128;
    for (const auto& [name, r] : k.reads) b->bytes += 3 * (name.size() + 96) + r.sequence.size();
    // Reads over each column, from the reads' spans cut to the consensus.
    const std::int64_t L = static_cast<std::int64_t>(k.consensus.size());
    std::vector<std::int32_t> delta(static_cast<std::size_t>(L) + 1, 0);
    for (const auto& [name, r] : k.reads) {
        const std::int64_t a = std::max<std::int64_t>(r.start, 1);
        const std::int64_t e = std::min<std::int64_t>(std::int64_t{r.start} + r.length - 1, L);
        if (a > e) continue;
        ++delta[static_cast<std::size_t>(a - 1)];
        --delta[static_cast<std::size_t>(e)];
    }
    const std::int64_t bins = std::min<std::int64_t>(L, assembly::depth_bin_count);
    b->depth_bins.assign(static_cast<std::size_t>(bins), 0);
    std::int32_t depth = 0;
    for (std::int64_t col = 0; col < L; ++col) {
        depth += delta[static_cast<std::size_t>(col)];
        auto& bin = b->depth_bins[static_cast<std::size_t>(col * bins / L)];
        bin = std::max(bin, depth);
        b->depth_max = std::max(b->depth_max, depth);
    }
    return b;
}

assembly::assembly(const std::string& path, std::size_t cache_size, std::size_t cache_bytes)
    : ace_path(path), cache_size_(std::max<std::size_t>(cache_size, 1)), cache_bytes_(cache_bytes) {
    stamp_of(path, ace_stamp);
    aceReader ace(path);  // ends the process on an unreadable or non-ACE file
    for (;;) {
        const std::int64_t offset = ace.tell();
        contig c;
        if (ace.next_contig(c) == 0) break;  // grammar errors end the process in there
        contig_summary s;
        s.name = c.name;
        s.offset = offset;
        s.columns = static_cast<std::int32_t>(c.consensus.size());
        s.reads = static_cast<std::int32_t>(c.reads.size());
        c.create_print_map();
        s.min_len = c.reads.empty() ? 0 : c.min_read_len;
        s.max_len = c.max_read_len;
        s.avg_len = c.avg_read_len;
        s.rows = static_cast<std::int32_t>(c.print_map.size());
        const auto k = static_cast<std::uint32_t>(contigs.size());
        for (const auto& entry : c.reads) {
            placements.emplace_back(entry.first, k);
            placement_starts.push_back(entry.second.start);
        }
        reads_placed += s.reads;
        columns += s.columns;
        contigs.push_back(std::move(s));
    }
    // Sorted by name (then contig), each start taken along in the same moves.
    {
        struct placed {
            std::pair<std::string, std::uint32_t> key;
            std::int32_t start;
            bool operator<(const placed& o) const { return key < o.key; }
        };
        std::vector<placed> all;
        all.reserve(placements.size());
        for (std::size_t i = 0; i < placements.size(); ++i)
            all.push_back({std::move(placements[i]), placement_starts[i]});
        std::sort(all.begin(), all.end());
        placements.clear();
        placements.shrink_to_fit();
        placements.reserve(all.size());
        placement_starts.assign(all.size(), 0);
        for (std::size_t i = 0; i < all.size(); ++i) {
            placements.push_back(std::move(all[i].key));
            placement_starts[i] = all[i].start;
        }
    }

    by_name_.resize(contigs.size());
    for (std::size_t i = 0; i < contigs.size(); ++i) by_name_[i] = static_cast<std::uint32_t>(i);
    std::stable_sort(by_name_.begin(), by_name_.end(), [this](std::uint32_t x, std::uint32_t y) {
        return contigs[x].name < contigs[y].name;
    });
}

void assembly::count_found(const read_source& sff) {
    reads_found = 0;
    for (contig_summary& s : contigs) s.found = 0;
    // Both lists are sorted by name: one walk along each.
    auto e = sff.entries.begin();
    for (const auto& [name, k] : placements) {
        while (e != sff.entries.end() && e->name < name) ++e;
        if (e != sff.entries.end() && e->name == name) {
            ++contigs[k].found;
            ++reads_found;
        }
    }
}

int assembly::contig_index(std::string_view name) const {
    auto it = std::lower_bound(by_name_.begin(), by_name_.end(), name,
                               [this](std::uint32_t k, std::string_view n) {
                                   return std::string_view(contigs[k].name) < n;
                               });
    if (it == by_name_.end() || contigs[*it].name != name) return -1;
    return static_cast<int>(*it);
}

int assembly::contig_of_read(std::string_view read) const {
    auto it = std::lower_bound(
        placements.begin(), placements.end(), read,
        [](const auto& p, std::string_view n) { return std::string_view(p.first) < n; });
    if (it == placements.end() || it->first != read) return -1;
    return static_cast<int>(it->second);
}

std::shared_ptr<built_contig> assembly::find_cached(std::size_t index) {
    std::lock_guard<std::mutex> lock(cache_mutex_);
    for (cached& e : cache_) {
        if (e.index == index) {
            e.used = ++clock_;
            return e.contig;
        }
    }
    return nullptr;
}

std::shared_ptr<built_contig> assembly::load(std::size_t index, load_result& result) {
    result = load_result::ok;
    if (auto hit = find_cached(index)) return hit;

    // One parse at a time: two requests for the same contig wait for one build.
    std::lock_guard<std::mutex> parse(parse_mutex_);
    if (auto hit = find_cached(index)) return hit;

    // The file is read again only while it is the file read at start-up, so that a changed
    // file can never end the server with a grammar error.
    file_stamp now;
    if (!stamp_of(ace_path, now) || !(now == ace_stamp)) {
        result = load_result::file_changed;
        return nullptr;
    }
    aceReader ace(ace_path);
    ace.keep_base_qualities = true;  // a window shows them as a row
    contig c;
    if (ace.next_contig_at(contigs[index].offset, c) == 0 || c.name != contigs[index].name) {
        result = load_result::file_changed;
        return nullptr;
    }
    std::shared_ptr<built_contig> b = prepare(std::move(c));

    // The least recently used contigs leave until both the count and the memory fit; a
    // contig larger than the whole budget is still kept alone.
    std::lock_guard<std::mutex> lock(cache_mutex_);
    auto held = [this] {
        std::size_t n = 0;
        for (const cached& e : cache_) n += e.contig->bytes;
        return n;
    };
    while (!cache_.empty() && (cache_.size() >= cache_size_ || held() + b->bytes > cache_bytes_)) {
        auto oldest =
            std::min_element(cache_.begin(), cache_.end(),
                             [](const cached& x, const cached& y) { return x.used < y.used; });
        cache_.erase(oldest);
    }
    cache_.push_back({index, b, ++clock_});
    return b;
}

}  // namespace browse

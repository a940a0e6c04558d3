#include <sorvexa/views.h>

#include <algorithm>
#include <cctype>

namespace {

void upper_case(std::vector<char>& seq) {
    for (char& ch : seq) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
}

}  // namespace

contig_display display(const contig& c, const view_options& options) {
    // What the layout and the flow views are built from; the derived views start empty.
    contig k;
    k.name = c.name;
    k.num_bases = c.num_bases;
    k.num_segments = c.num_segments;
    k.consensus = c.consensus;
    k.base_qualities = c.base_qualities;
    k.uncomplemented = c.uncomplemented;
    k.reads = c.reads;
    return display(std::move(k), options);
}

contig_display display(contig&& c, const view_options& options) {
    contig_display d;
    contig& k = d.shown;
    k.name = std::move(c.name);
    k.num_bases = c.num_bases;
    k.num_segments = c.num_segments;
    k.consensus = std::move(c.consensus);
    k.base_qualities = std::move(c.base_qualities);
    k.uncomplemented = c.uncomplemented;
    k.reads = std::move(c.reads);
    c = contig{};
    if (options.upper_case) upper_case(k.consensus);
    for (auto it = k.reads.begin(); it != k.reads.end();) {
        READ& r = it->second;
        if (options.upper_case) upper_case(r.sequence);
        if (!options.from_column_one || r.start >= 1) {
            ++it;
            continue;
        }
        READ placed = r;
        placed.sequence.clear();
        d.moved.emplace(it->first, std::move(placed));
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
    k.num_reads = static_cast<std::int32_t>(k.reads.size());
    k.create_print_map();
    k.create_flow_concensus();

    std::int32_t bases = 0;
    for (std::size_t p = 0; p < k.consensus.size(); ++p) {
        if (p % contig_display::unpadded_step == 0) d.unpadded_marks.push_back(bases);
        if (k.consensus[p] != '*') ++bases;
    }
    // Qualities that do not match the consensus bases in number cannot be placed.
    if (k.base_qualities.size() != static_cast<std::size_t>(bases)) k.base_qualities.clear();
    return d;
}

const READ* contig_display::placed(const std::string& name) const {
    if (auto it = moved.find(name); it != moved.end()) return &it->second;
    if (auto it = shown.reads.find(name); it != shown.reads.end()) return &it->second;
    return nullptr;
}

std::int64_t contig_display::unpadded_at(std::int64_t column) const {
    const auto L = static_cast<std::int64_t>(shown.consensus.size());
    column = std::clamp<std::int64_t>(column, 0, L);
    const std::int64_t mark = column / unpadded_step;
    std::int64_t n = unpadded_marks.empty() ? 0 : unpadded_marks[static_cast<std::size_t>(mark)];
    for (std::int64_t p = mark * unpadded_step; p < column; ++p)
        if (shown.consensus[static_cast<std::size_t>(p)] != '*') ++n;
    return n;
}

std::size_t contig_display::bytes() const {
    // Per column a flow-index map; per read its record, sequence, and its entries in the
    // position map and the layout, each with a copy of the name.
    std::size_t n = shown.consensus.size() * 120 + shown.flow_consensus.size() +
                    shown.base_qualities.size() + moved.size() * 128;
    for (const auto& [name, r] : shown.reads) n += 3 * (name.size() + 96) + r.sequence.size();
    return n;
}

bool page_of_window(const contig_display& d, std::int64_t from, std::int64_t last,
                    std::int64_t page, std::int64_t per_page, window_page& out) {
    const contig& c = d.shown;
    std::vector<std::int32_t> rows;
    out.reads_over = c.window_rows(from, last, rows);
    out.rows_over = static_cast<std::int64_t>(rows.size());
    per_page = std::max<std::int64_t>(per_page, 1);
    out.pages = std::max<std::int64_t>(1, (out.rows_over + per_page - 1) / per_page);
    if (page < 1 || page > out.pages) return false;
    out.page = page;
    std::vector<std::int32_t> chosen;
    for (std::int64_t i = page - 1; i < out.rows_over; i += out.pages)
        chosen.push_back(rows[static_cast<std::size_t>(i)]);
    c.draw_window(from, last, chosen, out.grid);
    out.reads_shown = 0;
    for (const auto& row : out.grid.reads) out.reads_shown += static_cast<std::int64_t>(row.size());
    out.unpadded_from = d.unpadded_at(from - 1) + 1;
    out.quality.clear();
    std::int64_t base = out.unpadded_from - 1;
    for (const char ch : c.base_qualities.empty() ? std::string() : out.grid.consensus) {
        const bool pad = ch == '*' || base >= static_cast<std::int64_t>(c.base_qualities.size());
        out.quality.push_back(pad ? -1 : c.base_qualities[static_cast<std::size_t>(base++)]);
    }
    return true;
}

namespace {

// A line of `width` characters with each label that marks(put) puts placed to end at its
// position, where it fits without running into the label before.
template <class Marks>
std::string ruler(std::size_t width, Marks marks) {
    std::string line(width, ' ');
    std::size_t free_from = 0;
    marks([&](std::size_t end, const std::string& label) {
        if (end >= width || end + 1 < label.size()) return;
        const std::size_t begin = end + 1 - label.size();
        if (begin < free_from) return;
        line.replace(begin, label.size(), label);
        free_from = end + 2;
    });
    return line;
}

}  // namespace

window_rulers rulers_of(const window_page& page) {
    const window_grid& g = page.grid;
    const auto width = static_cast<std::size_t>(std::max(g.last - g.from + 1, 0));
    window_rulers out;
    out.columns = ruler(width, [&](auto put) {
        for (std::int64_t col = g.from; col <= g.last; ++col)
            if (col % 10 == 0) put(static_cast<std::size_t>(col - g.from), std::to_string(col));
    });
    out.unpadded = ruler(width, [&](auto put) {
        std::int64_t pos = page.unpadded_from;
        for (std::size_t k = 0; k < width && k < g.consensus.size(); ++k) {
            if (g.consensus[k] == '*') continue;
            if (pos % 10 == 0) put(k, std::to_string(pos));
            ++pos;
        }
    });
    return out;
}

std::string flow_ruler(const contig& c, const window_grid& g) {
    return ruler(static_cast<std::size_t>(2 * std::max(g.flows, 0)), [&](auto put) {
        for (std::int64_t col = g.from; col <= g.last; ++col) {
            const std::int64_t k =
                c.getFlowIdx_start(static_cast<std::int32_t>(col - 1)) - g.first_flow;
            if (col % 10 == 0 && k >= 0 && k < g.flows)
                put(static_cast<std::size_t>(2 * k + 1), std::to_string(col));
        }
    });
}

void differences_only(window_grid& g) {
    const auto up = [](char ch) { return std::toupper(static_cast<unsigned char>(ch)); };
    for (std::size_t row = 0; row < g.bases.size() && row < g.reads.size(); ++row) {
        std::string& line = g.bases[row];
        for (const window_read& r : g.reads[row])
            for (std::int64_t col = r.first; col <= r.last; ++col) {
                const auto at = static_cast<std::size_t>(col - g.from);
                if (at < line.size() && at < g.consensus.size() && line[at] != ' ' &&
                    up(line[at]) == up(g.consensus[at]))
                    line[at] = r.complemented ? ',' : '.';
            }
    }
}

depth_profile depth_of(const contig& c, std::int64_t bins) {
    depth_profile out;
    const auto L = static_cast<std::int64_t>(c.consensus.size());
    std::vector<std::int32_t> delta(static_cast<std::size_t>(L) + 1, 0);
    for (const auto& [name, r] : c.reads) {
        const std::int64_t a = std::max<std::int64_t>(r.start, 1);
        const std::int64_t e = std::min<std::int64_t>(std::int64_t{r.start} + r.length - 1, L);
        if (a > e) continue;
        ++delta[static_cast<std::size_t>(a - 1)];
        --delta[static_cast<std::size_t>(e)];
    }
    bins = std::min(L, bins);
    out.bins.assign(static_cast<std::size_t>(std::max<std::int64_t>(bins, 0)), 0);
    std::int32_t depth = 0;
    for (std::int64_t col = 0; col < L; ++col) {
        depth += delta[static_cast<std::size_t>(col)];
        auto& bin = out.bins[static_cast<std::size_t>(col * bins / L)];
        bin = std::max(bin, depth);
        out.max = std::max(out.max, depth);
    }
    return out;
}

std::vector<std::int32_t> runs_of_flows(const contig& c, const std::vector<hp_run>& runs,
                                        const window_grid& g) {
    std::vector<std::int32_t> run_of(static_cast<std::size_t>(std::max(g.flows, 0)), -1);
    for (std::size_t i = 0; i < runs.size(); ++i) {
        const hp_run& r = runs[i];
        if (r.last_column < g.from || r.first_column > g.last) continue;
        for (std::int64_t col = r.column; col <= r.last_column; ++col) {
            if (col < 1 || static_cast<std::size_t>(col) > c.flow_index.size()) break;
            const auto& m = c.flow_index[static_cast<std::size_t>(col - 1)];
            auto it = m.find(r.letter);
            if (it == m.end()) continue;
            const std::int64_t k = it->second - g.first_flow;
            if (k >= 0 && k < g.flows)
                run_of[static_cast<std::size_t>(k)] = static_cast<std::int32_t>(i);
            break;
        }
    }
    return run_of;
}

signal_class classify_signal(std::int32_t value, std::int32_t count) {
    const std::int32_t off = value > 100 * count ? value - 100 * count : 100 * count - value;
    if (off <= 25) return signal_class::close;
    if (off < 50) return signal_class::borderline;
    return signal_class::disputed;
}

std::vector<disputed_flow> disputed_flows(const contig& c, const std::string& name,
                                          const tied_read& tied) {
    std::vector<disputed_flow> out;
    const auto rd = c.reads.find(name);
    if (rd == c.reads.end() || c.consensus.empty()) return out;
    const READ& r = rd->second;
    const auto L = static_cast<std::int64_t>(c.consensus.size());
    const std::int64_t first = std::max<std::int64_t>(r.start, 1);
    const std::int64_t last = std::min<std::int64_t>(std::int64_t{r.start} + r.length - 1, L);
    if (first > last) return out;
    std::int32_t row = -1;
    for (std::size_t k = 0; k < c.print_map.size() && row < 0; ++k) {
        auto it = c.print_map[k].find(r.start);
        if (it != c.print_map[k].end() && it->second == rd->first)
            row = static_cast<std::int32_t>(k);
    }
    if (row < 0) return out;
    window_grid g;
    c.draw_window(first, last, {row}, g);
    std::vector<std::vector<std::int32_t>> values;
    grid_signals(
        c, g, [&](const std::string& n) { return n == name ? &tied : nullptr; }, values);
    if (g.counts.empty() || values.empty()) return out;
    // The first column of each window flow.
    std::vector<std::int32_t> column_of(static_cast<std::size_t>(std::max(g.flows, 0)), 0);
    for (std::int64_t col = last; col >= first; --col) {
        for (const auto& [letter, flow] : c.flow_index[static_cast<std::size_t>(col - 1)]) {
            const std::int64_t k = flow - g.first_flow;
            if (k >= 0 && k < g.flows)
                column_of[static_cast<std::size_t>(k)] = static_cast<std::int32_t>(col);
        }
    }
    for (std::size_t k = 0; k < g.counts[0].size(); ++k) {
        const std::int16_t count = g.counts[0][k];
        const std::int32_t value = values[0][k];
        // 0.97 on a one-base flow is that one base: a value is disputed once it rounds to
        // another count.
        if (count < 0 || value < 0 || (value + 50) / 100 == count) continue;
        out.push_back({column_of[k] > 0 ? column_of[k] : static_cast<std::int32_t>(first),
                       g.flow_letters[k], count, value});
    }
    return out;
}

std::vector<std::string> reads_over(const contig& c, const hp_run& r) {
    std::vector<std::string> names;
    for (const auto& [name, read] : c.reads)
        if (read.start < r.first_column &&
            std::int64_t{read.start} + read.length - 1 > r.last_column)
            names.push_back(name);
    return names;
}

std::vector<run_signal> run_signals(const contig& c, const hp_run& r,
                                    const std::vector<std::string>& names,
                                    const tied_lookup& tied) {
    flow_check one;
    one.keep_signals = true;
    hp_run alone = r;
    alone.clear_signals();
    one.runs = {alone};
    for (std::size_t k = 0; k < names.size(); ++k) {
        const auto read = c.reads.find(names[k]);
        const tied_read* t = tied(names[k]);
        if (read != c.reads.end() && t != nullptr)
            one.add_read(c, read->second, *t, static_cast<std::int32_t>(k));
    }
    return one.signals;
}

record_view view_of_record(const reader& r) {
    const sff_read& rd = r.cur_read;
    record_view out;
    out.name.assign(rd.name.begin(),
                    rd.name.begin() + static_cast<std::ptrdiff_t>(
                                          std::min<std::size_t>(rd.name_length, rd.name.size())));
    out.flow_chars.assign(r.header_p2.flow_chars.begin(), r.header_p2.flow_chars.end());
    out.key_length = r.header_p1.key_length;
    out.clip_qual_left = rd.clip_qual_left;
    out.clip_qual_right = rd.clip_qual_right;
    out.clip_adapter_left = rd.clip_adapter_left;
    out.clip_adapter_right = rd.clip_adapter_right;
    out.flowgram.assign(
        rd.flowgram_values.begin(),
        rd.flowgram_values.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(
                                         rd.numOfFlows, rd.flowgram_values.size())));
    // Every base, through the library's rule for a read's bases and flows: the same record
    // with no clip set keeps them all.
    sff_read whole = rd;
    whole.clip_qual_left = whole.clip_qual_right = 0;
    whole.clip_adapter_left = whole.clip_adapter_right = 0;
    const seqRead all(whole);
    out.bases.assign(all.bases.begin(), all.bases.end());
    out.quality.assign(all.quality_scores.begin(), all.quality_scores.end());
    out.flow_of_base.assign(all.flow_indexes.begin(), all.flow_indexes.end());
    out.kept_first = rd.get_base_start();
    out.kept_last = std::min<int>(rd.get_base_end(), static_cast<int>(out.bases.size()));
    return out;
}

tied_lookup lookup_in(const std::map<std::string, tied_read>& tied) {
    return [&tied](const std::string& name) -> const tied_read* {
        auto it = tied.find(name);
        return it == tied.end() ? nullptr : &it->second;
    };
}

std::map<std::string, tied_read> tie_reads(const contig& c, const read_lookup& lookup,
                                           read_fetcher& fetcher,
                                           const std::vector<std::string>& names) {
    std::map<std::string, tied_read> out;
    // One fetch per file: a file the fetcher refuses costs its own reads, not the others'.
    std::vector<std::vector<read_location>> at(lookup.sff_names.size());
    std::vector<std::vector<const READ*>> reads(lookup.sff_names.size());
    for (const std::string& name : names) {
        const auto r = c.reads.find(name);
        const read_location where = lookup.locate(name);
        if (r == c.reads.end() || !where.found()) continue;
        at[static_cast<std::size_t>(where.file)].push_back(where);
        reads[static_cast<std::size_t>(where.file)].push_back(&r->second);
    }
    for (std::size_t k = 0; k < at.size(); ++k) {
        if (at[k].empty()) continue;
        tie_fetched(
            lookup, fetcher, at[k], reads[k],
            [&](std::size_t i, const tied_read& t) {
                out[reads[k][i]->name] = t;
                return true;
            },
            [](std::size_t) { return true; });
    }
    return out;
}

// The flow values that reads measured, laid on align_flow's grid of a window: the reads are
// selected, clipped and counted flow by flow by the same window rules as align_flow, and each
// flow of a read is looked up in its tied flowgram.
#include <algorithm>

#include "contig_window.h"
#include "flow_letters.h"
#include <sorvexa/flowcheck.h>

namespace {

using flow_letters::complement;

// The value a tied read measured for one flow of the grid: the flow that called its bases
// there or, with none, its first flow of the letter between the flows of the bases on either
// side; -1 when a side has no base.
struct flow_reader {
    const tied_read& t;
    const std::vector<char>& seq;
    std::int32_t last_flow = -1;  // the flow of the read's last base before this grid flow

    std::int64_t next_base(std::int64_t o, std::int64_t j) const {
        for (; o <= j; ++o)
            if (flow_of(o) >= 0) return o;
        return -1;
    }
    std::int32_t flow_of(std::int64_t o) const {
        return o >= 0 && o < static_cast<std::int64_t>(t.base_flow.size())
                   ? t.base_flow[static_cast<std::size_t>(o)]
                   : -1;
    }
    std::int32_t value(std::int32_t flow) const {
        return flow >= 0 && static_cast<std::size_t>(flow) < t.flowgram.size()
                   ? t.flowgram[static_cast<std::size_t>(flow)]
                   : -1;
    }

    std::int32_t measure(char x, int count, std::int64_t begin, std::int64_t end) {
        const std::int64_t base = next_base(begin, end);
        if (count > 0 && base >= 0) {
            last_flow = flow_of(base);
            return value(last_flow);
        }
        if (last_flow < 0 || base < 0) return -1;
        const std::int32_t g = flow_between(t, x, last_flow, flow_of(base));
        return g >= 0 ? value(g) : 0;
    }
};

// Measures every flow of the shown read `s` that the window's flows fs.. hold, calling
// store(flow, value): untied_read over a read that is not tied.
template <class Store>
void measure_read(const contig& c, const contig_window::shown_read& s, const tied_read* t,
                  Store store) {
    contig_window::flow_part p;
    if (!contig_window::clip_to_flows(c, s, p)) return;
    if (t == nullptr) {
        for (std::int64_t f = p.fs; f <= p.fe; ++f) store(f, flow_window::untied_read);
        return;
    }
    flow_reader fr{*t, s.read.sequence};
    // The flow of the read's last base before the window's part of it.
    for (std::int64_t o = p.i - 1; o >= 0 && fr.last_flow < 0; --o) fr.last_flow = fr.flow_of(o);
    contig_window::count_flows(c, s.read.sequence, p.i, p.j, p.fs, p.fe,
                               [&](std::int64_t f, int count, std::int64_t begin) {
                                   const char x = contig_window::at(c.flow_consensus, f);
                                   store(f, fr.measure(x, count, begin, p.j));
                               });
}

}  // namespace

std::int32_t flow_between(const tied_read& t, char letter, std::int32_t a, std::int32_t b) {
    const char y = t.complemented ? complement(letter) : letter;
    const std::int32_t lo = std::min(a, b), hi = std::max(a, b);
    for (std::int32_t g = lo + 1; g < hi; ++g)
        if (g >= 0 && static_cast<std::size_t>(g) < t.flow_chars.size() &&
            t.flow_chars[static_cast<std::size_t>(g)] == y)
            return g;
    return -1;
}

void window_signals(contig& c, const std::map<std::string, tied_read>& tied,
                    const flow_check& check, std::int32_t from, int width, flow_window& out) {
    window_signals(
        c,
        [&tied](const std::string& name) -> const tied_read* {
            auto it = tied.find(name);
            return it == tied.end() ? nullptr : &it->second;
        },
        check, from, width, out);
}

void window_signals(contig& c, const tied_lookup& tied, const flow_check& check, std::int32_t from,
                    int width, flow_window& out) {
    c.align_flow(out.counts, out.rows, from, width);
    if (c.flow_consensus.empty()) return;

    const std::int64_t first = contig_window::within_end(c, from);
    const std::int64_t last = contig_window::last_column(first, width);
    const std::int64_t f0 = contig_window::flow_range(c, first, last).first;
    out.signals.resize(out.counts.size());
    auto store = [&](std::int64_t f, std::size_t r, std::int32_t v) {
        const std::int64_t k = f - f0;
        if (k < 0 || k >= static_cast<std::int64_t>(out.signals.size())) return;
        auto& column = out.signals[static_cast<std::size_t>(k)];
        if (column.size() < r + 1) column.resize(r + 1, -1);
        column[r] = v;
    };

    const contig_window::bounds w = contig_window::select(c, first, last);
    for (std::size_t r = 0; r < c.print_map.size(); ++r) {
        contig_window::for_each_shown(
            c, c.print_map[r], w, [&](const contig_window::shown_read& s) {
                measure_read(c, s, tied(s.name),
                             [&](std::int64_t f, std::int32_t v) { store(f, r, v); });
            });
    }

    const std::int64_t window_last = contig_window::last_column(first, width);
    for (std::size_t i = 0; i < check.runs.size(); ++i) {
        const hp_run& run = check.runs[i];
        if (run.last_column >= first && run.first_column <= window_last)
            out.runs.push_back(static_cast<std::int32_t>(i));
    }
}

void grid_signals(const contig& c, const window_grid& grid, const tied_lookup& tied,
                  std::vector<std::vector<std::int32_t>>& out) {
    out.assign(grid.counts.size(), {});
    for (std::size_t g = 0; g < grid.counts.size(); ++g) {
        out[g].assign(grid.counts[g].size(), -1);
        if (g >= grid.reads.size()) continue;
        for (const window_read& wr : grid.reads[g]) {
            auto rd = c.reads.find(wr.name);
            if (rd == c.reads.end() || wr.first_flow < 0) continue;
            // The read as the window drew it, clipped and counted by the same rules.
            const contig_window::shown_read s{wr.name, rd->second, wr.start, wr.first, wr.last};
            measure_read(c, s, tied(wr.name), [&](std::int64_t f, std::int32_t v) {
                const std::int64_t k = f - grid.first_flow;
                if (k >= 0 && k < static_cast<std::int64_t>(out[g].size()))
                    out[g][static_cast<std::size_t>(k)] = v;
            });
        }
    }
}

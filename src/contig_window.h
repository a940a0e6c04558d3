// What the window operations of a contig share: which reads of a layout row a window
// shows, how a read is clipped to it, widened to whole homopolymer runs, and counted flow
// by flow. Each operation passes its own window bounds; only the rules live here.
#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include <sorvexa/contig.h>

namespace contig_window {

inline char at(const std::vector<char>& s, std::int64_t k) {
    return k >= 0 && k < static_cast<std::int64_t>(s.size()) ? s[static_cast<std::size_t>(k)]
                                                             : '\0';
}

// The window clamps: the flow table and the consensus line stop at the consensus end, the
// read selection does not. A width below 1 puts a window's last column before its first.
inline std::int64_t last_column(std::int64_t from, int width) {
    return from + width - 1;
}

inline std::int64_t consensus_end(const contig& c) {
    return static_cast<std::int64_t>(c.consensus.size());
}

// A column past the consensus end stands for its last column, the last one with flows.
inline std::int64_t within_end(const contig& c, std::int64_t column) {
    return std::min(column, consensus_end(c));
}

// A range of columns or of flows, both ends included.
struct span {
    std::int64_t first, last;
};

// The flows of the columns from..last: the first flow of `from` to the last flow of `last`,
// both held to the consensus end.
inline span flow_range(const contig& c, std::int64_t from, std::int64_t last) {
    return {c.getFlowIdx_start(static_cast<std::int32_t>(within_end(c, from) - 1)),
            c.getFlowIdx_end(static_cast<std::int32_t>(within_end(c, last) - 1))};
}

// The columns of from..last that the consensus has: none before column 1 or past its end.
inline span consensus_part(const contig& c, std::int64_t from, std::int64_t last) {
    return {std::max<std::int64_t>(from, 1), within_end(c, last)};
}

// The last column of the window as a grid: the window's last column held to the consensus
// end. A window ending before column 0 ends there too: grids have always been cut that way,
// and a caller's result for such a width is kept rather than changed under it.
inline std::int64_t grid_last(const contig& c, std::int64_t from, int width) {
    const std::int64_t last = last_column(from, width);
    return last < 0 ? consensus_end(c) : within_end(c, last);
}

// A window as the read selection sees it: columns from..last, and the start columns
// lo..hi that can reach into it given the contig's longest and shortest reads.
struct bounds {
    std::int64_t from, last, lo, hi;
};

inline bounds select(const contig& c, std::int64_t from, std::int64_t last) {
    std::int64_t lo = std::max<std::int64_t>(1, from - c.max_read_len + 1);
    std::int64_t hi = c.min_read_len != 0 ? last - c.min_read_len + 1 : last;
    return {from, last, lo, hi};
}

// One read shown in a window: start s, covering columns a..e of the window.
struct shown_read {
    const std::string& name;
    const READ& read;
    std::int64_t s, a, e;
};

// Calls f(shown_read) for each read of `row` that the window shows, in ascending start.
template <class F>
void for_each_shown(const contig& c, const layout_row& row, const bounds& w, F f) {
    if (w.lo > w.hi || w.hi < INT32_MIN || w.lo > INT32_MAX) return;
    auto it = row.lower_bound(static_cast<std::int32_t>(std::max<std::int64_t>(w.lo, INT32_MIN)));
    for (; it != row.end() && it->first <= w.hi; ++it) {
        std::int64_t s = it->first;
        auto rd = c.reads.find(it->second);
        if (rd == c.reads.end()) continue;  // a hand-made layout may name unknown reads
        std::int64_t end = s + rd->second.length - 1;
        if (s > w.last || end < w.from) continue;
        f(shown_read{it->second, rd->second, s, std::max(s, w.from), std::min(end, w.last)});
    }
}

// Widens the read offsets i..j so that the runs at both ends are whole: the start moves
// back over bases equal to its own and over pads, the end forward likewise, never past the
// stored sequence.
inline void widen(const std::vector<char>& seq, std::int64_t& i, std::int64_t& j) {
    std::int64_t n = static_cast<std::int64_t>(seq.size());
    if (i < n) {
        char c = at(seq, i);
        while (i >= 1 && (at(seq, i - 1) == c || at(seq, i - 1) == '*')) --i;
    }
    char c = at(seq, j);
    while (j + 1 < n && j + 1 >= 0 && (at(seq, j + 1) == c || at(seq, j + 1) == '*')) ++j;
}

// Counts, for each flow f in fs..fe, the read's bases in read offsets i..j that flow f
// carries, calling emit(f, count). The offset carries over from flow to flow: a flow takes
// the bases equal to its letter (pads pass uncounted) and leaves the first other base to
// the next flow; an N at the start of a flow is passed over.
// An emit that takes a third argument also gets the offset where the flow's part of the read
// begins (past the N's passed over): its bases, if any, lie from there on.
template <class F>
void count_flows(const contig& c, const std::vector<char>& seq, std::int64_t i, std::int64_t j,
                 std::int64_t fs, std::int64_t fe, F emit) {
    std::int64_t o = i;
    for (std::int64_t f = fs; f <= fe; ++f) {
        char x = at(c.flow_consensus, f);
        int count = 0;
        while (o <= j && at(seq, o) == 'N') ++o;
        const std::int64_t begin = o;
        while (o <= j && (at(seq, o) == x || at(seq, o) == '*')) {
            if (at(seq, o) == x) ++count;
            ++o;
        }
        if constexpr (std::is_invocable_v<F, std::int64_t, int, std::int64_t>)
            emit(f, count, begin);
        else
            emit(f, count);
    }
}

// A shown read clipped for flow space: its part past the consensus end has no flows, so
// the clipped end stops at the last column, and a read shown only past it is skipped.
struct flow_part {
    std::int64_t i, j;    // read offsets, widened
    std::int64_t fs, fe;  // first and last flow
    std::int64_t e;       // clipped last column
};

inline bool clip_to_flows(const contig& c, const shown_read& r, flow_part& p) {
    if (r.a > consensus_end(c)) return false;
    p.e = within_end(c, r.e);
    p.i = r.a - r.s;
    p.j = p.e - r.s;
    widen(r.read.sequence, p.i, p.j);
    p.fs = c.getFlowIdx_start(static_cast<std::int32_t>(r.a - 1));
    p.fe = c.getFlowIdx_end(static_cast<std::int32_t>(p.e - 1));
    return true;
}

}  // namespace contig_window

// The contig in flow space: the flow consensus built from where the reads' homopolymer
// runs begin, the column-to-flow lookups, and the flow alignment of a window.
#include <cctype>

#include <sorvexa/contig.h>
#include "contig_window.h"

namespace {

int cycle_bit(char x) {
    for (int k = 0; k < 4; ++k)
        if (fcycle[k] == x) return 1 << k;
    return 0;  // other characters are never looked up, so they need no place in the set
}

char upper(char c) {
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

// The first flow letter that differs from both a and b.
char letter_other_than(char a, char b) {
    for (char x : fcycle)
        if (x != a && x != b) return x;
    return fcycle[0];
}

// Records in `starts` (one bit per flow letter and column index) where the runs of one
// read begin. Bases outside the consensus are walked, so that runs continue correctly
// across its ends, but recorded nowhere.
void record_run_starts(const contig& c, const READ& r, std::vector<unsigned char>& starts) {
    const std::vector<char>& seq = r.sequence;
    const std::int64_t L = static_cast<std::int64_t>(c.consensus.size());
    const std::int64_t b = static_cast<std::int64_t>(r.start) - 1;
    // A sequence shorter than its declared length has no bases past its end to walk.
    const std::int64_t n = std::min<std::int64_t>(r.length, static_cast<std::int64_t>(seq.size()));
    if (n <= 0) return;
    using contig_window::at;
    auto consensus_at = [&](std::int64_t col) {
        return col >= 0 && col < L ? c.consensus[col] : '*';
    };
    auto record = [&](std::int64_t col, char x) {
        if (col >= 0 && col < L) starts[static_cast<std::size_t>(col)] |= cycle_bit(x);
    };

    char prev = upper(seq[0]);
    if (prev != '*') {
        char x = prev;
        if (x == 'N') {
            if (consensus_at(b) != '*') x = consensus_at(b);
            if (r.length > 2 && at(seq, 1) == x) x = letter_other_than(at(seq, 1), at(seq, 1));
        }
        record(b, x);
        prev = x;
    }
    for (std::int64_t j = 1; j < n; ++j) {
        char y = upper(seq[static_cast<std::size_t>(j)]);
        if (y == prev) continue;
        prev = y;
        if (y == '*') continue;  // a pad ends the run: the same letter after it starts anew
        if (y == 'N') {
            if (consensus_at(b + j) != '*') y = consensus_at(b + j);
            if (j + 1 < r.length && (y == at(seq, j - 1) || y == at(seq, j + 1)))
                y = letter_other_than(at(seq, j - 1), at(seq, j + 1));
        }
        record(b + j, y);
    }
}

}  // namespace

// A contig without reads, or with reads but no consensus (no column for flow 0 to come
// from), builds nothing: both views stay empty and every lookup returns 0.
void contig::create_flow_concensus() {
    if (reads.empty() || consensus.empty()) return;
    const std::size_t L = consensus.size();
    std::vector<unsigned char> starts(L, 0);
    for (const auto& entry : reads) record_run_starts(*this, entry.second, starts);

    char first = consensus[0];
    flow_consensus.push_back(first == '*' || first == 'N' || first == 'n' ? 'T' : first);
    flow_index.resize(L);
    std::int32_t k = static_cast<std::int32_t>(flow_consensus.size()) - 1;
    for (std::size_t p = 0; p < L; ++p) {
        if (starts[p] == 0) continue;
        const char last = flow_consensus[static_cast<std::size_t>(k)];
        for (int q = 0; q < 4; ++q) {
            if (!(starts[p] & (1 << q))) continue;
            if (fcycle[q] != last) {
                flow_consensus.push_back(fcycle[q]);
                ++k;
            }
            flow_index[p][fcycle[q]] = k;
        }
    }
}

// Lookups outside the table (or on an empty one) find no flows and return 0.
std::int32_t contig::getFlowIdx_start(std::int32_t i) const {
    if (i < 0 || static_cast<std::size_t>(i) >= flow_index.size()) return 0;
    for (std::int64_t c = i; c >= 0; --c) {
        const auto& m = flow_index[static_cast<std::size_t>(c)];
        for (char x : fcycle) {
            auto it = m.find(x);
            if (it != m.end()) return it->second;
        }
    }
    return 0;
}

std::int32_t contig::getFlowIdx_end(std::int32_t i) const {
    if (i < 0 || static_cast<std::size_t>(i) >= flow_index.size()) return 0;
    for (std::int64_t c = i; c >= 0; --c) {
        const auto& m = flow_index[static_cast<std::size_t>(c)];
        for (int q = 3; q >= 0; --q) {
            auto it = m.find(fcycle[q]);
            if (it != m.end()) return it->second;
        }
    }
    return 0;
}

void contig::align_flow(std::vector<std::vector<std::int16_t>>& flow_counts,
                        std::vector<std::map<std::int32_t, fRead>>& flow_rows, std::int32_t from,
                        int width) {
    if (print_map.empty()) create_print_map();
    if (flow_consensus.empty()) create_flow_concensus();
    if (flow_consensus.empty()) return;  // no reads or no consensus: nothing to align

    // A window starting after the consensus is the window at its last column.
    const std::int64_t first = contig_window::within_end(*this, from);
    const std::int64_t last = contig_window::last_column(first, width);
    const contig_window::span flows = contig_window::flow_range(*this, first, last);
    const std::int64_t f0 = flows.first;
    flow_counts.resize(static_cast<std::size_t>(std::max<std::int64_t>(flows.last - f0 + 1, 0)));

    const contig_window::bounds w = contig_window::select(*this, first, last);
    for (std::size_t r = 0; r < print_map.size(); ++r) {
        flow_rows.emplace_back();
        auto& row_reads = flow_rows[r];
        contig_window::for_each_shown(
            *this, print_map[r], w, [&](const contig_window::shown_read& s) {
                contig_window::flow_part p;
                if (!contig_window::clip_to_flows(*this, s, p)) return;
                row_reads[static_cast<std::int32_t>(p.fe - f0)] =
                    fRead{s.name, static_cast<std::int32_t>(p.fs - f0),
                          static_cast<std::int32_t>(p.fe - f0)};
                contig_window::count_flows(
                    *this, s.read.sequence, p.i, p.j, p.fs, p.fe, [&](std::int64_t f, int count) {
                        std::int64_t k = f - f0;
                        if (k < 0 || k >= static_cast<std::int64_t>(flow_counts.size())) return;
                        auto& column = flow_counts[static_cast<std::size_t>(k)];
                        if (column.size() < r + 1) column.resize(r + 1, -1);
                        column[r] = static_cast<std::int16_t>(count);
                    });
            });
    }
}

// The homopolymer runs of a contig's consensus and the flow signals that tied reads give
// each of them.
#include <algorithm>
#include <bit>
#include <cassert>

#include "flow_letters.h"
#include <sorvexa/flowcheck.h>

namespace {

using flow_letters::complement;
using flow_letters::upper;

int letter_bit(char x) {
    switch (x) {
        case 'T':
            return 1;
        case 'A':
            return 2;
        case 'C':
            return 4;
        case 'G':
            return 8;
        default:
            return 0;
    }
}

// A block of pad-only consensus columns between two bases, and the letters reads hold there
// that neither base has.
struct pad_block {
    std::int32_t first, last;
    char left, right;
    std::int32_t position;  // of the base after the block
    int letters = 0;
};

bool run_order(const hp_run& a, const hp_run& b) {
    if (a.first_column != b.first_column) return a.first_column < b.first_column;
    if (a.column != b.column) return a.column < b.column;
    return letter_bit(a.letter) < letter_bit(b.letter);
}

}  // namespace

// Runs of bases are found in one walk over the consensus; the pad-only blocks between bases
// then collect the letters reads hold in them, each a run of length 0. Everything is counted
// before the runs are stored: a whole genome's contig has hundreds of thousands of them, and
// a vector grown by doubling would hold half as many again, and briefly twice as many.
void flow_check::create_runs(const contig& c) {
    runs.clear();
    signals.clear();
    values.clear();
    value_runs.clear();
    const auto L = static_cast<std::int32_t>(
        std::min<std::size_t>(c.consensus.size(), static_cast<std::size_t>(INT32_MAX - 1)));
    auto at = [&](std::int32_t column) {
        return upper(c.consensus[static_cast<std::size_t>(column - 1)]);
    };
    // Calls f(first base column, last base column, bases before, length, column of the base
    // before or 0, column of the base after or L + 1) for each maximal stretch of one letter
    // that a flow offers, and block(first, last, left, right, position) for each block of
    // pads between two bases.
    auto walk = [&](auto run, auto block) {
        std::int32_t start = 0, last = 0, before = 0, count = 0, bases = 0;
        char letter = 0;
        auto close = [&](std::int32_t next) {
            if (count > 0 && letter_bit(letter) != 0)
                run(start, last, bases - count, count, before, next);
        };
        for (std::int32_t col = 1; col <= L; ++col) {
            if (c.consensus[static_cast<std::size_t>(col - 1)] == '*') continue;
            const char x = at(col);
            if (last > 0 && col > last + 1) block(last + 1, col - 1, at(last), x, bases + 1);
            if (count > 0 && x == letter) {
                ++count;
            } else {
                close(col);
                before = last;
                start = col;
                letter = x;
                count = 1;
            }
            last = col;
            ++bases;
        }
        close(L + 1);
    };

    std::size_t needed = 0;
    std::vector<pad_block> blocks;
    walk([&](auto...) { ++needed; },
         [&](std::int32_t first, std::int32_t last, char left, char right, std::int32_t position) {
             blocks.push_back({first, last, left, right, position});
         });
    if (!blocks.empty()) {
        for (const auto& [name, read] : c.reads) {
            const std::int64_t n = std::min<std::int64_t>(
                read.length, static_cast<std::int64_t>(read.sequence.size()));
            const std::int64_t k0 =
                std::max<std::int64_t>(0, 1 - static_cast<std::int64_t>(read.start));
            const std::int64_t k1 =
                std::min<std::int64_t>(n, L - static_cast<std::int64_t>(read.start) + 1);
            for (std::int64_t k = k0; k < k1; ++k) {
                const std::int64_t col = read.start + k;
                if (c.consensus[static_cast<std::size_t>(col - 1)] != '*') continue;
                auto b = std::upper_bound(
                    blocks.begin(), blocks.end(), col,
                    [](std::int64_t v, const pad_block& p) { return v < p.first; });
                if (b == blocks.begin() || (--b)->last < col)
                    continue;  // pads before the first base or after the last
                const char x = upper(read.sequence[static_cast<std::size_t>(k)]);
                if (x != b->left && x != b->right) b->letters |= letter_bit(x);
            }
        }
    }
    for (const pad_block& block : blocks)
        needed += static_cast<std::size_t>(std::popcount(static_cast<unsigned>(block.letters)));
    if (runs.capacity() < needed) std::vector<hp_run>().swap(runs);
    runs.reserve(needed);

    walk(
        [&](std::int32_t first, std::int32_t last_base, std::int32_t before, std::int32_t length,
            std::int32_t prev, std::int32_t next) {
            (void)last_base;
            hp_run r;
            r.first_column = prev + 1;
            r.last_column = next - 1;
            r.column = first;
            r.position = before + 1;
            r.letter = at(first);
            r.consensus_length = length;
            runs.push_back(r);
        },
        [](auto...) {});
    const std::size_t base_runs = runs.size();
    for (const pad_block& block : blocks) {
        for (char x : fcycle) {
            if (!(block.letters & letter_bit(x))) continue;
            hp_run r;
            r.first_column = block.first;
            r.last_column = block.last;
            r.column = block.first;
            r.position = block.position;
            r.letter = x;
            runs.push_back(r);
        }
    }
    // Both parts are in order already: the runs of bases by their first owned column, the
    // runs of length 0 by block and then letter. Merging them moves each run once.
    std::inplace_merge(runs.begin(), runs.begin() + static_cast<std::ptrdiff_t>(base_runs),
                       runs.end(), run_order);
    assert(std::is_sorted(runs.begin(), runs.end(), run_order));
}

void flow_check::add_value(hp_run& r, std::uint16_t value, bool complemented, std::size_t file) {
    if (models.pooled.empty()) models.set_fixed(model, 0);
    weigh_value(r, value, complemented, file);
}

void flow_check::add_read(const contig& c, const READ& read, const tied_read& t,
                          std::int32_t read_number) {
    const auto L = static_cast<std::int64_t>(c.consensus.size());
    const std::int64_t s = t.start;
    const std::int64_t n = std::min<std::int64_t>(static_cast<std::int64_t>(t.base_flow.size()),
                                                  static_cast<std::int64_t>(read.sequence.size()));
    // Only bases on consensus columns count.
    const std::int64_t k0 = std::max<std::int64_t>(0, 1 - s);
    const std::int64_t k1 = std::min<std::int64_t>(n, L - s + 1);  // past the last
    if (k0 >= k1) return;
    auto flow_at = [&](std::int64_t k) { return t.base_flow[static_cast<std::size_t>(k)]; };

    // For every offset, the nearest base at or before it and at or after it.
    const auto span = static_cast<std::size_t>(k1 - k0);
    std::vector<std::int64_t>& before = scratch_before_;
    std::vector<std::int64_t>& after = scratch_after_;
    before.resize(span);
    after.resize(span);
    if (models.pooled.empty()) models.set_fixed(model, 0);
    std::int64_t last = -1;
    for (std::int64_t k = k0; k < k1; ++k) {
        if (flow_at(k) >= 0) last = k;
        before[static_cast<std::size_t>(k - k0)] = last;
    }
    last = -1;
    for (std::int64_t k = k1 - 1; k >= k0; --k) {
        if (flow_at(k) >= 0) last = k;
        after[static_cast<std::size_t>(k - k0)] = last;
    }
    const std::int64_t first_base = after[0];
    const std::int64_t last_base = before[span - 1];
    if (first_base < 0 || first_base >= last_base) return;

    // The runs that lie strictly between the read's first and last base.
    const std::int64_t first_col = s + first_base, last_col = s + last_base;
    auto it =
        std::upper_bound(runs.begin(), runs.end(), first_col,
                         [](std::int64_t col, const hp_run& r) { return col < r.first_column; });
    for (; it != runs.end() && it->first_column < last_col; ++it) {
        hp_run& r = *it;
        if (r.last_column >= last_col) continue;
        const std::int64_t kl = r.first_column - s, kr = r.last_column - s;
        const std::int64_t left = before[static_cast<std::size_t>(kl - 1 - k0)];
        const std::int64_t right = after[static_cast<std::size_t>(kr + 1 - k0)];
        std::int32_t flow = -1;
        bool split = false;
        for (std::int64_t k = kl; k <= kr; ++k) {
            if (flow_at(k) < 0 || upper(read.sequence[static_cast<std::size_t>(k)]) != r.letter)
                continue;
            if (flow >= 0 && flow_at(k) != flow) split = true;
            flow = flow_at(k);
        }
        // Bases of the letter from two flows, or a flow that its neighbours share, measured
        // more than this run: such a read says nothing clean about it.
        if (split) continue;
        const std::int32_t fl = flow_at(left), fr = flow_at(right);
        if (flow >= 0 && (flow == fl || flow == fr)) continue;
        std::uint16_t value = 0;
        // No base of the letter: the read's first flow of it between its neighbours.
        if (flow < 0) flow = flow_between(t, r.letter, fl, fr);
        if (flow >= 0) {
            if (static_cast<std::size_t>(flow) >= t.flowgram.size()) continue;
            value = t.flowgram[static_cast<std::size_t>(flow)];
        }
        weigh_value(r, value, t.complemented, t.file);
        if (keep_values && values.size() < value_limit) {
            values.emplace_back(value, t.file, t.complemented);
            value_runs.push_back(static_cast<std::uint32_t>(it - runs.begin()));
        }
        if (keep_signals)
            signals.push_back(
                {static_cast<std::int32_t>(it - runs.begin()), read_number, value, t.complemented});
    }
}

// The length call of each run from its signals, and the calls as edits of the consensus.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <numeric>
#include <set>
#include <utility>

#include "flowcheck.h"

double flow_model::log_likelihood(std::int32_t n, double k, double s1, double s2) const {
    // A model with no spread at some length would make every likelihood infinite; a tiny
    // floor keeps the comparison finite and still decisive.
    const double sd = std::max(sigma(n), 1e-6);
    const double nd = n;
    return -k * std::log(sd) - (s2 - 2.0 * nd * s1 + k * nd * nd) / (2.0 * sd * sd);
}

// The most likely length, the consensus length winning ties, and its log-likelihood ratio
// against the consensus length. Above the largest value v, every value lies further from n,
// in units of sigma(n), as n grows ((n - v) / (a + b n) grows with n), and sigma(n) grows
// too, so no length above v can be more likely: the search stops at v rounded up.
void flow_check::call_runs() {
    for (hp_run& r : runs) {
        r.called_length = r.consensus_length;
        r.score = 0.0;
        if (r.signals == 0) continue;
        const double k = r.signals;
        const double s1 = static_cast<double>(r.sum) / 100.0;
        const double s2 = static_cast<double>(r.sum_squares) / 10000.0;
        const double at_consensus = model.log_likelihood(r.consensus_length, k, s1, s2);
        double best = at_consensus;
        const std::int32_t top = (r.max_value + 99) / 100;
        for (std::int32_t n = 0; n <= top; ++n) {
            if (n == r.consensus_length) continue;
            const double ll = model.log_likelihood(n, k, s1, s2);
            if (ll > best) {
                best = ll;
                r.called_length = n;
            }
        }
        r.score = best - at_consensus;
    }
}

void flow_check::check_contig(const contig& c, const read_lookup& lookup, tie_counts& counts) {
    check_contig(
        c, lookup.sff_names,
        [&lookup](const std::string& name, std::int64_t& pos) { return lookup.find(name, pos); },
        counts);
}

// Records are fetched file by file, in name order within a file, so that each file is opened
// once per contig, as Sorvexa's run does.
void flow_check::check_contig(const contig& c, const std::vector<std::string>& sff_paths,
                              const read_finder& find, tie_counts& counts,
                              std::map<std::string, tied_read>* tied) {
    create_runs(c);
    struct wanted_read {
        std::int64_t pos;
        const READ* read;
        std::int32_t number;
    };
    std::vector<std::vector<wanted_read>> wanted(sff_paths.size());
    std::int64_t pos = 0;
    std::int32_t number = 0;
    for (const auto& [name, read] : c.reads) {
        const int k = find(name, pos);
        if (k < 0 || static_cast<std::size_t>(k) >= sff_paths.size()) {
            ++counts.not_found;
        } else {
            wanted[static_cast<std::size_t>(k)].push_back({pos, &read, number});
        }
        ++number;
    }
    tied_read t;
    for (std::size_t k = 0; k < wanted.size(); ++k) {
        if (wanted[k].empty()) continue;
        reader rd(sff_paths[k]);
        rd.get_header();
        const std::string_view flows(rd.header_p2.flow_chars.data(),
                                     rd.header_p2.flow_chars.size());
        for (const wanted_read& w : wanted[k]) {
            if (rd.get_record(w.pos) && tie_read(*w.read, rd.cur_read, flows, t)) {
                add_read(c, *w.read, t, w.number);
                if (tied != nullptr) (*tied)[w.read->name] = t;
                ++counts.tied;
            } else {
                ++counts.untied;
            }
        }
    }
    call_runs();
}

namespace {

bool conflict(const consensus_edit& x, const consensus_edit& y) {
    const bool xe = x.begin == x.end, ye = y.begin == y.end;
    if (xe && ye) return x.begin == y.begin;
    if (xe) return y.begin < x.begin && x.begin < y.end;
    if (ye) return x.begin < y.begin && y.begin < x.end;
    return x.begin < y.end && y.begin < x.end;
}

using edit_key = std::pair<std::int64_t, std::int64_t>;

}  // namespace

void flow_check::edits(const std::string& unpadded, std::vector<consensus_edit>& out) const {
    std::vector<consensus_edit> wanted;
    for (std::size_t i = 0; i < runs.size(); ++i) {
        const hp_run& r = runs[i];
        if (!differs(r)) continue;
        consensus_edit e;
        e.begin = r.position - 1;
        e.end = e.begin + r.consensus_length;
        if (e.begin < 0 || e.end > static_cast<std::int64_t>(unpadded.size())) continue;
        // The called run keeps the case the consensus wrote it in.
        char x = r.letter;
        if (r.consensus_length > 0 &&
            std::islower(static_cast<unsigned char>(unpadded[static_cast<std::size_t>(e.begin)])))
            x = static_cast<char>(std::tolower(static_cast<unsigned char>(x)));
        e.bases.assign(static_cast<std::size_t>(r.called_length), x);
        e.run = static_cast<std::int32_t>(i);
        wanted.push_back(std::move(e));
    }
    // The strongest calls first; a weaker one that collides with a kept one is dropped.
    std::vector<std::size_t> order(wanted.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return runs[static_cast<std::size_t>(wanted[a].run)].score >
               runs[static_cast<std::size_t>(wanted[b].run)].score;
    });
    std::map<edit_key, std::size_t> kept;
    for (std::size_t w : order) {
        const consensus_edit& e = wanted[w];
        // Kept edits do not overlap, so only the one starting before e and those starting
        // inside it can collide with it.
        auto it = kept.lower_bound({e.begin, e.begin});
        bool clash = it != kept.begin() && conflict(wanted[std::prev(it)->second], e);
        for (; !clash && it != kept.end() && it->first.first <= e.end; ++it)
            clash = conflict(wanted[it->second], e);
        if (!clash) kept.emplace(edit_key{e.begin, e.end}, w);
    }
    for (const auto& entry : kept) out.push_back(wanted[entry.second]);
}

std::string unpadded_consensus(const contig& c) {
    std::string s;
    s.reserve(c.consensus.size());
    for (char x : c.consensus)
        if (x != '*') s.push_back(x);
    return s;
}

std::string apply_edits(const std::string& unpadded, const std::vector<consensus_edit>& edits) {
    std::string out;
    out.reserve(unpadded.size() + edits.size());
    std::size_t at = 0;
    for (const consensus_edit& e : edits) {
        out.append(unpadded, at, static_cast<std::size_t>(e.begin) - at);
        out += e.bases;
        at = static_cast<std::size_t>(e.end);
    }
    out.append(unpadded, at, std::string::npos);
    return out;
}

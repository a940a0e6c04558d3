// The length call of each run from its signals, and the calls as edits of the consensus.
#include <sorvexa/ace.h>
#include <sorvexa/flowcheck.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <numeric>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

// Each run is decided from the log-likelihoods its values added up as add_read found them.
void flow_check::call_runs() {
    if (models.pooled.empty()) models.set_fixed(model, 0);
    for (hp_run& r : runs) {
        const run_call c = decide_run(models, r.consensus_length, r.likelihood, r.forward,
                                      r.reverse(), min_signals, min_qual);
        r.called_length = c.called;
        r.score = static_cast<float>(c.score);
        r.qual = static_cast<float>(c.qual);
        r.confidence = static_cast<float>(c.confidence);
        r.strand_conflict = c.strand_conflict;
    }
}

// Within a file, reads are taken in the order they lie along the contig: consecutive reads
// then share most of their runs, which stay in the cache between them (in name order every
// read would fetch its runs from memory anew).
sorvexa::status flow_check::check_contig(const contig& c, const read_lookup& lookup,
                                         read_fetcher& fetcher, tie_counts& counts,
                                         std::map<std::string, tied_read>* tied) {
    create_runs(c);
    struct wanted_read {
        const READ* read;
        std::int32_t number;
    };
    std::vector<wanted_read> wanted;
    std::vector<read_location> where;
    std::int32_t number = 0;
    reads = tie_counts{};
    for (const auto& [name, read] : c.reads) {
        const read_location at = lookup.locate(name);
        if (!at.found()) {
            ++reads.not_found;
        } else {
            wanted.push_back({&read, number});
            where.push_back(at);
        }
        ++number;
    }
    std::vector<std::size_t> order(wanted.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return wanted[a].read->start < wanted[b].read->start;
    });
    std::vector<read_location> sorted(order.size());
    std::vector<const READ*> sorted_reads(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        sorted[i] = where[order[i]];
        sorted_reads[i] = wanted[order[i]].read;
    }

    // A fit's sample that is full needs no more reads.
    const auto wants_more = [&] { return !keep_values || values.size() < value_limit; };
    std::size_t fetched = 0;
    const sorvexa::status st = tie_fetched(
        lookup, fetcher, sorted, sorted_reads,
        [&](std::size_t i, const tied_read& t) {
            ++fetched;
            const wanted_read& w = wanted[order[i]];
            add_read(c, *w.read, t, w.number);
            if (tied != nullptr) (*tied)[w.read->name] = t;
            ++reads.tied;
            return wants_more();
        },
        [&](std::size_t) {
            ++fetched;
            ++reads.untied;
            return wants_more();
        });
    // The reads of a file that could not be read again count as untied.
    if (!st) reads.untied += static_cast<std::int64_t>(sorted.size() - fetched);
    counts.tied += reads.tied;
    counts.untied += reads.untied;
    counts.not_found += reads.not_found;
    call_runs();
    return st;
}

sorvexa::status flow_check::check_contig(const contig& c, const read_lookup& lookup,
                                         tie_counts& counts) {
    read_fetcher fetcher(lookup);
    return check_contig(c, lookup, fetcher, counts);
}

void flow_check::check_tied(const contig& c, const std::vector<read_tie>& tied,
                            const tie_counts& counts) {
    create_runs(c);
    reads = counts;
    std::int32_t number = 0;
    for (const read_tie& r : tied) add_read(c, *r.read, *r.tie, number++);
    call_runs();
}

sorvexa::status flow_check::calibrate(const contig_source& next, const read_lookup& lookup,
                                      read_fetcher& fetcher, std::int64_t max_values) {
    tie_counts ignored;
    return calibrate(
        [&](flow_check& probe, sorvexa::status& error) {
            contig c;
            if (!next(c)) return false;
            error = probe.check_contig(c, lookup, fetcher, ignored);
            return static_cast<bool>(error);
        },
        lookup.sff_names, max_values);
}

// The sample is checked under the fixed model: its calls only matter for the refit, which
// makes its own.
sorvexa::status flow_check::calibrate(const probe_source& next,
                                      const std::vector<std::string>& files,
                                      std::int64_t max_values) {
    flow_check probe;
    probe.keep_values = true;
    probe.model = model;
    probe.min_signals = min_signals;
    probe.min_qual = min_qual;
    flow_sample sample;
    sample.max_values = max_values;
    while (!sample.full()) {
        probe.value_limit = static_cast<std::size_t>(max_values) - sample.values.size();
        sorvexa::status st;
        if (!next(probe, st)) {
            if (!st) return st;
            break;
        }
        probe.add_to(sample);
    }
    fit_options o;
    o.fallback = model;
    o.min_qual = min_qual;
    o.min_strand = min_signals;
    fit_flow_models(sample, files, o, models);
    return {};
}

sorvexa::status flow_check::check(const contig& c, const read_lookup& lookup, read_fetcher& fetcher,
                                  bool list_all, contig_report& out) {
    tie_counts counts;
    const sorvexa::status st = check_contig(c, lookup, fetcher, counts);
    report(c, list_all, out);
    return st;
}

void flow_check::report(const contig& c, bool list_all, contig_report& out) const {
    out = contig_report{};
    out.name = c.name;
    out.coverage = coverage();
    out.unpadded = unpadded_consensus(c);
    edits(out.unpadded, out.edits);
    out.polished = apply_edits(out.unpadded, out.edits);
    std::vector<std::int8_t> edited(runs.size(), 0);  // 1: an edit, 2: one that passes
    for (const consensus_edit& e : out.edits) {
        edited[static_cast<std::size_t>(e.run)] = e.pass ? 2 : 1;
        ++out.called;
        if (e.pass) ++out.passed;
    }
    for (std::size_t i = 0; i < runs.size(); ++i) {
        if (!edited[i] && !(list_all && tested(runs[i]))) continue;
        out.rows.push_back({static_cast<std::int32_t>(i), runs[i], run_filter(*this, runs[i]),
                            edited[i] != 0, edited[i] == 2});
    }
}

bool read_model_file(const std::string& path, const std::vector<std::string>& sff_files,
                     flow_models& out, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) {
        error = "can not read model file " + path;
        return false;
    }
    if (!out.parse_tsv(text.str(), sff_files, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

sorvexa::status choose_models(flow_check& check, model_origin origin,
                              const flow_check::probe_source& sample,
                              const std::vector<std::string>& files, const std::string& table_path,
                              std::string& note) {
    std::string error;
    switch (origin) {
        case model_origin::table:
            if (!read_model_file(table_path, files, check.models, error))
                return sorvexa::status::failure(error);
            note = "read from " + table_path;
            return {};
        case model_origin::fixed:
            check.models.set_fixed(check.model, files.size());
            check.models.files = files;
            note = "fixed";
            return {};
        case model_origin::fitted:
            break;
    }
    const sorvexa::status st = check.calibrate(sample, files);
    if (!st) return st;
    note = "fitted: " + describe_models(check.models);
    return {};
}

sorvexa::status choose_models(flow_check& check, model_origin origin, const std::string& ace_path,
                              const std::string& table_path, const read_lookup& lookup,
                              read_fetcher& fetcher, std::string& note) {
    if (origin != model_origin::fitted)
        return choose_models(check, origin, {}, lookup.sff_names, table_path, note);
    // The fit reads the assembly's first contigs once more than the check does: a bounded
    // sample, so that a whole run's signals need not be held. An assembly that stops being
    // one within the sample is the check's to report, where it reads that far.
    aceReader sample(ace_path);
    tie_counts ignored;
    return choose_models(
        check, origin,
        [&](flow_check& probe, sorvexa::status& error) {
            contig c;
            if (sample.next_contig(c) == 0) return false;
            error = probe.check_contig(c, lookup, fetcher, ignored);
            return static_cast<bool>(error);
        },
        lookup.sff_names, table_path, note);
}

void flow_check::add_to(flow_sample& sample) const {
    // The values grouped by run, in the order the reads gave them.
    std::vector<std::int64_t> next(runs.size() + 1, 0);
    for (std::uint32_t run : value_runs) ++next[run + 1];
    for (std::size_t i = 0; i < runs.size(); ++i) next[i + 1] += next[i];
    const auto base = static_cast<std::int64_t>(sample.values.size());
    for (std::size_t i = 0; i < runs.size(); ++i) {
        if (next[i + 1] == next[i]) continue;
        sample.runs.push_back({runs[i].consensus_length,
                               static_cast<std::int32_t>(next[i + 1] - next[i]), base + next[i]});
    }
    sample.values.resize(sample.values.size() + values.size());
    for (std::size_t k = 0; k < values.size(); ++k)
        sample.values[static_cast<std::size_t>(base + next[value_runs[k]]++)] = values[k];
}

contig_coverage flow_check::coverage() const {
    contig_coverage c;
    c.reads = reads;
    for (const hp_run& r : runs) {
        if (r.consensus_length <= 0) continue;
        ++c.runs;
        if (tested(r)) ++c.tested;
    }
    return c;
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
        e.pass = passes(r);
        wanted.push_back(std::move(e));
    }
    // The strongest calls first; a weaker one that collides with a kept one is dropped.
    std::vector<std::size_t> order(wanted.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    auto strength = [&](std::size_t w) {
        const hp_run& r = runs[static_cast<std::size_t>(wanted[w].run)];
        return std::make_tuple(wanted[w].pass, r.qual, r.score);
    };
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return strength(a) > strength(b); });
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
        if (!e.pass) continue;
        out.append(unpadded, at, static_cast<std::size_t>(e.begin) - at);
        out += e.bases;
        at = static_cast<std::size_t>(e.end);
    }
    out.append(unpadded, at, std::string::npos);
    return out;
}

// Contig analysis and rendering: a contig is built from the input (a short consensus, a
// few reads with bounded starts, any 16-bit-range-ish length and sequences that may be
// shorter or longer than it, in either case, with N and pads), then the input picks a
// sequence of operations and windows. Starts and windows are bounded so that the drawings
// stay small: a start far from the consensus legitimately draws a line that long.
//
// Besides the sanitizers, the target checks what every operation promises its callers:
// the layout holds each read at most once and only reads of the contig, flow lookups stay
// inside the flow consensus, and a copied contig draws exactly what the original draws.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <sorvexa/contig.h>
#include <sorvexa/flowcheck.h>
#include "fuzz_support.h"

namespace {

using fuzz_support::null_stream;

[[noreturn]] void broken(const char* what) {
    std::fprintf(stderr, "fuzz_contig: %s\n", what);
    std::abort();
}

char base_char(FuzzedDataProvider& in) {
    static constexpr char alphabet[] = "ACGTACGTACGTacgtNn**";
    const std::uint8_t b = in.ConsumeIntegral<std::uint8_t>();
    if (b >= 250) return static_cast<char>(b - 250 + 'W');  // W..\: letters no flow offers
    return alphabet[b % (sizeof alphabet - 1)];
}

std::vector<char> sequence(FuzzedDataProvider& in, std::size_t n) {
    std::vector<char> s;
    s.reserve(n);
    for (std::size_t k = 0; k < n && in.remaining_bytes() > 0; ++k) s.push_back(base_char(in));
    return s;
}

contig make_contig(FuzzedDataProvider& in) {
    contig c;
    c.name = "Contig1";
    const std::size_t L = in.ConsumeIntegralInRange<std::size_t>(0, 300);
    c.consensus = sequence(in, L);
    const auto cols = static_cast<std::int32_t>(c.consensus.size());
    // The CO line's base count normally matches the consensus, but nothing checks that.
    c.num_bases = in.ConsumeBool() ? cols : in.ConsumeIntegralInRange<std::int32_t>(-5, cols + 20);
    c.uncomplemented = in.ConsumeBool() ? 1 : 0;

    const int n = in.ConsumeIntegralInRange<int>(0, 8);
    for (int k = 0; k < n; ++k) {
        // Names may repeat: a later AF line for a name replaces the earlier record.
        std::string name = "r" + std::to_string(in.ConsumeIntegralInRange<int>(0, 9));
        READ& r = c.reads[name];
        r = READ{};
        r.name = name;
        r.start = in.ConsumeIntegralInRange<std::int32_t>(-50, 300);
        r.length = in.ConsumeIntegralInRange<std::int16_t>(-5, 400);
        const std::size_t seq_len = in.ConsumeBool()
                                        ? static_cast<std::size_t>(r.length > 0 ? r.length : 0)
                                        : in.ConsumeIntegralInRange<std::size_t>(0, 420);
        r.uncomplemented = in.ConsumeBool() ? 1 : 0;
        r.align_clip_start = in.ConsumeIntegralInRange<std::int16_t>(-2, 420);
        r.align_clip_end = in.ConsumeIntegralInRange<std::int16_t>(-2, 420);
        r.sequence = sequence(in, seq_len);
    }
    c.num_reads = static_cast<std::int32_t>(c.reads.size());
    c.num_segments = c.num_reads;
    return c;
}

color_map_t make_colors(FuzzedDataProvider& in) {
    static constexpr char keys[] = "ACGTNacgt*";
    static const char* const colours[] = {"green", "blue", "black", "red", ""};
    color_map_t m;
    for (char k : std::string(keys))
        if (in.ConsumeBool()) m[k] = colours[in.ConsumeIntegralInRange<int>(0, 4)];
    return m;
}

void check_layout(const contig& c) {
    std::set<std::string> seen;
    for (const layout_row& row : c.print_map)
        for (const auto& entry : row) {
            if (c.reads.find(entry.second) == c.reads.end()) broken("layout names an unknown read");
            if (!seen.insert(entry.second).second) broken("layout holds a read twice");
        }
}

void check_flow_lookup(const contig& c, std::int32_t flow) {
    if (flow < 0) broken("negative flow from a lookup");
    if (!c.flow_consensus.empty() && static_cast<std::size_t>(flow) >= c.flow_consensus.size())
        broken("flow lookup past the flow consensus");
}

struct window {
    std::int32_t from;
    int width;
};

window pick_window(FuzzedDataProvider& in, const contig& c) {
    const auto L = static_cast<std::int32_t>(c.consensus.size());
    return {in.ConsumeIntegralInRange<std::int32_t>(-10, L + 10),
            in.ConsumeIntegralInRange<int>(0, 300)};
}

// The outputs that the operations append to. Callers normally pass them empty; now and
// then they are left filled from an earlier call, which must still be safe.
struct outputs {
    std::string text;
    std::vector<std::string> names;
    std::vector<std::vector<std::int16_t>> flow_counts;
    std::vector<std::map<std::int32_t, fRead>> flow_rows;
    std::vector<std::vector<char>> base_columns;
    std::vector<std::map<std::int32_t, std::string>> seq_rows;
    std::vector<std::string> ids;

    void maybe_clear(FuzzedDataProvider& in) {
        if (!in.ConsumeBool() && text.size() < (1u << 20)) return;
        *this = outputs{};
    }
};

// Draws one window of `c` in plain text, for comparing a contig with its copy.
std::string drawing(contig& c, window w) {
    std::string out;
    std::vector<std::string> names;
    c.print_align_map_plain(out, names, w.from, w.width);
    c.print_flow_map_plain(out, names, w.from, w.width);
    for (const std::string& n : names) out += "|" + n;
    return out;
}

// An SFF record for a read of the contig: mostly its own bases (turned back for a
// complemented read) inside a few others, now and then changed, with any flows and clips.
sff_read make_record(FuzzedDataProvider& in, const READ& r) {
    std::vector<char> bases = sequence(in, in.ConsumeIntegralInRange<std::size_t>(0, 6));
    const bool own = in.ConsumeBool() || in.ConsumeBool();
    std::vector<char> read;
    if (own) {
        for (char x : r.sequence)
            if (x != '*') read.push_back(x);
        if (r.uncomplemented == 0) {
            std::vector<char> rc(read.rbegin(), read.rend());
            for (char& x : rc)
                x = x == 'A' ? 'T' : x == 'T' ? 'A' : x == 'C' ? 'G' : x == 'G' ? 'C' : x;
            read = rc;
        }
        if (!read.empty() && in.ConsumeIntegralInRange<int>(0, 7) == 0)
            read[in.ConsumeIntegralInRange<std::size_t>(0, read.size() - 1)] = 'T';
    } else {
        read = sequence(in, in.ConsumeIntegralInRange<std::size_t>(0, 60));
    }
    bases.insert(bases.end(), read.begin(), read.end());
    const std::vector<char> tail = sequence(in, in.ConsumeIntegralInRange<std::size_t>(0, 6));
    bases.insert(bases.end(), tail.begin(), tail.end());

    sff_read rec;
    rec.numOfFlows = in.ConsumeIntegralInRange<std::uint16_t>(0, 1200);
    rec.flowgram_values.resize(in.ConsumeBool() ? rec.numOfFlows
                                                : in.ConsumeIntegralInRange<std::size_t>(0, 1200));
    for (auto& v : rec.flowgram_values) v = in.ConsumeIntegral<std::uint16_t>();
    rec.number_of_bases = static_cast<std::uint32_t>(bases.size());
    rec.bases = bases;
    for (std::size_t k = 0; k < bases.size(); ++k)
        rec.flow_index_per_base.push_back(in.ConsumeIntegralInRange<std::uint8_t>(0, 5));
    rec.quality_scores.assign(bases.size(), 30);
    rec.clip_qual_left = in.ConsumeIntegral<std::uint16_t>() % 80;
    rec.clip_qual_right = in.ConsumeIntegral<std::uint16_t>() % 400;
    rec.clip_adapter_right = in.ConsumeBool() ? 0 : in.ConsumeIntegral<std::uint16_t>();
    return rec;
}

// A model fitted to the check's own values must be sane whatever they were, and read back
// from its table unchanged.
void fit_model(const flow_check& check, const std::vector<std::string>& files, flow_models& out) {
    flow_sample sample;
    check.add_to(sample);
    fit_flow_models(sample, files, fit_options{}, out);
    for (std::size_t f = 0; f <= files.size(); ++f) {
        for (std::int32_t n = 0; n < 2 * flow_models::kLengths; ++n) {
            const length_model m = out.at(f, n);
            if (!(std::isfinite(m.centre) && m.spread >= flow_models::kMinSpread &&
                  std::isfinite(m.spread) && m.outlier >= flow_models::kMinOutlier &&
                  m.outlier <= 0.5))
                broken("a fitted length's parameters are out of range");
        }
    }
    std::string table, again, why;
    out.append_tsv(table);
    flow_models back;
    if (!back.parse_tsv(table, files, why)) broken("the model table does not read back");
    back.append_tsv(again);
    if (again != table) broken("the model table changes when read back");
}

// The flow-signal check over the contig: every read tied where it can be, the runs called,
// under the fixed model and then under one fitted to the contig, the edits applied and
// reported, and a window's signals laid on align_flow's grid. The edits must not overlap
// and the polished consensus must be exactly the result of those that pass.
void flow_evidence(FuzzedDataProvider& in, contig& c, const std::string& flows) {
    flow_check check;
    check.min_signals = in.ConsumeIntegralInRange<std::int32_t>(1, 5);
    check.min_score = in.ConsumeFloatingPointInRange<double>(0, 20);
    check.min_qual = in.ConsumeFloatingPointInRange<double>(0, 99);
    check.model.sigma_base = in.ConsumeFloatingPointInRange<double>(0.01, 1);
    check.model.sigma_slope = in.ConsumeFloatingPointInRange<double>(0, 1);
    check.keep_signals = in.ConsumeBool();
    check.keep_values = true;
    check.create_runs(c);
    std::map<std::string, tied_read> tied;
    std::int32_t n = 0;
    for (const auto& [name, r] : c.reads) {
        tied_read t;
        if (!tie_read(r, make_record(in, r), flows, t)) continue;
        t.file = static_cast<std::uint16_t>(in.ConsumeIntegralInRange<int>(0, 2));
        check.add_read(c, r, t, n++);
        tied[name] = t;
    }
    check.call_runs();
    if (in.ConsumeBool()) {
        flow_models fitted;
        fit_model(check, {"a.sff", "b.sff"}, fitted);
        flow_check again;
        again.models = fitted;
        again.min_signals = check.min_signals;
        again.min_qual = check.min_qual;
        again.create_runs(c);
        n = 0;
        for (const auto& [name, t] : tied) again.add_read(c, c.reads.at(name), t, n++);
        again.call_runs();
        check.runs = std::move(again.runs);
        check.models = std::move(fitted);
    }
    contig_report report;
    check.report(c, in.ConsumeBool(), report);
    const std::string& unpadded = report.unpadded;
    const std::vector<consensus_edit>& edits = report.edits;
    std::int64_t size = static_cast<std::int64_t>(unpadded.size()), at = 0;
    for (const consensus_edit& e : edits) {
        if (e.begin < at || e.end < e.begin || e.end > static_cast<std::int64_t>(unpadded.size()))
            broken("edits overlap or leave the consensus");
        at = e.end;
        if (e.pass) size += static_cast<std::int64_t>(e.bases.size()) - (e.end - e.begin);
    }
    if (static_cast<std::int64_t>(report.polished.size()) != size)
        broken("the polished consensus is not the edits' result");
    std::string text;
    append_vcf_records(text, report);
    append_tsv_report(text, report);

    flow_window w;
    const window win = pick_window(in, c);
    window_signals(c, tied, check, win.from, win.width, w);
    if (w.signals.size() != w.counts.size()) broken("signal grid and count grid differ");
    for (std::size_t k = 0; k < w.signals.size(); ++k)
        if (w.signals[k].size() != w.counts[k].size()) broken("signal grid and count grid differ");
}

void operate(FuzzedDataProvider& in, std::deque<contig>& contigs, outputs& out) {
    contig& c = contigs.back();
    out.maybe_clear(in);
    switch (in.ConsumeIntegralInRange<int>(0, 16)) {
        // The builders are meant to run once, on an empty view; the operations that need a
        // view build it themselves when they find it empty.
        case 0:
            if (c.pos_map.empty()) c.create_pos_map();
            break;
        case 1:
            if (c.print_map.empty()) c.create_print_map();
            check_layout(c);
            break;
        case 2:
            c.get_read_ids(out.ids);
            check_layout(c);
            break;
        case 3:
            if (c.flow_consensus.empty()) c.create_flow_concensus();
            break;
        case 4: {
            const auto L = static_cast<std::int32_t>(c.consensus.size());
            const std::int32_t i = in.ConsumeIntegralInRange<std::int32_t>(-5, L + 5);
            check_flow_lookup(c, c.getFlowIdx_start(i));
            check_flow_lookup(c, c.getFlowIdx_end(i));
            break;
        }
        case 5: {
            const window w = pick_window(in, c);
            c.align_flow(out.flow_counts, out.flow_rows, w.from, w.width);
            break;
        }
        case 6: {
            const window w = pick_window(in, c);
            c.print_flow_map_plain(out.text, out.names, w.from, w.width);
            break;
        }
        case 7: {
            const window w = pick_window(in, c);
            color_map_t colors = make_colors(in);
            c.print_flow_map_html(out.text, out.names, colors, w.from, w.width);
            break;
        }
        case 8: {
            const window w = pick_window(in, c);
            color_map_t colors = make_colors(in);
            c.print_flow_map_html_space(out.text, out.names, colors, w.from, w.width);
            break;
        }
        case 9:
            c.print_align_map(null_stream());
            break;
        case 10: {
            color_map_t colors = make_colors(in);
            c.print_align_map_html(null_stream(), colors);
            break;
        }
        case 11: {
            const window w = pick_window(in, c);
            c.print_align_map_plain(out.text, out.names, w.from, w.width);
            break;
        }
        case 12: {
            const window w = pick_window(in, c);
            color_map_t colors = make_colors(in);
            c.print_align_map_html(out.text, out.names, colors, w.from, w.width);
            break;
        }
        case 13: {
            const window w = pick_window(in, c);
            c.align_seq(out.base_columns, out.seq_rows, w.from, w.width);
            break;
        }
        case 14: {
            const color_map_t colors = make_colors(in);
            const std::vector<char> seq = sequence(in, in.ConsumeIntegralInRange<int>(0, 40));
            c.toHTML(out.text, seq, colors);
            break;
        }
        case 15: {
            static const std::string flows = [] {
                std::string f;
                for (int k = 0; k < 1000; ++k) f += "TACGtacgN"[k % (k % 97 == 0 ? 9 : 4)];
                return f;
            }();
            flow_evidence(in, c, flows);
            break;
        }
        default: {
            // Copies are deep: the copy, with whatever views the original has built so far,
            // draws the same, and the original may go away while the copy is used.
            const window w = pick_window(in, c);
            if (in.ConsumeBool()) {
                contigs.push_back(c);
            } else {
                contigs.emplace_back();
                contigs.back() = c;
            }
            contig& copy = contigs.back();
            if (drawing(copy, w) != drawing(contigs[contigs.size() - 2], w))
                broken("a copied contig draws differently");
            if (contigs.size() > 2) contigs.pop_front();
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_support::silence_library_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    std::deque<contig> contigs;
    contigs.push_back(make_contig(in));
    outputs out;
    for (int k = 0; k < 24 && in.remaining_bytes() > 0; ++k) operate(in, contigs, out);
    // One full pass at the end, so that even a short input reaches every operation.
    contig& c = contigs.back();
    const auto L = static_cast<std::int32_t>(c.consensus.size());
    std::string text;
    std::vector<std::string> names;
    color_map_t colors{{'A', "green"}, {'C', "blue"}};
    c.print_flow_map_html(text, names, colors, 1, L);
    c.print_align_map_html(null_stream(), colors);
    check_layout(c);
    return 0;
}

// The pages that show the flow-signal evidence: the run page, a contig's calls as VCF and
// TSV, its coverage and disputed runs, and read search.
#include <sorvexa/ace.h>

#include <algorithm>
#include <cmath>

#include "browse_assets.h"
#include "site.h"

namespace browse {

namespace {

// A run's window: 100 columns with the run in the middle.
std::string centred_href(std::string_view contig, const hp_run& r) {
    return window_href(contig, std::max<std::int64_t>(1, r.column - 50), 100);
}

std::string run_href(std::string_view contig, const hp_run& r) {
    return contig_href(contig) + "/run/" + std::to_string(r.column);
}

// The lengths whose curves the run page draws: the consensus and called ones and one beyond.
std::pair<std::int32_t, std::int32_t> lengths_drawn(const hp_run& r) {
    return {std::max(0, std::min(r.consensus_length, r.called_length) - 1),
            std::max(r.consensus_length, r.called_length) + 1};
}

// One curve a file: told apart by the dashes, named in the model table under the plot.
const char* const dashes[] = {"none", "6 3", "2 3", "9 3 2 3"};
const char* const curve_names[] = {"solid", "dashed", "dotted", "dash-dot"};

// The picture a finisher decides from: every read's value as a dot (forward and complemented
// reads in two colours, spread vertically so that equal values stay apart), the density of a
// value under each length around the run's as the model of each file that measured the run
// has it (outliers included, so a curve's floor is the outlier share), and the consensus and
// called lengths marked.
void run_plot(html& out, const flow_models& models, const std::vector<std::size_t>& files,
              const hp_run& r, const std::vector<run_signal>& signals) {
    const double width = 640, left = 40, right = 20, top = 20, axis = 210;
    const auto [lo, hi] = lengths_drawn(r);
    const double x_max = std::max<double>(hi + 0.6, r.max_value / 100.0 + 0.3);
    auto x_of = [&](double v) { return left + (width - left - right) * v / x_max; };
    auto num = [](double v) { return fixed(v, 1); };
    double peak = 0;
    for (std::size_t f : files)
        for (std::int32_t n = lo; n <= hi; ++n) {
            const length_model m = models.at(f, n);
            peak = std::max(peak, std::exp(log_density(m, m.centre)));
        }
    out.markup(
        "<svg class=\"run-plot\" viewBox=\"0 0 640 280\" width=\"640\" height=\"280\" role=\"img\" "
        "aria-label=\"measured values of the reads on this run\">");
    auto line = [&](double x1, double y1, double x2, double y2, std::string_view colour,
                    std::string_view dashes) {
        out.fill("<line x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\" stroke=\"{}\"", num(x1), num(y1),
                 num(x2), num(y2), colour);
        if (!dashes.empty()) out.fill(" stroke-dasharray=\"{}\"", dashes);
        out.markup("/>");
    };
    auto text = [&](double x, double y, int size, std::string_view colour, std::string_view t) {
        out.fill("<text x=\"{}\" y=\"{}\" font-size=\"{}\"", num(x), num(y), size);
        if (!colour.empty()) out.fill(" fill=\"{}\"", colour);
        out.fill(">{}</text>", t);
    };
    line(left, axis, width - right, axis, "#555", "");
    for (std::int32_t n = 0; n <= static_cast<std::int32_t>(x_max); ++n) {
        line(x_of(n), axis, x_of(n), axis + 5, "#555", "");
        text(x_of(n) - 3, axis + 18, 11, "", std::to_string(n));
    }
    // Fine enough that the narrowest core the fit allows still shows its peak.
    constexpr int kSteps = 400;
    for (std::size_t k = 0; k < files.size(); ++k) {
        for (std::int32_t n = lo; n <= hi; ++n) {
            const length_model m = models.at(files[k], n);
            std::string points;
            for (int step = 0; step <= kSteps; ++step) {
                const double v = x_max * step / kSteps;
                const double y = axis - (axis - top - 20) * std::exp(log_density(m, v)) / peak;
                if (!points.empty()) points += ' ';
                points += num(x_of(v)) + "," + num(y);
            }
            out.fill(
                "<polyline points=\"{}\" fill=\"none\" stroke=\"#999\" stroke-dasharray=\"{}\"/>",
                points, dashes[k % 4]);
            if (k == 0) text(x_of(m.centre) - 4, top + 10, 11, "", "n=" + std::to_string(n));
        }
    }
    auto mark = [&](std::int32_t n, const char* colour, const char* label, double y) {
        line(x_of(n), top, x_of(n), axis, colour, "4 3");
        text(x_of(n) + 3, y, 11, colour, label);
    };
    mark(r.consensus_length, "#b8860b", "consensus", top + 24);
    if (r.called_length != r.consensus_length) mark(r.called_length, "#8b0000", "called", top + 38);
    for (const run_signal& sig : signals) {
        const std::uint32_t h = static_cast<std::uint32_t>(sig.read) * 2654435761u;
        const double jitter = (h >> 20) % 1000 / 1000.0;
        const double y = sig.complemented ? axis + 48 + 16 * jitter : axis + 26 + 16 * jitter;
        out.fill("<circle cx=\"{}\" cy=\"{}\" r=\"3\" fill=\"{}\"/>", num(x_of(sig.value / 100.0)),
                 num(y), sig.complemented ? "#d62728" : "#1f77b4");
    }
    text(2, axis + 36, 10, "#1f77b4", "fwd");
    text(2, axis + 58, 10, "#d62728", "rev");
    out.markup("</svg>");
}

// The model's numbers behind the curves, per file drawn and length, as sorvexa-flowcheck
// writes its model table.
void model_rows(html& out, const std::vector<std::string>& names, const flow_models& models,
                const std::vector<std::size_t>& files, const hp_run& r) {
    const auto [lo, hi] = lengths_drawn(r);
    for (std::size_t k = 0; k < files.size(); ++k)
        for (std::int32_t n = lo; n <= hi; ++n) {
            const length_model m = models.at(files[k], n);
            out.fill(assets::model_row,
                     files[k] < names.size() ? names[files[k]] : "every file (pooled)",
                     curve_names[k % 4], n, fixed(m.centre, 4), fixed(m.spread, 4),
                     fixed(m.outlier, 5), grouped(m.signals), source_name(m.source));
        }
}

}  // namespace

// /contig/NAME.vcf and /contig/NAME.tsv: the contig's calls as sorvexa-flowcheck writes them.
response calls_vcf(const site& s, std::size_t contig, std::string_view, const request&) {
    std::shared_ptr<const contig_evidence> e =
        s.evidence != nullptr ? s.evidence->get(contig) : nullptr;
    if (e == nullptr) return ace_changed();
    const std::string& name = s.ace.contigs[contig].name;
    std::string prefix = output_prefix(s.ace.ace_path);
    prefix.erase(0, prefix.rfind('/') + 1);
    response r = text_response(200, "");
    append_vcf_header(
        r.body, "sorvexa-browse", prefix + ".consensus.fa",
        {{name, static_cast<std::int64_t>(e->report.unpadded.size()), e->report.coverage}});
    append_vcf_records(r.body, e->report);
    r.attachment = file_name_for(name) + ".flowcheck.vcf";
    return r;
}

response calls_tsv(const site& s, std::size_t contig, std::string_view, const request&) {
    std::shared_ptr<const contig_evidence> e =
        s.evidence != nullptr ? s.evidence->get(contig) : nullptr;
    if (e == nullptr) return ace_changed();
    response r = text_response(200, "");
    append_tsv_header(r.body);
    append_tsv_report(r.body, e->report);
    r.attachment = file_name_for(s.ace.contigs[contig].name) + ".flowcheck.tsv";
    return r;
}

// /search?q=TEXT: a read's page for its full name, else the placed reads whose names begin
// with TEXT (at most max_search_results of them).
response search_page(const site& s, std::string_view rest, const request& req) {
    if (!rest.empty())
        return s.not_found("Nothing is served at /search/" + std::string(rest) + ".");
    const std::string q = req.param("q").value_or("");
    if (!q.empty() && (s.sff.holds(q) || s.ace.contig_of_read(q) >= 0)) return s.read(q);
    if (s.bam != nullptr) return reference_search(s, q);
    html body, rows;
    body.markup("<h1>Reads found by name</h1>");
    std::int64_t shown = 0;
    const auto& p = s.ace.placements;
    auto it = std::lower_bound(
        p.begin(), p.end(), q,
        [](const assembly::placement& x, const std::string& n) { return x.read < n; });
    for (; !q.empty() && it != p.end() && it->read.starts_with(q); ++it) {
        if (++shown > max_search_results) break;
        const std::string& contig = s.ace.contigs[it->contig].name;
        rows.fill(assets::found_row, read_href(it->read), it->read, contig_href(contig), contig,
                  window_href(contig, std::max<std::int64_t>(1, it->start), 100), it->start);
    }
    const bool more = shown > max_search_results;
    if (shown > 0) {
        body.fill("<p>{}</p>",
                  std::to_string(std::min(shown, max_search_results)) + (more ? "+" : "") +
                      " placed reads whose names begin with \"" + q + "\"" +
                      (more ? " (the first " + std::to_string(max_search_results) + ")" : "") + ".")
            .markup(assets::found_head)
            .append(rows)
            .markup("</tbody></table>");
    } else {
        body.fill("<p>{}</p>", q.empty() ? "Give a read name, or the beginning of one."
                                         : "No read has a name beginning with \"" + q + "\".");
    }
    response r = page("Search: " + q, body);
    if (shown == 0 && !q.empty()) r.status = 404;
    return r;
}

void coverage_note(html& out, const contig_coverage& c) {
    out.fill(assets::coverage, grouped(c.reads.tied),
             grouped(c.reads.tied + c.reads.untied + c.reads.not_found), grouped(c.reads.untied),
             grouped(c.reads.not_found), grouped(c.tested), grouped(c.runs));
    if (c.unchecked()) out.markup(assets::unchecked);
    out.markup("</p>");
}

void disputed_table(html& out, std::string_view contig, const contig_evidence& e) {
    out.fill(
        assets::disputed_intro,
        std::to_string(e.disputed.size()) +
            (e.disputed.size() == 1 ? " run whose flowgrams call" : " runs whose flowgrams call"),
        contig_href(contig), contig_href(contig));
    if (e.disputed.empty()) return;
    out.markup(assets::disputed_head);
    for (std::int32_t i : e.disputed) {
        const hp_run& r = e.check.runs[static_cast<std::size_t>(i)];
        out.fill(assets::disputed_row, centred_href(contig, r), r.column, r.position,
                 base_class(r.letter), r.letter, r.consensus_length, r.called_length, r.signals,
                 r.forward, r.reverse(), fixed(r.mean_signal(), 2), fixed(r.score, 2),
                 fixed(r.qual, 2), run_filter(e.check, r), run_href(contig, r));
    }
    out.markup("</tbody></table>");
}

void disputed_marks(html& out, std::string_view contig, const contig_evidence& e, std::int64_t from,
                    std::int64_t last) {
    bool any = false;
    for (std::int32_t i : e.disputed) {
        const hp_run& r = e.check.runs[static_cast<std::size_t>(i)];
        if (r.last_column < from || r.first_column > last) continue;
        if (!any) out.markup("<p class=\"disputed-marks\">Disputed here: ");
        any = true;
        out.fill("<a href=\"{}\" class=\"mark\">{} at {} ({} \u2192 {})</a> ", run_href(contig, r),
                 r.letter, r.column, r.consensus_length, r.called_length);
    }
    if (any) out.markup("</p>");
}

// /contig/NAME/run/COL.
response run_page(const site& s, std::size_t contig, std::string_view rest, const request&) {
    const std::string& name = s.ace.contigs[contig].name;
    std::int64_t column = 0;
    if (!parse_count(rest, column))
        return error_response(
            400, "Bad request",
            "a run is named by its column, a whole number, not \"" + std::string(rest) + "\"");
    std::shared_ptr<const contig_evidence> e =
        s.evidence != nullptr ? s.evidence->get(contig) : nullptr;
    if (e == nullptr) return ace_changed();
    const std::int32_t i = e->run_at(static_cast<std::int32_t>(column));
    if (i < 0)
        return s.not_found("No homopolymer run of contig " + name + " starts at column " +
                           std::to_string(column) + ".");
    const hp_run& r = e->check.runs[static_cast<std::size_t>(i)];
    // The reads of the drawn contig: their bases before column 1, cut there, give no signal.
    const std::shared_ptr<const drawn_contig> b = s.ace.load(contig);
    if (b == nullptr) return ace_changed();
    std::string origin;
    if (s.evidence != nullptr) s.evidence->models_if_ready(&origin);
    return run_view(name, r, r, e->is_disputed(i), e->check, b->c(),
                    s.sff.tie(b->c(), reads_over(b->c(), r)), *e->models, s.sff.lookup.sff_names,
                    centred_href(name, r), origin);
}

// A run's page: `r` as the check has it in `c`, `shown` the same with the columns and position
// the page names it by.
response run_view(std::string_view name, const hp_run& r, const hp_run& shown, bool disputed,
                  const flow_check& check, const contig& c,
                  const std::map<std::string, tied_read>& tied, const flow_models& models,
                  const std::vector<std::string>& units, const std::string& window,
                  const std::string& origin) {
    const std::string_view filter = run_filter(check, r);
    html body;
    body.fill(assets::run_facts, shown.column, contig_href(name), name, r.letter, shown.position,
              shown.first_column, shown.last_column, r.consensus_length, r.called_length,
              disputed ? "disputed" : "not disputed", r.signals, r.forward, r.reverse(),
              fixed(r.mean_signal(), 2), fixed(r.score, 2), fixed(r.qual, 2),
              fixed(r.confidence, 2),
              filter == "."                ? "none: not a call"
              : filter == "StrandConflict" ? "StrandConflict: the forward and the complemented "
                                             "reads call different lengths"
                                           : std::string(filter),
              window);
    const std::vector<std::string> names = reads_over(c, r);
    const std::vector<run_signal> signals = run_signals(c, r, names, lookup_in(tied));
    // The models of the files whose reads measured the run weigh its values; a run no read
    // measured is drawn under the model of every file together.
    std::vector<std::size_t> files;
    for (const run_signal& sig : signals)
        files.push_back(tied.at(names[static_cast<std::size_t>(sig.read)]).file);
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    if (files.empty()) files.push_back(models.models.size());
    run_plot(body, models, files, r, signals);
    body.fill(assets::run_model, fixed(flow_models::kValueRange, 0), origin);
    model_rows(body, units, models, files, r);
    body.markup(assets::run_signals_head);
    for (const run_signal& sig : signals) {
        body.markup("<tr><td>");
        read_link(body, names[static_cast<std::size_t>(sig.read)]);
        body.fill("</td><td>{}</td><td>{}</td></tr>", sig.complemented ? "complemented" : "forward",
                  fixed(sig.value / 100.0, 2));
    }
    body.markup("</tbody></table>");
    return page("Run " + std::to_string(shown.column) + " of " + std::string(name), body);
}

}  // namespace browse

#include "evidence_pages.h"

#include <algorithm>
#include <cmath>

#include "page_parts.h"

namespace browse {

namespace {

tied_lookup tied_lookup_of(const std::map<std::string, tied_read>& tied) {
    return [&tied](const std::string& n) -> const tied_read* {
        auto it = tied.find(n);
        return it == tied.end() ? nullptr : &it->second;
    };
}

const contig_evidence* evidence_or(const site& s, std::size_t contig,
                                   std::shared_ptr<const contig_evidence>& keep) {
    keep = s.evidence != nullptr ? s.evidence->get(contig) : nullptr;
    return keep.get();
}

response evidence_missing() {
    return error_page(500, "Files changed",
                      "The ACE file is no longer the file read at start-up; restart the server.");
}

std::string two_decimals(double v) {
    return fixed(v, 2);
}

// A run's window: 100 columns with the run in the middle.
std::string centred_href(std::string_view contig, const hp_run& r) {
    return window_href(contig, std::max<std::int64_t>(1, r.column - 50), 100);
}

std::string run_href(std::string_view contig, const hp_run& r) {
    return contig_href(contig) + "/run/" + std::to_string(r.column);
}

std::string length_change(const hp_run& r) {
    return std::to_string(r.consensus_length) + " \u2192 " + std::to_string(r.called_length);
}

// The SFF files whose reads measured the run, in file order: their models weigh its values.
std::vector<std::size_t> files_of(const read_source& sff, const std::vector<run_signal>& signals,
                                  const std::vector<std::string>& names) {
    std::vector<bool> seen(sff.files.size(), false);
    for (const run_signal& sig : signals)
        if (const read_source::entry* found = sff.find(names[static_cast<std::size_t>(sig.read)]))
            seen[found->file] = true;
    std::vector<std::size_t> files;
    for (std::size_t f = 0; f < seen.size(); ++f)
        if (seen[f]) files.push_back(f);
    return files;
}

// The lengths whose curves the run page draws: the consensus and called ones and one beyond.
std::pair<std::int32_t, std::int32_t> lengths_drawn(const hp_run& r) {
    return {std::max(0, std::min(r.consensus_length, r.called_length) - 1),
            std::max(r.consensus_length, r.called_length) + 1};
}

// One curve a file: told apart by the dashes, named in the model table under the plot.
struct curve_style {
    const char* dashes;
    const char* name;
};
curve_style style_of(std::size_t k) {
    static const curve_style styles[] = {
        {"none", "solid"}, {"6 3", "dashed"}, {"2 3", "dotted"}, {"9 3 2 3", "dash-dot"}};
    return styles[k % 4];
}

// The picture a finisher decides from: every read's value as a dot (forward and complemented
// reads in two colours, spread vertically so that equal values stay apart), the density of a
// value under each length around the run's as the model of each file that measured the run
// has it (outliers included, so a curve's floor is the outlier share), and the consensus and
// called lengths marked.
void run_plot(html& out, const flow_models& models, const std::vector<std::size_t>& files,
              const hp_run& r, const std::vector<const run_signal*>& signals) {
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
    out.open("svg", {{"class", "run-plot"},
                     {"viewBox", "0 0 640 280"},
                     {"width", "640"},
                     {"height", "280"},
                     {"role", "img"},
                     {"aria-label", "measured values of the reads on this run"}});
    out.empty("line", {{"x1", num(left)},
                       {"y1", num(axis)},
                       {"x2", num(width - right)},
                       {"y2", num(axis)},
                       {"stroke", "#555"}});
    for (std::int32_t n = 0; n <= static_cast<std::int32_t>(x_max); ++n) {
        out.empty("line", {{"x1", num(x_of(n))},
                           {"y1", num(axis)},
                           {"x2", num(x_of(n))},
                           {"y2", num(axis + 5)},
                           {"stroke", "#555"}});
        out.element("text", {{"x", num(x_of(n) - 3)}, {"y", num(axis + 18)}, {"font-size", "11"}},
                    std::to_string(n));
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
            out.empty("polyline", {{"points", points},
                                   {"fill", "none"},
                                   {"stroke", "#999"},
                                   {"stroke-dasharray", style_of(k).dashes}});
            if (k == 0)
                out.element(
                    "text",
                    {{"x", num(x_of(m.centre) - 4)}, {"y", num(top + 10)}, {"font-size", "11"}},
                    "n=" + std::to_string(n));
        }
    }
    auto mark = [&](std::int32_t n, const char* colour, const char* label, double y) {
        out.empty("line", {{"x1", num(x_of(n))},
                           {"y1", num(top)},
                           {"x2", num(x_of(n))},
                           {"y2", num(axis)},
                           {"stroke", colour},
                           {"stroke-dasharray", "4 3"}});
        out.element("text",
                    {{"x", num(x_of(n) + 3)}, {"y", num(y)}, {"font-size", "11"}, {"fill", colour}},
                    label);
    };
    mark(r.consensus_length, "#b8860b", "consensus", top + 24);
    if (r.called_length != r.consensus_length) mark(r.called_length, "#8b0000", "called", top + 38);
    for (const run_signal* sig : signals) {
        const std::uint32_t h = static_cast<std::uint32_t>(sig->read) * 2654435761u;
        const double jitter = (h >> 20) % 1000 / 1000.0;
        const double y = sig->complemented ? axis + 48 + 16 * jitter : axis + 26 + 16 * jitter;
        out.empty("circle", {{"cx", num(x_of(sig->value / 100.0))},
                             {"cy", num(y)},
                             {"r", "3"},
                             {"fill", sig->complemented ? "#d62728" : "#1f77b4"}});
    }
    out.element("text",
                {{"x", "2"}, {"y", num(axis + 36)}, {"font-size", "10"}, {"fill", "#1f77b4"}},
                "fwd");
    out.element("text",
                {{"x", "2"}, {"y", num(axis + 58)}, {"font-size", "10"}, {"fill", "#d62728"}},
                "rev");
    out.close("svg");
}

// The numbers behind the curves: per file drawn and length, the model's parameters, written
// as sorvexa-flowcheck writes its model table.
void model_table(html& out, const site& s, const flow_models& models,
                 const std::vector<std::size_t>& files, const hp_run& r) {
    const auto [lo, hi] = lengths_drawn(r);
    out.open("table", {{"class", "model"}});
    out.markup(
        "<thead><tr><th>SFF file</th><th>curve</th><th>length</th><th>centre</th><th>spread</th>"
        "<th>outlier share</th><th>signals fitted</th><th>source</th></tr></thead><tbody>");
    for (std::size_t k = 0; k < files.size(); ++k) {
        const std::size_t f = files[k];
        for (std::int32_t n = lo; n <= hi; ++n) {
            const length_model m = models.at(f, n);
            out.open("tr");
            out.element("td", f < s.sff.files.size() ? s.sff.files[f].path
                                                     : std::string("every file (pooled)"));
            out.element("td", style_of(k).name);
            out.element("td", std::to_string(n));
            out.element("td", fixed(m.centre, 4));
            out.element("td", fixed(m.spread, 4));
            out.element("td", fixed(m.outlier, 5));
            out.element("td", grouped(m.signals));
            out.element("td", source_name(m.source));
            out.close("tr");
        }
    }
    out.markup("</tbody>").close("table");
}

// The file name sorvexa-flowcheck gives the consensus of this ACE file.
std::string consensus_file(const std::string& ace_path) {
    std::size_t cut = ace_path.rfind(".ace");
    if (cut == std::string::npos) cut = ace_path.rfind(".ACE");
    const std::string prefix = cut == std::string::npos ? ace_path : ace_path.substr(0, cut);
    const std::size_t slash = prefix.rfind('/');
    return (slash == std::string::npos ? prefix : prefix.substr(slash + 1)) + ".consensus.fa";
}

}  // namespace

response calls_vcf(const site& s, std::size_t contig, std::string_view, const request&) {
    std::shared_ptr<const contig_evidence> keep;
    const contig_evidence* e = evidence_or(s, contig, keep);
    if (e == nullptr) return evidence_missing();
    const std::string& name = s.ace.contigs[contig].name;
    response r;
    r.content_type = "text/plain; charset=utf-8";
    append_vcf_header(r.body, "sorvexa-browse", consensus_file(s.ace.ace_path),
                      {{name, static_cast<std::int64_t>(e->unpadded.size()), e->coverage}});
    append_vcf_records(r.body, name, e->unpadded, e->edits, e->check);
    r.attachment = file_name_for(name) + ".flowcheck.vcf";
    return r;
}

response calls_tsv(const site& s, std::size_t contig, std::string_view, const request&) {
    std::shared_ptr<const contig_evidence> keep;
    const contig_evidence* e = evidence_or(s, contig, keep);
    if (e == nullptr) return evidence_missing();
    const std::string& name = s.ace.contigs[contig].name;
    response r;
    r.content_type = "text/plain; charset=utf-8";
    append_tsv_header(r.body);
    append_tsv_coverage(r.body, name, e->coverage);
    std::vector<char> applied(e->check.runs.size(), 0);
    for (const consensus_edit& edit : e->edits) applied[static_cast<std::size_t>(edit.run)] = 1;
    for (std::size_t i = 0; i < e->check.runs.size(); ++i)
        if (applied[i])
            append_tsv_line(r.body, name, e->check.runs[i], run_filter(e->check, e->check.runs[i]));
    r.attachment = file_name_for(name) + ".flowcheck.tsv";
    return r;
}

response search_page(const site& s, std::string_view rest, const request& req) {
    if (!rest.empty())
        return s.not_found("Nothing is served at /search/" + std::string(rest) + ".");
    const std::string q = req.param("q").value_or("");
    if (!q.empty() && (s.sff.find(q) != nullptr || s.ace.contig_of_read(q) >= 0)) return s.read(q);
    html body;
    body.open("h1").text("Reads found by name").close("h1");
    std::int64_t shown = 0;
    bool more = false;
    if (!q.empty()) {
        const auto& p = s.ace.placements;
        auto it = std::lower_bound(p.begin(), p.end(), q,
                                   [](const auto& x, const std::string& n) { return x.first < n; });
        html rows;
        for (; it != p.end() && std::string_view(it->first).starts_with(q); ++it) {
            if (shown == max_search_results) {
                more = true;
                break;
            }
            ++shown;
            const std::string& contig = s.ace.contigs[it->second].name;
            const std::int32_t start =
                s.ace.placement_starts[static_cast<std::size_t>(it - p.begin())];
            rows.open("tr").open("td");
            read_link(rows, it->first);
            rows.close("td").open("td");
            rows.open("a", {{"href", contig_href(contig)}}).text(contig).close("a").close("td");
            rows.open("td");
            rows.open("a", {{"href", window_href(contig, std::max<std::int64_t>(1, start), 100)}})
                .number(start)
                .close("a")
                .close("td")
                .close("tr");
        }
        if (shown > 0) {
            body.open("p").text(
                std::to_string(shown) + (more ? "+" : "") +
                " placed reads whose names begin with \"" + q + "\"" +
                (more ? " (the first " + std::to_string(max_search_results) + ")" : "") + ".");
            body.close("p");
            body.open("table", {{"class", "found"}});
            body.markup(
                "<thead><tr><th>read</th><th>contig</th><th>start</th></tr></thead><tbody>");
            body.append(rows).markup("</tbody>").close("table");
        }
    }
    if (shown == 0) {
        body.open("p")
            .text(q.empty() ? "Give a read name, or the beginning of one."
                            : "No read has a name beginning with \"" + q + "\".")
            .close("p");
    }
    response r = page("Search: " + q, body);
    if (shown == 0 && !q.empty()) r.status = 404;
    return r;
}

void coverage_note(html& out, const contig_coverage& c) {
    const std::int64_t reads = c.reads.tied + c.reads.untied + c.reads.not_found;
    out.open("p", {{"class", "coverage"}})
        .text("Weighed: " + grouped(c.reads.tied) + " of " + grouped(reads) +
              " reads tied to their flows (" + grouped(c.reads.untied) + " untied, " +
              grouped(c.reads.not_found) + " in no SFF file); " + grouped(c.tested) + " of " +
              grouped(c.runs) + " runs tested.");
    if (c.unchecked())
        out.text(" ")
            .element("strong", {{"class", "unchecked"}}, "Unchecked")
            .text(
                ": under half of the reads are tied to their flows or under half of the runs "
                "were tested, so few or no disputed runs here say little about the consensus.");
    out.close("p");
}

void disputed_table(html& out, std::string_view contig, const contig_evidence& e) {
    out.open("p");
    out.text(std::to_string(e.disputed.size()) +
             (e.disputed.size() == 1 ? " run whose flowgrams call" : " runs whose flowgrams call") +
             " another length; as ")
        .open("a", {{"href", contig_href(contig) + ".vcf"}})
        .text("VCF")
        .close("a")
        .text(" or ")
        .open("a", {{"href", contig_href(contig) + ".tsv"}})
        .text("TSV")
        .close("a")
        .text(".");
    out.close("p");
    if (e.disputed.empty()) return;
    out.open("table", {{"class", "disputed"}});
    out.markup(
        "<thead><tr><th>column</th><th>position</th><th>letter</th><th>consensus</th>"
        "<th>called</th><th>signals</th><th>forward/reverse</th><th>mean</th><th>score</th>"
        "<th>qual</th><th>filter</th><th></th></tr></thead><tbody>");
    for (std::int32_t i : e.disputed) {
        const hp_run& r = e.check.runs[static_cast<std::size_t>(i)];
        out.open("tr");
        out.open("td").open("a", {{"href", centred_href(contig, r)}}).number(r.column).close("a");
        out.close("td");
        out.element("td", std::to_string(r.position));
        out.open("td").open("span", {{"class", base_class(r.letter)}}).text(r.letter);
        out.close("span").close("td");
        out.element("td", std::to_string(r.consensus_length));
        out.element("td", std::to_string(r.called_length));
        out.element("td", std::to_string(r.signals));
        out.element("td", std::to_string(r.forward) + "/" + std::to_string(r.reverse()));
        out.element("td", two_decimals(r.mean_signal()));
        out.element("td", two_decimals(r.score));
        out.element("td", two_decimals(r.qual));
        out.element("td", run_filter(e.check, r));
        out.open("td").open("a", {{"href", run_href(contig, r)}}).text("run").close("a");
        out.close("td");
        out.close("tr");
    }
    out.markup("</tbody>").close("table");
}

void disputed_marks(html& out, std::string_view contig, const contig_evidence& e, std::int64_t from,
                    std::int64_t last) {
    bool any = false;
    for (std::int32_t i : e.disputed) {
        const hp_run& r = e.check.runs[static_cast<std::size_t>(i)];
        if (r.last_column < from || r.first_column > last) continue;
        if (!any) out.open("p", {{"class", "disputed-marks"}}).text("Disputed here: ");
        any = true;
        out.open("a", {{"href", run_href(contig, r)}, {"class", "mark"}})
            .text(std::string(1, r.letter) + " at " + std::to_string(r.column) + " (" +
                  length_change(r) + ")")
            .close("a")
            .text(" ");
    }
    if (any) out.close("p");
}

// Three characters a cell: one decimal below 10, whole numbers up to 99, "99+" beyond.
std::string signal_text(std::int32_t value) {
    if (value == flow_window::untied_read) return "  u";
    if (value < 0) return "   ";
    std::string t = value < 995    ? fixed(value / 100.0, 1)
                    : value < 9950 ? std::to_string((value + 50) / 100)
                                   : std::string("99+");
    return std::string(t.size() < 3 ? 3 - t.size() : 0, ' ') + t;
}

void signals_legend(html& out) {
    out.open("p", {{"class", "legend"}})
        .text("Measured value of each read on each flow. Shading: ")
        .open("span", {{"class", "sig-close"}})
        .text("close (within 0.25 of the assembly's count)")
        .close("span")
        .text(", ")
        .open("span", {{"class", "sig-border"}})
        .text("borderline (within 0.5)")
        .close("span")
        .text(", ")
        .open("span", {{"class", "sig-disputed"}})
        .text("disputed (rounds to another count)")
        .close("span")
        .text("; u: read not tied to its flows (edited or trimmed in the assembly).")
        .close("p");
}

namespace {

// The run of the evidence whose flow is contig flow `flow`: a run's flow is the flow of its
// first base's column, for a run of length 0 the first of its columns where a read opens a
// run of its letter.
std::vector<std::int32_t> runs_of_flows(const contig& c, const contig_evidence& e,
                                        const window_grid& g) {
    std::vector<std::int32_t> run_of(static_cast<std::size_t>(std::max(g.flows, 0)), -1);
    for (std::size_t i = 0; i < e.check.runs.size(); ++i) {
        const hp_run& r = e.check.runs[i];
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

void names_cell(html& names, const std::vector<window_read>& reads) {
    for (std::size_t k = 0; k < reads.size(); ++k) {
        if (k > 0) names.text(' ');
        names.text(reads[k].complemented ? '-' : '+');
        names.open("a", {{"href", read_href(reads[k].name)}}).text(reads[k].name).close("a");
    }
    if (reads.empty()) names.text(' ');
}

}  // namespace

void signals_map_html(const built_contig& b, const window_view& v, const contig_evidence& e,
                      const read_source& sff, html& names, html& map) {
    const window_grid& g = v.grid;
    std::vector<std::string> drawn;
    for (const auto& row : g.reads)
        for (const window_read& r : row) drawn.push_back(r.name);
    const std::map<std::string, tied_read> tied = tie_reads(e, b.c, sff, drawn);
    std::vector<std::vector<std::int32_t>> values;
    grid_signals(b.c, g, tied_lookup_of(tied), values);
    const std::vector<std::int32_t> run_of = runs_of_flows(b.c, e, g);
    auto end_line = [&] {
        names.markup("\n");
        map.markup("\n");
    };
    names.element("b", "flows");
    for (char x : g.flow_letters) {
        map.text("   ");
        map.open("span", {{"class", base_class(x)}}).text(x).close("span");
    }
    end_line();
    names.element("b", "consensus");
    for (std::int32_t k = 0; k < g.flows; ++k) {
        const std::int32_t i = run_of[static_cast<std::size_t>(k)];
        if (i < 0) {
            map.text("    ");
            continue;
        }
        const hp_run& r = e.check.runs[static_cast<std::size_t>(i)];
        std::string cell = std::to_string(r.consensus_length);
        if (e.is_disputed(i)) cell += ">" + std::to_string(r.called_length);
        cell = std::string(cell.size() < 4 ? 4 - cell.size() : 0, ' ') + cell;
        if (e.is_disputed(i)) {
            map.open("a", {{"href", run_href(b.c.name, r)}, {"class", "sig-disputed"}})
                .text(cell)
                .close("a");
        } else {
            map.text(cell);
        }
    }
    end_line();
    for (std::size_t row = 0; row < g.counts.size(); ++row) {
        names_cell(names, g.reads[row]);
        for (std::size_t k = 0; k < g.counts[row].size(); ++k) {
            const std::int32_t value = k < values[row].size() ? values[row][k] : -1;
            const std::int16_t count = g.counts[row][k];
            map.text(' ');
            if (count < 0 || value < 0) {
                map.text(signal_text(count < 0 ? -1 : value));
                continue;
            }
            const signal_class cls = classify(value, count);
            const char* name = cls == signal_class::close        ? "sig-close"
                               : cls == signal_class::borderline ? "sig-border"
                                                                 : "sig-disputed";
            map.open("span", {{"class", name}}).text(signal_text(value)).close("span");
        }
        end_line();
    }
}

void differences_only(window_view& v) {
    window_grid& g = v.grid;
    for (std::size_t row = 0; row < g.bases.size() && row < g.reads.size(); ++row) {
        std::string& line = g.bases[row];
        for (const window_read& r : g.reads[row]) {
            for (std::int64_t col = r.first; col <= r.last; ++col) {
                const auto at = static_cast<std::size_t>(col - g.from);
                if (at >= line.size() || at >= g.consensus.size()) continue;
                const char base = line[at];
                if (base == ' ') continue;
                const auto up = [](char ch) {
                    return ch >= 'a' && ch <= 'z' ? static_cast<char>(ch - 'a' + 'A') : ch;
                };
                if (up(base) == up(g.consensus[at])) line[at] = r.complemented ? ',' : '.';
            }
        }
    }
}

bool read_disputed_flows(const built_contig& b, const read_source& sff, const std::string& name,
                         std::vector<disputed_flow>& out) {
    const auto rd = b.c.reads.find(name);
    const std::map<std::string, tied_read> tied = tie_reads(b.c, sff, {name});
    if (tied.empty()) return false;
    if (rd == b.c.reads.end() || b.c.consensus.empty()) return true;
    const READ& r = rd->second;
    const std::int64_t L = static_cast<std::int64_t>(b.c.consensus.size());
    const std::int64_t first = std::max<std::int64_t>(r.start, 1);
    const std::int64_t last = std::min<std::int64_t>(std::int64_t{r.start} + r.length - 1, L);
    if (first > last) return true;
    std::int32_t row = -1;
    for (std::size_t k = 0; k < b.c.print_map.size() && row < 0; ++k) {
        auto it = b.c.print_map[k].find(r.start);
        if (it != b.c.print_map[k].end() && it->second == rd->first)
            row = static_cast<std::int32_t>(k);
    }
    if (row < 0) return true;
    window_grid g;
    b.c.draw_window(first, last, {row}, g);
    std::vector<std::vector<std::int32_t>> values;
    grid_signals(b.c, g, tied_lookup_of(tied), values);
    if (g.counts.empty() || values.empty()) return true;
    // The first column of each window flow.
    std::vector<std::int32_t> column_of(static_cast<std::size_t>(std::max(g.flows, 0)), 0);
    for (std::int64_t col = last; col >= first; --col) {
        for (const auto& [letter, flow] : b.c.flow_index[static_cast<std::size_t>(col - 1)]) {
            const std::int64_t k = flow - g.first_flow;
            if (k >= 0 && k < g.flows)
                column_of[static_cast<std::size_t>(k)] = static_cast<std::int32_t>(col);
        }
    }
    for (std::size_t k = 0; k < g.counts[0].size(); ++k) {
        const std::int16_t count = g.counts[0][k];
        const std::int32_t value = values[0][k];
        if (count < 0 || value < 0) continue;
        const std::int32_t called = (value + 50) / 100;
        if (called == count) continue;
        out.push_back({column_of[k] > 0 ? column_of[k] : static_cast<std::int32_t>(first),
                       g.flow_letters[k], count, value});
    }
    return true;
}

std::vector<run_signal> signals_of_run(const built_contig& b, const read_source& sff,
                                       const contig_evidence& e, std::int32_t run,
                                       std::vector<std::string>& names) {
    const hp_run& r = e.check.runs[static_cast<std::size_t>(run)];
    names.clear();
    for (const auto& [name, read] : b.c.reads)
        if (read.start < r.first_column &&
            std::int64_t{read.start} + read.length - 1 > r.last_column)
            names.push_back(name);
    const std::map<std::string, tied_read> tied = tie_reads(b.c, sff, names);
    flow_check one;
    one.keep_signals = true;
    hp_run alone = r;
    alone.clear_signals();
    one.runs = {alone};
    for (std::size_t k = 0; k < names.size(); ++k) {
        auto t = tied.find(names[k]);
        if (t != tied.end())
            one.add_read(b.c, b.c.reads.at(names[k]), t->second, static_cast<std::int32_t>(k));
    }
    return one.signals;
}

response run_page(const site& s, std::size_t contig, std::string_view rest, const request&) {
    const std::string& name = s.ace.contigs[contig].name;
    std::int64_t column = 0;
    if (!parse_count(rest, column))
        return error_page(
            400, "Bad request",
            "a run is named by its column, a whole number, not \"" + std::string(rest) + "\"");
    std::shared_ptr<const contig_evidence> keep;
    const contig_evidence* e = evidence_or(s, contig, keep);
    if (e == nullptr) return evidence_missing();
    const std::int32_t i = e->run_at(static_cast<std::int32_t>(column));
    if (i < 0)
        return s.not_found("No homopolymer run of contig " + name + " starts at column " +
                           std::to_string(column) + ".");
    const hp_run& r = e->check.runs[static_cast<std::size_t>(i)];
    html body;
    body.open("h1").text("Run at column " + std::to_string(r.column) + " of ");
    body.open("a", {{"href", contig_href(name)}}).text(name).close("a").close("h1");
    body.open("dl", {{"class", "facts"}});
    fact(body, "letter", std::string(1, r.letter));
    fact(body, "unpadded position", std::to_string(r.position));
    fact(body, "columns", std::to_string(r.first_column) + " to " + std::to_string(r.last_column));
    fact(body, "consensus length", std::to_string(r.consensus_length));
    fact(body, "called length",
         std::to_string(r.called_length) + (e->is_disputed(i) ? " (disputed)" : " (not disputed)"));
    fact(body, "signals",
         std::to_string(r.signals) + " (" + std::to_string(r.forward) + " forward, " +
             std::to_string(r.reverse()) + " complemented)");
    fact(body, "mean signal", two_decimals(r.mean_signal()));
    fact(body, "score", two_decimals(r.score) + " (log-likelihood ratio of the called length)");
    fact(body, "qual",
         two_decimals(r.qual) +
             " (phred-scaled probability that the consensus length is right: high when the "
             "reads speak against it)");
    fact(body, "confidence",
         two_decimals(r.confidence) +
             " (phred-scaled probability that the called length is wrong: high when the reads "
             "name it clearly)");
    const std::string_view filter = run_filter(e->check, r);
    fact(body, "filter",
         filter == "."                ? std::string("none: not a call")
         : filter == "StrandConflict" ? std::string("StrandConflict: the forward and the "
                                                    "complemented reads call different lengths")
                                      : std::string(filter));
    html window_link;
    window_link.open("a", {{"href", centred_href(name, r)}})
        .text("the window around it")
        .close("a");
    fact(body, "see", window_link);
    body.close("dl");

    assembly::load_result loaded;
    const std::shared_ptr<built_contig> b = s.ace.load(contig, loaded);
    if (b == nullptr) return evidence_missing();
    std::vector<std::string> names;
    const std::vector<run_signal> all = signals_of_run(*b, s.sff, *e, i, names);
    std::vector<const run_signal*> signals;
    for (const run_signal& sig : all) signals.push_back(&sig);
    // A run no read measured is drawn under the model of every file together.
    std::vector<std::size_t> files = files_of(s.sff, all, names);
    if (files.empty()) files.push_back(e->models->models.size());
    run_plot(body, *e->models, files, r, signals);
    std::string origin;
    if (s.evidence != nullptr) s.evidence->models_if_ready(&origin);
    body.element("h2", "Model");
    body.element("p", {{"class", "note"}},
                 "The curves give the density of a value under each length as the model of the "
                 "SFF file whose reads measured the run has it: a Gaussian core with its centre "
                 "and spread, and a flat share of outliers over 0 to " +
                     fixed(flow_models::kValueRange, 0) + " bases. The model was " + origin + ".");
    model_table(body, s, *e->models, files, r);

    body.open("table", {{"class", "signals"}});
    body.markup("<thead><tr><th>read</th><th>direction</th><th>value</th></tr></thead><tbody>");
    for (const run_signal* sig : signals) {
        body.open("tr").open("td");
        read_link(body, names[static_cast<std::size_t>(sig->read)]);
        body.close("td");
        body.element("td", sig->complemented ? "complemented" : "forward");
        body.element("td", two_decimals(sig->value / 100.0));
        body.close("tr");
    }
    body.markup("</tbody>").close("table");
    return page("Run " + std::to_string(r.column) + " of " + name, body);
}

}  // namespace browse

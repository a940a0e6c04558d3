// The pages of --bam: the references as contigs, each window read through the index when a
// page asks for it. Positions are the reference's (1-based); a window's pad columns, where
// reads insert, lie between them.
#include "browse_assets.h"
#include "site.h"

namespace browse {

std::shared_ptr<const reference_view> alignment_source::window(std::int32_t ref, std::int64_t first,
                                                               std::int64_t last,
                                                               std::string& why) {
    const std::shared_ptr<const flow_models> m = survey.models();
    // A window checked under no model is kept apart from the same window checked.
    const std::size_t key =
        (static_cast<std::size_t>(ref) * 1'000'003 + static_cast<std::size_t>(first)) * 4'099 +
        static_cast<std::size_t>(last - first) * 2 + (m != nullptr ? 1 : 0);
    if (auto hit = cache_.find(key); hit && hit->ref == ref && hit->first == first &&
                                     hit->last == last && hit->checked == (m != nullptr))
        return hit;
    auto v = std::make_shared<reference_view>();
    if (sorvexa::status st = files.view(ref, first, last, m.get(), *v); !st) {
        why = st.message;
        return nullptr;
    }
    cache_.put(key, v, v->bytes());
    return v;
}

namespace {

std::string ref_window_href(std::string_view name, std::int64_t from, int width,
                            std::string_view view = "counts", bool diff = false,
                            std::int64_t rows = 1) {
    return window_href(name, std::max<std::int64_t>(from, 1), width, rows) +
           "&view=" + std::string(view) + "&diff=" + (diff ? "1" : "0");
}

std::string run_href(std::string_view name, std::int64_t position) {
    return contig_href(name) + "/run/" + std::to_string(position);
}

// A run's window in signals: 100 positions with the run in the middle.
std::string run_window_href(std::string_view name, std::int64_t position) {
    return ref_window_href(name, position - 50, 100, "signals");
}

void link(html& h, const std::string& href, std::string_view label, bool current = false) {
    if (current)
        h.fill("<a class=\"cur\" href=\"{}\">{}</a> ", href, label);
    else
        h.fill("<a href=\"{}\">{}</a> ", href, label);
}

}  // namespace

response site::reference_overview() const {
    html b;
    b.markup("<h1>Alignments</h1><dl class=\"facts\">");
    fact(b, "alignment file", bam->bam_path);
    fact(b, "reference", bam->ref_path);
    for (const std::string& f : sff.lookup.sff_names) fact(b, "SFF file", f);
    std::string origin;
    const std::shared_ptr<const flow_models> m = bam->survey.models(&origin);
    fact(b, "flow model",
         m == nullptr ? std::string("being fitted to these alignments' signals")
                      : origin + " (" + describe_models(*m) + ")");
    fact(b, "read names",
         bam->survey.names_ready() ? "indexed for search"
                                   : "being gathered: search finds reads once done");
    b.markup(
        "</dl>\n<table class=\"contigs\"><thead><tr><th>reference</th><th>length</th>"
        "<th>disputed runs</th></tr></thead><tbody>\n");
    const auto& refs = bam->files.references();
    for (std::size_t k = 0; k < refs.size(); ++k) {
        const std::optional<std::vector<hp_run>> d = bam->survey.disputed(k);
        b.fill("<tr><td><a href=\"{}\">{}</a></td><td>{}</td><td>{}</td></tr>\n",
               contig_href(refs[k].name), refs[k].name, grouped(refs[k].length),
               d ? grouped(static_cast<std::int64_t>(d->size())) : std::string("..."));
    }
    b.markup("</tbody></table>\n");
    return page("Alignments", b);
}

response site::reference_window(std::size_t ref, const request& req) const {
    const reference_sequence& rs = bam->files.references()[ref];
    const window w = check_window(req, rs.length);
    if (!w.error.empty()) return error_response(400, "Bad request", w.error);
    const std::string view_mode = w.view();
    const bool signals = w.signals, diff = w.differences;
    std::string why;
    const std::shared_ptr<const reference_view> rv =
        bam->window(static_cast<std::int32_t>(ref), w.from, w.last, why);
    if (rv == nullptr) return error_response(500, "Alignments unreadable", why);
    window_page v;
    if (!page_of_window(rv->d, rv->from, rv->to, w.rows_page, rows_per_page(rv->to - rv->from + 1),
                        v))
        return error_response(400, "Bad request",
                              "rows page " + std::to_string(w.rows_page) + " lies past this " +
                                  "window's " + std::to_string(v.pages) + " pages of rows");
    v.unpadded_from += rv->offset;  // the ruler counts reference positions
    if (diff) differences_only(v.grid);

    const std::string& name = rs.name;
    html h;
    h.fill("<h1>Reference {}, positions {} to {}</h1><dl class=\"facts\">", name, grouped(w.from),
           grouped(w.last));
    fact(h, "length", grouped(rs.length));
    fact(h, "columns drawn", grouped(rv->to - rv->from + 1) + " (pads where reads insert)");
    fact(h, "reads over the window",
         grouped(v.reads_over) + (v.pages > 1 ? ", rows page " + std::to_string(v.page) + " of " +
                                                    std::to_string(v.pages)
                                              : std::string()));
    h.markup("</dl>");
    if (!rv->checked) h.markup(assets::fitting_note);
    h.markup("<nav class=\"nav\">");
    link(h, ref_window_href(name, w.from - w.width, w.width, view_mode, diff), "\u2190 previous");
    link(h, ref_window_href(name, w.from + w.width, w.width, view_mode, diff), "next \u2192");
    for (int width : {100, 500, 2000})
        link(h, ref_window_href(name, w.from, width, view_mode, diff), std::to_string(width),
             width == w.width);
    for (std::int64_t p = 1; v.pages > 1 && p <= v.pages; ++p)
        link(h, ref_window_href(name, w.from, w.width, view_mode, diff, p),
             "rows " + std::to_string(p), p == v.page);
    h.markup("</nav>");
    if (rv->checked && !rv->disputed.empty()) {
        h.markup("<p class=\"disputed-marks\">Disputed here: ");
        for (std::int32_t i : rv->disputed) {
            const hp_run& r = rv->check.runs[static_cast<std::size_t>(i)];
            const std::int64_t at = rv->offset + r.position;
            h.fill("<a href=\"{}\" class=\"mark\">{} at {} ({} \u2192 {})</a> ", run_href(name, at),
                   r.letter, grouped(at), r.consensus_length, r.called_length);
        }
        h.markup("</p>");
    }
    html names, map;
    h.markup("<h2>Alignment</h2><nav class=\"nav toggles\">");
    link(h, ref_window_href(name, w.from, w.width, view_mode, false, v.page), "all bases", !diff);
    link(h, ref_window_href(name, w.from, w.width, view_mode, true, v.page), "differences only",
         diff);
    h.markup("</nav>");
    // The padded ruler counts the window's own columns: a reference numbers only its bases.
    const std::int32_t shift = v.grid.from - 1;
    v.grid.from -= shift, v.grid.last -= shift;
    align_map_html(v, names, map);
    v.grid.from += shift, v.grid.last += shift;
    h.markup("<div class=\"map align\"><pre class=\"names\">").append(names);
    h.markup("</pre><pre class=\"seq\">").append(map).markup("</pre></div>\n");
    h.markup("<h2>Flows</h2><nav class=\"nav toggles\">");
    link(h, ref_window_href(name, w.from, w.width, "counts", diff, v.page), "counts", !signals);
    link(h, ref_window_href(name, w.from, w.width, "signals", diff, v.page), "signals", signals);
    h.markup("</nav>");
    html fnames, fmap;
    if (signals && rv->checked) {
        h.markup(assets::signals_legend);
        signals_map_html(
            rv->c(), v, rv->check.runs, rv->disputed, rv->tied,
            [&](const hp_run& r) { return run_href(name, rv->offset + r.position); }, fnames, fmap);
    } else {
        h.markup(assets::counts_note);
        flow_map_html(rv->c(), v, fnames, fmap);
    }
    h.markup("<div class=\"map flow\"><pre class=\"names\">").append(fnames);
    h.markup("</pre><pre class=\"seq\">").append(fmap).markup("</pre></div>\n");
    if (const std::optional<std::vector<hp_run>> all = bam->survey.disputed(ref)) {
        h.fill("<h2>Disputed runs</h2><p>{} runs of {} whose flowgrams call another length.</p>",
               grouped(static_cast<std::int64_t>(all->size())), name);
        h.markup(
            "<table class=\"disputed\"><thead><tr><th>position</th><th>letter</th>"
            "<th>consensus</th><th>called</th><th>signals</th><th>score</th></tr></thead>"
            "<tbody>");
        for (std::size_t k = 0; k < all->size() && k < 200; ++k) {
            const hp_run& r = (*all)[k];
            h.fill(
                "<tr><td><a href=\"{}\">{}</a></td><td>{}</td><td>{}</td><td>{}</td><td>{}"
                "</td><td>{}</td></tr>",
                run_window_href(name, r.position), grouped(r.position), r.letter,
                r.consensus_length, r.called_length, r.signals, fixed(r.score, 2));
        }
        h.markup("</tbody></table>");
    } else {
        h.markup("<p>The disputed runs of the whole reference are being counted.</p>");
    }
    return page(name, h, assets::contig_js());
}

// /contig/REF/run/POS: the run that starts at reference position POS (a run of bases the
// reference lacks: the one before POS), checked in a window around it.
response site::reference_run(std::size_t ref, std::string_view rest) const {
    const reference_sequence& rs = bam->files.references()[ref];
    std::int64_t pos = 0;
    if (!parse_count(rest, pos) || pos < 1 || pos > rs.length)
        return error_response(400, "Bad request",
                              "a run is named by its position on " + rs.name + ", from 1 to " +
                                  std::to_string(rs.length) + ", not \"" + std::string(rest) +
                                  "\"");
    std::string why, origin;
    const std::shared_ptr<const flow_models> m = bam->survey.models(&origin);
    const auto rv = bam->window(static_cast<std::int32_t>(ref), pos, pos, why);
    if (rv == nullptr) return error_response(500, "Alignments unreadable", why);
    if (m == nullptr || !rv->checked)
        return error_response(503, "Not yet",
                              "the flow model is still being fitted; reload in a moment");
    const auto& runs = rv->check.runs;
    // A run of bases the reference lacks shares its position with the run after it: that one
    // is the run named there when it is in the window.
    auto at = [&](bool bases) {
        return std::find_if(runs.begin(), runs.end(), [&](const hp_run& r) {
            return rv->offset + r.position == pos && r.column >= rv->from - 64 &&
                   r.column <= rv->to && (r.consensus_length > 0) == bases;
        });
    };
    auto it = at(true);
    if (it == runs.end()) it = at(false);
    if (it == runs.end())
        return not_found("No homopolymer run of " + rs.name + " starts at position " +
                         std::to_string(pos) + ".");
    const auto i = static_cast<std::int32_t>(it - runs.begin());
    hp_run shown = *it;  // named by reference positions: a reference has no padded columns
    shown.column = shown.position = static_cast<std::int32_t>(pos);
    shown.first_column = static_cast<std::int32_t>(rv->position_at(it->first_column));
    shown.last_column = static_cast<std::int32_t>(rv->position_at(it->last_column));
    return run_view(rs.name, *it, shown,
                    std::find(rv->disputed.begin(), rv->disputed.end(), i) != rv->disputed.end(),
                    rv->check, rv->c(), rv->tied, *m, bam->files.units(),
                    run_window_href(rs.name, pos), origin);
}

response reference_search(const site& s, const std::string& q) {
    html body;
    body.markup("<h1>Reads found by name</h1>");
    if (!s.bam->survey.names_ready())
        body.markup(
            "<p>The names of the aligned reads are still being gathered; try again in a "
            "moment.</p>");
    const auto found = s.bam->survey.reads_named(q, max_search_results);
    const auto& refs = s.bam->files.references();
    if (!found.empty()) {
        body.markup(assets::found_head);
        for (const auto& p : found) {
            const std::string& ref = refs[static_cast<std::size_t>(p.ref)].name;
            body.fill(assets::found_row, read_href(p.name), p.name, contig_href(ref), ref,
                      ref_window_href(ref, p.position - 20, 100), grouped(p.position));
        }
        body.markup("</tbody></table>");
    } else if (s.bam->survey.names_ready()) {
        body.fill("<p>{}</p>", q.empty()
                                   ? "Give a read name, or the beginning of one."
                                   : "No aligned read has a name beginning with \"" + q + "\".");
    }
    response r = page("Search: " + q, body);
    if (found.empty() && s.bam->survey.names_ready()) r.status = 404;
    return r;
}

}  // namespace browse

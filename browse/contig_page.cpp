// The contig window page and its text form.
#include "browse_assets.h"
#include "site.h"

namespace browse {

window check_window(const request& req, std::int64_t columns) {
    window w;
    std::int64_t v = 0;
    const auto from = req.param("from"), width = req.param("width"), rows = req.param("rows");
    auto fail = [&w](std::string why) {
        w.error = std::move(why);
        return w;
    };
    if (width && !parse_count(*width, v))
        return fail("width must be a whole number of columns, not \"" + *width + "\"");
    if (width && (v < 1 || v > max_width))
        return fail("width must be between 1 and " + std::to_string(max_width) + " columns");
    if (width) w.width = static_cast<int>(v);
    if (from && !parse_count(*from, v))
        return fail("from must be a column number, not \"" + *from + "\"");
    if (from && v < 1) return fail("from must be at least 1");
    if (from) w.from = v;
    if (rows && (!parse_count(*rows, v) || v < 1))
        return fail("rows must be a page number from 1, not \"" + *rows + "\"");
    if (rows) w.rows_page = v;
    const std::string view = req.param("view").value_or("counts");
    const std::string diff = req.param("diff").value_or("0");
    if (view != "counts" && view != "signals")
        return fail("view must be counts or signals, not \"" + view + "\"");
    if (diff != "0" && diff != "1") return fail("diff must be 0 or 1, not \"" + diff + "\"");
    w.signals = view == "signals";
    w.differences = diff == "1";
    if (w.from > columns)
        return fail("from " + std::to_string(w.from) + " lies past the contig's last column, " +
                    std::to_string(columns));
    w.last = std::min<std::int64_t>(w.from + w.width - 1, columns);
    return w;
}

namespace {

// The window of a request drawn, or the answer that replaces it.
struct drawn_window {
    window w;
    std::shared_ptr<const drawn_contig> b;
    window_page view;
    std::optional<response> failed;
};

drawn_window draw(const site& s, std::size_t index, const request& req, bool text) {
    drawn_window d;
    d.w = check_window(req, s.ace.contigs[index].columns);
    if (!d.w.error.empty()) {
        d.failed = error_response(400, "Bad request", d.w.error, text);
        return d;
    }
    d.b = s.ace.load(index);
    if (d.b == nullptr)
        d.failed = ace_changed(text);
    else if (!page_of_window(d.b->d, d.w.from, d.w.last, d.w.rows_page,
                             rows_per_page(d.w.last - d.w.from + 1), d.view))
        d.failed = error_response(400, "Bad request",
                                  "rows page " + std::to_string(d.w.rows_page) +
                                      " lies past this window's " + std::to_string(d.view.pages) +
                                      " pages of rows",
                                  text);
    return d;
}

std::string shown_sentence(const window_page& v) {
    std::string t = "showing " + grouped(v.reads_shown) + " of " + grouped(v.reads_over) + " reads";
    if (v.pages > 1)
        t += " (rows page " + std::to_string(v.page) + " of " + std::to_string(v.pages) +
             ": one layout row in " + std::to_string(v.pages) + " over the window, from row " +
             std::to_string(v.page) + ")";
    return t;
}

// A link, or the current choice (`cur`) or an unavailable one (`off`) as plain text.
void choice(html& h, bool link, const std::string& href, std::string_view label,
            std::string_view rel = {}, bool current = false) {
    if (current)
        h.fill("<a class=\"cur\" href=\"{}\">{}</a>", href, label);
    else if (link && rel.empty())
        h.fill("<a href=\"{}\">{}</a>", href, label);
    else if (link)
        h.fill("<a rel=\"{}\" href=\"{}\">{}</a>", rel, href, label);
    else
        h.fill("<span class=\"{}\">{}</span>", rel.empty() ? "cur" : "off", label);
}

void map_block(html& h, std::string_view cls, const html& names, const html& map) {
    h.fill("<div class=\"map {}\"><pre class=\"names\">", cls)
        .append(names)
        .markup("</pre><pre class=\"seq\">")
        .append(map)
        .markup("</pre></div>\n");
}

}  // namespace

response site::contig_text(std::size_t index, const request& req) const {
    drawn_window d = draw(*this, index, req, true);
    if (d.failed) return *d.failed;
    const contig_summary& s = ace.contigs[index];
    std::string body = "# contig " + s.name + ", columns " + std::to_string(d.w.from) + " to " +
                       std::to_string(d.w.last) + " of " + std::to_string(s.columns) + ", " +
                       shown_sentence(d.view) + "\n";
    flow_map_text(d.view, body);
    align_map_text(d.view, body);
    return text_response(200, std::move(body));
}

response site::contig_window(std::size_t index, const request& req) const {
    drawn_window d = draw(*this, index, req, false);
    if (d.failed) return *d.failed;
    const bool signals_view = d.w.signals, differences = d.w.differences;
    const contig_summary& s = ace.contigs[index];
    const window& w = d.w;
    if (differences) differences_only(d.view.grid);
    const window_page& v = d.view;
    // The window does not wait for the model's fit: its evidence shows once the fit is done.
    const bool fitting = evidence != nullptr && evidence->models_if_ready() == nullptr;
    const std::shared_ptr<const contig_evidence> ev =
        evidence != nullptr && !fitting ? evidence->get(index) : nullptr;
    // This window with one toggle changed.
    auto toggled = [&](bool signals, bool diff) {
        return window_href(s.name, w.from, w.width, v.page) +
               "&view=" + (signals ? "signals" : "counts") + "&diff=" + (diff ? "1" : "0");
    };
    const std::string width_s = std::to_string(w.width);

    html h;
    h.fill(assets::contig_facts, s.name, grouped(w.from), grouped(w.last), grouped(s.columns),
           grouped(s.reads), grouped(s.found), s.min_len, s.max_len, fixed(s.avg_len, 0),
           grouped(s.rows));
    if (ev != nullptr) coverage_note(h, ev->report.coverage);
    if (fitting) h.markup(assets::fitting_note);
    h.append(depth_chart(*d.b, w.from, w.last, w.width,
                         contig_href(s.name) + "?width=" + width_s + "&from="));
    h.markup("<nav class=\"nav\">");
    choice(h, w.from > 1, window_href(s.name, std::max<std::int64_t>(1, w.from - w.width), w.width),
           "\u2190 previous " + width_s, "prev");
    choice(h, w.from + w.width <= s.columns, window_href(s.name, w.from + w.width, w.width),
           "next " + width_s + " \u2192", "next");
    h.markup("<span>width</span>");
    for (int width : {50, 100, 200, 500})
        choice(h, true, window_href(s.name, w.from, width), std::to_string(width), {},
               width == w.width);
    std::string note = "Columns " + grouped(w.from) + " to " + grouped(w.last) + " are drawn (" +
                       grouped(w.last - w.from + 1) + " columns), with every read that covers " +
                       "one of them: " + shown_sentence(v) + ".";
    if (w.from + w.width - 1 > w.last)
        note += " The window of " + width_s + " columns is cut at the contig's last column.";
    h.fill(assets::window_tools, contig_href(s.name), s.columns, w.from, width_s,
           contig_href(s.name) + ".txt?from=" + std::to_string(w.from) + "&width=" + width_s +
               (v.page > 1 ? "&rows=" + std::to_string(v.page) : ""),
           note);
    if (v.pages > 1) {
        h.markup("<nav class=\"nav rows\"><span>rows page</span>");
        for (std::int64_t p = 1; p <= v.pages; ++p)
            choice(h, true, window_href(s.name, w.from, w.width, p), std::to_string(p), {},
                   p == v.page);
        h.markup("</nav>\n");
    }
    if (ev != nullptr) disputed_marks(h, s.name, *ev, w.from, w.last);

    html names, map;
    h.markup("<h2>Alignment</h2><nav class=\"nav toggles\">");
    choice(h, differences, toggled(signals_view, false), "all bases");
    choice(h, !differences, toggled(signals_view, true), "differences only");
    h.markup("</nav>");
    if (differences) h.markup(assets::differences_note);
    align_map_html(v, names, map);
    map_block(h, "align", names, map);
    h.markup("<h2>Flows</h2><nav class=\"nav toggles\">");
    choice(h, signals_view, toggled(false, differences), "counts");
    choice(h, !signals_view, toggled(true, differences), "signals");
    h.markup("</nav>");
    html fnames, fmap;
    if (signals_view && ev != nullptr) {
        h.markup(assets::signals_legend);
        std::vector<std::string> drawn;
        for (const auto& row : v.grid.reads)
            for (const window_read& r : row) drawn.push_back(r.name);
        signals_map_html(
            d.b->c(), v, ev->check.runs, ev->disputed, sff.tie(d.b->c(), drawn),
            [&](const hp_run& r) {
                return contig_href(s.name) + "/run/" + std::to_string(r.column);
            },
            fnames, fmap);
    } else {
        if (signals_view && !fitting) h.markup(assets::signals_unread);
        h.markup(assets::counts_note);
        flow_map_html(d.b->c(), v, fnames, fmap);
    }
    map_block(h, "flow", fnames, fmap);
    if (ev != nullptr) {
        h.markup("<h2>Disputed runs</h2>");
        disputed_table(h, s.name, *ev);
    }
    return page(s.name, h, assets::contig_js());
}

}  // namespace browse

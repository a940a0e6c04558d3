// The contig window page and its text form.
#include <algorithm>

#include "browse_assets.h"
#include "charts.h"
#include "evidence_pages.h"
#include "page_parts.h"
#include "window_view.h"

namespace browse {

window check_window(const window_query& q, std::int64_t columns) {
    window w;
    std::int64_t v = 0;
    if (q.width) {
        if (!parse_count(*q.width, v)) {
            w.error = "width must be a whole number of columns, not \"" + *q.width + "\"";
            return w;
        }
        if (v < 1 || v > max_width) {
            w.error = "width must be between 1 and " + std::to_string(max_width) + " columns";
            return w;
        }
        w.width = static_cast<int>(v);
    }
    if (q.from) {
        if (!parse_count(*q.from, v)) {
            w.error = "from must be a column number, not \"" + *q.from + "\"";
            return w;
        }
        if (v < 1) {
            w.error = "from must be at least 1";
            return w;
        }
        w.from = v;
    }
    if (q.rows) {
        if (!parse_count(*q.rows, v) || v < 1) {
            w.error = "rows must be a page number from 1, not \"" + *q.rows + "\"";
            return w;
        }
        w.rows_page = v;
    }
    if (w.from > columns) {
        w.error = "from " + std::to_string(w.from) + " lies past the contig's last column, " +
                  std::to_string(columns);
        return w;
    }
    w.last = std::min<std::int64_t>(w.from + w.width - 1, columns);
    return w;
}

namespace {

// The window of a request drawn, or the answer that replaces it.
struct drawn_window {
    window w;
    std::shared_ptr<built_contig> b;
    window_view view;
    std::optional<response> failed;
};

drawn_window draw(const site& s, std::size_t index, const request& req, bool text) {
    drawn_window d;
    const contig_summary& sum = s.ace.contigs[index];
    d.w = check_window(window_query_of(req), sum.columns);
    auto bad = [&](int status, const std::string& title, const std::string& why) {
        if (text) return text_response(status, title + ": " + why + "\n");
        return error_page(status, title, why);
    };
    if (!d.w.error.empty()) {
        d.failed = bad(400, "Bad request", d.w.error);
        return d;
    }
    assembly::load_result loaded;
    d.b = s.ace.load(index, loaded);
    if (d.b == nullptr) {
        d.failed = bad(500, "ACE file changed",
                       "The ACE file is no longer the file read at start-up; restart the server.");
        return d;
    }
    if (!build_view(*d.b, d.w.from, d.w.last, d.w.rows_page, d.view))
        d.failed = bad(400, "Bad request",
                       "rows page " + std::to_string(d.w.rows_page) + " lies past this window's " +
                           std::to_string(d.view.pages) + " pages of rows");
    return d;
}

std::string shown_sentence(const window_view& v) {
    std::string t = "showing " + grouped(v.reads_shown) + " of " + grouped(v.reads_over) + " reads";
    if (v.pages > 1)
        t += " (rows page " + std::to_string(v.page) + " of " + std::to_string(v.pages) +
             ": one layout row in " + std::to_string(v.pages) + " over the window, from row " +
             std::to_string(v.page) + ")";
    return t;
}

void nav_link(html& h, bool on, const std::string& href, std::string_view rel,
              std::string_view label) {
    if (on)
        h.element("a", {{"rel", rel}, {"href", href}}, label);
    else
        h.element("span", {{"class", "off"}}, label);
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
    // The two toggles: the flow map's counts or measured signals, the alignment's bases or
    // only its differences from the consensus.
    const std::string view_mode = req.param("view").value_or("counts");
    const std::string diff_mode = req.param("diff").value_or("0");
    if (view_mode != "counts" && view_mode != "signals")
        return error_page(400, "Bad request",
                          "view must be counts or signals, not \"" + view_mode + "\"");
    if (diff_mode != "0" && diff_mode != "1")
        return error_page(400, "Bad request", "diff must be 0 or 1, not \"" + diff_mode + "\"");
    const bool signals_view = view_mode == "signals", differences = diff_mode == "1";
    drawn_window d = draw(*this, index, req, false);
    if (d.failed) return *d.failed;
    const contig_summary& s = ace.contigs[index];
    const window& w = d.w;
    if (differences) differences_only(d.view);
    const window_view& v = d.view;
    // The window does not wait for the model's fit: its evidence shows once the fit is done.
    const bool fitting = evidence != nullptr && evidence->models_if_ready() == nullptr;
    const std::shared_ptr<const contig_evidence> ev =
        evidence != nullptr && !fitting ? evidence->get(index) : nullptr;
    // This window with one toggle changed.
    auto toggled = [&](bool signals, bool diff) {
        return window_href(s.name, w.from, w.width, v.page) +
               "&view=" + (signals ? "signals" : "counts") + "&diff=" + (diff ? "1" : "0");
    };
    auto toggle = [&](html& out, bool on, const std::string& href, std::string_view label) {
        if (on)
            out.element("span", {{"class", "cur"}}, label);
        else
            out.element("a", {{"href", href}}, label);
    };

    html h;
    h.element("h1", "Contig " + s.name + ", columns " + grouped(w.from) + " to " + grouped(w.last));
    h.open("dl", {{"class", "facts"}});
    fact(h, "columns", grouped(s.columns));
    fact(h, "reads", grouped(s.reads) + " (" + grouped(s.found) + " found in the SFF files)");
    fact(h, "read lengths",
         std::to_string(s.min_len) + " to " + std::to_string(s.max_len) + ", " +
             fixed(s.avg_len, 0) + " on average");
    fact(h, "layout rows", grouped(s.rows));
    h.close("dl").markup("\n");
    if (ev != nullptr) coverage_note(h, ev->coverage);
    if (fitting)
        h.element("p", {{"class", "note"}},
                  "The flow model is still being fitted to this assembly's signals: the runs the "
                  "flowgrams dispute show here once it is; reload in a moment.");
    h.append(depth_chart(*d.b, w.from, w.last, w.width,
                         contig_href(s.name) + "?width=" + std::to_string(w.width) + "&from="));

    const std::string width_s = std::to_string(w.width);
    h.open("nav", {{"class", "nav"}});
    nav_link(h, w.from > 1,
             window_href(s.name, std::max<std::int64_t>(1, w.from - w.width), w.width), "prev",
             "\u2190 previous " + width_s);
    nav_link(h, w.from + w.width <= s.columns, window_href(s.name, w.from + w.width, w.width),
             "next", "next " + width_s + " \u2192");
    h.element("span", "width");
    for (int width : {50, 100, 200, 500}) {
        if (width == w.width)
            h.element("a", {{"class", "cur"}, {"href", window_href(s.name, w.from, width)}},
                      std::to_string(width));
        else
            h.element("a", {{"href", window_href(s.name, w.from, width)}}, std::to_string(width));
    }
    h.open("form", {{"method", "get"}, {"action", contig_href(s.name)}})
        .open("label")
        .text("column ")
        .empty("input", {{"name", "from"},
                         {"type", "number"},
                         {"min", "1"},
                         {"max", std::to_string(s.columns)},
                         {"value", std::to_string(w.from)}})
        .close("label")
        .empty("input", {{"type", "hidden"}, {"name", "width"}, {"value", width_s}})
        .text(' ')
        .element("button", "go")
        .close("form");
    h.element("a",
              {{"href", contig_href(s.name) + ".txt?from=" + std::to_string(w.from) + "&width=" +
                            width_s + (v.page > 1 ? "&rows=" + std::to_string(v.page) : "")}},
              "as text");
    h.close("nav").markup("\n");

    std::string note = "Columns " + grouped(w.from) + " to " + grouped(w.last) + " are drawn (" +
                       grouped(w.last - w.from + 1) +
                       " columns), with every read that covers one " +
                       "of them: " + shown_sentence(v) + ".";
    if (w.from + w.width - 1 > w.last)
        note += " The window of " + width_s + " columns is cut at the contig's last column.";
    note +=
        " Bases are drawn in capitals, and reads that start before column 1 from column 1 "
        "on; the read's page gives where the ACE file places it.";
    h.element("p", {{"class", "note"}}, note);
    if (v.pages > 1) {
        h.open("nav", {{"class", "nav rows"}}).element("span", "rows page");
        for (std::int64_t p = 1; p <= v.pages; ++p) {
            const std::string href = window_href(s.name, w.from, w.width, p);
            if (p == v.page)
                h.element("a", {{"class", "cur"}, {"href", href}}, std::to_string(p));
            else
                h.element("a", {{"href", href}}, std::to_string(p));
        }
        h.close("nav").markup("\n");
    }

    if (ev != nullptr) disputed_marks(h, s.name, *ev, w.from, w.last);
    html names, map;
    h.element("h2", "Alignment");
    h.open("nav", {{"class", "nav toggles"}});
    toggle(h, !differences, toggled(signals_view, false), "all bases");
    toggle(h, differences, toggled(signals_view, true), "differences only");
    h.close("nav");
    if (differences)
        h.element("p", {{"class", "note"}},
                  "Bases equal to the consensus are drawn as . on forward reads and , on "
                  "complemented ones.");
    align_map_html(v, names, map);
    h.markup("<div class=\"map align\"><pre class=\"names\">")
        .append(names)
        .markup("</pre><pre class=\"seq\">")
        .append(map)
        .markup("</pre></div>\n");
    h.element("h2", "Flows");
    h.open("nav", {{"class", "nav toggles"}});
    toggle(h, !signals_view, toggled(false, differences), "counts");
    toggle(h, signals_view, toggled(true, differences), "signals");
    h.close("nav");
    html fnames, fmap;
    if (signals_view && ev != nullptr) {
        signals_legend(h);
        h.element("p", {{"class", "note"}},
                  "The consensus line gives the consensus length of each flow's run, and after > "
                  "the length the flowgrams call where they dispute it.");
        signals_map_html(*d.b, v, *ev, sff, fnames, fmap);
    } else {
        if (signals_view && !fitting)
            h.element("p", {{"class", "error"}},
                      "The flow signals cannot be read: the files changed since start-up.");
        h.element("p", {{"class", "note"}},
                  "Each cell is the number of the read's bases a flow carries (A = 10, B = 11, "
                  "..., + above 35); the flows line is the flow-space consensus, + and - the "
                  "read's direction (- complemented).");
        flow_map_html(*d.b, v, fnames, fmap);
    }
    h.markup("<div class=\"map flow\"><pre class=\"names\">")
        .append(fnames)
        .markup("</pre><pre class=\"seq\">")
        .append(fmap)
        .markup("</pre></div>\n");
    if (ev != nullptr) {
        h.element("h2", "Disputed runs");
        disputed_table(h, s.name, *ev);
    }
    return page(s.name, h, assets::contig_js());
}

}  // namespace browse

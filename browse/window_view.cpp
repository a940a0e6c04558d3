// A window of a contig as the contig page and its text form show it: the library's exact
// window (contig::draw_window) over the drawn contig, with the layout rows cut to a bounded
// page of rows, and every map drawn from that one grid.
#include <algorithm>
#include <cctype>

#include "site.h"

namespace browse {

std::int64_t rows_per_page(std::int64_t columns) {
    return std::clamp<std::int64_t>(max_cells / std::max<std::int64_t>(columns, 1), min_rows,
                                    max_rows);
}

char count_char(int n) {
    if (n < 0) return ' ';
    if (n < 10) return static_cast<char>('0' + n);
    if (n <= 35) return static_cast<char>('A' + n - 10);
    return '+';
}

bool build_view(const drawn_contig& b, std::int64_t from, std::int64_t last, std::int64_t page,
                window_view& out) {
    const contig& c = b.c();
    std::vector<std::int32_t> rows;
    out.reads_over = c.window_rows(from, last, rows);
    out.rows_over = static_cast<std::int64_t>(rows.size());
    const std::int64_t per_page = rows_per_page(last - from + 1);
    out.pages = std::max<std::int64_t>(1, (out.rows_over + per_page - 1) / per_page);
    if (page < 1 || page > out.pages) return false;
    out.page = page;
    std::vector<std::int32_t> chosen;
    for (std::int64_t i = page - 1; i < out.rows_over; i += out.pages)
        chosen.push_back(rows[static_cast<std::size_t>(i)]);
    c.draw_window(from, last, chosen, out.grid);
    out.reads_shown = 0;
    for (const auto& row : out.grid.reads) out.reads_shown += static_cast<std::int64_t>(row.size());
    out.unpadded_from = b.d.unpadded_at(from - 1) + 1;
    out.quality.clear();
    if (!c.base_qualities.empty()) {
        std::int64_t base = out.unpadded_from - 1;
        for (const char ch : out.grid.consensus) {
            if (ch == '*' || base >= static_cast<std::int64_t>(c.base_qualities.size())) {
                out.quality.push_back(-1);
                continue;
            }
            out.quality.push_back(c.base_qualities[static_cast<std::size_t>(base++)]);
        }
    }
    return true;
}

namespace {

// `line` with each run of one base letter in that letter's colour.
void coloured(html& out, std::string_view line) {
    for (std::size_t i = 0; i < line.size();) {
        const std::string_view cls = base_class(line[i]);
        std::size_t run = i + 1;
        while (run < line.size() && line[run] == line[i]) ++run;
        if (cls.empty())
            out.text(line.substr(i, run - i));
        else
            out.fill("<span class=\"{}\">{}</span>", cls, line.substr(i, run - i));
        i = run;
    }
}

// A line of `width` characters with `label(k)` placed so that it ends at each position
// `at(k)` it is asked for, where it fits without running into the previous label.
template <class Marks>
std::string ruler(std::size_t width, Marks marks) {
    std::string line(width, ' ');
    std::size_t free_from = 0;
    marks([&](std::size_t end, const std::string& label) {
        if (end >= width || end + 1 < label.size()) return;
        const std::size_t begin = end + 1 - label.size();
        if (begin < free_from) return;
        line.replace(begin, label.size(), label);
        free_from = end + 2;
    });
    return line;
}

// Padded column numbers over every tenth column, unpadded positions over every tenth base.
std::string padded_ruler(const window_grid& g) {
    const auto width = static_cast<std::size_t>(std::max(g.last - g.from + 1, 0));
    return ruler(width, [&](auto put) {
        for (std::int64_t col = g.from; col <= g.last; ++col)
            if (col % 10 == 0) put(static_cast<std::size_t>(col - g.from), std::to_string(col));
    });
}

std::string unpadded_ruler(const window_view& v) {
    const window_grid& g = v.grid;
    const auto width = static_cast<std::size_t>(std::max(g.last - g.from + 1, 0));
    return ruler(width, [&](auto put) {
        std::int64_t pos = v.unpadded_from;
        for (std::size_t k = 0; k < width; ++k) {
            if (g.consensus[k] == '*') continue;
            if (pos % 10 == 0) put(k, std::to_string(pos));
            ++pos;
        }
    });
}

// The names column: each read of a row with its direction.
void row_names(html& names, const std::vector<window_read>& reads) {
    for (std::size_t k = 0; k < reads.size(); ++k) {
        if (k > 0) names.markup(" ");
        names.fill("<i>{}</i>", reads[k].complemented ? "-" : "+");
        read_link(names, reads[k].name);
    }
}

// A flow count per cell, each after a blank.
std::string counts_line(const std::vector<std::int16_t>& counts) {
    std::string line;
    for (std::int16_t n : counts) line += {' ', count_char(n)};
    return line;
}

void reads_of_rows(const window_grid& g, std::string& out) {
    out += "# reads of each row above, one row a line\n";
    for (const auto& row : g.reads) {
        for (std::size_t k = 0; k < row.size(); ++k) out += (k > 0 ? " " : "") + row[k].name;
        out += '\n';
    }
}

}  // namespace

void align_map_html(const window_view& v, html& names, html& map) {
    const window_grid& g = v.grid;
    names.markup("<i>column</i>\n<i>unpadded</i>\n");
    map.fill("<span class=\"ruler\">{}</span>\n<span class=\"ruler\">{}</span>\n", padded_ruler(g),
             unpadded_ruler(v));
    if (!v.quality.empty()) {
        std::string line;
        for (std::int16_t q : v.quality) line += q < 0 ? ' ' : static_cast<char>('0' + std::min(q / 10, 9));
        names.markup("<i>BQ / 10</i>\n");
        map.fill("<span class=\"bq\">{}</span>\n", line);
    }
    names.markup("<b>consensus</b>\n");
    coloured(map, g.consensus);
    map.markup("\n");
    for (std::size_t r = 0; r < g.bases.size(); ++r) {
        row_names(names, g.reads[r]);
        coloured(map, g.bases[r]);
        names.markup("\n");
        map.markup("\n");
    }
}

void flow_map_html(const drawn_contig& b, const window_view& v, html& names, html& map) {
    const window_grid& g = v.grid;
    // Column numbers over the first flow of every tenth column.
    const std::string columns = ruler(static_cast<std::size_t>(2 * g.flows), [&](auto put) {
        for (std::int64_t col = g.from; col <= g.last; ++col) {
            const std::int64_t k = b.c().getFlowIdx_start(static_cast<std::int32_t>(col - 1)) - g.first_flow;
            if (col % 10 == 0 && k >= 0 && k < g.flows)
                put(static_cast<std::size_t>(2 * k + 1), std::to_string(col));
        }
    });
    names.markup("<i>column</i>\n<b>flows</b>\n");
    map.fill("<span class=\"ruler\">{}</span>\n", columns);
    for (char x : g.flow_letters) map.fill(" <span class=\"{}\">{}</span>", base_class(x), x);
    map.markup("\n");
    for (std::size_t r = 0; r < g.counts.size(); ++r) {
        row_names(names, g.reads[r]);
        names.markup("\n");
        map.text(counts_line(g.counts[r])).markup("\n");
    }
}

void align_map_text(const window_view& v, std::string& out) {
    out += "# alignment map\n" + v.grid.consensus + "\n";
    for (const std::string& line : v.grid.bases) out += line + "\n";
    reads_of_rows(v.grid, out);
}

void flow_map_text(const window_view& v, std::string& out) {
    out += "# flow map\n";
    for (char x : v.grid.flow_letters) out += {' ', x};
    out += '\n';
    for (const auto& counts : v.grid.counts) out += counts_line(counts) + "\n";
    reads_of_rows(v.grid, out);
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
    out.markup("<p class=\"legend\">Measured value of each read on each flow. Shading: <span "
               "class=\"sig-close\">close (within 0.25 of the assembly&#39;s count)</span>, <span "
               "class=\"sig-border\">borderline (within 0.5)</span>, <span class=\"sig-disputed\">"
               "disputed (rounds to another count)</span>; u: read not tied to its flows (edited "
               "or trimmed in the assembly).</p>");
}

void signals_map_html(const drawn_contig& b, const window_view& v, const contig_evidence& e,
                      const read_source& sff, html& names, html& map) {
    const window_grid& g = v.grid;
    std::vector<std::string> drawn;
    for (const auto& row : g.reads)
        for (const window_read& r : row) drawn.push_back(r.name);
    const std::map<std::string, tied_read> tied = sff.tie(b.c(), drawn);
    std::vector<std::vector<std::int32_t>> values;
    grid_signals(b.c(), g, lookup_in(tied), values);
    const std::vector<std::int32_t> run_of = runs_of_flows(b.c(), e.check.runs, g);
    names.markup("<b>flows</b>\n<b>consensus</b>\n");
    for (char x : g.flow_letters) map.fill("   <span class=\"{}\">{}</span>", base_class(x), x);
    map.markup("\n");
    for (std::int32_t k = 0; k < g.flows; ++k) {
        const std::int32_t i = run_of[static_cast<std::size_t>(k)];
        const hp_run* r = i < 0 ? nullptr : &e.check.runs[static_cast<std::size_t>(i)];
        std::string cell = r == nullptr ? "" : std::to_string(r->consensus_length);
        if (r != nullptr && e.is_disputed(i)) cell += ">" + std::to_string(r->called_length);
        cell.insert(0, cell.size() < 4 ? 4 - cell.size() : 0, ' ');
        if (r != nullptr && e.is_disputed(i))
            map.fill("<a href=\"{}/run/{}\" class=\"sig-disputed\">{}</a>", contig_href(b.c().name),
                     r->column, cell);
        else
            map.text(cell);
    }
    map.markup("\n");
    static const char* const shades[] = {"sig-close", "sig-border", "sig-disputed"};
    for (std::size_t row = 0; row < g.counts.size(); ++row) {
        for (std::size_t k = 0; k < g.reads[row].size(); ++k) {
            const window_read& r = g.reads[row][k];
            if (k > 0) names.markup(" ");
            names.fill("{}<a href=\"{}\">{}</a>", r.complemented ? '-' : '+', read_href(r.name), r.name);
        }
        if (g.reads[row].empty()) names.markup(" ");
        names.markup("\n");
        for (std::size_t k = 0; k < g.counts[row].size(); ++k) {
            const std::int32_t value = k < values[row].size() ? values[row][k] : -1;
            const std::int16_t count = g.counts[row][k];
            if (count < 0 || value < 0)
                map.text(" " + signal_text(count < 0 ? -1 : value));
            else
                map.fill(" <span class=\"{}\">{}</span>",
                         shades[static_cast<int>(classify_signal(value, count))], signal_text(value));
        }
        map.markup("\n");
    }
}

void differences_only(window_view& v) {
    window_grid& g = v.grid;
    const auto up = [](char ch) { return std::toupper(static_cast<unsigned char>(ch)); };
    for (std::size_t row = 0; row < g.bases.size() && row < g.reads.size(); ++row) {
        std::string& line = g.bases[row];
        for (const window_read& r : g.reads[row])
            for (std::int64_t col = r.first; col <= r.last; ++col) {
                const auto at = static_cast<std::size_t>(col - g.from);
                if (at < line.size() && at < g.consensus.size() && line[at] != ' ' &&
                    up(line[at]) == up(g.consensus[at]))
                    line[at] = r.complemented ? ',' : '.';
            }
    }
}

}  // namespace browse

#include "window_view.h"

#include <algorithm>

#include "page_parts.h"

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

bool build_view(const built_contig& b, std::int64_t from, std::int64_t last, std::int64_t page,
                window_view& out) {
    const contig& c = b.c;
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
    out.unpadded_from = b.unpadded_at(from - 1) + 1;
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
        if (cls.empty()) {
            out.text(line.substr(i, run - i));
        } else {
            out.open("span", {{"class", cls}}).text(line.substr(i, run - i)).close("span");
        }
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

std::string quality_line(const window_view& v) {
    std::string line;
    for (std::int16_t q : v.quality)
        line += q < 0 ? ' ' : static_cast<char>('0' + std::min(q / 10, 9));
    return line;
}

// The names column: each read of a row with its direction.
void row_names(html& names, const std::vector<window_read>& reads) {
    for (std::size_t k = 0; k < reads.size(); ++k) {
        if (k > 0) names.text(' ');
        names.element("i", reads[k].complemented ? "-" : "+");
        read_link(names, reads[k].name);
    }
}

void line_end(html& names, html& map) {
    names.markup("\n");
    map.markup("\n");
}

}  // namespace

void align_map_html(const window_view& v, html& names, html& map) {
    const window_grid& g = v.grid;
    names.element("i", "column");
    map.open("span", {{"class", "ruler"}}).text(padded_ruler(g)).close("span");
    line_end(names, map);
    names.element("i", "unpadded");
    map.open("span", {{"class", "ruler"}}).text(unpadded_ruler(v)).close("span");
    line_end(names, map);
    if (!v.quality.empty()) {
        names.element("i", "BQ / 10");
        map.open("span", {{"class", "bq"}}).text(quality_line(v)).close("span");
        line_end(names, map);
    }
    names.element("b", "consensus");
    coloured(map, g.consensus);
    line_end(names, map);
    for (std::size_t r = 0; r < g.bases.size(); ++r) {
        row_names(names, g.reads[r]);
        coloured(map, g.bases[r]);
        line_end(names, map);
    }
}

void flow_map_html(const built_contig& b, const window_view& v, html& names, html& map) {
    const window_grid& g = v.grid;
    // Column numbers over the first flow of every tenth column.
    const std::string columns = ruler(static_cast<std::size_t>(2 * g.flows), [&](auto put) {
        for (std::int64_t col = g.from; col <= g.last; ++col) {
            if (col % 10 != 0) continue;
            const std::int64_t k =
                b.c.getFlowIdx_start(static_cast<std::int32_t>(col - 1)) - g.first_flow;
            if (k >= 0 && k < g.flows)
                put(static_cast<std::size_t>(2 * k + 1), std::to_string(col));
        }
    });
    names.element("i", "column");
    map.open("span", {{"class", "ruler"}}).text(columns).close("span");
    line_end(names, map);
    names.element("b", "flows");
    for (char x : g.flow_letters) {
        map.text(' ');
        map.open("span", {{"class", base_class(x)}}).text(x).close("span");
    }
    line_end(names, map);
    std::string line;
    for (std::size_t r = 0; r < g.counts.size(); ++r) {
        row_names(names, g.reads[r]);
        line.clear();
        for (std::int16_t n : g.counts[r]) {
            line += ' ';
            line += count_char(n);
        }
        map.text(line);
        line_end(names, map);
    }
}

namespace {

void reads_of_rows(const window_grid& g, std::string& out) {
    out += "# reads of each row above, one row a line\n";
    for (const auto& row : g.reads) {
        for (std::size_t k = 0; k < row.size(); ++k) {
            if (k > 0) out += ' ';
            out += row[k].name;
        }
        out += '\n';
    }
}

}  // namespace

void align_map_text(const window_view& v, std::string& out) {
    out += "# alignment map\n";
    out += v.grid.consensus;
    out += '\n';
    for (const std::string& line : v.grid.bases) {
        out += line;
        out += '\n';
    }
    reads_of_rows(v.grid, out);
}

void flow_map_text(const window_view& v, std::string& out) {
    const window_grid& g = v.grid;
    out += "# flow map\n";
    for (char x : g.flow_letters) {
        out += ' ';
        out += x;
    }
    out += '\n';
    for (const auto& counts : g.counts) {
        for (std::int16_t n : counts) {
            out += ' ';
            out += count_char(n);
        }
        out += '\n';
    }
    reads_of_rows(g, out);
}

}  // namespace browse

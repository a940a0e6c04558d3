// The maps of a window as the contig page and its text form show them, all drawn from the one
// grid of the library's page of the window.
#include <algorithm>

#include "browse_assets.h"
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

void align_map_html(const window_page& v, html& names, html& map) {
    const window_grid& g = v.grid;
    names.markup("<i>column</i>\n<i>unpadded</i>\n");
    const window_rulers rulers = rulers_of(v);
    map.fill("<span class=\"ruler\">{}</span>\n<span class=\"ruler\">{}</span>\n", rulers.columns,
             rulers.unpadded);
    if (!v.quality.empty()) {
        std::string line;
        for (std::int16_t q : v.quality)
            line += q < 0 ? ' ' : static_cast<char>('0' + std::min(q / 10, 9));
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

void flow_map_html(const contig& c, const window_page& v, html& names, html& map) {
    const window_grid& g = v.grid;
    names.markup("<i>column</i>\n<b>flows</b>\n");
    map.fill("<span class=\"ruler\">{}</span>\n", flow_ruler(c, v.grid));
    for (char x : g.flow_letters) map.fill(" <span class=\"{}\">{}</span>", base_class(x), x);
    map.markup("\n");
    for (std::size_t r = 0; r < g.counts.size(); ++r) {
        row_names(names, g.reads[r]);
        names.markup("\n");
        map.text(counts_line(g.counts[r])).markup("\n");
    }
}

void align_map_text(const window_page& v, std::string& out) {
    out += "# alignment map\n" + v.grid.consensus + "\n";
    for (const std::string& line : v.grid.bases) out += line + "\n";
    reads_of_rows(v.grid, out);
}

void flow_map_text(const window_page& v, std::string& out) {
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
    // In whole numbers: a wide window formats a hundred thousand of them.
    if (value < 995) {
        const std::int32_t tenths = (value + 5) / 10;
        return {static_cast<char>('0' + tenths / 10), '.', static_cast<char>('0' + tenths % 10)};
    }
    std::string t = value < 9950 ? std::to_string((value + 50) / 100) : std::string("99+");
    return std::string(t.size() < 3 ? 3 - t.size() : 0, ' ') + t;
}

void signals_map_html(const contig& c, const window_page& v, const std::vector<hp_run>& runs,
                      const std::vector<std::int32_t>& disputed,
                      const std::map<std::string, tied_read>& tied,
                      const std::function<std::string(const hp_run&)>& run_href, html& names,
                      html& map) {
    const window_grid& g = v.grid;
    std::vector<std::vector<std::int32_t>> values;
    grid_signals(c, g, lookup_in(tied), values);
    const std::vector<std::int32_t> run_of = runs_of_flows(c, runs, g);
    auto is_disputed = [&](std::int32_t i) {
        return std::find(disputed.begin(), disputed.end(), i) != disputed.end();
    };
    names.markup("<b>flows</b>\n<b>consensus</b>\n");
    for (char x : g.flow_letters) map.fill("   <span class=\"{}\">{}</span>", base_class(x), x);
    map.markup("\n");
    for (std::int32_t k = 0; k < g.flows; ++k) {
        const std::int32_t i = run_of[static_cast<std::size_t>(k)];
        const hp_run* r = i < 0 ? nullptr : &runs[static_cast<std::size_t>(i)];
        std::string cell = r == nullptr ? "" : std::to_string(r->consensus_length);
        if (r != nullptr && is_disputed(i)) cell += ">" + std::to_string(r->called_length);
        cell.insert(0, cell.size() < 4 ? 4 - cell.size() : 0, ' ');
        if (r != nullptr && is_disputed(i))
            map.fill("<a href=\"{}\" class=\"sig-disputed\">{}</a>", run_href(*r), cell);
        else
            map.text(cell);
    }
    map.markup("\n");
    static const char* const shades[] = {"sig-close", "sig-border", "sig-disputed"};
    for (std::size_t row = 0; row < g.counts.size(); ++row) {
        for (std::size_t k = 0; k < g.reads[row].size(); ++k) {
            const window_read& r = g.reads[row][k];
            if (k > 0) names.markup(" ");
            names.fill("{}<a href=\"{}\">{}</a>", r.complemented ? '-' : '+', read_href(r.name),
                       r.name);
        }
        if (g.reads[row].empty()) names.markup(" ");
        names.markup("\n");
        // Neighbouring cells of one shade share a span: most of a row is close.
        int shade = -1;
        std::string cells;
        auto flush = [&] {
            if (shade < 0)
                map.text(cells);
            else
                map.fill(" <span class=\"{}\">{}</span>", shades[shade], cells.substr(1));
            cells.clear();
        };
        for (std::size_t k = 0; k < g.counts[row].size(); ++k) {
            const std::int32_t value = k < values[row].size() ? values[row][k] : -1;
            const std::int16_t count = g.counts[row][k];
            const int now =
                count < 0 || value < 0 ? -1 : static_cast<int>(classify_signal(value, count));
            if (now != shade) flush(), shade = now;
            cells += ' ';
            cells += signal_text(count < 0 ? -1 : value);
        }
        flush();
        map.markup("\n");
    }
}

}  // namespace browse

// Drawing a contig: flow maps of a window (plain text and two HTML forms), base-space
// alignment maps of the whole contig or a window, and the window as a character grid.
#include <sorvexa/contig.h>
#include "contig_window.h"

namespace {

// The three flow map forms differ only in their cells.
struct flow_map_style {
    bool html;                // letters and counts wrapped in coloured font elements
    const char* header_gap;   // between two header cells
    const char* indent_unit;  // per flow a read starts after the cursor's first flow
    enum { always, never, not_first } count_blank;  // blank before a count character
};

constexpr flow_map_style plain_style{false, "", "  ", flow_map_style::always};
constexpr flow_map_style html_style{true, "", " ", flow_map_style::never};
constexpr flow_map_style html_space_style{true, " ", "  ", flow_map_style::not_first};

// The single character that shows a flow's base count: a digit below 10, then A for 10 up
// to Z for 35, and on through the 8-bit character set beyond.
char count_char(int n) {
    if (n < 10) return static_cast<char>('0' + n);
    return static_cast<char>(static_cast<unsigned char>((55 + n) & 0xFF));
}

void open_font(std::string& out, color_map_t& colors, char x) {
    out += "<font color=";
    out += colors[x];  // a letter without a colour gains an empty one
    out += '>';
}

void flow_map(contig& c, const flow_map_style& style, std::string& out,
              std::vector<std::string>& read_names, color_map_t* colors, std::int64_t from,
              int width) {
    if (c.print_map.empty()) c.create_print_map();
    if (c.flow_consensus.empty()) c.create_flow_concensus();
    if (c.flow_consensus.empty()) {  // no reads or no consensus: only the header's line end
        out += '\n';
        return;
    }
    const std::int64_t last = contig_window::last_column(from, width);

    const contig_window::span header = contig_window::flow_range(c, from, last);
    for (std::int64_t f = header.first; f <= header.last; ++f) {
        const char x = contig_window::at(c.flow_consensus, f);
        if (f > header.first) out += style.header_gap;
        if (style.html) {
            open_font(out, *colors, x);
            out += x;
            out += "</font>";
        } else {
            out += ' ';
            out += x;
        }
    }
    out += '\n';

    const contig_window::bounds w = contig_window::select(c, from, last);
    for (const layout_row& row : c.print_map) {
        std::int64_t cursor = from - 1;
        contig_window::for_each_shown(c, row, w, [&](const contig_window::shown_read& s) {
            contig_window::flow_part p;
            if (!contig_window::clip_to_flows(c, s, p)) return;
            read_names.push_back(s.name);
            const std::int64_t indent_from = c.getFlowIdx_start(static_cast<std::int32_t>(cursor));
            const std::int64_t indent_to = c.getFlowIdx_start(static_cast<std::int32_t>(s.s - 1));
            for (std::int64_t k = indent_from; k < indent_to; ++k) out += style.indent_unit;
            cursor = p.e;
            contig_window::count_flows(
                c, s.read.sequence, p.i, p.j, p.fs, p.fe, [&](std::int64_t f, int n) {
                    const char x = contig_window::at(c.flow_consensus, f);
                    bool blank = style.count_blank == flow_map_style::always ||
                                 (style.count_blank == flow_map_style::not_first && f != p.fs);
                    if (style.html) open_font(out, *colors, x);
                    if (blank) out += ' ';
                    out += count_char(n);
                    if (style.html) out += "</font>";
                });
        });
        if (cursor != from - 1) out += '\n';
    }
}

// Appends the characters of `seq` for columns a..e of a read starting at s; characters
// past the stored sequence are not drawn.
void append_part(std::vector<char>& out, const std::vector<char>& seq, std::int64_t s,
                 std::int64_t a, std::int64_t e) {
    std::int64_t lo = std::max<std::int64_t>(a - s, 0);
    std::int64_t hi = std::min<std::int64_t>(e - s, static_cast<std::int64_t>(seq.size()) - 1);
    if (lo <= hi) out.insert(out.end(), seq.begin() + lo, seq.begin() + hi + 1);
}

void append_blanks(std::string& out, std::int64_t n) {
    if (n > 0) out.append(static_cast<std::size_t>(n), ' ');
}

// The whole contig, plain or coloured, built in one string.
std::string whole_map(contig& c, const color_map_t* colors) {
    if (c.print_map.empty()) c.create_print_map();
    std::string out;
    auto put = [&](const std::vector<char>& chars) {
        if (colors != nullptr)
            c.toHTML(out, chars, *colors);
        else
            out.append(chars.begin(), chars.end());
    };
    put(c.consensus);
    out += '\n';
    for (const layout_row& row : c.print_map) {
        std::int64_t e = 0;
        for (const auto& [s, name] : row) {
            auto rd = c.reads.find(name);
            if (rd == c.reads.end()) continue;
            append_blanks(out, s - 1 - e);
            put(rd->second.sequence);
            e = static_cast<std::int64_t>(s) + rd->second.length - 1;
        }
        out += '\n';
    }
    return out;
}

void window_map(contig& c, std::string& out, std::vector<std::string>& read_names,
                const color_map_t* colors, std::int64_t from, int width) {
    if (c.print_map.empty()) c.create_print_map();
    const std::int64_t last = contig_window::last_column(from, width);
    std::vector<char> chars;
    auto put = [&]() {
        if (colors != nullptr)
            c.toHTML(out, chars, *colors);
        else
            out.append(chars.begin(), chars.end());
        chars.clear();
    };
    const contig_window::span shown = contig_window::consensus_part(c, from, last);
    for (std::int64_t p = shown.first; p <= shown.last; ++p)
        chars.push_back(c.consensus[static_cast<std::size_t>(p - 1)]);
    put();
    out += '\n';

    const contig_window::bounds w = contig_window::select(c, from, last);
    for (const layout_row& row : c.print_map) {
        std::int64_t cursor = from - 1;
        contig_window::for_each_shown(c, row, w, [&](const contig_window::shown_read& s) {
            read_names.push_back(s.name);
            append_blanks(out, s.s - 1 - cursor);
            append_part(chars, s.read.sequence, s.s, s.a, s.e);
            put();
            cursor = s.e;
        });
        if (cursor != from - 1) out += '\n';
    }
}

}  // namespace

void contig::toHTML(std::string& out, const std::vector<char>& sequence,
                    const color_map_t& color_map) {
    std::size_t i = 0;
    while (i < sequence.size()) {
        auto colour = color_map.find(sequence[i]);
        if (colour == color_map.end()) {
            out += sequence[i++];
            continue;
        }
        std::size_t run = i;
        while (run < sequence.size() && sequence[run] == sequence[i]) ++run;
        out += "<font color=";
        out += colour->second;
        out += '>';
        out.append(sequence.begin() + i, sequence.begin() + run);
        out += "</font>";
        i = run;
    }
}

void contig::print_flow_map_plain(std::string& out, std::vector<std::string>& read_names,
                                  std::int32_t from, int width) {
    flow_map(*this, plain_style, out, read_names, nullptr, from, width);
}

void contig::print_flow_map_html(std::string& out, std::vector<std::string>& read_names,
                                 color_map_t& color_map, std::int32_t from, int width) {
    flow_map(*this, html_style, out, read_names, &color_map, from, width);
}

void contig::print_flow_map_html_space(std::string& out, std::vector<std::string>& read_names,
                                       color_map_t& color_map, std::int32_t from, int width) {
    flow_map(*this, html_space_style, out, read_names, &color_map, from, width);
}

void contig::print_align_map(std::ostream& out) {
    out << whole_map(*this, nullptr);
}

void contig::print_align_map_html(std::ostream& out, color_map_t& color_map) {
    out << whole_map(*this, &color_map);
}

void contig::print_align_map_plain(std::string& out, std::vector<std::string>& read_names,
                                   std::int32_t from, int width) {
    window_map(*this, out, read_names, nullptr, from, width);
}

void contig::print_align_map_html(std::string& out, std::vector<std::string>& read_names,
                                  color_map_t& color_map, std::int32_t from, int width) {
    window_map(*this, out, read_names, &color_map, from, width);
}

void contig::align_seq(std::vector<std::vector<char>>& base_columns,
                       std::vector<std::map<std::int32_t, std::string>>& seq_rows,
                       std::int32_t from, int width) {
    if (print_map.empty()) create_print_map();
    const std::int64_t last = contig_window::grid_last(*this, from, width);
    // A window that starts after the consensus has no columns.
    base_columns.resize(static_cast<std::size_t>(std::max<std::int64_t>(last - from + 1, 0)));

    const contig_window::bounds w = contig_window::select(*this, from, last);
    for (std::size_t r = 0; r < print_map.size(); ++r) {
        seq_rows.emplace_back();
        auto& row_reads = seq_rows[r];
        contig_window::for_each_shown(
            *this, print_map[r], w, [&](const contig_window::shown_read& s) {
                row_reads[static_cast<std::int32_t>(s.e - from)] = s.name;
                for (std::int64_t p = s.a; p <= s.e; ++p) {
                    std::int64_t k = p - from;
                    if (k < 0 || k >= static_cast<std::int64_t>(base_columns.size())) continue;
                    // a sequence shorter than its length has nothing to show past its end
                    if (p - s.s >= static_cast<std::int64_t>(s.read.sequence.size())) break;
                    auto& column = base_columns[static_cast<std::size_t>(k)];
                    if (column.size() < r + 1) column.resize(r + 1, '0');
                    column[r] = s.read.sequence[static_cast<std::size_t>(p - s.s)];
                }
            });
    }
}

namespace {

// Every read that covers a column of from..last, wherever it starts: the start columns to
// look at reach back by the longest read and forward to the window's end.
contig_window::bounds exact_bounds(const contig& c, std::int64_t from, std::int64_t last) {
    const contig_window::span cols = contig_window::consensus_part(c, from, last);
    return {cols.first, cols.last, std::max<std::int64_t>(1, cols.first - c.max_read_len + 1),
            cols.last};
}

}  // namespace

std::int64_t contig::window_rows(std::int64_t from, std::int64_t last,
                                 std::vector<std::int32_t>& rows) const {
    const contig_window::bounds w = exact_bounds(*this, from, last);
    std::int64_t shown = 0;
    for (std::size_t r = 0; r < print_map.size(); ++r) {
        std::int64_t in_row = 0;
        contig_window::for_each_shown(*this, print_map[r], w,
                                      [&](const contig_window::shown_read&) { ++in_row; });
        if (in_row == 0) continue;
        rows.push_back(static_cast<std::int32_t>(r));
        shown += in_row;
    }
    return shown;
}

void contig::draw_window(std::int64_t from, std::int64_t last,
                         const std::vector<std::int32_t>& rows, window_grid& out) const {
    const contig_window::bounds w = exact_bounds(*this, from, last);
    const std::int64_t columns = std::max<std::int64_t>(w.last - w.from + 1, 0);
    out.from = static_cast<std::int32_t>(w.from);
    out.last = static_cast<std::int32_t>(w.last);
    out.consensus.clear();
    for (std::int64_t p = w.from; p <= w.last; ++p)
        out.consensus += consensus[static_cast<std::size_t>(p - 1)];

    out.first_flow = 0;
    out.flows = 0;
    out.flow_letters.clear();
    const bool has_flows = !flow_consensus.empty() && columns > 0;
    if (has_flows) {
        const contig_window::span f = contig_window::flow_range(*this, w.from, w.last);
        out.first_flow = static_cast<std::int32_t>(f.first);
        out.flows = static_cast<std::int32_t>(std::max<std::int64_t>(f.last - f.first + 1, 0));
        for (std::int64_t k = f.first; k <= f.last; ++k)
            out.flow_letters += contig_window::at(flow_consensus, k);
    }

    out.layout_rows = rows;
    out.reads.assign(rows.size(), {});
    out.bases.assign(rows.size(), std::string(static_cast<std::size_t>(columns), ' '));
    out.counts.assign(rows.size(),
                      std::vector<std::int16_t>(static_cast<std::size_t>(out.flows), -1));
    if (columns == 0) return;
    for (std::size_t g = 0; g < rows.size(); ++g) {
        if (rows[g] < 0 || static_cast<std::size_t>(rows[g]) >= print_map.size()) continue;
        std::string& line = out.bases[g];
        std::vector<std::int16_t>& counts = out.counts[g];
        contig_window::for_each_shown(
            *this, print_map[static_cast<std::size_t>(rows[g])], w,
            [&](const contig_window::shown_read& s) {
                window_read r;
                r.name = s.name;
                r.start = static_cast<std::int32_t>(s.s);
                r.first = static_cast<std::int32_t>(s.a);
                r.last = static_cast<std::int32_t>(s.e);
                r.complemented = s.read.uncomplemented == 0;
                const auto held = static_cast<std::int64_t>(s.read.sequence.size());
                for (std::int64_t p = s.a; p <= s.e && p - s.s < held; ++p)
                    line[static_cast<std::size_t>(p - w.from)] =
                        s.read.sequence[static_cast<std::size_t>(p - s.s)];
                contig_window::flow_part part;
                if (has_flows && contig_window::clip_to_flows(*this, s, part)) {
                    r.first_flow = static_cast<std::int32_t>(part.fs - out.first_flow);
                    r.last_flow = static_cast<std::int32_t>(part.fe - out.first_flow);
                    contig_window::count_flows(*this, s.read.sequence, part.i, part.j, part.fs,
                                               part.fe, [&](std::int64_t f, int n) {
                                                   const std::int64_t k = f - out.first_flow;
                                                   if (k >= 0 && k < out.flows)
                                                       counts[static_cast<std::size_t>(k)] =
                                                           static_cast<std::int16_t>(n);
                                               });
                }
                out.reads[g].push_back(std::move(r));
            });
    }
}

#include "window_maps.h"

#include <algorithm>
#include <mutex>

#include "html.h"

namespace browse {

const color_map_t& base_colours() {
    static const color_map_t colours = {{'A', "#1a9850"}, {'C', "#2166ac"}, {'G', "#444444"},
                                        {'T', "#d73027"}, {'a', "#1a9850"}, {'c', "#2166ac"},
                                        {'g', "#444444"}, {'t', "#d73027"}};
    return colours;
}

int library_width(const contig& c, std::int64_t from, std::int64_t last) {
    return static_cast<int>(last - from + 1 + std::max<std::int64_t>(c.min_read_len - 1, 0));
}

std::vector<std::vector<std::string>> reads_by_row(const contig& c, std::int64_t from,
                                                   std::int64_t last) {
    std::vector<std::vector<std::string>> rows;
    const std::int64_t lo = std::max<std::int64_t>(1, from - c.max_read_len + 1);
    for (const layout_row& row : c.print_map) {
        std::vector<std::string> names;
        for (auto it = row.lower_bound(static_cast<std::int32_t>(lo));
             it != row.end() && it->first <= last; ++it) {
            auto rd = c.reads.find(it->second);
            if (rd == c.reads.end()) continue;
            if (std::int64_t{it->first} + rd->second.length - 1 >= from)
                names.push_back(it->second);
        }
        if (!names.empty()) rows.push_back(std::move(names));
    }
    return rows;
}

std::string cut_line(const std::string& line, std::size_t visible, bool html) {
    if (!html) return line.substr(0, std::min(visible, line.size()));
    std::string out;
    std::size_t shown = 0;
    bool open = false;
    for (std::size_t i = 0; i < line.size();) {
        if (line[i] == '<') {
            const std::size_t end = line.find('>', i);
            const std::size_t stop = end == std::string::npos ? line.size() : end + 1;
            const bool closing = line.compare(i, 2, "</") == 0;
            if (shown == visible && !closing) break;
            out.append(line, i, stop - i);
            open = !closing;
            i = stop;
            continue;
        }
        if (shown == visible) break;
        out += line[i++];
        ++shown;
    }
    if (open) out += "</font>";
    return out;
}

namespace {

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t nl = text.find('\n', at);
        if (nl == std::string::npos) nl = text.size();
        lines.push_back(text.substr(at, nl - at));
        at = nl + 1;
    }
    if (lines.empty()) lines.emplace_back();
    return lines;
}

void open_colour(std::string& out, char ch) {
    out += "<font color=";
    out += base_colours().at(ch);
    out += '>';
}

// A plain alignment line, escaped, with runs of one base in its colour.
std::string colour_align_line(const std::string& line) {
    std::string out;
    for (std::size_t i = 0; i < line.size();) {
        const char ch = line[i];
        std::size_t run = i;
        while (run < line.size() && line[run] == ch) ++run;
        const bool coloured = base_colours().count(ch) != 0;
        if (coloured) open_colour(out, ch);
        append_escaped(out, std::string_view(line).substr(i, run - i));
        if (coloured) out += "</font>";
        i = run;
    }
    return out;
}

// A plain flow-map line, escaped, each cell in the colour of its flow's letter (the letter
// of the header line above the same place).
std::string colour_flow_line(const std::string& line, const std::string& header) {
    std::string out;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char letter = i < header.size() ? header[i] : ' ';
        const bool coloured = line[i] != ' ' && base_colours().count(letter) != 0;
        if (coloured) open_colour(out, letter);
        append_escaped(out, std::string_view(&line[i], 1));
        if (coloured) out += "</font>";
    }
    return out;
}

struct draw_guard {
    std::unique_lock<std::mutex> lock;
    explicit draw_guard(built_contig& b) {
        if (!b.views_complete) lock = std::unique_lock<std::mutex>(b.draw_mutex);
    }
};

drawn_map finish(std::string&& text, std::vector<std::vector<std::string>>&& names,
                 std::size_t visible, bool html, bool from_library_html) {
    drawn_map m;
    m.lines = split_lines(text);
    for (std::string& line : m.lines) line = cut_line(line, visible, html && from_library_html);
    m.names.emplace_back();
    for (auto& row : names) m.names.push_back(std::move(row));
    m.names.resize(m.lines.size());
    m.from_library_html = html && from_library_html;
    return m;
}

}  // namespace

drawn_map align_map(built_contig& b, std::int64_t from, std::int64_t last, bool html) {
    draw_guard guard(b);
    contig& c = b.c;
    const int width = library_width(c, from, last);
    const auto visible = static_cast<std::size_t>(last - from + 1);
    std::string text;
    std::vector<std::string> drawn;
    const bool library_html = html && b.html_safe;
    if (library_html) {
        color_map_t colours = base_colours();
        c.print_align_map_html(text, drawn, colours, static_cast<std::int32_t>(from), width);
    } else {
        c.print_align_map_plain(text, drawn, static_cast<std::int32_t>(from), width);
    }
    drawn_map m = finish(std::move(text), reads_by_row(c, from, last), visible, html, library_html);
    if (html && !library_html)
        for (std::string& line : m.lines) line = colour_align_line(line);
    return m;
}

drawn_map flow_map(built_contig& b, std::int64_t from, std::int64_t last, bool html) {
    draw_guard guard(b);
    contig& c = b.c;
    const int width = library_width(c, from, last);
    std::size_t flows = 0;
    if (!c.flow_consensus.empty())
        flows =
            static_cast<std::size_t>(c.getFlowIdx_end(static_cast<std::int32_t>(last - 1)) -
                                     c.getFlowIdx_start(static_cast<std::int32_t>(from - 1)) + 1);
    std::string text;
    std::vector<std::string> drawn;
    const bool library_html = html && b.html_safe;
    if (library_html) {
        color_map_t colours = base_colours();  // the renderer adds letters it has no colour for
        c.print_flow_map_html_space(text, drawn, colours, static_cast<std::int32_t>(from), width);
    } else {
        c.print_flow_map_plain(text, drawn, static_cast<std::int32_t>(from), width);
    }
    // A flow takes two characters: in the spaced HTML map the first cell has no blank.
    const std::size_t visible = library_html ? (flows == 0 ? 0 : 2 * flows - 1) : 2 * flows;
    std::vector<std::vector<std::string>> rows;
    if (!c.flow_consensus.empty()) rows = reads_by_row(c, from, last);
    drawn_map m = finish(std::move(text), std::move(rows), visible, html, library_html);
    if (html && !library_html) {
        const std::string header = m.lines[0];
        for (std::string& line : m.lines) line = colour_flow_line(line, header);
    }
    return m;
}

}  // namespace browse

// The alignment map and the flow map of a window of a contig, cut to exactly the columns
// shown, with the names of the reads on each line.
//
// The library's window operations look for reads starting up to (last column - shortest read
// + 1), so a read that starts inside the window's last stretch would be missing. The library
// is therefore asked for a window wider by (shortest read - 1) columns: it then selects
// exactly the reads that cover a shown column, and its drawing is cut back to the shown
// columns here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "assembly.h"

namespace browse {

struct drawn_map {
    // Line 0 is the consensus (alignment map) or the flow letters (flow map); each further
    // line is one layout row with at least one read over the shown columns.
    std::vector<std::string> lines;
    std::vector<std::vector<std::string>> names;  // read names of each line; none on line 0
    bool from_library_html = false;               // lines are the library's HTML fragments
};

// The colours of the bases in both maps.
const color_map_t& base_colours();

// Columns from..last, 1 <= from <= last <= consensus length. HTML lines are escaped: the
// library's HTML fragment when the contig's characters are all plain, otherwise the same map
// drawn here from the library's plain text.
drawn_map align_map(built_contig& b, std::int64_t from, std::int64_t last, bool html);
drawn_map flow_map(built_contig& b, std::int64_t from, std::int64_t last, bool html);

// The width to ask the library for so that every read over columns from..last is selected.
int library_width(const contig& c, std::int64_t from, std::int64_t last);

// The reads over columns from..last, per layout row (rows without one left out), in the
// order the library draws them.
std::vector<std::vector<std::string>> reads_by_row(const contig& c, std::int64_t from,
                                                   std::int64_t last);

// `line` cut after `visible` characters; in HTML, markup does not count and an open font
// element is closed.
std::string cut_line(const std::string& line, std::size_t visible, bool html);

}  // namespace browse

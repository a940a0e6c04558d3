// A window of a contig as the contig page and its text form show it: the library's exact
// window (contig::draw_window) over the display copy of the contig, with the layout rows cut
// to a bounded page of rows, and both maps drawn from that one grid.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "assembly.h"
#include "html.h"

namespace browse {

// A page of rows holds at most this many rows, and at most max_cells / columns: the size of
// every window page is bounded whatever the contig's depth.
constexpr std::int64_t max_rows = 200;
constexpr std::int64_t min_rows = 50;
constexpr std::int64_t max_cells = 100000;
std::int64_t rows_per_page(std::int64_t columns);

struct window_view {
    window_grid grid;              // the rows of this page, drawn
    std::int64_t rows_over = 0;    // layout rows with a read over the window
    std::int64_t reads_over = 0;   // reads over the window
    std::int64_t reads_shown = 0;  // of those, the reads of this page's rows
    std::int64_t page = 1, pages = 1;
    std::vector<std::int16_t> quality;  // the consensus quality of each column, -1 for a pad
    std::int64_t unpadded_from = 0;     // the unpadded position of the first column's base
};

// Columns from..last (within the contig), rows page `page` (from 1). When the layout rows
// over the window are more than a page holds, page p of P takes every P-th of them from the
// p-th on, so each page samples the whole depth evenly and the pages together show every
// row. False when `page` lies past the last page.
bool build_view(const built_contig& b, std::int64_t from, std::int64_t last, std::int64_t page,
                window_view& out);

// The maps drawn in HTML: the names column and the map itself, one line each per row.
void align_map_html(const window_view& v, html& names, html& map);
void flow_map_html(const built_contig& b, const window_view& v, html& names, html& map);

// The same as plain text lines, with the reads of each row listed after the map.
void align_map_text(const window_view& v, std::string& out);
void flow_map_text(const window_view& v, std::string& out);

// The character that shows how many bases a flow carries: a digit, then A = 10 up to
// Z = 35, and '+' beyond; ' ' where the row has no read on the flow.
char count_char(int n);

}  // namespace browse

// Views of a contig as values: each is computed from a const contig and returned, so any
// number of threads may draw one contig at once without a lock, and the display choices a
// viewer makes (letter case, reads that start before column 1) are options here rather than
// edits a viewer makes to its own copy.
#pragma once

#include <sorvexa/contig.h>
#include <sorvexa/flowcheck.h>
#include <sorvexa/read_lookup.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct view_options {
    // Letters in capitals: a read's flow count stops at a lower-case letter otherwise.
    bool upper_case = false;
    // Reads that start before column 1 drawn from column 1 on: the layout leaves them out
    // otherwise. A read wholly before column 1 is left out either way.
    bool from_column_one = false;
};

// A contig as drawn under the options, with its layout and flow consensus built, so that
// every drawing operation on `shown` only reads it. The file's counts (CO line) stay the
// file's; the read statistics and the layout are those of what is drawn.
struct contig_display {
    contig shown;
    // The reads the options cut or left out, as the file places them (no sequence kept).
    std::map<std::string, READ> moved;
    // Consensus bases before column 1 + k * unpadded_step.
    std::vector<std::int32_t> unpadded_marks;
    static constexpr std::int64_t unpadded_step = 4096;

    // The read as the file places it (its start may lie before column 1); null when unknown.
    const READ* placed(const std::string& name) const;
    // Consensus bases (not pads) in columns 1..column.
    std::int64_t unpadded_at(std::int64_t column) const;
    // An estimate of the memory it holds.
    std::size_t bytes() const;
};
contig_display display(const contig& c, const view_options& options);
// The same from a contig the caller gives up (its views are dropped), without a copy of it.
contig_display display(contig&& c, const view_options& options);

// A page of the layout rows over columns from..last of `d`, drawn (contig::draw_window).
// With more rows than `per_page`, page p of P takes every P-th of them from the p-th on, so
// that each page samples the whole depth evenly and the pages together show every row.
struct window_page {
    window_grid grid;
    std::int64_t rows_over = 0;    // layout rows with a read over the window
    std::int64_t reads_over = 0;   // reads over the window
    std::int64_t reads_shown = 0;  // of those, the reads of this page's rows
    std::int64_t page = 1, pages = 1;
    std::vector<std::int16_t> quality;  // the consensus quality of each column, -1 for a pad
    std::int64_t unpadded_from = 0;     // the unpadded position of the first column's base
};
// False when `page` (from 1) lies past the last page.
bool page_of_window(const contig_display& d, std::int64_t from, std::int64_t last,
                    std::int64_t page, std::int64_t per_page, window_page& out);

// The rulers over a drawn window, each label ending over its column where it fits beside
// the one before: padded column numbers over every tenth column, unpadded positions over
// every tenth base.
struct window_rulers {
    std::string columns, unpadded;
};
window_rulers rulers_of(const window_page& page);
// Column numbers over the first flow of every tenth column of `grid`, two characters a flow
// (as a flow map draws them).
std::string flow_ruler(const contig& c, const window_grid& grid);

// The reads' bases that equal the consensus (letters compared without case) drawn as '.',
// as ',' on complemented reads, so that only the differences stand out.
void differences_only(window_grid& grid);

// The most reads over a column in each of `bins` equal stretches of the consensus (fewer
// when the consensus is shorter), and over any column; reads held to the consensus.
struct depth_profile {
    std::vector<std::int32_t> bins;
    std::int32_t max = 0;
};
depth_profile depth_of(const contig& c, std::int64_t bins);

// For each flow of a drawn window, the run of `runs` (index) that the flow measures, or -1:
// a run's flow is the flow of its first base's column, for a run of length 0 the first of its
// columns where a read opens a run of its letter.
std::vector<std::int32_t> runs_of_flows(const contig& c, const std::vector<hp_run>& runs,
                                        const window_grid& g);

// How far a measured value (hundredths) lies from the count the assembly gives its flow:
// close (within 0.25), borderline (within 0.5, the rounding boundary), disputed (beyond: it
// rounds to another count).
enum class signal_class { close, borderline, disputed };
signal_class classify_signal(std::int32_t value, std::int32_t count);

// A flow of one read that the assembly counts otherwise than the read measured, the value
// rounded to a whole count first.
struct disputed_flow {
    std::int32_t column = 0;  // the first column of the flow's bases (or where they would be)
    char letter = 'A';
    std::int16_t count = 0;  // what the assembly gives the flow
    std::int32_t value = 0;  // what the read measured (hundredths)
};
// Over the read's columns of `c` (the read's layout row drawn alone). Empty when the read is
// not in the layout.
std::vector<disputed_flow> disputed_flows(const contig& c, const std::string& name,
                                          const tied_read& tied);

// The reads of `c` over run `r` with a base on both sides of it: the reads that can measure it.
std::vector<std::string> reads_over(const contig& c, const hp_run& r);
// Each read's signal on run `r`; run_signal::read is the read's index in `names`. Reads that
// `tied` does not find give none.
std::vector<run_signal> run_signals(const contig& c, const hp_run& r,
                                    const std::vector<std::string>& names, const tied_lookup& tied);
// A lookup of the reads of `tied` by name (for grid_signals and run_signals).
tied_lookup lookup_in(const std::map<std::string, tied_read>& tied);

// One SFF record as a value: every base the record holds (clips aside), with the range the
// clips keep and the flow that called each base, as the library's reads have them.
struct record_view {
    std::string name;
    std::string flow_chars;  // the file's flow order, one letter per flow
    int key_length = 0;
    std::uint16_t clip_qual_left = 0, clip_qual_right = 0;
    std::uint16_t clip_adapter_left = 0, clip_adapter_right = 0;
    int kept_first = 0, kept_last = 0;    // 1-based kept bases (first > last: none)
    std::vector<std::uint16_t> flowgram;  // every flow, in hundredths
    std::string bases;
    std::vector<std::uint8_t> quality;       // per base
    std::vector<std::int32_t> flow_of_base;  // 0-based flow that called each base
};
// The record `r` last read (reader::cur_read).
record_view view_of_record(const reader& r);

// The named reads of `c` tied to their records, fetched through `fetcher` (file by file, each
// file's reader kept open); reads not found, not tied or in a file the fetcher refuses are
// left out.
std::map<std::string, tied_read> tie_reads(const contig& c, const read_lookup& lookup,
                                           read_fetcher& fetcher,
                                           const std::vector<std::string>& names);

// One contig of an ACE assembly: consensus, reads and the views derived from them
// (row layout, flow-space consensus), with the analysis and rendering operations
// that viewers call on it.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

// One read placed in a contig. Columns are padded consensus columns counted from 1;
// base k of the read lies in column start + k.
struct READ {
    std::string name;
    std::int32_t start = 0;
    std::int16_t length = 0;
    std::vector<char> sequence;
    int uncomplemented = 0;
    std::int16_t align_clip_start = 0;
    std::int16_t align_clip_end = 0;
};

// One read placed in flow space by align_flow; flows are counted from the window's first flow.
struct fRead {
    std::string name;
    std::int32_t flow_start = 0;
    std::int32_t flow_end = 0;
};

// One read of a window drawn by contig::draw_window.
struct window_read {
    std::string name;
    std::int32_t start = 0;            // the read's first column in the contig
    std::int32_t first = 0, last = 0;  // the columns of the window it covers
    std::int32_t first_flow = -1;      // the window flows its counts fill (0: the window's
    std::int32_t last_flow = -1;       // first flow); -1 when it has none
    bool complemented = false;
};

// A window of exactly the columns asked for, with every read that covers one of them: the
// selection, clipping and flow counting are the rules of the library's other window
// operations, without their bound on where a read may start. Rows are layout rows.
struct window_grid {
    std::int32_t from = 1, last = 0;              // columns (last < from: none)
    std::int32_t first_flow = 0, flows = 0;       // the contig flow of window flow 0, and how many
    std::string consensus;                        // one character per column
    std::string flow_letters;                     // one letter per window flow
    std::vector<std::int32_t> layout_rows;        // the print_map row of each grid row
    std::vector<std::vector<window_read>> reads;  // per grid row, by start
    std::vector<std::string> bases;               // per grid row, ' ' where no read
    std::vector<std::vector<std::int16_t>> counts;  // per grid row and window flow, -1: no read
};

// The flow order: the nucleotide offered by each flow, cycling.
extern const char fcycle[4];

using layout_row = std::map<std::int32_t, std::string>;
using color_map_t = std::map<char, std::string>;

class contig {
  public:
    std::string name;
    std::int32_t num_bases = 0;
    std::int32_t num_reads = 0;
    std::int32_t num_segments = 0;
    std::int16_t max_read_len = 0;
    std::int16_t min_read_len = 5000;
    double avg_read_len = 0.0;
    std::vector<char> consensus;
    // One quality per consensus base (pads have none), when the ACE reader was asked to keep
    // them (aceReader::keep_base_qualities).
    std::vector<std::uint8_t> base_qualities;
    int uncomplemented = 0;
    std::map<std::string, READ> reads;
    std::multimap<std::int32_t, std::string> pos_map;
    std::vector<layout_row> print_map;
    std::vector<std::map<char, std::int32_t>> flow_index;
    std::vector<char> flow_consensus;

    // Layout (contig.cpp).
    void create_pos_map();
    void create_print_map();
    void get_read_ids(std::vector<std::string>& ids);

    // Flow space (contig_flow.cpp).
    void create_flow_concensus();
    std::int32_t getFlowIdx_start(std::int32_t i) const;
    std::int32_t getFlowIdx_end(std::int32_t i) const;
    void align_flow(std::vector<std::vector<std::int16_t>>& flow_counts,
                    std::vector<std::map<std::int32_t, fRead>>& flow_rows, std::int32_t from,
                    int width);

    // Rendering (contig_render.cpp).
    void toHTML(std::string& out, const std::vector<char>& sequence, const color_map_t& color_map);
    void print_flow_map_plain(std::string& out, std::vector<std::string>& read_names,
                              std::int32_t from, int width);
    void print_flow_map_html(std::string& out, std::vector<std::string>& read_names,
                             color_map_t& color_map, std::int32_t from, int width);
    void print_flow_map_html_space(std::string& out, std::vector<std::string>& read_names,
                                   color_map_t& color_map, std::int32_t from, int width);
    void print_align_map(std::ostream& out);
    void print_align_map_html(std::ostream& out, color_map_t& color_map);
    void print_align_map_plain(std::string& out, std::vector<std::string>& read_names,
                               std::int32_t from, int width);
    void print_align_map_html(std::string& out, std::vector<std::string>& read_names,
                              color_map_t& color_map, std::int32_t from, int width);
    void align_seq(std::vector<std::vector<char>>& base_columns,
                   std::vector<std::map<std::int32_t, std::string>>& seq_rows, std::int32_t from,
                   int width);

    // Exact windows (contig_render.cpp). They only read the contig: its layout and flow
    // consensus have to be built first (create_print_map, create_flow_concensus); without
    // them a window has no rows, and without a flow consensus no flows.
    // The layout rows with at least one read over columns from..last (held to the consensus),
    // and how many reads those are.
    std::int64_t window_rows(std::int64_t from, std::int64_t last,
                             std::vector<std::int32_t>& rows) const;
    // Columns from..last (held to the consensus) drawn for the given layout rows, in the order
    // given; a row without a read over the window stays empty.
    void draw_window(std::int64_t from, std::int64_t last, const std::vector<std::int32_t>& rows,
                     window_grid& out) const;
};

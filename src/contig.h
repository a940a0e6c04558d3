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
};

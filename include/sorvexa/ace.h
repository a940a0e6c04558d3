// Reading an ACE assembly file contig by contig.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sorvexa/contig.h>
#include <sorvexa/detail/text_file.h>
#include <sorvexa/status.h>

// Where a program's outputs for the ACE file `ace_path` go: the path cut before its last
// ".ace", else before its last ".ACE", else the whole path.
std::string output_prefix(const std::string& ace_path);

class aceReader {
  public:
    std::string file_name;
    text_file ace_stream;
    int num_contigs = 0;
    std::int32_t total_reads = 0;
    // Whether next_contig keeps the consensus qualities (the BQ section) in
    // contig::base_qualities; a run has no use for them and passes over them.
    bool keep_base_qualities = false;
    // Why reading stopped early: the file could not be opened, is no ACE file, or a section
    // came out of order. Once set, next_contig reads nothing more and returns 0, so a loop
    // that ends at 0 checks it afterwards.
    sorvexa::status error;

    aceReader() = default;
    explicit aceReader(const std::string& file);
    ~aceReader();
    aceReader(const aceReader&) = delete;
    aceReader& operator=(const aceReader&) = delete;

    // 1 when the file was opened and starts as an ACE file; 0 with error set otherwise.
    int open_file(const char* file);
    void close_file();
    // Fills `c` (freshly constructed) with the next contig: 1 when a whole contig was read.
    int next_contig(contig& c);
    // Appends up to `count` contigs to `contigs`; returns how many were appended.
    int next_contig(std::vector<contig>& contigs, std::int16_t count);
    // Where the next call of next_contig begins to read, and that call made again later:
    // next_contig_at(tell() as it was, c) fills c with the contig that next_contig filled.
    std::int64_t tell() const { return ace_stream.tell(); }
    int next_contig_at(std::int64_t offset, contig& c);

  private:
    void read_as_line();
    int fail(std::string message);
    bool read_af_section(contig& c, const std::string& first_line);
    int read_rd_section(contig& c, std::string& line);
};

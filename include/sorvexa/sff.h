// SFF (454 flowgram) files: the record layouts and their byte order, the file reader with
// its read index, and the sequence read cut to a read's kept bases.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <sorvexa/detail/binary_file.h>
#include <sorvexa/status.h>

// Fixed part of the common header: the first 31 bytes of the file.
struct sff_header_p1 {
    unsigned char magic_number[4] = {0, 0, 0, 0};
    signed char version[4] = {0, 0, 0, 0};
    std::uint64_t index_offset = 0;
    std::uint32_t index_length = 0;
    std::uint32_t number_of_reads = 0;
    std::uint16_t header_length = 0;
    std::uint16_t key_length = 0;
    std::uint16_t number_of_flows_per_read = 0;
    std::int8_t flowgram_format_code = 0;

    static constexpr std::size_t size = 31;
    // Takes the 31 bytes in file order; numbers stay in file byte order until var_endian_swap.
    void load(const unsigned char* bytes);
    void var_endian_swap();
    void print(std::ostream& out) const;
};

// Variable part of the common header: flow characters and key sequence (not terminated).
struct sff_header_p2 {
    std::vector<char> flow_chars;
    std::vector<char> key_sequence;

    // Counts are 16-bit; a count beyond 32767 is taken as the unsigned value of its bits, so
    // that the buffers always match the header's unsigned fields.
    void alloc_space(std::int16_t flow_count, std::int16_t key_len);
    void print(std::ostream& out, std::int16_t flow_count, std::int16_t key_len) const;
};

// One read record. The buffers are replaced whole; their sizes are the counts of the
// header fields, except where the reader bounded them by the bytes left in the file.
struct sff_read {
    std::uint16_t read_header_length = 0;
    std::uint16_t name_length = 0;
    std::uint32_t number_of_bases = 0;
    std::uint16_t clip_qual_left = 0;
    std::uint16_t clip_qual_right = 0;
    std::uint16_t clip_adapter_left = 0;
    std::uint16_t clip_adapter_right = 0;
    std::uint16_t numOfFlows = 0;
    std::vector<char> name;
    std::vector<std::uint16_t> flowgram_values;
    std::vector<std::uint8_t> flow_index_per_base;
    std::vector<char> bases;
    std::vector<std::uint8_t> quality_scores;

    static constexpr std::size_t header_size = 16;

    sff_read();
    explicit sff_read(std::uint16_t flow_count);

    // Takes the 16 read-header bytes in file order.
    void load_header(const unsigned char* bytes);
    void set_numOfFlows(std::uint16_t flow_count);
    void set_read_space();
    // As set_read_space, with no buffer larger than `limit` elements and no per-base buffer
    // larger than `base_limit`.
    void set_read_space(std::uint64_t limit, std::uint64_t base_limit = UINT64_MAX);
    void free_space();
    void var_endian_swap();
    std::int16_t get_base_start() const;
    std::int16_t get_base_end() const;
    void map_flow_num(std::vector<std::int16_t>& flow_nums,
                      std::vector<std::int16_t>& run_lengths) const;
    void print_header(std::ostream& out) const;
    void print_read(std::ostream& out) const;

    // Bases whose per-base values are all held (number_of_bases unless bounded).
    std::size_t bases_held() const;
};

// A read's name and, for its kept bases only, the bases, quality scores and absolute flow
// numbers.
class seqRead {
  public:
    std::string name;
    std::vector<char> bases;
    std::vector<std::int16_t> quality_scores;
    std::vector<std::int16_t> flow_indexes;

    seqRead() = default;
    explicit seqRead(const sff_read& read);
    void assign(const sff_read& read);

    // How many of a read's bases assign() looks at: those up to the end of the kept range,
    // fewer than 65,536 since both ends of the range are 16-bit.
    static std::size_t bases_used(const sff_read& read);
};

// Read name (byte-wise order) to the byte offset of the read's record.
using read_index = std::map<std::string, std::int64_t>;

// The three ways a record is read. One decoder serves them all; these flags are everything
// they differ in.
struct record_pass {
    // A step of a walk over the records: it stops at number_of_reads and at the end of the
    // file, reports a short fixed part, counts in reads_done and leaves the file at the next
    // record (past the read data's padding). A positioned fetch does none of this.
    bool walk;
    // The name and the read data go into cur_read. Otherwise the name is only taken as a key,
    // up to its first NUL byte, and the rest of the record is passed in one step whose header
    // padding is a 64-bit difference (16-bit when the data is read).
    bool read_data;
    // The per-base values only as far as the kept bases reach (what seqRead::assign uses).
    bool kept_only;
};
inline constexpr record_pass index_walk{true, false, false};
inline constexpr record_pass sequential_read{true, true, false};
inline constexpr record_pass positioned_fetch{false, true, true};
inline constexpr record_pass whole_fetch{false, true, false};

class reader {
  public:
    binary_file sff_file;
    std::string file_name;
    bool swap_bytes = true;
    sff_header_p1 header_p1;
    sff_header_p2 header_p2;
    sff_read cur_read;
    std::uint64_t reads_done = 0;
    // Set once a header read on this reader has succeeded: until then the header fields
    // bound nothing and no walk over the records is made.
    bool header_known = false;
    // A walk steps over the file's own index block where the header says it stands among the
    // records, rather than reading it as a record.
    bool skip_index_block = false;

    // Why the reader cannot go on: the file could not be opened ("fail to open file NAME")
    // or is no SFF file ("The input file NAME is not a SFF file"). A reader with an error
    // reads nothing more.
    sorvexa::status error;
    // Where the reader's diagnostics go: a record cut short ("Error ocurred while reading
    // file NAME" on err, then "Only got N bytes while M is need" on out), a walk past the end
    // of the file ("reach end of file while read more data", err), the file size (out).
    sorvexa::diagnostic_sink diagnostics;

    // Opens the file; error says whether that worked.
    explicit reader(const std::string& name);
    reader(const reader&) = delete;
    reader& operator=(const reader&) = delete;

    // False, with error set, when the magic number is no SFF file's in either byte order.
    bool check_magic_number();
    std::int64_t file_size();
    void print_file_size();
    // False when the fixed header is cut short or the file is no SFF file (error set).
    bool get_header();

    // Reads the header, then walks every record, reading only its fixed part and name, and
    // sets index[name] = position (the name cut at its first NUL byte; a later record of the
    // same name wins). Any map from std::string to std::int64_t will do: the ordered
    // read_index, or a hash map where only lookups matter. False on a read error; the
    // entries made before it stay.
    template <class Index>
    bool build_read_index(Index& index) {
        reads_done = 0;
        get_header();
        if (!header_known) return false;  // the header fields would bound nothing
        std::string key;
        std::int64_t pos = 0;
        while (decode_record(index_walk, pos, &key)) index[key] = pos;
        return reads_done >= header_p1.number_of_reads;
    }

    // The next record, whole, into cur_read (the index form also records its position under
    // all of its name's bytes). The buffers are bounded by the bytes left in the file: a
    // record whose counts exceed the file gets no more per-base values than the file has
    // bytes after its fixed part, and what lies past the end of the file reads as zero.
    bool get_next_read(read_index& index);
    bool get_next_read();

    // Reads the record at `pos` into cur_read and fills `out` from it. Only what a read's
    // output needs is read: the fixed part, the name, the whole flowgram, and the per-base
    // values up to the end of the kept range (bases_held() tells how many; never more than
    // 65,535). Values past the end of the file read as zero. A fetch from a stream that has
    // failed (an earlier record ran past the end of the file) leaves `out` as it was and
    // cur_read empty with a zero flowgram, never the previous read's data.
    void get_read(const std::int64_t& pos, seqRead& out);
    // The same fetch into cur_read alone; false when the stream had failed.
    bool get_kept(std::int64_t pos);

    // Reads the whole record at `pos` into cur_read: every per-base value, as far as the file
    // holds them (what lies past its end reads as zero). False, with cur_read emptied, when
    // the stream has failed.
    bool get_record(const std::int64_t& pos);

  private:
    bool read_fixed(void* dst, std::size_t n);
    bool fetch(const record_pass& pass, std::int64_t pos);
    bool decode_record(const record_pass& pass, std::int64_t& pos, std::string* key);
    void read_name_and_data(const record_pass& pass);
    void step_over_index_block();
};

// Byte-exact SFF files for tests, fuzz corpora and the data-set generator. Every field can be
// set by hand, including ones that contradict each other, so that malformed files are as easy
// to make as well-formed ones; fields left at their defaults are derived from the data given.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

// splitmix64: a tiny generator with the same output on every platform (the standard
// distributions differ between standard libraries), so generated data is reproducible.
struct splitmix64 {
    std::uint64_t state;
    std::uint64_t next() {
        std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    // A value below n; multiply-shift, since draws are made for every base.
    std::uint32_t below(std::uint32_t n) {
        return static_cast<std::uint32_t>(((next() >> 32) * n) >> 32);
    }
    // True `part` times in `whole`.
    bool chance(std::uint32_t part, std::uint32_t whole) { return below(whole) < part; }
};

struct sff_read_layout {
    std::string name;
    // 0: 16 + name bytes, rounded up to a multiple of 8.
    std::uint16_t read_header_length = 0;
    // Written in place of name.size(); the name bytes themselves are written as given.
    std::optional<std::uint16_t> name_length;
    // Written as given, whatever the file header's flow count says.
    std::vector<std::uint16_t> flowgram;
    std::vector<std::uint8_t> flow_index_per_base;
    std::string bases;
    std::vector<std::uint8_t> quality;
    std::uint16_t clip_qual_left = 0;
    std::uint16_t clip_qual_right = 0;
    std::uint16_t clip_adapter_left = 0;
    std::uint16_t clip_adapter_right = 0;
    // Written in place of bases.size(); the three per-base arrays are written as given.
    std::optional<std::uint32_t> number_of_bases;
    std::uint8_t header_pad_byte = 0;
    std::uint8_t data_pad_byte = 0;
};

struct sff_file_layout {
    bool little_endian = false;
    // Default: 2E 73 66 66, or 66 66 73 2E for a little-endian file.
    std::optional<std::array<unsigned char, 4>> magic;
    // Single bytes, so the same in either byte order.
    std::array<signed char, 4> version{0, 0, 0, 1};
    std::uint64_t index_offset = 0;
    std::uint32_t index_length = 0;
    // Default: reads.size().
    std::optional<std::uint32_t> number_of_reads;
    // 0: 31 + flow characters + key, rounded up to a multiple of 8.
    std::uint16_t header_length = 0;
    // Default: key_sequence.size().
    std::optional<std::uint16_t> key_length;
    std::uint16_t number_of_flows_per_read = 400;
    std::int8_t flowgram_format_code = 1;
    // Default: "TACG" repeated to number_of_flows_per_read characters.
    std::optional<std::string> flow_chars;
    std::string key_sequence = "TCAG";
    std::vector<sff_read_layout> reads;
    // Appended after the last read, e.g. an index block.
    std::string trailing_bytes;
};

// "TACG" repeated to `count` characters.
std::string tacg_flows(std::size_t count);

// The common header with its padding: the bytes before the first read record.
std::string build_sff_header(const sff_file_layout& file);

// Appends one read record (read header, read data, padding) in the given byte order.
void append_sff_read(std::string& out, const sff_read_layout& read, bool little_endian);

// Number of bytes append_sff_read writes for `read`.
std::size_t sff_read_size(const sff_read_layout& read);

// Header, all reads, trailing bytes.
std::string build_sff(const sff_file_layout& file);

// Replaces the file at `path` with `bytes`; false when it cannot be written.
bool write_file(const std::string& path, const std::string& bytes);

// How many leading bases of `bases` a read with these flows can call: each homopolymer run
// needs a later flow of its letter, and the gap to it must fit the 8-bit per-base increment.
// Letters are matched case-insensitively; a base that no flow offers ends the count.
std::size_t fitting_bases(std::string_view bases, std::string_view flow_chars);

// A read whose flowgram and flow indexes agree with its bases: every homopolymer run is
// called in the next flow of its letter, with a signal of about 100 per base there and a
// small one in every other flow. Bases beyond fitting_bases() are dropped; `quality` is cut
// or filled up (with 30) to the remaining length. Clips are left 0. The signal noise comes
// from `seed` alone, so equal arguments give equal reads.
sff_read_layout make_read(std::string name, std::string bases, std::string_view flow_chars,
                          std::vector<std::uint8_t> quality, std::uint64_t seed);

// Upper-case bases on the other strand (anything but A, C, G becomes A), as a complemented
// read or a reverse-strand alignment stores them.
inline std::string reverse_complement(std::string_view s) {
    std::string out;
    for (auto it = s.rbegin(); it != s.rend(); ++it)
        out += *it == 'A' ? 'T' : *it == 'C' ? 'G' : *it == 'G' ? 'C' : 'A';
    return out;
}

}  // namespace fixture

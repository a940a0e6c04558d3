// Reading an SFF file: the reader's file, its header, and the record operations that the
// decoder (sff_decode.cpp) serves.
#include <algorithm>
#include <string>

#include "byte_order.h"
#include <sorvexa/sff.h>

namespace {

void report(const sorvexa::diagnostic_sink& sink, sorvexa::stream where, const std::string& line) {
    if (sink) sink(where, line);
}

}  // namespace

reader::reader(const std::string& name) : file_name(name) {
    if (!sff_file.open(file_name)) error = sorvexa::status::failure("fail to open file " + file_name);
}

bool reader::check_magic_number() {
    const std::uint32_t m = byte_order::big_endian32(header_p1.magic_number);
    if (m == 0x2E736666) {
        swap_bytes = true;
    } else if (byte_order::reversed(m) == 0x2E736666) {
        swap_bytes = false;
    } else {
        error = sorvexa::status::failure("The input file " + file_name + " is not a SFF file");
        return false;
    }
    return true;
}

std::int64_t reader::file_size() {
    sff_file.seek_end();
    return sff_file.tell();
}

void reader::print_file_size() {
    const std::int64_t size = file_size();
    report(diagnostics, sorvexa::stream::out,
           "input file size: " + std::to_string(static_cast<std::uint64_t>(size)));
}

// Reads a fixed part; on a short read reports it, clears the error state and fails.
bool reader::read_fixed(void* dst, std::size_t n) {
    const std::size_t got = sff_file.read(dst, n);
    if (got == n) return true;
    report(diagnostics, sorvexa::stream::err, "Error ocurred while reading file " + file_name);
    report(diagnostics, sorvexa::stream::out,
           "Only got " + std::to_string(got) + " bytes while " + std::to_string(n) + " is need");
    sff_file.clear();
    return false;
}

bool reader::get_header() {
    if (!error.ok) return false;
    sff_file.seek(0);
    unsigned char fixed[sff_header_p1::size];
    if (!read_fixed(fixed, sizeof fixed)) return false;
    header_p1.load(fixed);
    if (!check_magic_number()) return false;
    if (swap_bytes) header_p1.var_endian_swap();
    header_p2.alloc_space(static_cast<std::int16_t>(header_p1.number_of_flows_per_read),
                          static_cast<std::int16_t>(header_p1.key_length));
    sff_file.read(header_p2.flow_chars.data(), header_p2.flow_chars.size(),
                  header_p1.number_of_flows_per_read);
    sff_file.read(header_p2.key_sequence.data(), header_p2.key_sequence.size(),
                  header_p1.key_length);
    cur_read.set_numOfFlows(header_p1.number_of_flows_per_read);
    sff_file.seek(header_p1.header_length);
    header_known = true;
    return true;
}

bool reader::get_next_read(read_index& index) {
    std::int64_t pos = 0;
    if (!decode_record(sequential_read, pos, nullptr)) return false;
    index[std::string(cur_read.name.begin(), cur_read.name.end())] = pos;
    return true;
}

bool reader::get_next_read() {
    std::int64_t pos = 0;
    return decode_record(sequential_read, pos, nullptr);
}

void reader::get_read(const std::int64_t& pos, seqRead& out) {
    if (get_kept(pos)) out.assign(cur_read);
}

bool reader::get_kept(std::int64_t pos) {
    return fetch(positioned_fetch, pos);
}

bool reader::get_record(const std::int64_t& pos) {
    return fetch(whole_fetch, pos);
}

// A fetch from a failed stream leaves cur_read empty with a zero flowgram, never the
// previous read's data.
bool reader::fetch(const record_pass& pass, std::int64_t pos) {
    sff_file.seek(pos);
    if (sff_file.fail()) {
        std::fill(cur_read.flowgram_values.begin(), cur_read.flowgram_values.end(), 0);
        unsigned char zero[sff_read::header_size] = {};
        cur_read.load_header(zero);
        cur_read.set_read_space();
        return false;
    }
    decode_record(pass, pos, nullptr);
    return true;
}

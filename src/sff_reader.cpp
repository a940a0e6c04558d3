// Reading an SFF file: header, the walk that indexes every read by name, and fetching
// whole records one after another or by position.
#include <algorithm>
#include <cstring>
#include <iostream>

#include "process_exit.h"
#include "sff.h"

namespace {

void swap_flowgram(std::vector<std::uint16_t>& values) {
    for (auto& v : values) v = static_cast<std::uint16_t>((v >> 8) | (v << 8));
}

// A skip that would move backwards (a read header length below 16 plus the name) is not
// made: the reader never steps back into the record it is reading.
std::int64_t forward(std::int64_t skip) {
    return skip > 0 ? skip : 0;
}

}  // namespace

reader::reader(const std::string& name) : file_name(name) {
    if (!sff_file.open(file_name)) {
        std::cerr << "fail to open file " << file_name << std::endl;
        sorvexa::fatal_exit(1);
    }
}

bool reader::check_magic_number() {
    const unsigned char* m = header_p1.magic_number;
    const std::uint32_t be =
        std::uint32_t{m[0]} << 24 | std::uint32_t{m[1]} << 16 | std::uint32_t{m[2]} << 8 | m[3];
    const std::uint32_t le =
        std::uint32_t{m[3]} << 24 | std::uint32_t{m[2]} << 16 | std::uint32_t{m[1]} << 8 | m[0];
    if (be == 0x2E736666) {
        swap_bytes = true;
    } else if (le == 0x2E736666) {
        swap_bytes = false;
    } else {
        std::cerr << "The input file " << file_name << " is not a SFF file" << std::endl;
        sorvexa::fatal_exit(1);
    }
    return true;
}

void reader::print_file_size() {
    sff_file.seek_end();
    std::cout << "input file size: " << static_cast<std::uint64_t>(sff_file.tell()) << std::endl;
}

// Reads a fixed part; on a short read reports it, clears the error state and fails.
bool reader::read_fixed(void* dst, std::size_t n) {
    const std::size_t got = sff_file.read(dst, n);
    if (got == n) return true;
    std::cerr << "Error ocurred while reading file " << file_name << std::endl;
    std::cout << "Only got " << got << " bytes while " << n << " is need" << std::endl;
    sff_file.clear();
    return false;
}

bool reader::get_header() {
    sff_file.seek(0);
    unsigned char fixed[sff_header_p1::size];
    if (!read_fixed(fixed, sizeof fixed)) return false;
    header_p1.load(fixed);
    check_magic_number();
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

// The walk reads only each record's fixed part and name and skips the read data. After a
// failed header read on a reader that never read one, the header fields bound nothing, so
// there is no walk.
bool reader::build_read_index(read_index& index) {
    return walk_read_index(
        [](void* target, std::string_view name, std::int64_t pos) {
            (*static_cast<read_index*>(target))[std::string(name)] = pos;
        },
        &index);
}

bool reader::walk_read_index(index_entry_fn add, void* target) {
    reads_done = 0;
    get_header();
    if (!header_known) return false;
    const std::int64_t flow_bytes = 2 * static_cast<std::int64_t>(cur_read.numOfFlows);
    std::vector<char> name;
    unsigned char fixed[sff_read::header_size];
    for (;;) {
        if (reads_done >= header_p1.number_of_reads) return true;
        if (sff_file.eof()) {
            std::cerr << "reach end of file while read more data" << std::endl;
            return false;
        }
        const std::int64_t pos = sff_file.tell();
        if (!read_fixed(fixed, sizeof fixed)) return false;
        cur_read.load_header(fixed);
        if (swap_bytes) cur_read.var_endian_swap();
        // The key ends at the first NUL byte of the name.
        name.resize(cur_read.name_length);
        sff_file.read(name.data(), name.size());
        add(target,
            std::string_view(
                name.data(),
                static_cast<std::size_t>(std::find(name.begin(), name.end(), '\0') - name.begin())),
            pos);
        const std::int64_t data =
            3 * static_cast<std::int64_t>(cur_read.number_of_bases) + flow_bytes;
        const std::int64_t pad = data % 8 == 0 ? 0 : 8 - data % 8;
        const std::int64_t rest =
            static_cast<std::int64_t>(cur_read.read_header_length) - cur_read.name_length - 16;
        sff_file.seek_relative(forward(rest) + data + pad);
        ++reads_done;
    }
}

bool reader::get_next_read(read_index& index) {
    return next_record(&index);
}

bool reader::get_next_read() {
    return next_record(nullptr);
}

// Reads the name, the read header's padding and the read data of the record whose fixed
// part is in cur_read. The buffers are bounded by the bytes left in the file, so a corrupt
// count cannot make them larger than the file; what a short read does not reach is zero.
void reader::read_record_body() {
    cur_read.set_read_space(static_cast<std::uint64_t>(sff_file.bytes_left()));
    sff_file.read(cur_read.name.data(), cur_read.name.size(), cur_read.name_length);
}

bool reader::next_record(read_index* index) {
    if (reads_done >= header_p1.number_of_reads) return false;
    if (sff_file.eof()) {
        std::cerr << "reach end of file while read more data" << std::endl;
        return false;
    }
    const std::int64_t pos = sff_file.tell();
    unsigned char fixed[sff_read::header_size];
    if (!read_fixed(fixed, sizeof fixed)) return false;
    cur_read.load_header(fixed);
    if (swap_bytes) cur_read.var_endian_swap();
    read_record_body();
    if (index != nullptr) (*index)[std::string(cur_read.name.begin(), cur_read.name.end())] = pos;
    sff_file.seek_relative(forward(
        static_cast<std::int16_t>(cur_read.read_header_length - cur_read.name_length - 16)));
    read_record_data();
    const std::int64_t data = 3 * static_cast<std::int64_t>(cur_read.number_of_bases) +
                              2 * static_cast<std::int64_t>(cur_read.numOfFlows);
    if (data % 8 != 0) sff_file.seek_relative(8 - data % 8);
    ++reads_done;
    return true;
}

void reader::read_record_data() {
    auto& flows = cur_read.flowgram_values;
    sff_file.read(flows.data(), flows.size() * 2,
                  2 * static_cast<std::size_t>(cur_read.numOfFlows));
    const std::size_t b = cur_read.number_of_bases;
    sff_file.read(cur_read.flow_index_per_base.data(), cur_read.flow_index_per_base.size(), b);
    sff_file.read(cur_read.bases.data(), cur_read.bases.size(), b);
    sff_file.read(cur_read.quality_scores.data(), cur_read.quality_scores.size(), b);
    if (swap_bytes) swap_flowgram(flows);
}

// A fetch from a stream that has failed (an earlier record ran into the end of the file)
// leaves `out` as it was and cur_read empty, flowgram zeroed, so that the caller never sees
// the data of the read fetched before.
void reader::get_read(const std::int64_t& pos, seqRead& out) {
    sff_file.seek(pos);
    if (sff_file.fail()) {
        std::fill(cur_read.flowgram_values.begin(), cur_read.flowgram_values.end(), 0);
        unsigned char zero[sff_read::header_size] = {};
        cur_read.load_header(zero);
        cur_read.set_read_space();
        return;
    }
    unsigned char fixed[sff_read::header_size];
    sff_file.read(fixed, sizeof fixed);
    cur_read.load_header(fixed);
    if (swap_bytes) cur_read.var_endian_swap();
    read_record_body();
    sff_file.seek_relative(forward(
        static_cast<std::int16_t>(cur_read.read_header_length - cur_read.name_length - 16)));
    read_record_data();
    out.assign(cur_read);
}

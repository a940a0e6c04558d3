// SFF reader: the input is the whole SFF file. One reader reads the header, indexes the
// reads and fetches each indexed record by its position, as the tool does; a second reader
// walks the records one after another. Every record and header is also printed (into a
// stream that drops the text) and cut to its kept bases.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include <sorvexa/sff.h>

namespace {

using fuzz_support::null_stream;

void print_headers(const reader& r) {
    r.header_p1.print(null_stream());
    r.header_p2.print(null_stream(),
                      static_cast<std::int16_t>(r.header_p1.number_of_flows_per_read),
                      static_cast<std::int16_t>(r.header_p1.key_length));
}

void print_record(const sff_read& raw) {
    raw.print_header(null_stream());
    raw.print_read(null_stream());
    std::vector<std::int16_t> flow_nums, run_lengths;
    raw.map_flow_num(flow_nums, run_lengths);
}

void run(const std::string& path) {
    seqRead read;
    {
        reader r(path);
        if (r.get_header()) print_headers(r);
        read_index index;
        r.build_read_index(index);
        for (const auto& entry : index) {
            r.get_read(entry.second, read);
            print_record(r.cur_read);
        }
    }
    reader r(path);
    r.print_file_size();
    r.get_header();
    // Both forms of the walk, taking turns record by record.
    read_index walk_index;
    for (;;) {
        const bool ok = r.reads_done % 2 == 0 ? r.get_next_read() : r.get_next_read(walk_index);
        if (!ok) break;
        print_record(r.cur_read);
        read.assign(r.cur_read);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_support::start_target();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = fuzz_support::scratch_path("input.sff");
    fuzz_support::write_file(path, data, size);
    fuzz_support::run_input([] { run(path); });
    return 0;
}

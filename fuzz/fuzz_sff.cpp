// SFF reader: the input is the whole SFF file. One reader reads the header, indexes the
// reads and fetches each indexed record by its position, as the tool does; a second reader
// walks the records one after another. Every record and header is also printed (into a
// stream that drops the text) and cut to its kept bases.
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "process_exit.h"
#include "sff.h"

namespace {

using fuzz_support::null_stream;

struct state {
    fuzz_support::slot<reader> rd;
    read_index index;
    read_index walk_index;
    seqRead read;
    std::vector<std::int16_t> flow_nums;
    std::vector<std::int16_t> run_lengths;

    void reset() {
        rd.reset();
        index.clear();
        walk_index.clear();
        read = seqRead{};
        flow_nums.clear();
        run_lengths.clear();
    }
};

state& st() {
    static state s;
    return s;
}

void print_headers(const reader& r) {
    r.header_p1.print(null_stream());
    r.header_p2.print(null_stream(),
                      static_cast<std::int16_t>(r.header_p1.number_of_flows_per_read),
                      static_cast<std::int16_t>(r.header_p1.key_length));
}

void print_record(const sff_read& raw) {
    raw.print_header(null_stream());
    raw.print_read(null_stream());
    state& s = st();
    s.flow_nums.clear();
    s.run_lengths.clear();
    raw.map_flow_num(s.flow_nums, s.run_lengths);
}

void run(const std::string& path) {
    state& s = st();
    {
        reader& r = s.rd.emplace(path);
        if (r.get_header()) print_headers(r);
        r.build_read_index(s.index);
        for (const auto& entry : s.index) {
            r.get_read(entry.second, s.read);
            print_record(r.cur_read);
        }
        s.rd.reset();
    }
    {
        reader& r = s.rd.emplace(path);
        r.print_file_size();
        r.get_header();
        // Both forms of the walk, taking turns record by record.
        for (;;) {
            const bool ok =
                r.reads_done % 2 == 0 ? r.get_next_read() : r.get_next_read(s.walk_index);
            if (!ok) break;
            print_record(r.cur_read);
            s.read.assign(r.cur_read);
        }
        s.rd.reset();
    }
}

}  // namespace

// Memory that library frames had allocated when a fatal jump skipped them is lost by
// design; a leak report at exit would only list those frames.
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0";
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_support::silence_library_output();
    sorvexa::process_exit = fuzz_support::jump_back;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = fuzz_support::scratch_path("input.sff");
    fuzz_support::write_file(path, data, size);
    if (setjmp(fuzz_support::jump_target()) == 0) run(path);
    st().reset();
    return 0;
}

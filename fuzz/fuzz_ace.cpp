// ACE reader: the input is the whole ACE file. It is read once contig by contig through a
// reader made by the file-name constructor, then again in batches through a default-made
// reader and open_file. Contigs small enough to draw cheaply are also laid out and drawn,
// since a parsed contig can hold what no hand-made one would (reads before column 1, a
// CO length that disagrees with the consensus, lengths that do not parse).
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ace.h"
#include "contig.h"
#include "fuzz_support.h"
#include "process_exit.h"

namespace {

using fuzz_support::null_stream;

// Everything that outlives a fatal jump lives here, so that the target can release it.
struct state {
    fuzz_support::slot<aceReader> ace;
    contig one;
    std::vector<contig> batch;
    std::string out;
    std::vector<std::string> names;

    void reset() {
        ace.reset();
        one = contig{};
        batch.clear();
        out.clear();
        names.clear();
    }
};

state& st() {
    static state s;
    return s;
}

// Drawings grow with the columns between column 1 and the farthest read; a parsed start
// may legitimately lie anywhere in the 32-bit range, so only contigs whose reads stay near
// the consensus are drawn.
bool small_enough(const contig& c) {
    constexpr std::int64_t bound = 4000;
    if (c.consensus.size() > bound || c.num_bases > bound || c.reads.size() > 200) return false;
    for (const auto& entry : c.reads)
        if (entry.second.start < -bound || entry.second.start > bound) return false;
    return true;
}

void exercise(contig& c) {
    state& s = st();
    s.names.clear();
    c.get_read_ids(s.names);
    if (!small_enough(c)) return;
    const auto L = static_cast<std::int32_t>(c.consensus.size());
    color_map_t colors{{'A', "green"}, {'C', "blue"}, {'G', "black"}, {'T', "red"}};
    c.print_align_map(null_stream());
    c.print_align_map_html(null_stream(), colors);
    for (std::int32_t from : {1, L > 60 ? L - 60 : 1}) {
        s.out.clear();
        c.print_flow_map_plain(s.out, s.names, from, 120);
        c.print_flow_map_html_space(s.out, s.names, colors, from, 120);
        c.print_align_map_plain(s.out, s.names, from, 120);
        std::vector<std::vector<std::int16_t>> counts;
        std::vector<std::map<std::int32_t, fRead>> rows;
        c.align_flow(counts, rows, from, 120);
        std::vector<std::vector<char>> columns;
        std::vector<std::map<std::int32_t, std::string>> seq_rows;
        c.align_seq(columns, seq_rows, from, 120);
    }
}

void run(const std::string& path, std::size_t size) {
    state& s = st();
    {
        aceReader& ace = s.ace.emplace(path);
        for (;;) {
            s.one = contig{};
            if (ace.next_contig(s.one) == 0) break;
            exercise(s.one);
        }
        s.ace.reset();
    }
    // Every open allocates the reader's megabyte line buffer, which dominates the time of a
    // run; the batch form only wraps the single-contig call, so a quarter of the inputs
    // (picked by size, which every mutation changes freely) is enough for it.
    if (size % 4 != 0) return;
    {
        aceReader& ace = s.ace.emplace();
        ace.open_file(path.c_str());
        for (;;) {
            s.batch.clear();
            const int got = ace.next_contig(s.batch, 2);
            for (contig& c : s.batch) exercise(c);
            if (got < 2) break;
        }
        s.ace.reset();
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
    // A reader that never opened a file reports that and finds nothing.
    aceReader unopened;
    contig c;
    if (unopened.next_contig(c) != 0) __builtin_trap();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = fuzz_support::scratch_path("input.ace");
    fuzz_support::write_file(path, data, size);
    if (setjmp(fuzz_support::jump_target()) == 0) run(path, size);
    st().reset();
    return 0;
}

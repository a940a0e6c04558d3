// ACE reader: the input is the whole ACE file. It is read once contig by contig through a
// reader made by the file-name constructor, then again in batches through a default-made
// reader and open_file. Contigs small enough to draw cheaply are also laid out and drawn,
// since a parsed contig can hold what no hand-made one would (reads before column 1, a
// CO length that disagrees with the consensus, lengths that do not parse).
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sorvexa/ace.h>
#include <sorvexa/contig.h>
#include "fuzz_support.h"

namespace {

using fuzz_support::null_stream;

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
    std::vector<std::string> names;
    c.get_read_ids(names);
    if (!small_enough(c)) return;
    const auto L = static_cast<std::int32_t>(c.consensus.size());
    color_map_t colors{{'A', "green"}, {'C', "blue"}, {'G', "black"}, {'T', "red"}};
    c.print_align_map(null_stream());
    c.print_align_map_html(null_stream(), colors);
    for (std::int32_t from : {1, L > 60 ? L - 60 : 1}) {
        std::string out;
        c.print_flow_map_plain(out, names, from, 120);
        c.print_flow_map_html_space(out, names, colors, from, 120);
        c.print_align_map_plain(out, names, from, 120);
        std::vector<std::vector<std::int16_t>> counts;
        std::vector<std::map<std::int32_t, fRead>> rows;
        c.align_flow(counts, rows, from, 120);
        std::vector<std::vector<char>> columns;
        std::vector<std::map<std::int32_t, std::string>> seq_rows;
        c.align_seq(columns, seq_rows, from, 120);
    }
}

void run(const std::string& path, std::size_t size) {
    {
        aceReader ace(path);
        for (;;) {
            contig one;
            if (ace.next_contig(one) == 0) break;
            exercise(one);
        }
    }
    // Every open allocates the reader's line buffer, which dominates the time of a run; the
    // batch form only wraps the single-contig call, so a quarter of the inputs (picked by
    // size, which every mutation changes freely) is enough for it.
    if (size % 4 != 0) return;
    aceReader ace;
    ace.open_file(path.c_str());
    for (;;) {
        std::vector<contig> batch;
        const int got = ace.next_contig(batch, 2);
        for (contig& c : batch) exercise(c);
        if (got < 2) break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_support::start_target();
    // A reader that never opened a file reports that and finds nothing.
    aceReader unopened;
    contig c;
    if (unopened.next_contig(c) != 0) __builtin_trap();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = fuzz_support::scratch_path("input.ace");
    fuzz_support::write_file(path, data, size);
    fuzz_support::run_input([size] { run(path, size); });
    return 0;
}

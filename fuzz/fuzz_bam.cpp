// Alignments read as contigs: the input is SAM text (a header of its own when it begins with
// '@', else a fixed header with two references and a read group with a flow order), after
// three bytes that pick the window size, the margin and the least mapping quality. Every
// reference is read window by window and checked, as sorvexa-flowcheck --bam does.
//
// Besides the sanitizers, the target checks what the contig model promises the check and
// the views: every read's padded sequence is as long as it says, lies on columns, and its tie
// gives one flow per padded base, each inside its flowgram; every report row and edit lies
// on its reference.
#include <htslib/hts_log.h>
#include <sorvexa/alignment.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"

namespace {

[[noreturn]] void broken(const char* what) {
    std::fprintf(stderr, "fuzz_bam: %s\n", what);
    std::abort();
}

const std::string& reference_path() {
    static const std::string path = [] {
        const std::string p = fuzz_support::scratch_path("ref.fa");
        const std::string text =
            ">r1\nACGTTTGACCAAAGGGTACGATTTTCAGCATGCAAACCCGTTAGGCATTTACGGAACTGACCCAATGGTTT"
            "AGCAGGTTCAAAGTCCATGACCGTAAATTTGGCCAAGTTTACGGATCCA\n>r2\nTTTGGGCCCAAATGCA"
            "TGCATGACGTACGTTTTAAAACCCCGGGGTTTTACGTACGTAAC\n";
        fuzz_support::write_file(p, reinterpret_cast<const std::uint8_t*>(text.data()),
                                 text.size());
        return p;
    }();
    return path;
}

void check_window_contig(const aligned_window& w) {
    const auto columns = static_cast<std::int64_t>(w.c.consensus.size());
    for (const auto& [name, read] : w.c.reads) {
        if (read.length < 1 || static_cast<std::size_t>(read.length) != read.sequence.size())
            broken("a read's length is not its sequence's");
        if (read.start < 1 || read.start + read.length - 1 > columns)
            broken("a read lies outside the window's columns");
        if (read.align_clip_start < 1 || read.align_clip_end > read.length ||
            read.align_clip_start > read.align_clip_end)
            broken("align clips outside the read");
    }
    for (const auto& [name, t] : w.tied) {
        const auto it = w.c.reads.find(name);
        if (it == w.c.reads.end()) broken("a tie of no read");
        if (t.base_flow.size() != it->second.sequence.size()) broken("a tie's length");
        for (std::int32_t f : t.base_flow)
            if (f >= static_cast<std::int32_t>(t.flowgram.size()))
                broken("a flow past the flowgram");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool started = [] {
        fuzz_support::start_target();
        hts_set_log_level(HTS_LOG_OFF);
        return true;
    }();
    (void)started;
    if (size < 3) return 0;
    const std::int64_t window = 1 + data[0], margin = data[1];
    const std::int32_t min_mapq = data[2] % 64;
    std::string sam(reinterpret_cast<const char*>(data + 3), size - 3);
    if (sam.empty() || sam[0] != '@')
        sam =
            "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:r1\tLN:120\n@SQ\tSN:r2\tLN:60\n"
            "@RG\tID:g\tFO:TACGTACGTACGTACGTACGTACGTACGTACGTACGTACGTACGTACGTACG\tKS:TCAG\n" +
            sam;
    const std::string path = fuzz_support::scratch_path("in.sam");
    fuzz_support::write_file(path, reinterpret_cast<const std::uint8_t*>(sam.data()), sam.size());

    alignment_file in;
    in.options.min_mapq = min_mapq;
    if (!in.open(path, reference_path(), nullptr)) return 0;
    flow_check check;
    for (std::size_t ref = 0; ref < in.references().size(); ++ref) {
        const auto r = static_cast<std::int32_t>(ref);
        contig_report whole;
        for (const alignment_window& at :
             alignment_windows(r, in.references()[ref].length, window, margin)) {
            aligned_window w;
            if (!in.read(at, w)) return 0;
            check_window_contig(w);
            check_window(check, w, true, whole);
        }
        if (!finish_reference(in, r, whole)) return 0;
        const auto length = static_cast<std::int64_t>(whole.unpadded.size());
        for (const report_row& row : whole.rows)
            if (row.run.position < 1 || row.run.position > length + 1)
                broken("a row off the reference");
        for (const consensus_edit& e : whole.edits)
            if (e.begin < 0 || e.end > length || e.begin > e.end)
                broken("an edit off the reference");
    }
    return 0;
}

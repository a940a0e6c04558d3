// Alignments (SAM, BAM or CRAM, sorted by coordinate) against a reference FASTA, read as the
// contig model an ACE file gives: the reference as the consensus, a pad column wherever a read
// inserts, every read placed with its pads and orientation. A reference sequence is read in
// windows, each with a margin on either side, so that memory follows the window and not the
// genome. Reads are tied to their flows from their FZ and ZF tags and their read group's flow
// order or, without FZ, by name through the SFF files. Part of the htslib side of the library
// (Sorvexa::hts).
#pragma once

#include <sorvexa/contig.h>
#include <sorvexa/flowcheck.h>
#include <sorvexa/read_lookup.h>
#include <sorvexa/status.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct reference_sequence {
    std::string name;
    std::int64_t length = 0;
};

// The bases [begin, end) of reference `ref` (0-based) are the window's own: a run of the
// reference is reported by the window that owns its first base (a run of length 0, bases the
// reference lacks, by the window that owns the base after it), so windows that tile a
// reference report each run once. `margin` bases more on either side are read as well, so that
// the reads over the window's edges are whole there: a margin longer than the reads leaves no
// owned run short of a read that covers it.
struct alignment_window {
    std::int32_t ref = 0;
    std::int64_t begin = 0, end = 0;
    std::int64_t margin = 0;
};

// Windows of `size` bases tiling a reference of `length` bases, in order.
std::vector<alignment_window> alignment_windows(std::int32_t ref, std::int64_t length,
                                                std::int64_t size, std::int64_t margin);

// A window read as a contig. The contig is named after the reference; its consensus is the
// reference from `offset` (0-based) on, with pads. Soft-clipped ends are in the reads, outside
// align_clip_start..align_clip_end, with no flow in their ties: their columns are not aligned,
// so they say nothing of the runs there.
struct aligned_window {
    contig c;
    std::int64_t offset = 0;
    std::int32_t owned_first = 1, owned_last = 0;  // unpadded positions (1-based) of the contig
    std::map<std::string, tied_read> tied;         // by the contig's read name
    tie_counts counts;  // the reads whose alignment starts in the owned bases
};

struct alignment_options {
    std::int32_t min_mapq = 0;  // records mapped with a lower quality are passed over
};

class alignment_file {
  public:
    alignment_file();
    ~alignment_file();
    alignment_file(const alignment_file&) = delete;
    alignment_file& operator=(const alignment_file&) = delete;

    alignment_options options;

    // Opens the alignments at `path` against the FASTA at `reference` (indexed with faidx;
    // the index is made when missing) and checks that they can serve: sorted by coordinate,
    // indexed (BAM and CRAM; plain SAM is read through), every header sequence in the FASTA
    // with its length, and every read group with a flow order unless `lookup` has SFF files to
    // tie its reads by name. `lookup` (may be null) must outlive the file.
    sorvexa::status open(const std::string& path, const std::string& reference,
                         const read_lookup* lookup);
    const std::vector<reference_sequence>& references() const;
    // What tied_read::file numbers: the lookup's SFF files, then "RG:" and each read group's
    // ID, in header order.
    std::vector<std::string> units() const;

    // Reads window `w` into `out`. Secondary, supplementary, unmapped, duplicate and
    // QC-failed records are passed over.
    sorvexa::status read(const alignment_window& w, aligned_window& out);
    // The bases [begin, end) of reference `ref`, as the FASTA has them.
    sorvexa::status reference_bases(std::int32_t ref, std::int64_t begin, std::int64_t end,
                                    std::string& out);

  private:
    struct impl;
    std::unique_ptr<impl> p_;
};

// Checks window `w` with check.check_tied and adds what it owns to `whole`, the report of its
// reference: rows and edits with positions on the reference (a row's column is its position),
// rows numbered on from those already there, the coverage of the owned runs and reads.
void check_window(flow_check& check, const aligned_window& w, bool list_all, contig_report& whole);
// Completes `whole` once every window of reference `ref` is in: its name, the reference as
// the consensus, the polished sequence.
sorvexa::status finish_reference(alignment_file& in, std::int32_t ref, contig_report& whole);

// The windows a reference is checked in: longer than a 454 read by far, and a margin longer
// than one, so that every read over an owned run is whole.
inline constexpr std::int64_t default_window_size = 100'000, default_window_margin = 2'000;

// The reference numbered `ref` (in references()) checked window by window into `out`
// (check_window, finish_reference).
sorvexa::status check_reference(flow_check& check, alignment_file& in, std::size_t ref,
                                bool list_all, contig_report& out,
                                std::int64_t window_size = default_window_size,
                                std::int64_t margin = default_window_margin);

// Opens the alignments (alignment_file::open) and sets check.models from `origin` for their
// units (choose_models, a fit drawing on alignment_sample): a check's inputs, each refused
// before anything is checked.
sorvexa::status open_for_check(alignment_file& in, const std::string& path,
                               const std::string& reference, const read_lookup& lookup,
                               flow_check& check, model_origin origin,
                               const std::string& table_path, std::string& note);

// Every window of every reference in order, each checked on the probe: the sample of a model
// fit (flow_check::calibrate, choose_models).
flow_check::probe_source alignment_sample(alignment_file& in,
                                          std::int64_t window_size = default_window_size,
                                          std::int64_t margin = default_window_margin);

// Flow-signal evidence for a contig's homopolymer runs: every read tied to the flows of its
// SFF record, every run of the consensus weighed against the flow values the reads measured
// for it, and the length those values call, with the VCF, TSV and FASTA texts that report
// and apply the calls.
//
// A run is a maximal stretch of one letter in the unpadded consensus, letters compared
// without case, together with the pad columns around it; pad-only columns in which reads
// hold a letter of neither neighbouring base form a run of length 0 (the consensus lacks a
// run the reads have). A read that covers a run and has a base on both sides of it, inside
// the consensus, gives the run one signal: the value of the flow that called its bases of
// the run's letter there or, when it has none, the value of its first flow of that letter
// (the complement for a complemented read) between the flows of its two neighbouring bases.
#pragma once

#include <sorvexa/contig.h>
#include <sorvexa/flow_model.h>
#include <sorvexa/read_lookup.h>
#include <sorvexa/sff.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// One read of a contig tied to its SFF record.
struct tied_read {
    std::int32_t start = 0;  // the read's first column
    bool complemented = false;
    // Per padded base of the read as the assembly shows it: the SFF flow that called it, or
    // -1 for a pad (and for bases past the stored sequence).
    std::vector<std::int32_t> base_flow;
    std::vector<std::uint16_t> flowgram;
    std::string flow_chars;  // the letter of each flow, upper case
    std::uint16_t file = 0;  // the SFF file's number, whose model weighs its values
};

// Finds the read's unpadded sequence (reverse-complemented for a complemented read) in the
// record's called bases, ignoring case: where the kept range begins when it stands there,
// else the first occurrence that overlaps the kept range, else the first anywhere. False when it is
// not there: the read was edited or trimmed otherwise, and is left out rather than guessed.
// `flow_chars` is the file's flow order.
bool tie_read(const READ& read, const sff_read& record, std::string_view flow_chars,
              tied_read& out);

// Fetches the records at `where` (whole, through `fetcher`) and ties read `reads[i]` to the
// record at `where[i]`: tied(i, t) for each read tied, untied(i) for each whose record could
// not be read or does not hold it. Either returns false to stop the fetch there. A tied read
// is marked with its file's number (the last number for files beyond 65,535).
template <class Tied, class Untied>
sorvexa::status tie_fetched(const read_lookup& lookup, read_fetcher& fetcher,
                            const std::vector<read_location>& where,
                            const std::vector<const READ*>& reads, Tied tied, Untied untied) {
    tied_read t;
    return fetcher.fetch(where, true, [&](std::size_t i, reader& rd, bool read) {
        const auto k = static_cast<std::size_t>(where[i].file);
        if (!read || !tie_read(*reads[i], rd.cur_read, lookup.flow_chars[k], t)) return untied(i);
        t.file = static_cast<std::uint16_t>(std::min<std::size_t>(k, UINT16_MAX));
        return tied(i, static_cast<const tied_read&>(t));
    });
}

// The read's first flow of `letter` (its complement for a complemented read) strictly
// between flows a and b, in either order: where a run the read has no base of was measured
// between the flows of its neighbouring bases. -1 when there is none.
std::int32_t flow_between(const tied_read& t, char letter, std::int32_t a, std::int32_t b);

// A homopolymer run of the consensus and what the reads say about it. A contig of a whole
// genome has hundreds of thousands of them, so the record is kept small and the sums exact
// (values in hundredths, as the flowgram holds them).
struct hp_run {
    std::int32_t first_column = 0;  // the columns it owns: its bases and the pads around them
    std::int32_t last_column = 0;
    std::int32_t column = 0;    // its first base; the first pad column for a run of length 0
    std::int32_t position = 0;  // unpadded position of its first base (where it would start)
    std::int32_t consensus_length = 0;
    // The call (run_call): the most probable length, the log-likelihood ratio (natural log)
    // of that length against the consensus length (0 when they agree), the phred-scaled
    // probability that the consensus length is right (qual) and that the called length is
    // wrong (confidence), and whether the two strands call different lengths.
    std::int32_t called_length = 0;
    std::int32_t signals = 0, forward = 0;
    std::uint64_t sum = 0;  // of the values in hundredths
    float score = 0.0f, qual = 0.0f, confidence = 0.0f;
    std::uint16_t max_value = 0;
    char letter = 'A';  // upper case
    bool strand_conflict = false;
    // The log-likelihood of the values under each length the call weighs (run_window::first
    // and on), summed as they arrive, per strand: forward reads, then complemented ones. The
    // run holds no values, so its memory does not grow with the depth: 96 bytes a run.
    float likelihood[2][run_window::kSize] = {};

    std::int32_t reverse() const { return signals - forward; }
    // In bases.
    double mean_signal() const {
        return signals > 0 ? static_cast<double>(sum) / 100.0 / signals : 0.0;
    }
    // Adds one value (hundredths) to the counts and sums; flow_check::add_value also weighs it.
    void add(std::uint16_t value, bool complemented) {
        ++signals;
        if (!complemented) ++forward;
        sum += value;
        if (value > max_value) max_value = value;
    }
    // Forgets every value, keeping the run and its call.
    void clear_signals() {
        signals = forward = 0;
        sum = 0;
        max_value = 0;
        for (auto& strand : likelihood)
            for (float& x : strand) x = 0.0f;
    }
};

// One signal, kept for callers that show them read by read.
struct run_signal {
    std::int32_t run = 0;     // index into flow_check::runs
    std::int32_t read = 0;    // the caller's number for the read
    std::uint16_t value = 0;  // hundredths, as in the flowgram
    bool complemented = false;
};

// A change of the unpadded consensus: the bases [begin, end) replaced by `bases`.
struct consensus_edit {
    std::int64_t begin = 0, end = 0;
    std::string bases;
    std::int32_t run = 0;  // the run whose call it applies
    bool pass = true;      // a filtered call is reported but not applied
};

// What became of a contig's reads: tied to their records, found but not tied (edited or
// trimmed otherwise in the assembly, or a record that could not be read), in no SFF file.
struct tie_counts {
    std::int64_t tied = 0, untied = 0, not_found = 0;
    tie_counts& operator+=(const tie_counts& o) {
        tied += o.tied;
        untied += o.untied;
        not_found += o.not_found;
        return *this;
    }
};

// How much of a contig the reads weighed: a contig with fewer than half of its reads tied,
// or fewer than half of its runs of bases tested, is unchecked; no call there is not a clean
// bill.
struct contig_coverage {
    tie_counts reads;
    std::int64_t runs = 0, tested = 0;  // runs of at least one base
    bool unchecked() const {
        const std::int64_t total = reads.tied + reads.untied + reads.not_found;
        return 2 * reads.tied < total || 2 * tested < runs;
    }
    contig_coverage& operator+=(const contig_coverage& o) {
        reads += o.reads;
        runs += o.runs;
        tested += o.tested;
        return *this;
    }
};

class flow_check;

// One run a contig's report lists and what became of its call.
struct report_row {
    std::int32_t index = 0;  // in flow_check::runs
    hp_run run;
    std::string_view filter;  // run_filter's: PASS, StrandConflict or "."
    bool edited = false;      // the run's call is one of the edits
    bool applied = false;     // ... and it passes, so the polished consensus has it
};

// A contig checked, with everything a report of it needs.
struct contig_report {
    std::string name;
    std::string unpadded;  // the consensus as read, pads removed
    std::string polished;  // with the passing edits applied
    contig_coverage coverage;
    std::vector<consensus_edit> edits;
    std::vector<report_row> rows;
    std::int64_t called = 0, passed = 0;  // edits, and those that pass
};

class flow_check {
  public:
    // The fixed model, which `models` takes when it is still empty at the first call.
    flow_model model;
    // The model per SFF file, fitted (calibrate) or read back from its table.
    flow_models models;
    // A run is weighed when it has min_signals signals or more and the model names its length
    // with a confidence of min_qual or more; a call needs that and a qual of min_qual.
    std::int32_t min_signals = 3;
    double min_qual = 20.0;
    double min_score = 0.0;  // a floor on the log-likelihood ratio a user may raise
    bool keep_signals = false;

    std::vector<hp_run> runs;         // ordered by first owned column, then column and letter
    std::vector<run_signal> signals;  // filled only with keep_signals
    // With keep_values, every value a run got and the run's index, for a fit's sample, up
    // to value_limit of them (a single contig of a whole genome must not hold them all);
    // check_contig fetches no further read once they are reached.
    bool keep_values = false;
    std::size_t value_limit = SIZE_MAX;
    std::vector<run_value> values;
    std::vector<std::uint32_t> value_runs;
    tie_counts reads;  // the last contig's, from check_contig

    // The runs of the consensus, the runs of length 0 included (these need the reads' bases,
    // not their flows). Clears what an earlier contig left.
    void create_runs(const contig& c);
    // The signals of one read tied to its record; `read_number` is what run_signal::read
    // records.
    void add_read(const contig& c, const READ& read, const tied_read& t, std::int32_t read_number);
    // One value of run `r`, from a read of file `file`: counted and weighed.
    void add_value(hp_run& r, std::uint16_t value, bool complemented, std::size_t file);
    // Calls the length of every run that has at least one signal.
    void call_runs();
    // The whole check of one contig: its runs, every read's record fetched through `fetcher`
    // (file by file, a file's reads in the order of their start column) and tied, the
    // signals, the calls. A read's number in run_signal is its place in the contig's name
    // order. Adds to `counts`. With `tied`, the reads that could be tied are kept there by
    // name (for window_signals). A file that cannot be read again fails the check, its reads
    // counted untied.
    sorvexa::status check_contig(const contig& c, const read_lookup& lookup, read_fetcher& fetcher,
                                 tie_counts& counts,
                                 std::map<std::string, tied_read>* tied = nullptr);
    // The same through a fetcher of its own.
    sorvexa::status check_contig(const contig& c, const read_lookup& lookup, tie_counts& counts);
    // The check of a contig whose reads the caller tied already (reads that carry their
    // flowgrams, as alignments do): the runs, the signals of each read in `tied` in the order
    // given (its place there is its number in run_signal), the calls. `counts` is what became
    // of the contig's reads, as the caller counted them; it is also the last contig's `reads`.
    struct read_tie {
        const READ* read;
        const tied_read* tie;
    };
    void check_tied(const contig& c, const std::vector<read_tie>& tied, const tie_counts& counts);

    // One contig checked as every front end reports it: check_contig, then the coverage,
    // the calls as edits, the polished consensus and the rows to list (every run with an
    // edit and, with list_all, every other tested run). The runs stay in `runs` until the
    // next contig.
    sorvexa::status check(const contig& c, const read_lookup& lookup, read_fetcher& fetcher,
                          bool list_all, contig_report& out);
    // The report of contig `c` from the runs as they were last called.
    void report(const contig& c, bool list_all, contig_report& out) const;

    // Fits `models` to the assembly: contigs from `next` (which returns false when there is
    // none left) are checked under the fixed model and their signals gathered until the
    // sample is full, then the fit is made. Every front end that calibrates on the same
    // assembly and files gets the same model.
    using contig_source = std::function<bool(contig& c)>;
    sorvexa::status calibrate(const contig_source& next, const read_lookup& lookup,
                              read_fetcher& fetcher, std::int64_t max_values = 2'000'000);
    // The same for contigs that check themselves on the probe it is given (check_contig or
    // check_tied): `next` returns false when none is left, or with `error` set when one fails.
    // `files` names the units that tied_read::file numbers.
    using probe_source = std::function<bool(flow_check& probe, sorvexa::status& error)>;
    sorvexa::status calibrate(const probe_source& next, const std::vector<std::string>& files,
                              std::int64_t max_values = 2'000'000);
    // The checked contig's runs and values (kept with keep_values), for a fit.
    void add_to(flow_sample& sample) const;

    bool tested(const hp_run& r) const {
        return r.signals >= min_signals && r.signals > 0 && r.confidence >= min_qual;
    }
    // A tested run whose call differs from the consensus.
    bool differs(const hp_run& r) const {
        return tested(r) && r.called_length != r.consensus_length && r.qual >= min_qual &&
               r.score >= min_score;
    }
    // A call that passes every filter: the forward and the complemented reads agree.
    bool passes(const hp_run& r) const { return differs(r) && !r.strand_conflict; }
    contig_coverage coverage() const;

    // The calls as edits of the unpadded consensus, in order. Two calls that would change
    // the same bases (or insert inside a changed run) cannot both stand: a passing call wins
    // over a filtered one, else the one with the higher qual and score is kept.
    void edits(const std::string& unpadded, std::vector<consensus_edit>& out) const;

  private:
    // add_value once `models` is known to be set.
    void weigh_value(hp_run& r, std::uint16_t value, bool complemented, std::size_t file) {
        r.add(value, complemented);
        models.add_densities(file, run_window::first(r.consensus_length), value,
                             r.likelihood[complemented ? 1 : 0]);
    }
    // add_read's per-read arrays, kept from read to read.
    std::vector<std::int64_t> scratch_before_, scratch_after_;
};

// Where a check's model comes from: fitted to the assembly (flow_check::calibrate over the
// ACE file's contigs in order), read from a model table, or the fixed model for every file.
enum class model_origin { fitted, table, fixed };

// The model table at `path` for the files `sff_files`. False, with `error` set to "can not
// read model file PATH" or "PATH: " and what is wrong with it, when it cannot serve.
bool read_model_file(const std::string& path, const std::vector<std::string>& sff_files,
                     flow_models& out, std::string& error);
// Sets check.models from `origin` for the files of `lookup` (`table_path` for a table, the
// ACE file `ace_path` for a fit); `note` says what the model rests on ("fitted: ...", "read
// from PATH", "fixed"). Fails when the table cannot serve or an SFF file cannot be read
// again; an ACE file that fails is left to the check that reads it next.
sorvexa::status choose_models(flow_check& check, model_origin origin, const std::string& ace_path,
                              const std::string& table_path, const read_lookup& lookup,
                              read_fetcher& fetcher, std::string& note);
// The same for any units that tied_read::file numbers (`files` names them), with the fit's
// sample drawn from `sample`.
sorvexa::status choose_models(flow_check& check, model_origin origin,
                              const flow_check::probe_source& sample,
                              const std::vector<std::string>& files, const std::string& table_path,
                              std::string& note);

// A window of a contig in flow space with the flow values the reads measured: align_flow's
// grid for the same window, and beside its counts the value of each row's read on each flow.
struct flow_window {
    std::vector<std::vector<std::int16_t>> counts;    // align_flow's flow_counts
    std::vector<std::map<std::int32_t, fRead>> rows;  // align_flow's flow_rows
    // signals[k][r]: the value (hundredths) that row r's read measured on window flow k; as
    // in counts, -1 where the row has no read on the flow (or the read has no base on one
    // side of it to place the flow between), and untied_read where the row's read is not tied.
    std::vector<std::vector<std::int32_t>> signals;
    // The runs of the flow_check that have columns in the window, in its order.
    std::vector<std::int32_t> runs;
    static constexpr std::int32_t untied_read = -2;
};

// Fills `out` (expected empty) for the window of `width` columns from `from`. `tied` gives a
// read's tie by name, or null for a read that is not tied; `check` the contig's runs.
using tied_lookup = std::function<const tied_read*(const std::string& name)>;
void window_signals(contig& c, const tied_lookup& tied, const flow_check& check, std::int32_t from,
                    int width, flow_window& out);
// The same with the tied reads in a map by name.
void window_signals(contig& c, const std::map<std::string, tied_read>& tied,
                    const flow_check& check, std::int32_t from, int width, flow_window& out);

// The same values on a window that contig::draw_window drew: signals[g][k] beside
// grid.counts[g][k], -1 where the count is -1 (or the read has no base on one side of the
// flow), flow_window::untied_read on the flows of a read that is not tied.
void grid_signals(const contig& c, const window_grid& grid, const tied_lookup& tied,
                  std::vector<std::vector<std::int32_t>>& out);

// The consensus without its pads, case kept.
std::string unpadded_consensus(const contig& c);
// `unpadded` with the edits that pass applied.
std::string apply_edits(const std::string& unpadded, const std::vector<consensus_edit>& edits);

// The report texts, appended to `out`.
void append_fasta(std::string& out, std::string_view name, std::string_view sequence);
struct vcf_contig {
    std::string name;
    std::int64_t length = 0;
    contig_coverage coverage;
};
void append_vcf_header(std::string& out, std::string_view source, std::string_view reference,
                       const std::vector<vcf_contig>& contigs);
// One record per edit, anchored on the base before it; edits that share that base go into
// one record, so that no two records overlap, unless one passes and the other is filtered:
// those stay apart, so that the passing records alone give the polished consensus.
void append_vcf_records(std::string& out, const contig_report& report);
void append_tsv_header(std::string& out);
// `filter` is PASS or the filter's name for a call, "." for a run that is not one.
void append_tsv_line(std::string& out, std::string_view contig_name, const hp_run& r,
                     std::string_view filter);
// The line that opens a contig's lines in the TSV: how much of the contig was weighed.
void append_tsv_coverage(std::string& out, std::string_view contig_name, const contig_coverage& c);
// A contig's lines of the TSV: its coverage line, then its rows.
void append_tsv_report(std::string& out, const contig_report& report);
// "251 reads (11 tied, 240 untied, 0 in no SFF file), 120 of 3000 runs tested: unchecked"
std::string describe_coverage(const contig_coverage& c);
// The filter column of a run: PASS, StrandConflict, or "." for a run that is no call.
std::string_view run_filter(const flow_check& check, const hp_run& r);

// The flow-signal evidence the browser shows: every homopolymer run of a contig weighed
// against the flow values its reads measured, by the library's check under the model that
// sorvexa-flowcheck fits to the same assembly and files (so the numbers are the program's),
// built when a page first needs it and kept for the contig; and, in the background after
// start-up, what was weighed of every contig and its disputed runs, for the overview.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "assembly.h"
#include <sorvexa/flowcheck.h>
#include "read_source.h"

namespace browse {

// What is kept of a contig's check: its runs with their calls, not the signals nor the
// reads' flows (a deep contig's would take tens of megabytes); a page ties again the few
// reads it draws (tie_reads).
struct contig_evidence {
    // Runs and calls. The check's own copy of the model is dropped once the calls are made
    // (each file's table is tens of kilobytes); `models` is the one they were made under.
    flow_check check;
    std::shared_ptr<const flow_models> models;
    tie_counts counts;
    contig_coverage coverage;  // how much of the contig the reads weighed
    std::string unpadded;
    std::vector<consensus_edit> edits;   // the calls, as sorvexa-flowcheck applies them
    std::vector<std::int32_t> disputed;  // runs of the edits, highest score first
    std::size_t bytes = 0;               // an estimate of the memory it holds

    // The ties pages made, kept up to tie_cache_limit bytes so that windows moving over a
    // contig fetch each record once; a read that could not be tied is kept as such.
    mutable std::mutex tie_mutex;
    mutable std::map<std::string, std::optional<tied_read>> tie_cache;
    mutable std::size_t tie_cache_bytes = 0;
    static constexpr std::size_t tie_cache_limit = std::size_t{2} << 20;

    // The run of the evidence whose first base (first pad column for a run of length 0) is
    // `column`; the first in run order when two runs of length 0 share it; -1 when none.
    std::int32_t run_at(std::int32_t column) const;
    bool is_disputed(std::int32_t run) const;
};

// The check of contig `c` (as the ACE file has it) under `models`, with its reads fetched
// through `sff`; reads whose file changed since start-up count as in no file.
std::shared_ptr<const contig_evidence> build_evidence(const contig& c, const read_source& sff,
                                                      std::shared_ptr<const flow_models> models);

// The model sorvexa-flowcheck fits to the same assembly and SFF files: the library's
// calibration over the contigs in file order, the files in the order given. Stops early
// (with what it gathered) once `stop` is set; the fixed model when there is no SFF file or
// the ACE file changed since start-up.
flow_models fit_models(const assembly& a, const read_source& sff, const std::atomic<bool>& stop);

// The named reads of contig `c` tied to their records (each file opened once); reads that
// cannot be tied are left out.
std::map<std::string, tied_read> tie_reads(const contig& c, const read_source& sff,
                                           const std::vector<std::string>& names);
// The same through the evidence's cache of ties (for reads of the display copy `c`).
std::map<std::string, tied_read> tie_reads(const contig_evidence& e, const contig& c,
                                           const read_source& sff,
                                           const std::vector<std::string>& names);

// How far a measured value (hundredths) lies from the count the assembly gives the flow, in
// the classes the flow map shades: close (within 0.25 of it), borderline (within 0.5, the
// rounding boundary), disputed (beyond: the value rounds to another count).
enum class signal_class { close, borderline, disputed };
signal_class classify(std::int32_t value, std::int32_t count);
constexpr std::int32_t close_within = 25, borderline_within = 50;

// What the background count found of a contig.
struct contig_tally {
    std::int32_t disputed = 0;
    contig_coverage coverage;
};

class evidence_store {
  public:
    evidence_store(assembly& a, const read_source& s, std::size_t cache_size = 4,
                   std::size_t cache_bytes = std::size_t{8} << 20);
    ~evidence_store();
    evidence_store(const evidence_store&) = delete;
    evidence_store& operator=(const evidence_store&) = delete;

    // The model every check weighs its values under: one read from a table (given before
    // anything asks for evidence), else fitted once by fit_models. Until then no evidence is
    // built, so none is ever kept that the fixed model made.
    void use_models(flow_models m, std::string origin);
    // Starts the fit in a thread of its own, so that start-up need not wait for it.
    void fit_in_background();
    // The model, waiting for the fit (or making it, when no one has started it).
    std::shared_ptr<const flow_models> models();
    // Null while the fit is still running; with where the model came from.
    std::shared_ptr<const flow_models> models_if_ready(std::string* origin = nullptr) const;

    // The evidence of contig `index`, built on first use (parsing the contig again from the
    // ACE file) and kept for the most recently used contigs; null when the ACE file changed.
    std::shared_ptr<const contig_evidence> get(std::size_t index);

    // Starts weighing every contig, one at a time after the model is there, in a thread of
    // its own; tally() is empty for a contig not weighed yet.
    void count_in_background();
    std::optional<contig_tally> tally(std::size_t index) const;
    std::int32_t disputed_runs(std::size_t index) const;  // -1 when not counted yet

  private:
    assembly& ace_;
    const read_source& sff_;
    std::size_t cache_size_, cache_bytes_;
    std::mutex mutex_;
    std::mutex build_mutex_;
    struct cached {
        std::size_t index;
        std::shared_ptr<const contig_evidence> evidence;
        std::uint64_t used;
    };
    std::vector<cached> cache_;
    std::uint64_t clock_ = 0;
    mutable std::mutex tally_mutex_;
    std::vector<std::optional<contig_tally>> tallies_;
    void record(std::size_t index, const contig_evidence& e);

    mutable std::mutex model_mutex_;
    std::condition_variable model_ready_;
    std::shared_ptr<const flow_models> models_;
    std::string model_origin_;
    bool fitting_ = false;

    std::atomic<bool> stop_{false};
    std::thread fitter_, counter_;
};

}  // namespace browse

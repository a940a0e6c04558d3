// The flow-signal evidence the browser shows: every homopolymer run of a contig weighed
// against the flow values its reads measured, by the library's check (the numbers of
// sorvexa-flowcheck), built when a page first needs it and kept for the contig; and, in the
// background after start-up, the number of disputed runs of every contig for the overview.
#pragma once

#include <atomic>
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
#include "flowcheck.h"
#include "read_source.h"

namespace browse {

// What is kept of a contig's check: its runs with their calls, not the signals nor the
// reads' flows (a deep contig's would take tens of megabytes); a page ties again the few
// reads it draws (tie_reads).
struct contig_evidence {
    flow_check check;  // runs and calls
    tie_counts counts;
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

// The check of contig `c` (as the ACE file has it) with its reads fetched through `sff`;
// reads whose file changed since start-up count as in no file.
std::shared_ptr<const contig_evidence> build_evidence(const contig& c, const read_source& sff);

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

class evidence_store {
  public:
    evidence_store(assembly& a, const read_source& s, std::size_t cache_size = 4,
                   std::size_t cache_bytes = std::size_t{8} << 20);
    ~evidence_store();
    evidence_store(const evidence_store&) = delete;
    evidence_store& operator=(const evidence_store&) = delete;

    // The evidence of contig `index`, built on first use (parsing the contig again from the
    // ACE file) and kept for the most recently used contigs; null when the ACE file changed.
    std::shared_ptr<const contig_evidence> get(std::size_t index);

    // Starts counting the disputed runs of every contig, one contig at a time, in a thread of
    // its own; disputed_runs() is -1 for a contig not counted yet.
    void count_in_background();
    std::int32_t disputed_runs(std::size_t index) const;

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
    std::unique_ptr<std::atomic<std::int32_t>[]> counts_;
    std::atomic<bool> stop_{false};
    std::thread counter_;
};

}  // namespace browse

// The ACE assembly as the server holds it: a summary of every contig taken in one pass at
// start-up (with the byte offset where the contig begins), which contig places each read,
// and a small cache of contigs parsed again on demand with their views built.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <sorvexa/contig.h>
#include "read_source.h"

namespace browse {

struct contig_summary {
    std::string name;
    std::int64_t offset = 0;   // where the ACE reader starts looking for this contig
    std::int32_t columns = 0;  // padded consensus columns
    std::int32_t reads = 0;    // distinct reads placed
    std::int32_t found = 0;    // of those, reads some SFF file holds
    std::int16_t min_len = 0, max_len = 0;
    double avg_len = 0.0;
    std::int32_t rows = 0;  // layout rows
};

// A contig parsed and prepared for drawing. What is drawn is a display copy of the contig:
// bases upper-cased (lower case would stop a read's flow count) and reads that start before
// column 1 cut to begin there (the layout leaves them out otherwise), so that every read over
// a shown column appears and its flows count its bases. The library's rules apply to the
// copy unchanged.
//
// The layout and flow views are built before the contig is shared between request threads;
// the library's drawing operations then only read it. A contig whose views stay empty after
// building (no placed reads, no consensus) would have them rebuilt by the operations that
// build on demand (align_flow, the print_ maps), so calling those holds `draw_mutex`
// (draw_guard); draw_window only reads.
struct built_contig {
    contig c;
    bool views_complete = false;
    // The reads the copy moved (or left out, lying wholly before column 1) as the ACE file
    // places them, sequence not kept.
    std::map<std::string, READ> as_placed;
    // Bases before column 1 + k * unpadded_step: the unpadded position of any column.
    std::vector<std::int32_t> unpadded_marks;
    static constexpr std::int64_t unpadded_step = 4096;
    std::vector<std::int32_t> depth_bins;  // most reads over a column of each bin
    std::int32_t depth_max = 0;
    std::size_t bytes = 0;  // an estimate of the memory it holds
    std::mutex draw_mutex;

    // The read as the ACE file places it (start column may be below 1); null when unknown.
    const READ* placed(const std::string& name) const;
    // Consensus bases (not pads) in columns 1..column.
    std::int64_t unpadded_at(std::int64_t column) const;
};

// Holds a contig's draw_mutex while its views are incomplete.
struct draw_guard {
    std::unique_lock<std::mutex> lock;
    explicit draw_guard(built_contig& b) {
        if (!b.views_complete) lock = std::unique_lock<std::mutex>(b.draw_mutex);
    }
};

class assembly {
  public:
    std::string ace_path;
    file_stamp ace_stamp;
    std::vector<contig_summary> contigs;
    // Read name and contig, one per read of each contig, sorted (a read placed in several
    // contigs is shown in the first).
    std::vector<std::pair<std::string, std::uint32_t>> placements;
    std::vector<std::int32_t> placement_starts;  // the start column of each placement
    std::int64_t reads_placed = 0, reads_found = 0, columns = 0;
    // What the files suggest doing about an assembly the browser can show little of (set by
    // the program at start-up; the overview shows it).
    std::string start_up_hint;

    // Reads the whole ACE file once; a file out of the reader's grammar ends the process with
    // the reader's message and status 1.
    explicit assembly(const std::string& path, std::size_t cache_size = 4,
                      std::size_t cache_bytes = std::size_t{16} << 20);
    // Counts the reads of each contig that the SFF files hold.
    void count_found(const read_source& sff);

    int contig_index(std::string_view name) const;  // -1 when unknown
    int contig_of_read(std::string_view read) const;

    enum class load_result { ok, file_changed };
    // The contig at `index`, parsed on first use and kept in the cache.
    std::shared_ptr<built_contig> load(std::size_t index, load_result& result);

    static constexpr int depth_bin_count = 1000;

  private:
    std::vector<std::uint32_t> by_name_;  // contig indexes in name order
    std::size_t cache_size_;
    std::size_t cache_bytes_;
    std::mutex cache_mutex_;
    std::mutex parse_mutex_;
    struct cached {
        std::size_t index;
        std::shared_ptr<built_contig> contig;
        std::uint64_t used;
    };
    std::vector<cached> cache_;
    std::uint64_t clock_ = 0;

    std::shared_ptr<built_contig> find_cached(std::size_t index);
};

// Makes the display copy of a freshly parsed contig and builds its views and depth profile
// (used by load, and by tests on contigs assembled in code).
std::shared_ptr<built_contig> prepare(contig&& c);

}  // namespace browse

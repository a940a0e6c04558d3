// Stretches of a reference drawn as a viewer draws a contig, built on demand from an indexed
// SAM/BAM/CRAM file: only the alignments over the stretch (and a margin) are read, so that a
// viewer serves a whole genome without reading it all first. Safe from any thread: each read
// takes one of a few file handles (htslib handles serve one thread at a time). Part of the
// htslib side of the library (Sorvexa::hts).
#pragma once

#include <sorvexa/alignment.h>
#include <sorvexa/flowcheck.h>
#include <sorvexa/views.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// Positions first..last (1-based) of a reference with the reads over them, laid out, tied and
// checked. The contig holds a margin of reference on either side, so that the reads over the
// stretch are whole and their runs weighed as a check of the whole reference weighs them.
struct reference_view {
    std::int32_t ref = 0;
    std::int64_t first = 1, last = 0;  // the positions asked for, cut at the reference's end
    std::int64_t offset = 0;           // reference bases before the contig's first
    std::int32_t from = 1, to = 0;     // their padded columns in `d.shown`
    contig_display d;                  // in capitals, reads from column 1 on
    std::map<std::string, tied_read> tied;
    tie_counts counts;
    // Filled when a model was given: the runs of the stretch weighed and called.
    bool checked = false;
    flow_check check;
    std::vector<std::int32_t> disputed;  // runs whose call differs, highest score first

    const contig& c() const { return d.shown; }
    // The reference position of a column's base (a pad: of the base before it).
    std::int64_t position_at(std::int32_t column) const;
    std::int32_t column_of(std::int64_t position) const;  // 0 outside the contig
    std::size_t bytes() const;
};

class alignment_views {
  public:
    // Opens the first handle (alignment_file::open, every check made there); `handles` is how
    // many threads may read at once.
    sorvexa::status open(const std::string& path, const std::string& reference,
                         const read_lookup* lookup, std::size_t handles = 4);
    const std::vector<reference_sequence>& references() const { return refs_; }
    std::vector<std::string> units() const { return units_; }
    int reference_index(const std::string& name) const;  // -1 when unknown

    // With `models` the stretch is checked under them as well. `margin` reference bases are
    // read beyond either end: longer than a read, so that each read over the stretch is whole.
    sorvexa::status view(std::int32_t ref, std::int64_t first, std::int64_t last,
                         const flow_models* models, reference_view& out,
                         std::int64_t margin = 1'200);
    // The model fitted to every reference's signals in order, as sorvexa-flowcheck --bam fits
    // it; `stop` ends the walk early (the fit is then made on what was gathered).
    sorvexa::status fit(flow_models& out, const std::atomic<bool>& stop);
    // The whole reference checked window by window (check_reference) into `out`.
    sorvexa::status check(std::int32_t ref, const flow_models& models, contig_report& out);
    // Where each primary alignment starts, by read name: a walk over the whole file, for a
    // search by name. Names in order; `stop` ends it early with a failure.
    struct placed_read {
        std::string name;
        std::int32_t ref = 0;
        std::int64_t position = 0;  // 1-based
        auto operator<=>(const placed_read&) const = default;
    };
    sorvexa::status placements(std::vector<placed_read>& out, const std::atomic<bool>& stop);

  private:
    struct lease;
    std::unique_ptr<alignment_file> take(sorvexa::status& why);
    void give_back(std::unique_ptr<alignment_file> f);
    std::string path_, reference_;
    const read_lookup* lookup_ = nullptr;
    std::vector<reference_sequence> refs_;
    std::vector<std::string> units_;
    std::mutex mutex_;
    std::condition_variable freed_;
    std::vector<std::unique_ptr<alignment_file>> idle_;
    std::size_t opened_ = 0, max_ = 1;
};

// What a viewer learns of the whole file after start-up, in a thread of its own, one thing
// after another: the model (unless one is given first), where each read is aligned, and each
// reference's disputed runs. Each is there from the moment it is done; until then its getter
// says it is not.
class alignment_survey {
  public:
    explicit alignment_survey(alignment_views& files) : files_(files) {}
    ~alignment_survey();
    alignment_survey(const alignment_survey&) = delete;
    alignment_survey& operator=(const alignment_survey&) = delete;

    void use_models(flow_models m, std::string origin);
    // `setup` runs first in the survey's thread (a viewer lowers its priority there).
    void start(const std::function<void()>& setup = {});
    std::shared_ptr<const flow_models> models(std::string* origin = nullptr) const;
    bool names_ready() const { return names_ready_; }
    // The primary alignments of the reads whose names begin with `prefix`, in name order.
    std::vector<alignment_views::placed_read> reads_named(std::string_view prefix,
                                                          std::size_t most) const;
    // The runs of reference `ref` whose flowgrams call another length, highest score first.
    std::optional<std::vector<hp_run>> disputed(std::size_t ref) const;

  private:
    alignment_views& files_;
    mutable std::mutex mutex_;
    std::shared_ptr<const flow_models> models_;
    std::string origin_;
    std::vector<alignment_views::placed_read> names_;
    std::vector<std::optional<std::vector<hp_run>>> disputed_;
    std::atomic<bool> names_ready_{false}, stop_{false};
    std::thread worker_;
};

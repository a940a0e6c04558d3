// The browser's data and pages, built from the assembly and the SFF files without any HTTP:
// the server hands every request to site::serve and sends what comes back. A page is added by
// writing its builder and naming it in a table of routes.cpp.
#pragma once

#include <sorvexa/alignment_view.h>
#include <sorvexa/fetcher_pool.h>
#include <sorvexa/flowcheck.h>
#include <sorvexa/read_lookup.h>
#include <sorvexa/status.h>
#include <sorvexa/views.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "html.h"

struct MHD_Daemon;

namespace browse {

// The most recently used values by key, within a count and a memory bound (the newest is
// kept even when it alone is over the memory bound). Safe from any thread.
template <class V>
class lru_cache {
  public:
    lru_cache(std::size_t count, std::size_t bytes)
        : count_(count < 1 ? 1 : count), bytes_(bytes) {}
    std::shared_ptr<const V> find(std::size_t key) {
        std::lock_guard lock(mutex_);
        for (entry& e : entries_)
            if (e.key == key) return e.used = ++clock_, e.value;
        return nullptr;
    }
    void put(std::size_t key, std::shared_ptr<const V> value, std::size_t bytes) {
        std::lock_guard lock(mutex_);
        std::size_t held = bytes;
        for (const entry& e : entries_) held += e.bytes;
        while (!entries_.empty() && (entries_.size() >= count_ || held > bytes_)) {
            auto oldest = std::min_element(entries_.begin(), entries_.end(),
                                           [](auto& x, auto& y) { return x.used < y.used; });
            held -= oldest->bytes;
            entries_.erase(oldest);
        }
        entries_.push_back({key, std::move(value), bytes, ++clock_});
    }

  private:
    struct entry {
        std::size_t key;
        std::shared_ptr<const V> value;
        std::size_t bytes;
        std::uint64_t used;
    };
    std::mutex mutex_;
    std::vector<entry> entries_;
    std::uint64_t clock_ = 0;
    std::size_t count_, bytes_;
};

// The SFF files: the library's read index and its fetchers.
class read_source {
  public:
    read_lookup lookup;
    mutable fetcher_pool fetchers{lookup};  // refuse a file changed since it was indexed
    sorvexa::status index(const std::vector<std::string>& paths) {  // side by side
        lookup.skip_index_block = lookup.parallel = true;
        return lookup.index_files(paths);
    }
    bool holds(const std::string& name) const { return lookup.locate(name).found(); }
    std::size_t reads_in(std::size_t file) const { return lookup.indexes[file].size(); }
    std::map<std::string, tied_read> tie(const contig& c,
                                         const std::vector<std::string>& names) const;
};
enum class fetch_result { ok, unknown, file_changed };
fetch_result fetch(const read_source& sff, const std::string& name, record_view& out,
                   std::string& file);

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

// A contig as the pages draw it: in capitals (a lower-case letter would stop a read's flow
// count) and with the reads that start before column 1 from column 1 on, so that every read
// over a shown column appears and its flows count its bases.
struct drawn_contig {
    contig_display d;
    depth_profile depth;
    const contig& c() const { return d.shown; }
};

// The ACE assembly: a summary of every contig taken in one pass at start-up, which contig
// places each read, and the contigs parsed again on demand, the latest kept.
class assembly {
  public:
    std::string ace_path;
    file_stamp ace_stamp;
    std::vector<contig_summary> contigs;
    // One per read of each contig, sorted (a read placed in several contigs is shown in the
    // first).
    struct placement {
        std::string read;
        std::uint32_t contig;
        std::int32_t start;
        auto operator<=>(const placement&) const = default;
    };
    std::vector<placement> placements;
    std::int64_t reads_placed = 0, reads_found = 0, columns = 0;
    std::string start_up_hint;  // what the files suggest doing, shown on the overview

    explicit assembly(std::size_t cache_size = 4, std::size_t cache_bytes = std::size_t{16} << 20)
        : cache_(cache_size, cache_bytes) {}
    sorvexa::status read(const std::string& path);  // the reader's error, if any
    void count_found(const read_source& sff);
    int contig_index(std::string_view name) const;  // -1 when unknown
    int contig_of_read(std::string_view read) const;
    // Contig `index` parsed again, unless the file changed since start-up.
    bool parse(std::size_t index, contig& c, bool qualities = false) const;
    std::shared_ptr<const drawn_contig> load(std::size_t index);  // null: the file changed

  private:
    std::vector<std::uint32_t> by_name_;  // contig indexes in name order
    lru_cache<drawn_contig> cache_;
    std::mutex parse_mutex_;
};

// What is kept of a contig's check, made under the model sorvexa-flowcheck fits to the same
// files: its runs and report, not the signals nor the reads' flows.
struct contig_evidence {
    flow_check check;  // its own copy of the model dropped; `models` is the one used
    std::shared_ptr<const flow_models> models;
    contig_report report;
    std::vector<std::int32_t> disputed;  // runs of the edits, highest score first
    std::size_t bytes = 0;
    // The run whose first base (first pad column for a run of length 0) is `column`, or -1.
    std::int32_t run_at(std::int32_t column) const {
        const auto& r = check.runs;
        auto it =
            std::find_if(r.begin(), r.end(), [&](const hp_run& x) { return x.column == column; });
        return it == r.end() ? -1 : static_cast<std::int32_t>(it - r.begin());
    }
    bool is_disputed(std::int32_t run) const {
        return std::find(disputed.begin(), disputed.end(), run) != disputed.end();
    }
};

struct contig_tally {
    std::int32_t disputed = 0;
    contig_coverage coverage;
};

class evidence_store {
  public:
    evidence_store(assembly& a, const read_source& s, std::size_t cache_size = 4,
                   std::size_t cache_bytes = std::size_t{8} << 20)
        : ace_(a), sff_(s), cache_(cache_size, cache_bytes), tallies_(a.contigs.size()) {}
    ~evidence_store();

    // The model of every check: one read from a table, else fitted once (in the background
    // when asked, so that start-up need not wait). No evidence is built before it is there.
    void use_models(flow_models m, std::string origin);
    void fit_in_background();
    std::shared_ptr<const flow_models> models();
    std::shared_ptr<const flow_models> models_if_ready(std::string* origin = nullptr) const;
    // Built on first use, the latest kept; null when the ACE file changed.
    std::shared_ptr<const contig_evidence> get(std::size_t index);
    // Weighs every contig in the background for the overview; tally() is empty until then.
    void count_in_background();
    std::optional<contig_tally> tally(std::size_t index) const;
    std::int32_t disputed_runs(std::size_t index) const;  // -1 when not counted yet

  private:
    assembly& ace_;
    const read_source& sff_;
    lru_cache<contig_evidence> cache_;
    std::mutex build_mutex_;
    mutable std::mutex tally_mutex_;
    std::vector<std::optional<contig_tally>> tallies_;
    void record(std::size_t index, std::size_t disputed, const contig_coverage& c) {
        std::lock_guard lock(tally_mutex_);
        tallies_[index] = contig_tally{static_cast<std::int32_t>(disputed), c};
    }
    mutable std::mutex model_mutex_;
    std::condition_variable model_ready_;
    std::shared_ptr<const flow_models> models_;
    std::string model_origin_;
    bool fitting_ = false;
    std::atomic<bool> stop_{false};
    std::thread fitter_, counter_;
};

// The alignments of --bam: each reference a contig whose windows are read through the index
// when asked for, the latest kept; the rest comes from the survey once the server is up.
class alignment_source {
  public:
    alignment_views files;
    alignment_survey survey{files};
    std::string bam_path, ref_path;
    explicit alignment_source(std::size_t cache_size = 16,
                              std::size_t cache_bytes = std::size_t{96} << 20)
        : cache_(cache_size, cache_bytes) {}
    // Checked once the model is there; null with `why` set when the file can not be read.
    std::shared_ptr<const reference_view> window(std::int32_t ref, std::int64_t first,
                                                 std::int64_t last, std::string& why);

  private:
    lru_cache<reference_view> cache_;
};

struct response {
    int status = 200;
    std::string content_type = "text/html; charset=utf-8";
    std::string body;
    std::string attachment;  // a file name: the body is offered as a download
    // The token of the page's script, new for every response: the Content-Security-Policy
    // allows no script without it (none at all when it is empty).
    std::string nonce;
    std::string allow;   // the methods served, on a 405
    bool close = false;  // the connection ends with this answer
};

// A request as the pages see it: the path, URL-decoded, and the query parameters.
struct request {
    std::string path;
    std::vector<std::pair<std::string, std::string>> params;
    std::optional<std::string> param(std::string_view name) const;  // the first value
};

// A window checked against a contig: columns from..last (cut at the contig's end), or `error`.
// With the page's two toggles: the flow map's counts or measured signals, the alignment's
// bases or only its differences from the consensus.
struct window {
    std::int64_t from = 1, last = 0;
    int width = 100;
    std::int64_t rows_page = 1;
    bool signals = false, differences = false;
    std::string error;
    const char* view() const { return signals ? "signals" : "counts"; }
};
constexpr int default_width = 100, max_width = 2000;
window check_window(const request& q, std::int64_t columns);
// A page of rows holds at most max_rows rows, and at most max_cells / columns: the size of
// every window page is bounded whatever the contig's depth.
constexpr std::int64_t max_rows = 200, min_rows = 50, max_cells = 100000;
std::int64_t rows_per_page(std::int64_t columns);

class site {
  public:
    assembly& ace;
    const read_source& sff;
    evidence_store* evidence = nullptr;  // pages without it show no evidence
    alignment_source* bam = nullptr;     // set: the references of --bam are the contigs

    site(assembly& a, const read_source& s) : ace(a), sff(s) {}
    response serve(const request& req) const;
    response overview() const;
    // `name` is the path after /contig/ (a contig name, or one followed by a view's suffix),
    // or after /read/ (a read name, or one followed by ".flows.tsv" or ".bases.tsv").
    response contig(std::string_view name, const request& req) const;
    response read(std::string_view name) const;
    response not_found(std::string_view what) const;
    response contig_window(std::size_t index, const request& req) const;
    response contig_text(std::size_t index, const request& req) const;
    response reference_overview() const;
    response reference_window(std::size_t ref, const request& req) const;
    response reference_run(std::size_t ref, std::string_view position) const;
};
response reference_search(const site& s, const std::string& q);

response run_page(const site& s, std::size_t contig, std::string_view rest, const request& req);
response run_view(std::string_view name, const hp_run& r, const hp_run& shown, bool disputed,
                  const flow_check& check, const contig& c,
                  const std::map<std::string, tied_read>& tied, const flow_models& models,
                  const std::vector<std::string>& units, const std::string& window,
                  const std::string& origin);
response calls_vcf(const site& s, std::size_t contig, std::string_view rest, const request& req);
response calls_tsv(const site& s, std::size_t contig, std::string_view rest, const request& req);
constexpr std::int64_t max_search_results = 100;
response search_page(const site& s, std::string_view rest, const request& req);

// A whole HTML page: title, body and optionally a script of assets/ (under a fresh nonce).
response page(std::string_view title, const html& body, const html& script = html{});
// Every error answer: an HTML page, or with `text` a plain line "title: message".
response error_response(int status, std::string_view title, std::string_view message,
                        bool text = false);
response text_response(int status, std::string body);
response ace_changed(bool text = false);  // 500: the ACE file is not the one read at start-up
std::string contig_href(std::string_view name);
std::string read_href(std::string_view name);
std::string window_href(std::string_view contig, std::int64_t from, int width,
                        std::int64_t rows_page = 1);
void fact(html& out, std::string_view term, std::string_view value);
void read_link(html& out, std::string_view name);
bool parse_count(std::string_view text, std::int64_t& out);  // at most nine digits
std::string file_name_for(std::string_view name);            // safe as a download's name

// Charts as inline SVG. `href` is the contig page's address up to the value of `from`: a
// click on the depth chart moves a window of `width` columns there.
html depth_chart(const drawn_contig& b, std::int64_t from, std::int64_t last, int width,
                 const std::string& href);
html quality_chart(const record_view& r);
html flowgram_chart(const record_view& r);

// A window's maps: names column and map, one line each per row; as text lines with the reads
// of each row after them.
void align_map_html(const window_page& v, html& names, html& map);
void flow_map_html(const contig& c, const window_page& v, html& names, html& map);
// `tied`: the drawn reads tied to their flows; a disputed run links to run_href(run).
void signals_map_html(const contig& c, const window_page& v, const std::vector<hp_run>& runs,
                      const std::vector<std::int32_t>& disputed,
                      const std::map<std::string, tied_read>& tied,
                      const std::function<std::string(const hp_run&)>& run_href, html& names,
                      html& map);
void align_map_text(const window_page& v, std::string& out);
void flow_map_text(const window_page& v, std::string& out);
// A flow's count as one character: a digit, A = 10 up to Z = 35, '+' beyond, ' ' for none.
char count_char(int n);
// A signal as three characters: one decimal, whole numbers from 9.95, "99+" from 99.5, "u"
// for a read not tied, blank for none.
std::string signal_text(std::int32_t value);
void coverage_note(html& out, const contig_coverage& c);
void disputed_table(html& out, std::string_view contig, const contig_evidence& e);
void disputed_marks(html& out, std::string_view contig, const contig_evidence& e, std::int64_t from,
                    std::int64_t last);

// Serves a site over HTTP in the background (server.cpp), with the limits that keep clients
// which send nothing, send slowly or send too much from holding it.
class http_server {
  public:
    explicit http_server(const site& s) : site_(s) {}
    ~http_server() { stop(); }
    http_server(const http_server&) = delete;
    http_server& operator=(const http_server&) = delete;
    // Listens on `host` (port 0: any free port): the port, or -1.
    int start(const std::string& host, int port);
    void stop();              // closes every connection once its answer is sent; safe to call twice
    bool access_log = false;  // a line on standard error for every answer

  private:
    const site& site_;
    MHD_Daemon* daemon_ = nullptr;
    friend struct handler;
};

}  // namespace browse

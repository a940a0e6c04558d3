// What the pages are built from: the SFF files through the library's index and fetchers, the
// ACE file's contigs, and the flow-signal evidence of each contig.
#include <malloc.h>
#include <sorvexa/ace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "site.h"

namespace browse {

std::map<std::string, tied_read> read_source::tie(const contig& c,
                                                  const std::vector<std::string>& names) const {
    std::map<std::string, tied_read> tied;
    fetchers.with([&](read_fetcher& f) { tied = tie_reads(c, lookup, f, names); });
    return tied;
}

fetch_result fetch(const read_source& sff, const std::string& name, record_view& out,
                   std::string& file) {
    const read_location at = sff.lookup.locate(name);
    if (!at.found()) return fetch_result::unknown;
    fetch_result result = fetch_result::file_changed;
    sff.fetchers.with([&](read_fetcher& f) {
        sorvexa::status why;
        if (const reader* r = f.record(at, why)) {
            out = view_of_record(*r);
            file = sff.lookup.sff_names[static_cast<std::size_t>(at.file)];
            result = fetch_result::ok;
        }
    });
    return result;
}

sorvexa::status assembly::read(const std::string& path) {
    ace_path = path;
    stamp_of(path, ace_stamp);
    aceReader ace(path);
    for (;;) {
        const std::int64_t offset = ace.tell();
        contig c;
        if (ace.next_contig(c) == 0) break;
        c.create_print_map();
        contigs.push_back({c.name, offset, static_cast<std::int32_t>(c.consensus.size()),
                           static_cast<std::int32_t>(c.reads.size()), 0,
                           c.reads.empty() ? std::int16_t{0} : c.min_read_len, c.max_read_len,
                           c.avg_read_len, static_cast<std::int32_t>(c.print_map.size())});
        for (const auto& [name, r] : c.reads)
            placements.push_back({name, static_cast<std::uint32_t>(contigs.size() - 1), r.start});
        reads_placed += contigs.back().reads;
        columns += contigs.back().columns;
    }
    if (!ace.error.ok) return ace.error;
    std::sort(placements.begin(), placements.end());
    by_name_.resize(contigs.size());
    for (std::uint32_t i = 0; i < contigs.size(); ++i) by_name_[i] = i;
    std::stable_sort(by_name_.begin(), by_name_.end(), [this](std::uint32_t x, std::uint32_t y) {
        return contigs[x].name < contigs[y].name;
    });
    return {};
}

void assembly::count_found(const read_source& sff) {
    reads_found = 0;
    for (contig_summary& s : contigs) s.found = 0;
    for (const placement& p : placements)
        if (sff.holds(p.read)) ++contigs[p.contig].found, ++reads_found;
}

int assembly::contig_index(std::string_view name) const {
    auto it = std::lower_bound(by_name_.begin(), by_name_.end(), name,
                               [this](std::uint32_t k, std::string_view n) {
                                   return std::string_view(contigs[k].name) < n;
                               });
    return it == by_name_.end() || contigs[*it].name != name ? -1 : static_cast<int>(*it);
}

int assembly::contig_of_read(std::string_view read) const {
    auto it = std::lower_bound(placements.begin(), placements.end(), read,
                               [](const placement& p, std::string_view n) { return p.read < n; });
    return it == placements.end() || it->read != read ? -1 : static_cast<int>(it->contig);
}

bool assembly::parse(std::size_t index, contig& c, bool qualities) const {
    // The file is read again only while it is the file read at start-up, so that a changed
    // file can never be shown as the assembly read then.
    file_stamp now;
    if (index >= contigs.size() || !stamp_of(ace_path, now) || !(now == ace_stamp)) return false;
    aceReader ace(ace_path);
    ace.keep_base_qualities = qualities;  // a window shows them as a row
    return ace.next_contig_at(contigs[index].offset, c) == 1 && c.name == contigs[index].name;
}

std::shared_ptr<const drawn_contig> assembly::load(std::size_t index) {
    if (auto hit = cache_.find(index)) return hit;
    // One parse at a time: two requests for the same contig wait for one build.
    std::lock_guard parse_one(parse_mutex_);
    if (auto hit = cache_.find(index)) return hit;
    contig c;
    if (!parse(index, c, true)) return nullptr;
    auto b = std::make_shared<drawn_contig>();
    b->d = display(std::move(c), {.upper_case = true, .from_column_one = true});
    b->depth = depth_of(b->c(), 1000);
    cache_.put(index, b, b->d.bytes());
    return b;
}

namespace {

std::shared_ptr<const contig_evidence> build_evidence(const contig& c, const read_source& sff,
                                                      std::shared_ptr<const flow_models> models) {
    auto e = std::make_shared<contig_evidence>();
    e->check.models = *models;
    // The fetcher refuses a file changed since start-up: its reads count as untied.
    sff.fetchers.with([&](read_fetcher& f) { e->check.check(c, sff.lookup, f, false, e->report); });
    e->check.models = flow_models{};
    e->models = std::move(models);
    for (const report_row& row : e->report.rows)
        if (row.edited) e->disputed.push_back(row.index);
    std::stable_sort(e->disputed.begin(), e->disputed.end(), [&](std::int32_t a, std::int32_t b) {
        return e->check.runs[static_cast<std::size_t>(a)].score >
               e->check.runs[static_cast<std::size_t>(b)].score;
    });
    e->bytes = e->check.runs.capacity() * sizeof(hp_run) + 2 * e->report.unpadded.size() +
               e->report.rows.size() * sizeof(report_row) + e->report.edits.size() * 64 + 256;
    return e;
}

// The library's calibration over the contigs in file order, as sorvexa-flowcheck's.
flow_models fit_models(const assembly& a, const read_source& sff, const std::atomic<bool>& stop) {
    flow_check check;
    file_stamp now;
    const std::vector<std::string>& files = sff.lookup.sff_names;
    if (files.empty() || !stamp_of(a.ace_path, now) || !(now == a.ace_stamp)) {
        check.models.set_fixed(check.model, files.size());
        check.models.files = files;
        return std::move(check.models);
    }
    // As sorvexa-flowcheck reads them: the contigs from the file's start, one after another.
    aceReader ace(a.ace_path);
    sff.fetchers.with([&](read_fetcher& f) {
        check.calibrate([&](contig& c) { return !stop && ace.next_contig(c) != 0; }, sff.lookup, f);
    });
    return std::move(check.models);
}

}  // namespace

evidence_store::~evidence_store() {
    stop_ = true;
    if (fitter_.joinable()) fitter_.join();
    if (counter_.joinable()) counter_.join();
}

void evidence_store::use_models(flow_models m, std::string origin) {
    auto shared = std::make_shared<const flow_models>(std::move(m));
    std::lock_guard lock(model_mutex_);
    models_ = std::move(shared);
    model_origin_ = std::move(origin);
    model_ready_.notify_all();
}

void evidence_store::fit_in_background() {
    // At the request threads' priority: evidence pages wait for it.
    if (!fitter_.joinable()) fitter_ = std::thread([this] { models(); });
}

std::shared_ptr<const flow_models> evidence_store::models() {
    std::unique_lock lock(model_mutex_);
    if (models_ == nullptr && !fitting_) {
        fitting_ = true;
        lock.unlock();
        auto fitted = std::make_shared<const flow_models>(fit_models(ace_, sff_, stop_));
        malloc_trim(0);  // the fit's sample of signals is freed by now: hand it back
        lock.lock();
        fitting_ = false;
        if (models_ == nullptr) {
            models_ = std::move(fitted);
            model_origin_ = "fitted to this assembly's signals";
        }
        model_ready_.notify_all();
    }
    model_ready_.wait(lock, [this] { return models_ != nullptr; });
    return models_;
}

std::shared_ptr<const flow_models> evidence_store::models_if_ready(std::string* origin) const {
    std::lock_guard lock(model_mutex_);
    if (origin != nullptr) *origin = model_origin_;
    return models_;
}

std::shared_ptr<const contig_evidence> evidence_store::get(std::size_t index) {
    if (index >= ace_.contigs.size()) return nullptr;
    if (auto hit = cache_.find(index)) return hit;
    std::shared_ptr<const flow_models> m = models();
    // One build at a time: requests for the same contig wait for the first instead of
    // repeating its work, and the memory of builds does not add up.
    std::lock_guard build(build_mutex_);
    if (auto hit = cache_.find(index)) return hit;
    contig c;
    if (!ace_.parse(index, c)) return nullptr;
    std::shared_ptr<const contig_evidence> built = build_evidence(c, sff_, std::move(m));
    c = contig{};
    malloc_trim(0);  // what the check took besides its result is handed back
    record(index, built->disputed.size(), built->report.coverage);
    cache_.put(index, built, built->bytes);
    return built;
}

void evidence_store::count_in_background() {
    if (counter_.joinable()) return;
    counter_ = std::thread([this] {
        const std::shared_ptr<const flow_models> m = models();
        // Pages come first: the count runs at a lower priority than the request threads.
        setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 10);
        for (std::size_t i = 0; i < ace_.contigs.size() && !stop_; ++i) {
            if (tally(i)) continue;
            contig c;
            if (!ace_.parse(i, c)) return;
            const auto e = build_evidence(c, sff_, m);
            record(i, e->disputed.size(), e->report.coverage);
            c = contig{};
            malloc_trim(0);  // what a contig's check took is handed back before the next one
        }
    });
}

std::optional<contig_tally> evidence_store::tally(std::size_t index) const {
    std::lock_guard lock(tally_mutex_);
    return index < tallies_.size() ? tallies_[index] : std::nullopt;
}

std::int32_t evidence_store::disputed_runs(std::size_t index) const {
    const std::optional<contig_tally> t = tally(index);
    return t ? t->disputed : -1;
}

}  // namespace browse

#include "evidence.h"

#include <malloc.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include <sorvexa/ace.h>

namespace browse {

std::int32_t contig_evidence::run_at(std::int32_t column) const {
    const auto& runs = check.runs;
    for (std::size_t i = 0; i < runs.size(); ++i)
        if (runs[i].column == column) return static_cast<std::int32_t>(i);
    return -1;
}

bool contig_evidence::is_disputed(std::int32_t run) const {
    return std::find(disputed.begin(), disputed.end(), run) != disputed.end();
}

namespace {

// The files whose records can still be read: those unchanged since start-up.
std::vector<bool> unchanged_files(const read_source& sff) {
    std::vector<bool> unchanged;
    for (const read_source::sff_file& f : sff.files) {
        file_stamp now;
        unchanged.push_back(stamp_of(f.path, now) && now == f.stamp);
    }
    return unchanged;
}

std::vector<std::string> paths_of(const read_source& sff) {
    std::vector<std::string> paths;
    for (const read_source::sff_file& f : sff.files) paths.push_back(f.path);
    return paths;
}

// The file and record of a read as the check looks them up; a file that changed holds none.
flow_check::read_finder finder_of(const read_source& sff, std::vector<bool> unchanged) {
    return [&sff, unchanged = std::move(unchanged)](const std::string& name, std::int64_t& pos) {
        const read_source::entry* found = sff.find(name);
        if (found == nullptr || !unchanged[found->file]) return -1;
        pos = found->pos;
        return static_cast<int>(found->file);
    };
}

}  // namespace

std::shared_ptr<const contig_evidence> build_evidence(const contig& c, const read_source& sff,
                                                      std::shared_ptr<const flow_models> models) {
    auto e = std::make_shared<contig_evidence>();
    e->check.models = *models;
    e->check.check_contig(c, paths_of(sff), finder_of(sff, unchanged_files(sff)), e->counts);
    e->check.models = flow_models{};
    e->models = std::move(models);
    e->coverage = e->check.coverage();
    e->unpadded = unpadded_consensus(c);
    e->check.edits(e->unpadded, e->edits);
    for (const consensus_edit& edit : e->edits) e->disputed.push_back(edit.run);
    std::stable_sort(e->disputed.begin(), e->disputed.end(), [&](std::int32_t a, std::int32_t b) {
        return e->check.runs[static_cast<std::size_t>(a)].score >
               e->check.runs[static_cast<std::size_t>(b)].score;
    });
    e->bytes =
        e->check.runs.capacity() * sizeof(hp_run) + e->unpadded.size() + e->edits.size() * 64 + 256;
    return e;
}

flow_models fit_models(const assembly& a, const read_source& sff, const std::atomic<bool>& stop) {
    flow_check check;
    file_stamp now;
    if (sff.files.empty() || !stamp_of(a.ace_path, now) || !(now == a.ace_stamp)) {
        check.models.set_fixed(check.model, sff.files.size());
        check.models.files = paths_of(sff);
        return std::move(check.models);
    }
    // As sorvexa-flowcheck reads them: the contigs from the file's start, one after another.
    aceReader ace(a.ace_path);
    check.calibrate([&](contig& c) { return !stop && ace.next_contig(c) != 0; }, paths_of(sff),
                    finder_of(sff, unchanged_files(sff)));
    return std::move(check.models);
}

std::map<std::string, tied_read> tie_reads(const contig& c, const read_source& sff,
                                           const std::vector<std::string>& names) {
    std::map<std::string, tied_read> out;
    const std::vector<bool> unchanged = unchanged_files(sff);
    std::vector<std::vector<std::pair<std::int64_t, const READ*>>> by_file(sff.files.size());
    for (const std::string& name : names) {
        const auto r = c.reads.find(name);
        const read_source::entry* found = sff.find(name);
        if (r == c.reads.end() || found == nullptr || !unchanged[found->file]) continue;
        by_file[found->file].emplace_back(found->pos, &r->second);
    }
    tied_read t;
    for (std::size_t k = 0; k < by_file.size(); ++k) {
        if (by_file[k].empty()) continue;
        reader rd(sff.files[k].path);
        rd.get_header();
        const std::string_view flows(rd.header_p2.flow_chars.data(),
                                     rd.header_p2.flow_chars.size());
        for (const auto& [pos, read] : by_file[k])
            if (rd.get_record(pos) && tie_read(*read, rd.cur_read, flows, t)) out[read->name] = t;
    }
    return out;
}

std::map<std::string, tied_read> tie_reads(const contig_evidence& e, const contig& c,
                                           const read_source& sff,
                                           const std::vector<std::string>& names) {
    std::map<std::string, tied_read> out;
    std::vector<std::string> missing;
    {
        std::lock_guard<std::mutex> lock(e.tie_mutex);
        for (const std::string& name : names) {
            auto it = e.tie_cache.find(name);
            if (it == e.tie_cache.end())
                missing.push_back(name);
            else if (it->second)
                out.emplace(name, *it->second);
        }
    }
    if (missing.empty()) return out;
    std::map<std::string, tied_read> fetched = tie_reads(c, sff, missing);
    std::lock_guard<std::mutex> lock(e.tie_mutex);
    for (const std::string& name : missing) {
        auto it = fetched.find(name);
        const std::size_t size = it == fetched.end() ? 64
                                                     : 128 + it->second.base_flow.size() * 4 +
                                                           it->second.flowgram.size() * 2 +
                                                           it->second.flow_chars.size();
        if (e.tie_cache_bytes + size <= contig_evidence::tie_cache_limit &&
            e.tie_cache.count(name) == 0) {
            e.tie_cache.emplace(
                name, it == fetched.end() ? std::nullopt : std::optional<tied_read>(it->second));
            e.tie_cache_bytes += size;
        }
        if (it != fetched.end()) out.emplace(name, std::move(it->second));
    }
    return out;
}

signal_class classify(std::int32_t value, std::int32_t count) {
    const std::int32_t off = value > 100 * count ? value - 100 * count : 100 * count - value;
    if (off <= close_within) return signal_class::close;
    if (off < borderline_within) return signal_class::borderline;
    return signal_class::disputed;
}

evidence_store::evidence_store(assembly& a, const read_source& s, std::size_t cache_size,
                               std::size_t cache_bytes)
    : ace_(a),
      sff_(s),
      cache_size_(std::max<std::size_t>(cache_size, 1)),
      cache_bytes_(cache_bytes),
      tallies_(a.contigs.size()) {}

evidence_store::~evidence_store() {
    stop_ = true;
    if (fitter_.joinable()) fitter_.join();
    if (counter_.joinable()) counter_.join();
}

void evidence_store::use_models(flow_models m, std::string origin) {
    auto shared = std::make_shared<const flow_models>(std::move(m));
    std::lock_guard<std::mutex> lock(model_mutex_);
    models_ = std::move(shared);
    model_origin_ = std::move(origin);
    model_ready_.notify_all();
}

void evidence_store::fit_in_background() {
    if (fitter_.joinable()) return;
    // At the request threads' priority: evidence pages wait for it.
    fitter_ = std::thread([this] { models(); });
}

std::shared_ptr<const flow_models> evidence_store::models() {
    std::unique_lock<std::mutex> lock(model_mutex_);
    if (models_ == nullptr && !fitting_) {
        fitting_ = true;
        lock.unlock();
        auto fitted = std::make_shared<const flow_models>(fit_models(ace_, sff_, stop_));
        // The fit's sample of signals is freed by now: hand it back.
        malloc_trim(0);
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
    std::lock_guard<std::mutex> lock(model_mutex_);
    if (origin != nullptr) *origin = model_origin_;
    return models_;
}

namespace {

// Parses contig `index` again from the ACE file, unless the file changed since start-up.
bool parse_again(const assembly& a, std::size_t index, contig& c) {
    file_stamp now;
    if (!stamp_of(a.ace_path, now) || !(now == a.ace_stamp)) return false;
    aceReader ace(a.ace_path);
    return ace.next_contig_at(a.contigs[index].offset, c) == 1;
}

}  // namespace

void evidence_store::record(std::size_t index, const contig_evidence& e) {
    std::lock_guard<std::mutex> lock(tally_mutex_);
    tallies_[index] = contig_tally{static_cast<std::int32_t>(e.disputed.size()), e.coverage};
}

std::shared_ptr<const contig_evidence> evidence_store::get(std::size_t index) {
    if (index >= ace_.contigs.size()) return nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (cached& e : cache_) {
            if (e.index != index) continue;
            e.used = ++clock_;
            return e.evidence;
        }
    }
    std::shared_ptr<const flow_models> m = models();
    // One build at a time: requests for the same contig wait for the first instead of
    // repeating its work, and the memory of builds does not add up.
    std::lock_guard<std::mutex> build(build_mutex_);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (cached& e : cache_)
            if (e.index == index) return e.evidence;
    }
    contig c;
    if (!parse_again(ace_, index, c)) return nullptr;
    std::shared_ptr<const contig_evidence> built = build_evidence(c, sff_, std::move(m));
    record(index, *built);
    std::lock_guard<std::mutex> lock(mutex_);
    // The most recently used stay, within both bounds (the newest always).
    std::size_t bytes = built->bytes;
    for (const cached& e : cache_) bytes += e.evidence->bytes;
    while (!cache_.empty() && (cache_.size() >= cache_size_ || bytes > cache_bytes_)) {
        auto oldest =
            std::min_element(cache_.begin(), cache_.end(),
                             [](const cached& x, const cached& y) { return x.used < y.used; });
        bytes -= oldest->evidence->bytes;
        cache_.erase(oldest);
    }
    cache_.push_back({index, built, ++clock_});
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
            if (!parse_again(ace_, i, c)) return;
            record(i, *build_evidence(c, sff_, m));
            // What a contig's check took is handed back before the next one.
            c = contig{};
            malloc_trim(0);
        }
    });
}

std::optional<contig_tally> evidence_store::tally(std::size_t index) const {
    std::lock_guard<std::mutex> lock(tally_mutex_);
    return index < tallies_.size() ? tallies_[index] : std::nullopt;
}

std::int32_t evidence_store::disputed_runs(std::size_t index) const {
    const std::optional<contig_tally> t = tally(index);
    return t ? t->disputed : -1;
}

}  // namespace browse

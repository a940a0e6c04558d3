#include <htslib/hts.h>
#include <htslib/sam.h>
#include <sorvexa/alignment_view.h>

#include <algorithm>

std::int64_t reference_view::position_at(std::int32_t column) const {
    return offset + d.unpadded_at(column);
}

std::int32_t reference_view::column_of(std::int64_t position) const {
    const std::int64_t k = position - offset;  // the contig's k-th base
    const auto L = static_cast<std::int32_t>(c().consensus.size());
    if (k < 1 || d.unpadded_at(L) < k) return 0;
    std::int32_t lo = 1, hi = L;  // the first column holding k bases
    while (lo < hi) {
        const std::int32_t mid = lo + (hi - lo) / 2;
        if (d.unpadded_at(mid) < k)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

std::size_t reference_view::bytes() const {
    std::size_t n = d.bytes() + check.runs.capacity() * sizeof(hp_run) + 256;
    for (const auto& [name, t] : tied)
        n += name.size() + 96 + t.base_flow.size() * 4 + t.flowgram.size() * 2;
    return n;
}

sorvexa::status alignment_views::open(const std::string& path, const std::string& reference,
                                      const read_lookup* lookup, std::size_t handles) {
    auto first = std::make_unique<alignment_file>();
    if (sorvexa::status st = first->open(path, reference, lookup); !st) return st;
    path_ = path;
    reference_ = reference;
    lookup_ = lookup;
    refs_ = first->references();
    units_ = first->units();
    std::lock_guard lock(mutex_);
    idle_.clear();
    idle_.push_back(std::move(first));
    opened_ = 1;
    max_ = std::max<std::size_t>(handles, 1);
    return {};
}

int alignment_views::reference_index(const std::string& name) const {
    for (std::size_t i = 0; i < refs_.size(); ++i)
        if (refs_[i].name == name) return static_cast<int>(i);
    return -1;
}

// A handle is opened only when every open one is busy: a viewer with one reader never holds
// more than one index in memory.
std::unique_ptr<alignment_file> alignment_views::take(sorvexa::status& why) {
    std::unique_lock lock(mutex_);
    freed_.wait(lock, [this] { return !idle_.empty() || opened_ < max_ || opened_ == 0; });
    if (opened_ == 0) {
        why = sorvexa::status::failure("no alignment file open");
        return nullptr;
    }
    if (!idle_.empty()) {
        auto f = std::move(idle_.back());
        idle_.pop_back();
        return f;
    }
    ++opened_;
    lock.unlock();
    auto f = std::make_unique<alignment_file>();
    why = f->open(path_, reference_, lookup_);
    if (why) return f;
    lock.lock();
    --opened_;
    freed_.notify_one();
    return nullptr;
}

void alignment_views::give_back(std::unique_ptr<alignment_file> f) {
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(f));
    freed_.notify_one();
}

struct alignment_views::lease {
    alignment_views& owner;
    sorvexa::status why;  // before `file`, which take() fills it for
    std::unique_ptr<alignment_file> file;
    explicit lease(alignment_views& o) : owner(o), file(o.take(why)) {}
    ~lease() {
        if (file != nullptr) owner.give_back(std::move(file));
    }
};

sorvexa::status alignment_views::view(std::int32_t ref, std::int64_t first, std::int64_t last,
                                      const flow_models* models, reference_view& out,
                                      std::int64_t margin) {
    out = reference_view{};
    if (ref < 0 || static_cast<std::size_t>(ref) >= refs_.size())
        return sorvexa::status::failure("no such reference sequence");
    const std::int64_t length = refs_[static_cast<std::size_t>(ref)].length;
    first = std::clamp<std::int64_t>(first, 1, std::max<std::int64_t>(length, 1));
    last = std::clamp<std::int64_t>(last, first, length);
    aligned_window w;
    {
        lease l(*this);
        if (l.file == nullptr) return l.why;
        if (sorvexa::status st = l.file->read({ref, first - 1, last, margin}, w); !st) return st;
    }
    out.ref = ref;
    out.first = first;
    out.last = last;
    out.offset = w.offset;
    out.tied = std::move(w.tied);
    out.counts = w.counts;
    out.d = display(std::move(w.c), {.upper_case = true, .from_column_one = true});
    out.from = out.column_of(first);
    out.to = out.column_of(last);
    if (models == nullptr) return {};

    // As the check of the whole reference weighs them: reads along the contig in start order.
    flow_check& check = out.check;
    check.models = *models;
    std::vector<flow_check::read_tie> ties;
    for (const auto& [name, t] : out.tied) ties.push_back({&out.c().reads.at(name), &t});
    std::stable_sort(ties.begin(), ties.end(),
                     [](const auto& a, const auto& b) { return a.tie->start < b.tie->start; });
    check.check_tied(out.c(), ties, out.counts);
    contig_report report;
    check.report(out.c(), false, report);
    check.models = flow_models{};  // the caller holds them; a view need not copy them
    for (const report_row& row : report.rows) {
        const hp_run& r = check.runs[static_cast<std::size_t>(row.index)];
        if (row.edited && r.column >= out.from && r.column <= out.to)
            out.disputed.push_back(row.index);
    }
    std::stable_sort(out.disputed.begin(), out.disputed.end(), [&](std::int32_t a, std::int32_t b) {
        return check.runs[static_cast<std::size_t>(a)].score >
               check.runs[static_cast<std::size_t>(b)].score;
    });
    out.checked = true;
    return {};
}

sorvexa::status alignment_views::fit(flow_models& out, const std::atomic<bool>& stop) {
    lease l(*this);
    if (l.file == nullptr) return l.why;
    flow_check check;
    const flow_check::probe_source sample = alignment_sample(*l.file);
    sorvexa::status st = check.calibrate(
        [&](flow_check& probe, sorvexa::status& error) { return !stop && sample(probe, error); },
        units_);
    out = std::move(check.models);
    return st;
}

sorvexa::status alignment_views::check(std::int32_t ref, const flow_models& models,
                                       contig_report& out) {
    lease l(*this);
    if (l.file == nullptr) return l.why;
    flow_check check;
    check.models = models;
    if (ref < 0) return sorvexa::status::failure("no such reference sequence");
    return check_reference(check, *l.file, static_cast<std::size_t>(ref), false, out);
}

sorvexa::status alignment_views::placements(std::vector<placed_read>& out,
                                            const std::atomic<bool>& stop) {
    out.clear();
    htsFile* in = hts_open(path_.c_str(), "r");
    if (in == nullptr) return sorvexa::status::failure("can not open alignment file " + path_);
    if (hts_get_format(in)->format == cram) hts_set_fai_filename(in, reference_.c_str());
    // The names and positions are all a search needs: the rest of each record stays unparsed.
    hts_set_opt(in, CRAM_OPT_REQUIRED_FIELDS, SAM_QNAME | SAM_FLAG | SAM_RNAME | SAM_POS);
    sam_hdr_t* h = sam_hdr_read(in);
    bam1_t* b = bam_init1();
    int got = -1;
    while (h != nullptr && b != nullptr && !stop && (got = sam_read1(in, h, b)) >= 0) {
        if ((b->core.flag & (BAM_FUNMAP | BAM_FSECONDARY | BAM_FSUPPLEMENTARY)) != 0) continue;
        out.push_back({bam_get_qname(b), b->core.tid, b->core.pos + 1});
    }
    if (b != nullptr) bam_destroy1(b);
    if (h != nullptr) sam_hdr_destroy(h);
    hts_close(in);
    if (h == nullptr) return sorvexa::status::failure(path_ + ": can not read the header");
    if (stop) return sorvexa::status::failure("stopped");
    if (got < -1) return sorvexa::status::failure(path_ + ": a record can not be read");
    std::sort(out.begin(), out.end());
    return {};
}

alignment_survey::~alignment_survey() {
    stop_ = true;
    if (worker_.joinable()) worker_.join();
}

void alignment_survey::use_models(flow_models m, std::string origin) {
    std::lock_guard lock(mutex_);
    models_ = std::make_shared<const flow_models>(std::move(m));
    origin_ = std::move(origin);
}

std::shared_ptr<const flow_models> alignment_survey::models(std::string* origin) const {
    std::lock_guard lock(mutex_);
    if (origin != nullptr) *origin = origin_;
    return models_;
}

// The model first: windows are checked once it is there, and the disputed runs need it.
void alignment_survey::start(const std::function<void()>& setup) {
    if (worker_.joinable()) return;
    {
        std::lock_guard lock(mutex_);  // pages may be asking already
        disputed_.assign(files_.references().size(), std::nullopt);
    }
    worker_ = std::thread([this, setup] {
        if (setup) setup();
        if (models() == nullptr) {
            flow_models m;
            (void)files_.fit(m, stop_);  // a failed fit leaves the fixed model
            if (stop_) return;
            use_models(std::move(m), "fitted to these alignments' signals");
        }
        std::vector<alignment_views::placed_read> names;
        if (files_.placements(names, stop_)) {
            std::lock_guard lock(mutex_);
            names_ = std::move(names);
            names_ready_ = true;
        }
        const std::shared_ptr<const flow_models> m = models();
        for (std::size_t k = 0; k < disputed_.size() && !stop_; ++k) {
            contig_report report;
            std::vector<hp_run> found;
            if (!files_.check(static_cast<std::int32_t>(k), *m, report)) continue;
            for (const report_row& row : report.rows)
                if (row.edited) found.push_back(row.run);
            std::stable_sort(found.begin(), found.end(),
                             [](const hp_run& a, const hp_run& b) { return a.score > b.score; });
            std::lock_guard lock(mutex_);
            disputed_[k] = std::move(found);
        }
    });
}

std::optional<std::vector<hp_run>> alignment_survey::disputed(std::size_t ref) const {
    std::lock_guard lock(mutex_);
    return ref < disputed_.size() ? disputed_[ref] : std::nullopt;
}

std::vector<alignment_views::placed_read> alignment_survey::reads_named(std::string_view prefix,
                                                                        std::size_t most) const {
    std::vector<alignment_views::placed_read> out;
    if (!names_ready_) return out;
    std::lock_guard lock(mutex_);
    auto it = std::lower_bound(names_.begin(), names_.end(), prefix,
                               [](const auto& p, std::string_view n) { return p.name < n; });
    for (; it != names_.end() && it->name.starts_with(prefix) && out.size() < most; ++it)
        out.push_back(*it);
    return out;
}

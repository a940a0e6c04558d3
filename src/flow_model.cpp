// The flow-value model per file and length: its densities, its prior, its table text, and
// its fit to labelled signals.
#include <sorvexa/flow_model.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <numbers>

namespace {

constexpr double kLogSqrt2Pi = 0.91893853320467274178;

// The last path component.
std::string_view base_name(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void put_fixed(std::string& out, double v, int decimals) {
    char buf[64];
    const auto res = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, decimals);
    out.append(buf, res.ptr);
}

}  // namespace

const char* source_name(model_source s) {
    switch (s) {
        case model_source::estimated:
            return "estimated";
        case model_source::pooled:
            return "pooled";
        case model_source::extrapolated:
            return "extrapolated";
        case model_source::fixed:
            break;
    }
    return "fixed";
}

void round_to_table(length_model& m) {
    m.centre = std::round(m.centre * 1e4) / 1e4;
    m.spread = std::round(m.spread * 1e4) / 1e4;
    m.outlier = std::round(m.outlier * 1e5) / 1e5;
}

length_model flow_model::at(std::int32_t n) const {
    length_model m;
    m.centre = n;
    m.spread = std::max(sigma(n), flow_models::kMinSpread);
    m.outlier = flow_models::kMinOutlier;
    round_to_table(m);
    return m;
}

double log_density(const length_model& m, double value) {
    const double out = std::log(m.outlier / flow_models::kValueRange);
    if (value > flow_models::kValueRange) return out;
    const double z = (value - m.centre) / m.spread;
    const double core = std::log1p(-m.outlier) - std::log(m.spread) - kLogSqrt2Pi - 0.5 * z * z;
    // log(exp(core) + exp(out)) without overflow either way.
    return core > out ? core + std::log1p(std::exp(out - core))
                      : out + std::log1p(std::exp(core - out));
}

void flow_models::set_fixed(const flow_model& m, std::size_t file_count) {
    files.assign(file_count, std::string());
    pooled.clear();
    for (std::int32_t n = 0; n < kLengths; ++n) pooled.push_back(m.at(n));
    models.assign(file_count, pooled);
    prepare();
}

length_model flow_models::at(std::size_t file, std::int32_t n) const {
    const std::vector<length_model>& t = file < models.size() ? models[file] : pooled;
    if (t.empty()) return flow_model{}.at(n);
    if (n < static_cast<std::int32_t>(t.size())) return t[static_cast<std::size_t>(std::max(n, 0))];
    const length_model& last = t.back();
    const length_model& before = t.size() > 1 ? t[t.size() - 2] : last;
    const double steps = n - static_cast<std::int32_t>(t.size()) + 1;
    length_model m = last;
    m.centre = last.centre + steps * std::max(0.5, last.centre - before.centre);
    m.spread = last.spread + steps * std::max(0.0, last.spread - before.spread);
    m.signals = 0;
    m.source = model_source::extrapolated;
    return m;
}

double flow_models::compute_log_prior(std::int32_t m, std::int32_t n) const {
    const double e = std::clamp(error_rate, 1e-9, 0.5);
    return m == n ? std::log1p(-e) : std::log(e / 2) + (std::abs(m - n) - 1) * std::log(0.1);
}

void flow_models::prepare() {
    prior_.clear();
    std::vector<double> prior(kPriorLengths * kPriorLengths);
    for (std::int32_t n = 0; n < kPriorLengths; ++n)
        for (std::int32_t m = 0; m < kPriorLengths; ++m)
            prior[static_cast<std::size_t>(n * kPriorLengths + m)] = compute_log_prior(m, n);
    prior_ = std::move(prior);
    table_files_ = models.size() + 1;
    table_.assign(table_files_ * kLengths * kTableValues, 0.0f);
    for (std::size_t f = 0; f < table_files_; ++f) {
        for (std::int32_t n = 0; n < kLengths; ++n) {
            const length_model m = at(f == 0 ? models.size() : f - 1, n);
            for (int v = 0; v < kTableValues; ++v)
                table_[(f * kTableValues + static_cast<std::size_t>(v)) * kLengths +
                       static_cast<std::size_t>(n)] =
                    static_cast<float>(::log_density(m, v / 100.0));
        }
    }
}

double flow_models::slow_log_density(std::size_t file, std::int32_t n, std::uint16_t value) const {
    return ::log_density(at(file, n), value / 100.0);
}

void flow_models::append_tsv(std::string& out) const {
    out += "file\tlength\tsignals\tcentre\tspread\toutlier_rate\tsource\n";
    auto lines = [&](std::string_view name, const std::vector<length_model>& t) {
        for (std::size_t n = 0; n < t.size(); ++n) {
            const length_model& m = t[n];
            out += name;
            out += '\t';
            out += std::to_string(n);
            out += '\t';
            out += std::to_string(m.signals);
            out += '\t';
            put_fixed(out, m.centre, 4);
            out += '\t';
            put_fixed(out, m.spread, 4);
            out += '\t';
            put_fixed(out, m.outlier, 5);
            out += '\t';
            out += source_name(m.source);
            out += '\n';
        }
    };
    for (std::size_t f = 0; f < models.size(); ++f)
        lines(f < files.size() ? std::string_view(files[f]) : std::string_view(), models[f]);
    lines("*", pooled);
}

namespace {

bool parse_number(std::string_view s, double& v) {
    const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    return ec == std::errc() && end == s.data() + s.size() && std::isfinite(v);
}

bool parse_source(std::string_view s, model_source& out) {
    for (model_source m : {model_source::estimated, model_source::pooled,
                           model_source::extrapolated, model_source::fixed}) {
        if (s == source_name(m)) {
            out = m;
            return true;
        }
    }
    return false;
}

// The lengths of one table that have no line take the trend of those that have.
void fill_gaps(std::vector<length_model>& t, const std::vector<bool>& given,
               const std::vector<length_model>& fallback) {
    std::vector<length_model> known;
    for (std::size_t n = 0; n < t.size(); ++n)
        if (given[n]) known.push_back(t[n]);
    for (std::size_t n = 0; n < t.size(); ++n) {
        if (given[n]) continue;
        if (known.empty()) {
            t[n] = fallback[n];
            continue;
        }
        // The nearest given length below, else above, moved by whole bases.
        std::size_t k = n;
        while (k > 0 && !given[k]) --k;
        if (!given[k]) {
            k = n;
            while (!given[k]) ++k;
        }
        t[n] = t[k];
        const double step = static_cast<double>(n) - static_cast<double>(k);
        t[n].centre = std::max(0.0, t[k].centre + step);
        t[n].signals = 0;
        t[n].source = model_source::extrapolated;
    }
}

}  // namespace

bool flow_models::parse_tsv(std::string_view text, const std::vector<std::string>& sff_files,
                            std::string& error) {
    struct line {
        std::string file;
        std::int32_t length;
        length_model m;
    };
    std::vector<line> lines;
    std::size_t number = 0;
    bool header = false;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string_view row = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        ++number;
        if (!row.empty() && row.back() == '\r') row.remove_suffix(1);
        if (row.empty() || row.front() == '#') continue;
        std::vector<std::string_view> f;
        for (std::size_t at = 0;;) {
            const std::size_t tab = row.find('\t', at);
            f.push_back(row.substr(at, tab == std::string_view::npos ? row.npos : tab - at));
            if (tab == std::string_view::npos) break;
            at = tab + 1;
        }
        if (!header) {
            header = true;
            if (f.size() >= 7 && f[0] == "file" && f[1] == "length") continue;
            error = "line 1 is not the model's header line";
            return false;
        }
        line l;
        double length = 0, signals = 0;
        if (f.size() < 7 || f[0].empty() || !parse_number(f[1], length) || length < 0 ||
            length >= kLengths || length != std::floor(length) || !parse_number(f[2], signals) ||
            !parse_number(f[3], l.m.centre) || !parse_number(f[4], l.m.spread) ||
            !parse_number(f[5], l.m.outlier) || !parse_source(f[6], l.m.source) ||
            l.m.spread <= 0 || l.m.outlier < 0 || l.m.outlier >= 1 || signals < 0 ||
            signals > 1e15 || signals != std::floor(signals)) {
            error = "line " + std::to_string(number) + " is not a model line";
            return false;
        }
        l.file = std::string(f[0]);
        l.length = static_cast<std::int32_t>(length);
        l.m.spread = std::max(l.m.spread, kMinSpread);
        l.m.outlier = std::max(l.m.outlier, kMinOutlier);
        l.m.signals = static_cast<std::int64_t>(signals);
        lines.push_back(std::move(l));
    }
    if (lines.empty()) {
        error = "the model has no lines";
        return false;
    }
    const std::vector<length_model> fixed = [] {
        std::vector<length_model> t;
        for (std::int32_t n = 0; n < kLengths; ++n) t.push_back(flow_model{}.at(n));
        return t;
    }();
    auto table_of = [&](auto matches, const std::vector<length_model>& fallback,
                        std::vector<length_model>& t) {
        t.assign(kLengths, length_model{});
        std::vector<bool> given(kLengths, false);
        for (const line& l : lines) {
            if (!matches(l.file)) continue;
            t[static_cast<std::size_t>(l.length)] = l.m;
            given[static_cast<std::size_t>(l.length)] = true;
        }
        const bool any = std::find(given.begin(), given.end(), true) != given.end();
        if (any) fill_gaps(t, given, fallback);
        return any;
    };
    if (!table_of([](const std::string& f) { return f == "*"; }, fixed, pooled)) pooled = fixed;
    files = sff_files;
    models.assign(sff_files.size(), {});
    for (std::size_t k = 0; k < sff_files.size(); ++k) {
        const std::string& want = sff_files[k];
        if (table_of([&](const std::string& f) { return f == want; }, pooled, models[k])) continue;
        if (table_of(
                [&](const std::string& f) { return f != "*" && base_name(f) == base_name(want); },
                pooled, models[k]))
            continue;
        models[k] = pooled;
    }
    prepare();
    return true;
}

std::string describe_models(const flow_models& m) {
    std::string out;
    for (std::size_t f = 0; f < m.models.size(); ++f) {
        int count[4] = {0, 0, 0, 0};
        for (const length_model& l : m.models[f]) ++count[static_cast<int>(l.source)];
        if (!out.empty()) out += "; ";
        out += f < m.files.size() ? std::string(base_name(m.files[f])) : std::string("?");
        char sep = ':';
        for (model_source s : {model_source::estimated, model_source::pooled,
                               model_source::extrapolated, model_source::fixed}) {
            const int k = count[static_cast<int>(s)];
            if (k == 0) continue;
            out += sep;
            out += ' ';
            out += std::to_string(k);
            out += ' ';
            out += source_name(s);
            sep = ',';
        }
    }
    return out;
}

namespace {

constexpr double kPhred = 10.0 / std::numbers::ln10;
constexpr std::int32_t kMaxCandidates = 16;
// Nats by which a candidate must lead for the others' share to vanish below 1e-9.
constexpr double kSure = 23.0;

// Posterior weights of the candidate lengths and what a run's call needs of them.
struct posterior {
    double log_post[kMaxCandidates] = {};
    std::int32_t size = 0, best = 0;

    // The most probable candidate, `keep` winning ties: it only moves on evidence.
    void choose(std::int32_t keep) {
        best = keep;
        for (std::int32_t c = 0; c < size; ++c)
            if (log_post[c] > log_post[best]) best = c;
    }
    // The highest log-posterior of the candidates other than `c`.
    double runner_up(std::int32_t c) const {
        double second = -HUGE_VAL;
        for (std::int32_t k = 0; k < size; ++k)
            if (k != c) second = std::max(second, log_post[k]);
        return second;
    }
    // The phred-scaled probability that candidate `c` is not the length.
    double phred_not(std::int32_t c) const {
        // A candidate that leads every other by this many nats is certain to the cap.
        constexpr double kDecisive = run_call::kMaxQual / kPhred + 3.0;
        const double second = runner_up(c);
        if (log_post[c] - second > kDecisive) return run_call::kMaxQual;
        double here = 0.0, others = 0.0;
        const double top = std::max(log_post[c], second);
        for (std::int32_t k = 0; k < size; ++k)
            (k == c ? here : others) += std::exp(log_post[k] - top);
        if (others <= 0.0) return run_call::kMaxQual;
        return std::clamp(kPhred * std::log((here + others) / others), 0.0, run_call::kMaxQual);
    }
    // The phred-scaled probability that candidate `c` is the length.
    double phred_is(std::int32_t c) const {
        const double top = *std::max_element(log_post, log_post + size);
        if (top - log_post[c] > run_call::kMaxQual / kPhred) return run_call::kMaxQual;
        // A candidate this far ahead of every other is certain to a hundredth of a phred,
        // the most the reports write: the common case, with no exponential to take.
        if (c == best && runner_up(c) < log_post[c] - kSure) return 0.0;
        double total = 0.0;
        for (std::int32_t k = 0; k < size; ++k) total += std::exp(log_post[k] - top);
        return std::clamp(kPhred * (std::log(total) + top - log_post[c]), 0.0, run_call::kMaxQual);
    }
};

}  // namespace

run_call decide_run(const flow_models& m, std::int32_t n,
                    const float (&likelihood)[2][run_window::kSize], std::int32_t forward_count,
                    std::int32_t reverse_count, std::int32_t min_strand, double min_qual) {
    run_call out;
    out.called = n;
    if (forward_count + reverse_count == 0 || n < 0) return out;
    const std::int32_t lo = run_window::first(n), size = run_window::kSize, at_n = n - lo;
    double prior[kMaxCandidates];
    for (std::int32_t c = 0; c < size; ++c) prior[c] = m.log_prior(lo + c, n);
    auto weigh = [&](posterior& p, auto likelihood_of) {
        p.size = size;
        for (std::int32_t c = 0; c < size; ++c) p.log_post[c] = likelihood_of(c) + prior[c];
        p.choose(at_n);
    };
    const float* forward = likelihood[0];
    const float* reverse = likelihood[1];
    posterior both;
    weigh(both, [&](std::int32_t c) { return double{forward[c]} + double{reverse[c]}; });
    out.called = lo + both.best;
    out.score = double{forward[both.best]} + double{reverse[both.best]} - double{forward[at_n]} -
                double{reverse[at_n]};
    out.confidence = both.phred_not(both.best);
    out.qual = both.phred_is(at_n);
    // The strands conflict only when each, alone, names its length with the confidence a
    // call needs: a strand whose few values leave the length open does not speak. Only a
    // run called otherwise than the consensus can be filtered, so only such a run asks.
    if (out.called != n && forward_count >= min_strand && reverse_count >= min_strand) {
        posterior f, r;
        weigh(f, [&](std::int32_t c) { return double{forward[c]}; });
        weigh(r, [&](std::int32_t c) { return double{reverse[c]}; });
        out.strand_conflict =
            f.best != r.best && f.phred_not(f.best) >= min_qual && r.phred_not(r.best) >= min_qual;
    }
    return out;
}

run_call call_values(const flow_models& m, const run_value* values, std::size_t count,
                     std::int32_t n, std::int32_t min_strand, double min_qual) {
    float likelihood[2][run_window::kSize] = {};
    std::int32_t counts[2] = {0, 0};
    const std::int32_t lo = run_window::first(n);
    for (std::size_t i = 0; i < count; ++i) {
        const int strand = values[i].complemented() ? 1 : 0;
        ++counts[strand];
        m.add_densities(values[i].file(), lo, values[i].value, likelihood[strand]);
    }
    return decide_run(m, n, likelihood, counts[0], counts[1], min_strand, min_qual);
}

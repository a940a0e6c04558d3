// The flow-value model per file and length: its densities, its prior, its table text, and
// its fit to labelled signals.
#include "flow_model.h"

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

length_model flow_model::at(std::int32_t n) const {
    length_model m;
    m.centre = n;
    m.spread = std::max(sigma(n), flow_models::kMinSpread);
    m.outlier = flow_models::kMinOutlier;
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

double flow_models::log_prior(std::int32_t m, std::int32_t n) const {
    const double e = std::clamp(error_rate, 1e-9, 0.5);
    const double miscall =
        m == n ? std::log1p(-e) : std::log(e / 2) + (std::abs(m - n) - 1) * std::log(0.1);
    // The spectrum's share of a length; a length 0 counts as a single base, so that the
    // error term alone speaks against a base the consensus lacks.
    auto share = [&](std::int32_t k) {
        k = std::max(k, 1);
        const auto size = static_cast<std::int32_t>(spectrum.size());
        if (size <= 1) return 0.0;
        if (k < size) return std::log(spectrum[static_cast<std::size_t>(k)] + 0.5);
        return std::log(spectrum.back() + 0.5) + (k - size + 1) * std::log(0.25);
    };
    return miscall + share(m);
}

void flow_models::prepare() {
    table_files_ = models.size() + 1;
    table_.assign(table_files_ * kLengths * kTableValues, 0.0f);
    for (std::size_t f = 0; f < table_files_; ++f) {
        for (std::int32_t n = 0; n < kLengths; ++n) {
            const length_model m = at(f == 0 ? models.size() : f - 1, n);
            float* row = &table_[(f * kLengths + static_cast<std::size_t>(n)) * kTableValues];
            for (int v = 0; v < kTableValues; ++v)
                row[v] = static_cast<float>(::log_density(m, v / 100.0));
        }
    }
}

double flow_models::log_density(std::size_t file, std::int32_t n, std::uint16_t value) const {
    const std::size_t f = file < models.size() ? file + 1 : 0;
    if (n >= 0 && n < kLengths && f < table_files_ && value < kTableValues)
        return table_[(f * kLengths + static_cast<std::size_t>(n)) * kTableValues + value];
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
            l.m.spread <= 0 || l.m.outlier < 0 || l.m.outlier >= 1 || signals < 0) {
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
        if (table_of([&](const std::string& f) { return f != "*" && base_name(f) == base_name(want); },
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
        out += ':';
        for (model_source s : {model_source::estimated, model_source::pooled,
                               model_source::extrapolated, model_source::fixed}) {
            const int k = count[static_cast<int>(s)];
            if (k == 0) continue;
            out += ' ';
            out += std::to_string(k);
            out += ' ';
            out += source_name(s);
        }
    }
    return out;
}

namespace {

constexpr double kPhred = 10.0 / std::numbers::ln10;

// The median of the values, in bases.
double median_value(const run_value* values, std::size_t count) {
    thread_local std::vector<std::uint16_t> scratch;
    scratch.resize(count);
    for (std::size_t i = 0; i < count; ++i) scratch[i] = values[i].value;
    const auto mid = scratch.begin() + static_cast<std::ptrdiff_t>(count / 2);
    std::nth_element(scratch.begin(), mid, scratch.end());
    return *mid / 100.0;
}

double log_sum_exp(const double* x, std::size_t count) {
    const double top = *std::max_element(x, x + count);
    double sum = 0.0;
    for (std::size_t i = 0; i < count; ++i) sum += std::exp(x[i] - top);
    return top + std::log(sum);
}

}  // namespace

// Only lengths within a base of the median value and the consensus length are weighed: the
// robust likelihood of any length further from the bulk of the values is smaller by several
// reads' worth of outlier terms, so it could neither win nor move the posterior.
run_call call_values(const flow_models& m, const run_value* values, std::size_t count,
                     std::int32_t n, std::int32_t min_strand) {
    run_call out;
    out.called = n;
    if (count == 0) return out;
    constexpr std::int32_t kMaxCandidates = 16;
    const auto middle = static_cast<std::int32_t>(std::lround(median_value(values, count)));
    const std::int32_t lo = std::max(0, std::min(n, middle) - 1);
    const std::int32_t hi = std::min(std::max(n, middle) + 1, lo + kMaxCandidates - 1);
    const std::int32_t size = hi - lo + 1;
    double both[kMaxCandidates], forward[kMaxCandidates], reverse[kMaxCandidates];
    std::int32_t forward_count = 0;
    for (std::size_t i = 0; i < count; ++i) forward_count += values[i].complemented ? 0 : 1;
    const auto reverse_count = static_cast<std::int32_t>(count) - forward_count;
    const bool by_strand = forward_count >= min_strand && reverse_count >= min_strand;
    for (std::int32_t c = 0; c < size; ++c) {
        double f = 0.0, r = 0.0;
        for (std::size_t i = 0; i < count; ++i) {
            const double ll = m.log_density(values[i].file, lo + c, values[i].value);
            (values[i].complemented ? r : f) += ll;
        }
        forward[c] = f;
        reverse[c] = r;
        both[c] = f + r;
    }
    // The consensus length may lie outside the weighed range only when the range was cut.
    const std::int32_t at_n = n - lo;
    if (at_n < 0 || at_n >= size) return out;
    double post[kMaxCandidates];
    auto best_of = [&](const double* ll) {
        std::int32_t best = at_n;
        for (std::int32_t c = 0; c < size; ++c) {
            post[c] = ll[c] + m.log_prior(lo + c, n);
            if (c != at_n && post[c] > post[best]) best = c;
        }
        // Ties go to the consensus length: it is only moved by evidence.
        if (post[best] <= post[at_n]) best = at_n;
        return best;
    };
    if (by_strand) {
        const std::int32_t f = best_of(forward);
        out.strand_conflict = f != best_of(reverse);
    }
    const std::int32_t best = best_of(both);
    const double total = log_sum_exp(post, static_cast<std::size_t>(size));
    out.called = lo + best;
    out.score = both[best] - both[at_n];
    out.qual = std::min(run_call::kMaxQual, -kPhred * (post[at_n] - total));
    double others[kMaxCandidates];
    std::size_t k = 0;
    for (std::int32_t c = 0; c < size; ++c)
        if (c != best) others[k++] = post[c];
    out.confidence =
        k == 0 ? run_call::kMaxQual
               : std::min(run_call::kMaxQual, -kPhred * (log_sum_exp(others, k) - total));
    out.qual = std::max(out.qual, 0.0);
    out.confidence = std::max(out.confidence, 0.0);
    return out;
}

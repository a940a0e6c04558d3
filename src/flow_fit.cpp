// The model fitted to an assembly's own signals. Most consensus runs are right, so the
// values of the runs the consensus calls n describe length n; the runs whose values call
// another length with confidence then move there, and the fit is made again.
#include <algorithm>
#include <cmath>
#include <numbers>

#include <sorvexa/flow_model.h>

namespace {

constexpr std::size_t kBins = 1 + static_cast<std::size_t>(flow_models::kValueRange * 100);
// The furthest a length's fitted centre may lie from the length: real long runs read a few
// tenths short, never half a base.
constexpr double kMaxShift = 0.4;

// Values in hundredths, counted; the last bin holds every value above the range.
struct histogram {
    std::vector<std::int64_t> count = std::vector<std::int64_t>(kBins + 1, 0);
    std::int64_t total = 0;

    void add(std::uint16_t v) {
        ++count[std::min<std::size_t>(v, kBins)];
        ++total;
    }
    void add(const histogram& h) {
        for (std::size_t i = 0; i < count.size(); ++i) count[i] += h.count[i];
        total += h.total;
    }
    // The value (in bases) below which `share` of the values lie.
    double quantile(double share) const {
        const auto want = static_cast<std::int64_t>(share * static_cast<double>(total - 1));
        std::int64_t seen = 0;
        for (std::size_t i = 0; i < count.size(); ++i) {
            seen += count[i];
            if (seen > want) return static_cast<double>(i) / 100.0;
        }
        return static_cast<double>(count.size() - 1) / 100.0;
    }
};

// Far wider than any chemistry's spread, even at twice the usual noise: a fit that wide has
// caught the values of several lengths.
double max_spread(std::int32_t n) {
    return 0.5 + 0.2 * n;
}

// The Gaussian core and the flat outlier share by expectation-maximisation, started at the
// length itself with the median absolute deviation from it, so that neither a heavy tail
// nor the runs the consensus has wrong can pull the start. False when the values do not
// centre on the length: the runs labelled so are mostly something else (a consensus that
// lacks runs its reads have labels their values 0), and the length is left to a fallback.
bool fit_length(const histogram& h, std::int32_t n, length_model& m) {
    m.signals = h.total;
    m.source = model_source::estimated;
    m.centre = n;
    histogram deviation;
    for (std::size_t i = 0; i < kBins; ++i) {
        const auto d = static_cast<std::size_t>(
            std::lround(std::fabs(static_cast<double>(i) - m.centre * 100.0)));
        deviation.count[std::min(d, kBins)] += h.count[i];
    }
    deviation.count[kBins] += h.count[kBins];
    deviation.total = h.total;
    m.spread = std::max(1.4826 * deviation.quantile(0.5), flow_models::kMinSpread);
    m.outlier = 0.02;
    const double flat = 1.0 / flow_models::kValueRange;
    for (int round = 0; round < 60; ++round) {
        double weight = 0.0, sum = 0.0, squares = 0.0;
        const double norm = (1.0 - m.outlier) / (m.spread * std::sqrt(2.0 * std::numbers::pi));
        for (std::size_t i = 0; i < kBins; ++i) {
            if (h.count[i] == 0) continue;
            const double x = static_cast<double>(i) / 100.0;
            const double z = (x - m.centre) / m.spread;
            const double core = norm * std::exp(-0.5 * z * z);
            const double w = static_cast<double>(h.count[i]) * core / (core + m.outlier * flat);
            weight += w;
            sum += w * x;
            squares += w * x * x;
        }
        if (weight <= 0.0) break;
        const double centre = sum / weight;
        const double spread = std::sqrt(std::max(squares / weight - centre * centre, 0.0));
        const double outlier = 1.0 - weight / static_cast<double>(h.total);
        const bool settled =
            std::fabs(centre - m.centre) < 1e-5 && std::fabs(spread - m.spread) < 1e-5;
        m.centre = centre;
        m.spread = std::max(spread, flow_models::kMinSpread);
        m.outlier = std::clamp(outlier, flow_models::kMinOutlier, 0.5);
        if (settled) break;
    }
    return std::fabs(m.centre - n) <= kMaxShift && m.outlier < 0.5 && m.spread <= max_spread(n);
}

// Lengths that could not be estimated take the straight line through those that were:
// spread by least squares on the length, centre by the mean shift per base.
void extrapolate(std::vector<length_model>& t) {
    double sn = 0, ss = 0, snn = 0, sns = 0, shift = 0, outlier = 0;
    int k = 0, shifts = 0;
    for (std::size_t n = 1; n < t.size(); ++n) {
        if (t[n].source == model_source::fixed) continue;
        const double x = static_cast<double>(n);
        sn += x;
        ss += t[n].spread;
        snn += x * x;
        sns += x * t[n].spread;
        outlier += t[n].outlier;
        ++k;
        shift += (t[n].centre - x) / x;
        ++shifts;
    }
    if (k < 2) return;
    const double slope = std::max(0.0, (k * sns - sn * ss) / (k * snn - sn * sn));
    const double base = (ss - slope * sn) / k;
    shift /= shifts;
    for (std::size_t n = 1; n < t.size(); ++n) {
        if (t[n].source != model_source::fixed) continue;
        const double x = static_cast<double>(n);
        // Never tighter than the longest length that was estimated below it.
        double floor = flow_models::kMinSpread;
        for (std::size_t j = 1; j < n; ++j)
            if (t[j].source != model_source::fixed && t[j].source != model_source::extrapolated)
                floor = t[j].spread;
        t[n].centre = x * (1.0 + shift);
        t[n].spread = std::max({base + slope * x, floor, flow_models::kMinSpread});
        t[n].outlier = std::max(outlier / k, flow_models::kMinOutlier);
        t[n].signals = 0;
        t[n].source = model_source::extrapolated;
    }
}

void fit_tables(const std::vector<std::vector<histogram>>& by_file, const fit_options& o,
                flow_models& out) {
    const std::int32_t L = flow_models::kLengths;
    std::vector<histogram> all(static_cast<std::size_t>(L));
    for (const auto& file : by_file)
        for (std::int32_t n = 0; n < L; ++n)
            all[static_cast<std::size_t>(n)].add(file[static_cast<std::size_t>(n)]);
    auto fitted = [&](const histogram& h, std::int32_t n) {
        length_model m;
        if (h.total < fit_options::kMinSignals || !fit_length(h, n, m)) m = o.fallback.at(n);
        m.signals = h.total;
        return m;
    };
    out.pooled.clear();
    for (std::int32_t n = 0; n < L; ++n)
        out.pooled.push_back(fitted(all[static_cast<std::size_t>(n)], n));
    extrapolate(out.pooled);
    out.models.assign(by_file.size(), {});
    for (std::size_t f = 0; f < by_file.size(); ++f) {
        std::vector<length_model>& t = out.models[f];
        for (std::int32_t n = 0; n < L; ++n) {
            const histogram& h = by_file[f][static_cast<std::size_t>(n)];
            length_model own;
            if (h.total >= fit_options::kMinSignals && fit_length(h, n, own)) {
                t.push_back(own);
                continue;
            }
            length_model m = out.pooled[static_cast<std::size_t>(n)];
            if (m.source == model_source::estimated)
                m.source = model_source::pooled;
            else
                m.source = model_source::fixed;  // settled below, by this file's own trend
            m.signals = h.total;
            t.push_back(m);
        }
        // A length the pool could not estimate either follows this file's trend, else the
        // pool's, else the fixed model.
        std::vector<length_model> own = t;
        extrapolate(own);
        for (std::int32_t n = 0; n < L; ++n) {
            length_model& m = t[static_cast<std::size_t>(n)];
            if (m.source != model_source::fixed) continue;
            const std::int64_t signals = m.signals;
            const length_model& p = out.pooled[static_cast<std::size_t>(n)];
            m = own[static_cast<std::size_t>(n)].source == model_source::extrapolated
                    ? own[static_cast<std::size_t>(n)]
                : p.source == model_source::extrapolated ? p
                                                         : o.fallback.at(n);
            m.signals = signals;
        }
    }
    for (length_model& m : out.pooled) round_to_table(m);
    for (auto& t : out.models)
        for (length_model& m : t) round_to_table(m);
    out.prepare();
}

}  // namespace

void fit_flow_models(const flow_sample& sample, const std::vector<std::string>& files,
                     const fit_options& options, flow_models& out) {
    out.files = files;
    const std::size_t F = files.size();
    const auto L = static_cast<std::size_t>(flow_models::kLengths);
    std::vector<std::int32_t> label(sample.runs.size());
    for (std::size_t i = 0; i < sample.runs.size(); ++i) label[i] = sample.runs[i].consensus_length;
    for (int round = 0;; ++round) {
        std::vector<std::vector<histogram>> by_file(F, std::vector<histogram>(L));
        for (std::size_t i = 0; i < sample.runs.size(); ++i) {
            const sample_run& r = sample.runs[i];
            if (label[i] < 0 || static_cast<std::size_t>(label[i]) >= L) continue;
            for (std::int32_t j = 0; j < r.count; ++j) {
                const run_value& v = sample.values[static_cast<std::size_t>(r.first + j)];
                if (v.file() < F)
                    by_file[v.file()][static_cast<std::size_t>(label[i])].add(v.value);
            }
        }
        fit_tables(by_file, options, out);
        if (round + 1 >= options.rounds) break;
        bool moved = false;
        for (std::size_t i = 0; i < sample.runs.size(); ++i) {
            const sample_run& r = sample.runs[i];
            const run_call c = call_values(out, &sample.values[static_cast<std::size_t>(r.first)],
                                           static_cast<std::size_t>(r.count), r.consensus_length,
                                           options.min_strand, options.min_qual);
            const std::int32_t want =
                c.called != r.consensus_length && c.confidence >= options.min_qual
                    ? c.called
                    : r.consensus_length;
            moved = moved || want != label[i];
            label[i] = want;
        }
        if (!moved) break;
    }
}

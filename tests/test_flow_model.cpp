// The flow-value model: calls that no wild value can carry, the fit to an assembly's own
// signals per file and length with its fallbacks, and the model table read back.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <sorvexa/flowcheck.h>

namespace {

// A run of consensus length n weighed under `check`'s model with the values given (bases),
// forward reads first, then `complemented` of them from complemented reads.
hp_run weigh(flow_check& check, std::int32_t n, const std::vector<double>& values,
             std::size_t complemented = 0) {
    check.runs.assign(1, hp_run{});
    hp_run& r = check.runs[0];
    r.consensus_length = n;
    for (std::size_t i = 0; i < values.size(); ++i)
        check.add_value(r, static_cast<std::uint16_t>(std::lround(values[i] * 100)),
                        i >= values.size() - complemented, 0);
    check.call_runs();
    return check.runs[0];
}

// A model as tight as clean real reads: N(n, 0.06 + 0.03 n) with the least outlier share.
flow_check tight() {
    flow_check check;
    check.model.sigma_base = 0.06;
    check.model.sigma_slope = 0.03;
    return check;
}

TEST(Call, NoWildValueCarriesACallAndAgreementDoes) {
    flow_check check = tight();
    // A true T3 with one wild value among twelve good ones: no call.
    const hp_run t3 = weigh(
        check, 3, {3.19, 3.20, 7.90, 3.41, 2.90, 3.23, 3.16, 3.05, 3.13, 2.95, 3.02, 3.04, 3.05});
    EXPECT_EQ(t3.called_length, 3);
    EXPECT_TRUE(check.tested(t3));
    EXPECT_FALSE(check.differs(t3));
    // Two values that say 4 among ten that say 3 cannot move it either.
    const hp_run two =
        weigh(check, 3, {4.0, 4.02, 3.0, 3.1, 2.9, 3.0, 3.05, 2.95, 3.0, 3.1, 2.9, 3.0});
    EXPECT_FALSE(check.differs(two));
    // Three agreeing reads carry a call, with the quality of the evidence.
    const hp_run three = weigh(check, 2, {3.0, 3.05, 2.95});
    EXPECT_TRUE(check.differs(three));
    EXPECT_EQ(three.called_length, 3);
    EXPECT_GE(three.qual, 50.0f);
    EXPECT_EQ(run_filter(check, three), "PASS");
    // Two are not enough however well they agree: min_signals is the floor.
    EXPECT_FALSE(check.tested(weigh(check, 2, {3.0, 3.0})));
    // Values all short of 3 still call 3: the search does not stop at the floor of the largest.
    const hp_run low = weigh(check, 2, {2.7, 2.8, 2.9, 2.85, 2.75, 2.8});
    EXPECT_EQ(low.called_length, 3);
    // Values between two lengths leave the run untested rather than called.
    EXPECT_FALSE(check.tested(weigh(check, 2, {2.5, 2.5, 2.45, 2.55})));
    // A run the consensus lacks, and one it has that the reads lack.
    EXPECT_EQ(weigh(check, 0, {1.0, 0.95, 1.05, 1.0}).called_length, 1);
    EXPECT_EQ(weigh(check, 1, {0.05, 0.1, 0.0, 0.08}).called_length, 0);
}

TEST(Call, ScoreQualityAndStrands) {
    flow_check check = tight();
    const std::vector<double> values = {3.0, 3.1, 2.9, 3.05};
    const hp_run r = weigh(check, 2, values);
    // The score is the robust log-likelihood ratio of the called length to the consensus's.
    double expected = 0;
    for (double v : values)
        expected += log_density(check.model.at(3), v) - log_density(check.model.at(2), v);
    EXPECT_NEAR(r.score, expected, 1e-3 * std::fabs(expected));
    EXPECT_LE(r.qual, run_call::kMaxQual);
    EXPECT_GE(r.qual, r.confidence - 1e-3f);
    // A run that agrees is sure of the consensus: quality 0, confidence high.
    const hp_run agree = weigh(check, 3, values);
    EXPECT_EQ(agree.score, 0.0);
    EXPECT_LT(agree.qual, 1.0f);
    EXPECT_GE(agree.confidence, 40.0f);
    // Forward reads that say 3 and complemented ones that say 2, each sure of it: filtered.
    const hp_run split = weigh(check, 2, {3.0, 3.0, 3.0, 3.05, 2.95, 2.0, 2.0, 2.05, 1.95}, 4);
    EXPECT_TRUE(split.strand_conflict);
    if (check.differs(split)) {
        EXPECT_FALSE(check.passes(split));
        EXPECT_EQ(run_filter(check, split), "StrandConflict");
    }
    // Too few on one strand to speak: no conflict.
    EXPECT_FALSE(weigh(check, 2, {3.0, 3.0, 3.0, 3.05, 2.0, 2.0}, 2).strand_conflict);
}

// Values of length n drawn N(centre, spread), with a share `wild` uniform over 0..10, as
// runs of `depth` values in file `file`.
void draw(flow_sample& s, std::mt19937& rng, std::uint16_t file, std::int32_t n, double centre,
          double spread, double wild, int runs, int depth) {
    std::normal_distribution<double> core(centre, spread);
    std::uniform_real_distribution<double> anywhere(0.0, 10.0), coin(0.0, 1.0);
    for (int k = 0; k < runs; ++k) {
        s.runs.push_back({n, depth, static_cast<std::int64_t>(s.values.size())});
        for (int i = 0; i < depth; ++i) {
            const double v = std::max(0.0, coin(rng) < wild ? anywhere(rng) : core(rng));
            s.values.emplace_back(static_cast<std::uint16_t>(std::lround(v * 100)), file, i % 2);
        }
    }
}

TEST(Fit, RecoversEachFilesSpreadAndOutliersAndFallsBack) {
    std::mt19937 rng(7);
    flow_sample s;
    // File 0 tight with 2 % wild values, file 1 twice as wide and clean; length 6 is seen
    // only in file 1, and too rarely to estimate in file 0.
    for (std::int32_t n = 1; n <= 5; ++n) {
        draw(s, rng, 0, n, n - 0.02 * n, 0.05 + 0.03 * n, 0.02, 400, 6);
        draw(s, rng, 1, n, n, 2 * (0.05 + 0.03 * n), 0.0, 400, 6);
    }
    draw(s, rng, 1, 6, 6, 0.5, 0.0, 40, 6);
    draw(s, rng, 0, 6, 6, 0.2, 0.0, 3, 6);
    // Runs the consensus has one base too short: the refit moves them to their length.
    draw(s, rng, 0, 2, 3 - 0.06, 0.14, 0.0, 30, 6);
    flow_models m;
    fit_flow_models(s, {"a.sff", "b.sff"}, fit_options{}, m);
    for (std::int32_t n = 1; n <= 5; ++n) {
        const length_model a = m.at(0, n), b = m.at(1, n);
        EXPECT_EQ(a.source, model_source::estimated);
        EXPECT_NEAR(a.centre, n - 0.02 * n, 0.02) << n;
        EXPECT_NEAR(a.spread, 0.05 + 0.03 * n, 0.1 * (0.05 + 0.03 * n)) << n;
        EXPECT_NEAR(a.outlier, 0.02, 0.012) << n;
        EXPECT_NEAR(b.spread, 2 * (0.05 + 0.03 * n), 0.2 * (0.05 + 0.03 * n)) << n;
        EXPECT_LT(b.outlier, 0.015) << n;
    }
    EXPECT_EQ(m.at(1, 6).source, model_source::estimated);
    EXPECT_EQ(m.at(0, 6).source, model_source::pooled);
    EXPECT_EQ(m.at(0, 6).signals, 18);
    // Nothing of length 9 anywhere: each file's own trend, never tighter than its length 5.
    EXPECT_EQ(m.at(0, 9).source, model_source::extrapolated);
    EXPECT_GE(m.at(0, 9).spread, m.at(0, 5).spread);
    EXPECT_NEAR(m.at(0, 9).centre, 9 - 0.18, 0.1);
    // A file with no signals at all takes the pooled model; a length far past the table grows.
    flow_models one;
    fit_flow_models(s, {"a.sff", "b.sff", "c.sff"}, fit_options{}, one);
    EXPECT_EQ(one.at(2, 3).source, model_source::pooled);
    EXPECT_GT(one.at(0, 30).spread, one.at(0, 12).spread);
    EXPECT_NEAR(one.at(0, 30).centre, 30, 1.0);
    // An empty sample falls back to the fixed model everywhere.
    flow_models none;
    fit_flow_models(flow_sample{}, {"a.sff"}, fit_options{}, none);
    EXPECT_EQ(none.at(0, 2).source, model_source::fixed);
    EXPECT_DOUBLE_EQ(none.at(0, 2).spread, flow_model{}.sigma(2));
}

TEST(ModelTable, RoundTripAndMatchingAndBadTables) {
    std::mt19937 rng(3);
    flow_sample s;
    for (std::int32_t n = 0; n <= 4; ++n) draw(s, rng, 0, n, n, 0.05 + 0.03 * n, 0.01, 100, 5);
    for (std::int32_t n = 1; n <= 4; ++n) draw(s, rng, 1, n, n, 0.3, 0.0, 100, 5);
    flow_models fitted;
    fit_flow_models(s, {"runs/a.sff", "runs/b.sff"}, fit_options{}, fitted);
    std::string text;
    fitted.append_tsv(text);
    EXPECT_EQ(text.substr(0, text.find('\n')),
              "file\tlength\tsignals\tcentre\tspread\toutlier_rate\tsource");

    // Read back for files named otherwise: by path, by last component, else pooled.
    flow_models back;
    std::string why;
    ASSERT_TRUE(back.parse_tsv(text, {"elsewhere/b.sff", "runs/a.sff", "z.sff"}, why)) << why;
    for (std::int32_t n = 0; n < flow_models::kLengths; ++n) {
        EXPECT_NEAR(back.at(0, n).spread, fitted.at(1, n).spread, 1e-4) << n;
        EXPECT_NEAR(back.at(1, n).centre, fitted.at(0, n).centre, 1e-4) << n;
        EXPECT_NEAR(back.at(2, n).spread, fitted.pooled[static_cast<std::size_t>(n)].spread, 1e-4);
    }
    std::string again;
    back.files = fitted.files;
    back.models.resize(2);
    std::swap(back.models[0], back.models[1]);
    back.append_tsv(again);
    EXPECT_EQ(again, text);

    // A table with a few lines: the missing lengths follow the nearest given one.
    ASSERT_TRUE(
        back.parse_tsv("file\tlength\tsignals\tcentre\tspread\toutlier_rate\tsource\n"
                       "x.sff\t3\t10\t2.9\t0.2\t0.01\testimated\r\n",
                       {"x.sff"}, why))
        << why;
    EXPECT_NEAR(back.at(0, 5).centre, 4.9, 1e-9);
    EXPECT_EQ(back.at(0, 5).source, model_source::extrapolated);

    const std::string header = "file\tlength\tsignals\tcentre\tspread\toutlier_rate\tsource\n";
    for (const std::string& bad :
         {std::string("no header\n"), header, header + "x\t1\t5\t1.0\t0\t0.01\testimated\n",
          header + "x\t13\t5\t1.0\t0.1\t0.01\testimated\n",
          header + "x\t1\t5\t1.0\t0.1\t0.01\tguessed\n",
          header + "x\t1.5\t5\t1\t0.1\t0.01\tfixed\n", header + "x\t1\t5\tnan\t0.1\t0.01\tfixed\n",
          header + "x\t1\t1e30\t1.0\t0.1\t0.01\tfixed\n"}) {
        EXPECT_FALSE(back.parse_tsv(bad, {"x"}, why)) << bad;
        EXPECT_FALSE(why.empty());
    }
}

}  // namespace

// How flow values spread around the length of the run they measure, per SFF file (one run of
// one chemistry), fitted to the signals of the assembly being checked.
//
// A value v measuring a run of length n in file f has the density
//     (1 - e) * N(v; centre, spread) + e / kValueRange
// with the centre, spread and outlier share e of (f, n). The Gaussian core says how tight a
// clean measurement is; the flat outlier term stands for the values that belong to no length
// (misplaced reads, chimeras, a bubble, a wild flow). It caps what one value can say for or
// against a length at log(core peak / (e / kValueRange)), about 8 nats, so a call needs the
// agreement of several reads however far off a wild value lies.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What the parameters of a length rest on.
enum class model_source : std::uint8_t {
    estimated,     // fitted to this file's signals of the length
    pooled,        // fitted to every file's signals of the length
    extrapolated,  // from the lengths of the file that were estimated
    fixed,         // the fixed model (too few signals, or asked for)
};
const char* source_name(model_source s);

struct length_model {
    double centre = 0.0;  // in bases
    double spread = 0.1;
    double outlier = 0.01;
    std::int64_t signals = 0;  // the signals the fit used
    model_source source = model_source::fixed;
};

// The fixed model: N(n, sigma_base + sigma_slope n) for every file, with the least outlier
// share. It serves where nothing could be fitted, and when a user sets the spread.
struct flow_model {
    double sigma_base = 0.12;
    double sigma_slope = 0.09;

    double sigma(std::int32_t n) const { return sigma_base + sigma_slope * n; }
    length_model at(std::int32_t n) const;
};

class flow_models {
  public:
    // Lengths with a parameter line of their own; longer ones follow the last line's trend.
    static constexpr std::int32_t kLengths = 13;
    // Values are taken as measured up to this many bases, past the longest runs a 454 read
    // calls; above it every length sees the same outlier density.
    static constexpr double kValueRange = 20.0;
    static constexpr double kMinOutlier = 0.01;
    static constexpr double kMinSpread = 0.02;
    // The share of consensus runs whose length is wrong, before the reads are seen: the
    // prior. (A prior from the consensus's own run-length spectrum was tried as well; it
    // changed no call on the benchmark's assemblies, and would tie a saved model to the
    // assembly it was fitted on.)
    double error_rate = 0.005;

    std::vector<std::string> files;                 // the SFF files in the lookup's order
    std::vector<std::vector<length_model>> models;  // [file][length], kLengths each
    std::vector<length_model> pooled;               // every file together, kLengths

    // A model that is `fixed` everywhere, for `file_count` files.
    void set_fixed(const flow_model& m, std::size_t file_count);
    // The parameters of length n in file `file` (pooled for a file out of range); lengths
    // past the table grow in centre and spread as its last two lines do.
    length_model at(std::size_t file, std::int32_t n) const;
    // log P(consensus length n | true length m): the prior of a true length m, a change of
    // k bases ten times less likely than one of k - 1.
    double log_prior(std::int32_t m, std::int32_t n) const {
        if (m >= 0 && n >= 0 && m < kPriorLengths && n < kPriorLengths && !prior_.empty())
            return prior_[static_cast<std::size_t>(n * kPriorLengths + m)];
        return compute_log_prior(m, n);
    }

    // Fast log-densities: after prepare(), log_density(file, n, value) reads a table for
    // values in hundredths up to kValueRange and lengths in the table.
    void prepare();
    double log_density(std::size_t file, std::int32_t n, std::uint16_t value) const {
        const float* row = density_row(file, value);
        if (row != nullptr && n >= 0 && n < kLengths) return row[n];
        return slow_log_density(file, n, value);
    }
    // Adds the log-densities of `value` under the lengths first .. first + kSize - 1 to sums.
    template <std::int32_t kSize>
    void add_densities(std::size_t file, std::int32_t first, std::uint16_t value,
                       float (&sums)[kSize]) const {
        const float* row = density_row(file, value);
        if (row != nullptr && first >= 0 && first + kSize <= kLengths) {
            for (std::int32_t c = 0; c < kSize; ++c) sums[c] += row[first + c];
            return;
        }
        for (std::int32_t c = 0; c < kSize; ++c)
            sums[c] += static_cast<float>(log_density(file, first + c, value));
    }
    // The log-densities of `value` under lengths 0 to kLengths - 1 side by side, or null
    // for a value past the table.
    const float* density_row(std::size_t file, std::uint16_t value) const {
        const std::size_t f = file < models.size() ? file + 1 : 0;
        if (f >= table_files_ || value >= kTableValues) return nullptr;
        return &table_[(f * kTableValues + value) * kLengths];
    }

    // The model as a table (file, length, signals, centre, spread, outlier_rate, source)
    // with a header line; the pooled lines carry the file name "*".
    void append_tsv(std::string& out) const;
    // Reads such a table back for the files `sff_files`: a file is matched by its name as
    // given, else by its last path component; a file with no lines takes the pooled ones,
    // and a length with no line the trend of its file. False with `error` set on a bad table.
    bool parse_tsv(std::string_view text, const std::vector<std::string>& sff_files,
                   std::string& error);

  private:
    static constexpr int kTableValues = 1 + static_cast<int>(kValueRange * 100);
    static constexpr std::int32_t kPriorLengths = 24;
    std::vector<float> table_;  // [file + 1][value][length], file 0 the pooled model
    std::size_t table_files_ = 0;
    std::vector<double> prior_;  // [n][m]
    double slow_log_density(std::size_t file, std::int32_t n, std::uint16_t value) const;
    double compute_log_prior(std::int32_t m, std::int32_t n) const;
};

double log_density(const length_model& m, double value);
// Rounds the parameters to the decimals the model table writes, so that a model read back
// from its table is the model that was used, to the bit.
void round_to_table(length_model& m);

// Labelled signals of checked contigs, gathered for the fit: every signal of a run, under
// the length the consensus gives the run. Contigs are added in order until `max_values` is
// reached (of the last, the values found first), so that every front end that samples the
// same assembly fits the same model.
struct sample_run {
    std::int32_t consensus_length = 0;
    std::int32_t count = 0;
    std::int64_t first = 0;  // into flow_sample::values
};
// Four bytes, since a deep contig holds millions of them: the value and, in one word, the
// number of the SFF file in the lookup (the first 32,767 files; later ones share the last
// number) and whether the read is complemented.
struct run_value {
    std::uint16_t value = 0;  // hundredths
    std::uint16_t tag = 0;

    static constexpr std::uint16_t kStrand = 0x8000;
    run_value() = default;
    run_value(std::uint16_t v, std::size_t file, bool complemented)
        : value(v),
          tag(static_cast<std::uint16_t>(std::min<std::size_t>(file, kStrand - 1) |
                                         (complemented ? kStrand : 0))) {}
    std::size_t file() const { return tag & (kStrand - 1); }
    bool complemented() const { return (tag & kStrand) != 0; }
};

class flow_sample {
  public:
    std::int64_t max_values = 2'000'000;
    std::vector<run_value> values;
    std::vector<sample_run> runs;

    bool full() const { return static_cast<std::int64_t>(values.size()) >= max_values; }
};

// The lengths a run's call weighs: from two below its consensus length to two above. An
// assembly's consensus is off by a base or two where it errs; a length further off would
// mean reads and consensus disagree on the whole run, which no call from flows can mend.
struct run_window {
    static constexpr std::int32_t kSize = 5;
    static std::int32_t first(std::int32_t consensus_length) {
        return std::max(0, consensus_length - 2);
    }
};

// What a run's signals say under a model: the most probable length (the consensus length
// winning ties) among the lengths near the values, the log-likelihood ratio of that length
// against the consensus length, the phred-scaled probability that the consensus length is
// right (qual: high when the reads speak against it) and that the called length is wrong
// (confidence), both capped at kMaxQual; and, for a run called otherwise than the consensus,
// whether the forward and the complemented reads, each with `min_strand` signals or more,
// call different lengths, each with a confidence of `min_qual` or more.
struct run_call {
    static constexpr double kMaxQual = 99.0;
    std::int32_t called = 0;
    double score = 0.0, qual = 0.0, confidence = 0.0;
    bool strand_conflict = false;
};
// From the summed log-likelihoods of the run_window's lengths, per strand.
run_call decide_run(const flow_models& m, std::int32_t consensus_length,
                    const float (&likelihood)[2][run_window::kSize], std::int32_t forward_count,
                    std::int32_t reverse_count, std::int32_t min_strand, double min_qual);
// The same from the values themselves.
run_call call_values(const flow_models& m, const run_value* values, std::size_t count,
                     std::int32_t consensus_length, std::int32_t min_strand, double min_qual);

// Fits a model per file and length to the sample (lengths with fewer than kMinSignals
// signals fall back to the pooled fit, then to the file's trend, then to `fallback`), then
// refits with the values of runs the first model calls differently moved to the length it
// calls. `file_count` files; `files` names them in the model.
struct fit_options {
    static constexpr std::int64_t kMinSignals = 50;
    flow_model fallback;
    double min_qual = 20.0;
    std::int32_t min_strand = 3;
    int rounds = 3;
};
void fit_flow_models(const flow_sample& sample, const std::vector<std::string>& files,
                     const fit_options& options, flow_models& out);

// One line that says what the model rests on: per file, the lengths estimated, pooled,
// extrapolated and fixed.
std::string describe_models(const flow_models& m);

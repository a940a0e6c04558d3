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
    // Values are taken as measured up to this many bases; above it every length sees the
    // same outlier density.
    static constexpr double kValueRange = 10.0;
    static constexpr double kMinOutlier = 0.01;
    static constexpr double kMinSpread = 0.02;
    // The share of consensus runs whose length is wrong, before the reads are seen.
    double error_rate = 0.005;

    std::vector<std::string> files;                // the SFF files in the lookup's order
    std::vector<std::vector<length_model>> models;  // [file][length], kLengths each
    std::vector<length_model> pooled;               // every file together, kLengths
    // Runs of the consensus by length (index 0 unused), the prior's spectrum.
    std::vector<double> spectrum;

    // A model that is `fixed` everywhere, for `file_count` files.
    void set_fixed(const flow_model& m, std::size_t file_count);
    // The parameters of length n in file `file` (pooled for a file out of range); lengths
    // past the table grow in centre and spread as its last two lines do.
    length_model at(std::size_t file, std::int32_t n) const;
    // log P(consensus length n | true length m) + log P(m): the prior of a true length m.
    double log_prior(std::int32_t m, std::int32_t n) const;

    // Fast log-densities: after prepare(), log_density(file, n, value) reads a table for
    // values in hundredths up to kValueRange and lengths in the table.
    void prepare();
    double log_density(std::size_t file, std::int32_t n, std::uint16_t value) const;

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
    std::vector<float> table_;  // [file + 1][length][value], file 0 the pooled model
    std::size_t table_files_ = 0;
};

double log_density(const length_model& m, double value);

// Labelled signals of checked contigs, gathered for the fit: every signal of a run, under
// the length the consensus gives the run. Whole contigs are added until `max_values` is
// reached, so that every front end that samples the same assembly fits the same model.
struct sample_run {
    std::int32_t consensus_length = 0;
    std::int32_t count = 0;
    std::int64_t first = 0;  // into flow_sample::values
};
struct run_value {
    std::uint16_t value = 0;  // hundredths
    std::uint16_t file = 0;   // the SFF file's number in the lookup
    bool complemented = false;
};

class flow_sample {
  public:
    std::int64_t max_values = 2'000'000;
    std::vector<run_value> values;
    std::vector<sample_run> runs;
    std::vector<double> spectrum;  // consensus runs by length, as flow_models::spectrum

    bool full() const { return static_cast<std::int64_t>(values.size()) >= max_values; }
};

// What a run's signals say under a model: the most probable length (the consensus length
// winning ties) among the lengths near the values, the log-likelihood ratio of that length
// against the consensus length, the phred-scaled probability that the consensus length is
// right (qual: high when the reads speak against it) and that the called length is wrong
// (confidence, its complement), both capped at kMaxQual; and whether the forward and the
// complemented reads, each with `min_strand` signals or more, call different lengths.
struct run_call {
    static constexpr double kMaxQual = 99.0;
    std::int32_t called = 0;
    double score = 0.0, qual = 0.0, confidence = 0.0;
    bool strand_conflict = false;
};
run_call call_values(const flow_models& m, const run_value* values, std::size_t count,
                     std::int32_t consensus_length, std::int32_t min_strand);

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

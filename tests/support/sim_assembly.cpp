// Simulated 454 assemblies whose truth is known: a random genome, reads sequenced from it
// flow by flow, the true multiple alignment of those reads written as an ACE file, and errors
// planted in the consensus alone, so that a checker of homopolymer runs can be scored.
//
//   sim_assembly --out DIR [--prefix NAME] [--contigs K] [--length BASES] [--depth D|MIN-MAX]
//                [--noise F] [--errors N] [--seed S] [--family gauss|skew|heavy|mixed]
//                [--wild P] [--long-runs] [--files 1|2] [--noise2 F2]
//
// writes DIR/NAME.ace, DIR/NAME.sff (one big-endian file, 800 flows of TACG, key TCAG; with
// --files 2 the reads are dealt at random between NAME.sff and NAME_b.sff, the second one
// measured with noise F2), DIR/NAME.truth.fa (the genome), DIR/NAME.planted.tsv (the planted
// errors) and DIR/NAME.truth_model.tsv (per SFF file and run length 0..12, how many template
// flows met a run of that length, and the median and 1.4826 x MAD of their values, wild ones
// left out: what a model fitted to the flows should come back with).
//
// Each read walks its template one flow at a time, t being the fraction of the read's flows
// already used. With --family gauss (the default) a flow meeting a run of h bases of its
// letter measures h + N(0,1) * F * (0.06 + 0.05 h) * (1 + 0.6 t). A checker may well assume
// just that shape, so it proves little about real reads. The other families have the centre
// and robust spread of real flows instead: spread 0.04 at length 0, 0.06 at 1, 0.10 at 2 and
// 3, 0.13 at 4, 0.18-0.21 at 5-7, 0.03 more per base beyond, times F * (0.8 + 0.5 t); empty
// flows a little above 0, long runs a little below their length. Their shape is skewed (skew:
// short runs lean high, long runs trail off towards under-measuring), heavy-tailed (heavy:
// Student t) or both (mixed), and their values are more than half a base off their length as
// often as real ones: 0.02-0.2% of them up to length 4, 1-4% at 5-7. With --wild P a share P
// of the template flows measure anything from 0 to 10 bases instead.
// A flow calls as many bases as its value rounds to, so reads carry the over- and under-calls
// of long runs and now and then a letter where the genome has none.
// The key's flows, and the flows before the template's first run, are kept on their true
// value: the key must stay intact for the read to be found, and a spurious letter ahead of the
// first run would have no place in the alignment.
//
// With --long-runs 3 runs in 100 of the genome are drawn 5 to 12 bases long, so that long runs,
// and errors planted on them, are common enough to be scored.
//
// The alignment is the true one: every genome run gets as many columns as the longest call of
// it, each spurious letter gets a block of columns between the two runs it fell between, and
// every read shows its own calls there followed by pads.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <numbers>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "sff_builder.h"

namespace {

constexpr std::uint16_t kFlows = 800;
constexpr std::string_view kKey = "TCAG";
constexpr std::string_view kFlowOrder = "TACG";
// Planted errors stay this far from a contig's ends, and this many runs from each other.
constexpr std::uint32_t kEndMargin = 60;
constexpr std::uint32_t kRunSpacing = 8;
constexpr std::uint32_t kMinTemplate = 350;
constexpr std::uint32_t kMaxTemplate = 450;
// A layer's last read takes in the rest of the contig when less than this would be left.
constexpr std::uint32_t kMinLeftover = 60;
constexpr std::size_t kLineWidth = 60;
constexpr std::size_t kQualitiesPerLine = 50;

// Independent streams, so that changing how one part draws cannot move another.
constexpr std::uint64_t kPlanSalt = 0x9FB21C651E98DF25ULL;
constexpr std::uint64_t kErrorSalt = 0xD6E8FEB86659FD93ULL;
constexpr std::uint64_t kNameSalt = 0xA0761D6478BD642FULL;
constexpr std::uint64_t kQualitySalt = 0xE7037ED1A0B428DBULL;
constexpr std::uint64_t kWildSalt = 0x8EBC6AF09C88C6E3ULL;
constexpr std::uint64_t kLongRunSalt = 0x589965CC75374CC3ULL;
constexpr std::uint64_t kFileSalt = 0x1D8E4E27C47D124FULL;
constexpr std::uint64_t kShapeSeed = 0x2D358DCCAA6C78A5ULL;

// The truth model reports on run lengths below this.
constexpr std::uint32_t kModelLengths = 13;
// Long runs: how many runs in 100 are drawn long, and from how short to how long.
constexpr std::uint32_t kLongRunsPer100 = 3;
constexpr std::uint32_t kLongRunMin = 5;
constexpr std::uint32_t kLongRunMax = 12;
constexpr double kWildMaxBases = 10;

// Per run length 0..7 (longer runs take 7's, and 0.03 more spread a base): the robust spread of
// real flows' values in bases, mid-read; which way the values lean, as a skew-normal's delta
// (below 0: a long tail of under-measured values); and how heavy their tails are, as a Student
// t's degrees of freedom. Lean and tails are set so that as many values stray more than half a
// base from their length as on real flows.
constexpr std::array<double, 8> kSpread = {0.04, 0.06, 0.10, 0.10, 0.13, 0.18, 0.195, 0.21};
constexpr std::array<double, 8> kLean = {0.8, 0.5, 0.0, -0.4, -0.5, -0.7, -0.7, -0.7};
constexpr std::array<std::uint32_t, 8> kTailFreedom = {3, 4, 8, 8, 24, 12, 16, 30};
// Draws per shape when measuring its own median and spread.
constexpr std::size_t kShapeDraws = std::size_t{1} << 15;

enum class family { gauss, skew, heavy, mixed };

struct options {
    std::string out;
    std::string prefix = "sim";
    std::uint32_t contigs = 1;
    std::uint32_t length = 4000;
    std::uint32_t depth_min = 12;
    std::uint32_t depth_max = 12;
    double noise = 1.0;
    std::uint32_t errors = 6;
    std::uint64_t seed = 1;
    family shape = family::gauss;
    double wild = 0;
    bool long_runs = false;
    std::uint32_t files = 1;
    double noise2 = -1;  // below 0: not given
};

void usage(std::ostream& out) {
    out << "usage: sim_assembly --out DIR [--prefix NAME] [--contigs K] [--length BASES]\n"
           "                    [--depth D|MIN-MAX] [--noise F] [--errors N] [--seed S]\n"
           "                    [--family gauss|skew|heavy|mixed] [--wild P] [--long-runs]\n"
           "                    [--files 1|2] [--noise2 F2]\n"
           "  --out DIR         directory for NAME.ace, NAME.sff, NAME.truth.fa,\n"
           "                    NAME.planted.tsv and NAME.truth_model.tsv (created)\n"
           "  --prefix NAME     file name prefix (default sim)\n"
           "  --contigs K       contigs (default 1)\n"
           "  --length BASES    bases per contig, at least 1000 (default 4000)\n"
           "  --depth D|MIN-MAX reads deep, or a range the depth varies in (default 12)\n"
           "  --noise F         multiplier of the flow noise (default 1.0)\n"
           "  --errors N        errors planted in the consensus in total (default 6)\n"
           "  --seed S          seed of the generator (default 1)\n"
           "  --family NAME     shape of the flow values around a run's length: gauss (normal,\n"
           "                    the default), skew, heavy (heavy tails) or mixed (both), the\n"
           "                    last three with the spreads of real flows\n"
           "  --wild P          share of template flows, 0 to 0.05, that measure a value\n"
           "                    anywhere from 0 to 10 bases (default 0)\n"
           "  --long-runs       3 runs in 100 of the genome 5 to 12 bases long\n"
           "  --files 1|2       SFF files the reads are dealt between: NAME.sff, NAME_b.sff\n"
           "                    (default 1)\n"
           "  --noise2 F2       noise multiplier of NAME_b.sff (default F; needs --files 2)\n";
}

bool parse_number(std::string_view text, std::uint64_t& value) {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && ec == std::errc() && end == text.data() + text.size();
}

bool parse_bounded(std::string_view text, std::uint64_t low, std::uint64_t high,
                   std::uint32_t& value) {
    std::uint64_t n = 0;
    if (!parse_number(text, n) || n < low || n > high) return false;
    value = static_cast<std::uint32_t>(n);
    return true;
}

bool parse_depth(std::string_view text, options& o) {
    const std::size_t dash = text.find('-');
    if (dash == std::string_view::npos) {
        if (!parse_bounded(text, 1, 200, o.depth_min)) return false;
        o.depth_max = o.depth_min;
        return true;
    }
    return parse_bounded(text.substr(0, dash), 1, 200, o.depth_min) &&
           parse_bounded(text.substr(dash + 1), 1, 200, o.depth_max) && o.depth_min <= o.depth_max;
}

bool parse_real(std::string_view text, double high, double& value) {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && ec == std::errc() && end == text.data() + text.size() && value >= 0 &&
           value <= high;
}

bool parse_family(std::string_view text, family& value) {
    static constexpr std::array<std::pair<std::string_view, family>, 4> names = {{
        {"gauss", family::gauss},
        {"skew", family::skew},
        {"heavy", family::heavy},
        {"mixed", family::mixed},
    }};
    for (const auto& [name, f] : names) {
        if (text == name) {
            value = f;
            return true;
        }
    }
    return false;
}

// False for an option this program does not have; `ok` tells whether its value is good.
bool parse_option(std::string_view key, std::string_view value, options& o, bool& ok) {
    std::uint64_t seed = 0;
    ok = true;
    if (key == "--out") {
        o.out = value;
        ok = !value.empty();
    } else if (key == "--prefix") {
        o.prefix = value;
        ok = !value.empty() && value.find('/') == std::string_view::npos;
    } else if (key == "--contigs") {
        ok = parse_bounded(value, 1, 1000, o.contigs);
    } else if (key == "--length") {
        ok = parse_bounded(value, 1000, 10'000'000, o.length);
    } else if (key == "--depth") {
        ok = parse_depth(value, o);
    } else if (key == "--noise") {
        ok = parse_real(value, 10, o.noise);
    } else if (key == "--errors") {
        ok = parse_bounded(value, 0, 1'000'000, o.errors);
    } else if (key == "--seed") {
        ok = parse_number(value, seed);
        o.seed = seed;
    } else if (key == "--family") {
        ok = parse_family(value, o.shape);
    } else if (key == "--wild") {
        ok = parse_real(value, 0.05, o.wild);
    } else if (key == "--files") {
        ok = parse_bounded(value, 1, 2, o.files);
    } else if (key == "--noise2") {
        ok = parse_real(value, 10, o.noise2);
    } else {
        return false;
    }
    return true;
}

// Empty when the arguments are fine, else what is wrong with them.
std::string parse_options(int argc, char** argv, options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view key = argv[i];
        if (key == "--long-runs") {
            o.long_runs = true;
            continue;
        }
        if (i + 1 == argc) return "option " + std::string(key) + " needs a value";
        const std::string_view value = argv[++i];
        bool ok = true;
        if (!parse_option(key, value, o, ok)) return "unknown option " + std::string(key);
        if (!ok) return "bad value for " + std::string(key) + ": " + std::string(value);
    }
    if (o.out.empty()) return "--out is required";
    if (o.noise2 >= 0 && o.files != 2) return "--noise2 needs --files 2";
    if (o.noise2 < 0) o.noise2 = o.noise;
    return {};
}

int flow_letter_index(char b) {
    return static_cast<int>(kFlowOrder.find(b));
}

char complement(char b) {
    switch (b) {
        case 'A':
            return 'T';
        case 'C':
            return 'G';
        case 'G':
            return 'C';
        default:
            return 'A';
    }
}

std::string reverse_complement(std::string_view s) {
    std::string r(s.rbegin(), s.rend());
    for (char& b : r) b = complement(b);
    return r;
}

// In [0, 1).
double unit(fixture::splitmix64& rng) {
    return static_cast<double>(rng.next() >> 11) * 0x1.0p-53;
}

// Standard normal draws by Box-Muller on the fixture's generator, so that the same seed gives
// the same reads with every standard library.
struct normal_source {
    fixture::splitmix64 rng;
    bool has_spare = false;
    double spare = 0;

    double uniform_open() {  // in (0, 1]
        return static_cast<double>((rng.next() >> 11) + 1) * 0x1.0p-53;
    }
    double next() {
        if (has_spare) {
            has_spare = false;
            return spare;
        }
        const double radius = std::sqrt(-2.0 * std::log(uniform_open()));
        const double angle = 2.0 * std::numbers::pi * uniform_open();
        spare = radius * std::sin(angle);
        has_spare = true;
        return radius * std::cos(angle);
    }
};

// Median and 1.4826 x MAD: a normal's centre and spread, found however the values are shaped.
struct robust_scale {
    double centre = 0;
    double spread = 0;
};

double median_of(std::vector<double>& v) {
    const auto mid = static_cast<std::ptrdiff_t>(v.size() / 2);
    std::nth_element(v.begin(), v.begin() + mid, v.end());
    const double upper = v[static_cast<std::size_t>(mid)];
    if (v.size() % 2 == 1) return upper;
    return (upper + *std::max_element(v.begin(), v.begin() + mid)) / 2;
}

robust_scale robust_scale_of(std::vector<double> v) {
    if (v.empty()) return {};
    const double centre = median_of(v);
    for (double& x : v) x = std::abs(x - centre);
    return {centre, 1.4826 * median_of(v)};
}

std::size_t shape_index(std::uint32_t h) {
    return std::min<std::size_t>(h, kSpread.size() - 1);
}

// A draw from the shape of the family for runs of shape index k, not yet centred or scaled: a
// skew-normal leaning kLean[k] (skew), a Student t (heavy), or the skew-normal over the t's
// chi-square (mixed).
double shape_draw(family f, std::size_t k, normal_source& normal) {
    const double lean = f == family::heavy ? 0.0 : kLean[k];
    const double x = lean * std::abs(normal.next()) + std::sqrt(1 - lean * lean) * normal.next();
    if (f == family::skew) return x;
    double chi_square = 0;
    for (std::uint32_t i = 0; i < kTailFreedom[k]; ++i) {
        const double z = normal.next();
        chi_square += z * z;
    }
    return x / std::sqrt(chi_square / kTailFreedom[k]);
}

// How the flows of one SFF file measure.
struct flow_model {
    family shape = family::gauss;
    double noise = 1;
    double wild = 0;
    // Per shape index, the shape's own median and robust spread, which are taken out so that
    // the values have the measured centre and spread whatever their shape.
    std::array<robust_scale, kSpread.size()> shape_scale{};
};

flow_model make_flow_model(family f, double noise, double wild) {
    flow_model m{f, noise, wild, {}};
    if (f == family::gauss) return m;
    // A stream of its own, fixed, so that every seed gets the same shapes.
    normal_source normal{{kShapeSeed}};
    std::vector<double> draws(kShapeDraws);
    for (std::size_t k = 0; k < m.shape_scale.size(); ++k) {
        for (double& d : draws) d = shape_draw(f, k, normal);
        m.shape_scale[k] = robust_scale_of(draws);
    }
    return m;
}

double real_spread(std::uint32_t h) {
    return h < kSpread.size() ? kSpread[h] : kSpread.back() + 0.03 * (h - 7.0);
}

// Empty flows read a little light all the same, and long runs fall a little short of their
// length, as on real flows.
double real_centre(std::uint32_t h) {
    return h == 0 ? 0.05 : h - 0.01 * (h - 1.0);
}

// What a flow meeting h bases of its letter measures, wild values aside, t being the share
// of the read's flows already used.
double flow_value(const flow_model& m, std::uint32_t h, double t, normal_source& normal) {
    if (m.shape == family::gauss) {
        const double sd = m.noise * (0.06 + 0.05 * h) * (1 + 0.6 * t);
        return std::max(0.0, h + normal.next() * sd);
    }
    const std::size_t k = shape_index(h);
    const robust_scale& s = m.shape_scale[k];
    const double x = (shape_draw(m.shape, k, normal) - s.centre) / s.spread;
    return std::max(0.0, real_centre(h) + x * m.noise * real_spread(h) * (0.8 + 0.5 * t));
}

struct genome_run {
    char letter;
    std::uint32_t length;
    std::uint32_t start;  // 0-based genome position of its first base
};

std::vector<genome_run> runs_of(std::string_view genome) {
    std::vector<genome_run> runs;
    for (std::uint32_t i = 0; i < genome.size();) {
        std::uint32_t j = i + 1;
        while (j < genome.size() && genome[j] == genome[i]) ++j;
        runs.push_back({genome[i], j - i, i});
        i = j;
    }
    return runs;
}

struct insertion {
    std::uint32_t gap;  // gap g lies between genome runs g - 1 and g
    char letter;
    std::uint16_t count;
};

// A read in contig terms: what it called for each genome run its flows reached, and the
// letters it called where the genome has none.
struct read_sim {
    std::string name;
    bool reverse = false;
    std::uint32_t first_run = 0;
    std::uint32_t end_run = 0;          // one past the last run reached
    std::vector<std::uint16_t> calls;   // for runs first_run .. end_run - 1
    std::vector<insertion> insertions;  // contig orientation
    std::string called;                 // the bases after the key, contig orientation
    std::int32_t start_column = 0;      // AF start, 1-based
    std::string padded;
    // Run length and value of every template flow but the wild ones, for the truth model.
    std::vector<std::pair<std::uint32_t, float>> signals;
};

// One run of the flowed sequence (key, then template); the template's first run merges with
// the key's last base when the letters agree.
struct flow_run {
    char letter;
    std::uint32_t length;
    std::uint32_t key_bases;
    std::int32_t template_run;  // -1 for the key's own runs
};

std::vector<std::uint8_t> qualities(std::string_view bases, std::uint64_t seed) {
    fixture::splitmix64 rng{seed ^ kQualitySalt};
    std::vector<std::uint8_t> q(bases.size());
    int in_run = 0;
    for (std::size_t i = 0; i < bases.size(); ++i) {
        in_run = i > 0 && bases[i] == bases[i - 1] ? in_run + 1 : 0;
        const int v = 37 - static_cast<int>(i / 40) - 3 * in_run + static_cast<int>(rng.below(4));
        q[i] = static_cast<std::uint8_t>(std::clamp(v, 5, 40));
    }
    return q;
}

// Sequences the genome runs [first, end) on the given strand. Returns false only when the
// flow increments overflow their byte, which these reads cannot reach.
bool sequence_read(const std::vector<genome_run>& runs, std::uint32_t first, std::uint32_t end,
                   const flow_model& model, std::uint64_t seed, read_sim& read,
                   fixture::sff_read_layout& sff) {
    std::vector<flow_run> flowed;
    for (char k : kKey) flowed.push_back({k, 1, 1, -1});
    const std::uint32_t template_runs = end - first;
    for (std::uint32_t k = 0; k < template_runs; ++k) {
        const genome_run& g = read.reverse ? runs[end - 1 - k] : runs[first + k];
        const char letter = read.reverse ? complement(g.letter) : g.letter;
        if (k == 0 && flowed.back().letter == letter) {
            flowed.back().length += g.length;
            flowed.back().template_run = 0;
        } else {
            flowed.push_back({letter, g.length, 0, static_cast<std::int32_t>(k)});
        }
    }
    // Flows before the template's first run see nothing; the key's own flows call the key.
    std::size_t first_template = 0;
    while (flowed[first_template].template_run < 0) ++first_template;

    normal_source normal{{seed}};
    fixture::splitmix64 wild_rng{seed ^ kWildSalt};
    std::vector<std::uint16_t> template_calls(template_runs, 0);
    struct template_insertion {
        std::uint32_t before;  // template run
        char letter;
        std::uint16_t count;
    };
    std::vector<template_insertion> inserted;
    std::string bases;
    std::vector<std::uint8_t> increments;
    std::vector<std::uint16_t> flowgram(kFlows, 0);
    std::size_t at = 0;
    std::size_t last_flow = 0;
    for (std::size_t f = 0; f < kFlows; ++f) {
        const char x = kFlowOrder[f % 4];
        const bool done = at == flowed.size();
        const std::uint32_t h = !done && flowed[at].letter == x ? flowed[at].length : 0;
        const double t = static_cast<double>(f) / kFlows;
        double v = flow_value(model, h, t, normal);
        const bool held =
            !done && ((h > 0 && flowed[at].key_bases > 0) || (h == 0 && at <= first_template));
        const bool wild = !done && !held && model.wild > 0 && unit(wild_rng) < model.wild;
        if (wild) v = kWildMaxBases * unit(wild_rng);
        long q = std::min(std::lround(100 * v), 65535L);
        if (done) {
            q = std::min(q, 49L);
        } else if (held) {
            q = std::clamp(q, std::max(0L, 100L * h - 49), 100L * h + 49);
        }
        flowgram[f] = static_cast<std::uint16_t>(q);
        if (done) continue;
        if (!held && !wild && h < kModelLengths)
            read.signals.emplace_back(h, static_cast<float>(v));

        const auto count = static_cast<std::uint16_t>((q + 50) / 100);
        for (std::uint16_t c = 0; c < count; ++c) {
            std::size_t increment = 0;
            if (bases.empty()) {
                increment = f + 1;
            } else if (c == 0) {
                increment = f - last_flow;
            }
            if (increment > 255) return false;
            increments.push_back(static_cast<std::uint8_t>(increment));
            bases += x;
        }
        if (count > 0) last_flow = f;
        if (h > 0) {
            if (flowed[at].template_run >= 0)
                template_calls[static_cast<std::size_t>(flowed[at].template_run)] =
                    static_cast<std::uint16_t>(count - flowed[at].key_bases);
            ++at;
        } else if (count > 0) {
            inserted.push_back({static_cast<std::uint32_t>(flowed[at].template_run), x, count});
        }
    }
    const std::uint32_t reached =
        at == flowed.size() ? template_runs : static_cast<std::uint32_t>(flowed[at].template_run);

    // Into contig terms.
    read.first_run = read.reverse ? end - reached : first;
    read.end_run = read.reverse ? end : first + reached;
    read.calls.assign(reached, 0);
    for (std::uint32_t k = 0; k < reached; ++k) {
        if (read.reverse) {
            read.calls[end - 1 - k - read.first_run] = template_calls[k];
        } else {
            read.calls[k] = template_calls[k];
        }
    }
    for (const template_insertion& ins : inserted) {
        if (read.reverse) {
            read.insertions.push_back({end - ins.before, complement(ins.letter), ins.count});
        } else {
            read.insertions.push_back({first + ins.before, ins.letter, ins.count});
        }
    }
    const std::string after_key = bases.substr(kKey.size());
    read.called = read.reverse ? reverse_complement(after_key) : after_key;

    sff.name = read.name;
    sff.flowgram = std::move(flowgram);
    sff.flow_index_per_base = std::move(increments);
    sff.quality = qualities(bases, seed);
    sff.bases = std::move(bases);
    sff.clip_qual_left = static_cast<std::uint16_t>(kKey.size() + 1);
    sff.clip_qual_right = static_cast<std::uint16_t>(sff.bases.size());
    return true;
}

// With long runs, kLongRunsPer100 runs in 100 are drawn kLongRunMin to kLongRunMax bases
// long, and the letter after one is another, to keep it that long.
std::string random_genome(std::uint32_t length, bool long_runs, fixture::splitmix64& rng,
                          fixture::splitmix64& long_rng) {
    static constexpr std::string_view letters = "ACGT";
    std::string genome(length, 'A');
    if (!long_runs) {
        for (char& b : genome) b = letters[rng.below(4)];
        return genome;
    }
    genome.clear();
    bool after_long = false;
    while (genome.size() < length) {
        const char b = after_long ? letters[(letters.find(genome.back()) + 1 + rng.below(3)) % 4]
                                  : letters[rng.below(4)];
        const bool starts_run = genome.empty() || b != genome.back();
        after_long = starts_run && long_rng.chance(kLongRunsPer100, 100);
        genome.append(after_long ? kLongRunMin + long_rng.below(kLongRunMax - kLongRunMin + 1) : 1,
                      b);
    }
    genome.resize(length);
    return genome;
}

// A 454 well name: run prefix, region 01, five characters for the well.
std::string well_name(fixture::splitmix64& rng) {
    static constexpr std::string_view digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::string name = "GSVXASM01";
    for (int i = 0; i < 5; ++i) name += digits[rng.below(36)];
    return name;
}

// The index of the run holding genome position `pos`.
std::uint32_t run_at(const std::vector<genome_run>& runs, std::uint32_t pos) {
    const auto it =
        std::upper_bound(runs.begin(), runs.end(), pos,
                         [](std::uint32_t p, const genome_run& r) { return p < r.start; });
    return static_cast<std::uint32_t>(it - runs.begin()) - 1;
}

struct read_plan {
    std::uint32_t first_run;
    std::uint32_t end_run;
    bool reverse;
};

// Layers of reads laid end to end, each starting at the contig's first base with a read of
// random length so that the layers' joins fall in different places; the layers beyond the
// minimum depth keep only every other read or so, which lets the depth wander in the range.
std::vector<read_plan> plan_reads(const std::vector<genome_run>& runs, std::uint32_t length,
                                  const options& o, fixture::splitmix64& rng) {
    std::vector<read_plan> plans;
    for (std::uint32_t layer = 0; layer < o.depth_max; ++layer) {
        const bool partial = layer >= o.depth_min;
        std::uint32_t from = 0;  // a run start
        bool first = true;
        while (from < length) {
            const std::uint32_t span =
                first ? kMinLeftover + rng.below(kMaxTemplate - kMinLeftover)
                      : kMinTemplate + rng.below(kMaxTemplate - kMinTemplate + 1);
            first = false;
            std::uint32_t to = from + span;
            if (to + kMinLeftover >= length) {
                to = length;
            } else {
                // Reads begin and end between runs, as the flows see them.
                const genome_run& r = runs[run_at(runs, to)];
                to = r.start > from ? r.start : r.start + r.length;
            }
            const bool keep = !partial || rng.chance(1, 2);
            const bool reverse = rng.chance(1, 2);
            if (keep) plans.push_back({run_at(runs, from), run_at(runs, to - 1) + 1, reverse});
            from = to;
        }
    }
    return plans;
}

enum class error_kind { remove, shorten, lengthen };

struct planted {
    std::uint32_t run;
    error_kind kind;
};

bool fits(const std::vector<genome_run>& runs, std::uint32_t i, error_kind kind,
          std::uint32_t length) {
    const genome_run& r = runs[i];
    if (r.start < kEndMargin || r.start + r.length + kEndMargin > length) return false;
    switch (kind) {
        case error_kind::remove:
            // Neighbours of one letter then show as one run in the consensus (ACA as AA), and
            // only the reads' flows tell that the run between them is missing.
            return r.length == 1;
        case error_kind::shorten:
            return r.length >= 2;
        default:
            return true;
    }
}

// Chooses a run for each wanted kind; false when the contig has no room for them.
bool choose_errors(const std::vector<genome_run>& runs, std::uint32_t length,
                   const std::vector<error_kind>& kinds, fixture::splitmix64& rng,
                   std::vector<planted>& chosen) {
    const auto count = static_cast<std::uint32_t>(runs.size());
    for (error_kind kind : kinds) {
        bool placed = false;
        for (int attempt = 0; attempt < 100000 && !placed; ++attempt) {
            const std::uint32_t i = rng.below(count);
            if (!fits(runs, i, kind, length)) continue;
            const bool crowded = std::any_of(chosen.begin(), chosen.end(), [&](const planted& p) {
                return (p.run > i ? p.run - i : i - p.run) < kRunSpacing;
            });
            if (crowded) continue;
            chosen.push_back({i, kind});
            placed = true;
        }
        if (!placed) return false;
    }
    std::sort(chosen.begin(), chosen.end(),
              [](const planted& a, const planted& b) { return a.run < b.run; });
    return true;
}

struct contig_sim {
    std::string name;
    std::string genome;
    std::vector<genome_run> runs;
    std::vector<read_sim> reads;
    std::vector<planted> errors;
    std::vector<std::uint32_t> consensus_letters;  // per run, after planting
    std::string consensus;
    std::vector<std::uint32_t> run_position;  // unpadded 1-based position of each run
};

// Lays the reads out in columns: each run as wide as its longest call (or its consensus),
// each gap one block per spurious letter, in flow order from the letter of the run before.
bool lay_out(contig_sim& c) {
    const std::size_t n = c.runs.size();
    std::vector<std::uint32_t> width(n);
    for (std::size_t i = 0; i < n; ++i) width[i] = c.consensus_letters[i];
    std::vector<std::array<std::uint16_t, 4>> gap_width(n + 1, {0, 0, 0, 0});
    for (const read_sim& r : c.reads) {
        for (std::uint32_t k = 0; k < r.calls.size(); ++k)
            width[r.first_run + k] = std::max<std::uint32_t>(width[r.first_run + k], r.calls[k]);
        for (const insertion& ins : r.insertions) {
            std::uint16_t& w =
                gap_width[ins.gap][static_cast<std::size_t>(flow_letter_index(ins.letter))];
            w = std::max(w, ins.count);
        }
    }

    // Block columns: the letter after the previous run's letter in flow order comes first.
    std::vector<std::array<std::uint32_t, 4>> block_column(n + 1);
    std::vector<std::uint32_t> run_column(n + 1);
    std::uint32_t column = 0;
    c.consensus.clear();
    for (std::size_t g = 0; g <= n; ++g) {
        const int previous = g > 0 ? flow_letter_index(c.runs[g - 1].letter) : 0;
        for (int step = 1; step <= 4; ++step) {
            const auto letter = static_cast<std::size_t>((previous + step) % 4);
            block_column[g][letter] = column;
            column += gap_width[g][letter];
            c.consensus.append(gap_width[g][letter], '*');
        }
        run_column[g] = column;
        if (g == n) break;
        column += width[g];
        c.consensus.append(c.consensus_letters[g], c.runs[g].letter);
        c.consensus.append(width[g] - c.consensus_letters[g], '*');
    }

    c.run_position.assign(n, 0);
    std::uint32_t bases = 0;
    for (std::size_t i = 0; i < n; ++i) {
        c.run_position[i] = bases + 1;
        bases += c.consensus_letters[i];
    }

    for (read_sim& r : c.reads) {
        std::uint32_t from = run_column[r.first_run];
        std::uint32_t to = run_column[r.end_run - 1] + width[r.end_run - 1];
        const auto block = [&](const insertion& ins) {
            return block_column[ins.gap][static_cast<std::size_t>(flow_letter_index(ins.letter))];
        };
        for (const insertion& ins : r.insertions) {
            from = std::min(from, block(ins));
            to = std::max(to, block(ins) + ins.count);
        }
        std::string row(to - from, '*');
        for (std::uint32_t k = 0; k < r.calls.size(); ++k) {
            const std::uint32_t i = r.first_run + k;
            row.replace(run_column[i] - from, r.calls[k], r.calls[k], c.runs[i].letter);
        }
        for (const insertion& ins : r.insertions)
            row.replace(block(ins) - from, ins.count, ins.count, ins.letter);
        const std::size_t first = row.find_first_not_of('*');
        if (first == std::string::npos) return false;
        const std::size_t last = row.find_last_not_of('*');
        r.start_column = static_cast<std::int32_t>(from + first + 1);
        r.padded = row.substr(first, last - first + 1);
        std::string unpadded = r.padded;
        std::erase(unpadded, '*');
        // Every read must have called its letters in the order the blocks stand in.
        if (unpadded != r.called) return false;
    }
    return true;
}

void wrap(std::string& out, std::string_view text) {
    for (std::size_t at = 0; at < text.size(); at += kLineWidth) {
        out += text.substr(at, kLineWidth);
        out += '\n';
    }
}

// Base segments: from each column on, the read reaching furthest among those covering it.
std::string base_segments(const contig_sim& c, std::size_t& count) {
    std::vector<const read_sim*> by_start;
    for (const read_sim& r : c.reads) by_start.push_back(&r);
    std::sort(by_start.begin(), by_start.end(), [](const read_sim* a, const read_sim* b) {
        return a->start_column < b->start_column;
    });
    const auto end_of = [](const read_sim* r) {
        return r->start_column + static_cast<std::int32_t>(r->padded.size()) - 1;
    };
    std::string out;
    count = 0;
    std::size_t next = 0;
    const read_sim* best = nullptr;
    const auto columns = static_cast<std::int32_t>(c.consensus.size());
    for (std::int32_t column = 1; column <= columns;) {
        while (next < by_start.size() && by_start[next]->start_column <= column) {
            if (best == nullptr || end_of(by_start[next]) > end_of(best)) best = by_start[next];
            ++next;
        }
        // A stretch no read covers goes to the next read to begin.
        if ((best == nullptr || end_of(best) < column) && next < by_start.size())
            best = by_start[next];
        if (best == nullptr) break;
        const std::int32_t to = std::min(std::max(end_of(best), column), columns);
        out += "BS " + std::to_string(column) + " " + std::to_string(to) + " " + best->name + "\n";
        ++count;
        column = to + 1;
    }
    return out;
}

std::string ace_text(const std::vector<contig_sim>& contigs, std::uint64_t seed) {
    std::size_t total = 0;
    for (const contig_sim& c : contigs) total += c.reads.size();
    std::string t = "AS " + std::to_string(contigs.size()) + " " + std::to_string(total) + "\n\n";
    fixture::splitmix64 quality{seed ^ kQualitySalt};
    for (const contig_sim& c : contigs) {
        std::size_t segment_count = 0;
        const std::string segments = base_segments(c, segment_count);
        t += "CO " + c.name + " " + std::to_string(c.consensus.size()) + " " +
             std::to_string(c.reads.size()) + " " + std::to_string(segment_count) + " U\n";
        wrap(t, c.consensus);
        t += "\nBQ\n";
        std::size_t on_line = 0;
        for (char b : c.consensus) {
            if (b == '*') continue;
            if (on_line > 0) t += ' ';
            t += std::to_string(30 + quality.below(40));
            if (++on_line == kQualitiesPerLine) {
                t += '\n';
                on_line = 0;
            }
        }
        if (on_line > 0) t += '\n';
        t += '\n';
        for (const read_sim& r : c.reads)
            t += "AF " + r.name + (r.reverse ? " C " : " U ") + std::to_string(r.start_column) +
                 "\n";
        t += segments + "\n";
        for (const read_sim& r : c.reads) {
            const std::string length = std::to_string(r.padded.size());
            t += "RD " + r.name + " " + length + " 0 0\n";
            wrap(t, r.padded);
            t += "\nQA 1 " + length + " 1 " + length + "\nDS CHROMAT_FILE: " + r.name +
                 " PHD_FILE: " + r.name + ".phd.1 TIME: Mon Nov 23 10:00:00 2026\n\n";
        }
    }
    return t;
}

std::string truth_fasta(const std::vector<contig_sim>& contigs) {
    std::string t;
    for (const contig_sim& c : contigs) {
        t += ">" + c.name + "\n";
        wrap(t, c.genome);
    }
    return t;
}

std::string planted_table(const std::vector<contig_sim>& contigs) {
    std::string t = "contig\tposition\tletter\tconsensus_length\ttrue_length\n";
    for (const contig_sim& c : contigs) {
        for (const planted& p : c.errors) {
            const genome_run& r = c.runs[p.run];
            t += c.name + "\t" + std::to_string(c.run_position[p.run]) + "\t" + r.letter + "\t" +
                 std::to_string(c.consensus_letters[p.run]) + "\t" + std::to_string(r.length) +
                 "\n";
        }
    }
    return t;
}

// Per run length, the values of the template flows of one SFF file, wild ones left out. They
// are kept as drawn, not in the flowgram's hundredths, which would step a spread of 0.06 by
// more than a tenth of it.
using length_signals = std::array<std::vector<float>, kModelLengths>;

std::string truth_model_table(const std::vector<std::string>& files,
                              const std::vector<length_signals>& signals) {
    std::string t = "file\tlength\tsignals\tcentre\tspread\n";
    for (std::size_t i = 0; i < files.size(); ++i) {
        for (std::uint32_t h = 0; h < kModelLengths; ++h) {
            const std::vector<float>& values = signals[i][h];
            t += files[i] + "\t" + std::to_string(h) + "\t" + std::to_string(values.size());
            if (values.empty()) {
                t += "\tNA\tNA\n";
                continue;
            }
            const robust_scale s = robust_scale_of({values.begin(), values.end()});
            char text[64];
            std::snprintf(text, sizeof text, "\t%.3f\t%.3f\n", s.centre, s.spread);
            t += text;
        }
    }
    return t;
}

// Which kind each planted error is: a third shortenings, about half of those removing a run
// of one base altogether, the rest lengthenings; dealt out over the contigs in turn.
std::vector<std::vector<error_kind>> error_kinds(const options& o, fixture::splitmix64& rng) {
    const std::uint32_t shorter = (o.errors + 1) / 3;
    const std::uint32_t removed = (shorter + 1) / 2;
    std::vector<error_kind> kinds;
    for (std::uint32_t i = 0; i < o.errors; ++i)
        kinds.push_back(i < removed   ? error_kind::remove
                        : i < shorter ? error_kind::shorten
                                      : error_kind::lengthen);
    for (std::size_t i = kinds.size(); i > 1; --i)
        std::swap(kinds[i - 1], kinds[rng.below(static_cast<std::uint32_t>(i))]);
    std::vector<std::vector<error_kind>> per_contig(o.contigs);
    for (std::size_t i = 0; i < kinds.size(); ++i) per_contig[i % o.contigs].push_back(kinds[i]);
    return per_contig;
}

// Everything drawn, in the order it is drawn: each part from a stream of its own, so that
// changing how one part draws cannot move another.
struct simulation {
    explicit simulation(const options& o)
        : o(o),
          genome_rng{o.seed},
          plan_rng{o.seed ^ kPlanSalt},
          error_rng{o.seed ^ kErrorSalt},
          name_rng{o.seed ^ kNameSalt},
          long_run_rng{o.seed ^ kLongRunSalt},
          file_rng{o.seed ^ kFileSalt},
          sff(o.files),
          signals(o.files) {
        const flow_model model = make_flow_model(o.shape, o.noise, o.wild);
        models.assign(o.files, model);
        if (o.files > 1) models[1].noise = o.noise2;
        for (fixture::sff_file_layout& f : sff) {
            f.number_of_flows_per_read = kFlows;
            f.flow_chars = fixture::tacg_flows(kFlows);
            f.key_sequence = std::string(kKey);
        }
        kinds = error_kinds(o, error_rng);
    }

    const options& o;
    fixture::splitmix64 genome_rng, plan_rng, error_rng, name_rng, long_run_rng, file_rng;
    std::vector<flow_model> models;
    std::vector<fixture::sff_file_layout> sff;
    std::vector<length_signals> signals;
    std::vector<std::vector<error_kind>> kinds;
    std::set<std::string> names;
    std::vector<contig_sim> contigs;
};

// Sequences the contig's reads, each into the SFF file it is dealt to. Empty when fine, else
// what went wrong.
std::string sequence_reads(simulation& sim, contig_sim& c) {
    for (const read_plan& p : plan_reads(c.runs, sim.o.length, sim.o, sim.plan_rng)) {
        read_sim r;
        r.name = well_name(sim.name_rng);
        while (!sim.names.insert(r.name).second) r.name = well_name(sim.name_rng);
        r.reverse = p.reverse;
        const std::uint32_t file = sim.o.files > 1 ? sim.file_rng.below(sim.o.files) : 0;
        fixture::sff_read_layout record;
        if (!sequence_read(c.runs, p.first_run, p.end_run, sim.models[file], sim.plan_rng.next(), r,
                           record))
            return "read " + r.name + " has a flow gap over 255";
        if (r.called.empty()) continue;
        for (const auto& [h, value] : r.signals) sim.signals[file][h].push_back(value);
        r.signals = {};
        c.reads.push_back(std::move(r));
        sim.sff[file].reads.push_back(std::move(record));
    }
    return {};
}

std::string simulate_contig(simulation& sim, std::uint32_t k) {
    contig_sim& c = sim.contigs.emplace_back();
    c.name = "Contig" + std::to_string(k + 1);
    c.genome = random_genome(sim.o.length, sim.o.long_runs, sim.genome_rng, sim.long_run_rng);
    c.runs = runs_of(c.genome);
    if (std::string problem = sequence_reads(sim, c); !problem.empty()) return problem;

    if (!choose_errors(c.runs, sim.o.length, sim.kinds[k], sim.error_rng, c.errors))
        return "no room for " + std::to_string(sim.kinds[k].size()) + " errors in " + c.name;
    c.consensus_letters.resize(c.runs.size());
    for (std::size_t i = 0; i < c.runs.size(); ++i) c.consensus_letters[i] = c.runs[i].length;
    for (const planted& p : c.errors)
        c.consensus_letters[p.run] += p.kind == error_kind::lengthen ? 1 : -1;
    if (!lay_out(c)) return "a read does not fit the alignment in " + c.name;
    std::sort(c.reads.begin(), c.reads.end(), [](const read_sim& a, const read_sim& b) {
        return a.start_column != b.start_column ? a.start_column < b.start_column : a.name < b.name;
    });
    return {};
}

std::vector<std::string> sff_names(const options& o) {
    std::vector<std::string> names = {o.prefix + ".sff"};
    if (o.files > 1) names.push_back(o.prefix + "_b.sff");
    return names;
}

bool write_outputs(const simulation& sim) {
    const options& o = sim.o;
    std::error_code ec;
    std::filesystem::create_directories(o.out, ec);
    if (ec) return false;
    const std::string base = o.out + "/" + o.prefix;
    const std::vector<std::string> files = sff_names(o);
    for (std::size_t i = 0; i < files.size(); ++i)
        if (!fixture::write_file(o.out + "/" + files[i], fixture::build_sff(sim.sff[i])))
            return false;
    return fixture::write_file(base + ".ace", ace_text(sim.contigs, o.seed)) &&
           fixture::write_file(base + ".truth.fa", truth_fasta(sim.contigs)) &&
           fixture::write_file(base + ".planted.tsv", planted_table(sim.contigs)) &&
           fixture::write_file(base + ".truth_model.tsv", truth_model_table(files, sim.signals));
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view a = argv[i];
        if (a == "-h" || a == "--help") {
            usage(std::cout);
            return 0;
        }
    }
    options o;
    if (const std::string problem = parse_options(argc, argv, o); !problem.empty()) {
        std::cerr << "sim_assembly: " << problem << "\n";
        usage(std::cerr);
        return 2;
    }

    simulation sim(o);
    for (std::uint32_t k = 0; k < o.contigs; ++k) {
        if (const std::string problem = simulate_contig(sim, k); !problem.empty()) {
            std::cerr << "sim_assembly: " << problem << "\n";
            return 1;
        }
    }
    if (!write_outputs(sim)) {
        std::cerr << "sim_assembly: cannot write under " << o.out << "\n";
        return 1;
    }
    std::size_t reads = 0;
    for (const fixture::sff_file_layout& f : sim.sff) reads += f.reads.size();
    std::cout << reads << " reads over " << o.contigs << " contig" << (o.contigs == 1 ? "" : "s")
              << " of " << o.length << " bases, " << o.errors << " errors planted: " << o.out << "/"
              << o.prefix << ".{ace,sff,truth.fa,planted.tsv,truth_model.tsv}"
              << (o.files > 1 ? " and " + o.prefix + "_b.sff" : "") << "\n";
    return 0;
}

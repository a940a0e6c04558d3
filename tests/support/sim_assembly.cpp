// Simulated 454 assemblies whose truth is known: a random genome, reads sequenced from it
// flow by flow, the true multiple alignment of those reads written as an ACE file, and errors
// planted in the consensus alone, so that a checker of homopolymer runs can be scored.
//
//   sim_assembly --out DIR [--prefix NAME] [--contigs K] [--length BASES] [--depth D|MIN-MAX]
//                [--noise F] [--errors N] [--seed S]
//
// writes DIR/NAME.ace, DIR/NAME.sff (one big-endian file, 800 flows of TACG, key TCAG),
// DIR/NAME.truth.fa (the genome) and DIR/NAME.planted.tsv (the planted errors).
//
// Each read walks its template one flow at a time. A flow meeting a run of h bases of its
// letter measures h + N(0,1) * F * (0.06 + 0.05 h) * (1 + 0.6 t), t being the fraction of the
// read's flows already used, and calls as many bases as that value rounds to, so reads carry
// the over- and under-calls of long runs and now and then a letter where the genome has none.
// The key's flows, and the flows before the template's first run, are kept on their true
// value: the key must stay intact for the read to be found, and a spurious letter ahead of the
// first run would have no place in the alignment.
//
// The alignment is the true one: every genome run gets as many columns as the longest call of
// it, each spurious letter gets a block of columns between the two runs it fell between, and
// every read shows its own calls there followed by pads.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <numbers>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
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
};

void usage(std::ostream& out) {
    out << "usage: sim_assembly --out DIR [--prefix NAME] [--contigs K] [--length BASES]\n"
           "                    [--depth D|MIN-MAX] [--noise F] [--errors N] [--seed S]\n"
           "  --out DIR         directory for NAME.ace, NAME.sff, NAME.truth.fa and\n"
           "                    NAME.planted.tsv (created)\n"
           "  --prefix NAME     file name prefix (default sim)\n"
           "  --contigs K       contigs (default 1)\n"
           "  --length BASES    bases per contig, at least 1000 (default 4000)\n"
           "  --depth D|MIN-MAX reads deep, or a range the depth varies in (default 12)\n"
           "  --noise F         multiplier of the flow noise (default 1.0)\n"
           "  --errors N        errors planted in the consensus in total (default 6)\n"
           "  --seed S          seed of the generator (default 1)\n";
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

bool parse_noise(std::string_view text, double& value) {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && ec == std::errc() && end == text.data() + text.size() && value >= 0 &&
           value <= 10;
}

// Empty when the arguments are fine, else what is wrong with them.
std::string parse_options(int argc, char** argv, options& o) {
    for (int i = 1; i < argc; i += 2) {
        const std::string_view key = argv[i];
        if (i + 1 == argc) return "option " + std::string(key) + " needs a value";
        const std::string_view value = argv[i + 1];
        std::uint64_t seed = 0;
        bool ok = true;
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
            ok = parse_noise(value, o.noise);
        } else if (key == "--errors") {
            ok = parse_bounded(value, 0, 1'000'000, o.errors);
        } else if (key == "--seed") {
            ok = parse_number(value, seed);
            o.seed = seed;
        } else {
            return "unknown option " + std::string(key);
        }
        if (!ok) return "bad value for " + std::string(key) + ": " + std::string(value);
    }
    if (o.out.empty()) return "--out is required";
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
                   double noise, std::uint64_t seed, read_sim& read,
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
        const double sd = noise * (0.06 + 0.05 * h) * (1 + 0.6 * t);
        const double v = std::max(0.0, h + normal.next() * sd);
        long q = std::min(std::lround(100 * v), 65535L);
        if (done) {
            q = std::min(q, 49L);
        } else if ((h > 0 && flowed[at].key_bases > 0) || (h == 0 && at <= first_template)) {
            q = std::clamp(q, std::max(0L, 100L * h - 49), 100L * h + 49);
        }
        flowgram[f] = static_cast<std::uint16_t>(q);
        if (done) continue;

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

    fixture::splitmix64 genome_rng{o.seed};
    fixture::splitmix64 plan_rng{o.seed ^ kPlanSalt};
    fixture::splitmix64 error_rng{o.seed ^ kErrorSalt};
    fixture::splitmix64 name_rng{o.seed ^ kNameSalt};
    const std::vector<std::vector<error_kind>> kinds = error_kinds(o, error_rng);

    fixture::sff_file_layout sff;
    sff.number_of_flows_per_read = kFlows;
    sff.flow_chars = fixture::tacg_flows(kFlows);
    sff.key_sequence = std::string(kKey);
    std::set<std::string> names;
    std::vector<contig_sim> contigs(o.contigs);
    for (std::uint32_t k = 0; k < o.contigs; ++k) {
        contig_sim& c = contigs[k];
        c.name = "Contig" + std::to_string(k + 1);
        c.genome.resize(o.length);
        for (char& b : c.genome) b = "ACGT"[genome_rng.below(4)];
        c.runs = runs_of(c.genome);

        for (const read_plan& p : plan_reads(c.runs, o.length, o, plan_rng)) {
            read_sim r;
            r.name = well_name(name_rng);
            while (!names.insert(r.name).second) r.name = well_name(name_rng);
            r.reverse = p.reverse;
            fixture::sff_read_layout record;
            if (!sequence_read(c.runs, p.first_run, p.end_run, o.noise, plan_rng.next(), r,
                               record)) {
                std::cerr << "sim_assembly: read " << r.name << " has a flow gap over 255\n";
                return 1;
            }
            if (r.called.empty()) continue;
            c.reads.push_back(std::move(r));
            sff.reads.push_back(std::move(record));
        }

        if (!choose_errors(c.runs, o.length, kinds[k], error_rng, c.errors)) {
            std::cerr << "sim_assembly: no room for " << kinds[k].size() << " errors in " << c.name
                      << "\n";
            return 1;
        }
        c.consensus_letters.resize(c.runs.size());
        for (std::size_t i = 0; i < c.runs.size(); ++i) c.consensus_letters[i] = c.runs[i].length;
        for (const planted& p : c.errors)
            c.consensus_letters[p.run] += p.kind == error_kind::lengthen ? 1 : -1;
        if (!lay_out(c)) {
            std::cerr << "sim_assembly: a read does not fit the alignment in " << c.name << "\n";
            return 1;
        }
        std::sort(c.reads.begin(), c.reads.end(), [](const read_sim& a, const read_sim& b) {
            return a.start_column != b.start_column ? a.start_column < b.start_column
                                                    : a.name < b.name;
        });
    }

    std::error_code ec;
    std::filesystem::create_directories(o.out, ec);
    const std::string base = o.out + "/" + o.prefix;
    if (ec || !fixture::write_file(base + ".sff", fixture::build_sff(sff)) ||
        !fixture::write_file(base + ".ace", ace_text(contigs, o.seed)) ||
        !fixture::write_file(base + ".truth.fa", truth_fasta(contigs)) ||
        !fixture::write_file(base + ".planted.tsv", planted_table(contigs))) {
        std::cerr << "sim_assembly: cannot write under " << o.out << "\n";
        return 1;
    }
    std::cout << sff.reads.size() << " reads over " << o.contigs << " contig"
              << (o.contigs == 1 ? "" : "s") << " of " << o.length << " bases, " << o.errors
              << " errors planted: " << base << ".{ace,sff,truth.fa,planted.tsv}\n";
    return 0;
}

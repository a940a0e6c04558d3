// Writes a deterministic, realistic data set: two SFF files (one in each byte order) and an
// ACE assembly that places most of their reads in contigs, along with a few reads that
// neither SFF file holds.
//
//   make_dataset --out DIR [--reads N] [--seed S] [--prefix NAME]
//
// Everything derives from the seed. Each read is drawn from its own small random stream, so
// that the SFF and ACE passes can regenerate its bases instead of keeping them all in memory;
// only names, placements and clip points are held for the whole run.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "sff_builder.h"

namespace {

constexpr std::uint16_t kFlows = 800;
constexpr std::string_view kKey = "TCAG";
constexpr std::size_t kNameLength = 14;
constexpr std::uint64_t kMaxReads = 10'000'000;
// Reads may start up to this many columns before column 1 of their contig.
constexpr std::int32_t kLeftMargin = 40;
// Room past a contig's planned end for the reads placed last, which may run beyond it.
constexpr std::int32_t kRightMargin = 1000;
// Typical kept length of a read; sets the consensus length for a wanted coverage.
constexpr std::int32_t kTypicalKept = 420;
constexpr std::size_t kFlushAt = std::size_t{1} << 22;
constexpr std::size_t kLineWidth = 60;
constexpr std::size_t kQualitiesPerLine = 50;

// Separate streams per purpose, so that skipping the quality scores in a pass that does not
// need them cannot shift the bases.
constexpr std::uint64_t kPlanSalt = 0x5DEECE66DULL;
constexpr std::uint64_t kQualitySalt = 0xC2B2AE3D27D4EB4FULL;
constexpr std::uint64_t kSignalSalt = 0x165667B19E3779F9ULL;

struct options {
    std::uint64_t reads = 200000;
    std::uint64_t seed = 1;
    std::string out;
    std::string prefix = "run";
};

// Bounded draws and shuffles are done by hand on raw 64-bit values: the standard
// distributions differ between standard libraries.
using stream = fixture::splitmix64;

std::uint64_t below(std::mt19937_64& rng, std::uint64_t n) {
    return rng() % n;
}

template <typename T>
void shuffle(std::vector<T>& v, std::mt19937_64& rng) {
    for (std::size_t i = v.size(); i > 1; --i) std::swap(v[i - 1], v[below(rng, i)]);
}

char complement(char b) {
    switch (b) {
        case 'A':
            return 'T';
        case 'C':
            return 'G';
        case 'G':
            return 'C';
        case 'T':
            return 'A';
        default:
            return b;
    }
}

char other_base(stream& s, char b) {
    char c = "ACGT"[s.below(3)];
    return c == b ? 'T' : c;  // T is the one base the draw above never yields
}

// Genomes with some homopolymer excess, as real ones have; it also keeps typical reads
// within 800 flows.
char next_base(stream& s, char prev) {
    if (prev == 0) return "ACGT"[s.below(4)];
    if (s.chance(3000, 10000)) return prev;
    return other_base(s, prev);
}

struct read_plan {
    std::array<char, kNameLength> name{};
    std::uint64_t seed = 0;
    std::int32_t contig = -1;  // -1: a singleton, in an SFF file only
    std::int32_t start = 0;    // padded start column in the contig
    std::int32_t padded_length = 0;
    std::uint16_t bases = 0;
    std::uint16_t clip_qual_left = 0;
    std::uint16_t clip_qual_right = 0;
    std::uint16_t clip_adapter_left = 0;
    std::uint16_t clip_adapter_right = 0;
    bool complemented = false;

    std::string_view name_view() const { return {name.data(), name.size()}; }
    std::int32_t end() const { return start + padded_length - 1; }
    std::size_t kept_left() const {
        return std::max<std::size_t>({clip_qual_left, clip_adapter_left, 1});
    }
    std::size_t kept_right() const {
        const std::size_t a = clip_adapter_right != 0 ? clip_adapter_right : bases;
        const std::size_t b = clip_qual_right != 0 ? clip_qual_right : bases;
        return std::min(a, b);
    }
};

struct contig_model {
    std::string name;
    std::uint64_t seed = 0;
    std::string columns;  // padded genome; column c is columns[c - 1 + kLeftMargin]
    std::int32_t length = 0;
    std::vector<std::uint32_t> reads;

    char at(std::int32_t column) const {
        return columns[static_cast<std::size_t>(column - 1 + kLeftMargin)];
    }
};

// One read as regenerated from its seed.
struct read_content {
    std::string padded;                  // the read as the assembly shows it (placed reads only)
    std::string kept;                    // the kept bases in the read's own direction
    std::vector<std::uint8_t> doubtful;  // per kept base: it disagrees with the genome
    std::string bases;                   // every base of the SFF record
    std::vector<std::uint8_t> quality;
};

void generate(const read_plan& r, const contig_model* contig, bool with_quality, read_content& c) {
    stream s{r.seed};
    const std::size_t left = r.kept_left();
    const std::size_t right = r.kept_right();
    const std::size_t kept = right - left + 1;
    c.padded.clear();
    c.kept.clear();
    c.doubtful.clear();

    if (contig != nullptr) {
        std::int32_t column = r.start;
        char last = 0;
        while (c.kept.size() < kept) {
            const char truth = contig->at(column++);
            char b = truth;
            bool odd = false;
            if (truth == '*') {
                // A pad column is where some reads over-call a homopolymer. A read never
                // begins with a pad.
                if (c.padded.empty() || s.chance(2500, 10000)) {
                    b = last != 0 && s.chance(7000, 10000) ? last : "ACGT"[s.below(4)];
                    odd = true;
                }
            } else if (const std::uint32_t e = s.below(10000); e < 70) {
                // 0.3% under-calls (never the first base), 0.4% wrong bases.
                if (e >= 30) {
                    b = other_base(s, truth);
                    odd = true;
                } else if (!c.padded.empty()) {
                    b = '*';
                }
            }
            c.padded.push_back(b);
            if (b != '*') {
                c.kept.push_back(b);
                c.doubtful.push_back(odd ? 1 : 0);
                last = b;
            }
        }
    } else {
        char prev = 0;
        for (std::size_t i = 0; i < kept; ++i) {
            prev = next_base(s, prev);
            c.kept.push_back(prev);
            c.doubtful.push_back(0);
        }
    }
    // The assembly shows a complemented read turned to the consensus; the SFF file holds it
    // as sequenced.
    if (r.complemented) {
        std::reverse(c.kept.begin(), c.kept.end());
        std::transform(c.kept.begin(), c.kept.end(), c.kept.begin(), complement);
        std::reverse(c.doubtful.begin(), c.doubtful.end());
    }

    c.bases.assign(kKey.substr(0, std::min<std::size_t>(kKey.size(), r.bases)));
    while (c.bases.size() + 1 < left) c.bases.push_back(next_base(s, c.bases.back()));
    c.bases += c.kept;
    while (c.bases.size() < r.bases) c.bases.push_back(next_base(s, c.bases.back()));

    if (!with_quality) return;
    stream q{r.seed ^ kQualitySalt};
    c.quality.resize(c.bases.size());
    // Scores fall by up to 14 along the read (fixed point, to keep division out of the loop).
    const std::size_t decay = (std::size_t{14} << 16) / c.bases.size();
    for (std::size_t i = 0; i < c.bases.size(); ++i) {
        const std::size_t pos = i + 1;
        int score;
        if (pos <= kKey.size()) {
            score = 32 + static_cast<int>(q.below(9));
        } else if (pos < left) {
            score = 14 + static_cast<int>(q.below(14));
        } else if (pos <= right) {
            if (c.doubtful[pos - left] != 0) {
                score = 10 + static_cast<int>(q.below(9));
            } else {
                score = 40 - static_cast<int>(((pos * decay) >> 16) + q.below(7));
                // Long homopolymers are where flow calls go wrong.
                if (i >= 2 && c.bases[i] == c.bases[i - 1] && c.bases[i] == c.bases[i - 2]) {
                    score -= 6;
                }
            }
        } else {
            score = 10 + static_cast<int>(q.below(10));
        }
        c.quality[i] = static_cast<std::uint8_t>(std::clamp(score, 10, 40));
    }
}

// Draws length and clip points, then shortens the read until all its bases fit the flows.
void plan_read(read_plan& r, const contig_model* contig, std::string_view flows,
               read_content& scratch) {
    stream p{r.seed ^ kPlanSalt};
    std::uint32_t bases = 300 + p.below(301);
    const std::uint32_t tail = 3 + p.below(43);
    r.clip_qual_left = static_cast<std::uint16_t>(p.chance(9700, 10000) ? 5 : 6 + p.below(5));
    r.clip_adapter_left = static_cast<std::uint16_t>(p.chance(200, 10000) ? 6 + p.below(20) : 0);
    // Mostly no adapter; sometimes one found inside the read, sometimes at its very end.
    const std::uint32_t adapter = p.below(100);
    const std::uint32_t adapter_gap = 10 + p.below(80);
    r.complemented = p.chance(5000, 10000);
    for (int attempt = 0;; ++attempt) {
        r.bases = static_cast<std::uint16_t>(bases);
        r.clip_qual_right = static_cast<std::uint16_t>(bases - tail);
        r.clip_adapter_right =
            static_cast<std::uint16_t>(adapter < 6   ? r.clip_qual_right - adapter_gap
                                       : adapter < 8 ? bases
                                                     : 0);
        generate(r, contig, false, scratch);
        const std::size_t fit = fixture::fitting_bases(scratch.bases, flows);
        if (fit >= bases) break;
        // 800 TACG flows always call at least 266 bases, so this ends well above the clips.
        bases = static_cast<std::uint32_t>(attempt >= 3 ? fit - 8 : fit);
    }
    r.padded_length = static_cast<std::int32_t>(scratch.padded.size());
}

// Contig sizes between lo and hi reads, skewed towards small ones, summing to `total`.
std::vector<std::size_t> contig_sizes(std::size_t total, std::mt19937_64& rng) {
    std::vector<std::size_t> sizes;
    // A third of the reads at most, so that even a small set has a few contigs.
    const std::size_t hi =
        std::clamp<std::size_t>(total / 3, std::min<std::size_t>(total, 20), 5000);
    const std::size_t lo = std::clamp<std::size_t>(hi / 2, 1, 50);
    std::size_t left = total;
    while (left > 0) {
        const double u = static_cast<double>(rng() >> 11) * 0x1.0p-53;
        std::size_t n = lo + static_cast<std::size_t>(static_cast<double>(hi - lo) * u * u * u);
        n = std::min(n, left);
        if (left - n < lo) n = left <= hi ? left : left - lo;
        sizes.push_back(n);
        left -= n;
    }
    return sizes;
}

void build_contig(contig_model& contig, std::vector<read_plan>& reads, std::string_view flows,
                  read_content& scratch) {
    stream g{contig.seed};
    const std::size_t n = contig.reads.size();
    const std::int32_t coverage = 8 + static_cast<std::int32_t>(g.below(13));
    const std::int32_t target =
        std::max<std::int32_t>(700, static_cast<std::int32_t>(n) * kTypicalKept / coverage);

    const std::size_t total = static_cast<std::size_t>(kLeftMargin + target + kRightMargin);
    contig.columns.reserve(total);
    char prev = 0;
    for (std::size_t i = 0; i < total; ++i) {
        const auto column = static_cast<std::int32_t>(i) + 1 - kLeftMargin;
        if (column > 1 && contig.columns.back() != '*' && g.chance(150, 10000)) {
            contig.columns.push_back('*');
        } else {
            prev = next_base(g, prev);
            contig.columns.push_back(prev);
        }
    }

    // Starts spread evenly with jitter, so that the reads overlap without gaps; a few begin
    // before the first consensus column.
    const std::uint64_t span = static_cast<std::uint64_t>(std::max(1, target - kTypicalKept));
    contig.length = 1;
    for (std::size_t j = 0; j < n; ++j) {
        read_plan& r = reads[contig.reads[j]];
        if (j == 0) {
            r.start = 1;
        } else if (g.chance(100, 10000)) {
            r.start = -static_cast<std::int32_t>(g.below(31));
        } else {
            r.start = 1 + static_cast<std::int32_t>(
                              (j * span + g.below(static_cast<std::uint32_t>(span))) / n);
        }
        plan_read(r, &contig, flows, scratch);
        contig.length = std::max(contig.length, r.end());
    }
    std::sort(contig.reads.begin(), contig.reads.end(), [&](std::uint32_t a, std::uint32_t b) {
        return reads[a].start != reads[b].start ? reads[a].start < reads[b].start : a < b;
    });
}

// Output through one large buffer; the data set is far too big to assemble in memory.
struct sink {
    std::ofstream file;
    std::string buffer;
    std::uint64_t written = 0;

    bool open(const std::string& path) {
        file.open(path, std::ios::binary | std::ios::trunc);
        buffer.reserve(kFlushAt + (std::size_t{1} << 16));
        return file.is_open();
    }
    void flush() {
        file.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        written += buffer.size();
        buffer.clear();
    }
    void maybe_flush() {
        if (buffer.size() >= kFlushAt) flush();
    }
    bool close() {
        flush();
        file.close();
        return !file.fail();
    }
    template <typename T>
    void number(T value) {
        char digits[24];
        const auto res = std::to_chars(digits, digits + sizeof digits, value);
        buffer.append(digits, res.ptr);
    }
    std::uint64_t position() const { return written + buffer.size(); }
};

void put_le_or_be(std::string& out, std::uint64_t value, int width, bool little) {
    for (int i = 0; i < width; ++i) {
        const int shift = little ? 8 * i : 8 * (width - 1 - i);
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
    }
}

std::uint64_t record_size(std::uint32_t bases) {
    const std::uint64_t data = 2u * kFlows + 3u * bases;
    return (16 + kNameLength + 7) / 8 * 8 + (data + 7) / 8 * 8;
}

bool write_sff(const std::string& path, bool little_endian, const std::vector<read_plan>& reads,
               std::uint32_t first, std::uint32_t last, const std::vector<contig_model>& contigs,
               std::string_view flows) {
    fixture::sff_file_layout layout;
    layout.little_endian = little_endian;
    layout.number_of_flows_per_read = kFlows;
    layout.flow_chars = std::string(flows);
    layout.key_sequence = std::string(kKey);
    layout.number_of_reads = last - first;

    // Record sizes follow from the planned lengths, so the index position is known before
    // the first record is written and the header never has to be patched.
    std::vector<std::uint64_t> offsets;
    offsets.reserve(last - first);
    std::uint64_t offset = fixture::build_sff_header(layout).size();
    for (std::uint32_t id = first; id < last; ++id) {
        offsets.push_back(offset);
        offset += record_size(reads[id].bases);
    }

    // The index: the names in name order, each with its record's offset.
    std::vector<std::uint32_t> order(last - first);
    for (std::uint32_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        return reads[first + a].name_view() < reads[first + b].name_view();
    });
    std::string index = "RIDX";
    put_le_or_be(index, order.size(), 4, little_endian);
    for (std::uint32_t i : order) {
        put_le_or_be(index, kNameLength, 2, little_endian);
        index += reads[first + i].name_view();
        put_le_or_be(index, offsets[i], 8, little_endian);
    }
    index.append((8 - index.size() % 8) % 8, '\0');
    layout.index_offset = offset;
    layout.index_length = static_cast<std::uint32_t>(index.size());

    sink out;
    if (!out.open(path)) {
        std::cerr << "make_dataset: cannot create " << path << '\n';
        return false;
    }
    out.buffer += fixture::build_sff_header(layout);
    read_content content;
    for (std::uint32_t id = first; id < last; ++id) {
        const read_plan& r = reads[id];
        generate(r, r.contig >= 0 ? &contigs[static_cast<std::size_t>(r.contig)] : nullptr, true,
                 content);
        fixture::sff_read_layout record =
            fixture::make_read(std::string(r.name_view()), content.bases, flows,
                               std::move(content.quality), r.seed ^ kSignalSalt);
        record.clip_qual_left = r.clip_qual_left;
        record.clip_qual_right = r.clip_qual_right;
        record.clip_adapter_left = r.clip_adapter_left;
        record.clip_adapter_right = r.clip_adapter_right;
        if (record.bases.size() != r.bases || out.position() != offsets[id - first]) {
            std::cerr << "make_dataset: internal error: read " << r.name_view()
                      << " does not come out as planned\n";
            return false;
        }
        fixture::append_sff_read(out.buffer, record, little_endian);
        out.maybe_flush();
    }
    out.buffer += index;
    if (!out.close()) {
        std::cerr << "make_dataset: cannot write " << path << '\n';
        return false;
    }
    return true;
}

// Base segments: each consensus range credited to one read covering it, longest reach first.
struct segment {
    std::int32_t from;
    std::int32_t to;
    std::uint32_t read;
};

std::vector<segment> base_segments(const contig_model& contig,
                                   const std::vector<read_plan>& reads) {
    std::vector<segment> segments;
    std::size_t next = 0;
    std::int32_t column = 1;
    std::int32_t best_end = 0;
    std::uint32_t best = contig.reads.empty() ? 0 : contig.reads.front();
    while (column <= contig.length) {
        while (next < contig.reads.size() && reads[contig.reads[next]].start <= column) {
            const read_plan& r = reads[contig.reads[next]];
            if (r.end() > best_end) {
                best_end = r.end();
                best = contig.reads[next];
            }
            ++next;
        }
        if (best_end < column) {
            if (next == contig.reads.size()) break;
            best = contig.reads[next];
            best_end = reads[best].end();
        }
        const std::int32_t to = std::min(best_end, contig.length);
        segments.push_back({column, to, best});
        column = to + 1;
    }
    return segments;
}

void wrap(sink& out, std::string_view text) {
    for (std::size_t i = 0; i < text.size(); i += kLineWidth) {
        out.buffer += text.substr(i, kLineWidth);
        out.buffer += '\n';
    }
}

bool write_ace(const std::string& path, const std::vector<read_plan>& reads,
               const std::vector<contig_model>& contigs) {
    sink out;
    if (!out.open(path)) {
        std::cerr << "make_dataset: cannot create " << path << '\n';
        return false;
    }
    std::size_t total = 0;
    for (const contig_model& c : contigs) total += c.reads.size();
    out.buffer += "AS ";
    out.number(contigs.size());
    out.buffer += ' ';
    out.number(total);
    out.buffer += "\n\n";

    read_content content;
    for (const contig_model& contig : contigs) {
        const std::vector<segment> segments = base_segments(contig, reads);
        const std::string_view consensus(contig.columns.data() + kLeftMargin,
                                         static_cast<std::size_t>(contig.length));
        out.buffer += "CO ";
        out.buffer += contig.name;
        out.buffer += ' ';
        out.number(contig.length);
        out.buffer += ' ';
        out.number(contig.reads.size());
        out.buffer += ' ';
        out.number(segments.size());
        out.buffer += " U\n";
        wrap(out, consensus);
        out.buffer += "\nBQ\n";
        // One quality per unpadded consensus base.
        stream q{contig.seed ^ kQualitySalt};
        std::size_t on_line = 0;
        for (char c : consensus) {
            if (c == '*') continue;
            out.buffer += ' ';
            out.number(20 + q.below(45));
            if (++on_line == kQualitiesPerLine) {
                out.buffer += '\n';
                on_line = 0;
            }
        }
        if (on_line != 0) out.buffer += '\n';
        out.buffer += '\n';
        for (std::uint32_t id : contig.reads) {
            out.buffer += "AF ";
            out.buffer += reads[id].name_view();
            out.buffer += reads[id].complemented ? " C " : " U ";
            out.number(reads[id].start);
            out.buffer += '\n';
        }
        for (const segment& s : segments) {
            out.buffer += "BS ";
            out.number(s.from);
            out.buffer += ' ';
            out.number(s.to);
            out.buffer += ' ';
            out.buffer += reads[s.read].name_view();
            out.buffer += '\n';
        }
        out.buffer += '\n';
        out.maybe_flush();

        for (std::uint32_t id : contig.reads) {
            const read_plan& r = reads[id];
            generate(r, &contig, false, content);
            const std::string_view name = r.name_view();
            out.buffer += "RD ";
            out.buffer += name;
            out.buffer += ' ';
            out.number(content.padded.size());
            out.buffer += " 0 0\n";
            wrap(out, content.padded);
            // The part before column 1 lies outside the alignment.
            out.buffer += "\nQA 1 ";
            out.number(content.padded.size());
            out.buffer += ' ';
            out.number(r.start <= 0 ? 2 - r.start : 1);
            out.buffer += ' ';
            out.number(content.padded.size());
            out.buffer += "\nDS CHROMAT_FILE: ";
            out.buffer += name;
            out.buffer += " PHD_FILE: ";
            out.buffer += name;
            out.buffer += ".phd.1 TIME: Mon Nov 23 10:00:00 2026\n\n";
            out.maybe_flush();
        }
    }
    if (!out.close()) {
        std::cerr << "make_dataset: cannot write " << path << '\n';
        return false;
    }
    return true;
}

void usage(std::ostream& out) {
    out << "usage: make_dataset --out DIR [--reads N] [--seed S] [--prefix NAME]\n"
           "  --out DIR      directory for NAME_a.sff, NAME_b.sff and NAME.ace (created)\n"
           "  --reads N      reads in the two SFF files together (default 200000)\n"
           "  --seed S       seed of the generator (default 1)\n"
           "  --prefix NAME  file name prefix (default run)\n";
}

bool parse_number(std::string_view text, std::uint64_t& value) {
    const char* end = text.data() + text.size();
    const auto res = std::from_chars(text.data(), end, value);
    return !text.empty() && res.ec == std::errc() && res.ptr == end;
}

// 0: run, 1: stop with success (help), 2: usage error.
int parse_options(int argc, char** argv, options& opt) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            usage(std::cout);
            return 1;
        }
        if (i + 1 == argc) {
            std::cerr << "make_dataset: "
                      << (arg.starts_with("--") ? "missing value for " : "unknown argument ") << arg
                      << '\n';
            return 2;
        }
        const std::string_view value = argv[++i];
        if (arg == "--reads") {
            if (!parse_number(value, opt.reads) || opt.reads > kMaxReads) {
                std::cerr << "make_dataset: --reads takes a number from 0 to " << kMaxReads << '\n';
                return 2;
            }
        } else if (arg == "--seed") {
            if (!parse_number(value, opt.seed)) {
                std::cerr << "make_dataset: --seed takes an unsigned number\n";
                return 2;
            }
        } else if (arg == "--out") {
            opt.out = value;
        } else if (arg == "--prefix") {
            opt.prefix = value;
        } else {
            std::cerr << "make_dataset: unknown argument " << arg << '\n';
            return 2;
        }
    }
    if (opt.out.empty()) {
        std::cerr << "make_dataset: --out is required\n";
        return 2;
    }
    if (opt.prefix.empty() || opt.prefix.find('/') != std::string::npos) {
        std::cerr << "make_dataset: --prefix must be a plain file name\n";
        return 2;
    }
    return 0;
}

// Names in the usual style: run prefix, two region digits, five base-36 characters.
// Region 01 reads go to the first SFF file, 02 to the second, 03 to neither.
struct name_maker {
    std::array<char, 7> run{};
    std::vector<bool> used = std::vector<bool>(36ull * 36 * 36 * 36 * 36);

    explicit name_maker(std::mt19937_64& rng) {
        static constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
        run[0] = letters[below(rng, 26)];
        run[1] = static_cast<char>('0' + below(rng, 10));
        for (std::size_t i = 2; i < run.size(); ++i) run[i] = letters[below(rng, 26)];
    }

    std::array<char, kNameLength> make(int region, std::mt19937_64& rng) {
        static constexpr std::string_view digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
        std::uint64_t v;
        do v = below(rng, used.size());
        while (used[v]);
        used[v] = true;
        std::array<char, kNameLength> name{};
        std::copy(run.begin(), run.end(), name.begin());
        name[7] = '0';
        name[8] = static_cast<char>('0' + region);
        for (std::size_t i = kNameLength; i-- > 9; v /= 36) name[i] = digits[v % 36];
        return name;
    }
};

}  // namespace

int main(int argc, char** argv) {
    options opt;
    if (const int rc = parse_options(argc, argv, opt); rc != 0) return rc == 1 ? 0 : 2;

    std::error_code ec;
    std::filesystem::create_directories(opt.out, ec);
    if (ec) {
        std::cerr << "make_dataset: cannot create directory " << opt.out << ": " << ec.message()
                  << '\n';
        return 1;
    }

    std::mt19937_64 rng(opt.seed);
    const std::string flows = fixture::tacg_flows(kFlows);
    const auto sff_reads = static_cast<std::uint32_t>(opt.reads);
    const std::uint32_t half = sff_reads / 2;
    const std::uint32_t assembly_only = (sff_reads + 50) / 100;
    const auto assembled = static_cast<std::uint32_t>((sff_reads * 9ull + 5) / 10);

    // Ids [0, half) are the first SFF file in file order, [half, N) the second, the rest the
    // reads that only the assembly knows.
    std::vector<read_plan> reads(sff_reads + assembly_only);
    name_maker names(rng);
    for (std::uint32_t id = 0; id < reads.size(); ++id) {
        reads[id].name = names.make(id < half ? 1 : id < sff_reads ? 2 : 3, rng);
        reads[id].seed = rng();
    }

    std::vector<std::uint32_t> members(sff_reads);
    for (std::uint32_t id = 0; id < sff_reads; ++id) members[id] = id;
    shuffle(members, rng);
    members.resize(assembled);
    for (std::uint32_t id = sff_reads; id < reads.size(); ++id) members.push_back(id);
    shuffle(members, rng);

    std::vector<contig_model> contigs;
    std::size_t taken = 0;
    for (std::size_t size : contig_sizes(members.size(), rng)) {
        contig_model& c = contigs.emplace_back();
        c.name = "Contig" + std::to_string(contigs.size());
        c.seed = rng();
        c.reads.assign(members.begin() + static_cast<std::ptrdiff_t>(taken),
                       members.begin() + static_cast<std::ptrdiff_t>(taken + size));
        taken += size;
    }
    read_content scratch;
    for (std::size_t i = 0; i < contigs.size(); ++i) {
        for (std::uint32_t id : contigs[i].reads) reads[id].contig = static_cast<std::int32_t>(i);
        build_contig(contigs[i], reads, flows, scratch);
    }
    for (read_plan& r : reads) {
        if (r.contig < 0) plan_read(r, nullptr, flows, scratch);
    }

    const std::string base = (std::filesystem::path(opt.out) / opt.prefix).string();
    if (!write_sff(base + "_a.sff", false, reads, 0, half, contigs, flows) ||
        !write_sff(base + "_b.sff", true, reads, half, sff_reads, contigs, flows) ||
        !write_ace(base + ".ace", reads, contigs)) {
        return 1;
    }
    std::cout << "make_dataset: " << base << "_a.sff (" << half << " reads, big-endian), " << base
              << "_b.sff (" << sff_reads - half << " reads, little-endian), " << base << ".ace ("
              << contigs.size() << " contigs, " << members.size() << " reads)\n";
    return 0;
}

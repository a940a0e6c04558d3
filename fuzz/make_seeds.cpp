// Writes the seed corpora of the fuzz targets:
//
//   fuzz_make_seeds OUT_DIR [DATASET_DIR PREFIX]
//
// into OUT_DIR/ace, OUT_DIR/sff, OUT_DIR/run, OUT_DIR/contig and OUT_DIR/bam. The seeds are small
// files that each reach a different part of a format: well-formed ones in both byte orders and ones
// that break a rule on purpose. DATASET_DIR, if given, holds PREFIX.ace, PREFIX_a.sff and
// PREFIX_b.sff from examples/make_dataset, which become realistic seeds too.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "sff_builder.h"

namespace {

namespace fs = std::filesystem;

std::string out_dir;

void emit(const std::string& target, const std::string& name, const std::string& bytes) {
    const fs::path dir = fs::path(out_dir) / target;
    fs::create_directories(dir);
    if (!fixture::write_file((dir / name).string(), bytes)) {
        std::cerr << "cannot write " << (dir / name).string() << "\n";
        std::exit(1);
    }
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::cerr << "cannot read " << path << "\n";
        std::exit(1);
    }
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string join_lines(const std::vector<std::string>& lines) {
    std::string out;
    for (const std::string& l : lines) out += l + "\n";
    return out;
}

// ---- ACE ----------------------------------------------------------------------------------

const std::vector<std::string> small_ace = {"AS 1 2",
                                            "",
                                            "CO ctg1 10 2 2 U",
                                            "ACGT*ACG",
                                            "TA",
                                            "",
                                            "BQ",
                                            "20 20 20 20 20 20 20 20 20",
                                            "",
                                            "AF r1 U 1",
                                            "AF r2 C 4",
                                            "BS 1 5 r1",
                                            "BS 6 10 r2",
                                            "",
                                            "RD r1 5 0 0",
                                            "ACGT*",
                                            "",
                                            "QA 1 5 1 5",
                                            "DS CHROMAT_FILE: r1",
                                            "",
                                            "RD r2 7 0 0",
                                            "T*ACGTA",
                                            "",
                                            "QA 1 7 2 7",
                                            "DS CHROMAT_FILE: r2",
                                            "",
                                            "CT{",
                                            "ctg1 comment x 1 1",
                                            "}"};

std::string contig_text(const std::string& name, const std::string& consensus,
                        const std::vector<std::tuple<std::string, char, int, std::string>>& reads,
                        const std::string& between_sections = "") {
    std::string out = "CO " + name + " " + std::to_string(consensus.size()) + " " +
                      std::to_string(reads.size()) + " 1 U\n" + consensus + "\n\n" +
                      between_sections + "BQ\n";
    for (std::size_t k = 0; k < consensus.size(); ++k) out += k == 0 ? "30" : " 30";
    out += "\n\n";
    for (const auto& [rname, dir, start, seq] : reads)
        out += "AF " + rname + " " + dir + " " + std::to_string(start) + "\n";
    out += "BS 1 " + std::to_string(consensus.size()) + " " + std::get<0>(reads.front()) + "\n\n";
    for (const auto& [rname, dir, start, seq] : reads) {
        out += "RD " + rname + " " + std::to_string(seq.size()) + " 0 0\n" + seq + "\n\n";
        out += "QA 1 " + std::to_string(seq.size()) + " 1 " + std::to_string(seq.size()) + "\n";
        out += "DS CHROMAT_FILE: " + rname + " PHD_FILE: " + rname + ".phd.1\n\n";
    }
    return out;
}

void ace_seeds() {
    const std::string small = join_lines(small_ace);
    emit("ace", "small.ace", small);
    emit("ace", "small_crlf.ace", [&] {
        std::string s;
        for (const std::string& l : small_ace) s += l + "\r\n";
        return s;
    }());

    const std::string c1 =
        contig_text("Contig1", "ACGTTGCA*AGGTCCA",
                    {{"r1", 'U', 1, "ACGTTGCA*A"}, {"r2", 'C', 5, "TGCA*AGGTCCA"}});
    const std::string c2 = contig_text("Contig2", "TTTTAAAACCCCGGGG",
                                       {{"s1", 'U', -3, "nnnTTTTAAAA"},
                                        {"s2", 'U', 9, "CCCCGGGGTTTT"},
                                        {"s3", 'C', 2, "tttaaaacc"}});
    emit("ace", "two_contigs.ace", "AS 2 5\n\n" + c1 + c2);
    emit("ace", "tag_blocks.ace",
         "\n  AS 2 5\n\nWA{\nphrap 1 2 3\n}\n\n" + c1 + "CT{\nContig1 repeat x 1 4\n}\n\n" +
             "RT{\nr1 matchElsewhere 1 2\n}\n\n" + c2 + "WA{\nlast\n}\n");
    emit("ace", "wrapped.ace",
         "AS 1 3\n\nCO c 30 3 1 C\nACGTACGTAC\nGTACGTACGT\nACGTACGTAC\n\nBQ\n30\n\n"
         "AF b C 11\nAF a U 1\nAF c U 25\nBS 1 30 a\n\nRD b 12 0 0\nGTAC\nGTAC\nGTAC\n\n\n\n"
         "QA 1 12 3 10\nnot a DS line\n\nRD c 8 0 0\nACGTNNNN\n\nQA 1 8 1 8\nDS x\n\n"
         "RD a 10 0 0\nacgtacgtac\n\nQA 1 10 1 10\nDS x\n");
    emit("ace", "zero_contigs.ace", "AS 0 0\n\nCO c 4 1 1 U\nACGT\n\n");
    emit("ace", "bad_numbers.ace",
         "AS two 99999999999\n\nCO c x -1 y U\nACGT\n\nBQ\n\nAF r U 99999999999\nBS\n\n"
         "RD r 70000 a b\nACGT\n\nQA x y z w\nDS\n");
    emit("ace", "no_contig_body.ace", "AS 1 1\n\nCO c 4 1 1 U\nACGT\n");
    // Rule breakers, each ending the reader at a different check.
    emit("ace", "not_ace.ace", "XS 1 1\n\nCO c 4 1 1 U\nACGT\n");
    emit("ace", "empty.ace", "");
    emit("ace", "unclosed_block.ace", "AS 1 1\n\nWA{\nnever closed\n");
    emit("ace", "missing_bq.ace", "AS 1 1\n\nCO c 4 1 1 U\nACGT\n\nAF r U 1\nBS 1 4 r\n\n");
    emit("ace", "missing_af.ace",
         "AS 1 1\n\nCO c 4 1 1 U\nACGT\n\nBQ\n1 1 1 1\n\nAF r U 1\nBS 1 4 r\n\n"
         "RD q 4 0 0\nACGT\n\nQA 1 4 1 4\nDS\n");
    emit("ace", "extra_af.ace",
         "AS 1 1\n\nCO c 4 1 1 U\nACGT\n\nBQ\n1 1 1 1\n\nAF r U 1\nAF s U 1\nBS 1 4 r\n\n");
}

// ---- SFF ----------------------------------------------------------------------------------

constexpr std::uint16_t seed_flows = 32;

fixture::sff_file_layout base_file(bool little) {
    fixture::sff_file_layout f;
    f.little_endian = little;
    f.number_of_flows_per_read = seed_flows;
    const std::string flows = fixture::tacg_flows(seed_flows);
    f.reads.push_back(fixture::make_read("r1", "TCAGACGTACG", flows, {}, 1));
    f.reads.push_back(fixture::make_read("r2", "TCAGTACGTAAC", flows, {}, 2));
    fixture::sff_read_layout& clipped =
        f.reads.emplace_back(fixture::make_read("r3", "TCAGGGTTACCA", flows, {}, 3));
    clipped.clip_qual_left = 5;
    clipped.clip_qual_right = 10;
    clipped.clip_adapter_right = 9;
    return f;
}

void sff_seeds() {
    emit("sff", "big_endian.sff", fixture::build_sff(base_file(false)));
    emit("sff", "little_endian.sff", fixture::build_sff(base_file(true)));

    fixture::sff_file_layout none = base_file(false);
    none.reads.clear();
    emit("sff", "no_reads.sff", fixture::build_sff(none));

    fixture::sff_file_layout twice = base_file(true);
    twice.reads[2].name = "r1";
    emit("sff", "same_name.sff", fixture::build_sff(twice));

    fixture::sff_file_layout short_count = base_file(false);
    short_count.number_of_reads = 5;
    emit("sff", "fewer_records.sff", fixture::build_sff(short_count));

    fixture::sff_file_layout indexed = base_file(false);
    const std::string body = fixture::build_sff(indexed);
    indexed.index_offset = body.size();
    indexed.index_length = 24;
    indexed.trailing_bytes = std::string(".mft1.00") + std::string(16, '\x01');
    emit("sff", "with_index.sff", fixture::build_sff(indexed));

    fixture::sff_file_layout odd = base_file(false);
    odd.reads[0].read_header_length = 8;  // below 16 + name
    odd.reads[1].clip_qual_left = 11;     // right of the right clip
    odd.reads[1].clip_qual_right = 4;
    odd.reads[2].flow_index_per_base[0] = 0;  // no flow for the first base
    odd.reads[2].name = std::string("r3\0x", 4);
    emit("sff", "odd_records.sff", fixture::build_sff(odd));

    fixture::sff_file_layout lying = base_file(true);
    lying.reads[0].number_of_bases = 60000;
    lying.reads[1].name_length = 200;
    emit("sff", "lying_counts.sff", fixture::build_sff(lying));

    const std::string good = fixture::build_sff(base_file(false));
    emit("sff", "cut_in_read.sff", good.substr(0, good.size() - 20));
    emit("sff", "ten_bytes.sff", good.substr(0, 10));
    std::string bad_magic = good;
    bad_magic[0] = 'X';
    emit("sff", "bad_magic.sff", bad_magic.substr(0, 64));
}

// ---- whole runs ---------------------------------------------------------------------------

std::string le32(std::size_t n) {
    std::string out;
    for (int k = 0; k < 4; ++k) out.push_back(static_cast<char>((n >> (8 * k)) & 0xFF));
    return out;
}

std::string frame(unsigned flags, const std::string& ace, const std::string& sff1,
                  const std::string& sff2 = "") {
    return std::string(1, static_cast<char>(flags)) + le32(ace.size()) + ace + le32(sff1.size()) +
           sff1 + sff2;
}

void run_seeds(const std::string& dataset, const std::string& prefix) {
    const std::string ace = join_lines(small_ace);
    const std::string be = fixture::build_sff(base_file(false));
    const std::string le = fixture::build_sff(base_file(true));
    emit("run", "plain", frame(0, ace, be));
    emit("run", "flows", frame(1, ace, le));
    emit("run", "two_files", frame(3, ace, be, le));
    emit("run", "same_file_twice", frame(1 | 2 | 4, ace, be));
    emit("run", "upper_ace_name", frame(8 | 1, ace, be));
    emit("run", "bak_name", frame(16, ace, le));
    emit("run", "bare_name", frame(24 | 3, ace, le, be));
    emit("run", "missing_reads",
         frame(1,
               "AS 1 2\n\n" +
                   contig_text("C", "ACGTACGT", {{"zz", 'U', 1, "ACGT"}, {"r1", 'U', 3, "GTAC"}}),
               be));
    emit("run", "bad_ace", frame(1, "AS 1 1\n\nCO c 4 1 1 U\nACGT\n\nAF r U 1\n", be));
    std::string bad_magic = be;
    bad_magic[1] = 'x';
    emit("run", "bad_sff", frame(2, ace, le, bad_magic));
    emit("run", "short_sff", frame(1, ace, be.substr(0, 12)));
    if (!dataset.empty()) {
        const std::string base = (fs::path(dataset) / prefix).string();
        const std::string d_ace = slurp(base + ".ace");
        const std::string d_a = slurp(base + "_a.sff");
        const std::string d_b = slurp(base + "_b.sff");
        emit("ace", "dataset.ace", d_ace);
        emit("sff", "dataset_be.sff", d_a);
        emit("sff", "dataset_le.sff", d_b);
        emit("run", "dataset", frame(3, d_ace, d_a, d_b));
    }
}

// ---- contigs ------------------------------------------------------------------------------

// Encodes values the way the fuzz target's FuzzedDataProvider takes them: integers are read
// from the end of the input, most significant byte first, one byte per 8 bits of the range.
class provider_input {
  public:
    void integral(std::int64_t value, std::int64_t lo, std::int64_t hi) {
        const auto range = static_cast<std::uint64_t>(hi - lo);
        const auto v = static_cast<std::uint64_t>(value - lo);
        int bytes = 0;
        while (bytes < 8 && (range >> (8 * bytes)) > 0) ++bytes;
        for (int k = bytes - 1; k >= 0; --k)
            taken_.push_back(static_cast<char>((v >> (8 * k)) & 0xFF));
    }
    void boolean(bool b) { integral(b ? 1 : 0, 0, 255); }
    void bases(const std::string& s) {
        static const std::string alphabet = "ACGTACGTACGTacgtNn**";
        for (char c : s) integral(static_cast<std::int64_t>(alphabet.find(c)), 0, 255);
    }
    std::string bytes() const { return {taken_.rbegin(), taken_.rend()}; }

  private:
    std::string taken_;
};

struct seed_read {
    int name;
    std::int32_t start;
    std::int16_t length;
    std::string seq;
};

// Mirrors the target's contig construction; `ops` follow as (operation, window) triples.
std::string contig_seed(const std::string& consensus, const std::vector<seed_read>& reads,
                        const std::vector<std::vector<std::int64_t>>& ops) {
    provider_input in;
    const auto L = static_cast<std::int64_t>(consensus.size());
    in.integral(L, 0, 300);
    in.bases(consensus);
    in.boolean(true);   // num_bases = consensus length
    in.boolean(false);  // complemented
    in.integral(static_cast<std::int64_t>(reads.size()), 0, 8);
    for (const seed_read& r : reads) {
        in.integral(r.name, 0, 9);
        in.integral(r.start, -50, 300);
        in.integral(r.length, -5, 400);
        const bool exact = static_cast<std::size_t>(r.length > 0 ? r.length : 0) == r.seq.size();
        in.boolean(exact);
        if (!exact) in.integral(static_cast<std::int64_t>(r.seq.size()), 0, 420);
        in.boolean(true);
        in.integral(1, -2, 420);
        in.integral(static_cast<std::int64_t>(r.seq.size()), -2, 420);
        in.bases(r.seq);
    }
    for (const auto& op : ops) {
        in.boolean(true);  // fresh outputs
        in.integral(op[0], 0, 15);
        if (op.size() >= 3) {
            in.integral(op[1], -10, L + 10);
            in.integral(op[2], 0, 300);
        }
        // HTML operations take a colour map: colour A and C, leave the rest.
        if (op[0] == 7 || op[0] == 8 || op[0] == 10 || op[0] == 12)
            for (int k = 0; k < 10; ++k) {
                in.boolean(k < 2);
                if (k < 2) in.integral(k, 0, 4);
            }
        if (op[0] == 15) in.boolean(true);  // copy-construct rather than assign
    }
    return in.bytes();
}

void contig_seeds() {
    const std::vector<std::vector<std::int64_t>> all_ops = {
        {1},         {3},        {5, 1, 20},  {6, 1, 20},  {7, 3, 10}, {8, -2, 40}, {9}, {10},
        {11, 1, 20}, {12, 5, 8}, {13, 1, 30}, {15, 1, 20}, {6, 40, 5}, {13, 30, 4}, {2}};
    emit("contig", "acgt",
         contig_seed("ACGT", {{0, 1, 4, "ACGT"}}, {{6, 1, 4}, {7, 1, 4}, {8, 1, 4}, {5, 1, 4}}));
    emit("contig", "homopolymers",
         contig_seed("AAC*GGGTTTACCA",
                     {{0, 1, 10, "AAC*GGGTTT"},
                      {1, 3, 12, "C*GGGTTTACCA"},
                      {2, 5, 6, "GGNTTT"},
                      {3, 2, 4, "AC*G"}},
                     all_ops));
    emit("contig", "outside",
         contig_seed("ACGTACGTAC",
                     {{0, -4, 8, "TTTTACGT"},
                      {1, 8, 9, "GTACGTACG"},
                      {2, 11, 3, "ACG"},
                      {3, 3, 0, ""},
                      {4, 4, 6, "CG"}},
                     all_ops));
    emit("contig", "mixed_case",
         contig_seed("*nACgt*AcNN",
                     {{0, 1, 11, "*nacGT*aCNN"},
                      {1, 1, 11, "NNACGT*ACGT"},
                      {0, 2, 30, std::string(40, 'a')}},
                     all_ops));
    emit("contig", "no_reads", contig_seed("ACGTACGT", {}, all_ops));
    emit("contig", "no_consensus", contig_seed("", {{0, 1, 5, "ACGTA"}}, all_ops));
    emit("contig", "long_reads",
         contig_seed(std::string(120, 'A') + std::string(120, 'C'),
                     {{0, 1, 300, std::string(150, 'A') + std::string(150, 'C')},
                      {1, 100, 140, std::string(21, 'A') + std::string(119, 'C')},
                      {2, 200, 100, std::string(100, 'c')}},
                     all_ops));
}

}  // namespace

// SAM records against fuzz_bam's reference r1, with their flows from fixture reads.
std::string sam_record(const std::string& name, int flag, int pos, const std::string& cigar,
                       const std::string& seq, bool flows) {
    std::string rc;
    for (auto it = seq.rbegin(); it != seq.rend(); ++it)
        rc += *it == 'A' ? 'T' : *it == 'C' ? 'G' : *it == 'G' ? 'C' : 'A';
    const std::string flow_chars = fixture::tacg_flows(52);
    const auto read = fixture::make_read(name, (flag & 16) != 0 ? rc : seq, flow_chars, {}, 3);
    std::string line = name + "\t" + std::to_string(flag) + "\tr1\t" + std::to_string(pos) +
                       "\t60\t" + cigar + "\t*\t0\t0\t" + seq + "\t*\tRG:Z:g";
    if (flows) {
        line += "\tFZ:B:S";
        for (std::uint16_t v : read.flowgram) line += "," + std::to_string(v);
        line += "\tZF:i:" + std::to_string(read.flow_index_per_base[0] - 1);
    }
    return line + "\n";
}

void bam_seeds() {
    const std::string r1 =
        "ACGTTTGACCAAAGGGTACGATTTTCAGCATGCAAACCCGTTAGGCATTTACGGAACTGACCCAATGGTTT";
    const std::string window = std::string("\x1f\x10\x00", 3);
    emit("bam", "placed",
         window + sam_record("a", 0, 1, "20M", r1.substr(0, 20), true) +
             sam_record("b", 16, 6, "3S10M2I8M1D5M",
                        "GGA" + r1.substr(5, 10) + "CC" + r1.substr(15, 8) + r1.substr(24, 5),
                        true) +
             sam_record("c", 0, 9, "15M", r1.substr(8, 15), false) +
             sam_record("d", 256, 12, "10M", r1.substr(11, 10), true));
    emit("bam", "own_header",
         window + "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:r2\tLN:60\n" +
             "@RG\tID:g\tFO:" + fixture::tacg_flows(52) + "\n" +
             "x\t0\tr2\t1\t60\t8M\t*\t0\t0\tTTTGGGCC\t*\tRG:Z:g\tFZ:B:S,0,0,100,0,0,0,100,0,0,0,0,"
             "1,0,0,2\n");
}

int main(int argc, char** argv) {
    if (argc != 2 && argc != 4) {
        std::cerr << "usage: fuzz_make_seeds OUT_DIR [DATASET_DIR PREFIX]\n";
        return 2;
    }
    out_dir = argv[1];
    ace_seeds();
    sff_seeds();
    run_seeds(argc == 4 ? argv[2] : "", argc == 4 ? argv[3] : "");
    contig_seeds();
    bam_seeds();
    return 0;
}

// Alignments read as contigs: pad columns and read placement, ties from FZ/ZF and from SFF
// files by name, the records passed over, windows that report each run once, and the inputs
// refused before anything is read.
#include <gtest/gtest.h>
#include <htslib/sam.h>
#include <sorvexa/alignment.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "sff_builder.h"

namespace {

using namespace fixture;
namespace fs = std::filesystem;

const std::string kFlows = tacg_flows(400);

std::string random_genome(std::size_t n, std::uint64_t seed) {
    splitmix64 rng{seed};
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += "ACGT"[rng.below(4)];
    return s;
}

// An aligned read: SEQ as stored, its flows (from a fixture SFF read of its original strand).
struct aligned {
    std::string name;
    int flag = 0;
    std::int64_t pos = 1;  // 1-based, as SAM writes it
    std::string cigar;
    std::string seq;
    int mapq = 60;
    bool flows = true;
    int zf_shift = 0;  // added to the true ZF
    sff_read_layout layout;
};

aligned make(const std::string& name, int flag, std::int64_t pos, const std::string& cigar,
             const std::string& seq, std::uint64_t seed = 1) {
    aligned a{name, flag, pos, cigar, seq, 60, true, 0, {}};
    const bool reverse = (flag & 16) != 0;
    a.layout = make_read(name, reverse ? reverse_complement(seq) : seq, kFlows, {}, seed);
    EXPECT_EQ(a.layout.bases.size(), seq.size()) << name;
    return a;
}

std::string sam_line(const aligned& a) {
    std::string line = a.name + "\t" + std::to_string(a.flag) + "\tref\t" + std::to_string(a.pos) +
                       "\t" + std::to_string(a.mapq) + "\t" + a.cigar + "\t*\t0\t0\t" + a.seq +
                       "\t*\tRG:Z:g";
    if (a.flows) {
        line += "\tFZ:B:S";
        for (std::uint16_t v : a.layout.flowgram) line += "," + std::to_string(v);
        line += "\tZF:i:" + std::to_string(a.layout.flow_index_per_base[0] - 1 + a.zf_shift);
    }
    return line + "\n";
}

struct alignment_files : ::testing::Test {
    fs::path dir;
    std::string genome = random_genome(600, 5);
    void SetUp() override {
        dir = fs::temp_directory_path() /
              ("sorvexa-aln-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
               "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir);
        write_text("ref.fa", ">ref\n" + genome + "\n");
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string path(const std::string& name) const { return (dir / name).string(); }
    void write_text(const std::string& name, const std::string& text) const {
        std::ofstream(path(name), std::ios::binary) << text;
    }
    std::string header(const std::string& rg = "@RG\tID:g\tFO:" + kFlows + "\tKS:TCAG\n",
                       const std::string& so = "coordinate") const {
        return "@HD\tVN:1.6\tSO:" + so + "\n@SQ\tSN:ref\tLN:" + std::to_string(genome.size()) +
               "\n" + rg;
    }
    // The records as BAM (sorted as given) with its index; the SAM text beside it.
    std::string bam(const std::vector<aligned>& reads, const std::string& head = "",
                    bool index = true) {
        std::string text = head.empty() ? header() : head;
        for (const aligned& a : reads) text += sam_line(a);
        write_text("in.sam", text);
        htsFile* in = hts_open(path("in.sam").c_str(), "r");
        htsFile* out = hts_open(path("in.bam").c_str(), "wb");
        sam_hdr_t* h = sam_hdr_read(in);
        EXPECT_EQ(sam_hdr_write(out, h), 0);
        bam1_t* b = bam_init1();
        while (sam_read1(in, h, b) >= 0) EXPECT_GE(sam_write1(out, h, b), 0);
        bam_destroy1(b);
        sam_hdr_destroy(h);
        hts_close(in);
        EXPECT_EQ(hts_close(out), 0);
        fs::remove(path("in.bam.bai"));
        if (index) {
            EXPECT_EQ(sam_index_build(path("in.bam").c_str(), 0), 0);
        }
        return path("in.bam");
    }
    aligned_window window(const std::string& file, const read_lookup* lookup = nullptr,
                          std::int32_t min_mapq = 0) {
        alignment_file f;
        f.options.min_mapq = min_mapq;
        const sorvexa::status st = f.open(file, path("ref.fa"), lookup);
        EXPECT_TRUE(st) << st.message;
        aligned_window w;
        if (st) {
            EXPECT_TRUE(f.read({0, 0, static_cast<std::int64_t>(genome.size()), 0}, w));
        }
        return w;
    }
    std::string open_error(const std::string& file, const std::string& ref = "ref.fa",
                           const read_lookup* lookup = nullptr) {
        alignment_file f;
        const sorvexa::status st = f.open(file, ref.empty() ? "" : path(ref), lookup);
        return st ? "" : st.message;
    }
};

std::string text(const std::vector<char>& v) {
    return std::string(v.begin(), v.end());
}

// The SFF flow of each base of a fixture read (its own strand).
std::vector<std::int32_t> sff_flows(const sff_read_layout& r) {
    std::vector<std::int32_t> out;
    std::int32_t f = -1;
    for (std::uint8_t step : r.flow_index_per_base) out.push_back(f += step);
    return out;
}

TEST_F(alignment_files, InsertionsBecomePadColumnsAndReadsKeepTheirPadsClipsAndStrand) {
    // a: 40 bases from 101 with "GT" inserted after its 20th; b: 40 bases from 111 with 3
    // deleted after its 10th; c (reverse): 4 soft-clipped bases, 30 aligned from 116, 2 more.
    const std::string a_seq = genome.substr(100, 20) + "GT" + genome.substr(120, 20);
    const std::string b_seq = genome.substr(110, 10) + genome.substr(123, 30);
    const std::string c_seq = "ACGT" + genome.substr(115, 30) + "TT";
    const std::string file =
        bam({make("a", 0, 101, "20M2I20M", a_seq), make("b", 0, 111, "10M3D30M", b_seq, 2),
             make("c", 16, 116, "4S30M2S", c_seq, 3)});
    const aligned_window w = window(file);
    const contig& c = w.c;
    ASSERT_EQ(c.reads.size(), 3u);
    // Two pad columns before reference base 121 (column 121 + 2 = 123).
    EXPECT_EQ(text(c.consensus), genome.substr(0, 120) + "**" + genome.substr(120));
    const READ& a = c.reads.at("a");
    EXPECT_EQ(a.start, 101);
    EXPECT_EQ(text(a.sequence), a_seq);
    EXPECT_EQ(a.uncomplemented, 1);
    const READ& b = c.reads.at("b");
    EXPECT_EQ(b.start, 111);
    EXPECT_EQ(text(b.sequence), genome.substr(110, 10) + "**" + "***" + genome.substr(123, 30));
    const READ& r = c.reads.at("c");
    EXPECT_EQ(r.uncomplemented, 0);
    EXPECT_EQ(r.start, 116 - 4);  // the clipped bases just before the first aligned one
    EXPECT_EQ(text(r.sequence),
              "ACGT" + genome.substr(115, 5) + "**" + genome.substr(120, 25) + "TT");
    EXPECT_EQ(r.align_clip_start, 5);
    EXPECT_EQ(r.align_clip_end, 4 + 32);

    // Every aligned base carries the flow its SFF record gives it; clipped bases and pads none.
    ASSERT_EQ(w.counts.tied, 3);
    const std::vector<std::int32_t> fa = sff_flows(make("a", 0, 101, "", a_seq).layout);
    EXPECT_EQ(w.tied.at("a").base_flow, fa);
    const tied_read& tc = w.tied.at("c");
    EXPECT_TRUE(tc.complemented);
    const std::vector<std::int32_t> fc = sff_flows(make("c", 16, 116, "", c_seq, 3).layout);
    for (int k : {0, 3, 36, 37}) EXPECT_EQ(tc.base_flow[static_cast<std::size_t>(k)], -1) << k;
    EXPECT_EQ(tc.base_flow[9], -1);  // a pad
    // Padded base 4 is SEQ base 4, the original strand's base 35 - 4 = 31.
    EXPECT_EQ(tc.base_flow[4], fc[31]);
    EXPECT_EQ(tc.base_flow[36 - 1], fc[2]);

    // The views take the window as they take an ACE contig: a flow window over the insertion
    // has every read's values, none untied.
    contig v = w.c;
    v.create_pos_map();
    v.create_print_map();
    v.create_flow_concensus();
    flow_check check;
    check.check_tied(v, {}, {});
    flow_window fw;
    window_signals(v, w.tied, check, 115, 20, fw);
    ASSERT_EQ(fw.rows.size(), 3u);
    for (const auto& flow : fw.signals)
        for (std::int32_t s : flow) EXPECT_NE(s, flow_window::untied_read);
}

TEST_F(alignment_files, ReadsWithoutTrueFlowsAreCountedAndTheRestTiedByName) {
    aligned wrong = make("wrong_zf", 0, 201, "50M", genome.substr(200, 50), 4);
    wrong.zf_shift = 1;  // a flow that offers another letter
    aligned bare = make("bare", 0, 301, "50M", genome.substr(300, 50), 5);
    bare.flows = false;
    aligned by_name = make("by_name", 16, 311, "50M", genome.substr(310, 50), 6);
    by_name.flows = false;
    // Hard-clipped: tied by the bases it still has, ZF naming the flow of the first of them.
    const aligned hard = make("hard", 0, 401, "5H40M", genome.substr(400, 40), 7);
    const std::string file = bam({wrong, bare, by_name, hard});
    aligned_window w = window(file);
    EXPECT_EQ(w.tied.at("hard").base_flow, sff_flows(hard.layout));
    EXPECT_EQ(w.counts.tied, 1);
    EXPECT_EQ(w.counts.untied, 1);
    EXPECT_EQ(w.counts.not_found, 2);
    EXPECT_EQ(w.c.reads.size(), 4u);  // placed, tied or not

    // by_name's SFF record holds the key and the read on its own strand.
    sff_file_layout f;
    f.flow_chars = kFlows;
    f.reads.push_back(
        make_read("by_name", "TCAG" + reverse_complement(by_name.seq), kFlows, {}, 6));
    ASSERT_TRUE(write_file(path("r.sff"), build_sff(f)));
    read_lookup lookup;
    ASSERT_TRUE(lookup.index_files({path("r.sff")}));
    w = window(file, &lookup);
    EXPECT_EQ(w.counts.tied, 2);
    EXPECT_EQ(w.counts.not_found, 1);
    const tied_read& t = w.tied.at("by_name");
    EXPECT_EQ(t.file, 0);
    EXPECT_TRUE(t.complemented);
    const std::vector<std::int32_t> flows = sff_flows(f.reads[0]);
    EXPECT_EQ(t.base_flow.front(), flows.back());
    EXPECT_EQ(t.base_flow.back(), flows[4]);  // the first base after the key
}

TEST_F(alignment_files, SecondarySupplementaryUnmappedDuplicateFailedAndLowQualityArePassedOver) {
    std::vector<aligned> reads;
    const int flags[] = {0, 256, 2048, 4, 1024, 512};
    for (int k = 0; k < 6; ++k)
        reads.push_back(make("r" + std::to_string(k), flags[k], 101 + k, "40M",
                             genome.substr(100 + static_cast<std::size_t>(k), 40),
                             static_cast<std::uint64_t>(k)));
    reads.push_back(make("low", 0, 120, "40M", genome.substr(119, 40), 9));
    reads.back().mapq = 5;
    const std::string file = bam(reads);
    aligned_window w = window(file);
    EXPECT_EQ(w.c.reads.size(), 2u);
    EXPECT_EQ(w.c.reads.count("r0"), 1u);
    w = window(file, nullptr, 10);
    EXPECT_EQ(w.c.reads.size(), 1u);
    EXPECT_EQ(w.counts.tied, 1);
}

// Windows of any size, with margins longer than the reads, report the same runs as one
// window over the whole reference, each once, at the same reference positions.
TEST_F(alignment_files, WindowsReportEveryRunOnceWithPositionsOnTheReference) {
    std::vector<aligned> reads;
    splitmix64 rng{11};
    for (int k = 0; k < 120; ++k) {
        const std::int64_t at = rng.below(520);
        const bool reverse = rng.chance(1, 2);
        std::string seq = genome.substr(static_cast<std::size_t>(at), 60);
        // Every read reads the homopolymer at 300..: one base more than the reference.
        std::string cigar = "60M";
        if (at < 299 && at + 59 > 303) {
            seq = genome.substr(static_cast<std::size_t>(at), 300 - static_cast<std::size_t>(at)) +
                  genome[300] + genome.substr(300, static_cast<std::size_t>(at) + 59 - 300);
            cigar = std::to_string(300 - at) + "M1I" + std::to_string(at + 59 - 300) + "M";
        }
        reads.push_back(make("r" + std::to_string(k), reverse ? 16 : 0, at + 1, cigar, seq,
                             static_cast<std::uint64_t>(k)));
    }
    std::sort(reads.begin(), reads.end(),
              [](const aligned& x, const aligned& y) { return x.pos < y.pos; });
    const std::string file = bam(reads);
    alignment_file f;
    ASSERT_TRUE(f.open(file, path("ref.fa"), nullptr));
    auto run = [&](std::int64_t size, std::int64_t margin) {
        flow_check check;
        contig_report whole;
        for (const alignment_window& at : alignment_windows(0, 600, size, margin)) {
            aligned_window w;
            EXPECT_TRUE(f.read(at, w));
            check_window(check, w, true, whole);
        }
        EXPECT_TRUE(finish_reference(f, 0, whole));
        std::string out;
        append_tsv_report(out, whole);
        append_vcf_records(out, whole);
        return std::make_pair(out, whole);
    };
    const auto [one, whole] = run(600, 0);
    EXPECT_EQ(whole.coverage.reads.tied, 120);
    EXPECT_GT(whole.coverage.tested, 100);
    EXPECT_EQ(whole.unpadded, genome);
    ASSERT_EQ(whole.edits.size(), 1u) << one;  // the planted run, at its reference position
    std::int64_t first = 300;
    while (genome[static_cast<std::size_t>(first - 1)] == genome[300]) --first;
    EXPECT_EQ(whole.edits[0].begin, first);
    EXPECT_EQ(whole.polished.size(), genome.size() + 1);
    for (std::int64_t size : {37, 100, 299}) EXPECT_EQ(run(size, 80).first, one) << size;
}

TEST_F(alignment_files, InputsThatCannotServeAreRefusedWithOneLineSayingWhy) {
    const std::vector<aligned> reads{make("a", 0, 101, "40M", genome.substr(100, 40))};
    std::string file = bam(reads, header("@RG\tID:g\tFO:" + kFlows + "\n", "unsorted"));
    EXPECT_EQ(open_error(file), file +
                                    " is not sorted by coordinate (samtools sort -o sorted.bam " +
                                    file + ", then samtools index sorted.bam)");
    file = bam(reads, "", false);
    EXPECT_EQ(open_error(file),
              file + " has no index (make one with: samtools index " + file + ")");
    file = bam(reads);
    EXPECT_EQ(open_error(file, ""), "no reference FASTA given for " + file + " (--ref)");
    write_text("short.fa", ">ref\n" + genome.substr(1) + "\n");
    EXPECT_EQ(
        open_error(file, "short.fa"),
        path("short.fa") + ": sequence ref has 599 bases, the header of " + file + " says 600");
    write_text("other.fa", ">other\n" + genome + "\n");
    EXPECT_EQ(open_error(file, "other.fa"),
              path("other.fa") + " has no sequence ref, which " + file + " aligns reads to");
    file = bam(reads, header("@RG\tID:g\tKS:TCAG\n"));
    EXPECT_EQ(open_error(file), file +
                                    ": read group g has no flow order (FO), and no SFF file is "
                                    "given to tie its reads");

    // CRAM: written against the reference, then opened without one.
    bam(reads);
    htsFile* in = hts_open(path("in.bam").c_str(), "r");
    htsFile* out = hts_open(path("in.cram").c_str(), "wc");
    ASSERT_EQ(hts_set_fai_filename(out, path("ref.fa").c_str()), 0);
    sam_hdr_t* h = sam_hdr_read(in);
    ASSERT_EQ(sam_hdr_write(out, h), 0);
    bam1_t* b = bam_init1();
    while (sam_read1(in, h, b) >= 0) ASSERT_GE(sam_write1(out, h, b), 0);
    bam_destroy1(b);
    sam_hdr_destroy(h);
    hts_close(in);
    ASSERT_EQ(hts_close(out), 0);
    ASSERT_EQ(sam_index_build(path("in.cram").c_str(), 0), 0);
    EXPECT_EQ(open_error(path("in.cram"), ""),
              path("in.cram") + " is CRAM: its reference FASTA has to be given (--ref)");
    EXPECT_EQ(open_error(path("in.cram")), "");
}

}  // namespace

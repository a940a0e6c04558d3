// sorvexa-browse --bam: the references of an indexed BAM as contigs, every window read through
// the index when asked for. On a genome covered by reads that carry their flows in FZ/ZF: each
// view's page and its bad requests, the pad columns of an insertion between reference
// positions, the model and the search that come from the background, windows built by many
// threads at once, and the start-up errors of the program.

#include <gtest/gtest.h>
#include <htslib/sam.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "run_tool.h"
#include "sff_builder.h"
#include "site.h"

namespace {

using namespace fixture;

const std::string kFlows = tacg_flows(800);
constexpr std::size_t kGenome = 4000, kRead = 200, kStep = 25;

bool has(const std::string& s, const std::string& part) {
    return s.find(part) != std::string::npos;
}

// Reads every kStep bases, every other one complemented, each SAM line with its flows; read
// r010 holds two bases the reference lacks after its 100th.
struct aligned_genome {
    temp_dir dir;
    std::string genome, bam = dir / "aln.bam", ref = dir / "ref.fa";
    aligned_genome() {
        splitmix64 rng{11};
        for (std::size_t i = 0; i < kGenome; ++i) genome += "ACGT"[rng.below(4)];
        write_file(ref, ">ref\n" + genome + "\n");
        std::string sam = "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:ref\tLN:" + std::to_string(kGenome) +
                          "\n@RG\tID:g\tFO:" + kFlows + "\tKS:TCAG\n";
        for (std::size_t pos = 0, k = 0; pos + kRead <= kGenome; pos += kStep, ++k) {
            char name[8];
            std::snprintf(name, sizeof name, "r%03zu", k);
            std::string seq = genome.substr(pos, kRead), cigar = std::to_string(kRead) + "M";
            if (k == 10) seq.insert(100, "CC"), cigar = "100M2I100M";
            const bool reverse = k % 2 == 1;
            const sff_read_layout r =
                make_read(name, reverse ? reverse_complement(seq) : seq, kFlows, {}, k + 1);
            EXPECT_EQ(r.bases.size(), seq.size()) << name;
            sam += std::string(name) + "\t" + (reverse ? "16" : "0") + "\tref\t" +
                   std::to_string(pos + 1) + "\t60\t" + cigar + "\t*\t0\t0\t" + seq +
                   "\t*\tRG:Z:g\tFZ:B:S";
            for (std::uint16_t v : r.flowgram) sam += "," + std::to_string(v);
            sam += "\tZF:i:" + std::to_string(r.flow_index_per_base[0] - 1) + "\n";
        }
        write_file(dir / "aln.sam", sam);
        htsFile* in = hts_open((dir / "aln.sam").c_str(), "r");
        htsFile* out = hts_open(bam.c_str(), "wb");
        sam_hdr_t* h = sam_hdr_read(in);
        EXPECT_EQ(sam_hdr_write(out, h), 0);
        bam1_t* b = bam_init1();
        while (sam_read1(in, h, b) >= 0) EXPECT_GE(sam_write1(out, h, b), 0);
        bam_destroy1(b);
        sam_hdr_destroy(h);
        hts_close(in);
        EXPECT_EQ(hts_close(out), 0);
        EXPECT_EQ(sam_index_build(bam.c_str(), 0), 0);
    }
};

struct served {
    aligned_genome g;
    browse::read_source sff;
    browse::assembly none;
    browse::alignment_source bam;
    browse::site site{none, sff};
    served() {
        bam.bam_path = g.bam;
        bam.ref_path = g.ref;
        const sorvexa::status st = bam.files.open(g.bam, g.ref, &sff.lookup);
        EXPECT_TRUE(st) << st.message;
        site.bam = &bam;
    }
    browse::response get(std::string path,
                         std::vector<std::pair<std::string, std::string>> params = {}) const {
        return site.serve({std::move(path), std::move(params)});
    }
    void fixed_model() {
        flow_check check;
        check.models.set_fixed(check.model, 1);
        bam.survey.use_models(std::move(check.models), "fixed");
    }
};

TEST(BrowseBam, WindowsInPositionsWithCountsSignalsAndDifferences) {
    served s;
    const browse::response overview = s.get("/");
    EXPECT_EQ(overview.status, 200);
    EXPECT_TRUE(has(overview.body, "href=\"/contig/ref\"")) << overview.body;
    EXPECT_TRUE(has(overview.body, "4,000"));

    // Before any model: the counts, and a note that the signals come once it is fitted.
    browse::response w = s.get("/contig/ref", {{"from", "1001"}, {"width", "200"}});
    ASSERT_EQ(w.status, 200) << w.body;
    EXPECT_TRUE(has(w.body, "positions 1,001 to 1,200"));
    EXPECT_TRUE(has(w.body, "/read/r040")) << "the read starting at 1,001";
    EXPECT_TRUE(has(w.body, "still being fitted"));
    EXPECT_TRUE(has(w.body, "from=1001&amp;width=200&amp;view=signals&amp;diff=0"))
        << "the toggles keep the window";

    s.fixed_model();
    w = s.get("/contig/ref", {{"from", "1001"}, {"width", "200"}, {"view", "signals"}});
    ASSERT_EQ(w.status, 200);
    EXPECT_FALSE(has(w.body, "still being fitted"));
    EXPECT_TRUE(has(w.body, "sig-close")) << "reads tied from FZ give values";
    EXPECT_FALSE(has(w.body, "  u")) << "no drawn read is untied";
    const browse::response d =
        s.get("/contig/ref", {{"from", "1001"}, {"width", "200"}, {"diff", "1"}});
    EXPECT_TRUE(has(d.body, "....")) << "bases equal to the reference drawn as dots";

    // r010's insertion after position 350: 100 positions drawn as 102 columns, the ruler in
    // reference positions on either side of the pads.
    const browse::response ins = s.get("/contig/ref", {{"from", "301"}, {"width", "100"}});
    EXPECT_TRUE(has(ins.body, "102 (pads")) << ins.body.substr(0, 600);
    EXPECT_TRUE(has(ins.body, "400"));
    EXPECT_TRUE(has(ins.body, "ruler\">        10        20")) << "columns of the window";

    const browse::response end = s.get("/contig/ref", {{"from", "3950"}, {"width", "100"}});
    EXPECT_EQ(end.status, 200);
    EXPECT_TRUE(has(end.body, "positions 3,950 to 4,000")) << "cut at the reference's end";
}

TEST(BrowseBam, BadRequestsAndUnknownNames) {
    served s;
    for (auto [key, value] : std::vector<std::pair<std::string, std::string>>{{"from", "0"},
                                                                              {"from", "4001"},
                                                                              {"from", "x"},
                                                                              {"width", "2001"},
                                                                              {"view", "bases"},
                                                                              {"diff", "2"},
                                                                              {"rows", "99"}})
        EXPECT_EQ(s.get("/contig/ref", {{key, value}}).status, 400) << key << "=" << value;
    EXPECT_EQ(s.get("/contig/chr9").status, 404);
    EXPECT_EQ(s.get("/contig/ref.txt").status, 404);
    EXPECT_EQ(s.get("/read/nobody").status, 404);
}

TEST(BrowseBam, ModelNamesAndDisputedRunsFromTheBackground) {
    served s;
    // Before the names are gathered a search says so, rather than that nothing is found.
    EXPECT_TRUE(has(s.get("/search", {{"q", "r04"}}).body, "still being gathered"));
    s.bam.survey.start();
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!(s.bam.survey.names_ready() && s.bam.survey.disputed(0)) &&
           std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(s.bam.survey.names_ready() && s.bam.survey.disputed(0));
    EXPECT_NE(s.bam.survey.models(), nullptr);

    const browse::response found = s.get("/search", {{"q", "r04"}});
    EXPECT_EQ(found.status, 200);
    for (const char* name : {"r040", "r049"}) EXPECT_TRUE(has(found.body, name)) << name;
    EXPECT_FALSE(has(found.body, "r050"));
    EXPECT_EQ(s.get("/search", {{"q", "zz"}}).status, 404);
    const browse::response read = s.get("/read/r040");
    EXPECT_EQ(read.status, 200);
    EXPECT_TRUE(has(read.body, "ref at 1,001")) << read.body;
    EXPECT_TRUE(has(read.body, "<svg class=\"flowgram\"")) << "no SFF file: the flows of FZ";
    EXPECT_FALSE(has(s.get("/").body, "<td>...</td>")) << "every reference counted";
    EXPECT_TRUE(has(s.get("/contig/ref").body, "Disputed runs"));
    // A run page by reference position (where a base differs from the one before it): every
    // read over it plotted.
    std::size_t p = 1500;
    while (s.g.genome[p - 1] == s.g.genome[p - 2]) ++p;
    const browse::response run = s.get("/contig/ref/run/" + std::to_string(p));
    ASSERT_EQ(run.status, 200) << run.body;
    EXPECT_TRUE(has(run.body, "Run at column " + std::to_string(p)));
    EXPECT_TRUE(has(run.body, "<svg class=\"run-plot\""));
    EXPECT_TRUE(has(run.body, "<circle"));
    if (s.g.genome[p] != s.g.genome[p - 1]) {  // a run of one base: the next one starts after
        EXPECT_EQ(s.get("/contig/ref/run/" + std::to_string(p + 1)).status, 200);
    }
    EXPECT_EQ(s.get("/contig/ref/run/0").status, 400);
    EXPECT_EQ(s.get("/contig/ref/run/x").status, 400);
}

TEST(BrowseBam, ManyThreadsBuildWindowsAtOnce) {
    served s;
    s.fixed_model();
    std::vector<std::thread> clients;
    std::vector<int> failed(8, 0);
    for (int t = 0; t < 8; ++t)
        clients.emplace_back([&, t] {
            for (int k = 0; k < 6; ++k) {
                const std::string from = std::to_string(1 + (t * 6 + k) * 73 % 3500);
                if (s.get("/contig/ref", {{"from", from}, {"width", "300"}, {"view", "signals"}})
                        .status != 200)
                    ++failed[static_cast<std::size_t>(t)];
            }
        });
    for (std::thread& c : clients) c.join();
    for (int f : failed) EXPECT_EQ(f, 0);
}

TEST(BrowseBam, StartUpRefusesAlignmentsItCanNotServe) {
    aligned_genome g;
    run_result r = run_binary(SORVEXA_BROWSE_BIN, {"--bam", g.bam}, g.dir.path);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "--bam needs --ref")) << r.err;
    std::remove((g.bam + ".bai").c_str());
    r = run_binary(SORVEXA_BROWSE_BIN, {"--port", "0", "--bam", g.bam, "--ref", g.ref}, g.dir.path);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "has no index")) << r.err;
}

}  // namespace

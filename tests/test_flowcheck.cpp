// Flow-signal evidence: reads tied to their flows, the signals each homopolymer run gets,
// the length call and its score, the VCF and FASTA texts, and the program's command line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ace_writer.h"
#include "contig_builder.h"
#include <sorvexa/flowcheck.h>
#include "run_tool.h"
#include "sff_builder.h"

namespace {

using namespace fixture;

const std::string kFlows = tacg_flows(64);

// An SFF record calling "TCAG" + `bases` with every run in the next flow of its letter; each
// called flow measures 100 per base, every other flow 5, except where `values` says.
sff_read record(const std::string& bases, const std::map<int, std::uint16_t>& values = {},
                std::uint16_t clip_left = 5) {
    const sff_read_layout layout = make_read("r", "TCAG" + bases, kFlows, {}, 1);
    sff_read r;
    r.number_of_bases = static_cast<std::uint32_t>(layout.bases.size());
    r.numOfFlows = static_cast<std::uint16_t>(kFlows.size());
    r.clip_qual_left = clip_left;
    r.bases.assign(layout.bases.begin(), layout.bases.end());
    r.flow_index_per_base = layout.flow_index_per_base;
    r.quality_scores.assign(r.bases.size(), 30);
    r.flowgram_values.assign(kFlows.size(), 5);
    int flow = -1;
    for (std::uint8_t step : r.flow_index_per_base) {
        flow += step;
        if (step > 0) r.flowgram_values[static_cast<std::size_t>(flow)] = 0;
        r.flowgram_values[static_cast<std::size_t>(flow)] += 100;
    }
    for (auto [f, v] : values) r.flowgram_values[static_cast<std::size_t>(f)] = v;
    return r;
}

READ placed(const std::string& sequence, std::int32_t start = 1, bool complemented = false) {
    READ r;
    r.start = start;
    r.length = static_cast<std::int16_t>(sequence.size());
    r.sequence = chars(sequence);
    r.uncomplemented = complemented ? 0 : 1;
    return r;
}

TEST(Tie, ReadsFindTheirFlowsInBothOrientationsIgnoringCaseAndPads) {
    // Flows T0 A1 C2 G3 T4 A5 C6 G7 T8 A9 C10 G11 T12 A13 C14 G15 T16 A17; the key takes
    // T0 C2 A5 G7.
    tied_read t;
    ASSERT_TRUE(tie_read(placed("ACGTTTCA"), record("ACGTTTCA"), kFlows, t));
    EXPECT_EQ(t.base_flow, (std::vector<std::int32_t>{9, 10, 11, 12, 12, 12, 14, 17}));
    EXPECT_FALSE(t.complemented);

    // Sequenced as TGAAACGT (T8 G11 AAA13 C14 G15 T16), shown turned to the contig.
    ASSERT_TRUE(
        tie_read(placed("ACGTTTCA", 1, true), record(reverse_complement("ACGTTTCA")), kFlows, t));
    EXPECT_EQ(t.base_flow, (std::vector<std::int32_t>{16, 15, 14, 13, 13, 13, 11, 8}));
    EXPECT_TRUE(t.complemented);

    ASSERT_TRUE(tie_read(placed("acg*TTtca"), record("ACGTTTCA"), kFlows, t));
    EXPECT_EQ(t.base_flow, (std::vector<std::int32_t>{9, 10, 11, -1, 12, 12, 12, 14, 17}));
}

TEST(Tie, EditedReadsStayUntiedAndTheKeptOccurrenceWins) {
    tied_read t;
    EXPECT_FALSE(tie_read(placed("ACGTTCA"), record("ACGTTTCA"), kFlows, t));
    EXPECT_FALSE(tie_read(placed("***"), record("ACGTTTCA"), kFlows, t));
    // ACGT stands twice among the called bases; the kept range starts at the second.
    // Called A9 C10 G11 T12 GGG15 A17 C18 G19 T20.
    ASSERT_TRUE(tie_read(placed("ACGT"), record("ACGTGGGACGT", {}, 12), kFlows, t));
    EXPECT_EQ(t.base_flow, (std::vector<std::int32_t>{17, 18, 19, 20}));
    ASSERT_TRUE(tie_read(placed("ACGT"), record("ACGTGGGACGT", {}, 5), kFlows, t));
    EXPECT_EQ(t.base_flow.front(), 9);
    // The kept range starts inside the second ACGT (at its G19): that one still wins over the
    // first.
    ASSERT_TRUE(tie_read(placed("ACGT"), record("ACGTGGGACGTTT", {}, 14), kFlows, t));
    EXPECT_EQ(t.base_flow, (std::vector<std::int32_t>{17, 18, 19, 20}));
    // ACAC stands at A9 and, sharing its last two bases, at A13; the kept range starts at
    // A17, which only the second reaches.
    ASSERT_TRUE(tie_read(placed("ACAC"), record("ACACACGT", {}, 9), kFlows, t));
    EXPECT_EQ(t.base_flow, (std::vector<std::int32_t>{13, 14, 17, 18}));
    // Wholly before the kept range: tied there all the same.
    ASSERT_TRUE(tie_read(placed("TTT"), record("TTTACGT", {}, 9), kFlows, t));
    EXPECT_EQ(t.base_flow, (std::vector<std::int32_t>{8, 8, 8}));
}

// A contig whose reads are tied to the given records; min_signals 1 so that every signal
// counts.
struct checked {
    contig c;
    flow_check check;
    std::map<std::string, tied_read> tied;
};

checked check_contig(const std::string& consensus,
                     const std::vector<std::pair<READ, sff_read>>& reads) {
    checked k;
    k.c = make_contig(consensus);
    for (std::size_t i = 0; i < reads.size(); ++i) {
        READ r = reads[i].first;
        r.name = "r" + std::to_string(i);
        k.c.reads[r.name] = r;
    }
    k.check.min_signals = 1;
    k.check.keep_signals = true;
    k.check.create_runs(k.c);
    std::int32_t n = 0;
    for (std::size_t i = 0; i < reads.size(); ++i) {
        tied_read t;
        const READ& r = k.c.reads["r" + std::to_string(i)];
        if (!tie_read(r, reads[i].second, kFlows, t)) continue;
        k.check.add_read(k.c, r, t, n++);
        k.tied[r.name] = t;
    }
    k.check.call_runs();
    return k;
}

const hp_run& run_at(const checked& k, std::int32_t column, char letter) {
    for (const hp_run& r : k.check.runs)
        if (r.column == column && r.letter == letter) return r;
    static const hp_run none{};
    ADD_FAILURE() << "no run " << letter << " at column " << column;
    return none;
}

std::vector<std::uint16_t> values_of(const checked& k, const hp_run& run) {
    std::vector<std::uint16_t> v;
    for (const run_signal& s : k.check.signals)
        if (&k.check.runs[static_cast<std::size_t>(s.run)] == &run) v.push_back(s.value);
    return v;
}

TEST(Signals, ARunGetsTheFlowOfItsBasesOrTheFlowBetweenItsNeighbours) {
    // The T run is measured 3.10 by a read that calls it whole, 1.90 by one that under-calls
    // it by one, 0.40 (flow T12 between G11 and C14) by one that under-calls it to 0, 2.90 in
    // flow A13 by a complemented read, and 0.70 by a complemented read that under-calls it to
    // 0: in A13 between its C14 and G11, not in the T12 that lies there too.
    const checked k = check_contig(
        "ACGTTTCA",
        {{placed("ACGTTTCA"), record("ACGTTTCA", {{12, 310}})},
         {placed("ACG*TTCA"), record("ACGTTCA", {{12, 190}})},
         {placed("ACG***CA"), record("ACGCA", {{12, 40}})},
         {placed("ACGTTTCA", 1, true), record(reverse_complement("ACGTTTCA"), {{13, 290}})},
         {placed("ACG***CA", 1, true), record(reverse_complement("ACGCA"), {{13, 70}})}});
    const hp_run& t = run_at(k, 4, 'T');
    EXPECT_EQ(t.first_column, 4);
    EXPECT_EQ(t.last_column, 6);
    EXPECT_EQ(t.consensus_length, 3);
    EXPECT_EQ(values_of(k, t), (std::vector<std::uint16_t>{310, 190, 40, 290, 70}));
    EXPECT_EQ(t.forward, 3);
    EXPECT_EQ(t.reverse(), 2);
    EXPECT_NEAR(t.mean_signal(), 1.8, 1e-9);
    // The first and last runs have no base before or after them: never weighed.
    EXPECT_EQ(run_at(k, 1, 'A').signals, 0);
    EXPECT_EQ(run_at(k, 8, 'A').signals, 0);
    EXPECT_EQ(run_at(k, 3, 'G').signals, 5);

    // A fit's sample keeps the values found first, up to its limit: here the first read's.
    flow_check keep;
    keep.keep_values = true;
    keep.value_limit = 4;
    keep.create_runs(k.c);
    std::int32_t n = 0;
    for (const auto& [name, t] : k.tied) keep.add_read(k.c, k.c.reads.at(name), t, n++);
    keep.call_runs();
    flow_sample sample;
    keep.add_to(sample);
    ASSERT_EQ(sample.values.size(), 4u);
    ASSERT_EQ(sample.runs.size(), 4u);
    EXPECT_EQ(sample.runs[2].consensus_length, 3);
    EXPECT_EQ(sample.values[static_cast<std::size_t>(sample.runs[2].first)].value, 310);
}

TEST(Signals, ARunTheConsensusLacksIsWeighedAsLengthZero) {
    // One read holds a T in the pad column between G and C: the consensus lacks a T run.
    const checked k = check_contig("ACG*CA", {{placed("ACGTCA"), record("ACGTCA", {{12, 95}})},
                                              {placed("ACG*CA"), record("ACGCA", {{12, 88}})},
                                              {placed("ACG*CA"), record("ACGCA", {{12, 104}})}});
    const hp_run& t = run_at(k, 4, 'T');
    EXPECT_EQ(t.consensus_length, 0);
    EXPECT_EQ(t.position, 4);
    EXPECT_EQ(values_of(k, t), (std::vector<std::uint16_t>{95, 88, 104}));
    // Two reads have no base there, but measured one in the flow between their neighbours.
    EXPECT_EQ(t.called_length, 1);
    // The G and C runs around the block own its pad column too.
    EXPECT_EQ(run_at(k, 3, 'G').last_column, 4);
    EXPECT_EQ(run_at(k, 5, 'C').first_column, 4);
}

TEST(Signals, ReadsThatMeasureMoreThanTheRunGiveNoSignal) {
    // The TT run owns the pad column between its bases. Left out: a read whose T bases there
    // come from two flows (T12, T16), one whose T flow reaches into the neighbouring column,
    // and one that ends on the run's last column.
    const checked k =
        check_contig("ACGT*TCA", {{placed("ACGTGTCA"), record("ACGTGTCA")},
                                  {placed("ACGT*TTA"), record("ACGTTTA")},
                                  {placed("ACGT*T"), record("ACGTT")},
                                  {placed("ACGT*TCA"), record("ACGTTCA", {{12, 205}})}});
    const hp_run& t = run_at(k, 4, 'T');
    EXPECT_EQ(t.first_column, 4);
    EXPECT_EQ(t.last_column, 6);
    EXPECT_EQ(values_of(k, t), (std::vector<std::uint16_t>{205}));
    // The G one read holds inside the run is a run of length 0 of its own.
    EXPECT_EQ(run_at(k, 5, 'G').consensus_length, 0);
}

TEST(Window, EveryReadsMeasuredValueBesideTheAssemblysCounts) {
    // Rows: a read calling the T run whole, one under-calling it to 0, one that is not tied,
    // and a complemented one under-calling it to 0, which measured it in A13 (between its
    // C14 and G11) where T12 holds noise.
    checked k = check_contig(
        "ACGTTTCA",
        {{placed("ACGTTTCA"), record("ACGTTTCA", {{12, 310}})},
         {placed("ACG***CA"), record("ACGCA", {{12, 40}})},
         {placed("ACGTTTCA"), record("ACGTTCA")},
         {placed("ACG***CA", 1, true), record(reverse_complement("ACGCA"), {{12, 30}, {13, 70}})}});
    flow_window w;
    window_signals(k.c, k.tied, k.check, 1, 8, w);
    const std::int32_t u = flow_window::untied_read;
    using grid = std::vector<std::vector<std::int32_t>>;
    EXPECT_EQ(std::string(k.c.flow_consensus.begin(), k.c.flow_consensus.end()), "ACGTCA");
    EXPECT_EQ(w.counts[3], (std::vector<std::int16_t>{3, 0, 3, 0}));
    EXPECT_EQ(w.signals, (grid{{100, 100, u, 100},
                               {100, 100, u, 100},
                               {100, 100, u, 100},
                               {310, 40, u, 70},
                               {100, 100, u, 100},
                               {100, 100, u, 100}}));
    EXPECT_EQ(w.runs.size(), k.check.runs.size());

    // The window the browser draws: the same values, row by row.
    std::vector<std::int32_t> rows;
    k.c.window_rows(1, 8, rows);
    window_grid drawn;
    k.c.draw_window(1, 8, rows, drawn);
    grid values;
    grid_signals(
        k.c, drawn,
        [&k](const std::string& name) -> const tied_read* {
            auto it = k.tied.find(name);
            return it == k.tied.end() ? nullptr : &it->second;
        },
        values);
    EXPECT_EQ(values, (grid{{100, 100, 100, 310, 100, 100},
                            {100, 100, 100, 40, 100, 100},
                            {u, u, u, u, u, u},
                            {100, 100, 100, 70, 100, 100}}));

    // A window on the last two columns shows only the runs there; one that starts inside the
    // T run (columns 4-6) shows it too.
    flow_window tail;
    window_signals(k.c, k.tied, k.check, 7, 2, tail);
    EXPECT_EQ(tail.runs, (std::vector<std::int32_t>{4, 5}));
    EXPECT_EQ(tail.signals.front().size(), tail.counts.front().size());
    flow_window inside;
    window_signals(k.c, k.tied, k.check, 5, 3, inside);
    EXPECT_EQ(inside.runs, (std::vector<std::int32_t>{3, 4}));
}

// The VCF records and the polished sequence of hand-set calls on a contig's runs; the calls
// on the columns `filtered` have forward and complemented reads that disagree.
struct report {
    std::string vcf, polished;
};

report report_of(const std::string& consensus, const std::map<std::int32_t, std::int32_t>& calls,
                 const std::vector<placed_read>& reads = {},
                 const std::set<std::int32_t>& filtered = {}) {
    contig c = make_contig(consensus, reads);
    flow_check check;
    check.create_runs(c);
    for (hp_run& r : check.runs) {
        r.signals = 10;
        r.called_length = r.consensus_length;
        r.confidence = 99;
        if (auto it = calls.find(r.column); it != calls.end()) {
            r.called_length = it->second;
            r.score = 20;
            r.qual = 50;
            r.confidence = 40;
            r.strand_conflict = filtered.count(r.column) > 0;
        }
    }
    c.name = "c1";
    contig_report r;
    check.report(c, false, r);
    report out;
    append_vcf_records(out.vcf, r);
    out.polished = r.polished;
    return out;
}

const std::string kInfo = "\t50.00\tPASS\tDP=10;FWD=0;REV=10;";

TEST(Vcf, RecordsAreAnchoredOnTheBaseBeforeTheRun) {
    // Next to the contig's first base; behind pad columns; a run removed.
    EXPECT_EQ(report_of("AC**GGTA", {{2, 2}}).vcf,
              "c1\t1\t.\tAC\tACC" + kInfo + "CL=1;HL=2;SC=20.00;CQ=40.00\n");
    EXPECT_EQ(report_of("AC**GGTA", {{5, 3}}).vcf,
              "c1\t2\t.\tCGG\tCGGG" + kInfo + "CL=2;HL=3;SC=20.00;CQ=40.00\n");
    const report removed = report_of("AC**GGTA", {{7, 0}});
    EXPECT_EQ(removed.vcf, "c1\t4\t.\tGT\tG" + kInfo + "CL=1;HL=0;SC=20.00;CQ=40.00\n");
    EXPECT_EQ(removed.polished, "ACGGA");
}

TEST(Vcf, CallsSharingAnAnchorBaseBecomeOneRecord) {
    const report both = report_of("AC**GGTA", {{2, 2}, {5, 3}});
    EXPECT_EQ(both.vcf,
              "c1\t1\t.\tACGG\tACCGGG\t50.00\tPASS\tDP=10,10;FWD=0,0;REV=10,10;CL=1,2;HL=2,3;"
              "SC=20.00,20.00;CQ=40.00,40.00\n");
    EXPECT_EQ(both.polished, "ACCGGGTA");
    // A filtered call sharing the anchor with a passing one is a record of its own, and only
    // the passing one is applied.
    const report split = report_of("AC**GGTA", {{2, 2}, {5, 3}}, {}, {5});
    EXPECT_EQ(split.vcf, "c1\t1\t.\tAC\tACC" + kInfo +
                             "CL=1;HL=2;SC=20.00;CQ=40.00\n"
                             "c1\t2\t.\tCGG\tCGGG\t50.00\tStrandConflict\tDP=10;FWD=0;REV=10;"
                             "CL=2;HL=3;SC=20.00;CQ=40.00\n");
    EXPECT_EQ(split.polished, "ACCGGTA");
    // A run the consensus lacks goes in after the base before its pad columns.
    const report inserted = report_of("AC**GGTA", {{3, 1}, {5, 1}}, {{"r", 1, "ACTTGGTA"}});
    EXPECT_EQ(inserted.vcf,
              "c1\t2\t.\tCGG\tCTG\t50.00\tPASS\tDP=10,10;FWD=0,0;REV=10,10;CL=0,2;HL=1,1;"
              "SC=20.00,20.00;CQ=40.00,40.00\n");
    EXPECT_EQ(inserted.polished, "ACTGTA");
}

TEST(Vcf, CollidingCallsKeepTheStrongerAndCaseIsKept) {
    // Two letters the consensus lacks in one block: only one can go in.
    contig c = make_contig("ac*gt", {{"r1", 1, "acTgt"}, {"r2", 1, "acAgt"}});
    flow_check check;
    check.create_runs(c);
    for (hp_run& r : check.runs) {
        r.signals = 10;
        r.called_length = r.consensus_length == 0 ? 1 : r.consensus_length;
        r.score = r.letter == 'A' ? 30 : r.consensus_length == 0 ? 15 : 0;
        r.qual = r.confidence = r.letter == 'A' ? 60.0f : r.consensus_length == 0 ? 30.0f : 99.0f;
    }
    const std::string unpadded = unpadded_consensus(c);
    std::vector<consensus_edit> edits;
    check.edits(unpadded, edits);
    ASSERT_EQ(edits.size(), 1u);
    EXPECT_EQ(apply_edits(unpadded, edits), "acAgt");
    // A lengthened lower-case run stays lower case.
    EXPECT_EQ(report_of("acgt", {{2, 2}}).polished, "accgt");
}

TEST(Report, FastaAndTsvLines) {
    std::string fa;
    append_fasta(fa, "c1", std::string(61, 'A'));
    EXPECT_EQ(fa, ">c1\n" + std::string(60, 'A') + "\nA\n");
    // Whole lines only: nothing after the last.
    fa.clear();
    append_fasta(fa, "c2", std::string(120, 'C'));
    EXPECT_EQ(fa, ">c2\n" + std::string(60, 'C') + "\n" + std::string(60, 'C') + "\n");
    hp_run r;
    r.column = 12;
    r.position = 10;
    r.letter = 'G';
    r.consensus_length = 2;
    r.called_length = 3;
    r.add(300, false);
    r.add(310, true);
    r.add(300, true);
    r.score = 12.346;
    std::string tsv;
    append_tsv_line(tsv, "c1", r, "PASS");
    EXPECT_EQ(tsv, "c1\t12\t10\tG\t2\t3\t3\t1\t2\t3.03\t12.35\t0.00\t0.00\tPASS\n");
}

// A small assembly on disk: four reads that all call TTT where the consensus says TT.
void write_assembly(const temp_dir& d) {
    sff_file_layout f;
    f.number_of_flows_per_read = static_cast<std::uint16_t>(kFlows.size());
    f.flow_chars = kFlows;
    ace_contig c{"Contig1", "ACGTT*CAGGTACA", {}};
    for (int k = 0; k < 4; ++k) {
        const std::string name = "READ0" + std::to_string(k);
        sff_read_layout r = make_read(name, "TCAGACGTTTCAGGTACA", kFlows, {}, 7 + k);
        r.clip_qual_left = 5;
        f.reads.push_back(r);
        c.reads.push_back({name, 1, "ACGTTTCAGGTACA"});
    }
    c.reads.push_back({"ELSEWHERE", 1, "ACGTT*CAGGTACA"});
    ASSERT_TRUE(write_file(d / "a.sff", build_sff(f)));
    ASSERT_TRUE(write_file(d / "asm.ace", ace_file_text({c})));
}

run_result flowcheck(const std::vector<std::string>& args, const std::string& cwd) {
    return run_binary(SORVEXA_FLOWCHECK_BIN, args, cwd);
}

TEST(Program, WritesTheFourFilesAndASummary) {
    temp_dir d;
    write_assembly(d);
    const run_result res = flowcheck({"asm.ace", "a.sff"}, d.path);
    EXPECT_EQ(res.status, 0) << res.err;
    EXPECT_EQ(res.out, "");
    // Four reads are too few to fit a model: the fixed one serves, and the summary says so.
    EXPECT_EQ(res.err,
              "sorvexa-flowcheck: 1 contigs (0 unchecked), 9 of 11 runs tested, 1 called "
              "different (1 pass); reads: 4 tied, 0 untied, 1 in no SFF file\n"
              "sorvexa-flowcheck: model fitted: a.sff: 13 fixed\n");
    EXPECT_EQ(read_file(d / "asm.consensus.fa"), ">Contig1\nACGTTCAGGTACA\n");
    EXPECT_EQ(read_file(d / "asm.polished.fa"), ">Contig1\nACGTTTCAGGTACA\n");
    const std::string vcf = read_file(d / "asm.flowcheck.vcf");
    EXPECT_NE(vcf.find("##reference=file:asm.consensus.fa\n##contig=<ID=Contig1,length=13>\n"),
              std::string::npos);
    EXPECT_NE(vcf.find("\n##flowcheck_coverage=<ID=Contig1,Reads=5,Tied=4,Untied=0,NotFound=1,"
                       "Runs=11,Tested=9,Status=checked>\n"),
              std::string::npos);
    EXPECT_NE(vcf.find("\n##FILTER=<ID=StrandConflict,"), std::string::npos);
    const std::size_t call = vcf.find("\nContig1\t3\t.\tGTT\tGTTT\t");
    ASSERT_NE(call, std::string::npos);
    EXPECT_NE(vcf.find("\tPASS\tDP=4;FWD=4;REV=0;CL=2;HL=3;SC=", call), std::string::npos);
    const std::string tsv = read_file(d / "asm.flowcheck.tsv");
    EXPECT_EQ(
        tsv.substr(0, tsv.find('\n')),
        "contig\tcolumn\tposition\tletter\tconsensus_length\tcalled_length\tsignals\tforward\t"
        "reverse\tmean_signal\tscore\tqual\tconfidence\tfilter");
    EXPECT_NE(tsv.find("\n# Contig1: 5 reads (4 tied, 0 untied, 1 in no SFF file), 9 of 11 runs "
                       "tested: checked\nContig1\t4\t4\tT\t2\t3\t4\t4\t0\t"),
              std::string::npos);
    EXPECT_EQ(tsv.substr(tsv.size() - 6), "\tPASS\n");

    // The model it used, read back with --model, gives the same calls; the fixed model's
    // options give its own.
    const std::string model = read_file(d / "asm.flowcheck.model.tsv");
    EXPECT_EQ(model.substr(0, model.find('\n')),
              "file\tlength\tsignals\tcentre\tspread\toutlier_rate\tsource");
    ASSERT_TRUE(write_file(d / "saved.tsv", model));
    const run_result again =
        flowcheck({"--model", "saved.tsv", "-o", "again", "asm.ace", "a.sff"}, d.path);
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_NE(again.err.find("model read from saved.tsv"), std::string::npos);
    EXPECT_EQ(read_file(d / "again.flowcheck.tsv"), tsv);
    EXPECT_EQ(read_file(d / "again.flowcheck.model.tsv"), model);
    const run_result wide =
        flowcheck({"--sigma-base", "0.5", "-o", "wide", "asm.ace", "a.sff"}, d.path);
    EXPECT_NE(wide.err.find("model fixed"), std::string::npos);
    EXPECT_NE(read_file(d / "wide.flowcheck.model.tsv").find("a.sff\t2\t0\t2.0000\t0.6800\t"),
              std::string::npos);

    // --all lists every weighed run; -o puts the files elsewhere.
    EXPECT_EQ(flowcheck({"--all", "-o", "sub", "asm.ace", "a.sff"}, d.path).status, 0);
    const std::string all = read_file(d / "sub.flowcheck.tsv");
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 11);
}

TEST(Program, BadCommandLinesAndInputs) {
    temp_dir d;
    write_assembly(d);
    struct row {
        std::vector<std::string> args;
        int status;
        std::string first_line;
    };
    const std::vector<row> rows = {
        {{"--min-signals", "0", "asm.ace", "a.sff"},
         2,
         "sorvexa-flowcheck: --min-signals takes a whole number of at least 1, not '0'"},
        {{"--min-score=x", "asm.ace", "a.sff"},
         2,
         "sorvexa-flowcheck: --min-score takes a number of at least 0, not 'x'"},
        {{"--sigma-base", "0", "asm.ace", "a.sff"},
         2,
         "sorvexa-flowcheck: --sigma-base takes a number above 0, not '0'"},
        {{"--min-qual", "-1", "asm.ace", "a.sff"},
         2,
         "sorvexa-flowcheck: --min-qual takes a number of at least 0, not '-1'"},
        {{"--model", "m.tsv", "--sigma-slope", "0.1", "asm.ace", "a.sff"},
         2,
         "sorvexa-flowcheck: --model and the fixed model's --sigma options exclude each other"},
        {{"--model", "missing.tsv", "asm.ace", "a.sff"},
         1,
         "sorvexa-flowcheck: can not read model file missing.tsv"},
        {{"--model", "asm.ace", "asm.ace", "a.sff"},
         1,
         "sorvexa-flowcheck: asm.ace: line 1 is not the model's header line"},
        {{"--frobnicate", "asm.ace", "a.sff"}, 2, "sorvexa-flowcheck: unknown option --frobnicate"},
        {{"--all=yes", "asm.ace", "a.sff"}, 2, "sorvexa-flowcheck: option --all takes no value"},
        {{"--help=x"}, 2, "sorvexa-flowcheck: option --help takes no value"},
        {{"asm.ace", "a.sff", "-o"}, 2, "sorvexa-flowcheck: option -o needs a value"},
        {{"asm.ace"}, 2, "sorvexa-flowcheck: needs an ACE file and at least one SFF file"},
        {{"asm.ace", "missing.sff"}, 1, "sorvexa-flowcheck: fail to open file missing.sff"},
        {{"missing.ace", "a.sff"}, 1, "sorvexa-flowcheck: The file: missing.ace can not be opened"},
        {{"asm.ace", "asm.ace"}, 1, "sorvexa-flowcheck: The input file asm.ace is not a SFF file"},
    };
    for (const row& r : rows) {
        const run_result res = flowcheck(r.args, d.path);
        EXPECT_EQ(res.status, r.status) << r.args[0];
        EXPECT_EQ(res.err.substr(0, res.err.find('\n')), r.first_line);
        if (r.status == 2) {
            EXPECT_NE(res.err.find("\nUsage: sorvexa-flowcheck"), std::string::npos);
        }
    }
    ASSERT_TRUE(write_file(d / "bad.ace", "AS 1 1\n\nCO c 4 1 1 U\nACGT\n\nXX\n"));
    EXPECT_EQ(flowcheck({"bad.ace", "a.sff"}, d.path).status, 1);
    // A contig out of grammar after good ones: the good contigs are checked and written, and
    // the run ends at the fault with the reader's message and status 1.
    ASSERT_TRUE(
        write_file(d / "late.ace", read_file(d / "asm.ace") + "CO c 4 1 1 U\nACGT\n\nXX\n"));
    const run_result late = flowcheck({"late.ace", "a.sff"}, d.path);
    EXPECT_EQ(late.status, 1);
    EXPECT_EQ(late.err, "sorvexa-flowcheck: Error: tag 'XX' should be not in the ACE file!\n");
    EXPECT_EQ(flowcheck({"asm.ace", "a.sff"}, d.path).status, 0);
    EXPECT_EQ(read_file(d / "late.consensus.fa"), read_file(d / "asm.consensus.fa"));

    const run_result help = flowcheck({"-h"}, d.path);
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.substr(0, 25), "Usage: sorvexa-flowcheck ");
    // Texts into a full device: Cli.TextsThatCannotBeWrittenFailTheProgram, for every program.
    EXPECT_EQ(flowcheck({"--version"}, d.path).out, "sorvexa-flowcheck 1.1\n");
}

}  // namespace

// The contig in flow space: the flow consensus built from where the reads' runs begin, the
// column-to-flow lookups, and the per-row flow counts of a window.

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <sorvexa/contig.h>
#include <sorvexa/flow_walk.h>
#include "contig_builder.h"

namespace {

using namespace fixture;

using flow_table = std::vector<std::map<char, std::int32_t>>;
using counts = std::vector<std::vector<std::int16_t>>;

std::string flows_of(const contig& c) {
    return {c.flow_consensus.begin(), c.flow_consensus.end()};
}

struct alignment {
    counts flow_counts;
    std::vector<std::map<std::int32_t, fRead>> flow_rows;
};

alignment align(contig& c, std::int32_t from, int width) {
    alignment a;
    c.align_flow(a.flow_counts, a.flow_rows, from, width);
    return a;
}

// One bracket per row: "last_flow:name(flow_start,flow_end)" for each entry.
std::string rows_of(const alignment& a) {
    std::string text;
    for (const auto& row : a.flow_rows) {
        text += '[';
        for (const auto& [key, r] : row) {
            if (text.back() != '[') text += ' ';
            text += std::to_string(key) + ':' + r.name + '(' + std::to_string(r.flow_start) + ',' +
                    std::to_string(r.flow_end) + ')';
        }
        text += ']';
    }
    return text;
}

TEST(FlowConsensus, OpensAFlowWhereverARunBegins) {
    // Consensus and reads; the flow consensus and flow index they give.
    const std::vector<std::tuple<std::string, std::vector<placed_read>, std::string, flow_table>>
        cases = {
            {"ACGT", {{"r", 1, "ACGT"}}, "ACGT", {{{'A', 0}}, {{'C', 1}}, {{'G', 2}}, {{'T', 3}}}},
            {"AAC", {{"r", 1, "AAC"}}, "AC", {{{'A', 0}}, {}, {{'C', 1}}}},
            {"ACC",
             {{"r1", 1, "ACC"}, {"r2", 1, "AGG"}},
             "ACG",
             {{{'A', 0}}, {{'C', 1}, {'G', 2}}, {}}},
            // A pad splits a run in two, and both halves fall into the same flow.
            {"A*A", {{"r", 1, "A*A"}}, "A", {{{'A', 0}}, {}, {{'A', 0}}}},
            // Flow 0 is T when the consensus opens with a pad or an unknown base.
            {"*CG", {{"r", 1, "ACG"}}, "TACG", {{{'A', 1}}, {{'C', 2}}, {{'G', 3}}}},
            {"NCG", {{"r", 1, "ACG"}}, "TACG", {{{'A', 1}}, {{'C', 2}}, {{'G', 3}}}},
            {"nCG", {{"r", 1, "ACG"}}, "TACG", {{{'A', 1}}, {{'C', 2}}, {{'G', 3}}}},
            // Any other first character is taken as stored, lower case included.
            {"acg", {{"r", 1, "ACG"}}, "aACG", {{{'A', 1}}, {{'C', 2}}, {{'G', 3}}}},
            // The column {A, C} follows flow C: A opens a flow, C joins it instead of the old one.
            {"CA", {{"r1", 1, "CA"}, {"r2", 2, "C"}}, "CA", {{{'C', 0}}, {{'A', 1}, {'C', 1}}}},
            // An N is read as the consensus base, or as a letter of its own when that base would
            // merge it into a neighbouring run.
            {"AGC", {{"r", 1, "ANC"}}, "AGC", {{{'A', 0}}, {{'G', 1}}, {{'C', 2}}}},
            {"AAA", {{"r", 1, "ANA"}}, "ATA", {{{'A', 0}}, {{'T', 1}}, {{'A', 2}}}},
            {"AAA", {{"r", 1, "NAA"}}, "ATA", {{{'T', 1}}, {{'A', 2}}, {}}},
            {"AA", {{"r", 1, "NA"}}, "A", {{{'A', 0}}, {}}},  // too short for the neighbour test
            // Bases before column 1 and after the last column open no flows.
            {"CG", {{"r", 0, "ACG"}, {"s", 2, "GTT"}}, "CG", {{{'C', 0}}, {{'G', 1}}}},
        };
    for (const auto& [consensus, reads, flows, index] : cases) {
        contig c = make_contig(consensus, reads);
        c.create_flow_concensus();
        const std::string label = consensus + " / " + reads.front().sequence;
        EXPECT_EQ(flows_of(c), flows) << label;
        EXPECT_EQ(c.flow_index, index) << label;
    }
}

TEST(FlowConsensus, LookupsFindTheNearestColumnWithFlows) {
    contig c = make_contig("ACC", {{"r1", 1, "ACC"}, {"r2", 1, "AGG"}});
    c.create_flow_concensus();
    EXPECT_EQ(c.getFlowIdx_start(1), 1);
    EXPECT_EQ(c.getFlowIdx_end(1), 2);
    EXPECT_EQ(c.getFlowIdx_start(2), 1);  // no run begins at index 2: index 1 answers
    EXPECT_EQ(c.getFlowIdx_end(2), 2);
    EXPECT_EQ(c.getFlowIdx_start(-1), 0);  // outside the table
    EXPECT_EQ(c.getFlowIdx_end(3), 0);

    contig runs = make_contig("AAC", {{"r", 1, "AAC"}});
    runs.create_flow_concensus();
    EXPECT_EQ(runs.getFlowIdx_start(1), 0);
    EXPECT_EQ(runs.getFlowIdx_end(1), 0);
    EXPECT_EQ(runs.getFlowIdx_end(2), 1);
}

TEST(FlowConsensus, ColumnOneAfterAPadOrAnN) {
    // Flow 0 is then a T that no read need open: column 1 answers with the flows its reads
    // open, or with flow 0 when they open none; a window from column 1 starts there.
    // Consensus, reads; flows, first and last flow of column 1, counts and rows of columns 1-3.
    const std::vector<std::tuple<std::string, std::vector<placed_read>, std::string, std::int32_t,
                                 std::int32_t, counts, std::string>>
        cases = {
            {"*CG",
             {{"r", 1, "ACG"}, {"s", 1, "GCG"}},
             "TAGCG",
             1,
             2,
             {{1, 0}, {0, 1}, {1, 1}, {1, 1}},
             "[3:r(0,3)][3:s(0,3)]"},
            {"NCG", {{"r", 1, "ACG"}}, "TACG", 1, 1, {{1}, {1}, {1}}, "[2:r(0,2)]"},
            // The read's N, taken as the consensus N, opens no flow: the window keeps the T.
            {"NCG", {{"r", 1, "NCG"}}, "TCG", 0, 0, {{0}, {1}, {1}}, "[2:r(0,2)]"},
            {"*AC", {{"r", 2, "AC"}}, "TAC", 0, 0, {{}, {1}, {1}}, "[2:r(1,2)]"},
        };
    for (const auto& [consensus, reads, flows, first, last, flow_counts, rows] : cases) {
        contig c = make_contig(consensus, reads);
        const alignment a = align(c, 1, 3);
        const std::string label = consensus + " / " + reads.front().sequence;
        EXPECT_EQ(flows_of(c), flows) << label;
        EXPECT_EQ(c.getFlowIdx_start(0), first) << label;
        EXPECT_EQ(c.getFlowIdx_end(0), last) << label;
        EXPECT_EQ(a.flow_counts, flow_counts) << label;
        EXPECT_EQ(rows_of(a), rows) << label;
    }
}

TEST(FlowAlignment, RunsAreCountedWhole) {
    // A window inside a run counts the bases on both sides of it, pads passing uncounted.
    contig inside = make_contig("CAA*AG", {{"r", 1, "CAA*AG"}, {"s", 6, "G"}});
    alignment a = align(inside, 3, 1);
    EXPECT_EQ(flows_of(inside), "CAG");
    EXPECT_EQ(a.flow_counts, (counts{{3}}));
    EXPECT_EQ(rows_of(a), "[0:r(0,0)][]");  // every layout row gets its map

    // A window opening on a pad moves back over pads only, not into the run before them.
    contig pad = make_contig("AA*CC", {{"r", 1, "AA*CC"}});
    a = align(pad, 3, 3);
    EXPECT_EQ(a.flow_counts, (counts{{0}, {2}}));
    EXPECT_EQ(rows_of(a), "[1:r(0,1)]");
    a = align(pad, 2, 4);
    EXPECT_EQ(a.flow_counts, (counts{{2}, {2}}));
}

TEST(FlowAlignment, RowsOfTheLayout) {
    // A row without a flow is padded with -1 only below a later row that has one.
    contig c =
        make_contig("ACGT", {{"a", 1, "ACGT"}, {"b", 1, "A"}, {"c", 1, "ACGT"}, {"d", 1, "A"}});
    alignment a = align(c, 3, 2);
    EXPECT_EQ(a.flow_counts, (counts{{1, -1, 1}, {1, -1, 1}}));
    EXPECT_EQ(rows_of(a), "[1:a(0,1)][][1:c(0,1)][]");

    // Two reads of one row sharing a flow: the later one overwrites its count, and as both
    // end on flow 1, only the later read stays.
    contig shared = make_contig("ACCCG", {{"x", 1, "AC"}, {"y", 3, "CC"}});
    a = align(shared, 1, 5);
    EXPECT_EQ(a.flow_counts, (counts{{1}, {2}}));
    EXPECT_EQ(rows_of(a), "[1:y(1,1)]");
}

TEST(FlowAlignment, ShortestReadBoundsTheStartsAligned) {
    contig c =
        make_contig("ACGTAC", {{"long", 1, "ACGTAC"}, {"edge", 3, "GTA"}, {"late", 4, "TAC"}});
    alignment a = align(c, 1, 5);
    // "late" starts after column 5 - 3 + 1 and is not aligned although it overlaps.
    EXPECT_EQ(a.flow_counts, (counts{{1}, {1}, {1, 1}, {1, 1}, {1, 1}}));
    EXPECT_EQ(rows_of(a), "[4:long(0,4)][4:edge(2,4)][]");

    c.min_read_len = 0;  // after the layout is built, which would set it again
    a = align(c, 1, 5);
    EXPECT_EQ(a.flow_counts, (counts{{1}, {1}, {1, 1}, {1, 1, 1}, {1, 1, 1}}));
    EXPECT_EQ(rows_of(a), "[4:long(0,4)][4:edge(2,4)][4:late(3,4)]");
}

TEST(FlowAlignment, WindowLimits) {
    // A read starting before column 1 is never aligned, even in a layout that names it.
    contig c = make_contig("ACGT", {{"pre", 0, "TACGT"}, {"r", 1, "ACGT"}});
    c.create_print_map();
    c.print_map = {{{0, "pre"}}, {{1, "r"}}};
    alignment a = align(c, 1, 4);
    EXPECT_EQ(a.flow_counts, (counts{{-1, 1}, {-1, 1}, {-1, 1}, {-1, 1}}));
    EXPECT_EQ(rows_of(a), "[][3:r(0,3)]");

    // A window starting after the last column is the window at the last column.
    contig tail = make_contig("ACGT", {{"r", 1, "ACGT"}, {"s", 3, "GT"}});
    const alignment at_end = align(tail, 4, 1);
    const alignment past_end = align(tail, 9, 1);
    EXPECT_EQ(at_end.flow_counts, (counts{{1, 1}}));
    EXPECT_EQ(rows_of(at_end), "[0:r(0,0)][0:s(0,0)]");
    EXPECT_EQ(past_end.flow_counts, at_end.flow_counts);
    EXPECT_EQ(rows_of(past_end), rows_of(at_end));
}

TEST(FlowAlignment, UnknownAndLowerCaseBases) {
    // The N after C ends the C flow; the T flow it stands for skips it, and A counts on.
    contig n = make_contig("CAAAG", {{"r", 1, "CNAAG"}});
    alignment a = align(n, 1, 5);
    EXPECT_EQ(flows_of(n), "CTAG");
    EXPECT_EQ(a.flow_counts, (counts{{1}, {0}, {2}, {1}}));
    EXPECT_EQ(rows_of(a), "[3:r(0,3)]");

    // A lower-case base matches no flow: it stops its own run and every flow after it.
    contig lower = make_contig("CAAG", {{"r", 1, "CAaG"}});
    a = align(lower, 1, 4);
    EXPECT_EQ(flows_of(lower), "CAG");
    EXPECT_EQ(a.flow_counts, (counts{{1}, {1}, {0}}));
}

TEST(FlowAlignment, NothingToAlignWithoutReadsOrConsensus) {
    for (contig c : {make_contig("", {{"r", 1, "ACGT"}}), make_contig("ACGT")}) {
        const alignment a = align(c, 1, 4);
        EXPECT_TRUE(a.flow_counts.empty());
        EXPECT_TRUE(a.flow_rows.empty());
        EXPECT_TRUE(c.flow_consensus.empty());
        EXPECT_TRUE(c.flow_index.empty());
    }
}

}  // namespace

// Flows found again from bases and values: a letter skips flows whose value calls no base
// (0.50 calls none), a run is split where a flow of its letter calls again with nothing
// called between, and the walk ends at what it cannot place.
TEST(FlowWalk, FromTheFirstFlowOnTheValues) {
    const std::string order = "TACGTACGTACG";
    //                                      T    A   C   G   T    A   C   G   T   A   C    G
    const std::vector<std::uint16_t> values{102, 50, 98, 3, 205, 0, 0, 0, 97, 8, 4, 110};
    std::vector<std::int32_t> flows;
    EXPECT_TRUE(walk_flows("tCTTTg", order, values, 0, flows));
    EXPECT_EQ(flows, (std::vector<std::int32_t>{0, 2, 4, 4, 8, 11}));
    EXPECT_TRUE(walk_flows("TTCT", order, values, 4, flows) == false);
    EXPECT_EQ(flows, (std::vector<std::int32_t>{4, 4, -1, -1}));
    EXPECT_TRUE(walk_flows("CTT", order, values, 2, flows));
    EXPECT_EQ(flows, (std::vector<std::int32_t>{2, 4, 4}));
    EXPECT_FALSE(walk_flows("CNT", order, values, 2, flows));
    EXPECT_EQ(flows, (std::vector<std::int32_t>{2, -1, -1}));
    EXPECT_FALSE(walk_flows("A", order, values, 0, flows));   // flow 0 offers T
    EXPECT_FALSE(walk_flows("T", order, values, 12, flows));  // past the flowgram
    EXPECT_FALSE(walk_flows("T", order, values, -1, flows));
    EXPECT_TRUE(walk_flows("", order, values, 99, flows) && flows.empty());
}

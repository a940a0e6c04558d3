// Laying a contig's reads out in rows: the start index, the read-length statistics and the
// greedy packing of reads into non-overlapping rows.

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "contig.h"
#include "contig_builder.h"

namespace {

using fixture::add_read;
using fixture::make_contig;

using rows = std::vector<layout_row>;

TEST(Layout, FourReadsPackIntoThreeRows) {
    contig c = make_contig("ACGTACGTAC");
    add_read(c, "a", 1, 5);
    add_read(c, "b", 3, 4);
    add_read(c, "c", 6, 2);
    add_read(c, "d", 6, 3);

    std::vector<std::string> ids{"kept"};
    c.get_read_ids(ids);

    EXPECT_EQ(c.pos_map, (std::multimap<std::int32_t, std::string>{
                             {1, "a"}, {3, "b"}, {6, "c"}, {6, "d"}}));  // ties in name order
    EXPECT_EQ(c.print_map, (rows{{{1, "a"}, {6, "c"}}, {{3, "b"}}, {{6, "d"}}}));
    EXPECT_EQ(ids, (std::vector<std::string>{"kept", "a", "c", "b", "d"}));
    EXPECT_EQ(c.max_read_len, 5);
    EXPECT_EQ(c.min_read_len, 2);
    EXPECT_EQ(c.avg_read_len, 3.0);  // 14 / 4, remainder dropped
}

TEST(Layout, RowsShareAbuttingReadsButNotOverlappingOnes) {
    contig c = make_contig("ACGTACGTACGT");
    add_read(c, "left", 1, 5);   // columns 1-5
    add_read(c, "next", 6, 3);   // 6-8, right after "left"
    add_read(c, "touch", 8, 2);  // 8-9, shares column 8 with "next"
    add_read(c, "twin_b", 10, 2);
    add_read(c, "twin_a", 10, 2);  // same start: the name sorting first gets the earlier row
    c.create_print_map();

    EXPECT_EQ(c.print_map,
              (rows{{{1, "left"}, {6, "next"}, {10, "twin_a"}}, {{8, "touch"}, {10, "twin_b"}}}));
}

TEST(Layout, LengthStatistics) {
    contig lone = make_contig("ACGT");
    add_read(lone, "long", 1, 6000);
    lone.create_pos_map();
    EXPECT_EQ(lone.max_read_len, 6000);
    EXPECT_EQ(lone.min_read_len, 5000);  // the running minimum never rises above its start
    EXPECT_EQ(lone.avg_read_len, 6000.0);

    contig pair = make_contig("ACGTACGT");
    add_read(pair, "x", 1, 7);
    add_read(pair, "y", 2, 8);
    pair.create_pos_map();
    EXPECT_EQ(pair.avg_read_len, 7.0);  // not 7.5
    EXPECT_EQ(pair.min_read_len, 7);
    EXPECT_EQ(pair.max_read_len, 8);

    contig none = make_contig("ACGT");  // no reads: no rows, statistics as initialised
    std::vector<std::string> ids;
    none.get_read_ids(ids);
    EXPECT_TRUE(ids.empty() && none.pos_map.empty() && none.print_map.empty());
    EXPECT_EQ(none.max_read_len, 0);
    EXPECT_EQ(none.min_read_len, 5000);
    EXPECT_EQ(none.avg_read_len, 0.0);
}

TEST(Layout, ReadsStartingOutsideTheConsensusAreLeftOut) {
    contig c = make_contig("ACGTAC");
    add_read(c, "before", 0, 4);
    add_read(c, "far_before", -3, 2);
    add_read(c, "after", 7, 3);
    add_read(c, "first", 1, 3);
    add_read(c, "last", 6, 1);
    c.create_print_map();

    EXPECT_EQ(c.pos_map.size(), 5u);  // the start index still holds every read
    EXPECT_EQ(c.print_map, (rows{{{1, "first"}, {6, "last"}}}));

    contig no_columns = make_contig("");
    add_read(no_columns, "r", 1, 3);
    no_columns.create_print_map();
    EXPECT_TRUE(no_columns.print_map.empty());
}

TEST(Layout, ReadsWithoutLengthTakeTheirStartColumnOnly) {
    contig c = make_contig("ACGTAC");
    add_read(c, "n0", 2, 0);
    add_read(c, "neg", 2, -3);
    add_read(c, "ok", 3, 2);
    c.create_print_map();

    EXPECT_EQ(c.print_map, (rows{{{2, "n0"}, {3, "ok"}}, {{2, "neg"}}}));
    EXPECT_EQ(c.min_read_len, -3);
}

}  // namespace

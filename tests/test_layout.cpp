// Laying a contig's reads out in rows: the start index, the read-length statistics and the
// greedy packing of reads into non-overlapping rows.

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <sorvexa/contig.h>
#include "contig_builder.h"

namespace {

using rows = std::vector<layout_row>;

// Reads given by name, start and length only: the layout never looks at the bases.
contig with_reads(std::string_view consensus,
                  const std::vector<std::tuple<std::string, std::int32_t, std::int16_t>>& reads) {
    contig c = fixture::make_contig(consensus);
    for (const auto& [name, start, length] : reads) fixture::add_read(c, name, start, length);
    return c;
}

TEST(Layout, FourReadsPackIntoThreeRows) {
    contig c = with_reads("ACGTACGTAC", {{"a", 1, 5}, {"b", 3, 4}, {"c", 6, 2}, {"d", 6, 3}});

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
    // "left" covers columns 1-5 and "next" 6-8, right after it; "touch" (8-9) shares column 8
    // with "next". Of the twins with the same start the name sorting first gets the earlier row.
    contig c = with_reads(
        "ACGTACGTACGT",
        {{"left", 1, 5}, {"next", 6, 3}, {"touch", 8, 2}, {"twin_b", 10, 2}, {"twin_a", 10, 2}});
    c.create_print_map();

    EXPECT_EQ(c.print_map,
              (rows{{{1, "left"}, {6, "next"}, {10, "twin_a"}}, {{8, "touch"}, {10, "twin_b"}}}));
}

TEST(Layout, LengthStatistics) {
    contig lone = with_reads("ACGT", {{"long", 1, 6000}});
    lone.create_pos_map();
    EXPECT_EQ(lone.max_read_len, 6000);
    EXPECT_EQ(lone.min_read_len, 5000);  // the running minimum never rises above its start
    EXPECT_EQ(lone.avg_read_len, 6000.0);

    contig none = fixture::make_contig("ACGT");  // no reads: no rows, statistics as initialised
    std::vector<std::string> ids;
    none.get_read_ids(ids);
    EXPECT_TRUE(ids.empty() && none.pos_map.empty() && none.print_map.empty());
    EXPECT_EQ(none.max_read_len, 0);
    EXPECT_EQ(none.min_read_len, 5000);
    EXPECT_EQ(none.avg_read_len, 0.0);
}

TEST(Layout, ReadsStartingOutsideTheConsensusAreLeftOut) {
    contig c = with_reads("ACGTAC", {{"before", 0, 4},
                                     {"far_before", -3, 2},
                                     {"after", 7, 3},
                                     {"first", 1, 3},
                                     {"last", 6, 1}});
    c.create_print_map();

    EXPECT_EQ(c.pos_map.size(), 5u);  // the start index still holds every read
    EXPECT_EQ(c.print_map, (rows{{{1, "first"}, {6, "last"}}}));

    contig no_columns = with_reads("", {{"r", 1, 3}});
    no_columns.create_print_map();
    EXPECT_TRUE(no_columns.print_map.empty());
}

TEST(Layout, ReadsWithoutLengthTakeTheirStartColumnOnly) {
    contig c = with_reads("ACGTAC", {{"n0", 2, 0}, {"neg", 2, -3}, {"ok", 3, 2}});
    c.create_print_map();

    EXPECT_EQ(c.print_map, (rows{{{2, "n0"}, {3, "ok"}}, {{2, "neg"}}}));
    EXPECT_EQ(c.min_read_len, -3);
}

}  // namespace

// Drawing a contig: flow maps of a window in plain text and HTML, colouring of sequences,
// base-space alignment maps of the whole contig or a window, and the window as a grid.

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <sorvexa/contig.h>
#include "contig_builder.h"

namespace {

using namespace fixture;

using names = std::vector<std::string>;

const color_map_t kColours = {{'A', "green"}, {'C', "blue"}, {'G', "black"}, {'T', "red"}};

enum class variant { plain, html, html_space };

struct drawing {
    std::string text;
    names read_names;
};

drawing flow_map(contig& c, variant v, std::int32_t from, int width) {
    drawing d;
    color_map_t colours = kColours;
    if (v == variant::plain) c.print_flow_map_plain(d.text, d.read_names, from, width);
    if (v == variant::html) c.print_flow_map_html(d.text, d.read_names, colours, from, width);
    if (v == variant::html_space)
        c.print_flow_map_html_space(d.text, d.read_names, colours, from, width);
    return d;
}

drawing align_map(contig& c, std::int32_t from, int width, color_map_t* colours = nullptr) {
    drawing d;
    if (colours == nullptr)
        c.print_align_map_plain(d.text, d.read_names, from, width);
    else
        c.print_align_map_html(d.text, d.read_names, *colours, from, width);
    return d;
}

std::string font(const std::string& colour, const std::string& text) {
    return "<font color=" + colour + ">" + text + "</font>";
}

// Line k (from 0) of a drawing, without its line end.
std::string line(const std::string& text, int k) {
    std::istringstream lines(text);
    std::string l;
    for (int i = 0; i <= k; ++i) std::getline(lines, l);
    return l;
}

// Rows {a, e}, {d, f}, {b}. Seen through columns 4 to 8, two past the consensus: "a" ends
// before the window, "d" on its first column, "e" runs past the consensus, "f" starts inside.
contig window_contig() {
    return make_contig(
        "ACGTAC",
        {{"a", 1, "ACG"}, {"d", 2, "CGT"}, {"b", 3, "GTAC"}, {"e", 4, "TACGG"}, {"f", 6, "C"}});
}

TEST(FlowMap, OneReadInEachVariant) {
    contig c = make_contig("ACGT", {{"r", 1, "ACGT"}});
    std::string out = "kept|";
    names read_names;
    c.print_flow_map_plain(out, read_names, 1, 4);
    EXPECT_EQ(out, "kept| A C G T\n 1 1 1 1\n");
    EXPECT_EQ(read_names, names{"r"});

    EXPECT_EQ(flow_map(c, variant::html, 1, 4).text,
              font("green", "A") + font("blue", "C") + font("black", "G") + font("red", "T") +
                  "\n" + font("green", "1") + font("blue", "1") + font("black", "1") +
                  font("red", "1") + "\n");
    EXPECT_EQ(flow_map(c, variant::html_space, 1, 4).text,
              font("green", "A") + " " + font("blue", "C") + " " + font("black", "G") + " " +
                  font("red", "T") + "\n" + font("green", "1") + font("blue", " 1") +
                  font("black", " 1") + font("red", " 1") + "\n");

    color_map_t partial = {{'A', "green"}, {'C', "blue"}, {'G', "black"}};
    out.clear();
    c.print_flow_map_html(out, read_names, partial, 1, 4);
    EXPECT_EQ(partial.at('T'), "");  // a letter without a colour gains an empty one
    EXPECT_TRUE(line(out, 0).ends_with("<font color=>T</font>")) << out;
}

TEST(FlowMap, CountsOfTenAndMoreAreLetters) {
    const std::string read = std::string(9, 'A') + std::string(10, 'C') + std::string(11, 'G') +
                             std::string(12, 'T') + std::string(35, 'A');
    contig c = make_contig(read, {{"r", 1, read}});
    // 55 + n: 10 is A, 11 is B, 12 is C, 35 is Z.
    EXPECT_EQ(flow_map(c, variant::plain, 1, 77).text, " A C G T A\n 9 A B C Z\n");
}

TEST(FlowMap, ReadsStartingInsideTheWindowAreIndented) {
    // "s" begins on flow G, two flows after the header's first.
    contig c = make_contig("ACGT", {{"r", 1, "ACGT"}, {"s", 3, "GT"}});
    EXPECT_EQ(flow_map(c, variant::plain, 1, 4).text, " A C G T\n 1 1 1 1\n     1 1\n");
    EXPECT_EQ(line(flow_map(c, variant::html, 1, 4).text, 2),
              "  " + font("black", "1") + font("red", "1"));
    EXPECT_EQ(line(flow_map(c, variant::html_space, 1, 4).text, 2),
              "    " + font("black", "1") + font("red", " 1"));
    // "r" starts before the window and gets no indent; "s" now starts one flow in.
    EXPECT_EQ(flow_map(c, variant::plain, 2, 3).text, " C G T\n 1 1 1\n   1 1\n");

    // A later read of a row is indented from the flow just after the read before it.
    contig row = make_contig("ACGT", {{"x", 1, "AC"}, {"y", 4, "T"}, {"z", 1, "ACGT"}});
    const drawing d = flow_map(row, variant::plain, 1, 4);
    EXPECT_EQ(d.text, " A C G T\n 1 1   1\n 1 1 1 1\n");
    EXPECT_EQ(d.read_names, (names{"x", "y", "z"}));
}

TEST(FlowMap, OnlyReadsInTheWindowAreDrawn) {
    contig c = make_contig("ACGT", {{"a", 1, "AC"}, {"b", 1, "ACGT"}});
    const drawing d = flow_map(c, variant::plain, 3, 2);
    EXPECT_EQ(d.text, " G T\n 1 1\n");  // the row of "a" adds not even a line end
    EXPECT_EQ(d.read_names, names{"b"});

    // Reads running past the consensus are counted up to its last column only.
    contig past = window_contig();
    const drawing p = flow_map(past, variant::plain, 4, 5);
    EXPECT_EQ(p.text, " T A C\n 1 1 1\n 1   1\n 1 1 1\n");
    EXPECT_EQ(p.read_names, (names{"e", "d", "f", "b"}));

    contig empty = make_contig("ACGT");
    EXPECT_EQ(flow_map(empty, variant::plain, 1, 4).text, "\n");  // no flows: no header cells
}

TEST(FlowMap, ColumnOneAfterAPadOrAnN) {
    // Flow 0 is then a T that no read need open; the header starts at the first flow of
    // column 1, and a read starting in column 2 is indented from there.
    const std::tuple<std::string, std::vector<placed_read>, std::string> cases[] = {
        {"*CG", {{"r", 1, "ACG"}, {"s", 1, "GCG"}}, " A G C G\n 1 0 1 1\n 0 1 1 1\n"},
        {"NCG", {{"r", 1, "NCG"}}, " T C G\n 0 1 1\n"},
        {"*AC", {{"r", 2, "AC"}}, " T A C\n   1 1\n"},
    };
    for (const auto& [consensus, reads, text] : cases) {
        contig c = make_contig(consensus, reads);
        EXPECT_EQ(flow_map(c, variant::plain, 1, 3).text, text) << consensus;
    }
}

TEST(ToHTML, ColoursRunsAndLeavesOtherCharacters) {
    contig c;
    const color_map_t colours = {{'A', "green"}, {'C', "blue"}};
    std::string out = "x";
    c.toHTML(out, chars("AAC*G"), colours);
    EXPECT_EQ(out, "x" + font("green", "AA") + font("blue", "C") + "*G");

    out.clear();
    c.toHTML(out, chars(""), colours);
    EXPECT_EQ(out, "");
    c.toHTML(out, chars("TG*T"), colours);
    EXPECT_EQ(out, "TG*T");
}

TEST(AlignMap, WholeContig) {
    // Rows {a, b, c} and {d, e}: "b" abuts "a"; "e" starts two columns after "d" ends.
    contig c = make_contig("ACGTACGTACGT", {{"a", 1, "ACGTA"},
                                            {"b", 6, "CGT"},
                                            {"c", 10, "CGT"},
                                            {"d", 3, "GTACG"},
                                            {"e", 10, "cgt"}});
    std::ostringstream plain;
    c.print_align_map(plain);
    EXPECT_EQ(plain.str(), "ACGTACGTACGT\nACGTACGT CGT\n  GTACG  cgt\n");

    contig small = make_contig("AAC", {{"x", 1, "AAC"}, {"y", 3, "C"}, {"z", 3, "C"}});
    color_map_t colours = {{'A', "green"}};
    std::ostringstream html;
    small.print_align_map_html(html, colours);
    EXPECT_EQ(html.str(), font("green", "AA") + "C\n" + font("green", "AA") + "C\n  C\n  C\n");
}

TEST(AlignMap, Window) {
    contig c = window_contig();
    drawing d = align_map(c, 4, 5);
    EXPECT_EQ(d.text, "TAC\nTACGG\nT C\nTAC\n");
    EXPECT_EQ(d.read_names, (names{"e", "d", "f", "b"}));
    d = align_map(c, 5, 2);
    EXPECT_EQ(d.text, "AC\nAC\n C\nAC\n");
    EXPECT_EQ(d.read_names, (names{"e", "f", "b"}));

    color_map_t colours = {{'T', "red"}};
    d = align_map(c, 4, 5, &colours);
    const std::string t = font("red", "T");
    EXPECT_EQ(d.text, t + "AC\n" + t + "ACGG\n" + t + " C\n" + t + "AC\n");

    // As a grid the same window stops at the consensus end.
    std::vector<std::vector<char>> columns;
    std::vector<std::map<std::int32_t, std::string>> rows;
    c.align_seq(columns, rows, 4, 5);
    EXPECT_EQ(columns,
              (std::vector<std::vector<char>>{{'T', 'T', 'T'}, {'A', '0', 'A'}, {'C', 'C', 'C'}}));
    EXPECT_EQ(rows, (std::vector<std::map<std::int32_t, std::string>>{
                        {{2, "e"}}, {{0, "d"}, {2, "f"}}, {{2, "b"}}}));
    // A grid whose window ends before column 0 runs to the consensus end; one ending at
    // column 0 has no columns.
    for (const auto& [from, width, size] : {std::tuple{1, -5, 6u}, {-2, 1, 9u}, {1, 0, 0u}}) {
        columns.clear();
        rows.clear();
        c.align_seq(columns, rows, from, width);
        EXPECT_EQ(columns.size(), size) << from << ' ' << width;
    }

    // With the shortest read 3 long, "g" starting in the last two columns is not drawn,
    // unless no shortest length narrows the search.
    contig bounded = window_contig();
    bounded.reads.erase("f");
    add_read(bounded, "g", 5, 3, "ACG");
    d = align_map(bounded, 4, 3);
    EXPECT_EQ(d.text, "TAC\nTAC\nT\nTAC\n");
    EXPECT_EQ(d.read_names, (names{"e", "d", "b"}));
    bounded.min_read_len = 0;
    d = align_map(bounded, 4, 3);
    EXPECT_EQ(d.text, "TAC\nTAC\nTAC\nTAC\n");
    EXPECT_EQ(d.read_names, (names{"e", "d", "g", "b"}));
}

}  // namespace

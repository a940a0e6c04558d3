// The browser's pages, built without a server: escaping of everything that comes from the
// input files, windows (reads that start inside them, clamps, both ends of a contig), the
// read page with its SFF record, and the 400 and 404 answers.

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "ace_writer.h"
#include "assembly.h"
#include "html.h"
#include "pages.h"
#include "read_source.h"
#include "run_tool.h"
#include "sff_builder.h"
#include "window_maps.h"

namespace {

using namespace fixture;
using browse::window_query;

// A read name that is markup: ACE names cannot hold blanks, so the attribute separators are
// slashes, which HTML parsers take as blanks all the same.
const std::string kEvilRead = "<img/src=x/onerror=alert(1)>";
const std::string kEvilContig = "c<b>&\"1";

std::string repeat(const std::string& unit, std::size_t n) {
    std::string s;
    while (s.size() < n) s += unit;
    return s.substr(0, n);
}

// An assembly written to disk and read by the browser, with SFF files when given.
struct site_fixture {
    temp_dir dir;
    browse::read_source sff;
    browse::assembly ace;
    browse::site site;

    site_fixture(const std::vector<ace_contig>& contigs,
                 const std::vector<sff_file_layout>& sffs = {})
        : sff(write_sffs(dir, sffs)), ace(write_ace(dir, contigs)), site(ace, sff) {
        ace.count_found(sff);
    }
    static std::string write_ace(const temp_dir& d, const std::vector<ace_contig>& contigs) {
        write_file(d / "a.ace", ace_file_text(contigs));
        return d / "a.ace";
    }
    static std::vector<std::string> write_sffs(const temp_dir& d,
                                               const std::vector<sff_file_layout>& sffs) {
        std::vector<std::string> paths;
        for (std::size_t i = 0; i < sffs.size(); ++i) {
            paths.push_back(d / ("r" + std::to_string(i) + ".sff"));
            write_file(paths.back(), build_sff(sffs[i]));
        }
        return paths;
    }
    browse::response contig(const std::string& name, std::optional<std::string> from = {},
                            std::optional<std::string> width = {}) {
        return site.contig(name, window_query{std::move(from), std::move(width)});
    }
};

// Contig "w" of 400 columns whose reads are 100 long: r1 starts before the window 101..200,
// the others inside it, r5 in its last column.
ace_contig window_contig() {
    const std::string cons = repeat("ACGTTGCA", 400);
    auto part = [&](int start) { return cons.substr(static_cast<std::size_t>(start - 1), 100); };
    return {"w",
            cons,
            {{"r1", 60, part(60)},
             {"r2", 101, part(101)},
             {"r3", 150, part(150)},
             {"r4", 190, part(190)},
             {"r5", 200, part(200)},
             {"r6", 301, part(301)}}};
}

bool contains(const std::string& s, const std::string& part) {
    return s.find(part) != std::string::npos;
}

TEST(BrowseWindow, EveryReadOverTheShownColumnsIsDrawnAndNothingBeyond) {
    site_fixture f({window_contig()});
    browse::assembly::load_result loaded;
    auto b = f.ace.load(0, loaded);
    ASSERT_NE(b, nullptr);

    // What the library's own selection would leave out of this window.
    std::string text;
    std::vector<std::string> drawn;
    b->c.print_align_map_plain(text, drawn, 101, 100);
    EXPECT_EQ(drawn, (std::vector<std::string>{"r1", "r2"}));

    for (bool html : {false, true}) {
        SCOPED_TRACE(html);
        const browse::drawn_map a = browse::align_map(*b, 101, 200, html);
        const browse::drawn_map fl = browse::flow_map(*b, 101, 200, html);
        std::vector<std::string> names;
        for (const auto& row : a.names) names.insert(names.end(), row.begin(), row.end());
        // Rows: r1 then r4; r2; r3; r5.
        EXPECT_EQ(names, (std::vector<std::string>{"r1", "r4", "r2", "r3", "r5"}));
        EXPECT_EQ(fl.names, a.names);
        if (!html) {
            EXPECT_EQ(a.lines[0], window_contig().consensus.substr(100, 100));
            for (const std::string& line : a.lines) EXPECT_LE(line.size(), 100u);
            EXPECT_EQ(a.lines[2].find_first_not_of(' '), 0u);   // r2 starts in the first column
            EXPECT_EQ(a.lines[4].find_first_not_of(' '), 99u);  // r5 in the last
            EXPECT_EQ(a.lines[4].size(), 100u);
            EXPECT_EQ(a.lines[1].size(), 100u);  // r4 cut at the window's end
        }
    }
    // The names the library drew with the widened window are those listed per line.
    text.clear();
    drawn.clear();
    b->c.print_align_map_plain(text, drawn, 101, browse::library_width(b->c, 101, 200));
    std::vector<std::string> by_row;
    for (const auto& row : browse::reads_by_row(b->c, 101, 200))
        by_row.insert(by_row.end(), row.begin(), row.end());
    EXPECT_EQ(drawn, by_row);
}

TEST(BrowseWindow, LibraryHtmlAndPlainDrawTheSameCharacters) {
    site_fixture f({window_contig()});
    browse::assembly::load_result loaded;
    auto b = f.ace.load(0, loaded);
    ASSERT_TRUE(b->html_safe);
    auto strip = [](const std::string& html) {
        std::string out;
        bool tag = false;
        for (char c : html) {
            if (c == '<') tag = true;
            if (!tag) out += c;
            if (c == '>') tag = false;
        }
        return out;
    };
    const auto plain = browse::align_map(*b, 150, 230, false);
    const auto html = browse::align_map(*b, 150, 230, true);
    EXPECT_TRUE(html.from_library_html);
    ASSERT_EQ(plain.lines.size(), html.lines.size());
    for (std::size_t i = 0; i < plain.lines.size(); ++i)
        EXPECT_EQ(strip(html.lines[i]), plain.lines[i]);

    // Flow maps: the spaced HTML map has no blank before its first cell.
    const auto fplain = browse::flow_map(*b, 150, 230, false);
    const auto fhtml = browse::flow_map(*b, 150, 230, true);
    ASSERT_EQ(fplain.lines.size(), fhtml.lines.size());
    EXPECT_EQ(" " + strip(fhtml.lines[0]), fplain.lines[0]);

    EXPECT_EQ(browse::cut_line("<font color=red>AAA</font><font color=blue>C</font>", 2, true),
              "<font color=red>AA</font>");
    EXPECT_EQ(browse::cut_line("<font color=red>AA</font>C", 2, true), "<font color=red>AA</font>");
}

TEST(BrowseWindow, QueriesAreCheckedAndClampedAtTheContigEnd) {
    struct row {
        std::optional<std::string> from, width;
        std::int64_t want_from, want_last;
        const char* error;  // part of the reason, or empty
    };
    const std::vector<row> rows = {
        {{}, {}, 1, 100, ""},
        {"301", "200", 301, 400, ""},  // cut at column 400
        {"400", "1", 400, 400, ""},
        {"1", "2000", 1, 400, ""},
        {"0", {}, 0, 0, "at least 1"},
        {"401", {}, 0, 0, "past the contig's last column, 400"},
        {"-5", {}, 0, 0, "column number"},
        {"12x", {}, 0, 0, "column number"},
        {"", {}, 0, 0, "column number"},
        {"99999999999999999999", {}, 0, 0, "column number"},
        {{}, "0", 0, 0, "between 1 and 2000"},
        {{}, "2001", 0, 0, "between 1 and 2000"},
        {{}, "wide", 0, 0, "whole number"},
    };
    for (const row& r : rows) {
        const browse::window w = browse::check_window({r.from, r.width}, 400);
        SCOPED_TRACE(r.from.value_or("-") + " " + r.width.value_or("-"));
        if (*r.error != '\0') {
            EXPECT_TRUE(contains(w.error, r.error)) << w.error;
        } else {
            EXPECT_EQ(w.error, "");
            EXPECT_EQ(w.from, r.want_from);
            EXPECT_EQ(w.last, r.want_last);
        }
    }

    site_fixture f({window_contig()});
    const auto bad = f.contig("w", "0");
    EXPECT_EQ(bad.status, 400);
    EXPECT_TRUE(contains(bad.body, "from must be at least 1"));
    EXPECT_EQ(f.contig("w.txt", {}, "x").status, 400);
    EXPECT_EQ(f.contig("w", "250", "2001").status, 400);
}

TEST(BrowseWindow, NavigationAtBothEnds) {
    site_fixture f({window_contig()});
    const auto first = f.contig("w", "1", "100");
    ASSERT_EQ(first.status, 200);
    EXPECT_TRUE(contains(first.body, "<span class=\"off\">&#8592; previous 100</span>"));
    EXPECT_TRUE(contains(first.body, "href=\"/contig/w?from=101&amp;width=100\">next 100"));
    EXPECT_TRUE(contains(first.body, "Columns 1 to 100 are drawn"));

    const auto middle = f.contig("w", "50", "100");
    EXPECT_TRUE(contains(middle.body, "href=\"/contig/w?from=1&amp;width=100\">&#8592; previous"));

    const auto last = f.contig("w", "351", "100");
    ASSERT_EQ(last.status, 200);
    EXPECT_TRUE(contains(last.body, "href=\"/contig/w?from=251&amp;width=100\">&#8592; previous"));
    EXPECT_TRUE(contains(last.body, "<span class=\"off\">next 100 &#8594;</span>"));
    EXPECT_TRUE(contains(last.body, "Columns 351 to 400 are drawn"));
    EXPECT_TRUE(contains(last.body, "cut at the contig's last column"));
    for (const char* width : {"50", "100", "200", "500"})
        EXPECT_TRUE(contains(last.body, std::string("from=351&amp;width=") + width + "\""));
    EXPECT_TRUE(contains(last.body, "<svg class=\"depth\""));
    EXPECT_TRUE(contains(last.body, "<a href=\"/read/r6\">r6</a>"));

    const auto text = f.contig("w.txt", "101", "100");
    EXPECT_EQ(text.content_type, "text/plain; charset=utf-8");
    EXPECT_TRUE(contains(text.body, "columns 101 to 200 of 400, 5 reads"));
}

TEST(BrowsePages, UnknownNamesAreNotFound) {
    site_fixture f({window_contig()});
    EXPECT_EQ(f.contig("nope").status, 404);
    EXPECT_EQ(f.contig("nope.txt").status, 404);
    EXPECT_EQ(f.site.read("nope").status, 404);
    EXPECT_EQ(f.site.read("nope.flows.tsv").status, 404);
    EXPECT_EQ(f.site.read("r1.flows.tsv").status, 404);  // placed, but in no SFF file
    const auto placed = f.site.read("r1");
    EXPECT_EQ(placed.status, 200);
    EXPECT_TRUE(contains(placed.body, "No SFF file given to the server holds this read."));
    const auto missing = f.site.not_found("Nothing is served at /<x>.");
    EXPECT_EQ(missing.status, 404);
    EXPECT_TRUE(contains(missing.body, "/&lt;x&gt;"));
}

TEST(BrowsePages, NothingFromTheFilesReachesAPageUnescaped) {
    // Markup in a contig name, a read name and in sequences.
    const std::string cons = "ACG<T&A\"CGTACGTAC";
    site_fixture f(
        {{kEvilContig, cons, {{kEvilRead, 1, "ACG<T&A\"CG"}, {"plain", 4, "<T&A\"CGTAC"}}}});
    ASSERT_EQ(f.ace.contigs.size(), 1u);
    ASSERT_EQ(f.ace.contigs[0].name, kEvilContig);

    std::vector<std::string> bodies = {
        f.site.overview().body, f.contig(kEvilContig).body, f.contig(kEvilContig, "3", "5").body,
        f.site.read(kEvilRead).body, f.site.not_found(kEvilRead).body};
    for (const std::string& body : bodies) {
        EXPECT_FALSE(contains(body, "<img")) << body;
        EXPECT_FALSE(contains(body, "<b>&")) << body;
        EXPECT_FALSE(contains(body, "G<T")) << body;
        EXPECT_FALSE(contains(body, "&A")) << body;
    }
    EXPECT_TRUE(contains(bodies[0], "c&lt;b&gt;&amp;&quot;1"));
    EXPECT_TRUE(contains(bodies[0], "href=\"/contig/c%3Cb%3E%26%221\""));
    EXPECT_TRUE(contains(bodies[1], "&lt;img/src=x/onerror=alert(1)&gt;</a>"));
    EXPECT_TRUE(contains(bodies[1], "href=\"/read/%3Cimg%2Fsrc%3Dx%2Fonerror%3Dalert%281%29%3E\""));
    EXPECT_TRUE(contains(bodies[1], "&lt;"));
    EXPECT_TRUE(contains(bodies[1], "&amp;"));
    EXPECT_TRUE(contains(bodies[1], "&quot;"));
    EXPECT_TRUE(contains(bodies[3], "Read &lt;img/src=x/onerror=alert(1)&gt;"));

    // The text page carries the names as they are: it is served as plain text.
    const auto text = f.contig(kEvilContig + ".txt");
    EXPECT_EQ(text.content_type, "text/plain; charset=utf-8");
    EXPECT_TRUE(contains(text.body, kEvilRead));
}

TEST(BrowsePages, OverviewCountsAndReadPageFromTheSffRecord) {
    const std::string flows = tacg_flows(40);
    sff_file_layout sff;
    sff.number_of_flows_per_read = 40;
    sff.reads.push_back(make_read("r2", "TCAGACGTTGCAACGT", flows, {}, 3));
    sff.reads.back().clip_qual_left = 5;
    sff.reads.push_back(make_read("lone", "TCAGGG", flows, {}, 4));
    site_fixture f({window_contig(), {"empty", "", {}}}, {sff});

    const auto overview = f.site.overview();
    EXPECT_TRUE(contains(overview.body, "<dt>contigs</dt><dd>2</dd>"));
    EXPECT_TRUE(contains(overview.body, "<dt>reads placed</dt><dd>6</dd>"));
    EXPECT_TRUE(contains(overview.body, "<dt>reads found in the SFF files</dt><dd>1</dd>"));
    EXPECT_TRUE(contains(overview.body, "<dt>consensus columns</dt><dd>400</dd>"));
    EXPECT_TRUE(contains(overview.body, "(2 reads)"));
    EXPECT_TRUE(contains(overview.body, "<a href=\"/contig/empty\">empty</a>"));
    EXPECT_EQ(f.contig("empty").status, 400);  // no column to show

    const auto read = f.site.read("r2");
    ASSERT_EQ(read.status, 200);
    EXPECT_TRUE(contains(read.body, "href=\"/contig/w?from=81&amp;width=100\">w</a>"));
    EXPECT_TRUE(contains(read.body, "<svg class=\"quality\""));
    EXPECT_TRUE(contains(read.body, "<svg class=\"flowgram\""));
    EXPECT_TRUE(contains(read.body, "kept 5 to 16"));
    EXPECT_TRUE(contains(read.body, "<title>key flows</title>"));

    const auto lone = f.site.read("lone");
    EXPECT_TRUE(contains(lone.body, "Not placed in any contig"));

    const auto bases = f.site.read("r2.bases.tsv");
    EXPECT_EQ(bases.attachment, "r2.bases.tsv");
    EXPECT_TRUE(bases.body.starts_with("base\tnucleotide\tquality\tflow\tkept\n1\tT\t30\t0\t0\n"));
    EXPECT_TRUE(contains(bases.body, "\n5\tA\t30\t"));
    EXPECT_TRUE(contains(bases.body, "\n16\tT\t30\t"));
    const auto flowgram = f.site.read("r2.flows.tsv");
    EXPECT_EQ(std::count(flowgram.body.begin(), flowgram.body.end(), '\n'), 41);
    EXPECT_TRUE(flowgram.body.starts_with("flow\tnucleotide\tvalue\n0\tT\t"));
}

TEST(BrowsePages, ChangedFilesAreRefusedNotRead) {
    site_fixture f({window_contig()});
    write_file(f.dir / "a.ace", "AS 1 1\n\nCO w 4 1 1 U\nAC\n\nAF r1 U 1\n");
    const auto page = f.contig("w");
    EXPECT_EQ(page.status, 500);
    EXPECT_TRUE(contains(page.body, "restart the server"));
}

}  // namespace

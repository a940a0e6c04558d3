// The browser's pages, built without a server: escaping of everything that comes from the
// input files, windows (reads that start inside them or before the contig, lower-case reads,
// clamps, both ends of a contig, bounded rows), the read page with its SFF record, the
// contig cache, and the 400 and 404 answers.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <sorvexa/ace.h>
#include "ace_writer.h"
#include "run_tool.h"
#include "sff_builder.h"
#include "site.h"

namespace {

using namespace fixture;

browse::request get(std::string path,
                    std::vector<std::pair<std::string, std::string>> params = {}) {
    return {std::move(path), std::move(params)};
}

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
        : site(ace, sff) {
        std::vector<std::string> paths;
        for (std::size_t i = 0; i < sffs.size(); ++i) {
            paths.push_back(dir / ("r" + std::to_string(i) + ".sff"));
            write_file(paths.back(), build_sff(sffs[i]));
        }
        write_file(dir / "a.ace", ace_file_text(contigs));
        EXPECT_TRUE(sff.index(paths).ok);
        EXPECT_TRUE(ace.read(dir / "a.ace").ok);
        ace.count_found(sff);
    }
    browse::response contig(const std::string& name, std::optional<std::string> from = {},
                            std::optional<std::string> width = {},
                            std::optional<std::string> rows = {}) {
        browse::request r = get("/contig/" + name);
        if (from) r.params.emplace_back("from", *from);
        if (width) r.params.emplace_back("width", *width);
        if (rows) r.params.emplace_back("rows", *rows);
        return site.serve(r);
    }
    browse::response read(const std::string& name) { return site.serve(get("/read/" + name)); }
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

// The reads of window_contig with their records, the key before each.
sff_file_layout window_reads() {
    sff_file_layout sff;
    for (const fixture::ace_read& r : window_contig().reads)
        sff.reads.push_back(make_read(r.name, "TCAG" + r.sequence, tacg_flows(400), {}, 3));
    return sff;
}

bool contains(const std::string& s, const std::string& part) {
    return s.find(part) != std::string::npos;
}

std::vector<std::string> names_of(const window_grid& g) {
    std::vector<std::string> names;
    for (const auto& row : g.reads)
        for (const window_read& r : row) names.push_back(r.name);
    return names;
}

TEST(BrowseWindow, EveryReadOverTheShownColumnsIsDrawnAndNothingBeyond) {
    site_fixture f({window_contig()});
    auto b = f.ace.load(0);
    ASSERT_NE(b, nullptr);

    window_page v;
    ASSERT_TRUE(page_of_window(b->d, 101, 200, 1, browse::rows_per_page(100), v));
    const window_grid& g = v.grid;
    // Rows: r1 then r4; r2; r3; r5.
    EXPECT_EQ(names_of(g), (std::vector<std::string>{"r1", "r4", "r2", "r3", "r5"}));
    EXPECT_EQ(v.reads_over, 5);
    EXPECT_EQ(v.reads_shown, 5);
    EXPECT_EQ(g.consensus, window_contig().consensus.substr(100, 100));
    for (const std::string& line : g.bases) EXPECT_EQ(line.size(), 100u);
    EXPECT_EQ(g.bases[1].find_first_not_of(' '), 0u);   // r2 starts in the first column
    EXPECT_EQ(g.bases[3].find_first_not_of(' '), 99u);  // r5 in the last
    EXPECT_EQ(g.bases[0].find_last_not_of(' '), 99u);   // r4 cut at the window's end
    EXPECT_EQ(g.reads[0][0].first, 101);                // r1 cut at its start
    for (std::size_t r = 0; r < g.counts.size(); ++r) {
        ASSERT_EQ(g.counts[r].size(), static_cast<std::size_t>(g.flows));
        EXPECT_GT(*std::max_element(g.counts[r].begin(), g.counts[r].end()), 0) << r;
    }

    // The plain text lists the same reads row by row.
    const auto page = f.contig("w.txt", "101", "100");
    EXPECT_TRUE(contains(page.body, "showing 5 of 5 reads"));
    EXPECT_TRUE(contains(page.body, "\nr1 r4\nr2\nr3\nr5\n"));
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
        browse::request q;
        if (r.from) q.params.emplace_back("from", *r.from);
        if (r.width) q.params.emplace_back("width", *r.width);
        const browse::window w = browse::check_window(q, 400);
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
    EXPECT_TRUE(contains(first.body, "<span class=\"off\">← previous 100</span>"));
    EXPECT_TRUE(contains(first.body, "href=\"/contig/w?from=101&amp;width=100\">next 100"));
    EXPECT_TRUE(contains(first.body, "Columns 1 to 100 are drawn"));

    const auto middle = f.contig("w", "50", "100");
    EXPECT_TRUE(contains(middle.body, "href=\"/contig/w?from=1&amp;width=100\">← previous"));

    const auto last = f.contig("w", "351", "100");
    ASSERT_EQ(last.status, 200);
    EXPECT_TRUE(contains(last.body, "href=\"/contig/w?from=251&amp;width=100\">← previous"));
    EXPECT_TRUE(contains(last.body, "<span class=\"off\">next 100 →</span>"));
    EXPECT_TRUE(contains(last.body, "Columns 351 to 400 are drawn"));
    EXPECT_TRUE(contains(last.body, "cut at the contig&#39;s last column"));
    for (const char* width : {"50", "100", "200", "500"})
        EXPECT_TRUE(contains(last.body, std::string("from=351&amp;width=") + width + "\""));
    EXPECT_TRUE(contains(last.body, "<svg class=\"depth\""));
    EXPECT_TRUE(contains(last.body, "<a href=\"/read/r6\">r6</a>"));

    const auto text = f.contig("w.txt", "101", "100");
    EXPECT_EQ(text.content_type, "text/plain; charset=utf-8");
    EXPECT_TRUE(contains(text.body, "columns 101 to 200 of 400, showing 5 of 5 reads"));
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

// Reads the assembly edited after they were flowed (as some assemblers do) cannot be tied to
// their flows, and reads in no SFF file give none: such a contig has no disputed run, and
// says it was not checked rather than clean.
TEST(BrowsePages, AContigTheReadsDidNotWeighIsMarkedUnchecked) {
    sff_file_layout sff;
    for (const std::string name : {"r1", "r2", "r3", "r4", "r5", "r6"})
        sff.reads.push_back(make_read(name, "TCAG" + repeat("AAC", 120), tacg_flows(400), {}, 7));
    site_fixture f({window_contig(), named_reads("absent", {"x1", "x2"})}, {sff});
    browse::evidence_store evidence(f.ace, f.sff);
    f.site.evidence = &evidence;
    evidence.count_in_background();
    for (int k = 0; k < 1000 && evidence.disputed_runs(1) < 0; ++k)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_GE(evidence.disputed_runs(1), 0);

    const std::string overview = f.site.overview().body;
    const std::string mark = "<td data-v=\"-1\" class=\"unchecked\"><strong>unchecked</strong>";
    const std::size_t first = overview.find(mark);
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(overview.find(mark, first + 1), std::string::npos);
    EXPECT_TRUE(contains(overview, ">0 / 6 / 0<"));
    EXPECT_TRUE(contains(overview, ">0 / 0 / 2<"));
    const std::string w = f.contig("w").body;
    EXPECT_TRUE(
        contains(w, "Weighed: 0 of 6 reads tied to their flows (6 untied, 0 in no SFF file)"));
    EXPECT_TRUE(contains(w, "<strong class=\"unchecked\">Unchecked</strong>"));
    EXPECT_TRUE(
        contains(f.contig("absent").body, "<strong class=\"unchecked\">Unchecked</strong>"));
}

// Each SFF file's values spread as its own model says: a run's page draws the model of the
// files whose reads measured it, and no other.
TEST(BrowsePages, RunPageShowsTheModelOfTheFileThatMeasuredTheRun) {
    sff_file_layout first = window_reads(), second;
    second.reads.push_back(first.reads.back());  // r6
    first.reads.pop_back();
    site_fixture f({window_contig()}, {first, second});
    browse::evidence_store evidence(f.ace, f.sff);
    f.site.evidence = &evidence;
    const auto e = evidence.get(0);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->report.coverage.reads.tied, 6);
    // Columns 160..199 lie under r2 and r3 alone, 310..390 under r6 alone.
    auto page_of_run_within = [&](std::int32_t from, std::int32_t to) {
        for (const hp_run& r : e->check.runs)
            if (r.column >= from && r.column <= to && r.signals > 0)
                return f.site.serve(get("/contig/w/run/" + std::to_string(r.column))).body;
        return std::string();
    };
    const std::string early = page_of_run_within(160, 199), late = page_of_run_within(310, 390);
    EXPECT_TRUE(contains(early, "<tr><td>" + f.dir / "r0.sff" + "</td><td>solid</td>"));
    EXPECT_FALSE(contains(early, "r1.sff"));
    EXPECT_TRUE(contains(late, "<tr><td>" + f.dir / "r1.sff" + "</td><td>solid</td>"));
    EXPECT_FALSE(contains(late, "r0.sff"));
}

TEST(BrowsePages, ChangedFilesAreRefusedNotRead) {
    site_fixture f({window_contig()});
    write_file(f.dir / "a.ace", "AS 1 1\n\nCO w 4 1 1 U\nAC\n\nAF r1 U 1\n");
    const auto page = f.contig("w");
    EXPECT_EQ(page.status, 500);
    EXPECT_TRUE(contains(page.body, "restart the server"));
}

TEST(BrowseWindow, ReadsBeforeColumnOneAndLowerCaseBasesAreDrawn) {
    // "early" starts 5 columns before the consensus, "lower" is lower case: the library's
    // layout leaves the first out and its flow count stops at the second's first base.
    const std::string cons = repeat("ACGTTGCA", 200);
    std::string lower = cons.substr(9, 60);
    for (char& ch : lower) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    site_fixture f({{"m",
                     cons,
                     {{"early", -4, "TTGCA" + cons.substr(0, 55)},
                      {"lower", 10, lower},
                      {"gone", -30, cons.substr(0, 20)}}}});
    auto b = f.ace.load(0);
    window_page v;
    ASSERT_TRUE(page_of_window(b->d, 1, 100, 1, browse::rows_per_page(100), v));
    EXPECT_EQ(names_of(v.grid), (std::vector<std::string>{"early", "lower"}));
    EXPECT_EQ(v.grid.bases[0].substr(0, 55), cons.substr(0, 55));
    EXPECT_EQ(v.grid.bases[1].substr(9, 60), cons.substr(9, 60));  // drawn in capitals
    for (const auto& counts : v.grid.counts) {
        int bases = 0;
        for (std::int16_t n : counts) bases += std::max<int>(n, 0);
        EXPECT_GE(bases, 55);  // every base counted, none stopped at a lower-case letter
    }
    EXPECT_EQ(b->depth.max, 2);

    // The read's page tells where the file places it, and links to a window that draws it.
    const auto page = f.read("early");
    EXPECT_TRUE(contains(page.body, "<dd>-4 (before the consensus"));
    EXPECT_TRUE(contains(page.body, "href=\"/contig/m?from=1&amp;width=100\""));
    EXPECT_TRUE(contains(f.read("gone").body, "<dd>-30 (before the consensus"));
    EXPECT_TRUE(contains(f.contig("m").body, "Bases are drawn in capitals"));
}

// The consensus qualities of the ACE file as a row over the consensus (pads have none),
// kept only when the reader is asked to.
TEST(BrowseWindow, ConsensusQualitiesAreARow) {
    std::string text = ace_file_text({{"q", "ACG*TA", {{"r1", 1, "ACG*TA"}}}});
    const std::size_t at = text.find("BQ\n20\n");
    ASSERT_NE(at, std::string::npos);
    text.replace(at, 6, "BQ\n 10 20 35\n40 99\n");
    site_fixture f({});
    write_file(f.dir / "q.ace", text);
    browse::assembly ace;
    ASSERT_TRUE(ace.read(f.dir / "q.ace").ok);
    auto b = ace.load(0);
    window_page v;
    ASSERT_TRUE(page_of_window(b->d, 2, 6, 1, browse::rows_per_page(5), v));
    EXPECT_EQ(v.quality, (std::vector<std::int16_t>{20, 35, -1, 40, 99}));
    browse::site s(ace, f.sff);
    EXPECT_TRUE(contains(s.serve(get("/contig/q")).body, "<span class=\"bq\">123 49</span>"));

    aceReader plain(f.dir / "q.ace");
    contig c;
    ASSERT_EQ(plain.next_contig(c), 1);
    EXPECT_TRUE(c.base_qualities.empty());
}

// A contig 450 reads deep over one window: pages of at most rows_per_page rows, each an even
// sample of the whole depth, together every read once.
TEST(BrowseWindow, DeepWindowsArePagedInBoundedRows) {
    const std::string cons = repeat("ACGTTGCA", 320);
    ace_contig deep{"deep", cons, {}};
    for (int i = 0; i < 450; ++i)
        deep.reads.push_back({"d" + std::to_string(1000 + i), 1 + i % 7, cons.substr(i % 7, 200)});
    site_fixture f({deep});
    EXPECT_EQ(browse::rows_per_page(100), browse::max_rows);
    EXPECT_EQ(browse::rows_per_page(2000), browse::min_rows);

    std::vector<std::string> seen;
    for (int p = 1; p <= 3; ++p) {
        const auto text = f.contig("deep.txt", "50", "100", std::to_string(p));
        ASSERT_EQ(text.status, 200) << p << text.body;
        const std::size_t at =
            text.body.find("# reads of each row above", text.body.find("# alignment"));
        std::size_t rows = 0;
        for (std::size_t i = text.body.find('\n', at) + 1; i < text.body.size();) {
            const std::size_t nl = text.body.find('\n', i);
            seen.push_back(text.body.substr(i, nl - i));
            ++rows;
            i = nl + 1;
        }
        EXPECT_LE(rows, static_cast<std::size_t>(browse::max_rows));
        EXPECT_GE(rows, 149u);
        EXPECT_TRUE(contains(text.body, "of 450 reads (rows page " + std::to_string(p) + " of 3"));
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(std::unique(seen.begin(), seen.end()), seen.end());
    EXPECT_EQ(seen.size(), 450u);
    const auto first = f.contig("deep", "50", "100");
    EXPECT_TRUE(contains(first.body, "showing 150 of 450 reads"));
    EXPECT_TRUE(contains(first.body, "href=\"/contig/deep?from=50&amp;width=100&amp;rows=3\""));
    EXPECT_TRUE(contains(first.body, ">d1000</a>"));
    EXPECT_EQ(f.contig("deep", "50", "100", "4").status, 400);
    EXPECT_EQ(f.contig("deep", "50", "100", "0").status, 400);
    EXPECT_EQ(f.contig("deep.txt", "50", "100", "x").status, 400);
}

TEST(BrowsePages, EveryResponseHasItsOwnNonce) {
    site_fixture f({window_contig()});
    const auto a = f.site.serve(get("/")), b = f.site.serve(get("/"));
    ASSERT_EQ(a.nonce.size(), 32u);
    EXPECT_NE(a.nonce, b.nonce);
    EXPECT_TRUE(contains(a.body, "<script nonce=\"" + a.nonce + "\">"));
    EXPECT_EQ(f.read("r1").nonce, "");  // no script, none allowed
    EXPECT_FALSE(contains(f.read("r1").body, "<script"));
}

TEST(BrowsePages, TheWriterEscapesTextAndTheHolesOfItsMarkup) {
    browse::html h;
    h.fill("<a href=\"{}\" title=\"{}\">{}</a>", "/x?a=1&b=\"2\"", "<i>'", "<b>&</b>").markup("<br>");
    EXPECT_EQ(h.str(),
              "<a href=\"/x?a=1&amp;b=&quot;2&quot;\" "
              "title=\"&lt;i&gt;&#39;\">&lt;b&gt;&amp;&lt;/b&gt;</a>"
              "<br>");
    browse::html c;
    c.text(std::string("a\x01" "b", 3)).fill("{}{}", 7, 'x');
    EXPECT_EQ(c.str(), "a\xEF\xBF\xBD" "b7x");
}

// Of a name held by two SFF files the first file named serves the read, and of two records
// of one name in one file the last, as in the tool.
TEST(BrowseRecords, TheFirstFileAndInItTheLastRecordOfANameServe) {
    const std::string flows = tacg_flows(40);
    sff_file_layout first, second;
    first.number_of_flows_per_read = second.number_of_flows_per_read = 40;
    first.reads.push_back(make_read("r2", "TCAGACGTTG", flows, {11}, 1));
    second.reads.push_back(make_read("r2", "TCAGTTTT", flows, {22}, 2));
    second.reads.push_back(make_read("x", "TCAGA", flows, {}, 3));
    // The reverse order too: the first file named wins, not the first or last sorted.
    for (bool swap : {false, true}) {
        SCOPED_TRACE(swap);
        site_fixture f({window_contig()},
                       swap ? std::vector{second, first} : std::vector{first, second});
        record_view rec;
        std::string file;
        ASSERT_EQ(browse::fetch(f.sff, "r2", rec, file), browse::fetch_result::ok);
        EXPECT_EQ(file, f.dir / "r0.sff");
        EXPECT_EQ(rec.bases, swap ? "TCAGTTTT" : "TCAGACGTTG");
        EXPECT_EQ(f.sff.reads_in(0), swap ? 2u : 1u);
    }
    first.reads.push_back(second.reads[0]);
    site_fixture one({window_contig()}, {first});
    const auto tsv = one.read("r2.bases.tsv").body;
    EXPECT_TRUE(tsv.starts_with("base\tnucleotide\tquality\tflow\tkept\n1\tT\t22\t")) << tsv;
    EXPECT_TRUE(contains(one.read("r2").body, "<dd>8, kept 1 to 8</dd>"));
}
// The kept range is the library's: the larger left clip, the smaller right clip, adapter
// clips included; the page and the TSV still show every base of the record.
TEST(BrowseRecords, KeptRangeTakesTheAdapterClipsAndEveryBaseIsShown) {
    const std::string flows = tacg_flows(60);
    sff_file_layout sff;
    sff.number_of_flows_per_read = 60;
    sff.reads.push_back(make_read("r2", "TCAGACGTTGCAACGTTGCAAC", flows, {}, 3));
    auto& rd = sff.reads.back();
    rd.clip_qual_left = 5;
    rd.clip_qual_right = 20;
    rd.clip_adapter_left = 7;
    rd.clip_adapter_right = 15;
    site_fixture f({window_contig()}, {sff});
    const auto page = f.read("r2");
    EXPECT_TRUE(contains(page.body, "<dd>22, kept 7 to 15</dd>"));
    const auto tsv = f.read("r2.bases.tsv").body;
    EXPECT_TRUE(contains(tsv, "\n6\tC\t30\t"));
    EXPECT_TRUE(contains(tsv, "\t0\n7\t"));
    EXPECT_TRUE(contains(tsv, "\t1\n16\t"));
    EXPECT_TRUE(contains(tsv, "\n22\tC\t30\t"));
    EXPECT_TRUE(tsv.ends_with("\t0\n"));
    // The flow of each base is the library's counter from the record's first base.
    record_view rec;
    std::string file;
    ASSERT_EQ(browse::fetch(f.sff, "r2", rec, file), browse::fetch_result::ok);
    ASSERT_EQ(rec.flow_of_base.size(), 22u);
    EXPECT_EQ(rec.flow_of_base[0], 0);  // T in flow 0
    EXPECT_EQ(rec.flow_of_base[1], 2);  // C in flow 2
    for (std::size_t i = 0; i < 22; ++i)
        EXPECT_EQ(rec.flow_chars[static_cast<std::size_t>(rec.flow_of_base[i])], rec.bases[i]) << i;
}

// A record cut short by the end of its file: what the file lacks reads as zero, never as
// what a reader held from the read before.
TEST(BrowseRecords, ARecordCutShortShowsZerosNotThePreviousRead) {
    const std::string flows = tacg_flows(40);
    sff_file_layout sff;
    sff.number_of_flows_per_read = 40;
    sff.reads.push_back(make_read("full", "TCAGACGTTGCAACGTACGT", flows, {37}, 1));
    sff.reads.push_back(make_read("cut", "TCAGACGTTGCAACGTACGT", flows, {9}, 2));
    std::string bytes = build_sff(sff);
    bytes.resize(bytes.size() - 16);  // its qualities and padding are gone
    temp_dir d;
    ASSERT_TRUE(write_file(d / "c.sff", bytes));

    browse::read_source source;
    ASSERT_TRUE(source.index({d / "c.sff"}).ok);
    ASSERT_EQ(source.lookup.size(), 2u);
    record_view fetched;
    std::string file;
    ASSERT_EQ(browse::fetch(source, "full", fetched, file), browse::fetch_result::ok);
    EXPECT_EQ(fetched.quality[0], 37);
    ASSERT_EQ(browse::fetch(source, "cut", fetched, file), browse::fetch_result::ok);
    ASSERT_EQ(fetched.quality.size(), 20u);
    EXPECT_EQ(fetched.quality[0], 9);
    EXPECT_EQ(fetched.quality[19], 0);
}

// An SFF file rewritten after start-up (here with the same bytes, so that a fetch that did
// not check would still tie every read) is never read again: its reads count as untied, the
// run page plots nothing from them, and the read page says why it shows no record.
TEST(BrowseFiles, EvidenceNeverFetchesFromAnSffFileChangedSinceStartUp) {
    site_fixture f({window_contig()}, {window_reads()});
    {
        browse::evidence_store before(f.ace, f.sff);
        ASSERT_EQ(before.get(0)->report.coverage.reads.tied, 6);
    }
    const std::string path = f.dir / "r0.sff";
    const std::string bytes = read_file(path);
    ASSERT_TRUE(write_file(path, bytes));
    std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) + std::chrono::seconds(5));

    browse::evidence_store after(f.ace, f.sff);
    f.site.evidence = &after;
    const auto e = after.get(0);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->report.coverage.reads.tied, 0);
    EXPECT_TRUE(e->disputed.empty());
    for (const hp_run& r : e->check.runs) {
        ASSERT_EQ(r.signals, 0);
        if (r.consensus_length == 0) continue;
        const auto run = f.site.serve(get("/contig/w/run/" + std::to_string(r.column)));
        EXPECT_EQ(run.status, 200);
        EXPECT_FALSE(contains(run.body, "<circle")) << r.column;
        break;
    }
    const auto signals = f.site.serve(get("/contig/w", {{"from", "101"}, {"view", "signals"}}));
    EXPECT_TRUE(contains(signals.body, "  u"));  // every read untied, no value shaded
    EXPECT_FALSE(std::regex_search(signals.body, std::regex("sig-close\">[ 0-9]")));
    EXPECT_TRUE(contains(f.read("r2").body, "changed since start-up"));
    EXPECT_EQ(f.read("r2.flows.tsv").status, 404);
}

// What a read measured is rounded to a whole count before the read page calls its flow
// disputed: 0.97 and 1.49 on a one-base flow are that base, 1.50 is two.
TEST(BrowseFiles, ReadPageRoundsBeforeCallingAFlowDisputed) {
    sff_file_layout sff = window_reads();
    sff_read_layout& r2 = sff.reads[1];
    ASSERT_EQ(r2.name, "r2");
    // After the key, r2's bases begin T G C A A: three runs of one base.
    std::vector<int> flow_of;
    for (int flow = -1; std::uint8_t step : r2.flow_index_per_base) flow_of.push_back(flow += step);
    r2.flowgram[static_cast<std::size_t>(flow_of[4])] = 97;
    r2.flowgram[static_cast<std::size_t>(flow_of[5])] = 149;
    r2.flowgram[static_cast<std::size_t>(flow_of[6])] = 150;
    site_fixture f({window_contig()}, {sff});
    browse::evidence_store evidence(f.ace, f.sff);
    f.site.evidence = &evidence;
    const std::string page = f.read("r2").body;
    EXPECT_TRUE(contains(page, "<td>1</td><td>1.50</td>")) << page;
    EXPECT_FALSE(contains(page, "<td>0.97</td>"));
    EXPECT_FALSE(contains(page, "<td>1.49</td>"));
}

// The cache keeps the most recently used contigs: one used again stays when another comes.
TEST(BrowseCache, TheLeastRecentlyUsedContigLeaves) {
    ace_contig a = window_contig(), b = window_contig(), c = window_contig();
    b.name = "b";
    c.name = "c";
    temp_dir d;
    write_file(d / "a.ace", ace_file_text({a, b, c}));
    browse::assembly ace(2);
    ASSERT_TRUE(ace.read(d / "a.ace").ok);
    auto first = ace.load(0);
    auto second = ace.load(1);
    EXPECT_EQ(ace.load(0), first);  // used again: now the most recent
    ace.load(2);                    // the second leaves
    EXPECT_EQ(ace.load(0), first);
    EXPECT_NE(ace.load(1), second);
}

}  // namespace

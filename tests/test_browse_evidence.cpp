// The flow-signal evidence in the browser, on a simulated assembly with errors planted in its
// consensus and reads split over two SFF files of different noise: the model, the disputed
// runs and the .vcf and .tsv views equal sorvexa-flowcheck's, the run page plots every signal
// under the model of the files that measured the run, the window's toggles, read search, the
// overview's weighing, and the 400 and 404 answers of the new views.

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "run_tool.h"
#include "site.h"

namespace {

using namespace fixture;

browse::request get(std::string path,
                    std::vector<std::pair<std::string, std::string>> params = {}) {
    return {std::move(path), std::move(params)};
}

std::vector<std::string> lines_of(const std::string& text, bool skip_hash = false) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!skip_hash || line.rfind("##", 0) != 0) out.push_back(line);
    return out;
}

std::size_t count_of(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// One simulated assembly, its flowcheck run and a browser site over it, shared by the tests.
struct simulated {
    temp_dir dir;
    run_result checked;
    std::optional<browse::read_source> sff;
    std::optional<browse::assembly> ace;
    std::optional<browse::evidence_store> evidence;
    std::optional<browse::site> site;

    simulated() {
        const run_result sim = run_binary(
            SORVEXA_SIM_ASSEMBLY_BIN,
            {"--out",  dir.path,  "--prefix", "sim",     "--contigs", "2",        "--length",
             "3000",   "--depth", "10",       "--noise", "1.0",       "--errors", "6",
             "--seed", "5",       "--files",  "2",       "--noise2",  "2.0"},
            dir.path);
        EXPECT_EQ(sim.status, 0) << sim.err;
        checked = run_binary(SORVEXA_FLOWCHECK_BIN, {"sim.ace", "sim.sff", "sim_b.sff"}, dir.path);
        EXPECT_EQ(checked.status, 0) << checked.err;
        EXPECT_TRUE(sff.emplace().index({dir / "sim.sff", dir / "sim_b.sff"}).ok);
        EXPECT_TRUE(ace.emplace().read(dir / "sim.ace").ok);
        ace->count_found(*sff);
        evidence.emplace(*ace, *sff);
        site.emplace(*ace, *sff);
        site->evidence = &*evidence;
    }
};

simulated& shared() {
    static simulated s;
    return s;
}

TEST(Evidence, CallsAreTheCheckersOwn) {
    simulated& s = shared();
    // The same model: the program names the files as it was given them.
    std::string model;
    s.evidence->models()->append_tsv(model);
    for (std::size_t at; (at = model.find(s.dir.path + "/")) != std::string::npos;)
        model.erase(at, s.dir.path.size() + 1);
    EXPECT_EQ(model, read_file(s.dir / "sim.flowcheck.model.tsv"));

    const std::vector<std::string> tsv = lines_of(read_file(s.dir / "sim.flowcheck.tsv"));
    const std::vector<std::string> vcf = lines_of(read_file(s.dir / "sim.flowcheck.vcf"), true);
    ASSERT_GT(tsv.size(), 3u);
    std::vector<std::string> served_tsv, served_vcf;
    std::size_t disputed = 0;
    for (const std::string contig : {"Contig1", "Contig2"}) {
        const browse::response t = s.site->serve(get("/contig/" + contig + ".tsv"));
        EXPECT_EQ(t.status, 200);
        for (const std::string& l : lines_of(t.body))
            if (served_tsv.empty() || l.rfind("contig\t", 0) != 0) served_tsv.push_back(l);
        const browse::response v = s.site->serve(get("/contig/" + contig + ".vcf"));
        EXPECT_EQ(v.status, 200);
        for (const std::string& l : lines_of(v.body, true))
            if (served_vcf.empty() || l.rfind("#CHROM", 0) != 0) served_vcf.push_back(l);
        disputed +=
            s.evidence->get(static_cast<std::size_t>(s.ace->contig_index(contig)))->disputed.size();
    }
    EXPECT_EQ(served_tsv, tsv);
    EXPECT_EQ(served_vcf, vcf);
    EXPECT_EQ(disputed, tsv.size() - 3);  // less the header and a coverage line per contig

    // The contig page lists the same runs, each with its run page and its filter.
    const browse::response page = s.site->serve(get("/contig/Contig1"));
    EXPECT_EQ(page.status, 200);
    const std::size_t in_contig1 = count_of(read_file(s.dir / "sim.flowcheck.tsv"), "\nContig1\t");
    EXPECT_EQ(count_of(page.body, ">run</a>"), in_contig1);
    EXPECT_EQ(count_of(page.body, "<td>PASS</td>"), in_contig1);

    // The overview's weighing, once the background count has come by: the program's runs
    // tested, and neither contig marked unchecked.
    s.evidence->count_in_background();
    for (int k = 0; k < 600 && s.evidence->disputed_runs(1) < 0; ++k)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(s.evidence->disputed_runs(0), static_cast<std::int32_t>(in_contig1));
    const std::string overview = s.site->serve(get("/")).body;
    static const std::regex weighed(
        "# Contig.: [0-9]+ reads \\(([0-9]+) tied, ([0-9]+) untied, ([0-9]+) in no SFF file\\), "
        "([0-9]+) of ([0-9]+) runs tested: checked");
    std::size_t contigs = 0;
    for (const std::string& line : tsv) {
        std::smatch m;
        if (!std::regex_match(line, m, weighed)) continue;
        ++contigs;
        auto n = [&](int k) { return browse::grouped(std::stoll(m[k].str())); };
        EXPECT_NE(overview.find(">" + n(1) + " / " + n(2) + " / " + n(3) + "<"), std::string::npos);
        EXPECT_NE(overview.find(">" + n(4) + " of " + n(5) + "<"), std::string::npos);
    }
    EXPECT_EQ(contigs, 2u);
    EXPECT_EQ(count_of(overview, "<strong>unchecked</strong>"), 0u);
    EXPECT_NE(overview.find("fitted to this assembly"), std::string::npos);
}

// The model rows of a run page: "file-base-name\tlength\tcentre\tspread\toutlier\tsource",
// as the program's model table has them.
std::set<std::string> model_rows(const std::string& body) {
    static const std::regex row(
        "<tr><td>([^<]*)</td><td>[a-z-]+</td><td>([0-9]+)</td><td>([0-9.]+)</td><td>([0-9.]+)"
        "</td><td>([0-9.]+)</td><td>[0-9,]+</td><td>([a-z]+)</td></tr>");
    std::set<std::string> out;
    for (auto it = std::sregex_iterator(body.begin(), body.end(), row);
         it != std::sregex_iterator(); ++it) {
        const std::string file = (*it)[1].str();
        out.insert(file.substr(file.rfind('/') + 1) + "\t" + (*it)[2].str() + "\t" +
                   (*it)[3].str() + "\t" + (*it)[4].str() + "\t" + (*it)[5].str() + "\t" +
                   (*it)[6].str());
    }
    return out;
}

// The rows of the program's model table of the files whose reads the run page lists, for
// lengths lo..hi.
std::set<std::string> expected_rows(simulated& s, const std::string& body, std::int32_t lo,
                                    std::int32_t hi) {
    static const std::regex read("<tr><td><a href=\"/read/([^\"]+)\"");
    std::set<std::string> files;
    for (auto it = std::sregex_iterator(body.begin(), body.end(), read);
         it != std::sregex_iterator(); ++it)
        files.insert(s.sff->lookup.locate((*it)[1].str()).file == 0 ? "sim.sff" : "sim_b.sff");
    std::set<std::string> out;
    for (const std::string& l : lines_of(read_file(s.dir / "sim.flowcheck.model.tsv"))) {
        std::vector<std::string> f;
        std::istringstream in(l);
        for (std::string x; std::getline(in, x, '\t');) f.push_back(x);
        if (f.size() != 7 || files.count(f[0]) == 0 || f[1] == "length") continue;
        const std::int32_t n = std::stoi(f[1]);
        if (n >= lo && n <= hi)
            out.insert(f[0] + "\t" + f[1] + "\t" + f[3] + "\t" + f[4] + "\t" + f[5] + "\t" + f[6]);
    }
    return out;
}

TEST(Evidence, RunPageDrawsTheModelOfTheReadsFiles) {
    simulated& s = shared();
    const auto e = s.evidence->get(0);
    ASSERT_FALSE(e->disputed.empty());
    const hp_run& r = e->check.runs[static_cast<std::size_t>(e->disputed.front())];
    const browse::response page =
        s.site->serve(get("/contig/Contig1/run/" + std::to_string(r.column)));
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(count_of(page.body, "<circle"), static_cast<std::size_t>(r.signals));
    EXPECT_NE(page.body.find("(disputed)"), std::string::npos);
    EXPECT_NE(page.body.find("<dt>filter</dt><dd>PASS</dd>"), std::string::npos);
    EXPECT_NE(page.body.find("<dt>qual</dt><dd>" + browse::fixed(r.qual, 2)), std::string::npos);
    const std::int32_t lo = std::max(0, std::min(r.consensus_length, r.called_length) - 1);
    const std::int32_t hi = std::max(r.consensus_length, r.called_length) + 1;
    const std::set<std::string> rows = model_rows(page.body);
    EXPECT_EQ(rows, expected_rows(s, page.body, lo, hi));
    // Both files measured it (the reads lie over the whole contig): a curve per file and length.
    EXPECT_EQ(count_of(page.body, "<polyline"), rows.size());
    EXPECT_EQ(rows.size(), 2u * static_cast<std::size_t>(hi - lo + 1));

    EXPECT_EQ(s.site->serve(get("/contig/Contig1/run/1x")).status, 400);
    EXPECT_EQ(s.site->serve(get("/contig/Contig1/run/999999")).status, 404);
    EXPECT_EQ(s.site->serve(get("/contig/NoSuchContig/run/5")).status, 404);
}

TEST(Evidence, WindowTogglesAndTheirBadValues) {
    simulated& s = shared();
    const auto e = s.evidence->get(0);
    const hp_run& r = e->check.runs[static_cast<std::size_t>(e->disputed.front())];
    const std::string from = std::to_string(std::max(1, r.column - 20));
    const browse::response signals = s.site->serve(
        get("/contig/Contig1", {{"from", from}, {"width", "50"}, {"view", "signals"}}));
    EXPECT_EQ(signals.status, 200);
    EXPECT_NE(signals.body.find("sig-close"), std::string::npos);
    EXPECT_NE(signals.body.find("class=\"mark\""), std::string::npos);
    // The consensus line gives the run's call where its flowgrams dispute it.
    EXPECT_NE(signals.body.find(std::to_string(r.consensus_length) + "&gt;" +
                                std::to_string(r.called_length)),
              std::string::npos);
    const browse::response diff =
        s.site->serve(get("/contig/Contig1", {{"from", from}, {"width", "50"}, {"diff", "1"}}));
    EXPECT_EQ(diff.status, 200);
    EXPECT_NE(diff.body.find("...."), std::string::npos);
    EXPECT_EQ(s.site->serve(get("/contig/Contig1", {{"view", "flows"}})).status, 400);
    EXPECT_EQ(s.site->serve(get("/contig/Contig1", {{"diff", "yes"}})).status, 400);
}

TEST(Evidence, SignalCellsAndShades) {
    EXPECT_EQ(browse::signal_text(387), "3.9");
    // 9.95 to 9.99 round to ten, whole: "10.0" would not fit the cell.
    for (std::int32_t v : {994, 995, 999, 1000})
        EXPECT_EQ(browse::signal_text(v), v == 994 ? "9.9" : " 10") << v;
    EXPECT_EQ(browse::signal_text(1234), " 12");
    EXPECT_EQ(browse::signal_text(60000), "99+");
    EXPECT_EQ(browse::signal_text(-1), "   ");
    EXPECT_EQ(browse::signal_text(flow_window::untied_read), "  u");
    EXPECT_EQ(classify_signal(325, 3), signal_class::close);
    EXPECT_EQ(classify_signal(274, 3), signal_class::borderline);
    EXPECT_EQ(classify_signal(350, 3), signal_class::disputed);
    EXPECT_EQ(classify_signal(40, 0), signal_class::borderline);
}

TEST(Evidence, SearchByFullNamePrefixOrNothing) {
    simulated& s = shared();
    const std::string name = s.ace->placements.front().read;
    const browse::response full = s.site->serve(get("/search", {{"q", name}}));
    EXPECT_EQ(full.status, 200);
    EXPECT_NE(full.body.find("SFF record"), std::string::npos);
    const browse::response prefix = s.site->serve(get("/search", {{"q", name.substr(0, 9)}}));
    EXPECT_EQ(prefix.status, 200);
    EXPECT_EQ(count_of(prefix.body, "<tr><td><a href=\"/read/"),
              static_cast<std::size_t>(browse::max_search_results));
    const browse::response none = s.site->serve(get("/search", {{"q", "<b>nothing"}}));
    EXPECT_EQ(none.status, 404);
    EXPECT_NE(none.body.find("&lt;b&gt;nothing"), std::string::npos);
    EXPECT_EQ(none.body.find("<b>nothing"), std::string::npos);
    // Every page carries the search field.
    EXPECT_NE(s.site->serve(get("/")).body.find("action=\"/search\""), std::string::npos);
}

}  // namespace

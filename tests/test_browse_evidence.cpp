// The flow-signal evidence in the browser, on a simulated assembly with errors planted in its
// consensus: the disputed runs and the .vcf and .tsv views equal sorvexa-flowcheck's calls,
// the run page plots every signal, the window's toggles, read search, the overview's count,
// and the 400 and 404 answers of the new views.

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "assembly.h"
#include "evidence.h"
#include "evidence_pages.h"
#include "pages.h"
#include "read_source.h"
#include "run_tool.h"

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
        const run_result sim =
            run_binary(SORVEXA_SIM_ASSEMBLY_BIN,
                       {"--out", dir.path, "--prefix", "sim", "--contigs", "2", "--length", "3000",
                        "--depth", "10", "--noise", "1.0", "--errors", "6", "--seed", "5"},
                       dir.path);
        EXPECT_EQ(sim.status, 0) << sim.err;
        checked = run_binary(SORVEXA_FLOWCHECK_BIN, {"sim.ace", "sim.sff"}, dir.path);
        EXPECT_EQ(checked.status, 0) << checked.err;
        sff.emplace(std::vector<std::string>{dir / "sim.sff"});
        ace.emplace(dir / "sim.ace");
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
    const std::vector<std::string> tsv = lines_of(read_file(s.dir / "sim.flowcheck.tsv"));
    const std::vector<std::string> vcf = lines_of(read_file(s.dir / "sim.flowcheck.vcf"), true);
    ASSERT_GT(tsv.size(), 1u);
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
    EXPECT_EQ(disputed, tsv.size() - 1);

    // The contig page lists the same runs, each with its run page.
    const browse::response page = s.site->serve(get("/contig/Contig1"));
    EXPECT_EQ(page.status, 200);
    const std::size_t in_contig1 = count_of(read_file(s.dir / "sim.flowcheck.tsv"), "\nContig1\t");
    EXPECT_EQ(count_of(page.body, ">run</a>"), in_contig1);

    // The overview's count, once the background count has come by.
    s.evidence->count_in_background();
    for (int k = 0; k < 600 && s.evidence->disputed_runs(1) < 0; ++k)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(s.evidence->disputed_runs(0), static_cast<std::int32_t>(in_contig1));
}

TEST(Evidence, RunPagePlotsEverySignal) {
    simulated& s = shared();
    const auto e = s.evidence->get(0);
    ASSERT_FALSE(e->disputed.empty());
    const hp_run& r = e->check.runs[static_cast<std::size_t>(e->disputed.front())];
    const browse::response page =
        s.site->serve(get("/contig/Contig1/run/" + std::to_string(r.column)));
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(count_of(page.body, "<circle"), static_cast<std::size_t>(r.signals));
    EXPECT_NE(page.body.find("(disputed)"), std::string::npos);
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
    EXPECT_EQ(browse::signal_text(1234), " 12");
    EXPECT_EQ(browse::signal_text(60000), "99+");
    EXPECT_EQ(browse::signal_text(-1), "   ");
    EXPECT_EQ(browse::signal_text(flow_window::untied_read), "  u");
    using browse::signal_class;
    EXPECT_EQ(browse::classify(325, 3), signal_class::close);
    EXPECT_EQ(browse::classify(274, 3), signal_class::borderline);
    EXPECT_EQ(browse::classify(350, 3), signal_class::disputed);
    EXPECT_EQ(browse::classify(40, 0), signal_class::borderline);
}

TEST(Evidence, SearchByFullNamePrefixOrNothing) {
    simulated& s = shared();
    const std::string name = s.ace->placements.front().first;
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

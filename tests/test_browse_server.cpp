// sorvexa-browse as a user runs it: started on port 0 with the bundled example, every page
// kind fetched over HTTP (also from several clients at once), then stopped by a signal; and
// the start-up errors that end it before anything is served.

#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ace_writer.h"
#include "run_tool.h"
#include "server_process.h"
#include "sff_builder.h"

namespace {

using namespace fixture;

const std::string kExample = SORVEXA_EXAMPLE_DIR;

bool contains(const std::string& s, const std::string& part) {
    return s.find(part) != std::string::npos;
}

struct example_server {
    temp_dir dir;
    server_process server{SORVEXA_BROWSE_BIN,
                          {"--port", "0", kExample + "/example.ace", kExample + "/example_a.sff",
                           kExample + "/example_b.sff"},
                          dir.path};
    httplib::Client client() const {
        httplib::Client c("127.0.0.1", server.port);
        c.set_read_timeout(30, 0);
        return c;
    }
};

TEST(BrowseServer, ServesEveryPageKindAndStopsOnSigterm) {
    example_server s;
    ASSERT_GT(s.server.port, 0) << s.server.err();
    EXPECT_TRUE(contains(s.server.out(), "5 contigs"));
    httplib::Client c = s.client();

    auto overview = c.Get("/");
    ASSERT_TRUE(overview);
    EXPECT_EQ(overview->status, 200);
    for (int k = 1; k <= 5; ++k)
        EXPECT_TRUE(contains(overview->body, "href=\"/contig/Contig" + std::to_string(k) + "\""));
    EXPECT_TRUE(
        contains(overview->get_header_value("Content-Security-Policy"), "script-src 'nonce-"));

    auto page = c.Get("/contig/Contig2?from=600&width=100");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_TRUE(contains(page->body, "<svg class=\"depth\""));
    EXPECT_TRUE(contains(page->body, "<span class=\"bT\">T</span>"));  // a coloured flow letter
    EXPECT_TRUE(contains(page->get_header_value("Server-Timing"), "page;dur="));
    const std::regex read_link("href=\"/read/([A-Z0-9]+)\"");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(page->body, m, read_link));
    const std::string read = m[1].str();

    auto text = c.Get("/contig/Contig2.txt?from=600&width=60");
    ASSERT_TRUE(text);
    EXPECT_EQ(text->status, 200);
    EXPECT_TRUE(contains(text->get_header_value("Content-Type"), "text/plain"));
    EXPECT_TRUE(contains(text->body, "# flow map\n T"));
    EXPECT_TRUE(contains(text->body, read + "\n"));

    auto read_page = c.Get("/read/" + read);
    ASSERT_TRUE(read_page);
    EXPECT_EQ(read_page->status, 200);
    EXPECT_TRUE(contains(read_page->body, "<svg class=\"flowgram\""));
    EXPECT_TRUE(contains(read_page->body, "<svg class=\"quality\""));
    auto tsv = c.Get("/read/" + read + ".flows.tsv");
    ASSERT_TRUE(tsv);
    EXPECT_EQ(tsv->status, 200);
    EXPECT_TRUE(contains(tsv->get_header_value("Content-Disposition"), "attachment"));

    for (const char* path : {"/contig/Contig9", "/read/nobody", "/etc/passwd", "/contig/"}) {
        auto r = c.Get(path);
        ASSERT_TRUE(r) << path;
        EXPECT_EQ(r->status, 404) << path;
    }
    for (const char* path : {"/contig/Contig2?from=0", "/contig/Contig2?from=999999",
                             "/contig/Contig2?width=2001", "/contig/Contig2?width=x"}) {
        auto r = c.Get(path);
        ASSERT_TRUE(r) << path;
        EXPECT_EQ(r->status, 400) << path;
    }

    // Several clients at once over every contig: each answer complete, no error.
    std::vector<std::thread> clients;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        clients.emplace_back([&s, &failures, t] {
            httplib::Client ct = s.client();
            for (int i = 0; i < 15; ++i) {
                const std::string path = "/contig/Contig" + std::to_string(1 + (i + t) % 5) +
                                         "?from=" + std::to_string(1 + 37 * i) + "&width=200";
                auto r = ct.Get(path);
                if (!r || r->status != 200 || !contains(r->body, "</html>"))
                    ++failures[static_cast<std::size_t>(t)];
            }
        });
    }
    for (std::thread& t : clients) t.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));

    EXPECT_EQ(s.server.stop(SIGTERM), 0) << s.server.err();
    EXPECT_TRUE(contains(s.server.out(), "stopped"));
}

TEST(BrowseServer, StopsOnSigintToo) {
    example_server s;
    ASSERT_GT(s.server.port, 0) << s.server.err();
    EXPECT_EQ(s.server.stop(SIGINT), 0);
}

TEST(BrowseServer, StartUpErrorsEndItBeforeServing) {
    temp_dir d;
    // A grammar error: the reader's message, status 1, no address printed.
    write_file(d / "bad.ace", "AS 1 1\n\nCO c 4 1 1 U\nACGT\n\nAF r1 U 1\n");
    server_process bad(SORVEXA_BROWSE_BIN, {"--port", "0", d / "bad.ace"}, d.path);
    EXPECT_EQ(bad.wait(), 1);
    EXPECT_EQ(bad.port, 0);
    EXPECT_EQ(bad.err(), "Error: tag 'AF' should be not in the ACE file!\n");

    write_file(d / "ok.ace", ace_file_text({{"c", "ACGT", {{"r1", 1, "ACGT"}}}}));
    write_file(d / "no.sff", "not an SFF file at all, but long enough to hold a header");
    server_process not_sff(SORVEXA_BROWSE_BIN, {"--port", "0", d / "ok.ace", d / "no.sff"}, d.path);
    EXPECT_EQ(not_sff.wait(), 1);
    EXPECT_TRUE(contains(not_sff.err(), "is not a SFF file")) << not_sff.err();

    const run_result usage = run_binary(SORVEXA_BROWSE_BIN, {"--port", "http"}, d.path);
    EXPECT_EQ(usage.status, 1);
    EXPECT_TRUE(contains(usage.err, "--port takes a number"));
    const run_result help = run_binary(SORVEXA_BROWSE_BIN, {"--help"}, d.path);
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(contains(help.out, "Usage: sorvexa-browse"));
}

}  // namespace

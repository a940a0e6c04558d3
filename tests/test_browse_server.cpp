// sorvexa-browse as a user runs it: started on port 0 with the bundled example, every page
// kind fetched over HTTP (also from several clients at once), then stopped by a signal; and
// the start-up errors that end it before anything is served.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
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

    for (const auto& [path, status] : {std::pair{"/contig/Contig9", 404}, {"/read/nobody", 404},
                                       {"/etc/passwd", 404}, {"/contig/", 404},
                                       {"/contig/Contig2?from=0", 400},
                                       {"/contig/Contig2?from=999999", 400},
                                       {"/contig/Contig2?width=2001", 400},
                                       {"/contig/Contig2?width=x", 400}}) {
        auto r = c.Get(path);
        ASSERT_TRUE(r) << path;
        EXPECT_EQ(r->status, status) << path;
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

// --model: a table that cannot serve ends start-up with one line and status 1; a good one
// is the model the evidence is weighed under. With --access-log every answer is a line on
// standard error; SIGINT stops the server as SIGTERM does.
TEST(BrowseServer, ModelFromAFileOrOneLineWhyNotAccessLogAndSigint) {
    temp_dir d;
    const std::vector<std::string> files = {kExample + "/example.ace", kExample + "/example_a.sff"};
    auto args = [&](const std::string& model) {
        std::vector<std::string> a = {"--port", "0", "--access-log", "--model", model};
        a.insert(a.end(), files.begin(), files.end());
        return a;
    };
    write_file(d / "bad.tsv",
               "file\tlength\tsignals\tcentre\tspread\toutlier_rate\tsource\n"
               "*\t1\t100\t1.0\t-0.2\t0.01\testimated\n");
    server_process bad(SORVEXA_BROWSE_BIN, args(d / "bad.tsv"), d.path);
    EXPECT_EQ(bad.wait(), 1);
    EXPECT_EQ(bad.port, 0);
    EXPECT_EQ(bad.err(), "sorvexa-browse: " + d / "bad.tsv" + ": line 2 is not a model line\n");
    server_process missing(SORVEXA_BROWSE_BIN, args(d / "none.tsv"), d.path);
    EXPECT_EQ(missing.wait(), 1);
    EXPECT_EQ(missing.err(), "sorvexa-browse: can not read model file " + d / "none.tsv" + "\n");

    write_file(d / "good.tsv",
               "file\tlength\tsignals\tcentre\tspread\toutlier_rate\tsource\n"
               "*\t1\t100\t1.0\t0.2\t0.01\testimated\n");
    server_process good(SORVEXA_BROWSE_BIN, args(d / "good.tsv"), d.path);
    ASSERT_GT(good.port, 0) << good.err();
    httplib::Client c("127.0.0.1", good.port);
    auto overview = c.Get("/");
    ASSERT_TRUE(overview);
    EXPECT_TRUE(contains(overview->body, "<dt>flow model</dt><dd>read from " + d / "good.tsv"));
    ASSERT_TRUE(c.Get("/read/nobody"));
    EXPECT_EQ(good.stop(SIGINT), 0);
    EXPECT_TRUE(contains(good.err(), "sorvexa-browse: GET /read/nobody 404 ")) << good.err();
}

// The files two assemblers write before their one-line rewrites: the hint printed names the
// command, and the command, run as printed, makes a file the browser reads.
TEST(BrowseServer, HintsForFilesOfKnownWritersWork) {
    temp_dir d;
    const std::string text = ace_file_text({{"c", "ACGTACGT", {{"r1", 1, "ACGTACGT"}}}});
    // An empty line between each QA and DS line: the reader stops at the DS line.
    std::string spaced = text;
    spaced.replace(spaced.find("\nDS "), 4, "\n\nDS ");
    write_file(d / "spaced.ace", spaced);
    server_process refused(SORVEXA_BROWSE_BIN, {"--port", "0", d / "spaced.ace"}, d.path);
    EXPECT_EQ(refused.wait(), 1);
    const std::string err = refused.err();
    const std::string reader_error = "Error: tag 'DS' should be not in the ACE file!\n";
    ASSERT_EQ(err.substr(0, reader_error.size()), reader_error);
    const auto sed = err.find("  sed ");
    ASSERT_NE(sed, std::string::npos) << err;
    ASSERT_EQ(run_binary("/bin/sh", {"-c", err.substr(sed + 2)}, d.path).status, 0);
    EXPECT_EQ(read_file(d / "fixed.ace"), text);

    // Read names with a strand suffix that no SFF file holds.
    sff_file_layout f;
    f.number_of_flows_per_read = 32;
    f.reads.push_back(make_read("r1", "ACGTACGT", tacg_flows(32), {}, 1));
    write_file(d / "r.sff", build_sff(f));
    std::string suffixed = text;
    for (const char* line : {"AF r1 ", "RD r1 "}) {
        const auto at = suffixed.find(line);
        suffixed.replace(at, 6, std::string(line, 5) + ".f ");
    }
    write_file(d / "suffixed.ace", suffixed);
    server_process none_found(SORVEXA_BROWSE_BIN, {"--port", "0", d / "suffixed.ace", d / "r.sff"},
                              d.path);
    ASSERT_GT(none_found.port, 0) << none_found.err();
    const std::string out = none_found.err();
    EXPECT_TRUE(contains(out, "every read name ends in .f or .r")) << out;
    EXPECT_FALSE(contains(none_found.out(), "sed")) << none_found.out();
    const auto sed_e = out.find("  sed -E ");
    ASSERT_NE(sed_e, std::string::npos) << out;
    const std::string command = out.substr(sed_e + 2, out.find('\n', sed_e) - sed_e - 2);
    httplib::Client c("127.0.0.1", none_found.port);
    auto overview = c.Get("/");
    ASSERT_TRUE(overview);
    EXPECT_TRUE(contains(overview->body, "every read name ends in .f or .r")) << overview->body;
    EXPECT_EQ(none_found.stop(SIGTERM), 0);
    std::filesystem::remove(d / "fixed.ace");
    ASSERT_EQ(run_binary("/bin/sh", {"-c", command}, d.path).status, 0);
    EXPECT_EQ(read_file(d / "fixed.ace"), text);

    // The same file with the reads found says nothing more.
    server_process found(SORVEXA_BROWSE_BIN, {"--port", "0", d / "fixed.ace", d / "r.sff"}, d.path);
    ASSERT_GT(found.port, 0) << found.err();
    EXPECT_FALSE(contains(found.err(), "sed")) << found.err();
}

// Raw HTTP over one socket, for requests a client library would not send as they are (a
// declared body never sent, a request cut short) and for connections that send nothing.
struct raw_connection {
    int fd = -1;
    explicit raw_connection(int port) {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<std::uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    ~raw_connection() {
        if (fd >= 0) ::close(fd);
    }
    raw_connection(const raw_connection&) = delete;
    bool send(const std::string& bytes) const {
        return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // Everything until the server closes the connection, waiting up to `seconds`; `closed`
    // tells whether it did.
    std::string read_to_close(double seconds, bool& closed) const {
        std::string got;
        closed = false;
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            char buf[4096];
            const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
            if (n <= 0) {
                closed = true;
                break;
            }
            got.append(buf, static_cast<std::size_t>(n));
        }
        return got;
    }
};

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

TEST(BrowseServer, OnlyGetAndHeadWithoutBodiesAreServed) {
    example_server s;
    ASSERT_GT(s.server.port, 0) << s.server.err();
    httplib::Client c = s.client();

    auto head = c.Head("/");
    ASSERT_TRUE(head);
    EXPECT_EQ(head->status, 200);
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE"}) {
        SCOPED_TRACE(method);
        raw_connection conn(s.server.port);
        ASSERT_TRUE(
            conn.send(std::string(method) + " /contig/Contig2 HTTP/1.1\r\nHost: x\r\n\r\n"));
        bool closed = false;
        const std::string answer = conn.read_to_close(10, closed);
        EXPECT_TRUE(contains(answer, "HTTP/1.1 405 ")) << answer;
        EXPECT_TRUE(contains(answer, "\r\nAllow: GET, HEAD\r\n")) << answer;
    }

    // A body far over the limit is refused from its headers, before any of it arrives (it
    // never does here), and the connection ends with the answer. So does one of unknown size.
    for (const char* framing : {"Content-Length: 300000000", "Transfer-Encoding: chunked"}) {
        SCOPED_TRACE(framing);
        raw_connection conn(s.server.port);
        const auto t0 = std::chrono::steady_clock::now();
        ASSERT_TRUE(conn.send(std::string("POST / HTTP/1.1\r\nHost: x\r\n") + framing + "\r\n\r\n" +
                              std::string(1000, 'x')));
        bool closed = false;
        const std::string answer = conn.read_to_close(10, closed);
        EXPECT_TRUE(contains(answer, "HTTP/1.1 413 ")) << answer;
        EXPECT_LT(seconds_since(t0), 8.0);
    }
    // A head over 64 KiB is refused from what arrived, at once.
    {
        raw_connection conn(s.server.port);
        const auto t0 = std::chrono::steady_clock::now();
        ASSERT_TRUE(conn.send("GET / HTTP/1.1\r\nHost: x\r\nX-Big: " + std::string(100000, 'a') +
                              "\r\n\r\n"));
        bool closed = false;
        EXPECT_TRUE(contains(conn.read_to_close(10, closed), "HTTP/1.1 413 "));
        EXPECT_TRUE(closed);
        EXPECT_LT(seconds_since(t0), 2.0);
    }
    // A GET with a body would leave it to be read as the next request.
    raw_connection with_body(s.server.port);
    ASSERT_TRUE(with_body.send("GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nGET /"));
    bool closed = false;
    EXPECT_TRUE(contains(with_body.read_to_close(10, closed), "HTTP/1.1 400 "));

    auto still = c.Get("/");
    ASSERT_TRUE(still);
    EXPECT_EQ(still->status, 200);
    EXPECT_EQ(s.server.stop(SIGTERM), 0) << s.server.err();
}

// Clients that connect and send nothing, or stop halfway through a request, must neither
// keep others waiting nor hold their connection for long.
TEST(BrowseServer, IdleAndStalledConnectionsNeitherStarveOthersNorStay) {
    example_server s;
    ASSERT_GT(s.server.port, 0) << s.server.err();
    std::vector<std::unique_ptr<raw_connection>> idle;
    for (int k = 0; k < 200; ++k) {
        idle.push_back(std::make_unique<raw_connection>(s.server.port));
        ASSERT_GE(idle.back()->fd, 0);
    }
    raw_connection stalled(s.server.port);
    ASSERT_TRUE(stalled.send("GET /contig/Contig2 HTTP/1.1\r\nHo"));
    const auto opened = std::chrono::steady_clock::now();

    httplib::Client c = s.client();
    for (int k = 0; k < 3; ++k) {
        const auto t0 = std::chrono::steady_clock::now();
        auto r = c.Get("/");
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 200);
        EXPECT_LT(seconds_since(t0), 1.0);
    }

    bool closed = false;
    stalled.read_to_close(30, closed);
    EXPECT_TRUE(closed);
    int ended = 0;
    for (const auto& conn : idle) {
        conn->read_to_close(30 - seconds_since(opened), closed);
        ended += closed ? 1 : 0;
    }
    EXPECT_EQ(ended, 200);
    EXPECT_LT(seconds_since(opened), 15.0);
    EXPECT_EQ(s.server.stop(SIGTERM), 0) << s.server.err();
}

// Concurrent requests on a contig without reads, from clients of raw sockets: under
// ThreadSanitizer (ctest --preset tsan) what the server's threads share is checked, and the
// test process itself shares nothing between its client threads.
TEST(BrowseServer, ContigWithoutReadsDrawnByManyClientsAtOnce) {
    temp_dir d;
    write_file(d / "bare.ace",
               ace_file_text({{"bare", "ACGTACGTAC", {}}, {"c2", "ACGT", {{"r1", 1, "ACGT"}}}}));
    server_process server(SORVEXA_BROWSE_BIN, {"--port", "0", d / "bare.ace"}, d.path);
    ASSERT_GT(server.port, 0) << server.err();
    std::vector<std::thread> clients;
    std::vector<int> failures(6, 0);
    for (int t = 0; t < 6; ++t) {
        clients.emplace_back([&server, &failures, t] {
            for (int i = 0; i < 20; ++i) {
                raw_connection conn(server.port);
                const std::string path =
                    i % 2 ? "/contig/bare?from=1&width=50" : "/contig/bare.txt";
                bool closed = false;
                if (!conn.send("GET " + path +
                               " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n") ||
                    !contains(conn.read_to_close(60, closed), "HTTP/1.1 200 "))
                    ++failures[static_cast<std::size_t>(t)];
            }
        });
    }
    for (std::thread& t : clients) t.join();
    EXPECT_EQ(failures, std::vector<int>(6, 0));
    EXPECT_EQ(server.stop(SIGTERM), 0) << server.err();
}

}  // namespace

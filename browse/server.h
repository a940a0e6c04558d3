// HTTP: the routes of the browser, the headers every answer carries, and the limits that keep
// clients which send nothing, send slowly or send too much from holding the server.
#pragma once

#include <httplib.h>

#include <cstddef>
#include <string>

#include "pages.h"

namespace browse {

// GET / (overview), /contig/NAME[.txt] (contig window), /read/NAME[.flows.tsv|.bases.tsv];
// anything else is answered 404, and methods other than GET and HEAD 405. Each answer says
// in a Server-Timing header how long the page took to build.
void add_routes(httplib::Server& server, const site& s);

// Copies a built page into an HTTP answer.
void send(const response& page, httplib::Response& res, double build_ms);

struct server_limits {
    // Threads serving connections. A connection holds its thread while it waits for a request,
    // so this many clients that send nothing are needed before a new one waits.
    std::size_t connections = 256;
    // A connection that sends nothing for this long (before its first request or between
    // requests) is closed.
    int idle_ms = 5000;
    // A request whose bytes pause this long, or that has not fully arrived this long after its
    // first byte, ends its connection; so does an answer the client does not take this long.
    int read_ms = 5000;
    int request_ms = 10000;
    int write_ms = 5000;
    // No route takes a body: a larger one is refused (413) before any of it is read. The
    // request line and headers together are limited to `max_head` bytes.
    std::size_t max_body = 64 << 10;
    std::size_t max_head = 64 << 10;
    // Requests served on one connection before it is closed.
    int requests_per_connection = 100;
};

// The library's request parsing, routing and answers, on connections this class accepts and
// reads itself: the library buffers a request line of any length and has a thread wait out
// an idle client in a sleeping loop, and neither can be bounded through its own settings.
// Here every byte a request may take is counted, an idle connection sleeps in poll, and a
// refused request ends its connection without its body being read.
class http_server : public httplib::Server {
  public:
    explicit http_server(const server_limits& limits = {});
    ~http_server() override;
    http_server(const http_server&) = delete;
    http_server& operator=(const http_server&) = delete;

    // Binds to `host` (port 0: any free port) and listens. The port, or -1.
    int bind(const std::string& host, int port);
    // Accepts and serves connections until stop(); false when accepting failed.
    bool serve();
    // Ends serve(): open connections are closed once their current request is answered.
    // Safe from any thread, and before serve() has started.
    void stop();

  private:
    void serve_connection(int fd);

    server_limits limits_;
    int listen_fd_ = -1;
    int stop_pipe_[2] = {-1, -1};  // readable once stop() has been called
};

// The hint printed at start-up (and shown on the overview) when the ACE file looks as one
// from a known writer before its rewrite: names carrying a writer's suffix that no SFF file
// holds. Empty when there is nothing to say.
std::string placement_hint(const assembly& ace, const read_source& sff);

// The hint for an ACE file the reader refused, when the file has the shape of one from a
// known writer (an empty line between a read's QA and DS lines). Reads the file; meant for
// the way out after the reader's error.
std::string refused_file_hint(const std::string& ace_path);

}  // namespace browse

// HTTP: every request handed to the site, the headers every answer carries, and the limits
// that keep clients which send nothing, send slowly or send too much from holding the server.
#pragma once

#include <cstddef>
#include <string>

#include "site.h"

struct MHD_Daemon;

namespace browse {

struct server_limits {
    // Threads that serve connections, each waiting on its share of them in one epoll set: an
    // idle connection holds no thread, and at most this many pages are built at once.
    unsigned threads = 4;
    unsigned connections = 1000;
    // A connection that sends or takes nothing for this long is closed, whether it is between
    // requests or stopped halfway through one.
    unsigned idle_seconds = 5;
    // The request line and headers are refused (413) past this size; no route takes a body.
    std::size_t max_head = 64 << 10;
};

class http_server {
  public:
    http_server(const site& s, const server_limits& limits = {}) : site_(s), limits_(limits) {}
    ~http_server() { stop(); }
    http_server(const http_server&) = delete;
    http_server& operator=(const http_server&) = delete;

    // Listens on `host` (port 0: any free port) and serves in the background: the port, or -1.
    int start(const std::string& host, int port);
    // Closes every connection once its answer is sent; safe to call twice.
    void stop();
    // Each request answered is logged on standard error.
    bool access_log = false;

  private:
    const site& site_;
    server_limits limits_;
    MHD_Daemon* daemon_ = nullptr;
    friend struct handler;
};

}  // namespace browse

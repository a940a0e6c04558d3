#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "site.h"

namespace browse {

namespace {

// Each thread waits on its share of the connections in one epoll set, so an idle connection
// holds none and at most `threads` pages are built at once; a connection that sends or takes
// nothing for idle_seconds is closed, between requests or halfway through one.
constexpr unsigned threads = 8, connections = 1000, idle_seconds = 5;
constexpr std::size_t max_head = 64 << 10;

// Every answer goes out here, with the headers each one carries.
MHD_Result send(MHD_Connection* conn, const response& page, double build_ms) {
    MHD_Response* r = MHD_create_response_from_buffer(
        page.body.size(), const_cast<char*>(page.body.data()), MHD_RESPMEM_MUST_COPY);
    auto header = [r](const char* name, const std::string& value) {
        MHD_add_response_header(r, name, value.c_str());
    };
    header("Content-Type", page.content_type);
    header("X-Content-Type-Options", "nosniff");
    header("Cache-Control", "no-store");
    // Only this page's own script runs (under the nonce drawn for this response; none when
    // the page has no script), and the page fetches nothing from anywhere else.
    header("Content-Security-Policy",
           "default-src 'none'; style-src 'unsafe-inline'; img-src 'self'; form-action 'self'; "
           "base-uri 'none'; script-src " +
               (page.nonce.empty() ? std::string("'none'") : "'nonce-" + page.nonce + "'"));
    if (build_ms >= 0) header("Server-Timing", "page;dur=" + fixed(build_ms, 3));
    if (!page.attachment.empty())
        header("Content-Disposition", "attachment; filename=\"" + page.attachment + "\"");
    if (!page.allow.empty()) header("Allow", page.allow);
    // A refused request's body is left unread, so its connection cannot carry another.
    if (page.close) header("Connection", "close");
    const MHD_Result queued = MHD_queue_response(conn, static_cast<unsigned>(page.status), r);
    MHD_destroy_response(r);
    return queued;
}

// Decided from the request line and headers alone, before a body would be read: the refusal,
// or an empty response.
response refusal(MHD_Connection* conn, const std::string& method, const char* url) {
    std::size_t head = method.size() + std::strlen(url) + 16;
    MHD_get_connection_values(
        conn, static_cast<MHD_ValueKind>(MHD_HEADER_KIND | MHD_GET_ARGUMENT_KIND),
        [](void* bytes, MHD_ValueKind, const char* key, const char* value) {
            *static_cast<std::size_t*>(bytes) +=
                std::strlen(key) + (value ? std::strlen(value) : 0) + 4;
            return MHD_YES;
        },
        &head);
    const char* length = MHD_lookup_connection_value(conn, MHD_HEADER_KIND, "Content-Length");
    const bool body = (length != nullptr && std::strcmp(length, "0") != 0) ||
                      MHD_lookup_connection_value(conn, MHD_HEADER_KIND, "Transfer-Encoding");
    response r;
    if (head > max_head)
        r = error_response(413, "Request too large",
                           "request heads are limited to " + std::to_string(max_head) + " bytes");
    else if (body && method != "GET" && method != "HEAD")
        r = error_response(413, "Request too large", "no page takes a request body");
    else if (method != "GET" && method != "HEAD")
        r = error_response(405, "Method not allowed", "only GET and HEAD are served");
    else if (body)
        r = error_response(400, "Bad request", "a GET request carries no body");
    else
        return r;
    r.close = true;
    r.allow = r.status == 405 ? "GET, HEAD" : "";
    return r;
}

}  // namespace

struct handler {
    // Called once the headers are in, and again once the body is (none gets past the first
    // call): a refusal is sent at once, a page only on the second call, since an answer sent
    // before the request is whole ends its connection.
    static MHD_Result answer(void* cls, MHD_Connection* conn, const char* url, const char* method,
                             const char*, const char*, std::size_t*, void** state) {
        const auto* self = static_cast<const http_server*>(cls);
        const auto t0 = std::chrono::steady_clock::now();
        response page;
        if (*state == nullptr) {
            page = refusal(conn, method, url);
            *state = conn;
            if (page.status == 200) return MHD_YES;
        } else {
            request req{url, {}};
            MHD_get_connection_values(
                conn, MHD_GET_ARGUMENT_KIND,
                [](void* params, MHD_ValueKind, const char* key, const char* value) {
                    static_cast<decltype(req.params)*>(params)->emplace_back(key,
                                                                             value ? value : "");
                    return MHD_YES;
                },
                &req.params);
            page = self->site_.serve(req);
        }
        const double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
                .count();
        if (self->access_log)
            std::fprintf(stderr, "sorvexa-browse: %s %s %d %.3f ms\n", method, url, page.status,
                         ms);
        return send(conn, page, page.close ? -1 : ms);
    }
};

int http_server::start(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return -1;
    // A browser opens several connections at once, and every idle client holds a place until
    // it is accepted: a long listen queue keeps new ones from being dropped and retried. Heads
    // up to four times the limit are read whole so that the answer can be the 413 that says
    // why; beyond, the library gives up on its own (431) rather than hold more memory.
    daemon_ = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL |
                                   (found->ai_family == AF_INET6 ? MHD_USE_IPv6 : 0),
                               0, nullptr, nullptr, &handler::answer, this, MHD_OPTION_SOCK_ADDR,
                               found->ai_addr, MHD_OPTION_LISTENING_ADDRESS_REUSE, 1u,
                               MHD_OPTION_LISTEN_BACKLOG_SIZE, static_cast<unsigned>(SOMAXCONN),
                               MHD_OPTION_THREAD_POOL_SIZE, threads, MHD_OPTION_CONNECTION_LIMIT,
                               connections, MHD_OPTION_CONNECTION_TIMEOUT, idle_seconds,
                               MHD_OPTION_CONNECTION_MEMORY_LIMIT, 4 * max_head, MHD_OPTION_END);
    ::freeaddrinfo(found);
    const MHD_DaemonInfo* bound =
        daemon_ != nullptr ? MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT) : nullptr;
    return bound != nullptr ? bound->port : -1;
}

void http_server::stop() {
    if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
}

}  // namespace browse

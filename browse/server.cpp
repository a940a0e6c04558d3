#include "server.h"

#include <chrono>

#include "html.h"

namespace browse {

void send(const response& page, httplib::Response& res, double build_ms) {
    res.status = page.status;
    res.set_header("X-Content-Type-Options", "nosniff");
    res.set_header("Cache-Control", "no-store");
    // Only this page's own script runs (under the nonce drawn for this response; none when
    // the page has no script), and the page fetches nothing from anywhere else.
    res.set_header("Content-Security-Policy",
                   "default-src 'none'; style-src 'unsafe-inline'; img-src 'self'; "
                   "form-action 'self'; base-uri 'none'; script-src " +
                       (page.nonce.empty() ? std::string("'none'")
                                           : "'nonce-" + page.nonce + "'"));
    res.set_header("Server-Timing", "page;dur=" + fixed(build_ms, 3));
    if (!page.attachment.empty())
        res.set_header("Content-Disposition", "attachment; filename=\"" + page.attachment + "\"");
    res.set_content(page.body, page.content_type.c_str());
}

namespace {

template <class Build>
httplib::Server::Handler timed(Build build) {
    return [build](const httplib::Request& req, httplib::Response& res) {
        const auto t0 = std::chrono::steady_clock::now();
        const response page = build(req);
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - t0;
        send(page, res, took.count());
    };
}

// The path and query as the pages take them.
request request_of(const httplib::Request& req) {
    request r;
    r.path = req.path;
    for (const auto& [key, value] : req.params) r.params.emplace_back(key, value);
    return r;
}

}  // namespace

void add_routes(httplib::Server& server, const site& s) {
    // Which page answers a path is the pages' own business (routes.cpp).
    server.Get(R"(.*)",
               timed([&s](const httplib::Request& req) { return s.serve(request_of(req)); }));
}

}  // namespace browse
